// Every endpoint of the four services under every kind of bad answer, through
// the C interface against the local cloud: one test per (endpoint, fault), so
// that a failure names both. Each row checks that the fault was met, that the
// agent reacted as it must (a retry after the retry delay, a new identity, a
// new synchronisation, a retired session or token, a refusal), that it comes
// back to normal once the cloud does, and that no thread is left behind.
// CTest runs every row in a process of its own: a crash fails one row only.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <tuple>

#include "support/AgentLab.h"

using ZelCloud::FaultPlan;
using ZelCloud::PayloadFaults;
using ZelCloud::RecordedRequest;
using ZelTest::AgentLab;
using ZelTest::Fault;
using Clock = std::chrono::system_clock;

namespace {

enum class Endpoint {
    DaGidToken,
    DaState,
    DaNotification,
    SvInitialize,
    SvTerminate,
    SvSuspend,
    SvResume,
    SvCommandGet,
    SvCommandPut,
    SuComplete,
    SuPayload,
    DrmpToken,
    DrmpWork,
};

enum class Bad { S500, S503, S422, S428, Slow, Dropped, NotJson, WrongShape, Oversized };

// What the agent must do about a fault at once.
enum class Reaction {
    Retry,          // the same call again, not before the retry delay
    Again,          // the same call again
    NewIdentity,    // a gid token call follows
    Resync,         // a state call follows, then the same call again
    RetireSession,  // the session is gone
    NewDrmpToken,   // a drmp token call follows
    ReportOnce,     // the report is not sent again
    ReportFailure,  // the update fails and says so
    LastCall,       // the shut-down's one call, never retried
    Nothing,        // the answer is ignored
};

constexpr long kRetryMs = 500;     // above the poll delay, which a retry must not pass for
constexpr long kTimeoutMs = 1500;  // every message time-out; the cloud's long poll is shorter
constexpr long kSlowMs = 4000;
constexpr uint32_t kBlock = 16384;
constexpr const char* kApi = "/api/v1/";

const char* PathOf(Endpoint endpoint) {
    static const char* const paths[] = {"da/gidtoken",
                                        "da/state",
                                        "da/notification",
                                        "sv/session/initialize",
                                        "sv/session/terminate",
                                        "sv/session/suspend",
                                        "sv/session/resume",
                                        "sv/command/get",
                                        "sv/command/put",
                                        "su/download/complete",
                                        "payload",
                                        "drmp/token",
                                        "drmp/work"};
    return paths[static_cast<int>(endpoint)];
}

const char* NameOf(Bad bad) {
    static const char* const names[] = {"Status500", "Status503", "Status422",  "Status428", "Slow",
                                        "Dropped",   "NotJson",   "WrongShape", "Oversized"};
    return names[static_cast<int>(bad)];
}

// The status a fault answers with; 0 for the faults that are not a status.
int StatusOf(Bad bad) {
    switch (bad) {
        case Bad::S500:
            return 500;
        case Bad::S503:
            return 503;
        case Bad::S422:
            return 422;
        case Bad::S428:
            return 428;
        default:
            return 0;
    }
}

bool Transport(Bad bad) {
    return bad == Bad::S500 || bad == Bad::S503 || bad == Bad::Slow || bad == Bad::Dropped ||
           bad == Bad::Oversized;
}

bool Junk(Bad bad) {
    return bad == Bad::NotJson || bad == Bad::WrongShape;
}

Reaction ReactionTo(Endpoint endpoint, Bad bad) {
    switch (endpoint) {
        case Endpoint::DaGidToken:
            return Junk(bad) ? Reaction::Again : Reaction::Retry;
        case Endpoint::DaState:
        case Endpoint::DaNotification:
            if (bad == Bad::S422) {
                return Reaction::NewIdentity;
            }
            if (bad == Bad::S428) {
                return Reaction::Resync;
            }
            return Junk(bad) ? Reaction::Again : Reaction::Retry;
        case Endpoint::SvSuspend:
            return Reaction::LastCall;
        case Endpoint::SvInitialize:
        case Endpoint::SvTerminate:
        case Endpoint::SvResume:
        case Endpoint::SvCommandGet:
        case Endpoint::SvCommandPut:
            if (bad == Bad::S422) {
                return endpoint == Endpoint::SvInitialize ? Reaction::NewIdentity
                                                          : Reaction::RetireSession;
            }
            if (bad == Bad::S428) {
                return Reaction::Resync;
            }
            return Junk(bad) ? Reaction::Nothing : Reaction::Retry;
        case Endpoint::SuComplete:
            // A refused report fails the update, and that is reported in turn.
            if (bad == Bad::S428) {
                return Reaction::Resync;
            }
            if (bad == Bad::S422) {
                return Reaction::ReportFailure;
            }
            return Transport(bad) ? Reaction::Retry : Reaction::ReportOnce;
        case Endpoint::SuPayload:
            return Junk(bad) || bad == Bad::Oversized ? Reaction::ReportFailure : Reaction::Retry;
        case Endpoint::DrmpToken:
            return Reaction::Retry;
        case Endpoint::DrmpWork:
            if (bad == Bad::S422) {
                return Reaction::NewDrmpToken;
            }
            return Junk(bad) ? Reaction::Nothing : Reaction::Retry;
    }
    return Reaction::Nothing;
}

// The retry delay the reaction must keep to, in the agent's settings.
Json::Value MatrixSettings() {
    Json::Value settings = AgentLab::FastSettings();
    for (const char* prefix : {"da", "sv", "su", "suStaging", "drmp"}) {
        std::string name(prefix);
        settings[name + "RetryDelayFixedMs"] = static_cast<Json::Int64>(kRetryMs);
        settings[name + "RetryDelayVariedMs"] = 0;
        settings[name + "MessageTimeoutMs"] = static_cast<Json::Int64>(kTimeoutMs);
    }
    settings["suMaxRetryCount"] = 3;
    settings["suStagingMaxRetryCount"] = 3;
    settings["drmpPollDelayFixedMs"] = 1000;
    settings["drmpPollDelayVariedMs"] = 0;
    return settings;
}

// A 2xx answer every service can read as JSON, with each member it knows of
// the wrong type.
const char* const kWrongShape =
    R"({"daGidToken": 7, "daSynchronized": "yes", "daEvents": {"event": 1},
        "daStateSynchronized": [], "sessionToken": 12, "sessionCode": false,
        "seqNum": "many", "taskRequest": {"REQUESTS": 3}, "idToken": [1],
        "operations": "all", "status": {"name": null}})";

