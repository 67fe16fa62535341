#include "Core/Platform/Logger.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <atomic>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Core/Platform/Appender.h"
#include "support/TempDir.h"

namespace {

constexpr const char* kLogSource = "Platform/LoggerTest";

using namespace Zel::Core;

// A file element; `filters` lists "service/category/severity" entries.
Json::Value fileElement(const std::string& path, const std::string& format,
                        const std::string& filters, bool append = true) {
    Json::Value element;
    element["type"] = "file";
    element["argument"] = path;
    element["append"] = append;
    element["format"] = format;
    element["filters"] = Json::Value(Json::arrayValue);
    std::istringstream in(filters);
    for (std::string entry; in >> entry;) {
        const size_t first = entry.find('/');
        const size_t last = entry.rfind('/');
        Json::Value& filter = element["filters"].append(Json::Value());
        filter["service"] = entry.substr(0, first);
        filter["category"] = entry.substr(first + 1, last - first - 1);
        filter["severity"] = entry.substr(last + 1);
    }
    return element;
}

std::vector<std::string> lines(const std::string& path) {
    std::vector<std::string> result;
    std::istringstream in(ZelTest::ReadFile(path));
    std::string line;
    while (std::getline(in, line)) {
        result.push_back(line);
    }
    return result;
}

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

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

    ZelTest::TempDir dir_;
    std::string path_ = dir_.file("agent.log");
};

TEST_F(LoggerTest, NothingIsLoggedBeforeInitializeOrWithAnEmptyArray) {
    Logger& logger = Logger::Instance();
    logger.log("f", 1, "fn", 0, 0, 1, "before %d", 1);

    // Not an array: ignored, and the logger stays open for a real configuration.
    Json::Value object(Json::objectValue);
    object["type"] = "file";
    logger.initialize(object);
    EXPECT_FALSE(logger.test(0, 0, 1));

    initialize({});
    // Already initialized (with nothing): a second configuration is ignored.
    initialize({fileElement(path_, "terse", "core/state/trace")});
    EXPECT_FALSE(logger.test(0, 0, 1));

    logger.terminate();
    initialize({fileElement(path_, "terse", "core/state/trace")});
    EXPECT_TRUE(logger.test(0, 0, 1));
    logger.log("f", 1, "fn", 0, 0, 1, "after %s", "initialize");
    EXPECT_EQ("after initialize\n", ZelTest::ReadFile(path_));

    logger.terminate();
    EXPECT_FALSE(logger.test(0, 0, 1));
    logger.log("f", 1, "fn", 0, 0, 1, "after terminate");
    EXPECT_EQ("after initialize\n", ZelTest::ReadFile(path_));
}

TEST_F(LoggerTest, FiltersDecideWhatEachAppenderWrites) {
    const std::string other = dir_.file("other.log");
    initialize({fileElement(path_, "terse", "core/state/info sv/flow/trace su/webservice/disabled"),
                fileElement(other, "short", "su/webservice/error")});
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
        ZelTest::ReadFile(path_));
    EXPECT_EQ("su    webservice fatal   su ws 1\nsu    webservice error   su ws 2\n",
              ZelTest::ReadFile(other));
}

TEST_F(LoggerTest, ElementsThatCannotLogAreDropped) {
    Json::Value consoleWithoutFilters = fileElement("stdout", "short", "");
    consoleWithoutFilters["type"] = "console";
    consoleWithoutFilters.removeMember("filters");
    Json::Value consoleBadStream = fileElement("stdlog", "short", "core/state/info");
    consoleBadStream["type"] = "console";
    Json::Value unknownType = fileElement(path_, "short", "core/state/info");
    unknownType["type"] = "socket";
    Json::Value noArgument = fileElement("", "short", "core/state/info");
    Json::Value badFormat = fileElement(path_, "json", "core/state/info");

    initialize({consoleWithoutFilters, consoleBadStream, unknownType, noArgument, badFormat,
                Json::Value(7)});
    EXPECT_TRUE(Appender::GetAppenderMap().empty());
    EXPECT_FALSE(Logger::Instance().test(0, 0, 1));
}

