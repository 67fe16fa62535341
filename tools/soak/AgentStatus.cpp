#include "AgentStatus.h"

bool AgentStatus::Read(AgentStatus& status) {
    ZelStatus raw{};
    if (ZelGetStatus(ZelStatusMethodNow, &raw) != ZelResultSuccess) {
        ZelFreeStatus(&raw);
        return false;
    }
    try {
        status.state = raw.state;
        status.sessionState = raw.sessionState;
        status.sessionInfo = raw.sessionInfo != nullptr ? raw.sessionInfo : "";
        status.updateState = raw.updateState;
        status.updatePermission = raw.updatePermission;
        status.updateVersion = raw.updateVersion != nullptr ? raw.updateVersion : "";
    } catch (...) {
        ZelFreeStatus(&raw);
        throw;
    }
    ZelFreeStatus(&raw);
    return true;
}
