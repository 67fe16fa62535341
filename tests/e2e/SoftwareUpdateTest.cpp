// Software updates between the agent and the local cloud, through the C
// interface: offered, staged block by block, verified, reported.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <fstream>

#include "support/AgentLab.h"

using ZelCloud::FaultPlan;
using ZelCloud::PayloadFaults;
using ZelTest::AgentLab;
using ZelTest::Fault;
using ZelTest::ReadFile;

namespace {

using SoftwareUpdate = ZelTest::LabTest;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kBlock = 16384;

// Short staging and report delays, three attempts each.
Json::Value fastSu() {
    Json::Value settings = AgentLab::FastSettings();
    for (const char* prefix : {"suStaging", "su"}) {
        std::string name(prefix);
        settings[name + "RetryDelayFixedMs"] = 50;
        settings[name + "RetryDelayVariedMs"] = 0;
        settings[name + "MaxRetryCount"] = 3;
    }
    return settings;
}

ZelCloud::PublishedUpdate publish(AgentLab& lab, const std::string& payload,
                                  const std::string& version = "5.0.0", bool offer = true) {
    ZelCloud::UpdateSpec spec;
    spec.payload = payload;
    spec.blockSize = kBlock;
    spec.version = version;
    spec.displayText = "Sharper pictures";
    spec.offer = offer;
    ZelCloud::PublishedUpdate published;
    std::string error;
    EXPECT_TRUE(lab.cloud().publishUpdate(spec, published, error)) << error;
    return published;
}

std::string payloadOf(size_t size, uint64_t seed = 7) {
    return ZelCloud::GeneratePayload(size, seed);
}

PayloadFaults::Fault payloadFault(const std::string& id, PayloadFaults::Kind kind, int status = 0,
                                  long delayMs = 0, uint64_t offset = 0, unsigned count = 1000) {
    return {id, kind, status, delayMs, offset, count, ""};
}

// The reports the cloud received, as (status, details).
std::vector<std::pair<bool, std::string>> reports(AgentLab& lab) {
    std::vector<std::pair<bool, std::string>> list;
    for (const auto& report : lab.cloud().updateReports()) {
        list.emplace_back(report.status, report.details);
    }
    return list;
}

bool exists(const std::string& path) {
    return std::ifstream(path).good();
}

}  // namespace

TEST_F(SoftwareUpdate, NetworkUpdateIsStagedVerifiedAndReported) {
    AgentLab& lab = started(fastSu());
    const std::string payload = payloadOf(3 * kBlock + 100);
    ZelCloud::PublishedUpdate update = publish(lab, payload);
    ASSERT_TRUE(lab.waitForUpdateState(ZelSoftwareUpdateStateAvailable));
    AgentLab::Status status = lab.status();
    EXPECT_EQ("5.0.0", status.updateVersion);
    EXPECT_EQ(update.hash, status.updateHash);
    EXPECT_EQ(lab.stagingFile(), status.updateStagingFile);
    EXPECT_EQ(0u, status.updatePercent);
    EXPECT_FALSE(exists(lab.stagingFile())) << "nothing is fetched without permission";

    ASSERT_EQ(ZelResultSuccess,
              ZelSetSoftwareUpdatePermission(ZelSoftwareUpdatePermissionDownload));
    ASSERT_TRUE(lab.waitForUpdateState(ZelSoftwareUpdateStateDownloaded));
    EXPECT_EQ(100u, lab.status().updatePercent);
    EXPECT_EQ(payload, ReadFile(lab.stagingFile()));
    ASSERT_TRUE(lab.cloud().waitForUpdateReports(1, AgentLab::kPatience));
    auto report = lab.cloud().updateReports()[0];
    EXPECT_TRUE(report.status);
    EXPECT_EQ("success", report.details);
    EXPECT_EQ(update.token, report.metadata);
    // One range per block, the last one shorter.
    ASSERT_TRUE(lab.cloud().waitForPayloadRequests(4, AgentLab::kPatience));
    std::vector<std::string> ranges;
    for (const auto& request : lab.cloud().payloadRequests()) {
        ranges.push_back(request.range);
    }
    EXPECT_EQ((std::vector<std::string>{"bytes=0-16399", "bytes=16400-32799", "bytes=32800-49199",
                                        "bytes=49200-49315"}),
              ranges);
}

