#include "Core/Platform/Appender.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "Core/Platform/ConsoleAppender.h"
#include "Core/Platform/FileAppender.h"
#include "support/Config.h"
#include "support/TempDir.h"

namespace {

using namespace Zel::Core;

Json::Value element(const std::string& format, const std::string& filters = "",
                    const std::string& argument = "stdout") {
    return ZelTest::LoggerElement("console", argument, format, filters);
}

LoggingEvent event(const std::string& message, int severity = 4) {
    return LoggingEvent("Base/CoreManager", 7, "run", 0, 0, severity, message, "0a1b2c3d",
                        Timestamp(1709294400, 0));
}

// Reports its destruction, so ownership by the registry can be checked.
class ProbeAppender : public Appender {
public:
    ProbeAppender(const Json::Value& config, bool* destroyed)
        : Appender("probe", config), destroyed_(destroyed) {}
    ~ProbeAppender() override { *destroyed_ = true; }
    void doAppend(const LoggingEvent&) override {}
    void close() override {}

private:
    bool* destroyed_;
};

class AppenderTest : public ::testing::Test {
protected:
    void SetUp() override { Appender::DeleteAllAppenders(); }
    void TearDown() override { Appender::DeleteAllAppenders(); }
};

TEST_F(AppenderTest, FiltersFillTheLevelTable) {
    std::ostringstream out;
    ConsoleAppender appender(element("short",
                                     "core/state/info sv/flow/trace su/test/error su/test/warning "
                                     "drmp/state/disabled Core/state/trace core/all/trace "
                                     "core/flow/verbose core ds//trace"),
                             out);
    EXPECT_EQ("console-short-stdout", appender.getName());

    EXPECT_TRUE(appender.isLogEnabled(0, 0, 4));
    EXPECT_FALSE(appender.isLogEnabled(0, 0, 5));
    // The later filter for the same pair wins.
    EXPECT_TRUE(appender.isLogEnabled(3, 4, 3));
    EXPECT_FALSE(appender.isLogEnabled(3, 4, 4));
    // "disabled" admits nothing but severity 0, which no caller uses.
    EXPECT_FALSE(appender.isLogEnabled(4, 0, 1));
    // Entries with a name outside the tables are dropped, not widened.
    EXPECT_FALSE(appender.isLogEnabled(0, 1, 1));
    EXPECT_FALSE(appender.isLogEnabled(1, 0, 1));
    EXPECT_FALSE(appender.isLogEnabled(-1, 6, 0));
}

TEST_F(AppenderTest, RegistryKeepsTheFirstOfOneNameAndDeletesTheOther) {
    bool firstGone = false;
    bool secondGone = false;
    auto* first = new ProbeAppender(element("terse", "", "a"), &firstGone);
    EXPECT_TRUE(Appender::AddAppender(first));
    EXPECT_FALSE(Appender::AddAppender(new ProbeAppender(element("terse", "", "a"), &secondGone)));
    EXPECT_TRUE(secondGone);
    EXPECT_FALSE(firstGone);
    EXPECT_FALSE(Appender::AddAppender(nullptr));
    // The rejected one, though of the same name, did not unregister the first.
    EXPECT_EQ(first, Appender::GetAppenderMap()["probe-terse-a"]);
    Appender::DeleteAllAppenders();
    EXPECT_TRUE(firstGone);

    // An appender deleted by its owner leaves the registry too.
    bool gone = false;
    auto* probe = new ProbeAppender(element("terse", "", "b"), &gone);
    ASSERT_TRUE(Appender::AddAppender(probe));
    delete probe;
    EXPECT_TRUE(Appender::GetAppenderMap().empty());
}

TEST_F(AppenderTest, FileAppenderTruncatesOrAppends) {
    ZelTest::TempDir dir;
    const std::string path = dir.file("agent.log");
    ZelTest::WriteFile(path, "earlier\n");
    {
        FileAppender appender(element("terse"), path, true, 0644);
        appender.doAppend(event("kept"));
    }
    EXPECT_EQ("earlier\nkept\n", ZelTest::ReadFile(path));
    {
        FileAppender appender(element("terse"), path, false, 0644);
        EXPECT_EQ("", ZelTest::ReadFile(path));
        appender.doAppend(event("fresh"));
        appender.close();
        appender.doAppend(event("dropped"));
    }
    EXPECT_EQ("fresh\n", ZelTest::ReadFile(path));
}

}  // namespace
