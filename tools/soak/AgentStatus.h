#pragma once

#include <cstdint>
#include <string>

#include "zel.h"

// The parts of ZelStatus the soak follows, copied out so that the agent's
// strings go back at once.
class AgentStatus {
public:
    // The agent's status now; false when ZelGetStatus refuses.
    static bool Read(AgentStatus& status);

    uint32_t state = DeviceAgentStateUninitialized;
    uint32_t sessionState = ZelSessionStateDisabled;
    std::string sessionInfo;
    uint32_t updateState = ZelSoftwareUpdateStateNotAvailable;
    uint32_t updatePermission = ZelSoftwareUpdatePermissionNone;
    std::string updateVersion;
};
