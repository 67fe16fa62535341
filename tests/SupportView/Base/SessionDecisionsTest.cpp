// The session manager's decisions without a cloud, a thread or a clock.
#include "SupportView/Base/SessionDecisions.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "Core/Platform/TimeManager.h"

using namespace Zel::Sv;
using Reaction = SessionDecisions::Reaction;
using A = ThreadActivity;

namespace {

constexpr time_t kNow = 1700000000;

SessionValues withSession(SessionRequest request = SessionRequest::None,
                          unsigned state = ZelSessionStateReady) {
    SessionValues values;
    values.sessionToken = "token";
    values.sessionCode = "123456789";
    values.sessionRequest = request;
    values.sessionState = state;
    return values;
}

SessionValues withResult(SessionValues values) {
    values.taskResultList.push_back(std::make_unique<SessionTask>());
    return values;
}

struct ActivityCase {
    const char* what;
    std::function<SessionValues()> values;
    ThreadRole role;
    bool retry;
    A before;
    A after;
    bool wake;
};

TEST(SessionDecisionsTest, ActivitiesAndWakes) {
    auto none = [] { return SessionValues(); };
    auto terminating = [](SessionValues values) {
        values.terminating = true;
        return values;
    };
    const ActivityCase cases[] = {
        {"session: nothing to do", none, RoleSession, false, A::Checking, A::Idle, false},
        {"session: a request", [] { return withSession(SessionRequest::Initialize); }, RoleSession,
         false, A::Checking, A::Busy, false},
        {"session: a request after a failure",
         [] { return withSession(SessionRequest::Terminate); }, RoleSession, true, A::Checking,
         A::Delay, false},
        {"session: idle woken by a request", [] { return withSession(SessionRequest::Terminate); },
         RoleSession, false, A::Idle, A::Idle, true},
        {"session: idle stays asleep", none, RoleSession, false, A::Idle, A::Idle, false},
        {"session: delay ended without a session",
         [] {
             SessionValues values;
             values.sessionRequest = SessionRequest::Suspend;
             return values;
         },
         RoleSession, true, A::Delay, A::Delay, true},
        {"session: delay kept with a session",
         [] { return withSession(SessionRequest::Terminate); }, RoleSession, true, A::Delay,
         A::Delay, false},
        {"session: shut-down makes its last call at once",
         [=] { return terminating(withSession(SessionRequest::Suspend)); }, RoleSession, true,
         A::Delay, A::Busy, true},
        {"session: shut-down without a call leaves", [=] { return terminating(SessionValues()); },
         RoleSession, false, A::Idle, A::Idle, true},
        {"session: a busy thread is left alone",
         [=] { return terminating(withSession(SessionRequest::Suspend)); }, RoleSession, false,
         A::Busy, A::Busy, false},
        {"get: ready session polls", [] { return withSession(); }, RoleGetTask, false, A::Checking,
         A::Busy, false},
        {"get: joined session after a failure",
         [] { return withSession({}, ZelSessionStateJoined); }, RoleGetTask, true, A::Checking,
         A::Delay, false},
        {"get: resuming session waits",
         [] { return withSession(SessionRequest::None, ZelSessionStateResuming); }, RoleGetTask,
         false, A::Checking, A::Idle, false},
        {"get: no session", none, RoleGetTask, false, A::Checking, A::Idle, false},
        {"get: idle woken by a session", [] { return withSession(); }, RoleGetTask, false, A::Idle,
         A::Idle, true},
        {"get: delay ended with the session", none, RoleGetTask, true, A::Delay, A::Delay, true},
        {"get: shut-down", [=] { return terminating(withSession()); }, RoleGetTask, false,
         A::Checking, A::Idle, false},
        {"put: a result to post", [] { return withResult(withSession()); }, RolePutTask, false,
         A::Checking, A::Busy, false},
        {"put: a result after a failure", [] { return withResult(withSession()); }, RolePutTask,
         true, A::Checking, A::Delay, false},
        {"put: nothing to post", [] { return withSession(); }, RolePutTask, false, A::Checking,
         A::Idle, false},
        {"put: not ready yet", [] { return withResult(withSession({}, ZelSessionStateResuming)); },
         RolePutTask, false, A::Checking, A::Idle, false},
        {"put: idle woken by a result", [] { return withResult(withSession()); }, RolePutTask,
         false, A::Idle, A::Idle, true},
        {"put: delay ended with the session", none, RolePutTask, true, A::Delay, A::Delay, true},
        {"put: shut-down", [=] { return terminating(withResult(withSession())); }, RolePutTask,
         false, A::Idle, A::Idle, true},
    };
    for (const ActivityCase& c : cases) {
        SCOPED_TRACE(c.what);
        SessionValues values = c.values();
        for (ThreadValues& thread : values.threads) {
            thread.activity = A::Busy;  // the other threads are in a call
        }
        values.threads[c.role].activity = c.before;
        values.threads[c.role].retry = c.retry;
        SessionDecisions::Wakes wakes = SessionDecisions::AssignActivities(values);
        EXPECT_EQ(c.after, values.threads[c.role].activity);
        EXPECT_EQ(c.wake, wakes.thread[c.role]);
    }
}

TEST(SessionDecisionsTest, StateTheHostSees) {
    struct Case {
        SessionValues values;
        bool enabled;
        unsigned state;
    };
    SessionValues joined = withSession();
    joined.getTaskSeqNum = 3;
    Case cases[] = {
        {SessionValues(), true, ZelSessionStateNone},
        {SessionValues(), false, ZelSessionStateDisabled},
        {withSession(), false, ZelSessionStateReady},
        {std::move(joined), true, ZelSessionStateJoined},
        {withSession(SessionRequest::Initialize), true, ZelSessionStateInitializing},
        {withSession(SessionRequest::Terminate), true, ZelSessionStateTerminating},
        {withSession(SessionRequest::Suspend), true, ZelSessionStateSuspending},
        {withSession(SessionRequest::Resume), false, ZelSessionStateResuming},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.state, SessionDecisions::StateFor(c.values, c.enabled))
            << ZelSessionStateToString(c.state);
    }
}

