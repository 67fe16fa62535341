#include "Core/Base/CoreConfig.h"

#include <gtest/gtest.h>
#include <json/value.h>
#include <json/writer.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

using Zel::Core::CoreConfig;
using ZelTest::LogCapture;
using ZelTest::TempDir;

using Zel::Core::JsonUtil;

namespace {

constexpr const char* kLogSource = "Base/CoreConfigTest";

std::string currentDirectory() {
    char buffer[1024];
    return getcwd(buffer, sizeof(buffer)) != nullptr ? buffer : "";
}

// A configuration whose "core" section is `core` (JSON text).
std::string coreDocument(const std::string& core) {
    return "{\"core\": " + core + "}";
}

// Runs the test body in a scratch working directory and restores the old one.
class CoreConfigTest : public ::testing::Test {
protected:
    void SetUp() override {
        previous_ = currentDirectory();
        ASSERT_EQ(0, chdir(scratch_.path().c_str()));
        cwd_ = currentDirectory();
    }
    void TearDown() override { ASSERT_EQ(0, chdir(previous_.c_str())); }

    TempDir scratch_;
    std::string previous_;
    std::string cwd_;
};

TEST_F(CoreConfigTest, DefaultsWithoutUsableDocument) {
    LogCapture capture;
    const char* texts[] = {nullptr, "", "not json {", "[1, 2]", "{\"other\": {}}", "{\"core\": 7}"};
    for (const char* text : texts) {
        CoreConfig config(text);
        SCOPED_TRACE(text != nullptr ? text : "(null)");
        EXPECT_FALSE(config.getSkipCurlGlobalInit());
        EXPECT_EQ(cwd_ + "/", config.getPersistentPath());
        EXPECT_EQ(cwd_ + "/", config.getTemporaryPath());
        EXPECT_EQ("1.0", config.getInitialSimulatedSwVersion());
    }
    // The working directory exists, so nothing is worth a line.
    EXPECT_TRUE(capture.messages().empty());
}

TEST_F(CoreConfigTest, ReadsCoreKeysAndConvertsMistypedOnes) {
    TempDir persistent;
    TempDir temporary;
    CoreConfig config(coreDocument(R"({"skipCurlGlobalInit": true, "skipSslCryptoInit": true,
        "enableSwVersionSimulation": true, "initialSimulatedSwVersion": "2.5.1", "persistentPath": ")" +
                                   persistent.path() + R"(", "temporaryPath": ")" +
                                   temporary.path() + "/\"}")
                          .c_str());
    EXPECT_TRUE(config.getSkipCurlGlobalInit());
    EXPECT_TRUE(config.getSkipSslCryptoInit());
    EXPECT_EQ(persistent.path() + "/", config.getPersistentPath());
    EXPECT_EQ(temporary.path() + "/", config.getTemporaryPath());
    EXPECT_TRUE(config.getEnableSwVersionSimulation());
    EXPECT_EQ("2.5.1", config.getInitialSimulatedSwVersion());

    // 1 converts to true, "yes" does not convert: default.
    CoreConfig converted(coreDocument(R"({"skipCurlGlobalInit": 1, "skipSslCryptoInit": "yes",
        "initialSimulatedSwVersion": 3, "persistentPath": {}})")
                             .c_str());
    EXPECT_TRUE(converted.getSkipCurlGlobalInit());
    EXPECT_FALSE(converted.getSkipSslCryptoInit());
    EXPECT_EQ("3", converted.getInitialSimulatedSwVersion());
    EXPECT_EQ(cwd_ + "/", converted.getPersistentPath());
}

TEST_F(CoreConfigTest, RelativePathsAreCompletedAndChecked) {
    LogCapture capture;
    const std::string core =
        coreDocument(R"({"persistentPath": "data", "temporaryPath": "scratch/"})");
    {
        CoreConfig config(core.c_str());
        EXPECT_EQ(cwd_ + "/data/", config.getPersistentPath());
        EXPECT_EQ(cwd_ + "/scratch/", config.getTemporaryPath());
    }
    EXPECT_EQ(1u, capture.count("PERSISTENT DIRECTORY " + cwd_ + "/data IS NOT USABLE!"));
    EXPECT_EQ(1u, capture.count("TEMPORARY DIRECTORY " + cwd_ + "/scratch/ IS NOT USABLE!"));
    EXPECT_EQ(2u, capture.messages().size());

    // Once the directories exist, the same document is quiet.
    ASSERT_EQ(0, mkdir("data", 0775));
    ASSERT_EQ(0, mkdir("scratch", 0775));
    CoreConfig again(core.c_str());
    EXPECT_EQ(cwd_ + "/data/", again.getPersistentPath());
    EXPECT_EQ(2u, capture.messages().size());

    // A plain file is not a directory.
    ZelTest::WriteFile(cwd_ + "/plain", "x");
    CoreConfig onFile(coreDocument(R"({"persistentPath": "plain"})").c_str());
    EXPECT_EQ(cwd_ + "/plain/", onFile.getPersistentPath());
    EXPECT_TRUE(capture.contains("PERSISTENT DIRECTORY " + cwd_ + "/plain IS NOT USABLE!"));
}

TEST_F(CoreConfigTest, AbsolutePathsAreKeptUnchecked) {
    LogCapture capture;
    CoreConfig config(coreDocument(R"({"persistentPath": "/nonexistent/zel/persist",
        "temporaryPath": "/nonexistent/zel/tmp/"})")
                          .c_str());
    EXPECT_EQ("/nonexistent/zel/persist/", config.getPersistentPath());
    EXPECT_EQ("/nonexistent/zel/tmp/", config.getTemporaryPath());
    EXPECT_TRUE(capture.messages().empty());
}

TEST_F(CoreConfigTest, LoggersAreConfiguredOnlyWithCoreSection) {
    Zel::Core::Logger::Instance().terminate();
    TempDir logs;
    const std::string path = logs.file("log.txt");
    auto logOneLine = [] {
        ZEL_LOG(Zel::Core::ServiceCore, Zel::Core::CategoryState, Zel::Core::SeverityError,
                "probe line");
    };

    Json::Value withoutCore;
    withoutCore["loggers"] = LogCapture::LoggersConfig(path, "trace");
    CoreConfig ignored(JsonUtil::Compact(withoutCore).c_str());
    logOneLine();
    EXPECT_EQ("", ZelTest::ReadFile(path));

    Json::Value withCore = withoutCore;
    withCore["core"] = Json::Value(Json::objectValue);
    CoreConfig applied(JsonUtil::Compact(withCore).c_str());
    logOneLine();
    Zel::Core::Logger::Instance().terminate();
    EXPECT_EQ("probe line\n", ZelTest::ReadFile(path));
}

}  // namespace
