#include "Core/Platform/Logger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Core/Platform/Appender.h"
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
    initialize({});
    // Already initialized (with nothing): a second configuration is ignored.
    initialize({file("terse", "core/state/trace")});
    EXPECT_FALSE(logger.test(0, 0, 1));

    logger.terminate();
    initialize({file("terse", "core/state/trace")});
    logger.log("f", 1, "fn", 0, 0, 1, "after %s", "initialize");
    logger.terminate();
    logger.log("f", 1, "fn", 0, 0, 1, "after terminate");
    EXPECT_EQ("after initialize\n", ReadFile(path_));
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

TEST_F(LoggerTest, ElementsThatCannotLogAreDropped) {
    Json::Value withoutFilters = LoggerElement("console", "stdout", "short", "");
    withoutFilters.removeMember("filters");
    initialize({withoutFilters, LoggerElement("console", "stdlog", "short", "core/state/info"),
                LoggerElement("socket", path_, "short", "core/state/info"),
                LoggerElement("file", "", "short", "core/state/info"),
                file("json", "core/state/info"), Json::Value(7)});
    EXPECT_TRUE(Appender::GetAppenderMap().empty());
    EXPECT_FALSE(Logger::Instance().test(0, 0, 1));
}

TEST_F(LoggerTest, RegistryKeysOrderAndDuplicates) {
    ZelTest::WriteFile(path_, "earlier\n");
    const std::string second = dir_.file("second.log");
    // Same type, format and argument as the first: the same key, even with
    // other filters and flags, so it is registered once (and truncates nothing).
    // Two appenders on one file: records arrive in key order, terse after short.
    initialize({file("terse", "core/state/info"), file("terse", "sv/state/trace", false),
                file("short", "core/state/info"), LoggerElement("file", second, "long", "")});
    std::vector<std::string> keys;
    for (const auto& entry : Appender::GetAppenderMap()) {
        keys.push_back(entry.first);
    }
    EXPECT_EQ((std::vector<std::string>{"file-long-" + second, "file-short-" + path_,
                                        "file-terse-" + path_}),
              keys);
    EXPECT_FALSE(Logger::Instance().test(ServiceSv, CategoryState, SeverityInfo));
    Logger::Instance().log("f", 1, "fn", 0, 0, 4, "twice");
    EXPECT_EQ("earlier\ncore  state      info    twice\ntwice\n", ReadFile(path_));
    EXPECT_EQ("", ReadFile(second));
}

TEST_F(LoggerTest, LogCallCarriesSourceFunctionAndLongMessages) {
    initialize({file("long", "drmp/clibapi/warning")});
    const std::string big(5000, 'z');
    int line = __LINE__ + 1;
    ZEL_LOG(ServiceDrmp, CategoryClibapi, SeverityWarning, "%s-%d", big.c_str(), 7);
    ZEL_LOG(ServiceDrmp, CategoryClibapi, SeverityInfo, "filtered");

    std::vector<ZelTest::LogRecord> records = ZelTest::LogFile(path_).records();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ("Platform/LoggerTest:" + std::to_string(line) + "-{TestBody}", records[0].location);
    EXPECT_EQ(big + "-7", records[0].message);
}

// Every record must reach the file whole, whatever the interleaving of callers.
TEST_F(LoggerTest, ConcurrentCallersWriteIntactRecords) {
    initialize({file("long", "core/state/info sv/test/info sv/flow/debug")});
    constexpr int kThreads = 6;
    constexpr int kRecords = 200;
    const std::string payload(300, 'p');
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &payload] {
            for (int i = 0; i < kRecords; ++i) {
                if (t % 2 == 0) {
                    Logger::Instance().log("f", 1, "worker", ServiceCore, CategoryState,
                                           SeverityInfo, "thread %d record %d %s end", t, i,
                                           payload.c_str());
                } else {
                    ZEL_TRACE(ServiceSv);
                    Json::Value record;
                    record["thread"] = t;
                    record["record"] = i;
                    Logger::Instance().logJson("f", 1, "worker", ServiceSv, record);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    // Each record once, whole; every traced call both entered and returned.
    std::set<std::string> seen;
    size_t traces = 0;
    for (const ZelTest::LogRecord& record : ZelTest::LogFile(path_).records()) {
        if (record.message == "Function Enter" || record.message == "Function Return") {
            ++traces;
            continue;
        }
        EXPECT_EQ("f:1-{worker}", record.location);
        EXPECT_TRUE(record.message.back() == '}' ||
                    record.message.compare(record.message.size() - 4, 4, " end") == 0)
            << record.message;
        EXPECT_TRUE(seen.insert(record.message).second) << record.message;
    }
    EXPECT_EQ(static_cast<size_t>(kThreads * kRecords), traces);
    EXPECT_EQ(static_cast<size_t>(kThreads * kRecords), seen.size());
}

// Reconfiguring while others log: a record is either written whole or not at all.
TEST_F(LoggerTest, TerminateAndInitializeWhileOthersLog) {
    Json::Value loggers(Json::arrayValue);
    loggers.append(file("terse", "core/state/info"));
    Logger::Instance().initialize(loggers);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&stop, t] {
            for (int i = 0; !stop.load(); ++i) {
                ZEL_LOG(ServiceCore, CategoryState, SeverityInfo, "writer %d line %d", t, i);
            }
        });
    }
    for (int round = 0; round < 50; ++round) {
        Logger::Instance().terminate();
        Logger::Instance().initialize(loggers);
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::istringstream lines(ReadFile(path_));
    for (std::string line; std::getline(lines, line);) {
        int writer = -1;
        int number = -1;
        char rest = 0;
        ASSERT_EQ(2, sscanf(line.c_str(), "writer %d line %d%c", &writer, &number, &rest)) << line;
    }
}

}  // namespace
