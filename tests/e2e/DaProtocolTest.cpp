// The "da" conversation between the agent and the local cloud, through the C
// interface and over real TLS.
#include <gtest/gtest.h>

#include "support/AgentLab.h"

using ZelCloud::FaultPlan;
using ZelCloud::RecordedRequest;
using ZelTest::AgentLab;

namespace {

Json::Value bodyOf(const RecordedRequest& request) {
    return AgentLab::Parse(request.body);
}

// Index of the first request at or after `from` whose path ends with `path`.
size_t indexOf(const std::vector<std::string>& paths, const std::string& path, size_t from = 0) {
    for (size_t i = from; i < paths.size(); ++i) {
        if (paths[i] == path) {
            return i;
        }
    }
    return paths.size();
}

FaultPlan::Fault fault(const std::string& path, FaultPlan::Kind kind, unsigned count = 1) {
    FaultPlan::Fault result;
    result.path = path;
    result.kind = kind;
    result.count = count;
    return result;
}

FaultPlan::Fault statusFault(const std::string& path, int status) {
    FaultPlan::Fault result = fault(path, FaultPlan::Kind::Status);
    result.status = status;
    return result;
}

}  // namespace

TEST(DaProtocol, FreshStartObtainsIdentitySynchronisesThenPolls) {
    AgentLab lab;
    ASSERT_EQ(ZelResultSuccess, lab.init());
    ASSERT_TRUE(lab.waitForCalls("da/notification", 3));
    ASSERT_TRUE(lab.term());

    std::vector<std::string> paths = lab.paths();
    ASSERT_GE(paths.size(), 5u);
    EXPECT_EQ("da/gidtoken", paths[0]);
    EXPECT_EQ("da/state", paths[1]);
    EXPECT_EQ("da/notification", paths[2]);
    EXPECT_EQ("da/notification", paths[3]);

    std::vector<RecordedRequest> requests = lab.cloud().requests();
    // Only the identity call goes without the token; the others carry the one issued.
    EXPECT_EQ("", requests[0].authorization);
    auto device = lab.cloud().device(AgentLab::DeviceCn());
    ASSERT_TRUE(device.has_value());
    EXPECT_EQ(device->gidToken, requests[1].authorization);
    EXPECT_EQ(device->gidToken, requests[2].authorization);
    for (const RecordedRequest& request : requests) {
        EXPECT_EQ(AgentLab::DeviceCn(), request.cn);
        EXPECT_EQ("POST", request.method);
    }

    Json::Value identity = bodyOf(requests[0]);
    Json::Value deviceDocument = AgentLab::Parse(lab.device());
    EXPECT_EQ(deviceDocument["id"], identity["daId"]);
    EXPECT_EQ(false, identity["daTestMode"].asBool());

    Json::Value state = bodyOf(requests[1]);
    for (const char* key :
         {"daTestMode", "daId", "daModel", "daSubModel", "oemMsg", "daBrand", "daPlatform",
          "daSwVersion", "daVersion", "daOpidSeqNum", "daGidSeqNum", "suCheckForSoftwareUpdate"}) {
        EXPECT_TRUE(state.isMember(key)) << key;
    }
    EXPECT_EQ(deviceDocument["model"], state["daModel"]);
    EXPECT_EQ("4.8.0-255-g4399f3ce", state["daVersion"].asString());
    Json::Value notification = bodyOf(requests[2]);
    EXPECT_TRUE(notification.isMember("daOpidSeqNum"));
    EXPECT_TRUE(notification.isMember("daGidSeqNum"));
    EXPECT_EQ(2u, notification.size());
}

TEST(DaProtocol, NotificationThatClearsTheFlagLeadsToResynchronisation) {
    AgentLab lab;
    ASSERT_EQ(ZelResultSuccess, lab.init());
    ASSERT_TRUE(lab.waitForCalls("da/notification", 1));
    ASSERT_TRUE(lab.cloud().desynchronize(AgentLab::DeviceCn()));
    ASSERT_TRUE(lab.waitForCalls("da/state", 2));
    ASSERT_TRUE(lab.waitForCalls("da/notification", 3));
    ASSERT_TRUE(lab.term());

    std::vector<std::string> paths = lab.paths();
    size_t secondState = indexOf(paths, "da/state", indexOf(paths, "da/state") + 1);
    ASSERT_LT(secondState, paths.size());
    EXPECT_EQ("da/notification", paths[secondState - 1]);
    EXPECT_EQ("da/notification", paths.at(secondState + 1));
    EXPECT_EQ(1, std::count(paths.begin(), paths.end(), "da/gidtoken"));
}

