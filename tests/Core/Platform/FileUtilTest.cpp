#include "Core/Platform/FileUtil.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <unistd.h>

#include <algorithm>
#include <functional>
#include <set>

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

TEST(FileUtilTest, Md5KnownVectors) {
    // RFC 1321 test suite.
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", FileUtil::calcMd5Hash("", 0));
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", FileUtil::calcMd5Hash("abc", 3));
    // Only `len` bytes count, embedded zeros included.
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", FileUtil::calcMd5Hash("abcdef", 3));
    EXPECT_NE(FileUtil::calcMd5Hash("a\0b", 3), FileUtil::calcMd5Hash("a", 1));
}

TEST(FileUtilTest, NameParsing) {
    EXPECT_EQ(3, FileUtil::parseVersion("coreValues_3_0123abcd"));
    EXPECT_EQ(-1, FileUtil::parseVersion("coreValues_3"));
    EXPECT_EQ(0, FileUtil::parseVersion("coreValues_x_abc"));
    EXPECT_EQ("0123abcd", FileUtil::parseHash("coreValues_3_0123abcd"));
    EXPECT_EQ("c", FileUtil::parseHash("a_b_c_d_c"));
    EXPECT_EQ("", FileUtil::parseHash("a_1_"));
}

TEST(FileUtilTest, NextVersionRule) {
    EXPECT_EQ(0, FileUtil::getVersion({}));
    EXPECT_EQ(9, FileUtil::getVersion({"b_8_h"}));
    EXPECT_EQ(0, FileUtil::getVersion({"b_9_h"}));
    EXPECT_EQ(0, FileUtil::getVersion({"b_h"}));  // unparsable counts as -1
    EXPECT_EQ(5, FileUtil::getVersion({"b_3_h", "b_3_i", "b_4_h"}));
    // The walk stops at the first file that neither repeats nor follows.
    EXPECT_EQ(4, FileUtil::getVersion({"b_3_h", "b_7_h", "b_4_h"}));
    EXPECT_EQ(1, FileUtil::getVersion({"b_0_h", "b_9_h"}));
    EXPECT_EQ(0, FileUtil::getVersion({"b_9_h", "b_0_h"}));
}

TEST(FileUtilTest, LatestFileRule) {
    EXPECT_EQ("", FileUtil::getLatestFile({}));
    // After the wrap 0 is newer than 9, whichever way round they are listed.
    EXPECT_EQ("b_0_h", FileUtil::getLatestFile({"b_9_h", "b_0_h"}));
    EXPECT_EQ("b_0_h", FileUtil::getLatestFile({"b_0_h", "b_9_h"}));
    // w <= v takes the file but keeps v, so a following v + 1 still counts.
    EXPECT_EQ("b_5_h", FileUtil::getLatestFile({"b_4_h", "b_2_h", "b_5_h"}));
    EXPECT_EQ("b_2_h", FileUtil::getLatestFile({"b_4_h", "b_2_h"}));
    // A gap of more than one stops the walk.
    EXPECT_EQ("b_4_h", FileUtil::getLatestFile({"b_3_h", "b_4_h", "b_6_h", "b_5_h"}));
}

TEST(FileUtilTest, StoreCyclesVersionsLeavingOneFile) {
    ZelTest::TempDir dir;
    std::string content;
    EXPECT_FALSE(FileUtil::Load(dir.path(), "coreValues", content));

    for (int round = 0; round < 23; ++round) {
        std::string text = "{\"round\":" + std::to_string(round) + "}";
        // Alternate the directory spelling: both address the same files.
        FileUtil::Store(round % 2 ? dir.path() : dir.path() + "/", "coreValues", text);
        Files files = listed(dir.path(), "coreValues_");
        ASSERT_EQ(1u, files.size()) << "round " << round;
        EXPECT_EQ(nameFor("coreValues", round % 10, text), files[0]);
        EXPECT_EQ(text, ZelTest::ReadFile(dir.file(files[0])));
        ASSERT_TRUE(
            FileUtil::Load(round % 2 ? dir.path() + "/" : dir.path(), "coreValues", content));
        EXPECT_EQ(text, content);
    }

    struct stat info {};
    ASSERT_EQ(0, stat(dir.file(listed(dir.path(), "coreValues_")[0]).c_str(), &info));
    mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(0664u & ~mask, info.st_mode & 0777u);
}

