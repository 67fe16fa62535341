#pragma once

#include <time.h>

#include <deque>
#include <memory>
#include <string>

#include "SupportView/Base/SessionEnums.h"
#include "SupportView/Base/SessionTask.h"

namespace Zel {
namespace Sv {

// The three control threads, in the order the inactivity time-out looks at them.
enum ThreadRole : unsigned { RoleSession = 0, RoleGetTask = 1, RolePutTask = 2, kRoleCount = 3 };

struct ThreadValues {
    ThreadActivity activity = ThreadActivity::Checking;
    bool watch = false;     // a call failed: the inactivity time-out watches this thread
    bool retry = false;     // the next pass waits the retry delay first
    timespec lastActive{};  // wall clock when the thread last started a call
};

// Everything a SupportView session is, guarded by the core mutex.
struct SessionValues {
    std::string sessionToken;  // empty: no session
    std::string sessionCode;
    unsigned sessionState = ZelSessionStateNone;
    SessionRequest sessionRequest = SessionRequest::None;
    bool sessionAllowCodeBypass = false;
    unsigned sessionCodeDigits = 9;
    ThreadValues threads[kRoleCount];
    bool terminating = false;
    // At shut-down the session thread makes one last call, without retries.
    bool finalCallMade = false;
    bool timeoutActive = false;
    timespec timeoutLimit{};
    unsigned getTaskSeqNum = 0;  // last task received; 0: none yet
    unsigned putTaskSeqNum = 0;  // returned by the last put
    unsigned taskExecuteCount = 0;
    // Bumped whenever a session ends, so that late task results are recognised.
    unsigned generation = 0;
    std::deque<std::unique_ptr<SessionTask>> taskResultList;

    bool hasSession() const { return !sessionToken.empty(); }
    bool readyOrJoined() const {
        return sessionState == ZelSessionStateReady || sessionState == ZelSessionStateJoined;
    }
};

}  // namespace Sv
}  // namespace Zel