TEST(DaProtocol, HostSettingsReachTheNextSynchronisation) {
    AgentLab lab;
    ASSERT_EQ(ZelResultSuccess, lab.init());
    ASSERT_TRUE(lab.waitForCalls("da/notification", 1));

    ASSERT_EQ(ZelResultSuccess, ZelEnableTestMode());
    ASSERT_TRUE(lab.waitForCalls("da/state", 2));
    ASSERT_EQ(ZelResultSuccess, ZelSetOemMsg("hello cloud"));
    ASSERT_TRUE(lab.waitForCalls("da/state", 3));
    ASSERT_TRUE(lab.term());

    std::vector<RecordedRequest> states = lab.calls("da/state");
    EXPECT_FALSE(bodyOf(states[0])["daTestMode"].asBool());
    EXPECT_TRUE(bodyOf(states[1])["daTestMode"].asBool());
    EXPECT_EQ("", bodyOf(states[1])["oemMsg"].asString());
    EXPECT_EQ("hello cloud", bodyOf(states[2])["oemMsg"].asString());
}

// Faults are injected once the first synchronisation has brought the cloud's
// short delays: before that the device's own defaults (seconds) apply.

TEST(DaProtocol, SettingChangedDuringAnExchangeIsNotLost) {
    AgentLab lab;
    ASSERT_EQ(ZelResultSuccess, lab.init());
    ASSERT_TRUE(lab.waitForCalls("da/notification", 1));
    // The next synchronisation is held by the cloud long enough to change a
    // setting while it is in flight.
    FaultPlan::Fault slow = fault("da/state", FaultPlan::Kind::Delay);
    slow.delayMs = 1500;
    lab.cloud().addFault(slow);
    ASSERT_TRUE(lab.cloud().desynchronize(AgentLab::DeviceCn()));
    ASSERT_TRUE(lab.waitForLog("StateControl calling SynchronizeCoreState", 2));
    ASSERT_EQ(ZelResultSuccess, ZelSetOemMsg("changed in flight"));
    ASSERT_TRUE(lab.waitForCalls("da/state", 3));
    ASSERT_TRUE(lab.term());

    std::vector<RecordedRequest> states = lab.calls("da/state");
    EXPECT_EQ("", bodyOf(states[1])["oemMsg"].asString());
    EXPECT_EQ("changed in flight", bodyOf(states[2])["oemMsg"].asString());
}

TEST(DaProtocol, ServerErrorsRetryTheSameCall) {
    AgentLab lab;
    ASSERT_EQ(ZelResultSuccess, lab.init());
    ASSERT_TRUE(lab.waitForCalls("da/notification", 1));
    lab.cloud().addFault(statusFault("da/state", 503));
    ASSERT_TRUE(lab.cloud().desynchronize(AgentLab::DeviceCn()));
    ASSERT_TRUE(lab.waitForCalls("da/state", 3));
    ASSERT_TRUE(lab.waitForCalls("da/notification", 3));
    lab.cloud().addFault(statusFault("da/notification", 500));
    ASSERT_TRUE(lab.waitForCalls("da/notification", 5));
    ASSERT_TRUE(lab.term());

    std::vector<std::string> paths = lab.paths();
    std::vector<RecordedRequest> requests = lab.cloud().requests();
    size_t refusedState = 0;
    while (refusedState < requests.size() && requests[refusedState].status != 503) {
        ++refusedState;
    }
    ASSERT_LT(refusedState + 1, paths.size());
    EXPECT_EQ("da/state", paths[refusedState]);
    EXPECT_EQ("da/state", paths[refusedState + 1]);
    EXPECT_EQ(200, requests[refusedState + 1].status);
    size_t refusedPoll = refusedState;
    while (refusedPoll < requests.size() && requests[refusedPoll].status != 500) {
        ++refusedPoll;
    }
    ASSERT_LT(refusedPoll + 1, paths.size());
    EXPECT_EQ("da/notification", paths[refusedPoll]);
    EXPECT_EQ("da/notification", paths[refusedPoll + 1]);
    EXPECT_EQ(200, requests[refusedPoll + 1].status);
    EXPECT_EQ(1, std::count(paths.begin(), paths.end(), "da/gidtoken"));
    // Each failure waited the retry delay the cloud handed out.
    EXPECT_EQ(2u, lab.logCount("calculated 0.100s delay"));
}

