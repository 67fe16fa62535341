#pragma once

#include <cstdint>
#include <string>

namespace Zel {
namespace Su {

// The "softwareUpdate" section of the configuration document.
class SoftwareUpdateConfig {
public:
    explicit SoftwareUpdateConfig(const char* text);

    const std::string& getStagingLocation() const { return stagingLocation_; }
    uint32_t getMaxBlockSizeBytes() const { return maxBlockSizeBytes_; }

    void logStateDebug() const;

private:
    std::string stagingLocation_ = "/tmp/staging.raw";
    uint32_t maxBlockSizeBytes_ = 0;  // 0: no limit
};

}  // namespace Su
}  // namespace Zel
