#include "SupportView/Base/SessionDecisions.h"

namespace Zel {
namespace Sv {

namespace {
bool later(const timespec& a, const timespec& b) {
    return a.tv_sec > b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec > b.tv_nsec);
}

timespec plusMillis(const timespec& base, unsigned ms) {
    timespec out = base;
    out.tv_sec += ms / 1000;
    out.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    if (out.tv_nsec >= 1000000000L) {
        out.tv_sec += 1;
        out.tv_nsec -= 1000000000L;
    }
    return out;
}

ThreadActivity busyOrDelay(const ThreadValues& thread) {
    return thread.retry ? ThreadActivity::Delay : ThreadActivity::Busy;
}

void assignSession(SessionValues& values, bool& wake) {
    ThreadValues& thread = values.threads[RoleSession];
    bool pending = values.sessionRequest != SessionRequest::None;
    if (values.terminating) {
        // One last call at most, and never a retry delay: the host waits.
        if (thread.activity != ThreadActivity::Busy) {
            wake = thread.activity != ThreadActivity::Checking;
            thread.activity =
                pending && !values.finalCallMade ? ThreadActivity::Busy : ThreadActivity::Idle;
        }
        return;
    }
    bool endWithoutSession =
        !values.hasSession() && (values.sessionRequest == SessionRequest::Terminate ||
                                 values.sessionRequest == SessionRequest::Suspend);
    switch (thread.activity) {
        case ThreadActivity::Checking:
            thread.activity = !pending ? ThreadActivity::Idle : busyOrDelay(thread);
            break;
        case ThreadActivity::Idle:
            wake = pending;
            break;
        case ThreadActivity::Delay:
            wake = endWithoutSession;
            break;
        case ThreadActivity::Busy:
            break;
    }
}

void assignGetTask(SessionValues& values, bool& wake) {
    ThreadValues& thread = values.threads[RoleGetTask];
    switch (thread.activity) {
        case ThreadActivity::Checking:
            if (!values.terminating && values.hasSession() && values.readyOrJoined()) {
                thread.activity = busyOrDelay(thread);
            } else {
                thread.activity = ThreadActivity::Idle;
            }
            break;
        case ThreadActivity::Idle:
            wake = values.terminating || values.hasSession();
            break;
        case ThreadActivity::Delay:
            wake = values.terminating || !values.hasSession();
            break;
        case ThreadActivity::Busy:
            break;
    }
}

void assignPutTask(SessionValues& values, bool& wake) {
    ThreadValues& thread = values.threads[RolePutTask];
    switch (thread.activity) {
        case ThreadActivity::Checking:
            if (values.terminating || !values.hasSession()) {
                thread.activity = ThreadActivity::Idle;
            } else if (!values.taskResultList.empty() && values.readyOrJoined()) {
                thread.activity = busyOrDelay(thread);
            } else {
                thread.activity = ThreadActivity::Idle;
            }
            break;
        case ThreadActivity::Idle:
            wake = values.terminating || !values.taskResultList.empty();
            break;
        case ThreadActivity::Delay:
            wake = values.terminating || !values.hasSession();
            break;
        case ThreadActivity::Busy:
            break;
    }
}
}  // namespace

bool SessionDecisions::TimedOut(SessionValues& values, const timespec& now,
                                unsigned activeTimeoutMs) {
    const ThreadValues* watching = nullptr;
    for (const ThreadValues& thread : values.threads) {
        if (thread.watch) {
            watching = &thread;
            break;
        }
    }
    if (watching == nullptr) {
        values.timeoutActive = false;
        values.timeoutLimit = timespec{};
        return false;
    }
    if (!values.timeoutActive) {
        values.timeoutActive = true;
        values.timeoutLimit = plusMillis(watching->lastActive, activeTimeoutMs);
        return false;
    }
    return later(now, values.timeoutLimit);
}

SessionDecisions::Wakes SessionDecisions::AssignActivities(SessionValues& values) {
    Wakes wakes;
    assignSession(values, wakes.thread[RoleSession]);
    assignGetTask(values, wakes.thread[RoleGetTask]);
    assignPutTask(values, wakes.thread[RolePutTask]);
    return wakes;
}

unsigned SessionDecisions::StateFor(const SessionValues& values, bool supportViewEnabled) {
    if (values.sessionRequest != SessionRequest::None) {
        // Initializing, Terminating, Suspending and Resuming share the requests' numbers.
        return static_cast<unsigned>(values.sessionRequest);
    }
    if (!values.hasSession()) {
        return supportViewEnabled ? ZelSessionStateNone : ZelSessionStateDisabled;
    }
    return values.getTaskSeqNum != 0 ? ZelSessionStateJoined : ZelSessionStateReady;
}

timespec SessionDecisions::DelayDeadline(const SessionValues& values, ThreadRole role,
                                         unsigned fixedMs, unsigned variedMs,
                                         const DelayRule& delay) {
    timespec wake{};
    delay(values.threads[role].lastActive, wake, fixedMs, variedMs);
    if (values.timeoutActive && later(wake, values.timeoutLimit)) {
        wake = values.timeoutLimit;
    }
    return wake;
}

ThreadRole SessionDecisions::RoleOf(MicroService service) {
    switch (service) {
        case MicroService::GetCommand:
            return RoleGetTask;
        case MicroService::PutCommand:
            return RolePutTask;
        default:
            return RoleSession;
    }
}

SessionDecisions::Reaction SessionDecisions::ApplyStatus(SessionValues& values,
                                                         MicroService service, long status,
                                                         const std::string& callToken) {
    ThreadValues& thread = values.threads[RoleOf(service)];
    if (status >= 200 && status < 300) {
        thread.watch = false;
        // A session call's answer concludes its request even without a body
        // (a 204), or the same call would go out again at once.
        if (RoleOf(service) == RoleSession) {
            return Reaction::ReadAnswer;
        }
        // An answer meant for a session that has ended since, or before the
        // next one was asked for, belongs to nobody.
        bool current = values.hasSession() && values.sessionToken == callToken &&
                       values.sessionRequest == SessionRequest::None;
        return current ? Reaction::ReadAnswer : Reaction::Done;
    }
    thread.watch = true;
    thread.retry = true;
    if (status == 422) {
        if (service == MicroService::InitializeSession) {
            return Reaction::RetireGidToken;
        }
        return values.hasSession() && values.sessionToken == callToken ? Reaction::RetireSession
                                                                       : Reaction::Done;
    }
    if (status == 428) {
        return Reaction::NotSynchronized;
    }
    return Reaction::Done;
}

void SessionDecisions::BeginTermination(SessionValues& values, bool pauseOnTerm,
                                        bool factoryResetting) {
    values.terminating = true;
    if (!values.hasSession()) {
        values.sessionRequest = SessionRequest::None;
    } else if (values.sessionRequest == SessionRequest::None ||
               values.sessionRequest == SessionRequest::Resume) {
        values.sessionRequest =
            pauseOnTerm && !factoryResetting ? SessionRequest::Suspend : SessionRequest::Terminate;
    }
}

}  // namespace Sv
}  // namespace Zel
