// The library's C entry points. Each checks its arguments, then hands over to
// the core; none of them lets an exception reach the host.
#include <cstdarg>
#include <exception>
#include <string>

#include "Core/Base/CoreManager.h"
#include "Core/Platform/FunctionTrace.h"
#include "Core/Platform/Logger.h"
#include "Core/Platform/StringUtil.h"
#include "Drmp/Base/DrmpManager.h"
#include "SoftwareUpdate/Base/SoftwareUpdateManager.h"
#include "SupportView/Base/SupportViewManager.h"
#include "zel.h"

using Zel::Core::CoreManager;
using namespace Zel::Core;

namespace {
constexpr const char* kLogSource = "Base/ZelCore";

// The host's thread must never see an exception; a failure we did not foresee
// is logged and reported as a bad argument. The function trace carries the
// entry point's own name.
template <typename Body>
ZelResult guarded(const char* function, int line, Body body) {
    const char* what = "unknown exception";
    try {
        FunctionTrace trace(function, kLogSource, line, ServiceCore);
        return body();
    } catch (const std::exception& error) {
        what = error.what();
    } catch (...) {
    }
    try {
        ZEL_LOG(ServiceCore, CategoryClibapi, SeverityFatal, "%s() failed: %s", function, what);
    } catch (...) {
    }
    return ZelResultBadArgument;
}

ZelResult warnBadArgument(const char* message) {
    ZEL_LOG(ServiceSv, CategoryClibapi, SeverityWarning, "%s", message);
    return ZelResultBadArgument;
}

ZelResult badArgument(const char* message) {
    ZEL_LOG(ServiceCore, CategoryClibapi, SeverityError, "%s", message);
    return ZelResultBadArgument;
}

void called(const char* function) {
    ZEL_LOG(ServiceCore, CategoryClibapi, SeverityInfo, "%s() called", function);
}
}  // namespace

