#include "Core/Platform/FunctionTrace.h"

#include <gtest/gtest.h>

#include <string>

#include "Core/Platform/Logger.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace {

constexpr const char* kLogSource = "Platform/FunctionTraceTest";

using namespace Zel::Core;

class FunctionTraceTest : public ::testing::Test {
protected:
    void SetUp() override { Logger::Instance().terminate(); }
    void TearDown() override { Logger::Instance().terminate(); }

    void initialize(const std::string& format, const std::string& service,
                    const std::string& category, const std::string& severity) {
        Json::Value loggers = ZelTest::LogCapture::LoggersConfig(path_, severity);
        loggers[0]["format"] = format;
        loggers[0]["filters"].resize(1);
        loggers[0]["filters"][0]["service"] = service;
        loggers[0]["filters"][0]["category"] = category;
        Logger::Instance().initialize(loggers);
    }

    ZelTest::TempDir dir_;
    std::string path_ = dir_.file("trace.log");
};

int traceLine = 0;

void tracedWork(int service) {
    traceLine = __LINE__ + 1;
    ZEL_TRACE(service);
    Logger::Instance().log("body", 1, "body", service, CategoryFlow, SeverityFatal, "working");
}

TEST_F(FunctionTraceTest, EnterAndReturnWhenFlowAdmitsDebug) {
    initialize("short", "sv", "flow", "debug");
    tracedWork(ServiceSv);
    EXPECT_EQ(
        "sv    flow       debug   Function Enter\nsv    flow       fatal   working\n"
        "sv    flow       debug   Function Return\n",
        ZelTest::ReadFile(path_));
}

TEST_F(FunctionTraceTest, RecordsCarryTheTracedFunctionAndLine) {
    initialize("test", "drmp", "flow", "trace");
    tracedWork(ServiceDrmp);
    std::string text = ZelTest::ReadFile(path_);
    const std::string where =
        "\"file\":\"Platform/FunctionTraceTest\",\"line\":" + std::to_string(traceLine) +
        ",\"message\":\"***BAD JSON***\"," + "\"method\":\"tracedWork\"";
    size_t first = text.find(where);
    ASSERT_NE(std::string::npos, first) << text;
    EXPECT_NE(std::string::npos, text.find(where, first + 1)) << text;
}

TEST_F(FunctionTraceTest, SilentBelowDebugOrForOtherPairs) {
    initialize("terse", "sv", "flow", "info");
    tracedWork(ServiceSv);
    EXPECT_EQ("working\n", ZelTest::ReadFile(path_));

    Logger::Instance().terminate();
    ZelTest::WriteFile(path_, "");
    initialize("terse", "su", "flow", "trace");
    tracedWork(ServiceCore);
    EXPECT_EQ("", ZelTest::ReadFile(path_));
}

TEST_F(FunctionTraceTest, EachEndIsTestedWhenItHappens) {
    {
        FunctionTrace trace("late", "f", 1, ServiceCore);
        initialize("terse", "core", "flow", "debug");
    }
    EXPECT_EQ("Function Return\n", ZelTest::ReadFile(path_));

    ZelTest::WriteFile(path_, "");
    {
        FunctionTrace trace("early", "f", 1, ServiceCore);
        Logger::Instance().terminate();
    }
    EXPECT_EQ("Function Enter\n", ZelTest::ReadFile(path_));
}

}  // namespace
