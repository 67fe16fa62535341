// Remote-support sessions between the agent and the local cloud, through the
// C interface and over real TLS.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include "Core/Platform/Thread.h"
#include "SupportView/Base/BuiltinCommand.h"
#include "SupportView/Base/CommandHandler.h"
#include "SupportView/Base/CommandManager.h"
#include "support/AgentLab.h"

using ZelCloud::FaultPlan;
using ZelCloud::RecordedRequest;
using ZelTest::AgentLab;
using ZelTest::Fault;

namespace {

using SupportView = ZelTest::LabTest;
using Clock = std::chrono::steady_clock;

// Fast sv retries, so that failure paths run in milliseconds.
Json::Value fastSv() {
    Json::Value settings = AgentLab::FastSettings();
    settings["svRetryDelayFixedMs"] = 100;
    settings["svRetryDelayVariedMs"] = 0;
    return settings;
}

Json::Value command(const char* name, const char* operation = "EXECUTE",
                    const Json::Value& inputs = Json::Value(Json::objectValue)) {
    Json::Value request(Json::objectValue);
    request["COMMAND"]["NAME"] = name;
    request["COMMAND"]["OPERATION"] = operation;
    request["COMMAND"]["VERSION"] = 0;
    request["INPUTS"] = inputs;
    return request;
}

Json::Value batch(std::initializer_list<Json::Value> requests) {
    Json::Value list(Json::arrayValue);
    for (const Json::Value& request : requests) {
        list.append(request);
    }
    return list;
}

uint32_t queue(AgentLab& lab, const Json::Value& requests) {
    uint32_t seqNum = 0;
    std::string error;
    EXPECT_TRUE(lab.cloud().queueTask(requests, seqNum, error)) << error;
    return seqNum;
}

// The device's sessions as the cloud lists them, newest last.
Json::Value lastSession(AgentLab& lab) {
    Json::Value sessions = lab.cloud().sessions();
    return sessions.empty() ? Json::Value() : sessions[sessions.size() - 1];
}

// The responses of the n-th result the cloud received (0 first).
Json::Value responses(AgentLab& lab, unsigned n) {
    return lastSession(lab)["results"][n]["document"]["TASK_OUTPUT"]["RESPONSES"];
}

// Starts the agent with the lab's configuration and one more key, and waits
// until it has synchronised (which brings the cloud's SupportView settings).
void startWith(AgentLab& lab, const char* key, bool value) {
    std::string config = lab.configDoc().set("supportView", key, value).text();
    ASSERT_EQ(ZelResultSuccess,
              ZelInit(lab.identity().c_str(), config.c_str(), lab.device().c_str()));
    ASSERT_TRUE(lab.waitForCalls("da/notification", 1));
}

// Opens a session from the host and waits until it is Ready.
void open(AgentLab& lab) {
    ASSERT_EQ(ZelResultSuccess, ZelSessionInit(0));
    ASSERT_TRUE(lab.waitForSessionState(ZelSessionStateReady));
}

// A command that runs until the test lets it finish.
struct Gate {
    std::mutex mutex;
    std::condition_variable changed;
    unsigned entered = 0;
    bool open = false;

    void pass() {
        std::unique_lock<std::mutex> lock(mutex);
        ++entered;
        changed.notify_all();
        changed.wait(lock, [this] { return open; });
    }
    bool waitEntered(unsigned count) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, AgentLab::kPatience, [&] { return entered >= count; });
    }
    void release() {
        std::lock_guard<std::mutex> lock(mutex);
        open = true;
        changed.notify_all();
    }
};

Gate* gate = nullptr;

class CommandGateWait : public Zel::Sv::CommandHandler {
public:
    using CommandHandler::CommandHandler;
    unsigned executeHandler(const Json::Value&, Json::Value& data) override {
        gate->pass();
        data["WAITED"] = true;
        return 0;
    }
};

constexpr const char* kGateWait = "ZEL_TEST_GATE_WAIT";

