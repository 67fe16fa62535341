// The network diagnostics command in a session, against loopback: DNS of
// "localhost", pings and the speed tests on the local cloud.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>

#include "support/AgentLab.h"

using ZelCloud::FaultPlan;
using ZelCloud::RecordedRequest;
using ZelTest::AgentLab;
using ZelTest::Fault;
using ZelTest::ParseJson;

namespace {

using NetworkDiagnostics = ZelTest::LabTest;

constexpr const char* kDiagnostics = "FFFFFF_LIVE_SUPPORT_NETWORK_DIAGNOSTICS";

const char* const kRows[] = {
    "Internet Type",
    "DNS Lookup",
    "Gateway Ping",
    "Internet Ping",
    "Latency (ms)",
    "Wireless Signal (dBm)",
    "Wireless Signal Quality (# of 5)",
    "Wireless Speed (Mbps)",
    "Speed Up (Mbps)",
    "Speed Down (Mbps)",
};

Json::Value settings(const char* extra = "{}") {
    Json::Value merged = AgentLab::FastSettings();
    Json::Value more = ParseJson(extra);
    for (const std::string& key : more.getMemberNames()) {
        merged[key] = more[key];
    }
    return merged;
}

// Opens a session and queues the diagnostics in it.
void startDiagnostics(AgentLab& lab) {
    EXPECT_EQ(ZelResultSuccess, ZelSessionInit(0));
    EXPECT_TRUE(lab.waitForSessionState(ZelSessionStateReady));
    Json::Value requests = ParseJson(R"([{"COMMAND": {"NAME": "", "OPERATION": "EXECUTE"},
                                          "INPUTS": {}}])");
    requests[0]["COMMAND"]["NAME"] = kDiagnostics;
    uint32_t seqNum = 0;
    std::string error;
    EXPECT_TRUE(lab.cloud().queueTask(requests, seqNum, error)) << error;
}

// The diagnostics' answer: the task's result as the cloud recorded it.
Json::Value diagnose(AgentLab& lab) {
    startDiagnostics(lab);
    EXPECT_TRUE(lab.cloud().waitForResults(1, std::chrono::seconds(60)));
    Json::Value sessions = lab.cloud().sessions();
    return sessions[sessions.size() - 1]["results"][0];
}

Json::Value rows(const Json::Value& result) {
    return result["document"]["TASK_OUTPUT"]["RESPONSES"][0]["OUTPUTS"][0]["DATA"];
}

bool hasHeader(const RecordedRequest& request, const std::string& prefix) {
    for (const std::string& header : request.headers) {
        if (header.rfind(prefix, 0) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

TEST_F(NetworkDiagnostics, RowsInOrderAgainstTheLocalCloud) {
    AgentLab& lab = started();
    Json::Value result = diagnose(lab);
    Json::Value data = rows(result);
    EXPECT_EQ("Indirect (NAT)", data["Internet Type"].asString());
    EXPECT_EQ("Pass", data["DNS Lookup"].asString());
    EXPECT_EQ("Pass", data["Internet Ping"].asString());  // 127.0.0.1
    EXPECT_EQ(0, data["Latency (ms)"].asInt());
    EXPECT_EQ(0, data["Wireless Signal Quality (# of 5)"].asInt());
    ASSERT_TRUE(data["Speed Up (Mbps)"].isDouble()) << data.toStyledString();
    ASSERT_TRUE(data["Speed Down (Mbps)"].isDouble()) << data.toStyledString();
    EXPECT_GT(data["Speed Up (Mbps)"].asDouble(), 0);
    EXPECT_GT(data["Speed Down (Mbps)"].asDouble(), 0);

    // The rows leave the device in their order, whatever jsoncpp does to them here.
    const std::string text = result["taskResponse"].asString();
    size_t at = 0;
    for (const char* row : kRows) {
        size_t found = text.find(std::string("\"") + row + "\":", at);
        ASSERT_NE(std::string::npos, found) << row << " out of order in " << text;
        at = found;
    }
    EXPECT_EQ(std::string::npos, text.find("order"));

    // Each speed test is one exchange with the device's certificate and date.
    for (const char* path : {"/speedtest/download", "/speedtest/upload"}) {
        std::vector<RecordedRequest> calls;
        for (const RecordedRequest& request : lab.requests()) {
            if (request.path == path) {
                calls.push_back(request);
            }
        }
        ASSERT_EQ(1u, calls.size()) << path;
        EXPECT_EQ(AgentLab::DeviceCn(), calls[0].cn);
        EXPECT_TRUE(hasHeader(calls[0], "Date: ")) << path;
    }
    EXPECT_EQ(1u, lab.logCount("Starting Speed Test."));
    EXPECT_TRUE(lab.waitForLog("Response Returned Status Code: 200", 2));
}

TEST_F(NetworkDiagnostics, FailuresAreRowsNotErrors) {
    struct Case {
        const char* settings;
        const char* fault;  // a path whose next call answers 404, or ""
        const char* dns;
        const char* internet;
        bool downloaded;
        bool uploaded;
        const char* logged;
    };
    const Case cases[] = {
        {R"({"svPingTestHostname": "no-such-host.invalid"})", "", "Fail", "Fail", true, true,
         "DNS Lookup Test Failed."},
        {R"({"svNetworkDiagTimeoutMs": 0})", "", "Fail", "Fail", true, true,
         "DNS Lookup Test Failed."},
        {"{}", "/speedtest/download", "Pass", "Pass", false, true,
         "Error with Download Speed Test."},
        {R"({"svSpeedTestUploadURL": ""})", "", "Pass", "Pass", true, false,
         "Error with Upload Speed Test."},
        {R"({"svSpeedTestDownloadSize": 1000})", "", "Pass", "Pass", false, true,
         "Error with Download Speed Test."},  // the cloud sends more than asked
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.settings + std::string(" ") + c.fault);
        AgentLab& lab = started(settings(c.settings));
        if (*c.fault != '\0') {
            lab.cloud().addFault(Fault(c.fault, FaultPlan::Kind::Status, 404));
        }
        Json::Value data = rows(diagnose(lab));
        EXPECT_EQ(c.dns, data["DNS Lookup"].asString());
        EXPECT_EQ(c.internet, data["Internet Ping"].asString());
        EXPECT_EQ(c.downloaded, data["Speed Down (Mbps)"].isDouble()) << data.toStyledString();
        EXPECT_EQ(c.uploaded, data["Speed Up (Mbps)"].isDouble()) << data.toStyledString();
        if (!c.downloaded) {
            EXPECT_EQ("Speed Test Failed.", data["Speed Down (Mbps)"].asString());
        }
        EXPECT_TRUE(lab.waitForLog(c.logged));
        EXPECT_TRUE(lab.term());
    }
}

TEST_F(NetworkDiagnostics, ShutDownDuringASpeedTest) {
    AgentLab& lab = started();
    // The download hangs; ZelTerm must not wait for it, nor free what it uses.
    lab.cloud().addFault(Fault("/speedtest/download", FaultPlan::Kind::Delay, 0, 15000));
    startDiagnostics(lab);
    ASSERT_TRUE(lab.waitForLog("Running the download speed test."));
    auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(lab.term());
    std::printf("ZelTerm during a speed test: Uninitialized after %.1f ms\n",
                std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                    .count());
    EXPECT_TRUE(lab.waitForLog("Error with Download Speed Test."));
}
