#pragma once

#include <string>

#include "zel_korvane.h"

namespace korvane {

// The vendor plug-in library. Every entry point may be missing; callers check
// before use. The process-wide instance is never unloaded, so its pointers
// (and whatever the plug-in registered through them) stay valid.
class KorvanePlugin {
public:
    // The process-wide plug-in, loaded from LibraryPath() on first use.
    static KorvanePlugin& Instance();

    // "/usr/local/lib/libzel_korvane.so", unless ZEL_KORVANE_PLUGIN names another file.
    static std::string LibraryPath();

    // Loads the library at `path` (tests and tools; the agent uses Instance()).
    explicit KorvanePlugin(const std::string& path);
    ~KorvanePlugin();
    KorvanePlugin(const KorvanePlugin&) = delete;
    KorvanePlugin& operator=(const KorvanePlugin&) = delete;

    bool isLoaded() const { return handle_ != nullptr; }

    // Fills `password` from the plug-in; false when the entry point is missing
    // or supplies nothing usable.
    bool getZelPassword(std::string& password) const;

    ZelKorvaneCreateDeviceValuesExt createDeviceValuesExt = nullptr;
    ZelKorvaneGetZelPassword getZelPasswordExt = nullptr;
    ZelKorvaneCreateCommandsExt createCommandsExt = nullptr;
    ZelKorvaneFillVideoBufferExt fillVideoBufferExt = nullptr;
    ZelKorvaneGetGstreamerPathExt getGstreamerPathExt = nullptr;
    ZelKorvaneGetVideoWidthExt getVideoWidthExt = nullptr;
    ZelKorvaneGetVideoHeightExt getVideoHeightExt = nullptr;
    ZelKorvaneInitialize initializeExt = nullptr;

private:
    void* handle_ = nullptr;
};

}  // namespace korvane