void registerGate(Gate& which) {
    gate = &which;
    Zel::Sv::CommandManager::Instance().registerCommand(
        std::make_shared<Zel::Sv::BuiltinCommand<CommandGateWait>>(
            Zel::Sv::CommandTraits{kGateWait, 3, 0, 100000, Zel::Sv::CommandOperationExecute}));
}

// A session whose first task is held in the gate.
void openWithHeldTask(AgentLab& lab, Gate& held) {
    registerGate(held);
    open(lab);
    queue(lab, batch({command(kGateWait)}));
    ASSERT_TRUE(held.waitEntered(1));
}

std::vector<std::string> authorizations(const RecordedRequest& request) {
    std::vector<std::string> found;
    for (const std::string& header : request.headers) {
        if (header.rfind("Authorization: ", 0) == 0) {
            found.push_back(header.substr(15));
        }
    }
    return found;
}

}  // namespace

TEST_F(SupportView, HostOpensSessionRunsTasksAndEndsIt) {
    AgentLab& lab = started(fastSv());
    EXPECT_EQ(ZelSessionStateNone, lab.sessionState());
    open(lab);
    Json::Value session = lastSession(lab);
    EXPECT_EQ(9u, session["code"].asString().size());
    EXPECT_EQ(session["code"].asString(), lab.sessionInfo());
    // A session is opened once.
    EXPECT_EQ(ZelResultAlreadyInitialized, ZelSessionInit(0));

    queue(lab, batch({command("FFFFFF_LIVE_SUPPORT_GET_DEVICE_INFO"), command("NO_SUCH_COMMAND"),
                      command("FFFFFF_LIVE_SUPPORT_GET_DEVICE_INFO", "GET"),
                      command("FFFFFF_LIVE_SUPPORT_TV_REMOTE_BUTTON", "EXECUTE",
                              ZelTest::ParseJson(R"({"BUTTONS": ["HOME", "NOT_A_BUTTON"]})"))}));
    ASSERT_TRUE(lab.cloud().waitForResults(1, AgentLab::kPatience));
    ASSERT_TRUE(lab.waitForSessionState(ZelSessionStateJoined));
    Json::Value answer = lastSession(lab)["results"][0]["document"];
    EXPECT_EQ("1", answer["TASK_ID"].asString());
    EXPECT_EQ(session["code"], answer["SESSION_ID"]);
    Json::Value list = answer["TASK_OUTPUT"]["RESPONSES"];
    ASSERT_EQ(4u, list.size());
    Json::Value info = list[0]["OUTPUTS"][0];
    EXPECT_EQ(0, list[0]["RESULT"].asInt());
    EXPECT_EQ("en-US", info["LOCALE"].asString());
    EXPECT_EQ("FFFFFF", info["DATA"]["OUI"].asString());
    EXPECT_EQ("0ACC", info["DATA"]["MODEL_GROUP"].asString());
    // Unknown command, unsupported operation, bad inputs.
    EXPECT_EQ(0, list[1]["RESULT"].asInt());
    EXPECT_TRUE(list[1]["OUTPUTS"].empty());
    EXPECT_EQ(4, list[2]["RESULT"].asInt());
    EXPECT_EQ(3, list[3]["RESULT"].asInt());

    // Every sv call carries the gid token, then the session token once there is one.
    std::string gid = lab.cloud().device(AgentLab::DeviceCn())->gidToken;
    for (const RecordedRequest& request : lab.calls("sv/session/initialize")) {
        EXPECT_EQ(std::vector<std::string>{gid}, authorizations(request));
    }
    ASSERT_TRUE(lab.waitForCalls("sv/command/put", 1));
    for (const char* path : {"sv/command/get", "sv/command/put"}) {
        for (const RecordedRequest& request : lab.calls(path)) {
            EXPECT_EQ((std::vector<std::string>{gid, session["token"].asString()}),
                      authorizations(request))
                << path;
        }
    }
    // The get and put threads keep their connections from call to call.
    for (const char* path : {"sv/command/get", "sv/command/put"}) {
        std::vector<RecordedRequest> calls = lab.calls(path);
        for (const RecordedRequest& call : calls) {
            EXPECT_EQ(calls[0].connection, call.connection) << path;
        }
    }
    EXPECT_NE(lab.calls("sv/command/get")[0].connection, lab.calls("sv/command/put")[0].connection);
    Json::Value initialize = ZelTest::ParseJson(lab.calls("sv/session/initialize")[0].body);
    EXPECT_EQ(9, initialize["sessionCodeDigits"].asInt());
    EXPECT_FALSE(initialize["allowSessionCodeBypass"].asBool());
    EXPECT_EQ(60000, initialize["timeoutMs"].asInt());

    ASSERT_EQ(ZelResultSuccess, ZelSessionTerm());
    ASSERT_TRUE(lab.waitForSessionState(ZelSessionStateNone));
    EXPECT_EQ("", lab.sessionInfo());
    EXPECT_EQ("retired", lastSession(lab)["state"].asString());
    EXPECT_EQ(ZelResultNotInitialized, ZelSessionTerm());
}

