// Power cuts: the agent, in a probe child, is killed with SIGKILL at random
// moments while it synchronises, runs a session, stages a network update and
// provisions objects, again and again on the same persistent directory. After
// every cut it must come back as the same device; at the end the update is
// staged and verified, and every result has reached the cloud exactly once.
//
// ZEL_POWER_CUTS (default 20) sets the number of cuts and ZEL_POWER_CUTS_SEED
// (default fixed) the moments; both are printed, so that a run can be replayed:
//   ZEL_POWER_CUTS=100 ZEL_POWER_CUTS_SEED=<seed> build/tests/robustness_PowerCutTest
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "support/AgentLab.h"
#include "support/ChildProcess.h"

using testing::StartsWith;
using ZelCloud::PayloadFaults;
using ZelTest::AgentLab;

namespace {

constexpr uint32_t kBlock = 16384;
constexpr size_t kPayloadBytes = 512 * kBlock + 300;
constexpr int kLatestCutMs = 2500;

unsigned long EnvNumber(const char* name, unsigned long fallback) {
    const char* text = std::getenv(name);
    return text != nullptr && *text != '\0' ? std::strtoul(text, nullptr, 10) : fallback;
}

Json::Value CutSettings() {
    Json::Value settings = AgentLab::FastSettings();
    for (const char* prefix : {"sv", "su", "suStaging", "drmp"}) {
        std::string name(prefix);
        settings[name + "RetryDelayFixedMs"] = 100;
        settings[name + "RetryDelayVariedMs"] = 0;
    }
    settings["drmpPollDelayFixedMs"] = 200;
    settings["drmpPollDelayVariedMs"] = 0;
    settings["drmpStartupDelayFixedMs"] = 0;
    settings["drmpStartupDelayVariedMs"] = 0;
    return settings;
}

const std::string kObjectPrefix = "obj";

std::string ObjectName(unsigned run) {
    return kObjectPrefix + std::to_string(run);
}

// The probe with the lab's documents, started in the lab's directory.
class Device {
public:
    Device(AgentLab& lab, const std::string& config)
        : child_(ZEL_PROBE, {lab.persistentDir()}),
          identity_(docs_.file("identity")),
          config_(docs_.file("config")),
          device_(docs_.file("device")) {
        ZelTest::WriteFile(identity_, lab.identity());
        ZelTest::WriteFile(config_, config);
        ZelTest::WriteFile(device_, lab.device());
    }
    // Writes a command; the answer is read only by ask().
    bool send(const std::string& command) { return child_.writeLine(command); }
    std::string ask(const std::string& command) {
        std::optional<std::string> line;
        if (child_.writeLine(command)) {
            line = child_.readLine(AgentLab::kPatience);
        }
        return line.value_or("(no answer)");
    }
    std::string initCommand() const { return "init " + identity_ + " " + config_ + " " + device_; }
    void cut() {
        child_.kill(SIGKILL);
        std::optional<ZelTest::ChildProcess::Exit> end = child_.wait(AgentLab::kPatience);
        EXPECT_TRUE(end && !end->exited && end->signal == SIGKILL)
            << (end ? end->describe() : "still running after SIGKILL");
    }
    void exit() {
        child_.writeLine("exit");
        std::optional<ZelTest::ChildProcess::Exit> end = child_.wait(AgentLab::kPatience);
        EXPECT_TRUE(end && end->ok()) << (end ? end->describe() : "no exit (hang)");
    }

private:
    ZelTest::ChildProcess child_;
    ZelTest::TempDir docs_;
    std::string identity_;
    std::string config_;
    std::string device_;
};

class PowerCuts : public testing::Test {
protected:
    std::string config(unsigned runs) {
        std::string names;
        for (unsigned run = 0; run <= runs; ++run) {
            names += (run == 0 ? "" : ",") + ObjectName(run);
        }
        return lab_.configDoc()
            .set("drmp", "enableEmulatedSecureCore", true)
            .set("drmp", "emulatedUlpk", "00112233445566778899aabbccddeeff")
            .set("drmp", "emulatedUlpkIndex", 7)
            .set("drmp", "emulatedSupportedObjectNames", names)
            .text();
    }

    void queueObject(unsigned run) {
        Json::Value op(Json::objectValue);
        op["name"] = ObjectName(run);
        op["operation"] = "install";
        op["encryptionType"] = "aes";
        op["valueText"] = "secret " + std::to_string(run);
        std::string error;
        ASSERT_TRUE(lab_.cloud().queueDrmpOperations(op, error)) << error;
    }

