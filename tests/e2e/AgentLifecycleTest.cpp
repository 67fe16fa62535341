// Starting, stopping and restarting the agent against the local cloud, and
// the events the cloud hands it.
#include <gtest/gtest.h>

#include <ctime>
#include <future>

#include "Core/Base/EventManager.h"
#include "Core/Platform/FileUtil.h"
#include "support/AgentLab.h"

using Zel::Core::Event;
using Zel::Core::EventManager;
using ZelCloud::FaultPlan;
using ZelTest::AgentLab;

namespace {

using AgentLifecycle = ZelTest::LabTest;

// Names of the persisted state files (base_version_md5) in `dir`.
std::vector<std::string> persistedFiles(const std::string& dir) {
    std::vector<std::string> names;
    for (const char* base : {"coreValues", "coreToken", "daTime"}) {
        Zel::Core::FileUtil::getFilesWithBase(dir, std::string(base) + "_", names);
    }
    return names;
}

void writeTimerFile(const std::string& dir, time_t seconds) {
    Zel::Core::FileUtil::Drop(dir, "daTime");
    Zel::Core::FileUtil::Store(dir, "daTime",
                               "{\"sec\":" + std::to_string(seconds) + ",\"nsec\":0}");
}

Json::Value pollDelayOf(int milliseconds) {
    Json::Value settings = AgentLab::FastSettings();
    settings["daPollDelayFixedMs"] = milliseconds;
    return settings;
}

}  // namespace

TEST_F(AgentLifecycle, TermAbortsAnExchangeInFlightAtOnce) {
    AgentLab& lab = this->lab();
    // The first poll is held for ten minutes, far beyond the message time-out.
    lab.cloud().addFault(ZelTest::Fault("da/notification", FaultPlan::Kind::Delay, 0, 600000));
    ASSERT_EQ(ZelResultSuccess, lab.init());
    ASSERT_TRUE(lab.waitForCalls("da/state", 1));
    ASSERT_TRUE(lab.cloud().waitForInFlight(1, AgentLab::kPatience));

    auto asked = std::chrono::steady_clock::now();
    ASSERT_EQ(ZelResultSuccess, ZelTerm());
    ASSERT_TRUE(lab.waitForState(DeviceAgentStateUninitialized));
    EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(2));
    EXPECT_EQ(1u, lab.logCount("StateControl terminated"));
    EXPECT_EQ(1u, lab.logCount("Performing Core cleanup"));
}

TEST_F(AgentLifecycle, CallsWhileStoppingAreBusyAndQueuedEventsAreAborted) {
    std::promise<void> entered;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    EventManager::Instance().setReceiver("hold", [&](const Event&) {
        entered.set_value();
        released.wait();
    });
    AgentLab& lab = started();
    lab.cloud().queueEvent("hold", Json::Value("h"), 41u);
    lab.cloud().queueEvent("behind", Json::Value("b"), 42u);
    ASSERT_EQ(std::future_status::ready, entered.get_future().wait_for(AgentLab::kPatience));

    // EventControl is held inside a receiver, so the shut-down cannot finish.
    ASSERT_EQ(ZelResultSuccess, ZelTerm());
    EXPECT_EQ(ZelResultBusy, ZelTerm());
    EXPECT_EQ(ZelResultBusy, ZelFactoryReset());
    EXPECT_EQ(ZelResultBusy, lab.init());
    EXPECT_EQ(ZelResultAlreadyInitialized, ZelFactoryResetOffline(lab.config().c_str()));
    EXPECT_EQ(DeviceAgentStateTerminating, lab.state());
    release.set_value();
    ASSERT_TRUE(lab.waitForState(DeviceAgentStateUninitialized));
    EventManager::Instance().clearReceiver("hold");
    EXPECT_EQ(1u, lab.logCount("Aborting event=behind, id=42, parameters=b"));
    EXPECT_EQ(ZelResultSuccess, lab.init());
}

TEST_F(AgentLifecycle, EventsArriveInOrderAcrossAnswersAndUnknownOnesAreIgnored) {
    AgentLab& lab = started();
    Json::Value structured;
    structured["code"] = 7;
    lab.cloud().queueEvent("a", Json::Value("1"), 1u);
    lab.cloud().queueEvent("b", structured, 2u);
    lab.cloud().queueEvent("c", Json::Value("3"), 3u);
    ASSERT_TRUE(lab.waitForLog("Ignoring event=c, id=3, parameters=3"));
    lab.cloud().queueEvent("d", Json::Value("5"), 5u);
    lab.cloud().queueEvent("e", Json::Value("7"), 7u);
    ASSERT_TRUE(lab.waitForLog("Ignoring event=e, id=7, parameters=7"));
    ASSERT_TRUE(lab.term());

    std::vector<std::string> events;
    for (const std::string& message : lab.log().messages()) {
        if (message.rfind("Ignoring event=", 0) == 0) {
            events.push_back(message.substr(15, 7));
        }
    }
    EXPECT_EQ((std::vector<std::string>{"a, id=1", "b, id=2", "c, id=3", "d, id=5", "e, id=7"}),
              events);
    EXPECT_EQ(1u, lab.logCount("Ignoring event=b, id=2, parameters={\"code\":7}"));
    // Each queued event leaves a structured record.
    EXPECT_EQ(1u, lab.logCount("{\"coreEventQueued\":{\"event\":\"a\",\"parameters\":\"1\"}}"));
}

