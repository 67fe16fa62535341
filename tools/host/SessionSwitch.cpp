#include "SessionSwitch.h"

#include <cstdio>

#include "StatusPrinter.h"

namespace {
const char* resultName(ZelResult result) {
    switch (result) {
        case ZelResultSuccess:
            return "Success";
        case ZelResultNotInitialized:
            return "NotInitialized";
        case ZelResultAlreadyInitialized:
            return "AlreadyInitialized";
        case ZelResultBusy:
            return "Busy";
        case ZelResultBadArgument:
            return "BadArgument";
        case ZelResultBadTime:
            return "BadTime";
        default:
            return "Unknown";
    }
}

void report(const char* call, ZelResult result) {
    std::printf("zel-host: %s returned %u (%s)\n", call, result, resultName(result));
    std::fflush(stdout);
}
}  // namespace

void SessionSwitch::useCodeDigits(unsigned digits) {
    std::lock_guard<std::mutex> lock(mutex_);
    hasDigits_ = true;
    digits_ = digits;
}

void SessionSwitch::openWhenReady() {
    std::lock_guard<std::mutex> lock(mutex_);
    pendingOpen_ = true;
}

void SessionSwitch::observe(const ZelStatus& status) {
    std::lock_guard<std::mutex> lock(mutex_);
    lastState_ = status.sessionState;
    // Until the cloud enables remote support the state stays Disabled; wait.
    if (!pendingOpen_ || status.state != DeviceAgentStateInitialized ||
        status.sessionState == ZelSessionStateDisabled) {
        return;
    }
    pendingOpen_ = false;
    if (status.sessionState == ZelSessionStateNone) {
        open();
    } else {
        // A session kept from the last run comes back by itself.
        std::printf("zel-host: a session is already %s, not opening another\n",
                    StatusPrinter::SessionStateName(status.sessionState));
        std::fflush(stdout);
    }
}

void SessionSwitch::toggle() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (lastState_ == ZelSessionStateNone) {
        open();
    } else {
        report("ZelSessionTerm()", ZelSessionTerm());
    }
}

void SessionSwitch::open() {
    if (hasDigits_) {
        char call[64];
        std::snprintf(call, sizeof call, "ZelSessionInitCodeDigits(0, %u)", digits_);
        report(call, ZelSessionInitCodeDigits(0, digits_));
    } else {
        report("ZelSessionInit(0)", ZelSessionInit(0));
    }
}
