// Entry points whose answers depend on more than their arguments: the clock,
// and the mapping of the host's log severities onto the agent's.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>

#include <set>
#include <sstream>

#include "Core/Platform/TimeManager.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "zel.h"

namespace {

std::string sample(const std::string& name) {
    return ZelTest::ReadFile(std::string(ZEL_SOURCE_DIR) + "/samples/" + name);
}

// Every "da" call answered locally, so the agent needs no network.
std::string config(const ZelTest::TempDir& dir, const Json::Value& loggers) {
    Json::Value document;
    Json::Reader().parse(R"({"injectors": [{"suffix": "da/gidtoken",
        "responses": [{"statusCode": 200, "body": {"daGidToken": "t"}}]}]})",
                         document);
    document["core"]["persistentPath"] = dir.path();
    document["loggers"] = loggers;
    return Json::FastWriter().write(document);
}

void stop() {
    ASSERT_EQ(ZelResultSuccess, ZelTerm());
    ZelStatus status{};
    for (;;) {
        ZelGetStatus(ZelStatusMethodWaitForChange, &status);
        bool stopped = status.state == DeviceAgentStateUninitialized;
        ZelFreeStatus(&status);
        if (stopped) {
            break;
        }
    }
}

}  // namespace

TEST(ZelCore, ClockNotYetSetRefusesToStartAndLeavesNothingBehind) {
    ZelTest::TempDir dir;
    Zel::Core::TimeManager::Instance().setClock([] {
        return timespec{Zel::Core::TimeManager::kGoodTimeThreshold, 0};
    });
    ZelResult result = ZelInit(sample("identity.json").c_str(), config(dir, Json::Value()).c_str(),
                               sample("device.json").c_str());
    Zel::Core::TimeManager::Instance().setClock(nullptr);
    EXPECT_EQ(ZelResultBadTime, result);
    ZelStatus status{};
    ZelGetStatus(ZelStatusMethodNow, &status);
    EXPECT_EQ(DeviceAgentStateUninitialized, status.state);
    EXPECT_EQ(ZelResultNotInitialized, ZelTerm());
}

TEST(ZelCore, HostSeveritiesMapOntoTheAgentsFromTraceToFatal) {
    ZelTest::TempDir dir;
    std::string fatalLog = dir.file("fatal.log");
    std::string traceLog = dir.file("trace.log");
    // One appender takes only "fatal" supervisor lines, the other everything.
    Json::Value loggers = ZelTest::LogCapture::LoggersConfig(traceLog, "trace");
    Json::Value fatalOnly = ZelTest::LogCapture::LoggersConfig(fatalLog, "fatal")[0];
    loggers.append(fatalOnly);
    ASSERT_EQ(ZelResultSuccess,
              ZelInit(sample("identity.json").c_str(), config(dir, loggers).c_str(),
                      sample("device.json").c_str()));
    EXPECT_EQ(ZelResultSuccess, ZelLogMessage(5, "five is fatal %d", 5));
    EXPECT_EQ(ZelResultSuccess, ZelLogMessage(4, "four is an error"));
    EXPECT_EQ(ZelResultSuccess, ZelLogMessage(0, "zero is trace"));
    EXPECT_EQ(ZelResultBadArgument, ZelLogMessage(6, "six is nothing"));
    stop();

    std::string fatal = ZelTest::ReadFile(fatalLog);
    std::string trace = ZelTest::ReadFile(traceLog);
    EXPECT_NE(std::string::npos, fatal.find("five is fatal 5\n"));
    EXPECT_EQ(std::string::npos, fatal.find("four is an error"));
    EXPECT_EQ(std::string::npos, fatal.find("zero is trace"));
    EXPECT_NE(std::string::npos, trace.find("four is an error\n"));
    EXPECT_NE(std::string::npos, trace.find("zero is trace\n"));
    EXPECT_EQ(std::string::npos, trace.find("six is nothing"));
    EXPECT_NE(std::string::npos, trace.find("ZelLogMessage() called with bad severity value"));
}

TEST(ZelCore, EveryEntryPointTracesUnderItsOwnName) {
    ZelTest::TempDir dir;
    std::string logPath = dir.file("test.log");
    Json::Value loggers = ZelTest::LogCapture::LoggersConfig(logPath, "debug");
    loggers[0]["format"] = "medium";
    ASSERT_EQ(ZelResultSuccess,
              ZelInit(sample("identity.json").c_str(), config(dir, loggers).c_str(),
                      sample("device.json").c_str()));
    ZelSetOemMsg("traced");
    ZelEnableTestMode();
    ZelLogMessage(3, "traced too");
    ZelStatus status{};
    ZelGetStatus(ZelStatusMethodNow, &status);
    ZelFreeStatus(&status);
    stop();

    std::set<std::string> entered;
    std::istringstream lines(ZelTest::ReadFile(logPath));
    // "... clibapi    debug   ZelGetStatus()       Function Enter"
    for (std::string line; std::getline(lines, line);) {
        size_t end = line.find("()");
        if (line.find("Function Enter") != std::string::npos && end != std::string::npos) {
            entered.insert(line.substr(line.rfind(' ', end) + 1, end - line.rfind(' ', end) - 1));
        }
    }
    for (const char* name : {"ZelSetOemMsg", "ZelEnableTestMode", "ZelLogMessage", "ZelGetStatus",
                             "ZelFreeStatus", "ZelTerm"}) {
        EXPECT_EQ(1u, entered.count(name)) << name;
    }
    EXPECT_EQ(0u, entered.count("operator()"));
}