    Json::Value drmpDevice() {
        const Json::Value drmp = lab_.cloud().drmp();
        for (const Json::Value& d : drmp["devices"]) {
            if (d["device"].asString() == AgentLab::DeviceCn()) {
                return d;
            }
        }
        return Json::Value();
    }

    // Queues one task in the session the device opens, should it open one before `until`.
    void taskForNextSession(std::chrono::steady_clock::time_point until, size_t sessionsBefore) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            until - std::chrono::steady_clock::now());
        bool opened =
            left.count() > 0 && lab_.cloud().waitForSessions(
                                    [&](const Json::Value& sessions) {
                                        return sessions.size() > sessionsBefore &&
                                               sessions[sessions.size() - 1]["state"] == "active";
                                    },
                                    left);
        std::string error;
        if (opened) {
            // The session may be gone already: then no task this time.
            lab_.queueCommand("FFFFFF_LIVE_SUPPORT_GET_DEVICE_INFO", error);
        }
    }

    AgentLab lab_{CutSettings()};
};

TEST_F(PowerCuts, SameDeviceAfterEveryCutAndNothingLostOrTwice) {
    const unsigned cuts = static_cast<unsigned>(EnvNumber("ZEL_POWER_CUTS", 20));
    const unsigned long seed = EnvNumber("ZEL_POWER_CUTS_SEED", 20261122);
    std::printf("power cuts: %u, seed %lu (ZEL_POWER_CUTS, ZEL_POWER_CUTS_SEED replay it)\n", cuts,
                seed);
    std::fflush(stdout);
    RecordProperty("seed", std::to_string(seed));
    std::mt19937 random(static_cast<std::mt19937::result_type>(seed));
    std::uniform_int_distribution<int> moment(0, kLatestCutMs);
    const std::string documents = config(cuts);

    // The device becomes itself once, undisturbed.
    {
        Device device(lab_, documents);
        ASSERT_EQ("init 0", device.ask(device.initCommand()));
        ASSERT_TRUE(lab_.cloud().waitForDrmp(
            [](const Json::Value& drmp) {
                for (const Json::Value& d : drmp["devices"]) {
                    if (d["workCalls"].asUInt() > 0) {
                        return true;
                    }
                }
                return false;
            },
            AgentLab::kPatience));
        device.cut();
    }
    const std::string gidToken = lab_.cloud().device(AgentLab::DeviceCn())->gidToken;
    const std::string drmpToken = drmpDevice()["token"].asString();
    ASSERT_FALSE(gidToken.empty());
    ASSERT_FALSE(drmpToken.empty());

    ZelCloud::UpdateSpec spec;
    spec.payload = ZelCloud::GeneratePayload(kPayloadBytes, seed);
    spec.blockSize = kBlock;
    spec.version = "5.0.0";
    ZelCloud::PublishedUpdate update;
    std::string error;
    ASSERT_TRUE(lab_.cloud().publishUpdate(spec, update, error)) << error;
    // Slow blocks spread the staging over about half of the cuts.
    const long blockDelayMs = std::max(4l, static_cast<long>(cuts) * 600 / 512);
    lab_.cloud().addPayloadFault(
        PayloadFaults::Fault{"", PayloadFaults::Kind::Delay, 0, blockDelayMs, 0, 1000000, ""});

    for (unsigned run = 1; run <= cuts; ++run) {
        const int at = moment(random);
        SCOPED_TRACE("cut " + std::to_string(run) + " at " + std::to_string(at) + " ms");
        ASSERT_NO_FATAL_FAILURE(queueObject(run));
        size_t sessions = lab_.cloud().sessions().size();
        auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(at);
        Device device(lab_, documents);
        device.send(device.initCommand());
        device.send("session");
        device.send("wait-update any");  // a permission counts only for an update offered
        device.send("permission 1");
        taskForNextSession(until, sessions);
        std::this_thread::sleep_until(until);  // the moment of the cut is the point here
        device.cut();
        std::printf("cut %u at %d ms: %zu payload answers, %zu sessions, %zu drmp results\n", run,
                    at, lab_.cloud().payloadRequests().size(),
                    static_cast<size_t>(lab_.cloud().sessions().size()),
                    lab_.cloud().drmpResults().size());
        std::fflush(stdout);

        ASSERT_EQ(gidToken, lab_.cloud().device(AgentLab::DeviceCn())->gidToken)
            << "a new identity after a cut";
        ASSERT_EQ(drmpToken, drmpDevice()["token"].asString()) << "a new drmp token after a cut";
    }

    // Undisturbed once more: the update is finished and everything reported.
    lab_.cloud().clearPayloadFaults();
    Device device(lab_, documents);
    ASSERT_EQ("init 0", device.ask(device.initCommand()));
    std::string offered = device.ask("wait-update any");
    if (offered == "update 2 0") {
        EXPECT_EQ("permission 0", device.ask("permission 1"));
    }
    EXPECT_EQ("update 3 0", device.ask("wait-update 3")) << "offered: " << offered;
    EXPECT_EQ("drmp 0", device.ask("drmp"));
    ASSERT_TRUE(lab_.cloud().waitForUpdateReports(1, AgentLab::kPatience));
    std::set<std::string> wanted;
    for (unsigned run = 1; run <= cuts; ++run) {
        wanted.insert(ObjectName(run));
    }
    // An operation handed out in the instant before a cut is lost with the
    // answer that carried it (the device keeps results, not operations), and
    // the cloud sees it stay pending: it hands those out again, as a cloud must.
    auto missing = [&](const Json::Value& drmp) {
        std::set<std::string> left = wanted;
        for (const Json::Value& d : drmp["devices"]) {
            for (const Json::Value& result : d["results"]) {
                left.erase(result["name"].asString());
            }
        }
        return left;
    };
    auto allIn = [&](const Json::Value& drmp) { return missing(drmp).empty(); };
    bool allReported = lab_.cloud().waitForDrmp(allIn, AgentLab::kPatience / 4);
    if (!allReported) {
        std::set<std::string> lost = missing(lab_.cloud().drmp());
        std::printf("handed out again after a cut: %zu operation(s)\n", lost.size());
        for (const std::string& name : lost) {
            ASSERT_NO_FATAL_FAILURE(
                queueObject(static_cast<unsigned>(std::stoul(name.substr(kObjectPrefix.size())))));
        }
        EXPECT_EQ("drmp 0", device.ask("drmp"));
        allReported = lab_.cloud().waitForDrmp(allIn, AgentLab::kPatience);
    }
    EXPECT_THAT(device.ask("term"), StartsWith("term "));
    EXPECT_THAT(device.ask("wait-state 0"), StartsWith("state 0 "));
    device.exit();

    EXPECT_EQ(spec.payload, ZelTest::ReadFile(lab_.stagingFile())) << "staged payload differs";
    // A staged update is verified again at every start, and each verification
    // that completes is reported: all of them must be the same success.
    std::vector<ZelCloud::UpdateReport> reports = lab_.cloud().updateReports();
    ASSERT_FALSE(reports.empty());
    for (const auto& report : reports) {
        EXPECT_TRUE(report.status) << report.details;
        EXPECT_EQ("success", report.details);
        EXPECT_EQ(update.id, report.update);
    }
    EXPECT_EQ(1u, lab_.calls("da/gidtoken").size()) << "a new identity was fetched";
    EXPECT_EQ(1u, drmpDevice()["tokenCalls"].size()) << "a new drmp token was fetched";

    // Every object's install is reported, and once: a work call repeated
    // after a cut carries the same sequence number and counts once.
    EXPECT_TRUE(allReported) << "an install result was lost";
    std::map<std::string, std::set<uint32_t>> reportedIn;
    for (const auto& result : lab_.cloud().drmpResults()) {
        EXPECT_TRUE(result.success) << result.name;
        reportedIn[result.name].insert(result.seqNum);
    }
    for (const auto& [name, seqNums] : reportedIn) {
        EXPECT_EQ(1u, seqNums.size()) << name << " was reported by " << seqNums.size() << " calls";
    }
    // No task is answered twice.
    for (const Json::Value& session : lab_.cloud().sessions()) {
        std::map<uint32_t, unsigned> answers;
        for (const Json::Value& result : session["results"]) {
            if (result["taskSeqNum"].isUInt()) {
                EXPECT_EQ(1u, ++answers[result["taskSeqNum"].asUInt()])
                    << "task answered twice in session " << session["code"].asString();
            }
        }
    }
}

}  // namespace
