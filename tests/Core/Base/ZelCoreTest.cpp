// Entry points whose answers depend on more than their arguments: the clock,
// the mapping of the host's log severities onto the agent's, and their traces.
#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "Core/Platform/TimeManager.h"
#include "support/Config.h"
#include "support/LogCapture.h"
#include "zel.h"

namespace {

// Every "da" call answered locally, so the agent needs no network.
ZelTest::ConfigDoc config(const ZelTest::TempDir& dir) {
    return ZelTest::ConfigDoc()
        .dirs(dir.path())
        .inject("da/gidtoken",
                ZelTest::ParseJson(R"([{"statusCode": 200, "body": {"daGidToken": "t"}}])"));
}

ZelResult init(const ZelTest::ConfigDoc& document) {
    const std::string samples = std::string(ZEL_SOURCE_DIR) + "/samples/";
    return ZelInit(ZelTest::ReadFile(samples + "identity.json").c_str(), document.text().c_str(),
                   ZelTest::ReadFile(samples + "device.json").c_str());
}

void stop() {
    ASSERT_EQ(ZelResultSuccess, ZelTerm());
    for (bool stopped = false; !stopped;) {
        ZelStatus status{};
        ZelGetStatus(ZelStatusMethodWaitForChange, &status);
        stopped = status.state == DeviceAgentStateUninitialized;
        ZelFreeStatus(&status);
    }
}

}  // namespace

TEST(ZelCore, ClockNotYetSetRefusesToStartAndLeavesNothingBehind) {
    ZelTest::TempDir dir;
    Zel::Core::TimeManager::Instance().setClock([] {
        return timespec{Zel::Core::TimeManager::kGoodTimeThreshold, 0};
    });
    ZelResult result = init(config(dir));
    Zel::Core::TimeManager::Instance().setClock(nullptr);
    EXPECT_EQ(ZelResultBadTime, result);
    ZelStatus status{};
    ZelGetStatus(ZelStatusMethodNow, &status);
    EXPECT_EQ(DeviceAgentStateUninitialized, status.state);
    EXPECT_EQ(ZelResultNotInitialized, ZelTerm());
}

// Host severities map onto the agent's from trace to fatal, and every entry
// point traces under its own name.
TEST(ZelCore, HostLogLinesAndEntryPointTraces) {
    ZelTest::TempDir dir;
    // One log takes only "fatal" lines, one everything; the medium one writes
    // the function's name and "()" before the message.
    ZelTest::LogFile fatal(dir.file("fatal.log"));
    ZelTest::LogFile trace(dir.file("trace.log"));
    ASSERT_EQ(ZelResultSuccess,
              init(config(dir)
                       .logTo(trace.path(), "trace")
                       .logTo(fatal.path(), "fatal")
                       .logger(ZelTest::LoggerElement("file", dir.file("medium.log"), "medium",
                                                      ZelTest::EveryFilter("debug")))));
    EXPECT_EQ(ZelResultSuccess, ZelLogMessage(5, "five is fatal %d", 5));
    EXPECT_EQ(ZelResultSuccess, ZelLogMessage(4, "four is an error"));
    EXPECT_EQ(ZelResultSuccess, ZelLogMessage(0, "zero is trace"));
    EXPECT_EQ(ZelResultBadArgument, ZelLogMessage(6, "six is nothing"));
    ZelSetOemMsg("oem");
    ZelEnableTestMode();
    ZelStatus status{};
    ZelGetStatus(ZelStatusMethodNow, &status);
    ZelFreeStatus(&status);
    stop();

    EXPECT_EQ(std::vector<std::string>{"five is fatal 5"}, fatal.messages());
    EXPECT_EQ(1u, trace.count("four is an error"));
    EXPECT_EQ(1u, trace.count("zero is trace"));
    EXPECT_EQ(1u, trace.count("ZelLogMessage() called with bad severity value"));
    std::set<std::string> entered;
    std::istringstream lines(ZelTest::ReadFile(dir.file("medium.log")));
    for (std::string line; std::getline(lines, line);) {
        size_t at = line.find("() ");
        if (line.find("Function Enter") != std::string::npos && at != std::string::npos) {
            entered.insert(line.substr(line.rfind(' ', at) + 1, at - line.rfind(' ', at) + 1));
        }
    }
    for (const char* name : {"ZelSetOemMsg()", "ZelEnableTestMode()", "ZelLogMessage()",
                             "ZelGetStatus()", "ZelFreeStatus()", "ZelTerm()"}) {
        EXPECT_EQ(1u, entered.count(name)) << name;
    }
    EXPECT_EQ(0u, entered.count("operator()"));
}
