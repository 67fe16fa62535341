// The "da" conversation between the agent and the local cloud, through the C
// interface and over real TLS.
#include <gtest/gtest.h>

#include <future>
#include <regex>

#include "support/AgentLab.h"

using ZelCloud::FaultPlan;
using ZelCloud::RecordedRequest;
using ZelTest::AgentLab;
using ZelTest::Fault;

namespace {

using DaProtocol = ZelTest::LabTest;

constexpr int64_t kRetryMs = 300;  // longer than the poll delay, so neither passes for the other

Json::Value bodyOf(const RecordedRequest& request) {
    return ZelTest::ParseJson(request.body);
}

Json::Value slowRetry() {
    Json::Value settings = AgentLab::FastSettings();
    settings["daRetryDelayFixedMs"] = static_cast<Json::Int64>(kRetryMs);
    return settings;
}

// Microseconds from the start of the call that logged `anchor` to the start
// of the next call, by the agent's own clock; -1 when there is none.
int64_t waitAfter(const ZelTest::LogFile& log, const std::string& anchor) {
    int64_t start = -1;
    bool seen = false;
    for (const ZelTest::LogRecord& record : log.records()) {
        if (record.message.rfind("StateControl calling ", 0) == 0) {
            if (seen) {
                return record.micros - start;
            }
            start = record.micros;
        }
        seen = seen || record.message == anchor;
    }
    return -1;
}

// The headers the agent sets itself, in the order they came over the wire.
std::vector<std::string> daHeaders(const RecordedRequest& request) {
    std::vector<std::string> ours;
    for (const std::string& header : request.headers) {
        for (const char* name : {"Date: ", "Accept: ", "Content-Type: ", "Authorization: "}) {
            if (header.rfind(name, 0) == 0) {
                ours.push_back(header);
            }
        }
    }
    return ours;
}

// The core's own calls, without those of the other services.
std::vector<RecordedRequest> daOnly(const std::vector<RecordedRequest>& all) {
    std::vector<RecordedRequest> da;
    for (const RecordedRequest& request : all) {
        if (request.path.rfind("/api/v1/da/", 0) == 0) {
            da.push_back(request);
        }
    }
    return da;
}

// ZelGetStatus(1) on a thread of its own; gives the test mode it reports.
std::future<uint32_t> statusWaiter() {
    return std::async(std::launch::async, [] {
        ZelStatus status{};
        ZelGetStatus(ZelStatusMethodWaitForChange, &status);
        uint32_t testMode = status.testMode;
        ZelFreeStatus(&status);
        return testMode;
    });
}

}  // namespace

TEST_F(DaProtocol, FreshStartObtainsIdentitySynchronisesThenPolls) {
    AgentLab& lab = started();
    ASSERT_TRUE(lab.waitForCalls("da/notification", 2));
    ASSERT_TRUE(lab.term());

    std::vector<std::string> paths = lab.paths("da/");
    paths.resize(4);
    EXPECT_EQ(
        (std::vector<std::string>{"da/gidtoken", "da/state", "da/notification", "da/notification"}),
        paths);
    std::vector<RecordedRequest> requests = lab.requests("da/");
    std::string token = lab.cloud().device(AgentLab::DeviceCn())->gidToken;
    for (size_t i = 0; i < 4; ++i) {
        SCOPED_TRACE(paths[i]);
        EXPECT_EQ(AgentLab::DeviceCn(), requests[i].cn);
        // Only the identity call goes without the token.
        std::vector<std::string> expected = {"", "Accept: application/json",
                                             "Content-Type: application/json; charset=UTF-8"};
        if (i > 0) {
            expected.push_back("Authorization: " + token);
        }
        std::vector<std::string> sent = daHeaders(requests[i]);
        ASSERT_EQ(expected.size(), sent.size());
        EXPECT_TRUE(std::regex_match(
            sent[0], std::regex("Date: \\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ")))
            << sent[0];
        sent[0] = "";
        EXPECT_EQ(expected, sent);
    }

    Json::Value identity = bodyOf(requests[0]);
    Json::Value device = ZelTest::ParseJson(lab.device());
    EXPECT_EQ(device["id"], identity["daId"]);
    EXPECT_EQ(false, identity["daTestMode"].asBool());
    Json::Value state = bodyOf(requests[1]);
    for (const char* key :
         {"daTestMode", "daId", "daModel", "daSubModel", "oemMsg", "daBrand", "daPlatform",
          "daSwVersion", "daVersion", "daOpidSeqNum", "daGidSeqNum", "suCheckForSoftwareUpdate"}) {
        EXPECT_TRUE(state.isMember(key)) << key;
    }
    EXPECT_EQ(device["model"], state["daModel"]);
    EXPECT_EQ("4.8.0-255-g4399f3ce", state["daVersion"].asString());
    Json::Value notification = bodyOf(requests[2]);
    EXPECT_EQ((std::vector<std::string>{"daGidSeqNum", "daOpidSeqNum"}),
              notification.getMemberNames());
}