std::string Oversized() {
    return "{\"pad\": \"" + std::string(2u << 20, 'x') + "\"}";
}

bool Faulted(const RecordedRequest& request) {
    return request.note.rfind("fault", 0) == 0;
}

long long MsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(to - from).count();
}

size_t ResultCount(const Json::Value& sessions) {
    size_t count = 0;
    for (const Json::Value& session : sessions) {
        count += session["results"].size();
    }
    return count;
}

using Row = std::tuple<Endpoint, Bad>;

class FaultMatrix : public ZelTest::LabTest, public testing::WithParamInterface<Row> {
protected:
    Endpoint endpoint() const { return std::get<0>(GetParam()); }
    Bad bad() const { return std::get<1>(GetParam()); }
    std::string path() const { return PathOf(endpoint()); }
    bool payload() const { return endpoint() == Endpoint::SuPayload; }
    bool session() const {
        return endpoint() >= Endpoint::SvInitialize && endpoint() <= Endpoint::SvCommandPut;
    }
    bool update() const {
        return endpoint() == Endpoint::SuComplete || endpoint() == Endpoint::SuPayload;
    }

    void start() {
        std::string config = lab_->configDoc()
                                 .set("supportView", "pauseSessionOnTerm", true)
                                 .set("drmp", "enableEmulatedSecureCore", true)
                                 .set("drmp", "emulatedUlpk", "00112233445566778899aabbccddeeff")
                                 .set("drmp", "emulatedUlpkIndex", 7)
                                 .set("drmp", "emulatedSupportedObjectNames", "keyA,keyB")
                                 .text();
        ASSERT_EQ(ZelResultSuccess,
                  ZelInit(lab_->identity().c_str(), config.c_str(), lab_->device().c_str()));
    }

    // Brings the agent to where its next call of the endpoint can be faulted.
    void prepare() {
        lab_ = &lab(MatrixSettings());
        lab_->cloud().setLongPollMs(kTimeoutMs / 3);
        ASSERT_NO_FATAL_FAILURE(start());
        ASSERT_TRUE(lab_->waitForCalls("da/notification", 1)) << "the agent never polled";
        ASSERT_TRUE(waitForWorkCalls(1));
        if (session() && endpoint() != Endpoint::SvInitialize) {
            ASSERT_NO_FATAL_FAILURE(openSession());
        }
        if (endpoint() == Endpoint::SvResume) {
            ASSERT_TRUE(lab_->term());
        }
        if (update()) {
            first_ = publish("5.0.0");
            ASSERT_TRUE(lab_->waitForUpdateState(ZelSoftwareUpdateStateAvailable));
        }
    }