TEST(FileUtilTest, BasesAreKeptApartAndDirectoriesIgnored) {
    ZelTest::TempDir dir;
    FileUtil::Store(dir.path(), "core", "{\"a\":1}");
    FileUtil::Store(dir.path(), "coreToken", "{\"t\":2}");
    ASSERT_EQ(0, mkdir(dir.file("core_5_notafile").c_str(), 0755));

    EXPECT_EQ(Files{nameFor("core", 0, "{\"a\":1}")}, listed(dir.path(), "core_"));
    std::string content;
    ASSERT_TRUE(FileUtil::Load(dir.path(), "core", content));
    EXPECT_EQ("{\"a\":1}", content);
    ASSERT_TRUE(FileUtil::Load(dir.path(), "coreToken", content));
    EXPECT_EQ("{\"t\":2}", content);

    // The directory does not take part in version selection either.
    FileUtil::Store(dir.path(), "core", "{\"a\":3}");
    EXPECT_EQ(Files{nameFor("core", 1, "{\"a\":3}")}, listed(dir.path(), "core_"));
    FileUtil::Drop(dir.path(), "core");
    EXPECT_TRUE(listed(dir.path(), "core_").empty());
    struct stat info {};
    EXPECT_EQ(0, stat(dir.file("core_5_notafile").c_str(), &info));
    ASSERT_TRUE(FileUtil::Load(dir.path(), "coreToken", content));
    EXPECT_EQ("{\"t\":2}", content);

    Files none;
    EXPECT_FALSE(FileUtil::getFilesWithBase(dir.file("missing"), "core_", none));
}

TEST(FileUtilTest, CorruptFileIsRejectedAndDeleted) {
    ZelTest::TempDir dir;
    ZelTest::LogCapture capture;
    const std::string text = "{\"gidToken\":\"abc\"}";
    FileUtil::Store(dir.path(), "coreToken", text);
    std::string name = nameFor("coreToken", 0, text);
    std::string flipped = text;
    flipped[5] ^= 0x01;
    ZelTest::WriteFile(dir.file(name), flipped);

    std::string content = "untouched";
    EXPECT_FALSE(FileUtil::Load(dir.path(), "coreToken", content));
    EXPECT_EQ("untouched", content);
    EXPECT_TRUE(capture.contains("Bad file hash"));
    EXPECT_TRUE(capture.contains("No valid file"));
    EXPECT_TRUE(listed(dir.path(), "coreToken_").empty());

    EXPECT_FALSE(FileUtil::Load(dir.path(), "coreToken", content));
    EXPECT_TRUE(capture.contains("File list was empty"));
    EXPECT_FALSE(FileUtil::Load(dir.file("missing"), "coreToken", content));
    EXPECT_TRUE(capture.contains("Could not get files"));
}

TEST(FileUtilTest, InterruptedStoreFallsBackToPreviousState) {
    // A power cut after the new file was created but before it was complete:
    // the newer file fails its digest and the older state is still read.
    ZelTest::TempDir dir;
    ZelTest::LogCapture capture;
    FileUtil::Store(dir.path(), "session", "{\"v\":8}");
    for (int i = 0; i < 8; ++i) {
        FileUtil::Store(dir.path(), "session", "{\"v\":" + std::to_string(9 + i) + "}");
    }
    // Now at version 8; simulate versions 9 and then 0 (wrapped) being written.
    FileUtil::Store(dir.path(), "session", "{\"v\":good}");
    std::string goodName = nameFor("session", 9, "{\"v\":good}");
    ASSERT_EQ(Files{goodName}, listed(dir.path(), "session_"));
    std::string partialName = nameFor("session", 0, "{\"v\":next}");
    ZelTest::WriteFile(dir.file(partialName), "{\"v\":ne");

    std::string content;
    ASSERT_TRUE(FileUtil::Load(dir.path(), "session", content));
    EXPECT_EQ("{\"v\":good}", content);
    EXPECT_TRUE(capture.contains("Bad file hash"));
    EXPECT_EQ(Files{goodName}, listed(dir.path(), "session_"));

    // Two valid neighbours across the wrap: the wrapped one is newer, and the
    // next store continues after it and removes both.
    const std::string newer = "{\"v\":newer}";
    ZelTest::WriteFile(dir.file(nameFor("session", 0, newer)), newer);
    ASSERT_TRUE(FileUtil::Load(dir.path(), "session", content));
    EXPECT_EQ(newer, content);
    FileUtil::Store(dir.path(), "session", "{\"v\":last}");
    EXPECT_EQ(Files{nameFor("session", 1, "{\"v\":last}")}, listed(dir.path(), "session_"));
}

