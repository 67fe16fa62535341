#include "SupportView/Project/NetworkDiagnostics.h"

#include <cmath>

#include "Core/Platform/JsonUtil.h"
#include "SupportView/Base/SupportViewManager.h"

namespace Zel {
namespace Sv {

using Core::JsonUtil;

namespace {
const char* passFail(bool passed) {
    return passed ? "Pass" : "Fail";
}

// Two decimals are all a speed test can claim.
Json::Value rate(double mbps) {
    if (mbps < 0) {
        return "Speed Test Failed.";
    }
    return std::round(mbps * 100.0) / 100.0;
}
}  // namespace

NetworkDiagnostics::NetworkDiagnostics()
    : BuiltinCommand(
          {"FFFFFF_LIVE_SUPPORT_NETWORK_DIAGNOSTICS", 2, 0, 30000, CommandOperationExecute}) {}

unsigned CommandNetworkDiagnostics::executeHandler(const Json::Value&, Json::Value& data) {
    SupportViewManager& manager = SupportViewManager::Instance();
    bool nat = false, dns = false, gateway = false, internet = false;
    manager.runNetworkDiagnosticsTest(nat, dns, gateway, internet);
    int latency = 0, signal = 0, quality = 0, linkSpeed = 0;
    manager.runLatencyTest(latency);
    manager.runWirelessTest(signal, quality, linkSpeed);
    double up = -1, down = -1;
    manager.runSpeedTest(up, down);

    data["Internet Type"] = nat ? "Indirect (NAT)" : "Direct (no NAT)";
    data["DNS Lookup"] = passFail(dns);
    data["Gateway Ping"] = passFail(gateway);
    data["Internet Ping"] = passFail(internet);
    data["Latency (ms)"] = latency;
    data["Wireless Signal (dBm)"] = signal;
    data["Wireless Signal Quality (# of 5)"] = quality;
    data["Wireless Speed (Mbps)"] = linkSpeed;
    data["Speed Up (Mbps)"] = rate(up);
    data["Speed Down (Mbps)"] = rate(down);
    JsonUtil::SetMemberOrder(
        data, {"Internet Type", "DNS Lookup", "Gateway Ping", "Internet Ping", "Latency (ms)",
               "Wireless Signal (dBm)", "Wireless Signal Quality (# of 5)", "Wireless Speed (Mbps)",
               "Speed Up (Mbps)", "Speed Down (Mbps)"});
    return CommandResultSuccess;
}

}  // namespace Sv
}  // namespace Zel
