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

std::string stamp() {
    time_t now = time(nullptr);
    tm utc{};
    gmtime_r(&now, &utc);
    char text[32];
    strftime(text, sizeof text, "%FT%TZ", &utc);
    return text;
}
}  // namespace

const char* StatusPrinter::SessionStateName(uint32_t sessionState) {
    switch (sessionState) {
        case ZelSessionStateInitializing:
            return "Initializing";
        case ZelSessionStateTerminating:
            return "Terminating";
        case ZelSessionStateSuspending:
            return "Suspending";
        case ZelSessionStateResuming:
            return "Resuming";
        case ZelSessionStateReady:
            return "Ready";
        case ZelSessionStateJoined:
            return "Joined";
        case ZelSessionStateNone:
            return "None";
        case ZelSessionStateDisabled:
            return "Disabled";
        case ZelSessionStateUnsupported:
            return "Unsupported";
        default:
            return "Unknown";
    }
}

std::string StatusPrinter::Describe(const ZelStatus& status) {
    std::ostringstream line;
    line << "state=" << stateName(status.state) << " testMode=" << status.testMode
         << " session=" << SessionStateName(status.sessionState) << " opid=" << text(status.opid)
         << " cloud=" << text(status.cloud) << " deviceId=" << text(status.deviceId)
         << " swVersion=" << text(status.swVersion) << " sdk=" << text(status.sdkVersion)
         << " consentUrl=" << text(status.consentUrl) << " update=" << status.updateState << "/"
         << status.updateSource << "/" << status.updatePermission;
    return line.str();
}

bool StatusPrinter::print(const ZelStatus& status) {
    std::string line = Describe(status);
    bool changed = line != last_;
    if (changed) {
        last_ = line;
        std::printf("%s zel-host: %s\n", stamp().c_str(), line.c_str());
    }
    // The code is not part of the line; it can change on its own.
    printSession(status);
    std::fflush(stdout);
    return changed;
}

void StatusPrinter::printSession(const ZelStatus& status) {
    std::string session = SessionStateName(status.sessionState);
    if (status.sessionInfo != nullptr && status.sessionInfo[0] != '\0') {
        session += ", code ";
        session += status.sessionInfo;
    }
    // The first status line says it already, unless there is a code.
    if (lastSession_.empty() && session == SessionStateName(status.sessionState)) {
        lastSession_ = session;
        return;
    }
    if (session != lastSession_) {
        lastSession_ = session;
        std::printf("%s zel-host: session %s\n", stamp().c_str(), session.c_str());
    }
}