TEST_F(SupportView, PublicCallsCheckTheirArguments) {
    EXPECT_EQ(ZelResultNotInitialized, ZelSessionInit(0));
    AgentLab& lab = started();
    struct Case {
        uint32_t bypass;
        uint32_t digits;
        ZelResult result;
    };
    for (const Case& c : {Case{2, 9, ZelResultBadArgument}, Case{0, 3, ZelResultBadArgument},
                          Case{0, 17, ZelResultBadArgument}, Case{1, 16, ZelResultSuccess}}) {
        EXPECT_EQ(c.result, ZelSessionInitCodeDigits(c.bypass, c.digits)) << c.digits;
    }
    EXPECT_EQ(ZelResultBadArgument, ZelSessionInit(2));
    ASSERT_TRUE(lab.waitForSessionState(ZelSessionStateReady));
    EXPECT_EQ(16u, lab.sessionInfo().size());
    Json::Value body = ZelTest::ParseJson(lab.calls("sv/session/initialize")[0].body);
    EXPECT_TRUE(body["allowSessionCodeBypass"].asBool());
    EXPECT_EQ(1u, lab.calls("sv/session/initialize").size());
}

TEST_F(SupportView, TasksRunAtOnceAndPostInCompletionOrder) {
    AgentLab& lab = started(fastSv());
    Gate held;
    ASSERT_NO_FATAL_FAILURE(openWithHeldTask(lab, held));
    queue(lab, batch({command("FFFFFF_LIVE_SUPPORT_COMMAND_GET_AVAILABLE_LOCALES")}));
    ASSERT_TRUE(lab.cloud().waitForResults(1, AgentLab::kPatience));
    held.release();
    ASSERT_TRUE(lab.cloud().waitForResults(2, AgentLab::kPatience));

    Json::Value results = lastSession(lab)["results"];
    EXPECT_EQ(2u, results[0]["taskSeqNum"].asUInt());
    EXPECT_EQ("en-US,", responses(lab, 0)[0]["OUTPUTS"][0]["DATA"]["Accept-Language"].asString());
    EXPECT_EQ(1u, results[1]["taskSeqNum"].asUInt());
    EXPECT_TRUE(responses(lab, 1)[0]["OUTPUTS"][0]["DATA"]["WAITED"].asBool());
    // The put's sequence number goes back with the next put.
    ASSERT_TRUE(lab.waitForCalls("sv/command/put", 2));
    std::vector<RecordedRequest> puts = lab.calls("sv/command/put");
    EXPECT_EQ(0, ZelTest::ParseJson(puts[0].body)["seqNum"].asInt());
    EXPECT_EQ(1, ZelTest::ParseJson(puts[1].body)["seqNum"].asInt());
}

TEST_F(SupportView, TaskThatIsNotJsonFailsWithoutAnAnswer) {
    AgentLab& lab = started(fastSv());
    open(lab);
    uint32_t seqNum = 0;
    std::string error;
    ASSERT_TRUE(lab.cloud().queueRawTask("this is not json", seqNum, error)) << error;
    ASSERT_TRUE(lab.waitForLog("ExecuteTask failed 1"));
    queue(lab, batch({command("FFFFFF_LIVE_SUPPORT_CHECK_FOR_UPDATES")}));
    ASSERT_TRUE(lab.cloud().waitForResults(1, AgentLab::kPatience));
    Json::Value results = lastSession(lab)["results"];
    ASSERT_EQ(1u, results.size());
    EXPECT_EQ(2u, results[0]["taskSeqNum"].asUInt());
}