extern "C" {

ZEL_API ZelResult ZelInit(const char* identity, const char* config, const char* device) {
    return guarded("ZelInit", __LINE__, [&] {
        if (identity == nullptr) {
            return badArgument("ZelInit() called with bad identity value");
        }
        if (config == nullptr) {
            return badArgument("ZelInit() called with bad config value");
        }
        if (device == nullptr) {
            return badArgument("ZelInit() called with bad device value");
        }
        called("ZelInit");
        return CoreManager::Instance().initialize(identity, config, device);
    });
}

ZEL_API ZelResult ZelTerm(void) {
    return guarded("ZelTerm", __LINE__, [&] {
        called("ZelTerm");
        return CoreManager::Instance().terminate(false);
    });
}

ZEL_API ZelResult ZelFactoryReset(void) {
    return guarded("ZelFactoryReset", __LINE__, [&] {
        called("ZelFactoryReset");
        return CoreManager::Instance().terminate(true);
    });
}

ZEL_API ZelResult ZelFactoryResetOffline(const char* config) {
    return guarded("ZelFactoryResetOffline", __LINE__, [&] {
        if (config == nullptr) {
            return badArgument("ZelFactoryResetOffline() called with bad config value");
        }
        called("ZelFactoryResetOffline");
        return CoreManager::Instance().factoryResetOffline(config);
    });
}

ZEL_API ZelResult ZelEnableTestMode(void) {
    return guarded("ZelEnableTestMode", __LINE__, [&] {
        called("ZelEnableTestMode");
        return CoreManager::Instance().enableTestMode();
    });
}

ZEL_API ZelResult ZelSetOemMsg(const char* msg) {
    return guarded("ZelSetOemMsg", __LINE__, [&] {
        if (msg == nullptr) {
            return badArgument("ZelSetOemMsg() called with bad msg value");
        }
        called("ZelSetOemMsg");
        return CoreManager::Instance().setOemMsg(msg);
    });
}

ZEL_API ZelResult ZelGetStatus(ZelStatusMethod method, ZelStatus* status) {
    return guarded("ZelGetStatus", __LINE__, [&] {
        if (method > ZelStatusMethodWaitForChange) {
            return badArgument("ZelGetStatus() called with bad method value");
        }
        if (status == nullptr) {
            return badArgument("ZelGetStatus() called with bad status value");
        }
        called("ZelGetStatus");
        return CoreManager::Instance().getStatus(method, status);
    });
}

ZEL_API ZelResult ZelFreeStatus(ZelStatus* status) {
    return guarded("ZelFreeStatus", __LINE__, [&] {
        if (status == nullptr) {
            return badArgument("ZelFreeStatus() called with bad status value");
        }
        called("ZelFreeStatus");
        return CoreManager::Instance().freeStatus(status);
    });
}

ZEL_API ZelResult ZelLogMessage(uint32_t severity, const char* format, ...) {
    // The arguments are formatted here, where the va_list lives.
    std::string text;
    bool formatted = false;
    if (severity <= 5 && format != nullptr) {
        va_list args;
        va_start(args, format);
        try {
            text = StringUtil::Vform(format, args);
            formatted = true;
        } catch (...) {
        }
        va_end(args);
    }
    return guarded("ZelLogMessage", __LINE__, [&] {
        if (severity > 5) {
            return badArgument("ZelLogMessage() called with bad severity value");
        }
        if (format == nullptr) {
            return badArgument("ZelLogMessage() called with bad format value");
        }
        // Logged at the most verbose level so that host logging does not double our volume.
        ZEL_LOG(ServiceCore, CategoryClibapi, SeverityTrace, "ZelLogMessage() called");
        if (!formatted) {
            return ZelResultBadArgument;
        }
        return CoreManager::Instance().supervisorLog(6 - severity, text);
    });
}

ZEL_API ZelResult ZelSessionInit(uint32_t allowSessionCodeBypass) {
    return guarded("ZelSessionInit", __LINE__, [&] {
        ZEL_LOG(ServiceSv, CategoryClibapi, SeverityInfo, "ZelSessionInit() called");
        if (allowSessionCodeBypass > 1) {
            return warnBadArgument("ZelSessionInit() called with bad allowSessionCodeBypass value");
        }
        return Zel::Sv::SupportViewManager::Instance().sessionInitialize(allowSessionCodeBypass ==
                                                                         1);
    });
}

ZEL_API ZelResult ZelSessionInitCodeDigits(uint32_t allowSessionCodeBypass,
                                           uint32_t sessionCodeDigits) {
    return guarded("ZelSessionInitCodeDigits", __LINE__, [&] {
        if (allowSessionCodeBypass > 1) {
            return warnBadArgument(
                "ZelSessionInitCodeDigits() called with bad allowSessionCodeBypass value");
        }
        if (sessionCodeDigits < 4 || sessionCodeDigits > 16) {
            return warnBadArgument(
                "ZelSessionInitCodeDigits() called with bad sessionCodeDigits value");
        }
        ZEL_LOG(ServiceSv, CategoryClibapi, SeverityInfo, "ZelSessionInitCodeDigits() called");
        return Zel::Sv::SupportViewManager::Instance().sessionInitialize(
            allowSessionCodeBypass == 1, sessionCodeDigits);
    });
}

ZEL_API ZelResult ZelSessionTerm(void) {
    return guarded("ZelSessionTerm", __LINE__, [&] {
        ZEL_LOG(ServiceSv, CategoryClibapi, SeverityInfo, "ZelSessionTerm() called");
        return Zel::Sv::SupportViewManager::Instance().sessionTerminate();
    });
}

ZEL_API ZelResult ZelCheckForSoftwareUpdate(void) {
    return guarded("ZelCheckForSoftwareUpdate", __LINE__, [&] {
        ZEL_LOG(ServiceSu, CategoryClibapi, SeverityInfo, "ZelCheckForSoftwareUpdate() called");
        return CoreManager::Instance().checkForSoftwareUpdate();
    });
}

ZEL_API ZelResult ZelSetSoftwareUpdateSource(uint32_t source, const char* location) {
    return guarded("ZelSetSoftwareUpdateSource", __LINE__, [&] {
        if (source > ZelSoftwareUpdateSourceNetwork) {
            ZEL_LOG(ServiceSu, CategoryClibapi, SeverityWarning,
                    "ZelSetSoftwareUpdateSource() called with bad source value");
            return ZelResultBadArgument;
        }
        if (source == ZelSoftwareUpdateSourceLocal && location == nullptr) {
            ZEL_LOG(ServiceSu, CategoryClibapi, SeverityWarning,
                    "ZelSetSoftwareUpdateSource() called with bad location value");
            return ZelResultBadArgument;
        }
        ZEL_LOG(ServiceSu, CategoryClibapi, SeverityInfo, "ZelSetSoftwareUpdateSource() called");
        return Zel::Su::SoftwareUpdateManager::Instance().setSource(
            source, location != nullptr ? location : "", true);
    });
}

ZEL_API ZelResult ZelSetSoftwareUpdatePermission(uint32_t permission) {
    return guarded("ZelSetSoftwareUpdatePermission", __LINE__, [&] {
        if (permission > ZelSoftwareUpdatePermissionConfirm) {
            ZEL_LOG(ServiceSu, CategoryClibapi, SeverityWarning,
                    "ZelSetSoftwareUpdatePermission() called with bad permission value");
            return ZelResultBadArgument;
        }
        ZEL_LOG(ServiceSu, CategoryClibapi, SeverityInfo,
                "ZelSetSoftwareUpdatePermission() called with permission: %u", permission);
        return Zel::Su::SoftwareUpdateManager::Instance().setPermission(permission);
    });
}

ZEL_API ZelResult ZelCheckForDrmpUpdate(void) {
    return guarded("ZelCheckForDrmpUpdate", __LINE__, [&] {
        ZEL_LOG(ServiceDrmp, CategoryClibapi, SeverityInfo, "ZelCheckForDrmpUpdate() called");
        return Zel::Drmp::DrmpManager::Instance().checkForDrmpUpdate();
    });
}

}  // extern "C"