TEST_F(AgentLifecycle, AnEventAloneInAnAnswerIsDispatchedAtOnce) {
    // Ten minutes between polls: nothing but the first answer can bring it.
    AgentLab& lab = this->lab(pollDelayOf(600000));
    lab.cloud().queueEvent("startsvsession", Json::Value("s"), 6u);
    ASSERT_EQ(ZelResultSuccess, lab.init());
    ASSERT_TRUE(lab.waitForLog("Suppressing event=startsvsession, id=6, parameters=s"));
    EXPECT_EQ(1u, lab.calls("da/state").size());
    EXPECT_EQ(0u, lab.calls("da/notification").size());
}

TEST_F(AgentLifecycle, LostValuesFileRecoversTheTokenInsteadOfANewIdentity) {
    AgentLab& lab = started();
    ASSERT_TRUE(lab.term());
    std::string token = lab.cloud().device(AgentLab::DeviceCn())->gidToken;

    Zel::Core::FileUtil::Drop(lab.persistentDir(), "coreValues");
    size_t before = lab.requests("da/").size();
    ASSERT_EQ(ZelResultSuccess, lab.init());
    ASSERT_TRUE(lab.waitForCalls("da/notification", 2));
    ASSERT_TRUE(lab.term());

    std::vector<ZelCloud::RecordedRequest> requests = lab.requests("da/");
    EXPECT_EQ(1u, lab.logCount("Token Recovery Activated"));
    EXPECT_EQ(1u, lab.calls("da/gidtoken").size());
    ASSERT_GT(requests.size(), before);
    EXPECT_EQ("/api/v1/da/state", requests[before].path);
    EXPECT_EQ(token, requests[before].authorization);
}

TEST_F(AgentLifecycle, FactoryResetForgetsTheIdentity) {
    AgentLab& lab = started();
    ASSERT_EQ(ZelResultSuccess, ZelFactoryReset());
    ASSERT_TRUE(lab.waitForState(DeviceAgentStateUninitialized));

    ASSERT_EQ(ZelResultSuccess, lab.init());
    ASSERT_TRUE(lab.waitForCalls("da/gidtoken", 2));
    ASSERT_TRUE(lab.term());
    EXPECT_EQ(0u, lab.logCount("Token Recovery Activated"));

    // Offline, the reset empties the persistent directory of every state
    // file, and leaves what is not ours alone.
    ZelTest::WriteFile(lab.persistentDir() + "/notes.txt", "kept");
    ASSERT_FALSE(persistedFiles(lab.persistentDir()).empty());
    ASSERT_EQ(ZelResultSuccess, ZelFactoryResetOffline(lab.config().c_str()));
    EXPECT_EQ(std::vector<std::string>{}, persistedFiles(lab.persistentDir()));
    EXPECT_EQ("kept", ZelTest::ReadFile(lab.persistentDir() + "/notes.txt"));
}

TEST_F(AgentLifecycle, RestartKeepsTheRemainingPollDelayUnlessItHasRunOut) {
    AgentLab& lab = this->lab(pollDelayOf(600000));  // never reached in a test
    ASSERT_EQ(ZelResultSuccess, lab.init());
    ASSERT_TRUE(lab.waitForLog("Using standard delay on core startup"));
    ASSERT_TRUE(lab.term());

    // Restart at once: the ten minutes are not over, so no notification yet.
    ASSERT_EQ(ZelResultSuccess, lab.init());
    ASSERT_TRUE(lab.waitForLog("Using standard delay on core startup", 2));
    ASSERT_TRUE(lab.term());
    EXPECT_EQ(0u, lab.logCount("Using startup delay on core startup"));
    EXPECT_EQ(0u, lab.calls("da/notification").size());

    // A last call long ago: the startup delay (0 here) applies from now.
    writeTimerFile(lab.persistentDir(), time(nullptr) - 100000);
    ASSERT_EQ(ZelResultSuccess, lab.init());
    ASSERT_TRUE(lab.waitForCalls("da/notification", 1));
    ASSERT_TRUE(lab.term());
    EXPECT_EQ(1u, lab.logCount("Using startup delay on core startup"));

    // A last call in the future is not believed.
    writeTimerFile(lab.persistentDir(), time(nullptr) + 100000);
    ASSERT_EQ(ZelResultSuccess, lab.init());
    ASSERT_TRUE(lab.waitForCalls("da/notification", 2));
    EXPECT_EQ(2u, lab.logCount("Using startup delay on core startup"));
    EXPECT_EQ(1u, lab.logCount("Problem reading " + lab.persistentDir() +
                               "/daTime, lastCall is in the future. Defaulting to clock start "
                               "as reference."));
}