TEST(FileUtilTest, FailedWriteKeepsOldFiles) {
    ZelTest::TempDir dir;
    ZelTest::LogCapture capture;
    FileUtil::Store(dir.path(), "daTime", "{\"old\":true}");
    std::string oldName = nameFor("daTime", 0, "{\"old\":true}");

    // Occupy the new file's name with a directory so that the open fails.
    const std::string text = "{\"new\":true}";
    std::string blocked = dir.file(nameFor("daTime", 1, text));
    ASSERT_EQ(0, mkdir(blocked.c_str(), 0755));
    FileUtil::Store(dir.path(), "daTime", text);

    EXPECT_TRUE(capture.contains("Problem 21 opening file " + blocked + " for writing."));
    EXPECT_FALSE(FileUtil::Store(dir.path(), "daTime", text));
    EXPECT_EQ(Files{oldName}, listed(dir.path(), "daTime_"));
    std::string content;
    ASSERT_TRUE(FileUtil::Load(dir.path(), "daTime", content));
    EXPECT_EQ("{\"old\":true}", content);
}

TEST(FileUtilTest, DropRemovesEveryVersionAndThePlainFile) {
    ZelTest::TempDir dir;
    ZelTest::LogCapture capture;
    FileUtil::Store(dir.path(), "drmp", "{}");
    ZelTest::WriteFile(dir.file("drmp_4_ffff"), "x");
    ZelTest::WriteFile(dir.file("drmp"), "legacy");
    ZelTest::WriteFile(dir.file("drmpOther_0_aa"), "other");

    FileUtil::Drop(dir.path() + "/", "drmp");
    EXPECT_TRUE(listed(dir.path(), "drmp_").empty());
    EXPECT_TRUE(listed(dir.path(), "drmp").size() == 1u);  // drmpOther stays
    EXPECT_FALSE(capture.contains("Error Deleting File."));

    // Nothing left to drop is not an error.
    FileUtil::Drop(dir.path(), "drmp");
    EXPECT_FALSE(capture.contains("Error Deleting File."));
    std::string content;
    EXPECT_FALSE(FileUtil::Load(dir.path(), "drmp", content));
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
        std::function<void(const std::string& path)> make;
    } rows[] = {
        {"FIFO", [](const std::string& path) { ASSERT_EQ(0, mkfifo(path.c_str(), 0600)); }},
        {"link to a device",
         [](const std::string& path) { ASSERT_EQ(0, symlink("/dev/zero", path.c_str())); }},
        {"link to a file outside",
         [&](const std::string& path) { ASSERT_EQ(0, symlink(victim.c_str(), path.c_str())); }},
        {"file over the size cap", [&](const std::string& path) { ZelTest::WriteFile(path, big); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ZelTest::TempDir dir;
        ZelTest::LogCapture capture;
        row.make(dir.file(nameFor("daTime", 0, "{}")));
        std::string content;
        EXPECT_FALSE(FileUtil::Load(dir.path(), "daTime", content));
        EXPECT_TRUE(listed(dir.path(), "daTime_").empty());

        // A store never writes through an entry that carries the new name.
        row.make(dir.file(nameFor("daTime", 0, "{\"sec\":1}")));
        EXPECT_TRUE(FileUtil::Store(dir.path(), "daTime", "{\"sec\":1}"));
        ASSERT_TRUE(FileUtil::Load(dir.path(), "daTime", content));
        EXPECT_EQ("{\"sec\":1}", content);
    }
    EXPECT_EQ("keep me", ZelTest::ReadFile(victim));
}

TEST(FileUtilTest, UnusableContentIsDeletedAndTheOlderVersionRead) {
    ZelTest::TempDir dir;
    ZelTest::LogCapture capture;
    ZelTest::WriteFile(dir.file(nameFor("b", 3, "old")), "old");
    ZelTest::WriteFile(dir.file(nameFor("b", 4, "bad")), "bad");
    auto usable = [](const std::string& text) { return text != "bad"; };
    std::string content;
    ASSERT_TRUE(FileUtil::Load(dir.path(), "b", content, usable));
    EXPECT_EQ("old", content);
    EXPECT_TRUE(capture.contains("Bad file content"));
    EXPECT_EQ(Files{nameFor("b", 3, "old")}, listed(dir.path(), "b_"));

    EXPECT_FALSE(FileUtil::Store(dir.file("missing"), "b", "new"));
}