TEST_F(DaProtocol, FailedCallsAreRetriedAfterTheRetryDelayAsTheirStatusSays) {
    const struct {
        const char* name;
        FaultPlan::Fault fault;
        // "path status" of the call before the fault and of every call after it.
        std::vector<std::string> calls;
        std::vector<std::string> logged;  // the first is where the failed call shows
    } rows[] = {
        {"503 on a synchronisation",
         Fault("da/state", FaultPlan::Kind::Status, 503),
         {"da/notification 200", "da/state 503", "da/state 200", "da/notification 200"},
         {"SynchronizeCoreState processed (503)"}},
        {"500 on a poll",
         Fault("da/notification", FaultPlan::Kind::Status, 500),
         {"da/notification 200", "da/notification 500", "da/notification 200"},
         {"CheckForNotification processed (500)"}},
        {"422 on a poll",
         Fault("da/notification", FaultPlan::Kind::Status, 422),
         {"da/notification 200", "da/notification 422", "da/gidtoken 200", "da/state 200",
          "da/notification 200"},
         {"CheckForNotification processed (422)"}},
        {"428 on a poll",
         Fault("da/notification", FaultPlan::Kind::Status, 428),
         {"da/notification 200", "da/notification 428", "da/state 200", "da/notification 200"},
         {"CheckForNotification processed (428)"}},
        {"not JSON on a poll",
         Fault("da/notification", FaultPlan::Kind::BadJson),
         {"da/notification 200", "da/notification 200", "da/notification 200"},
         {"CheckForNotification answer is not a JSON object"}},
        // libcurl asks once more on a fresh connection when a kept-alive one
        // closes without an answer: two drops fail one call.
        {"dropped connection on a poll",
         Fault("da/notification", FaultPlan::Kind::Drop, 0, 0, 2),
         {"da/notification 200", "da/notification 0", "da/notification 0", "da/notification 200"},
         {"curl_easy_perform() failed with code 52 - \"Server returned nothing (no headers, no "
          "data)\"",
          "CheckForNotification processed (0)"}}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        AgentLab& lab = started(slowRetry());
        lab.cloud().addFault(row.fault);
        if (row.fault.path == "da/state") {
            ASSERT_TRUE(lab.cloud().desynchronize(AgentLab::DeviceCn()));
        }
        size_t first = 0;
        ASSERT_TRUE(lab.waitFor([&](const std::vector<RecordedRequest>& all) {
            std::vector<RecordedRequest> requests = daOnly(all);
            while (first < requests.size() && requests[first].note.rfind("fault", 0) != 0) {
                ++first;
            }
            return first < requests.size() && requests.size() >= first - 1 + row.calls.size();
        }));
        ASSERT_TRUE(lab.term());

        std::vector<RecordedRequest> requests = lab.requests("da/");
        std::vector<std::string> calls;
        for (size_t i = first - 1; i < first - 1 + row.calls.size(); ++i) {
            calls.push_back(requests[i].path.substr(8) + " " + std::to_string(requests[i].status));
        }
        EXPECT_EQ(row.calls, calls);
        for (const std::string& line : row.logged) {
            EXPECT_EQ(1u, lab.logCount(line)) << line;
        }
        int64_t waited = waitAfter(lab.log(), row.logged[0]);
        EXPECT_GE(waited, kRetryMs * 1000 - 1) << "the retry delay was not waited";
        EXPECT_LT(waited, AgentLab::kPatience.count() * 1000);
    }
}

