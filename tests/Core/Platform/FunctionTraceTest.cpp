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

TEST(FunctionTraceTest, EnterAndReturnWhereFlowAdmitsDebug) {
    const struct {
        const char* filters;
        int service;
        std::vector<std::string> messages;
    } rows[] = {
        {"sv/flow/debug", ServiceSv, {"Function Enter", "working", "Function Return"}},
        {"sv/flow/info", ServiceSv, {"working"}},
        {"su/flow/trace", ServiceCore, {}},
    };
    ZelTest::TempDir dir;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.filters);
        ZelTest::LogFile log(dir.file(std::to_string(&row - rows)));
        Json::Value loggers(Json::arrayValue);
        loggers.append(ZelTest::LoggerElement("file", log.path(), "long", row.filters));
        Logger::Instance().terminate();
        Logger::Instance().initialize(loggers);
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

}  // namespace
