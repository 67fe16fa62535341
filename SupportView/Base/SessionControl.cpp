// SupportViewManager's control threads: one loop shape for SessionControl,
// GetTaskControl and PutTaskControl, and the ExecuteTask threads.
#include <algorithm>

#include "Core/Base/CoreManager.h"
#include "Core/Base/CoreMutex.h"
#include "Core/Base/PersistentValues.h"
#include "Core/Platform/Logger.h"
#include "Core/Platform/TimeManager.h"
#include "SupportView/Base/SessionDecisions.h"
#include "SupportView/Base/SupportViewManager.h"

namespace Zel {
namespace Sv {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Base/SupportViewManager";

// The last session call at shut-down gets this long: the host is waiting.
constexpr long kFinalCallMs = 40;

bool later(const timespec& a, const timespec& b) {
    return a.tv_sec > b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec > b.tv_nsec);
}

long long millisUntil(const timespec& from, const timespec& to) {
    return (static_cast<long long>(to.tv_sec) - from.tv_sec) * 1000 +
           (to.tv_nsec - from.tv_nsec) / 1000000;
}

const char* activityField(ThreadRole role) {
    static const char* const fields[] = {"sessionActivity", "getTaskActivity", "putTaskActivity"};
    return fields[role];
}
}  // namespace

void* SupportViewManager::SessionControl(void* self) {
    auto* manager = static_cast<SupportViewManager*>(self);
    manager->controlLoop(manager->controls_[RoleSession]);
    return nullptr;
}

void* SupportViewManager::GetTaskControl(void* self) {
    auto* manager = static_cast<SupportViewManager*>(self);
    manager->controlLoop(manager->controls_[RoleGetTask]);
    return nullptr;
}

void* SupportViewManager::PutTaskControl(void* self) {
    auto* manager = static_cast<SupportViewManager*>(self);
    manager->controlLoop(manager->controls_[RolePutTask]);
    return nullptr;
}

void SupportViewManager::controlLoop(ControlThread& control) {
    ZEL_LOG(ServiceSv, CategoryState, SeverityInfo, "%s started", control.name);
    // Each thread keeps its request, and with it its connection: the get
    // thread from one long poll to the next, the session thread for the
    // short last call at shut-down, which then needs no new handshake.
    Http::Request request;
    request.reusable = true;
    LockMutex lock(CoreMutex());
    ThreadValues& thread = values_.threads[control.role];
    for (;;) {
        thread.activity = ThreadActivity::Checking;
        CoreManager::Instance().evaluateStateChanges();
        if (control.role == RoleGetTask && (!values_.readyOrJoined() || thread.retry)) {
            UnlockMutex unlocked(CoreMutex());
            Http::Cleanup(request);
        }
        switch (thread.activity) {
            case ThreadActivity::Busy:
                runCall(control, request);
                continue;
            case ThreadActivity::Delay:
                delay(control);
                continue;
            case ThreadActivity::Idle:
                if (values_.terminating) {
                    break;
                }
                ZEL_LOG(ServiceSv, CategoryState, SeverityInfo, "%s delaying indefinitely",
                        control.name);
                control.semaphore->wait(nullptr);
                if (control.role == RolePutTask) {
                    ZEL_LOG(ServiceSv, CategoryState, SeverityDebug,
                            "PutTaskControl delay was previosly reset");
                } else {
                    ZEL_LOG(ServiceSv, CategoryState, SeverityDebug,
                            "%s delay was previously reset", control.name);
                }
                continue;
            case ThreadActivity::Checking:
                ZEL_LOG(ServiceSv, CategoryState, SeverityInfo, "%s %s == ThreadActivityChecking",
                        control.name, activityField(control.role));
                // Nothing decided: wait for the next evaluation rather than spin.
                control.semaphore->wait(nullptr);
                continue;
        }
        break;
    }
    ZEL_LOG(ServiceSv, CategoryState, SeverityInfo, "%s terminated", control.name);
    UnlockMutex unlocked(CoreMutex());
    Http::Cleanup(request);
}

