#include "UpdateAnswerer.h"

#include <cstdio>

namespace {
constexpr unsigned kBarWidth = 20;
}  // namespace

const char* UpdateAnswerer::StateName(uint32_t updateState) {
    static const char* const names[] = {"NotAvailable", "Failed",    "Available",
                                        "Downloaded",   "Confirmed", "Unsupported"};
    return updateState < 6 ? names[updateState] : "Unknown";
}

std::string UpdateAnswerer::ProgressBar(uint32_t percent) {
    if (percent > 100) {
        percent = 100;
    }
    unsigned filled = percent * kBarWidth / 100;
    char line[64];
    std::snprintf(line, sizeof line, "[%s%s] %3u%%", std::string(filled, '#').c_str(),
                  std::string(kBarWidth - filled, '.').c_str(), percent);
    return line;
}

void UpdateAnswerer::observe(const ZelStatus& status) {
    if (status.state != DeviceAgentStateInitialized) {
        return;
    }
    std::string version = status.updateVersion != nullptr ? status.updateVersion : "";
    if (status.updateState != lastState_ || version != lastVersion_) {
        lastState_ = status.updateState;
        lastVersion_ = version;
        lastTenth_ = 0;
        std::printf("zel-host: update %s %s%s%s\n", StateName(status.updateState), version.c_str(),
                    status.updateDisplayText != nullptr ? ": " : "",
                    status.updateDisplayText != nullptr ? status.updateDisplayText : "");
        if (status.updateState == ZelSoftwareUpdateStateAvailable &&
            permission_ <= ZelSoftwareUpdatePermissionConfirm &&
            status.updatePermission != permission_) {
            ZelResult result = ZelSetSoftwareUpdatePermission(permission_);
            std::printf("zel-host: ZelSetSoftwareUpdatePermission(%u) returned %u\n", permission_,
                        result);
        }
    }
    // One line every tenth of the way, as a bar would move.
    uint32_t tenth = status.updatePercentDownloaded / 10;
    if (status.updateState >= ZelSoftwareUpdateStateAvailable && tenth > lastTenth_) {
        lastTenth_ = tenth;
        std::printf("zel-host: update %s %s\n", version.c_str(),
                    ProgressBar(status.updatePercentDownloaded).c_str());
    }
    std::fflush(stdout);
}
