#include "Core/Base/CoreConfig.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "Core/Platform/Logger.h"
#include "support/Config.h"
#include "support/LogCapture.h"

using Zel::Core::CoreConfig;
using ZelTest::LogCapture;
using ZelTest::TempDir;

namespace {

constexpr const char* kLogSource = "Base/CoreConfigTest";

// Runs the test body in a scratch working directory and restores the old one.
class CoreConfigTest : public ::testing::Test {
protected:
    void SetUp() override {
        char buffer[1024];
        previous_ = getcwd(buffer, sizeof buffer);
        ASSERT_EQ(0, chdir(scratch_.path().c_str()));
        cwd_ = getcwd(buffer, sizeof buffer);
    }
    void TearDown() override { ASSERT_EQ(0, chdir(previous_.c_str())); }

    TempDir scratch_;
    std::string previous_;
    std::string cwd_;
};

TEST_F(CoreConfigTest, DocumentsGiveTheirSettingsOrTheDefaults) {
    ASSERT_EQ(0, mkdir("made", 0775));
    ZelTest::WriteFile("plain", "x");
    const std::string here = cwd_ + "/";
    const struct {
        const char* name;
        const char* text;
        std::string persistent;
        std::string temporary;
        bool skipCurl;
        std::string version;
        std::vector<std::string> logged;
    } rows[] = {
        {"none", nullptr, here, here, false, "1.0", {}},
        {"empty", "", here, here, false, "1.0", {}},
        {"not JSON", "not json {", here, here, false, "1.0", {}},
        {"an array", "[1, 2]", here, here, false, "1.0", {}},
        {"no core section", R"({"other": {}})", here, here, false, "1.0", {}},
        {"core not an object", R"({"core": 7})", here, here, false, "1.0", {}},
        {"every key",
         R"({"core": {"skipCurlGlobalInit": true, "initialSimulatedSwVersion": "2.5.1",
            "persistentPath": "/p", "temporaryPath": "/t/"}})",
         "/p/",
         "/t/",
         true,
         "2.5.1",
         {}},
        // 1 converts to true and 3 to "3"; an object is no path.
        {"mistyped keys",
         R"({"core": {"skipCurlGlobalInit": 1, "initialSimulatedSwVersion": 3,
            "persistentPath": {}}})",
         here,
         here,
         true,
         "3",
         {"Value of \"persistentPath\" ignored: not text"}},
        // Absolute paths are the firmware's business: not checked.
        {"absolute paths that do not exist",
         R"({"core": {"persistentPath": "/nonexistent/p",
            "temporaryPath": "/nonexistent/t/"}})",
         "/nonexistent/p/",
         "/nonexistent/t/",
         false,
         "1.0",
         {}},
        {"relative paths that do not exist",
         R"({"core": {"persistentPath": "data", "temporaryPath": "scratch/"}})",
         here + "data/",
         here + "scratch/",
         false,
         "1.0",
         {"PERSISTENT DIRECTORY " + here + "data IS NOT USABLE!",
          "TEMPORARY DIRECTORY " + here + "scratch/ IS NOT USABLE!"}},
        {"a relative path that exists",
         R"({"core": {"persistentPath": "made"}})",
         here + "made/",
         here,
         false,
         "1.0",
         {}},
        {"a plain file is no directory",
         R"({"core": {"persistentPath": "plain"}})",
         here + "plain/",
         here,
         false,
         "1.0",
         {"PERSISTENT DIRECTORY " + here + "plain IS NOT USABLE!"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        LogCapture capture;
        CoreConfig config(row.text);
        EXPECT_EQ(row.persistent, config.getPersistentPath());
        EXPECT_EQ(row.temporary, config.getTemporaryPath());
        EXPECT_EQ(row.skipCurl, config.getSkipCurlGlobalInit());
        EXPECT_EQ(row.version, config.getInitialSimulatedSwVersion());
        EXPECT_EQ(row.logged, capture.messages());
    }
}

TEST_F(CoreConfigTest, LoggersAreConfiguredOnlyWithCoreSection) {
    Zel::Core::Logger::Instance().terminate();
    ZelTest::ConfigDoc document = ZelTest::ConfigDoc().logTo(scratch_.file("log"), "trace");
    ZelTest::LogFile log(scratch_.file("log"));
    auto logOneLine = [] {
        ZEL_LOG(Zel::Core::ServiceCore, Zel::Core::CategoryState, Zel::Core::SeverityError,
                "probe line");
    };
    CoreConfig ignored(document.text().c_str());
    logOneLine();
    EXPECT_EQ(0u, log.count("probe line"));

    CoreConfig applied(document.core("persistentPath", "/p").text().c_str());
    logOneLine();
    Zel::Core::Logger::Instance().terminate();
    EXPECT_EQ(1u, log.count("probe line"));
}

}  // namespace