TEST(SessionDecisionsTest, FinishedExchanges) {
    struct Case {
        MicroService service;
        long status;
        SessionRequest request;
        const char* callToken;
        Reaction reaction;
        bool failed;  // watch and retry set
    };
    const Case cases[] = {
        {MicroService::InitializeSession, 200, SessionRequest::Initialize, "token",
         Reaction::ReadAnswer, false},
        {MicroService::TerminateSession, 204, SessionRequest::Terminate, "token",
         Reaction::ReadAnswer, false},
        {MicroService::GetCommand, 200, SessionRequest::None, "token", Reaction::ReadAnswer, false},
        {MicroService::GetCommand, 204, SessionRequest::None, "token", Reaction::ReadAnswer, false},
        // An answer for a session that has ended, or while a request is pending.
        {MicroService::GetCommand, 200, SessionRequest::None, "old", Reaction::Done, false},
        {MicroService::PutCommand, 200, SessionRequest::Terminate, "token", Reaction::Done, false},
        {MicroService::InitializeSession, 422, SessionRequest::Initialize, "",
         Reaction::RetireGidToken, true},
        {MicroService::GetCommand, 422, SessionRequest::None, "token", Reaction::RetireSession,
         true},
        {MicroService::ResumeSession, 422, SessionRequest::Resume, "token", Reaction::RetireSession,
         true},
        {MicroService::GetCommand, 422, SessionRequest::None, "old", Reaction::Done, true},
        {MicroService::PutCommand, 428, SessionRequest::None, "token", Reaction::NotSynchronized,
         true},
        {MicroService::SuspendSession, 500, SessionRequest::Suspend, "token", Reaction::Done, true},
        {MicroService::GetCommand, 0, SessionRequest::None, "token", Reaction::Done, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(MicroServiceToString(c.service)) + " " + std::to_string(c.status));
        SessionValues values = withSession(c.request);
        ThreadValues& thread = values.threads[SessionDecisions::RoleOf(c.service)];
        thread.watch = true;
        EXPECT_EQ(c.reaction,
                  SessionDecisions::ApplyStatus(values, c.service, c.status, c.callToken));
        EXPECT_EQ(c.failed, thread.watch);
        EXPECT_EQ(c.failed, thread.retry);
    }
}

TEST(SessionDecisionsTest, InactivityTimeOutArmsFromTheFirstWatchingThread) {
    SessionValues values = withSession();
    timespec now{kNow, 0};
    EXPECT_FALSE(SessionDecisions::TimedOut(values, now, 60000));
    EXPECT_FALSE(values.timeoutActive);

    values.threads[RoleGetTask].watch = true;
    values.threads[RoleGetTask].lastActive = {kNow - 10, 500000000};
    values.threads[RolePutTask].watch = true;
    values.threads[RolePutTask].lastActive = {kNow - 50, 0};
    EXPECT_FALSE(SessionDecisions::TimedOut(values, now, 1600));
    EXPECT_TRUE(values.timeoutActive);
    EXPECT_EQ(kNow - 8, values.timeoutLimit.tv_sec);
    EXPECT_EQ(100000000, values.timeoutLimit.tv_nsec);
    // Armed once: a later pass only compares.
    EXPECT_TRUE(SessionDecisions::TimedOut(values, now, 60000));

    values.threads[RoleGetTask].watch = false;
    values.threads[RolePutTask].watch = false;
    EXPECT_FALSE(SessionDecisions::TimedOut(values, now, 1600));
    EXPECT_FALSE(values.timeoutActive);
}

TEST(SessionDecisionsTest, RetryDelayEndsNoLaterThanTheTimeOut) {
    auto exact = [](const timespec& base, timespec& out, unsigned fixed, unsigned varied) {
        Zel::Core::ApplyDelayRule(base, out, fixed, varied, 0);
    };
    SessionValues values = withSession();
    values.threads[RolePutTask].lastActive = {kNow, 0};
    EXPECT_EQ(kNow + 3,
              SessionDecisions::DelayDeadline(values, RolePutTask, 3000, 0, exact).tv_sec);
    values.timeoutActive = true;
    values.timeoutLimit = {kNow + 1, 0};
    EXPECT_EQ(kNow + 1,
              SessionDecisions::DelayDeadline(values, RolePutTask, 3000, 0, exact).tv_sec);
}

TEST(SessionDecisionsTest, ShutDownSuspendsOrEnds) {
    struct Case {
        bool session;
        SessionRequest pending;
        bool pause;
        bool reset;
        SessionRequest last;
    };
    const Case cases[] = {
        {false, SessionRequest::Initialize, true, false, SessionRequest::None},
        {true, SessionRequest::None, true, false, SessionRequest::Suspend},
        {true, SessionRequest::Resume, true, false, SessionRequest::Suspend},
        {true, SessionRequest::None, false, false, SessionRequest::Terminate},
        {true, SessionRequest::None, true, true, SessionRequest::Terminate},
        {true, SessionRequest::Terminate, true, false, SessionRequest::Terminate},
    };
    for (const Case& c : cases) {
        SessionValues values = c.session ? withSession(c.pending) : SessionValues();
        values.sessionRequest = c.pending;
        SessionDecisions::BeginTermination(values, c.pause, c.reset);
        EXPECT_TRUE(values.terminating);
        EXPECT_EQ(c.last, values.sessionRequest) << SessionRequestToString(c.pending);
    }
}

}  // namespace