TEST_F(SoftwareUpdate, PermissionDecidesWhatIsStagedAndConfirmed) {
    AgentLab& lab = started(fastSu());
    const std::string payload = payloadOf(2 * kBlock);
    publish(lab, payload);
    ASSERT_TRUE(lab.waitForUpdateState(ZelSoftwareUpdateStateAvailable));
    // Confirm at once: staged, then confirmed.
    ASSERT_EQ(ZelResultSuccess, ZelSetSoftwareUpdatePermission(ZelSoftwareUpdatePermissionConfirm));
    ASSERT_TRUE(lab.waitForUpdateState(ZelSoftwareUpdateStateConfirmed));
    EXPECT_EQ(100u, lab.status().updatePercent);
    EXPECT_EQ(payload, ReadFile(lab.stagingFile()));

    // Downloaded first, confirmed later.
    AgentLab& second = this->lab(fastSu());
    ASSERT_EQ(ZelResultSuccess, second.init());
    ASSERT_TRUE(second.waitForCalls("da/notification", 1));
    publish(second, payload);
    ASSERT_TRUE(second.waitForUpdateState(ZelSoftwareUpdateStateAvailable));
    ASSERT_EQ(ZelResultSuccess,
              ZelSetSoftwareUpdatePermission(ZelSoftwareUpdatePermissionDownload));
    ASSERT_TRUE(second.waitForUpdateState(ZelSoftwareUpdateStateDownloaded));
    ASSERT_EQ(ZelResultSuccess, ZelSetSoftwareUpdatePermission(ZelSoftwareUpdatePermissionConfirm));
    ASSERT_TRUE(second.waitForUpdateState(ZelSoftwareUpdateStateConfirmed));
    EXPECT_EQ(1u, second.cloud().updateReports().size()) << "reported once";
}