    void arm() {
        since_ = Clock::now();
        if (payload()) {
            PayloadFaults::Fault fault{first_.id, PayloadFaults::Kind::Status, 0, 0, 0, 1, ""};
            fault.status = StatusOf(bad());
            switch (bad()) {
                case Bad::S500:
                case Bad::S503:
                case Bad::S422:
                case Bad::S428:
                    break;
                case Bad::Slow:
                    fault.kind = PayloadFaults::Kind::Delay;
                    fault.delayMs = kSlowMs;
                    break;
                case Bad::Dropped:
                    fault.kind = PayloadFaults::Kind::Drop;
                    break;
                case Bad::NotJson:
                    fault.kind = PayloadFaults::Kind::Body;
                    fault.body = "this is not json";
                    break;
                case Bad::WrongShape:
                    fault.kind = PayloadFaults::Kind::Body;
                    fault.status = 206;
                    fault.body = kWrongShape;
                    break;
                case Bad::Oversized:
                    fault.kind = PayloadFaults::Kind::Body;
                    fault.status = 206;
                    fault.body = Oversized();
                    break;
            }
            lab_->cloud().addPayloadFault(fault);
            return;
        }
        FaultPlan::Fault fault = Fault(path(), FaultPlan::Kind::Status, StatusOf(bad()));
        switch (bad()) {
            case Bad::S500:
            case Bad::S503:
            case Bad::S422:
            case Bad::S428:
                break;
            case Bad::Slow:
                // Held past the time-out, then never answered: the cloud must not act on it.
                lab_->cloud().addFault(Fault(path(), FaultPlan::Kind::Delay, 0, kSlowMs));
                fault.kind = FaultPlan::Kind::Drop;
                break;
            case Bad::Dropped:
                // libcurl asks once more when a kept-alive connection closes unanswered.
                fault.kind = FaultPlan::Kind::Drop;
                fault.count = 2;
                break;
            case Bad::NotJson:
                fault.kind = FaultPlan::Kind::BadJson;
                break;
            case Bad::WrongShape:
                fault.kind = FaultPlan::Kind::Body;
                fault.body = kWrongShape;
                break;
            case Bad::Oversized:
                fault.kind = FaultPlan::Kind::Body;
                fault.body = Oversized();
                break;
        }
        lab_->cloud().addFault(fault);
    }

    // Makes the agent call the endpoint.
    void trigger() {
        switch (endpoint()) {
            case Endpoint::DaGidToken:
                lab_->cloud().addFault(Fault("da/notification", FaultPlan::Kind::Status, 422));
                break;
            case Endpoint::DaState:
                ASSERT_TRUE(lab_->cloud().desynchronize(AgentLab::DeviceCn()));
                break;
            case Endpoint::SvInitialize:
                ASSERT_EQ(ZelResultSuccess, ZelSessionInit(0));
                break;
            case Endpoint::SvTerminate:
                ASSERT_EQ(ZelResultSuccess, ZelSessionTerm());
                break;
            case Endpoint::SvSuspend:
                ASSERT_TRUE(lab_->term()) << "no shut-down with the suspend faulted";
                break;
            case Endpoint::SvResume:
                ASSERT_NO_FATAL_FAILURE(start());
                break;
            case Endpoint::SvCommandPut:
                ASSERT_TRUE(queueTask());
                break;
            case Endpoint::SuComplete:
            case Endpoint::SuPayload:
                ASSERT_EQ(ZelResultSuccess,
                          ZelSetSoftwareUpdatePermission(ZelSoftwareUpdatePermissionDownload));
                break;
            case Endpoint::DrmpToken:
                lab_->cloud().addFault(Fault("drmp/work", FaultPlan::Kind::Status, 422));
                ASSERT_EQ(ZelResultSuccess, ZelCheckForDrmpUpdate());
                break;
            case Endpoint::DrmpWork:
                ASSERT_EQ(ZelResultSuccess, ZelCheckForDrmpUpdate());
                break;
            case Endpoint::DaNotification:
            case Endpoint::SvCommandGet:
                break;
        }
    }