void SupportViewManager::runCall(ControlThread& control, Http::Request& request) {
    MicroService service = MicroService::GetCommand;
    if (control.role == RoleSession) {
        if (values_.sessionRequest == SessionRequest::None) {
            ZEL_LOG(ServiceSv, CategoryState, SeverityInfo,
                    "SessionControl busy with nothing to do");
            return;
        }
        service = static_cast<MicroService>(values_.sessionRequest);
    } else if (control.role == RolePutTask) {
        service = MicroService::PutCommand;
    }
    ThreadValues& thread = values_.threads[control.role];
    thread.lastActive = TimeManager::Instance().now();
    if (control.role == RoleGetTask) {
        ZEL_LOG(ServiceSv, CategoryState, SeverityInfo, "GetTaskControl calling %s (long poll)",
                MicroServiceToString(service));
    } else {
        ZEL_LOG(ServiceSv, CategoryState, SeverityInfo, "%s calling %s", control.name,
                MicroServiceToString(service));
    }
    bool final = values_.terminating;
    if (final) {
        values_.finalCallMade = true;
    }
    prepMicroService(service, request);
    if (final) {
        // Not cut short by the shut-down it is part of, but short.
        request.abort = nullptr;
        request.connectTimeoutMs = std::min(request.connectTimeoutMs, kFinalCallMs);
        request.timeoutMs = std::min(request.timeoutMs, kFinalCallMs);
    }
    std::string callToken = values_.sessionToken;
    Http::Response response;
    bool performed;
    {
        UnlockMutex unlocked(CoreMutex());
        performed = Http::Perform(request, response);
    }
    postMicroService(service, performed, response, callToken);
    if (final && service == MicroService::SuspendSession && values_.hasSession()) {
        // The suspend did not go through: keep the session for the next
        // start, whose resume lets the cloud decide.
        storeSessionToken();
    }
    request.headers.clear();
    request.body.clear();
}

void SupportViewManager::delay(ControlThread& control) {
    ThreadValues& thread = values_.threads[control.role];
    timespec wake = SessionDecisions::DelayDeadline(
        values_, control.role, persistent_->getSvRetryDelayFixedMs(),
        persistent_->getSvRetryDelayVariedMs(), StateDecisions::StandardDelay());
    timespec now = TimeManager::Instance().now();
    if (!later(wake, now)) {
        thread.retry = false;
        ZEL_LOG(ServiceSv, CategoryState, SeverityInfo, "%s skipping delay", control.name);
        return;
    }
    long long wait = millisUntil(now, wake);
    ZEL_LOG(ServiceSv, CategoryState, SeverityInfo, "%s delaying %i.%03i seconds", control.name,
            static_cast<int>(wait / 1000), static_cast<int>(wait % 1000));
    if (control.semaphore->wait(&wake) == 0) {
        ZEL_LOG(ServiceSv, CategoryState, SeverityDebug, "%s delay was previously reset",
                control.name);
    } else {
        ZEL_LOG(ServiceSv, CategoryState, SeverityInfo, "%s delayed", control.name);
    }
    thread.retry = false;
}

// Core mutex held. The thread owns the task from here on.
void SupportViewManager::startTask(std::unique_ptr<SessionTask> task) {
    unsigned seqNum = task->seqNum;
    Thread thread;
    SessionTask* owned = task.release();
    if (!ThreadUtil::Start(thread, ExecuteTask, owned, "ExecuteTask")) {
        delete owned;
        ZEL_LOG(ServiceSv, CategoryState, SeverityError, "ExecuteTask failed %u", seqNum);
        return;
    }
    ThreadUtil::Detach(thread);
}

void* SupportViewManager::ExecuteTask(void* arg) {
    std::unique_ptr<SessionTask> task(static_cast<SessionTask*>(arg));
    ZEL_LOG(ServiceSv, CategoryState, SeverityInfo, "ExecuteTask started %u", task->seqNum);
    ZEL_LOG(ServiceSv, CategoryState, SeverityDebug, "ExecuteTask in: %s",
            task->taskRequest.c_str());
    SupportViewManager& manager = Instance();
    bool succeeded = manager.executeCommand(task->taskRequest, task->taskResponse) == 0;
    manager.finishTask(std::move(task), succeeded);
    return nullptr;
}

void SupportViewManager::finishTask(std::unique_ptr<SessionTask> task, bool succeeded) {
    LockMutex lock(CoreMutex());
    if (succeeded) {
        ZEL_LOG(ServiceSv, CategoryState, SeverityInfo, "ExecuteTask succeeded %u", task->seqNum);
        // A result whose session has ended since, or whose agent has
        // stopped, goes nowhere.
        if (values_.hasSession() && task->generation == values_.generation && agentRunning()) {
            ZEL_LOG(ServiceSv, CategoryState, SeverityDebug, "pushing task");
            ZEL_LOG(ServiceSv, CategoryState, SeverityDebug, "ExecuteTask out: %s",
                    task->taskResponse.c_str());
            values_.taskResultList.push_back(std::move(task));
        }
    } else {
        ZEL_LOG(ServiceSv, CategoryState, SeverityInfo, "ExecuteTask failed %u", task->seqNum);
    }
    task.reset();
    if (agentRunning()) {
        logStateInfo();
        CoreManager::Instance().evaluateStateChanges();
    }
}

}  // namespace Sv
}  // namespace Zel