TEST_F(SoftwareUpdate, RefusedPayloadIsReportedAndRemoved) {
    struct Case {
        const char* what;
        PayloadFaults::Kind kind;
        int status;
        const char* reason;
        size_t requests;
    };
    const Case cases[] = {
        {"404 on every attempt", PayloadFaults::Kind::Status, 404,
         "payload problem - cannot transfer data for block 0, http (404)", 3},
        {"dropped on every attempt", PayloadFaults::Kind::Drop, 0,
         "payload problem - cannot transfer data for block 0, curl (18)", 3},
        {"a corrupted byte", PayloadFaults::Kind::Corrupt, 0,
         "payload problem - cannot verify block 0", 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        AgentLab& lab = this->lab(fastSu());
        ASSERT_EQ(ZelResultSuccess, lab.init());
        ASSERT_TRUE(lab.waitForCalls("da/notification", 1));
        ZelCloud::PublishedUpdate update = publish(lab, payloadOf(2 * kBlock), "5.0.0", false);
        lab.cloud().addPayloadFault(payloadFault(update.id, c.kind, c.status, 0, 100));
        lab.cloud().queueEvent("softwareupdate", update.token, std::nullopt, AgentLab::DeviceCn());
        ASSERT_TRUE(lab.waitForUpdateState(ZelSoftwareUpdateStateAvailable));
        ASSERT_EQ(ZelResultSuccess,
                  ZelSetSoftwareUpdatePermission(ZelSoftwareUpdatePermissionDownload));
        ASSERT_TRUE(lab.waitForUpdateState(ZelSoftwareUpdateStateFailed));
        ASSERT_TRUE(lab.cloud().waitForUpdateReports(1, AgentLab::kPatience));
        auto report = lab.cloud().updateReports()[0];
        EXPECT_FALSE(report.status);
        EXPECT_EQ(0u, report.details.rfind(c.reason, 0)) << report.details;
        EXPECT_EQ(20u, report.date.size());
        EXPECT_TRUE(lab.cloud().waitForPayloadRequests(c.requests, AgentLab::kPatience));
        EXPECT_EQ(c.requests, lab.cloud().payloadRequests().size());
        EXPECT_FALSE(exists(lab.stagingFile()));
        if (c.requests > 1) {
            EXPECT_EQ(2u, lab.logCount("Payload delaying (2 of 3) for 0.050 seconds") +
                              lab.logCount("Payload delaying (3 of 3) for 0.050 seconds"));
        }
    }
}

TEST_F(SoftwareUpdate, SupersededUpdateIsReportedAndItsFileRemoved) {
    AgentLab& lab = started(fastSu());
    publish(lab, payloadOf(kBlock, 1), "5.0.0");
    ASSERT_TRUE(lab.waitForUpdateState(ZelSoftwareUpdateStateAvailable));
    ASSERT_EQ(ZelResultSuccess,
              ZelSetSoftwareUpdatePermission(ZelSoftwareUpdatePermissionDownload));
    ASSERT_TRUE(lab.waitForUpdateState(ZelSoftwareUpdateStateDownloaded));

    const std::string newer = payloadOf(kBlock + 1, 2);
    ZelCloud::PublishedUpdate second = publish(lab, newer, "5.0.1");
    ASSERT_TRUE(lab.cloud().waitForUpdateReports(3, AgentLab::kPatience));
    ASSERT_TRUE(lab.waitForUpdateState(ZelSoftwareUpdateStateDownloaded));
    EXPECT_EQ((std::vector<std::pair<bool, std::string>>{
                  {true, "success"}, {false, "update superseded"}, {true, "success"}}),
              reports(lab));
    EXPECT_EQ(1u, lab.logCount("UpdateControl Removing previous staging file"));
    EXPECT_EQ(newer, ReadFile(lab.stagingFile()));
    EXPECT_EQ("5.0.1", lab.status().updateVersion);
    EXPECT_EQ(second.token, lab.cloud().updateReports()[2].metadata);
}

TEST_F(SoftwareUpdate, StopDuringABlockAndResumeAtTheNextStart) {
    AgentLab& lab = started(fastSu());
    const std::string payload = payloadOf(4 * kBlock);
    ZelCloud::PublishedUpdate update = publish(lab, payload);
    // Every block is served slowly, so that the stop finds one in flight.
    lab.cloud().addPayloadFault(payloadFault(update.id, PayloadFaults::Kind::Delay, 0, 500));
    ASSERT_TRUE(lab.waitForUpdateState(ZelSoftwareUpdateStateAvailable));
    ASSERT_EQ(ZelResultSuccess,
              ZelSetSoftwareUpdatePermission(ZelSoftwareUpdatePermissionDownload));
    ASSERT_TRUE(lab.cloud().waitForPayloadRequests(2, AgentLab::kPatience));
    ASSERT_TRUE(lab.cloud().waitForPayloadsInFlight(1, AgentLab::kPatience));
    Clock::time_point start = Clock::now();
    ASSERT_TRUE(lab.term());
    auto micros =
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
    std::printf("ZelTerm to Uninitialized during a block download: %lld us\n",
                static_cast<long long>(micros));
    EXPECT_TRUE(lab.cloud().updateReports().empty()) << "a stop is no failure";
    size_t staged = ReadFile(lab.stagingFile()).size();
    EXPECT_GE(staged, 2u * kBlock);
    EXPECT_LT(staged, 4u * kBlock);

    lab.cloud().clearPayloadFaults();
    ASSERT_EQ(ZelResultSuccess, lab.init());
    ASSERT_TRUE(lab.waitForUpdateState(ZelSoftwareUpdateStateAvailable));
    ASSERT_EQ(ZelResultSuccess,
              ZelSetSoftwareUpdatePermission(ZelSoftwareUpdatePermissionDownload));
    ASSERT_TRUE(lab.waitForUpdateState(ZelSoftwareUpdateStateDownloaded));
    EXPECT_EQ(payload, ReadFile(lab.stagingFile()));
    // The blocks kept were fetched once, before the stop.
    for (size_t block = 0; block < staged / kBlock; ++block) {
        std::string range = "bytes=" + std::to_string(block * (kBlock + 16)) + "-" +
                            std::to_string(block * (kBlock + 16) + kBlock + 15);
        size_t fetched = 0;
        for (const auto& request : lab.cloud().payloadRequests()) {
            fetched += request.range == range;
        }
        EXPECT_EQ(1u, fetched) << range;
    }
    EXPECT_NE("", lab.log().find("Staging file contains " + std::to_string(staged) + " bytes"));
}

TEST_F(SoftwareUpdate, ReportOutcomes) {
    struct Case {
        const char* what;
        int status;
        unsigned count;
        uint32_t state;
        size_t calls;  // report calls in all
    };
    const Case cases[] = {
        {"two failures, then accepted", 503, 2, ZelSoftwareUpdateStateDownloaded, 3},
        {"refused", 422, 1, ZelSoftwareUpdateStateFailed, 2},
        {"not synchronised", 428, 1, ZelSoftwareUpdateStateFailed, 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        AgentLab& lab = this->lab(fastSu());
        ASSERT_EQ(ZelResultSuccess, lab.init());
        ASSERT_TRUE(lab.waitForCalls("da/notification", 1));
        lab.cloud().addFault(
            Fault("su/download/complete", FaultPlan::Kind::Status, c.status, 0, c.count));
        publish(lab, payloadOf(kBlock));
        ASSERT_TRUE(lab.waitForUpdateState(ZelSoftwareUpdateStateAvailable));
        size_t states = lab.calls("da/state").size();
        ASSERT_EQ(ZelResultSuccess,
                  ZelSetSoftwareUpdatePermission(ZelSoftwareUpdatePermissionDownload));
        ASSERT_TRUE(lab.waitForUpdateState(c.state));
        ASSERT_TRUE(lab.waitForCalls("su/download/complete", c.calls));
        if (c.state == ZelSoftwareUpdateStateFailed) {
            ASSERT_TRUE(lab.cloud().waitForUpdateReports(1, AgentLab::kPatience));
            EXPECT_EQ("update aborted by cloud", lab.cloud().updateReports()[0].details);
            EXPECT_FALSE(exists(lab.stagingFile()));
        }
        if (c.status == 428) {
            EXPECT_TRUE(lab.waitForCalls("da/state", states + 1)) << "synchronises again";
        }
    }
}

TEST_F(SoftwareUpdate, LocalPayloadFile) {
    AgentLab& lab = started(fastSu());
    EXPECT_EQ(ZelResultBadArgument, ZelSetSoftwareUpdateSource(2, ""));
    EXPECT_EQ(ZelResultBadArgument,
              ZelSetSoftwareUpdateSource(ZelSoftwareUpdateSourceLocal, nullptr));
    EXPECT_EQ(ZelResultBadArgument, ZelSetSoftwareUpdatePermission(3));
    const std::string payload = payloadOf(2 * kBlock + 1);
    ZelCloud::PublishedUpdate update = publish(lab, payload, "5.0.0", false);
    std::string path = lab.persistentDir() + "/update.bin";
    std::ofstream(path, std::ios::binary) << update.localFile;

    ASSERT_EQ(ZelResultSuccess,
              ZelSetSoftwareUpdateSource(ZelSoftwareUpdateSourceLocal, path.c_str()));
    ASSERT_TRUE(lab.waitForUpdateState(ZelSoftwareUpdateStateAvailable));
    ASSERT_EQ(ZelResultSuccess,
              ZelSetSoftwareUpdatePermission(ZelSoftwareUpdatePermissionDownload));
    ASSERT_TRUE(lab.waitForUpdateState(ZelSoftwareUpdateStateDownloaded));
    EXPECT_EQ(payload, ReadFile(lab.stagingFile()));
    EXPECT_TRUE(lab.calls("su/download/complete").empty()) << "a local update is not reported";

    // Back to the network: the cloud is asked at once.
    size_t states = lab.calls("da/state").size();
    ASSERT_EQ(ZelResultSuccess,
              ZelSetSoftwareUpdateSource(ZelSoftwareUpdateSourceNetwork, nullptr));
    ASSERT_TRUE(lab.waitForCalls("da/state", states + 1));
    EXPECT_TRUE(
        ZelTest::ParseJson(lab.calls("da/state").back().body)["suCheckForSoftwareUpdate"].asBool());
}

TEST_F(SoftwareUpdate, InstalledUpdateIsNotStagedAgain) {
    AgentLab& lab = started(fastSu());
    // The lab device runs 4.8.0 already.
    publish(lab, payloadOf(kBlock), "4.8.0");
    ASSERT_TRUE(lab.waitForLog("UpdateControl Removing installed staging file"));
    EXPECT_EQ(ZelSoftwareUpdateStateNotAvailable, lab.status().updateState);
    EXPECT_TRUE(lab.cloud().updateReports().empty());
}

TEST_F(SoftwareUpdate, FactoryResetsForgetTheStagedUpdate) {
    for (bool offline : {false, true}) {
        SCOPED_TRACE(offline ? "offline" : "running");
        AgentLab& lab = this->lab(fastSu());
        ASSERT_EQ(ZelResultSuccess, lab.init());
        ASSERT_TRUE(lab.waitForCalls("da/notification", 1));
        publish(lab, payloadOf(kBlock));
        ASSERT_TRUE(lab.waitForUpdateState(ZelSoftwareUpdateStateAvailable));
        ASSERT_EQ(ZelResultSuccess,
                  ZelSetSoftwareUpdatePermission(ZelSoftwareUpdatePermissionDownload));
        ASSERT_TRUE(lab.waitForUpdateState(ZelSoftwareUpdateStateDownloaded));
        ASSERT_TRUE(exists(lab.stagingFile()));
        if (offline) {
            ASSERT_TRUE(lab.term());
            ASSERT_EQ(ZelResultSuccess, ZelFactoryResetOffline(lab.config().c_str()));
        } else {
            ASSERT_EQ(ZelResultSuccess, ZelFactoryReset());
            ASSERT_TRUE(lab.waitForState(DeviceAgentStateUninitialized));
        }
        EXPECT_FALSE(exists(lab.stagingFile()));
        // Nothing of the update is taken up again.
        ASSERT_EQ(ZelResultSuccess, lab.init());
        ASSERT_TRUE(lab.waitForCalls("da/notification", 1));
        EXPECT_EQ(ZelSoftwareUpdateStateNotAvailable, lab.status().updateState);
    }
}