TEST_F(SupportView, SuspendedAtShutdownAndResumedAtStart) {
    AgentLab& lab = started(fastSv());
    open(lab);
    std::string code = lab.sessionInfo();
    ASSERT_TRUE(lab.term());
    // The last call is kept short for the host's sake; should it not arrive
    // (a loaded machine), the session is kept for the next start all the same.
    EXPECT_EQ(1u, lab.logCount("SuspendSession initiated"));

    ASSERT_EQ(ZelResultSuccess, lab.init());
    ASSERT_TRUE(lab.waitForSessionState(ZelSessionStateReady));
    EXPECT_EQ(code, lab.sessionInfo());
    ASSERT_EQ(1u, lab.calls("sv/session/resume").size());
    EXPECT_EQ(180000,
              ZelTest::ParseJson(lab.calls("sv/session/resume")[0].body)["timeoutMs"].asInt());
    EXPECT_EQ("active", lastSession(lab)["state"].asString());
    queue(lab, batch({command("FFFFFF_LIVE_SUPPORT_CHECK_FOR_UPDATES")}));
    ASSERT_TRUE(lab.cloud().waitForResults(1, AgentLab::kPatience));

    // The session is resumed once: the file went at the start.
    ASSERT_TRUE(lab.term());
    EXPECT_EQ(2u, lab.logCount("SuspendSession initiated"));
}

TEST_F(SupportView, EndedAtShutdownWhenNotToBePaused) {
    AgentLab& lab = this->lab(fastSv());
    startWith(lab, "pauseSessionOnTerm", false);
    open(lab);
    ASSERT_TRUE(lab.term());
    EXPECT_EQ(1u, lab.logCount("TerminateSession initiated"));
    EXPECT_EQ(0u, lab.logCount("SuspendSession initiated"));
    ASSERT_EQ(ZelResultSuccess, lab.init());
    ASSERT_TRUE(lab.waitForCalls("da/notification", 2));
    EXPECT_TRUE(lab.calls("sv/session/resume").empty());
    EXPECT_EQ(ZelSessionStateNone, lab.sessionState());
}

TEST_F(SupportView, CloudOpensSessionOnlyWhenAllowed) {
    for (bool allowed : {false, true}) {
        SCOPED_TRACE(allowed);
        AgentLab& lab = this->lab(fastSv());
        startWith(lab, "allowRemoteSession", allowed);
        lab.cloud().openSession();
        if (allowed) {
            EXPECT_TRUE(lab.waitForSessionState(ZelSessionStateReady));
        } else {
            EXPECT_TRUE(lab.waitForLog("Suppressing event=startsvsession, id=1, parameters="));
            EXPECT_TRUE(lab.calls("sv/session/initialize").empty());
        }
        ASSERT_TRUE(lab.term());
    }
}

TEST_F(SupportView, FailingCallsTimeTheSessionOut) {
    Json::Value settings = fastSv();
    settings["svActiveTimeoutMs"] = 600;
    AgentLab& lab = started(settings);
    open(lab);
    lab.cloud().addFault(Fault("sv/command/get", FaultPlan::Kind::Status, 500, 0, 1000000));
    ASSERT_TRUE(lab.waitForLog("Session timed out"));
    ASSERT_TRUE(lab.waitForSessionState(ZelSessionStateNone));
    EXPECT_GE(lab.calls("sv/command/get").size(), 2u) << "the get was retried";
    lab.cloud().clearFaults();
    open(lab);
}