TEST_F(LoggerTest, RegistryKeysOrderAndDuplicates) {
    ZelTest::WriteFile(path_, "earlier\n");
    const std::string second = dir_.file("second.log");
    // Same type, format and argument as the first: the same key, even with
    // other filters and flags, so it is registered once (and truncates nothing).
    Json::Value again = fileElement(path_, "terse", "sv/state/trace", false);
    // Two appenders on one file: records arrive in key order, terse after short.
    initialize({fileElement(path_, "terse", "core/state/info"), again,
                fileElement(path_, "short", "core/state/info"), fileElement(second, "long", "")});
    std::vector<std::string> keys;
    for (const auto& entry : Appender::GetAppenderMap()) {
        keys.push_back(entry.first);
    }
    EXPECT_EQ((std::vector<std::string>{"file-long-" + second, "file-short-" + path_,
                                        "file-terse-" + path_}),
              keys);
    EXPECT_FALSE(Logger::Instance().test(ServiceSv, CategoryState, SeverityInfo));

    Logger::Instance().log("f", 1, "fn", 0, 0, 4, "twice");
    EXPECT_EQ("earlier\ncore  state      info    twice\ntwice\n", ZelTest::ReadFile(path_));
    EXPECT_EQ("", ZelTest::ReadFile(second));
}

TEST_F(LoggerTest, LogCallCarriesSourceFunctionAndLongMessages) {
    initialize({fileElement(path_, "test", "drmp/clibapi/warning")});
    const std::string big(5000, 'z');
    int line = __LINE__ + 1;
    ZEL_LOG(ServiceDrmp, CategoryClibapi, SeverityWarning, "%s-%d", big.c_str(), 7);
    ZEL_LOG(ServiceDrmp, CategoryClibapi, SeverityInfo, "filtered");

    std::vector<std::string> written = lines(path_);
    ASSERT_EQ(1u, written.size());
    Json::Value record;
    ASSERT_TRUE(Json::Reader().parse(written[0], record));
    EXPECT_EQ("Platform/LoggerTest", record["file"].asString());
    EXPECT_EQ(line, record["line"].asInt());
    EXPECT_EQ("TestBody", record["method"].asString());
    EXPECT_EQ("***BAD JSON***", record["message"].asString());
}

TEST_F(LoggerTest, JsonChannelWritesCompactRecordsAtTestInfo) {
    const std::string terse = dir_.file("terse.log");
    initialize({fileElement(path_, "test", "core/test/info"),
                fileElement(terse, "terse", "core/test/info")});
    Json::Value record;
    record["coreEventQueued"]["event"] = "startsvsession";
    record["coreEventQueued"]["parameters"] = Json::Value(Json::objectValue);
    record["coreEventQueued"]["parameters"]["note"] = "100% \"done\"\n";
    Logger::Instance().logJson("Base/EventManager", 9, "queue", ServiceCore, record);
    // Not admitted for another service.
    Logger::Instance().logJson("Base/EventManager", 9, "queue", ServiceSv, record);

    EXPECT_EQ(
        "{\"coreEventQueued\":{\"event\":\"startsvsession\",\"parameters\":{\"note\":\"100% "
        "\\\"done\\\"\\n\"}}}\n",
        ZelTest::ReadFile(terse));
    std::vector<std::string> written = lines(path_);
    ASSERT_EQ(1u, written.size());
    Json::Value parsed;
    ASSERT_TRUE(Json::Reader().parse(written[0], parsed));
    EXPECT_EQ(record, parsed["message"]);
    EXPECT_EQ("test", parsed["category"].asString());
}

// Every record must reach the file whole, whatever the interleaving of callers.
TEST_F(LoggerTest, ConcurrentCallersWriteIntactLines) {
    initialize({fileElement(path_, "long", "core/state/info sv/test/info sv/flow/debug")});
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
                Logger::Instance().test(ServiceCore, CategoryState, SeverityInfo);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    // Each record once, whole; every traced call both entered and returned.
    std::set<std::string> seen;
    size_t traces = 0;
    for (const std::string& line : lines(path_)) {
        ASSERT_EQ(0u, line.rfind("[ZEL] ", 0)) << line;
        if (endsWith(line, " Function Enter") || endsWith(line, " Function Return")) {
            ++traces;
            continue;
        }
        size_t message = line.find("-{worker} ");
        ASSERT_NE(std::string::npos, message) << line;
        const std::string text = line.substr(line.find_first_not_of(' ', message + 10));
        EXPECT_TRUE(endsWith(text, " end") || endsWith(text, "}")) << text;
        EXPECT_TRUE(seen.insert(text).second) << text;
    }
    EXPECT_EQ(static_cast<size_t>(kThreads / 2 * kRecords * 2), traces);
    EXPECT_EQ(static_cast<size_t>(kThreads * kRecords), seen.size());
}

// Reconfiguring while others log: a record is either written whole or not at all.
TEST_F(LoggerTest, TerminateAndInitializeWhileOthersLog) {
    Json::Value loggers(Json::arrayValue);
    loggers.append(fileElement(path_, "terse", "core/state/info"));
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
    for (const std::string& line : lines(path_)) {
        int writer = -1;
        int number = -1;
        char rest = 0;
        ASSERT_EQ(2, sscanf(line.c_str(), "writer %d line %d%c", &writer, &number, &rest)) << line;
    }
}

}  // namespace
