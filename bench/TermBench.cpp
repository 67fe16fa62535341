// How long ZelTerm takes to bring the agent to Uninitialized while an
// exchange is in flight: the cloud holds every notification call for ten
// minutes, the agent is stopped once the call is under way, and the time
// runs from ZelTerm to the status change that reports Uninitialized.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include "Core/Platform/JsonUtil.h"
#include "tools/cloud/Cloud.h"
#include "tools/cloud/TlsServer.h"
#include "zel.h"

namespace {

std::string readFile(const std::string& path) {
    std::string text;
    ZelCloud::TlsServer::ReadFile(path, text);
    return text;
}

struct Lab {
    std::string dir;
    std::unique_ptr<ZelCloud::Cloud> cloud;
    std::string identity, config, device;
    bool ok = false;

    Lab() {
        char pattern[] = "/tmp/zel-term.XXXXXX";
        if (mkdtemp(pattern) == nullptr) {
            return;
        }
        dir = pattern;
        ZelCloud::CloudOptions options;
        options.pkiDir = dir + "/pki";
        options.quiet = true;
        Json::Value settings;
        settings["daPollDelayFixedMs"] = 50;
        settings["daPollDelayVariedMs"] = 0;
        settings["daRetryDelayFixedMs"] = 50;
        settings["daRetryDelayVariedMs"] = 0;
        options.settings = settings;
        cloud = std::make_unique<ZelCloud::Cloud>(options);
        if (!cloud->bind()) {
            return;
        }
        std::string command = std::string(ZEL_SOURCE_DIR) + "/tools/pki/make-pki.sh " + dir +
                              "/pki zel.localhost:" + std::to_string(cloud->port()) +
                              " >/dev/null 2>&1";
        if (std::system(command.c_str()) != 0 || !cloud->start()) {
            return;
        }
        identity = readFile(dir + "/pki/identity.json");
        device = readFile(dir + "/pki/device.json");
        Json::Value document;
        document["core"]["persistentPath"] = dir;
        document["core"]["temporaryPath"] = dir;
        config = Zel::Core::JsonUtil::Compact(document);
        ok = true;
    }
    ~Lab() {
        cloud->stop();
        std::system(("rm -rf " + dir).c_str());
    }
};

uint32_t waitForState(uint32_t wanted) {
    ZelStatus status{};
    ZelGetStatus(ZelStatusMethodNow, &status);
    while (status.state != wanted) {
        ZelFreeStatus(&status);
        ZelGetStatus(ZelStatusMethodWaitForChange, &status);
    }
    uint32_t state = status.state;
    ZelFreeStatus(&status);
    return state;
}

void BM_TermWithExchangeInFlight(benchmark::State& state) {
    static Lab lab;
    if (!lab.ok) {
        state.SkipWithError("the loopback lab did not start");
        return;
    }
    for (auto _ : state) {
        ZelCloud::FaultPlan::Fault hold;
        hold.path = "da/notification";
        hold.kind = ZelCloud::FaultPlan::Kind::Delay;
        hold.delayMs = 600000;
        lab.cloud->clearFaults();
        lab.cloud->addFault(hold);
        if (ZelInit(lab.identity.c_str(), lab.config.c_str(), lab.device.c_str()) != 0 ||
            !lab.cloud->waitForInFlight(1, std::chrono::seconds(20))) {
            state.SkipWithError("no exchange came to be held");
            break;
        }
        // The cloud sees the request a moment before the agent settles into
        // its wait; stop it only once it truly waits.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        auto start = std::chrono::steady_clock::now();
        ZelTerm();
        waitForState(DeviceAgentStateUninitialized);
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        lab.cloud->clearFaults();
    }
}
BENCHMARK(BM_TermWithExchangeInFlight)
    ->UseManualTime()
    ->Iterations(1)
    ->Repetitions(10)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