    // The arrival of the first faulted call of the endpoint since arm().
    bool waitForFault() {
        if (payload()) {
            bool met = lab_->cloud().waitForPayloadRequests(1, AgentLab::kPatience) &&
                       waitPayload([](const auto& r) { return !r.fault.empty(); });
            faultAt_ =
                met ? firstPayload([](const auto& r) { return !r.fault.empty(); }) : faultAt_;
            return met;
        }
        const std::string full = kApi + path();
        return lab_->waitFor([&](const std::vector<RecordedRequest>& requests) {
            for (const RecordedRequest& r : requests) {
                if (r.path == full && Faulted(r) && r.time >= since_) {
                    faultAt_ = r.time;
                    return true;
                }
            }
            return false;
        });
    }

    // Waits for an unfaulted call of `callPath` that arrived after the fault.
    bool waitForCallAfterFault(const std::string& callPath, Clock::time_point& at) {
        const std::string full = kApi + callPath;
        return lab_->waitFor([&](const std::vector<RecordedRequest>& requests) {
            bool found = false;
            for (const RecordedRequest& r : requests) {
                if (r.path == full && !Faulted(r) && r.time > faultAt_ && (!found || r.time < at)) {
                    at = r.time;
                    found = true;
                }
            }
            return found;
        });
    }

    void checkReaction() {
        Reaction reaction = ReactionTo(endpoint(), bad());
        Clock::time_point at{};
        switch (reaction) {
            case Reaction::Retry:
            case Reaction::Again:
                if (payload()) {
                    ASSERT_TRUE(waitPayload([&](const auto& r) { return r.fault.empty(); }))
                        << "the block was not fetched again";
                    at = firstPayload([&](const auto& r) { return r.fault.empty(); });
                    EXPECT_NE("", lab_->log().find("Payload delaying (2 of 3) for "));
                } else {
                    ASSERT_TRUE(waitForCallAfterFault(path(), at)) << "not called again";
                }
                if (reaction == Reaction::Retry) {
                    // Counted from the start of the failed call, which the cloud sees later.
                    EXPECT_GE(MsBetween(faultAt_, at), kRetryMs / 2)
                        << "the retry delay was not kept";
                }
                break;
            case Reaction::NewIdentity:
                ASSERT_TRUE(waitForCallAfterFault("da/gidtoken", at)) << "no new identity";
                break;
            case Reaction::Resync:
                ASSERT_TRUE(waitForCallAfterFault("da/state", at)) << "no new synchronisation";
                if (endpoint() != Endpoint::SuComplete) {
                    ASSERT_TRUE(waitForCallAfterFault(path(), at)) << "not called again";
                }
                break;
            case Reaction::RetireSession:
                ASSERT_TRUE(lab_->waitForSessionState(ZelSessionStateNone)) << "session kept";
                break;
            case Reaction::NewDrmpToken:
                ASSERT_TRUE(waitForCallAfterFault("drmp/token", at)) << "no new drmp token";
                break;
            case Reaction::ReportFailure:
                ASSERT_TRUE(lab_->cloud().waitForUpdateReports(1, AgentLab::kPatience));
                EXPECT_FALSE(lab_->cloud().updateReports()[0].status);
                break;
            case Reaction::LastCall:
                EXPECT_EQ(1u, lab_->logCount("SuspendSession initiated"));
                break;
            case Reaction::ReportOnce:
            case Reaction::Nothing:
                break;
        }
    }

    // The cloud is itself again: the agent polls, and the endpoint's service works.
    void checkRecovery() {
        lab_->cloud().clearFaults();
        lab_->cloud().clearPayloadFaults();
        if (endpoint() == Endpoint::SvSuspend) {
            ASSERT_NO_FATAL_FAILURE(start());
        }
        recoveredFrom_ = Clock::now();
        ASSERT_TRUE(lab_->waitFor([&](const std::vector<RecordedRequest>& requests) {
            return std::any_of(requests.begin(), requests.end(), [&](const RecordedRequest& r) {
                return r.path == std::string(kApi) + "da/notification" && r.status == 200 &&
                       !Faulted(r) && r.time > recoveredFrom_;
            });
        })) << "no normal poll after the fault";
        if (session()) {
            ASSERT_NO_FATAL_FAILURE(checkSessionWorks());
        }
        if (update()) {
            ASSERT_NO_FATAL_FAILURE(checkUpdateWorks());
        }
        if (endpoint() == Endpoint::DrmpToken || endpoint() == Endpoint::DrmpWork) {
            ASSERT_NO_FATAL_FAILURE(checkDrmpWorks());
        }
    }

