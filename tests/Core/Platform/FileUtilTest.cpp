#include "Core/Platform/FileUtil.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <unistd.h>

#include <algorithm>
#include <filesystem>
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
        // RFC 1321; embedded zeros count.
        {"md5 past a zero", FileUtil::calcMd5Hash("a\0b", 3), "70350f6027bce3713f6b76473084309b"},
        {"version missing", std::to_string(FileUtil::parseVersion("coreValues_3")), "-1"},
        {"hash after the last _", FileUtil::parseHash("a_b_c_d_c"), "c"},
        {"next of 9 wraps", version({"b_9_h"}), "0"},
        {"repeats and followers", version({"b_3_h", "b_3_i", "b_4_h"}), "5"},
        {"the walk stops at a gap", version({"b_3_h", "b_7_h", "b_4_h"}), "4"},
        {"9 then 0", version({"b_9_h", "b_0_h"}), "0"},
        // After the wrap 0 is newer than 9, whichever way round they are listed.
        {"latest across the wrap", FileUtil::getLatestFile({"b_0_h", "b_9_h"}), "b_0_h"},
        // w <= v takes the file but keeps v, so a following v + 1 still counts.
        {"latest after an older one", FileUtil::getLatestFile({"b_4_h", "b_2_h", "b_5_h"}),
         "b_5_h"},
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
    // Drop removes every version and the plain file of its base, and nothing else.
    ZelTest::WriteFile(dir.file("coreValues_4_ffff"), "x");
    ZelTest::WriteFile(dir.file("coreValues"), "legacy");
    FileUtil::Drop(dir.path() + "/", "coreValues");
    EXPECT_EQ((Files{"coreValuesOther_0_" + FileUtil::calcMd5Hash("{}", 2)}),
              listed(dir.path(), "coreValues"));
    EXPECT_TRUE(std::filesystem::is_directory(dir.file("coreValues_5_notafile")));
    EXPECT_FALSE(FileUtil::Store(dir.file("missing"), "b", "new"));

    // A write that fails (its name taken by a directory) keeps the old file.
    ZelTest::LogCapture capture;
    ASSERT_EQ(0, mkdir(dir.file(nameFor("coreValuesOther", 1, "new")).c_str(), 0755));
    EXPECT_FALSE(FileUtil::Store(dir.path(), "coreValuesOther", "new"));
    EXPECT_TRUE(FileUtil::Load(dir.path(), "coreValuesOther", content));
    EXPECT_EQ("{}", content);
    EXPECT_NE("", capture.find("Problem 21 opening file "));
}

TEST(FileUtilTest, UnusableFilesAreDeletedAndTheOlderVersionRead) {
    const std::string a = nameFor("b", 9, "good"), b = nameFor("b", 3, "old");
    const std::string c = nameFor("b", 0, "newer");
    const struct {
        std::vector<std::pair<std::string, std::string>> files;  // name, content
        std::string loaded;                                      // "" when nothing loads
        std::string logged;
        Files left;
    } rows[] = {
        // A flipped bit, then a power cut after the new file was made but
        // before it was complete, and content the reader refuses.
        {{{nameFor("b", 0, "{\"t\":1}"), "{\"t\":0}"}}, "", "Bad file hash", {}},
        {{{a, "good"}, {nameFor("b", 0, "next"), "ne"}}, "good", "Bad file hash", {a}},
        {{{b, "old"}, {nameFor("b", 4, "bad"), "bad"}}, "old", "Bad file content", {b}},
        // Two good neighbours across the wrap: the newer one is read.
        {{{a, "good"}, {c, "newer"}}, "newer", "", {c, a}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.loaded + " " + row.logged);
        ZelTest::TempDir dir;
        ZelTest::LogCapture capture;
        for (const auto& [name, content] : row.files) {
            ZelTest::WriteFile(dir.file(name), content);
        }
        std::string content;
        EXPECT_EQ(!row.loaded.empty(),
                  FileUtil::Load(dir.path(), "b", content,
                                 [](const std::string& text) { return text != "bad"; }));
        EXPECT_EQ(row.loaded, content);
        EXPECT_EQ(row.logged.empty() ? 0u : 1u, capture.count(row.logged));
        EXPECT_EQ(row.left, listed(dir.path(), "b_"));
        // The next store continues after the newest and leaves one file.
        if (row.loaded == "newer") {
            FileUtil::Store(dir.path(), "b", "last");
            EXPECT_EQ(Files{nameFor("b", 1, "last")}, listed(dir.path(), "b_"));
        }
    }
}

TEST(FileUtilTest, EntriesThatAreNoPlainFileAreRefusedAndRemoved) {
    // Each entry carries a valid-looking name; reading it must neither block
    // (a FIFO), nor follow a link to a device, nor read without bound.
    ZelTest::TempDir outside;
    const std::string victim = outside.file("victim");
    ZelTest::WriteFile(victim, "keep me");
    const std::string big(FileUtil::kMaxFileBytes + 1, 'x');
    // A FIFO, a link to a device or to a file outside, a file over the size cap.
    auto make = [&](const std::string& kind, const std::string& path) {
        if (kind == "big") {
            ZelTest::WriteFile(path, big);
        }
        return kind == "fifo"  ? mkfifo(path.c_str(), 0600)
               : kind == "big" ? 0
                               : symlink(kind.c_str(), path.c_str());
    };
    for (const std::string& kind :
         {std::string("fifo"), std::string("/dev/zero"), victim, std::string("big")}) {
        SCOPED_TRACE(kind);
        ZelTest::TempDir dir;
        // The big file's digest is right: only the cap refuses it.
        ASSERT_EQ(0, make(kind, dir.file(nameFor("daTime", 0, kind == "big" ? big : "{}"))));
        std::string content;
        EXPECT_FALSE(FileUtil::Load(dir.path(), "daTime", content));
        EXPECT_TRUE(listed(dir.path(), "daTime_").empty());
        // A store never writes through an entry that carries the new name.
        ASSERT_EQ(0, make(kind, dir.file(nameFor("daTime", 0, "{\"sec\":1}"))));
        EXPECT_TRUE(FileUtil::Store(dir.path(), "daTime", "{\"sec\":1}"));
        ASSERT_TRUE(FileUtil::Load(dir.path(), "daTime", content));
        EXPECT_EQ("{\"sec\":1}", content);
    }
    EXPECT_EQ("keep me", ZelTest::ReadFile(victim));
}
