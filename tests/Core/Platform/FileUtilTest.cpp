#include "Core/Platform/FileUtil.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <unistd.h>

#include <algorithm>
#include <functional>
#include <utility>

#include "support/LogCapture.h"
#include "support/TempDir.h"

using Zel::Core::FileUtil;
using Files = std::vector<std::string>;

namespace {

Files listed(const std::string& dir, const std::string& prefix) {
    Files files;
    EXPECT_TRUE(FileUtil::getFilesWithBase(dir, prefix, files));
    std::sort(files.begin(), files.end());
    return files;
}

std::string nameFor(const std::string& base, int version, const std::string& content) {
    return base + "_" + std::to_string(version) + "_" +
           FileUtil::calcMd5Hash(content.data(), static_cast<unsigned>(content.size()));
}

}  // namespace

TEST(FileUtilTest, NameAndVersionRules) {
    auto version = [](const Files& files) { return std::to_string(FileUtil::getVersion(files)); };
    const struct {
        const char* name;
        std::string actual;
        std::string expected;
    } rows[] = {
        // RFC 1321; only `len` bytes count, embedded zeros included.
        {"md5 of nothing", FileUtil::calcMd5Hash("", 0), "d41d8cd98f00b204e9800998ecf8427e"},
        {"md5 of abc", FileUtil::calcMd5Hash("abcdef", 3), "900150983cd24fb0d6963f7d28e17f72"},
        {"md5 past a zero", FileUtil::calcMd5Hash("a\0b", 3), "70350f6027bce3713f6b76473084309b"},
        {"version of a name", std::to_string(FileUtil::parseVersion("coreValues_3_0123abcd")), "3"},
        {"version missing", std::to_string(FileUtil::parseVersion("coreValues_3")), "-1"},
        {"version not a number", std::to_string(FileUtil::parseVersion("coreValues_x_abc")), "0"},
        {"hash of a name", FileUtil::parseHash("coreValues_3_0123abcd"), "0123abcd"},
        {"hash after the last _", FileUtil::parseHash("a_b_c_d_c"), "c"},
        {"hash empty", FileUtil::parseHash("a_1_"), ""},
        {"next of none", version({}), "0"},
        {"next of 8", version({"b_8_h"}), "9"},
        {"next of 9 wraps", version({"b_9_h"}), "0"},
        {"unparsable counts as -1", version({"b_h"}), "0"},
        {"repeats and followers", version({"b_3_h", "b_3_i", "b_4_h"}), "5"},
        {"the walk stops at a gap", version({"b_3_h", "b_7_h", "b_4_h"}), "4"},
        {"0 then 9", version({"b_0_h", "b_9_h"}), "1"},
        {"9 then 0", version({"b_9_h", "b_0_h"}), "0"},
        {"latest of none", FileUtil::getLatestFile({}), ""},
        // After the wrap 0 is newer than 9, whichever way round they are listed.
        {"latest across the wrap", FileUtil::getLatestFile({"b_9_h", "b_0_h"}), "b_0_h"},
        {"latest across the wrap, reversed", FileUtil::getLatestFile({"b_0_h", "b_9_h"}), "b_0_h"},
        // w <= v takes the file but keeps v, so a following v + 1 still counts.
        {"latest after an older one", FileUtil::getLatestFile({"b_4_h", "b_2_h", "b_5_h"}),
         "b_5_h"},
        {"latest is the older one", FileUtil::getLatestFile({"b_4_h", "b_2_h"}), "b_2_h"},
        {"latest stops at a gap", FileUtil::getLatestFile({"b_3_h", "b_4_h", "b_6_h", "b_5_h"}),
         "b_4_h"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.expected, row.actual);
    }
}

TEST(FileUtilTest, StoreCyclesVersionsLeavingOneFilePerBase) {
    ZelTest::TempDir dir;
    std::string content;
    EXPECT_FALSE(FileUtil::Load(dir.path(), "coreValues", content));
    FileUtil::Store(dir.path(), "coreValuesOther", "{}");
    // A directory with a version's name takes no part in the choice of version.
    ASSERT_EQ(0, mkdir(dir.file("coreValues_5_notafile").c_str(), 0755));
    for (int round = 0; round < 23; ++round) {
        std::string text = "{\"round\":" + std::to_string(round) + "}";
        // Alternate the directory spelling: both address the same files.
        ASSERT_TRUE(FileUtil::Store(round % 2 ? dir.path() : dir.path() + "/", "coreValues", text));
        ASSERT_EQ(Files{nameFor("coreValues", round % 10, text)},
                  listed(dir.path(), "coreValues_"));
        ASSERT_TRUE(
            FileUtil::Load(round % 2 ? dir.path() + "/" : dir.path(), "coreValues", content));
        EXPECT_EQ(text, content);
    }
    struct stat info {};
    ASSERT_EQ(0, stat(dir.file(listed(dir.path(), "coreValues_")[0]).c_str(), &info));
    mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(0664u & ~mask, info.st_mode & 0777u);

    // Drop removes every version and the plain file of its base, and nothing else.
    ZelTest::WriteFile(dir.file("coreValues_4_ffff"), "x");
    ZelTest::WriteFile(dir.file("coreValues"), "legacy");
    FileUtil::Drop(dir.path() + "/", "coreValues");
    EXPECT_EQ((Files{"coreValuesOther_0_" + FileUtil::calcMd5Hash("{}", 2)}),
              listed(dir.path(), "coreValues"));
    EXPECT_EQ(0, stat(dir.file("coreValues_5_notafile").c_str(), &info));
    EXPECT_FALSE(FileUtil::Store(dir.file("missing"), "b", "new"));
}