    void checkSessionWorks() {
        auto settled = [this] {
            uint32_t state = lab_->sessionState();
            return state == ZelSessionStateNone || state == ZelSessionStateReady ||
                   state == ZelSessionStateJoined;
        };
        ASSERT_TRUE(lab_->waitForStatus(settled)) << "the session never settled";
        if (lab_->sessionState() != ZelSessionStateNone && lab_->cloud().activeSession().isNull()) {
            // The fault said yes in the cloud's name and the cloud never
            // acted on it: the host ends the session it believes in.
            ASSERT_EQ(ZelResultSuccess, ZelSessionTerm());
            ASSERT_TRUE(lab_->waitForSessionState(ZelSessionStateNone));
        }
        if (lab_->sessionState() == ZelSessionStateNone) {
            ASSERT_NO_FATAL_FAILURE(openSession());
        }
        size_t results = ResultCount(lab_->cloud().sessions());
        ASSERT_TRUE(queueTask());
        ASSERT_TRUE(lab_->cloud().waitForSessions(
            [&](const Json::Value& sessions) { return ResultCount(sessions) > results; },
            AgentLab::kPatience))
            << "no answer to a task";
        if (endpoint() == Endpoint::SvCommandPut) {
            // A failed put is made again and arrives once; an answer the
            // cloud gave in its own name (the fault's) is not made again.
            bool again = reaction() == Reaction::Retry || reaction() == Reaction::Resync;
            EXPECT_EQ(again ? 1u : 0u, results);
        }
    }

    void checkUpdateWorks() {
        // The first update's outcome, before a second one supersedes it (and
        // it is reported again, as superseded). The cloud records the reports
        // it answered itself; only a failed one is made again.
        if (payload()) {
            ASSERT_TRUE(waitForReportOn(first_.id)) << "the update was never reported";
        }
        size_t successes = 0;
        for (const auto& report : lab_->cloud().updateReports()) {
            successes += report.update == first_.id && report.status ? 1 : 0;
        }
        bool retried = payload() ? reaction() == Reaction::Retry : Transport(bad());
        EXPECT_EQ(retried ? 1u : 0u, successes);
        if (!payload() && Junk(bad())) {
            EXPECT_EQ(1u, firstCalls()) << "a report the cloud took was made again";
        }
        if (!payload() && (bad() == Bad::S422 || bad() == Bad::S428)) {
            ASSERT_TRUE(waitForReportOn(first_.id));
            EXPECT_EQ(2u, firstCalls()) << "the refusal is reported once, as a failure";
            EXPECT_EQ("update aborted by cloud", lab_->cloud().updateReports()[0].details);
        }

        ZelCloud::PublishedUpdate second = publish("5.0.1");
        ASSERT_EQ(ZelResultSuccess,
                  ZelSetSoftwareUpdatePermission(ZelSoftwareUpdatePermissionDownload));
        ASSERT_TRUE(waitForReportOn(second.id)) << "the next update was never reported";
        for (const auto& report : lab_->cloud().updateReports()) {
            if (report.update == second.id) {
                EXPECT_TRUE(report.status) << report.details;
            }
        }
    }

    void checkDrmpWorks() {
        std::string error;
        Json::Value op(Json::objectValue);
        op["name"] = "keyA";
        op["operation"] = "install";
        op["encryptionType"] = "aes";
        op["valueText"] = "secret";
        ASSERT_TRUE(lab_->cloud().queueDrmpOperations(op, error)) << error;
        size_t before = lab_->cloud().drmpResults().size();
        ASSERT_EQ(ZelResultSuccess, ZelCheckForDrmpUpdate());
        ASSERT_TRUE(lab_->cloud().waitForDrmpResults(before + 1, AgentLab::kPatience))
            << "the install was never reported";
        EXPECT_TRUE(lab_->cloud().drmpResults().back().success);
    }

private:
    Reaction reaction() const { return ReactionTo(endpoint(), bad()); }

    void openSession() {
        ASSERT_EQ(ZelResultSuccess, ZelSessionInit(0));
        ASSERT_TRUE(lab_->waitForSessionState(ZelSessionStateReady));
    }

    bool queueTask() {
        std::string error;
        bool queued = lab_->queueCommand("FFFFFF_LIVE_SUPPORT_GET_DEVICE_INFO", error);
        EXPECT_TRUE(queued) << error;
        return queued;
    }

