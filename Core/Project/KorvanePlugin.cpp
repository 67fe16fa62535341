#include "Core/Project/KorvanePlugin.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "Core/Platform/Logger.h"

namespace {
constexpr const char* kLogSource = "Project/KorvanePlugin";
constexpr const char* kDefaultLibraryPath = "/usr/local/lib/libzel_korvane.so";

template <typename T>
T lookup(void* handle, const char* symbol) {
    dlerror();
    return reinterpret_cast<T>(dlsym(handle, symbol));
}

}  // namespace

namespace korvane {

using Zel::Core::CategoryClibapi;
using Zel::Core::ServiceCore;
using Zel::Core::SeverityError;

KorvanePlugin& KorvanePlugin::Instance() {
    // Never destroyed: commands and callbacks taken from the plug-in may be
    // used until the very end of the process.
    static KorvanePlugin* instance = new KorvanePlugin(LibraryPath());
    return *instance;
}

std::string KorvanePlugin::LibraryPath() {
    const char* path = std::getenv("ZEL_KORVANE_PLUGIN");
    return (path != nullptr && *path != '\0') ? path : kDefaultLibraryPath;
}

KorvanePlugin::KorvanePlugin(const std::string& path) {
    if (access(path.c_str(), F_OK) != 0) {
        ZEL_LOG(ServiceCore, CategoryClibapi, SeverityError, "no %s", path.c_str());
        return;
    }
    handle_ = dlopen(path.c_str(), RTLD_LAZY);
    if (handle_ == nullptr) {
        const char* error = dlerror();
        ZEL_LOG(ServiceCore, CategoryClibapi, SeverityError, "can't dlopen : %s",
                error != nullptr ? error : "");
        return;
    }

    // The messages end in " : " without the dlerror() text; kept that way.
    createDeviceValuesExt =
        lookup<ZelKorvaneCreateDeviceValuesExt>(handle_, "createDeviceValuesExt");
    if (createDeviceValuesExt == nullptr) {
        ZEL_LOG(ServiceCore, CategoryClibapi, SeverityError, "createDeviceValuesExt null : ");
    }
    getZelPasswordExt = lookup<ZelKorvaneGetZelPassword>(handle_, "GetZelPassword");
    if (getZelPasswordExt == nullptr) {
        ZEL_LOG(ServiceCore, CategoryClibapi, SeverityError, "KoGetZelPassword null : ");
    }
    createCommandsExt = lookup<ZelKorvaneCreateCommandsExt>(handle_, "createCommandsExt");
    if (createCommandsExt == nullptr) {
        ZEL_LOG(ServiceCore, CategoryClibapi, SeverityError, "createCommandsExt null : ");
    }
    fillVideoBufferExt = lookup<ZelKorvaneFillVideoBufferExt>(handle_, "fillVideoBufferExt");
    if (fillVideoBufferExt == nullptr) {
        ZEL_LOG(ServiceCore, CategoryClibapi, SeverityError, "fillVideoBufferExt null : ");
    }
    // A device without screen capture has none of these; not worth a line.
    getGstreamerPathExt = lookup<ZelKorvaneGetGstreamerPathExt>(handle_, "getGstreamerPathExt");
    getVideoWidthExt = lookup<ZelKorvaneGetVideoWidthExt>(handle_, "getVideoWidthExt");
    getVideoHeightExt = lookup<ZelKorvaneGetVideoHeightExt>(handle_, "getVideoHeightExt");
    initializeExt = lookup<ZelKorvaneInitialize>(handle_, "initialize");
    if (initializeExt == nullptr) {
        ZEL_LOG(ServiceCore, CategoryClibapi, SeverityError, "initialize null : ");
        return;
    }
    initializeExt();
}

KorvanePlugin::~KorvanePlugin() {
    if (handle_ != nullptr) {
        dlclose(handle_);
    }
}

bool KorvanePlugin::getZelPassword(std::string& password) const {
    if (getZelPasswordExt == nullptr) {
        return false;
    }
    char buffer[1024];
    std::memset(buffer, 0, sizeof(buffer));
    uint32_t length = getZelPasswordExt(buffer, sizeof(buffer));
    if (length >= sizeof(buffer)) {
        ZEL_LOG(ServiceCore, CategoryClibapi, SeverityError,
                "GetZelPassword needs %u bytes, more than the %zu offered", length + 1,
                sizeof(buffer));
        return false;
    }
    password.assign(buffer, strnlen(buffer, length));
    return true;
}

}  // namespace korvane