TEST(FileUtilTest, UnusableFilesAreDeletedAndTheOlderVersionRead) {
    const struct {
        const char* name;
        std::vector<std::pair<std::string, std::string>> files;  // name, content
        bool loads;
        std::string content;
        std::string logged;
        Files left;
    } rows[] = {
        {"a flipped bit",
         {{nameFor("b", 0, "{\"t\":1}"), "{\"t\":0}"}},
         false,
         "",
         "Bad file hash",
         {}},
        // A power cut after the new file was made but before it was complete.
        {"a cut write across the wrap",
         {{nameFor("b", 9, "good"), "good"}, {nameFor("b", 0, "next"), "ne"}},
         true,
         "good",
         "Bad file hash",
         {nameFor("b", 9, "good")}},
        {"content the reader refuses",
         {{nameFor("b", 3, "old"), "old"}, {nameFor("b", 4, "bad"), "bad"}},
         true,
         "old",
         "Bad file content",
         {nameFor("b", 3, "old")}},
        {"two good neighbours across the wrap",
         {{nameFor("b", 9, "older"), "older"}, {nameFor("b", 0, "newer"), "newer"}},
         true,
         "newer",
         "",
         {nameFor("b", 0, "newer"), nameFor("b", 9, "older")}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ZelTest::TempDir dir;
        ZelTest::LogCapture capture;
        for (const auto& [name, content] : row.files) {
            ZelTest::WriteFile(dir.file(name), content);
        }
        std::string content = "untouched";
        EXPECT_EQ(row.loads, FileUtil::Load(dir.path(), "b", content,
                                            [](const std::string& text) { return text != "bad"; }));
        EXPECT_EQ(row.loads ? row.content : "untouched", content);
        if (!row.logged.empty()) {
            EXPECT_TRUE(capture.contains(row.logged));
        }
        EXPECT_EQ(row.left, listed(dir.path(), "b_"));
    }
    // The next store continues after the newest and leaves one file.
    ZelTest::TempDir dir;
    ZelTest::WriteFile(dir.file(nameFor("b", 9, "older")), "older");
    ZelTest::WriteFile(dir.file(nameFor("b", 0, "newer")), "newer");
    FileUtil::Store(dir.path(), "b", "last");
    EXPECT_EQ(Files{nameFor("b", 1, "last")}, listed(dir.path(), "b_"));
}

TEST(FileUtilTest, FailedWriteKeepsOldFiles) {
    ZelTest::TempDir dir;
    ZelTest::LogCapture capture;
    FileUtil::Store(dir.path(), "daTime", "{\"old\":true}");
    // Occupy the new file's name with a directory so that the open fails.
    const std::string text = "{\"new\":true}";
    std::string blocked = dir.file(nameFor("daTime", 1, text));
    ASSERT_EQ(0, mkdir(blocked.c_str(), 0755));
    EXPECT_FALSE(FileUtil::Store(dir.path(), "daTime", text));
    EXPECT_TRUE(capture.contains("Problem 21 opening file " + blocked + " for writing."));
    EXPECT_EQ(Files{nameFor("daTime", 0, "{\"old\":true}")}, listed(dir.path(), "daTime_"));
}

TEST(FileUtilTest, EntriesThatAreNoPlainFileAreRefusedAndRemoved) {
    // Each entry carries a valid-looking name; reading it must neither block
    // (a FIFO), nor follow a link to a device, nor read without bound.
    ZelTest::TempDir outside;
    const std::string victim = outside.file("victim");
    ZelTest::WriteFile(victim, "keep me");
    const std::string big(FileUtil::kMaxFileBytes + 1, 'x');
    const struct {
        const char* name;
        std::function<int(const std::string& path)> make;
    } rows[] = {
        {"FIFO", [](const std::string& path) { return mkfifo(path.c_str(), 0600); }},
        {"link to a device",
         [](const std::string& path) { return symlink("/dev/zero", path.c_str()); }},
        {"link to a file outside",
         [&](const std::string& path) { return symlink(victim.c_str(), path.c_str()); }},
        {"file over the size cap",
         [&](const std::string& path) {
             ZelTest::WriteFile(path, big);
             return 0;
         }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ZelTest::TempDir dir;
        ASSERT_EQ(0, row.make(dir.file(nameFor("daTime", 0, "{}"))));
        std::string content;
        EXPECT_FALSE(FileUtil::Load(dir.path(), "daTime", content));
        EXPECT_TRUE(listed(dir.path(), "daTime_").empty());
        // A store never writes through an entry that carries the new name.
        ASSERT_EQ(0, row.make(dir.file(nameFor("daTime", 0, "{\"sec\":1}"))));
        EXPECT_TRUE(FileUtil::Store(dir.path(), "daTime", "{\"sec\":1}"));
        ASSERT_TRUE(FileUtil::Load(dir.path(), "daTime", content));
        EXPECT_EQ("{\"sec\":1}", content);
    }
    EXPECT_EQ("keep me", ZelTest::ReadFile(victim));
}