    // Calls of su/download/complete carrying the first update's token.
    size_t firstCalls() const {
        size_t count = 0;
        for (const RecordedRequest& r : lab_->calls("su/download/complete")) {
            count += ZelTest::ParseJson(r.body)["suMetadata"].asString() == first_.token ? 1 : 0;
        }
        return count;
    }

    ZelCloud::PublishedUpdate publish(const std::string& version) {
        ZelCloud::UpdateSpec spec;
        spec.payload = ZelCloud::GeneratePayload(2 * kBlock + 100, 7);
        spec.blockSize = kBlock;
        spec.version = version;
        ZelCloud::PublishedUpdate published;
        std::string error;
        EXPECT_TRUE(lab_->cloud().publishUpdate(spec, published, error)) << error;
        return published;
    }

    bool waitForWorkCalls(unsigned count) {
        return lab_->cloud().waitForDrmp(
            [&](const Json::Value& drmp) {
                for (const Json::Value& d : drmp["devices"]) {
                    if (d["device"].asString() == AgentLab::DeviceCn()) {
                        return d["workCalls"].asUInt() >= count;
                    }
                }
                return false;
            },
            AgentLab::kPatience);
    }

    // Waits, woken by each payload request the cloud records, for one `wanted`.
    template <typename Predicate>
    bool waitPayload(Predicate wanted) {
        auto deadline = std::chrono::steady_clock::now() + AgentLab::kPatience;
        for (;;) {
            auto requests = lab_->cloud().payloadRequests();
            if (std::any_of(requests.begin(), requests.end(), [&](const auto& r) {
                    return (!r.fault.empty() || r.time > faultAt_) && wanted(r);
                })) {
                return true;
            }
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 ||
                !lab_->cloud().waitForPayloadRequests(requests.size() + 1, left)) {
                return false;
            }
        }
    }

    template <typename Predicate>
    Clock::time_point firstPayload(Predicate wanted) {
        for (const auto& r : lab_->cloud().payloadRequests()) {
            if ((!r.fault.empty() || r.time > faultAt_) && wanted(r)) {
                return r.time;
            }
        }
        return {};
    }

    // Waits, woken by each report the cloud records, for one on `update`.
    bool waitForReportOn(const std::string& update) {
        for (size_t seen = 0;; ++seen) {
            for (const auto& report : lab_->cloud().updateReports()) {
                if (report.update == update) {
                    return true;
                }
            }
            if (!lab_->cloud().waitForUpdateReports(seen + 1, AgentLab::kPatience)) {
                return false;
            }
        }
    }

    AgentLab* lab_ = nullptr;
    ZelCloud::PublishedUpdate first_;
    Clock::time_point since_{};
    Clock::time_point faultAt_{};
    Clock::time_point recoveredFrom_{};
};

TEST_P(FaultMatrix, FaultIsSurvivedAndLeftBehind) {
    ASSERT_NO_FATAL_FAILURE(prepare());
    arm();
    ASSERT_NO_FATAL_FAILURE(trigger());
    ASSERT_TRUE(waitForFault()) << "the fault was never met";
    ASSERT_NO_FATAL_FAILURE(checkReaction());
    ASSERT_NO_FATAL_FAILURE(checkRecovery());
}

std::string RowName(const testing::TestParamInfo<Row>& info) {
    std::string name = PathOf(std::get<0>(info.param));
    std::replace(name.begin(), name.end(), '/', '_');
    return name + "_" + NameOf(std::get<1>(info.param));
}

INSTANTIATE_TEST_SUITE_P(
    EveryEndpoint, FaultMatrix,
    testing::Combine(testing::Values(Endpoint::DaGidToken, Endpoint::DaState,
                                     Endpoint::DaNotification, Endpoint::SvInitialize,
                                     Endpoint::SvTerminate, Endpoint::SvSuspend, Endpoint::SvResume,
                                     Endpoint::SvCommandGet, Endpoint::SvCommandPut,
                                     Endpoint::SuComplete, Endpoint::SuPayload, Endpoint::DrmpToken,
                                     Endpoint::DrmpWork),
                     testing::Values(Bad::S500, Bad::S503, Bad::S422, Bad::S428, Bad::Slow,
                                     Bad::Dropped, Bad::NotJson, Bad::WrongShape, Bad::Oversized)),
    RowName);

}  // namespace
