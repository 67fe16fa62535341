#include "Core/Platform/Appender.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <sstream>
#include <string>

#include "Core/Platform/ConsoleAppender.h"
#include "Core/Platform/FileAppender.h"
#include "Core/Platform/SyslogAppender.h"
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
    ASSERT_TRUE(appender.hasFormat());
    EXPECT_EQ("console-short-stdout", appender.getName());

    EXPECT_TRUE(appender.isLogEnabled(0, 0, 4));
    EXPECT_FALSE(appender.isLogEnabled(0, 0, 5));
    EXPECT_TRUE(appender.isLogEnabled(2, 1, 6));
    // The later filter for the same pair wins.
    EXPECT_TRUE(appender.isLogEnabled(3, 4, 3));
    EXPECT_FALSE(appender.isLogEnabled(3, 4, 4));
    // "disabled" admits nothing but severity 0, which no caller uses.
    EXPECT_FALSE(appender.isLogEnabled(4, 0, 1));
    // Entries with a name outside the tables are dropped, not widened.
    EXPECT_FALSE(appender.isLogEnabled(0, 1, 1));
    EXPECT_FALSE(appender.isLogEnabled(1, 0, 1));
    // Pairs without an entry, and numbers outside the table.
    EXPECT_FALSE(appender.isLogEnabled(5, 5, 1));
    EXPECT_FALSE(appender.isLogEnabled(-1, 6, 0));
}

TEST_F(AppenderTest, RegistryKeepsTheFirstOfOneNameAndDeletesTheOther) {
    bool firstGone = false;
    bool secondGone = false;
    bool otherGone = false;
    auto* first = new ProbeAppender(element("terse", "", "a"), &firstGone);
    auto* second = new ProbeAppender(element("terse", "", "a"), &secondGone);
    auto* other = new ProbeAppender(element("long", "", "a"), &otherGone);
    EXPECT_EQ("probe-terse-a", first->getName());

    EXPECT_TRUE(Appender::AddAppender(first));
    EXPECT_FALSE(Appender::AddAppender(second));
    EXPECT_TRUE(secondGone);
    EXPECT_FALSE(firstGone);
    EXPECT_TRUE(Appender::AddAppender(other));
    EXPECT_FALSE(Appender::AddAppender(nullptr));

    // The rejected one, though of the same name, did not unregister the first.
    auto map = Appender::GetAppenderMap();
    ASSERT_EQ(2u, map.size());
    EXPECT_EQ(other, map["probe-long-a"]);
    EXPECT_EQ(first, map["probe-terse-a"]);

    Appender::DeleteAllAppenders();
    EXPECT_TRUE(firstGone);
    EXPECT_TRUE(otherGone);
    EXPECT_TRUE(Appender::GetAppenderMap().empty());

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

    const std::string created = dir.file("created.log");
    mode_t old = umask(022);
    { FileAppender appender(element("terse"), created, false, 0644); }
    umask(old);
    struct stat info {};
    ASSERT_EQ(0, stat(created.c_str(), &info));
    EXPECT_EQ(0644u, info.st_mode & 0777);

    // A file that cannot be opened drops records silently.
    FileAppender lost(element("terse"), dir.file("missing/agent.log"), true, 0644);
    EXPECT_EQ(-1, lost.getDescriptor());
    lost.doAppend(event("lost"));
    lost.close();
}

TEST_F(AppenderTest, SyslogPriorityRule) {
    // Agent severities are on a 0..6 scale: every one, "error" included, maps
    // to 0, so an error goes out as emergency with the user facility.
    for (int severity = 0; severity <= 6; ++severity) {
        EXPECT_EQ(0, SyslogAppender::ToSyslogPriority(severity)) << severity;
    }
    EXPECT_EQ(7, SyslogAppender::ToSyslogPriority(699));
}

}  // namespace