TEST_F(SupportView, UnprocessableRetiresTheSessionOrTheIdentity) {
    AgentLab& lab = started(fastSv());
    open(lab);
    lab.cloud().addFault(Fault("sv/command/get", FaultPlan::Kind::Status, 422));
    ASSERT_TRUE(lab.waitForSessionState(ZelSessionStateNone));
    size_t identities = lab.calls("da/gidtoken").size();

    // On initialize it is the device that is not known.
    lab.cloud().addFault(Fault("sv/session/initialize", FaultPlan::Kind::Status, 422));
    ASSERT_EQ(ZelResultSuccess, ZelSessionInit(0));
    ASSERT_TRUE(lab.waitForCalls("da/gidtoken", identities + 1));
    // The request stands: with a new identity the session opens after all.
    ASSERT_TRUE(lab.waitForSessionState(ZelSessionStateReady));
}

TEST_F(SupportView, AnswerForARetiredSessionIsIgnored) {
    AgentLab& lab = started(fastSv());
    // The first get is answered late, with a task.
    FaultPlan::Fault task = Fault("sv/command/get", FaultPlan::Kind::Body, 200);
    task.body = R"({"seqNum": 7, "taskRequest": "{\"REQUESTS\": []}"})";
    lab.cloud().addFault(task);
    lab.cloud().addFault(Fault("sv/command/get", FaultPlan::Kind::Delay, 0, 1500));
    open(lab);
    ASSERT_TRUE(lab.waitForLog("GetTaskControl calling GetCommand (long poll)"));
    ASSERT_EQ(ZelResultSuccess, ZelSessionTerm());
    ASSERT_TRUE(lab.waitForSessionState(ZelSessionStateNone));
    ASSERT_TRUE(lab.waitForLog("GetCommand processed (200)"));
    EXPECT_EQ(0u, lab.logCount("ExecuteTask started 7"));
}

TEST_F(SupportView, StopIsPromptDuringALongPoll) {
    AgentLab& lab = started(fastSv());
    lab.cloud().setLongPollMs(60000);
    open(lab);
    ASSERT_TRUE(lab.cloud().waitForSessions(
        [](const Json::Value& sessions) {
            return !sessions.empty() && sessions[sessions.size() - 1]["polls"].asUInt() > 0;
        },
        AgentLab::kPatience));
    Clock::time_point start = Clock::now();
    ASSERT_TRUE(lab.term());
    auto micros =
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
    std::printf("ZelTerm to Uninitialized during a long poll: %lld us\n",
                static_cast<long long>(micros));
    EXPECT_EQ(1u, lab.logCount("SuspendSession initiated"));
}

TEST_F(SupportView, StopDuringASlowCommandLeavesTheCommandAlive) {
    AgentLab& lab = started(fastSv());
    Gate held;
    ASSERT_NO_FATAL_FAILURE(openWithHeldTask(lab, held));
    Clock::time_point start = Clock::now();
    ASSERT_TRUE(lab.term());
    auto micros =
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
    std::printf("ZelTerm to Uninitialized during a slow command: %lld us\n",
                static_cast<long long>(micros));
    // The registry is empty now; the running command must still be whole.
    EXPECT_FALSE(Zel::Sv::CommandManager::Instance().find(kGateWait));
    // The task's thread, and perhaps the shut-down thread on its way out.
    EXPECT_GE(Zel::Core::ThreadUtil::LiveThreads(), 1u);
    held.release();
    ASSERT_TRUE(Zel::Core::ThreadUtil::WaitForNoLiveThreads(AgentLab::kPatience.count()));
    EXPECT_TRUE(lab.calls("sv/command/put").empty());
}

TEST_F(SupportView, EndingASessionBeingOpenedCallsTheOpenOff) {
    AgentLab& lab = started(fastSv());
    lab.cloud().addFault(Fault("sv/session/initialize", FaultPlan::Kind::Delay, 0, 800));
    ASSERT_EQ(ZelResultSuccess, ZelSessionInit(0));
    ASSERT_TRUE(lab.waitForLog("InitializeSession initiated"));
    ASSERT_EQ(ZelResultSuccess, ZelSessionTerm());
    ASSERT_TRUE(lab.waitForSessionState(ZelSessionStateNone));
    ASSERT_TRUE(lab.waitForLog("InitializeSession processed (200)"));
    EXPECT_EQ(ZelSessionStateNone, lab.sessionState());
    EXPECT_TRUE(lab.calls("sv/session/terminate").empty());
    open(lab);
}
