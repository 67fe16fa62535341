#pragma once

#include <cstdint>
#include <string>

namespace Zel {
namespace Drmp {

// The "drmp" section of the configuration document: where the secure-object
// library is, or the emulated secure core of a development device.
class DrmpConfig {
public:
    static constexpr const char* kDefaultLibraryPath = "/usr/local/lib/libzel_secure.so";
    static constexpr const char* kDefaultReadyMarker = "/var/local/zel_test_object_is_ready";

    explicit DrmpConfig(const char* text);

    bool getEnableEmulatedSecureCore() const { return enableEmulatedSecureCore_; }
    uint32_t getEmulatedUlpkIndex() const { return emulatedUlpkIndex_; }
    const std::string& getEmulatedUlpk() const { return emulatedUlpk_; }
    const std::string& getEmulatedPotk() const { return emulatedPotk_; }
    const std::string& getEmulatedRecoveryPotk() const { return emulatedRecoveryPotk_; }
    const std::string& getEmulatedSupportedObjectNames() const {
        return emulatedSupportedObjectNames_;
    }
    const std::string& getSecureLibraryPath() const { return secureLibraryPath_; }
    const std::string& getReadyMarkerFile() const { return readyMarkerFile_; }

    void logStateDebug() const;

private:
    bool enableEmulatedSecureCore_ = false;
    uint32_t emulatedUlpkIndex_ = 0;
    std::string emulatedUlpk_;  // hex text
    std::string emulatedPotk_;
    std::string emulatedRecoveryPotk_;
    std::string emulatedSupportedObjectNames_;  // comma-separated
    std::string secureLibraryPath_ = kDefaultLibraryPath;
    std::string readyMarkerFile_ = kDefaultReadyMarker;
};

}  // namespace Drmp
}  // namespace Zel