TEST(DaProtocol, RefusedCredentialsFetchANewIdentityWithSequenceNumbersReset) {
    AgentLab lab;
    ASSERT_EQ(ZelResultSuccess, lab.init());
    ASSERT_TRUE(lab.waitForCalls("da/notification", 1));
    // Events move the cloud's sequence numbers on.
    lab.cloud().queueEvent("noop");
    ASSERT_TRUE(lab.waitForCalls("da/state", 2));
    ASSERT_TRUE(lab.waitForCalls("da/notification", 2));
    Json::Value inStep = AgentLab::Parse(lab.calls("da/notification").back().body);
    ASSERT_GT(inStep["daGidSeqNum"].asUInt() + inStep["daOpidSeqNum"].asUInt(), 0u);

    lab.cloud().addFault(statusFault("da/notification", 422));
    ASSERT_TRUE(lab.waitForCalls("da/gidtoken", 2));
    ASSERT_TRUE(lab.waitForCalls("da/state", 3));
    ASSERT_TRUE(lab.term());

    std::vector<std::string> paths = lab.paths();
    size_t refused = indexOf(paths, "da/notification", indexOf(paths, "da/state", 2));
    std::vector<RecordedRequest> requests = lab.cloud().requests();
    while (refused < requests.size() && requests[refused].status != 422) {
        ++refused;
    }
    ASSERT_LT(refused + 2, paths.size());
    EXPECT_EQ("da/gidtoken", paths[refused + 1]);
    EXPECT_EQ("da/state", paths[refused + 2]);
    Json::Value restarted = bodyOf(requests[refused + 2]);
    EXPECT_EQ(0u, restarted["daOpidSeqNum"].asUInt());
    EXPECT_EQ(0u, restarted["daGidSeqNum"].asUInt());
    EXPECT_NE(requests[refused].authorization, requests[refused + 2].authorization);
}

TEST(DaProtocol, PreconditionRequiredResynchronises) {
    AgentLab lab;
    ASSERT_EQ(ZelResultSuccess, lab.init());
    ASSERT_TRUE(lab.waitForCalls("da/notification", 1));
    lab.cloud().addFault(statusFault("da/notification", 428));
    ASSERT_TRUE(lab.waitForCalls("da/state", 2));
    ASSERT_TRUE(lab.term());

    std::vector<std::string> paths = lab.paths();
    std::vector<RecordedRequest> requests = lab.cloud().requests();
    size_t refused = 0;
    while (refused < requests.size() && requests[refused].status != 428) {
        ++refused;
    }
    ASSERT_LT(refused + 1, paths.size());
    EXPECT_EQ("da/state", paths[refused + 1]);
    EXPECT_EQ(1, std::count(paths.begin(), paths.end(), "da/gidtoken"));
}

TEST(DaProtocol, ThreeUnsynchronisedAnswersImposeOneRetryDelay) {
    Json::Value settings = AgentLab::FastSettings();
    settings["daRetryDelayFixedMs"] = 321;
    AgentLab lab(settings);
    lab.cloud().setUnsynchronized(4);
    ASSERT_EQ(ZelResultSuccess, lab.init());
    ASSERT_TRUE(lab.waitForCalls("da/notification", 1));
    ASSERT_TRUE(lab.term());

    std::vector<std::string> paths = lab.paths();
    ASSERT_GE(paths.size(), 7u);
    for (size_t i = 1; i <= 5; ++i) {
        EXPECT_EQ("da/state", paths[i]) << i;
    }
    EXPECT_EQ("da/notification", paths[6]);
    EXPECT_EQ(1u, lab.logCount("Too many SynchronizeCoreState calls in a row, delaying"));
    EXPECT_EQ(1u, lab.logCount("calculated 0.321s delay"));
}

TEST(DaProtocol, AnswersThatAreNotJsonOrNoAnswerAtAllAreSurvived) {
    AgentLab lab;
    ASSERT_EQ(ZelResultSuccess, lab.init());
    ASSERT_TRUE(lab.waitForCalls("da/notification", 1));
    lab.cloud().addFault(fault("da/state", FaultPlan::Kind::BadJson));
    // libcurl sends a request once more on a fresh connection when a kept-alive
    // one closes without an answer, so it takes two drops to fail a call.
    lab.cloud().addFault(fault("da/gidtoken", FaultPlan::Kind::Drop, 2));
    // Refused credentials make the agent ask for a new identity, whose first
    // answer is lost, and whose synchronisation is answered with garbage.
    lab.cloud().addFault(statusFault("da/notification", 422));
    ASSERT_TRUE(lab.waitForCalls("da/notification", 3));
    ASSERT_TRUE(lab.term());

    std::vector<std::string> paths = lab.paths();
    std::vector<std::string> expected = {
        "da/gidtoken", "da/state",    "da/notification", "da/notification", "da/gidtoken",
        "da/gidtoken", "da/gidtoken", "da/state",        "da/state",        "da/notification"};
    ASSERT_GE(paths.size(), expected.size());
    paths.resize(expected.size());
    EXPECT_EQ(expected, paths);
    EXPECT_EQ(1u, lab.logCount("SynchronizeCoreState answer is not a JSON object"));
    EXPECT_EQ(1u, lab.logCount("GetDeviceIdentity processed (0)"));
}