TEST_F(DaProtocol, ThreeUnsynchronisedAnswersImposeOneRetryDelay) {
    AgentLab& lab = this->lab(slowRetry());
    lab.cloud().setUnsynchronized(4);
    ASSERT_EQ(ZelResultSuccess, lab.init());
    ASSERT_TRUE(lab.waitForCalls("da/notification", 1));
    ASSERT_TRUE(lab.term());

    std::vector<std::string> paths = lab.paths("da/");
    paths.resize(7);
    EXPECT_EQ((std::vector<std::string>{"da/gidtoken", "da/state", "da/state", "da/state",
                                        "da/state", "da/state", "da/notification"}),
              paths);
    const std::string delaying = "Too many SynchronizeCoreState calls in a row, delaying";
    EXPECT_EQ(1u, lab.logCount(delaying));
    EXPECT_GE(waitAfter(lab.log(), delaying), kRetryMs * 1000 - 1);
}

TEST_F(DaProtocol, HostSettingsReachTheCloudEvenWhenChangedInFlight) {
    AgentLab& lab = started();
    // The start's own status change is taken first, so that only test mode
    // can wake the second waiter.
    std::future<uint32_t> start = statusWaiter();
    bool startSeen = start.wait_for(AgentLab::kPatience) == std::future_status::ready;
    size_t asked = lab.logCount("ZelGetStatus() called");
    std::future<uint32_t> change = statusWaiter();
    EXPECT_TRUE(lab.waitForLog("ZelGetStatus() called", asked + 1));
    EXPECT_EQ(ZelResultSuccess, ZelEnableTestMode());
    bool woken = change.wait_for(AgentLab::kPatience) == std::future_status::ready;
    if (!startSeen || !woken) {
        lab.term();  // releases the waiters
    }
    ASSERT_TRUE(startSeen) << "ZelInit left no status change";
    ASSERT_TRUE(woken) << "ZelEnableTestMode did not wake a status waiter";
    EXPECT_EQ(1u, change.get());
    ASSERT_TRUE(lab.waitForCalls("da/state", 2));

    // The next synchronisation is held by the cloud while the message changes again.
    lab.cloud().addFault(Fault("da/state", FaultPlan::Kind::Delay, 0, 1500));
    ASSERT_EQ(ZelResultSuccess, ZelSetOemMsg("hello cloud"));
    ASSERT_TRUE(lab.waitForLog("StateControl calling SynchronizeCoreState", 3));
    ASSERT_EQ(ZelResultSuccess, ZelSetOemMsg("changed in flight"));
    ASSERT_TRUE(lab.waitForCalls("da/state", 4));
    ASSERT_TRUE(lab.term());

    std::vector<RecordedRequest> states = lab.calls("da/state");
    EXPECT_FALSE(bodyOf(states[0])["daTestMode"].asBool());
    EXPECT_TRUE(bodyOf(states[1])["daTestMode"].asBool());
    EXPECT_EQ("", bodyOf(states[1])["oemMsg"].asString());
    EXPECT_EQ("hello cloud", bodyOf(states[2])["oemMsg"].asString());
    EXPECT_EQ("changed in flight", bodyOf(states[3])["oemMsg"].asString());
}
