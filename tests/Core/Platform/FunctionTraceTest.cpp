#include "Core/Platform/FunctionTrace.h"

#include <gtest/gtest.h>

#include <string>

#include "Core/Platform/Logger.h"
#include "support/Config.h"
#include "support/LogCapture.h"

namespace {

constexpr const char* kLogSource = "Platform/FunctionTraceTest";

using namespace Zel::Core;

int traceLine = 0;

void tracedWork(int service) {
    traceLine = __LINE__ + 1;
    ZEL_TRACE(service);
    Logger::Instance().log("body", 1, "body", service, CategoryFlow, SeverityFatal, "working");
}

class FunctionTraceTest : public ::testing::Test {
protected:
    void SetUp() override { Logger::Instance().terminate(); }
    void TearDown() override { Logger::Instance().terminate(); }

    // A fresh log admitting `filters` only.
    ZelTest::LogFile logTo(const std::string& filters) {
        ZelTest::LogFile log(dir_.file(std::to_string(logs_++)));
        Json::Value loggers(Json::arrayValue);
        loggers.append(ZelTest::LoggerElement("file", log.path(), "long", filters));
        Logger::Instance().terminate();
        Logger::Instance().initialize(loggers);
        return log;
    }

    ZelTest::TempDir dir_;
    int logs_ = 0;
};

TEST_F(FunctionTraceTest, EnterAndReturnWhereFlowAdmitsDebug) {
    const struct {
        const char* filters;
        int service;
        std::vector<std::string> messages;
    } rows[] = {
        {"sv/flow/debug", ServiceSv, {"Function Enter", "working", "Function Return"}},
        {"drmp/flow/trace", ServiceDrmp, {"Function Enter", "working", "Function Return"}},
        {"sv/flow/info", ServiceSv, {"working"}},
        {"su/flow/trace", ServiceCore, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.filters);
        ZelTest::LogFile log = logTo(row.filters);
        tracedWork(row.service);
        Logger::Instance().terminate();
        EXPECT_EQ(row.messages, log.messages());
        for (const ZelTest::LogRecord& record : log.records()) {
            if (record.message != "working") {
                EXPECT_EQ(
                    "Platform/FunctionTraceTest:" + std::to_string(traceLine) + "-{tracedWork}",
                    record.location);
                EXPECT_EQ("debug", record.severity);
            }
        }
    }
}

TEST_F(FunctionTraceTest, EachEndIsTestedWhenItHappens) {
    ZelTest::LogFile late("");
    {
        FunctionTrace trace("late", "f", 1, ServiceCore);
        late = logTo("core/flow/debug");
    }
    EXPECT_EQ(std::vector<std::string>{"Function Return"}, late.messages());

    ZelTest::LogFile early = logTo("core/flow/debug");
    {
        FunctionTrace trace("early", "f", 1, ServiceCore);
        Logger::Instance().terminate();
    }
    EXPECT_EQ(std::vector<std::string>{"Function Enter"}, early.messages());
}

}  // namespace
