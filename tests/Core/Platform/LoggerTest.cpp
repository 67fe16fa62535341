#include "Core/Platform/Logger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/Config.h"
#include "support/LogCapture.h"

namespace {

constexpr const char* kLogSource = "Platform/LoggerTest";

using namespace Zel::Core;
using ZelTest::LoggerElement;
using ZelTest::ReadFile;

class LoggerTest : public ::testing::Test {
protected:
    void SetUp() override { Logger::Instance().terminate(); }
    void TearDown() override { Logger::Instance().terminate(); }

    static void initialize(std::initializer_list<Json::Value> elements) {
        Json::Value loggers(Json::arrayValue);
        for (const Json::Value& element : elements) {
            loggers.append(element);
        }
        Logger::Instance().initialize(loggers);
    }
    Json::Value file(const std::string& format, const std::string& filters, bool append = true) {
        return LoggerElement("file", path_, format, filters, append);
    }

    ZelTest::TempDir dir_;
    std::string path_ = dir_.file("agent.log");
};

TEST_F(LoggerTest, NothingIsLoggedBeforeInitializeOrAfterTerminate) {
    Logger& logger = Logger::Instance();
    logger.log("f", 1, "fn", 0, 0, 1, "before %d", 1);
    // Not an array: ignored, and the logger stays open for a real configuration.
    Json::Value object = file("terse", "core/state/trace");
    logger.initialize(object);
    initialize({object});
    logger.log("f", 1, "fn", 0, 0, 1, "after %s", "initialize");
    // Already initialized: a second configuration is ignored.
    initialize({file("short", "core/state/trace")});
    logger.log("f", 1, "fn", 0, 0, 1, "again");
    logger.terminate();
    logger.log("f", 1, "fn", 0, 0, 1, "after terminate");
    EXPECT_EQ("after initialize\nagain\n", ReadFile(path_));
}

TEST_F(LoggerTest, FiltersDecideWhatEachAppenderWrites) {
    const std::string other = dir_.file("other.log");
    initialize({file("terse", "core/state/info sv/flow/trace su/webservice/disabled"),
                LoggerElement("file", other, "short", "su/webservice/error")});
    Logger& logger = Logger::Instance();
    // A "disabled" entry does not hide another appender's wider one.
    EXPECT_TRUE(logger.test(ServiceSu, CategoryWebservice, SeverityError));
    EXPECT_FALSE(logger.test(ServiceSu, CategoryWebservice, SeverityWarning));
    for (int severity = SeverityFatal; severity <= SeverityTrace; ++severity) {
        logger.log("f", 1, "fn", ServiceCore, CategoryState, severity, "core state %d", severity);
        logger.log("f", 1, "fn", ServiceSv, CategoryFlow, severity, "sv flow %d", severity);
        logger.log("f", 1, "fn", ServiceSu, CategoryWebservice, severity, "su ws %d", severity);
        logger.log("f", 1, "fn", ServiceDrmp, CategoryState, severity, "drmp %d", severity);
    }
    EXPECT_EQ(
        "core state 1\nsv flow 1\ncore state 2\nsv flow 2\ncore state 3\nsv flow 3\n"
        "core state 4\nsv flow 4\nsv flow 5\nsv flow 6\n",
        ReadFile(path_));
    EXPECT_EQ("su    webservice fatal   su ws 1\nsu    webservice error   su ws 2\n",
              ReadFile(other));
}

TEST_F(LoggerTest, LogCallCarriesSourceFunctionAndLongMessages) {
    initialize({file("long", "drmp/clibapi/warning")});
    const std::string big(5000, 'z');
    int line = __LINE__ + 1;
    ZEL_LOG(ServiceDrmp, CategoryClibapi, SeverityWarning, "%s-%d", big.c_str(), 7);

    std::vector<ZelTest::LogRecord> records = ZelTest::LogFile(path_).records();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ("Platform/LoggerTest:" + std::to_string(line) + "-{TestBody}", records[0].location);
    EXPECT_EQ(big + "-7", records[0].message);
}

// Every record reaches the file whole, whatever the interleaving of callers;
// while the logger is reconfigured, a record is written whole or not at all.
TEST_F(LoggerTest, ConcurrentCallersWriteIntactRecords) {
    initialize({file("terse", "core/state/info sv/flow/debug")});
    const std::string payload(300, 'p');
    std::atomic<bool> stop{false};
    // Writers numbered from `first`; without a number of records, until stopped.
    auto write = [&](int first, int records) {
        std::vector<std::thread> threads;
        for (int t = first; t < first + 4; ++t) {
            threads.emplace_back([&, t, records] {
                for (int i = 0; i < records || (records == 0 && !stop); ++i) {
                    ZEL_TRACE(ServiceSv);
                    ZEL_LOG(ServiceCore, CategoryState, SeverityInfo, "%d %d %s", t, i,
                            payload.c_str());
                }
            });
        }
        return threads;
    };
    auto check = [&](size_t records) {
        std::set<std::string> seen;
        std::istringstream lines(ReadFile(path_));
        for (std::string line; std::getline(lines, line);) {
            if (line != "Function Enter" && line != "Function Return") {
                EXPECT_EQ(payload, line.substr(line.rfind(' ') + 1)) << line;
                EXPECT_TRUE(seen.insert(line).second) << line;
            }
        }
        EXPECT_LE(records, seen.size());
    };
    for (std::thread& thread : write(0, 200)) {
        thread.join();
    }
    check(800);

    std::vector<std::thread> threads = write(4, 0);
    for (int round = 0; round < 50; ++round) {
        Logger::Instance().terminate();
        initialize({file("terse", "core/state/info sv/flow/debug")});
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    check(0);
}

}  // namespace
