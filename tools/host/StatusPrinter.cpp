#include "StatusPrinter.h"

#include <cstdio>
#include <ctime>
#include <sstream>

namespace {
const char* stateName(uint32_t state) {
    switch (state) {
        case DeviceAgentStateUninitialized:
            return "Uninitialized";
        case DeviceAgentStateInitialized:
            return "Initialized";
        case DeviceAgentStateTerminating:
            return "Terminating";
        case DeviceAgentStateFactoryResetting:
            return "FactoryResetting";
        default:
            return "Unknown";
    }
}

const char* text(const char* value) {
    return value != nullptr ? value : "-";
}
}  // namespace

std::string StatusPrinter::Describe(const ZelStatus& status) {
    std::ostringstream line;
    line << "state=" << stateName(status.state) << " testMode=" << status.testMode
         << " session=" << status.sessionState << " opid=" << text(status.opid)
         << " cloud=" << text(status.cloud) << " deviceId=" << text(status.deviceId)
         << " swVersion=" << text(status.swVersion) << " sdk=" << text(status.sdkVersion)
         << " consentUrl=" << text(status.consentUrl) << " update=" << status.updateState << "/"
         << status.updateSource << "/" << status.updatePercentDownloaded << "%";
    return line.str();
}

bool StatusPrinter::print(const ZelStatus& status) {
    std::string line = Describe(status);
    if (line == last_) {
        return false;
    }
    last_ = line;
    time_t now = time(nullptr);
    tm utc{};
    gmtime_r(&now, &utc);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%FT%TZ", &utc);
    std::printf("%s zel-host: %s\n", stamp, line.c_str());
    std::fflush(stdout);
    return true;
}
