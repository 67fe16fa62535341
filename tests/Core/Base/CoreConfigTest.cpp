#include "Core/Base/CoreConfig.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "support/Config.h"
#include "support/LogCapture.h"

using Zel::Core::CoreConfig;
using ZelTest::LogCapture;
using ZelTest::TempDir;

namespace {

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

// "~" stands for the working directory.
TEST_F(CoreConfigTest, DocumentsGiveTheirSettingsOrTheDefaults) {
    ZelTest::WriteFile("plain", "x");
    const std::string kDefaults = "~/ ~/ 0 1.0";
    const struct {
        const char* text;
        std::string expected;  // persistent and temporary path, skipCurlGlobalInit, version
        std::vector<std::string> logged;
    } rows[] = {
        {nullptr, kDefaults, {}},
        {R"({"core": 7})", kDefaults, {}},
        {R"({"core": {"skipCurlGlobalInit": true, "initialSimulatedSwVersion": "2.5.1",
            "persistentPath": "/p", "temporaryPath": "/t/"}})",
         "/p/ /t/ 1 2.5.1",
         {}},
        // 1 converts to true and 3 to "3"; an object is no path.
        {R"({"core": {"skipCurlGlobalInit": 1, "initialSimulatedSwVersion": 3,
            "persistentPath": {}}})",
         "~/ ~/ 1 3",
         {"Value of \"persistentPath\" ignored: not text"}},
        {R"({"core": {"persistentPath": "data", "temporaryPath": "scratch/"}})",
         "~/data/ ~/scratch/ 0 1.0",
         {"PERSISTENT DIRECTORY ~/data IS NOT USABLE!",
          "TEMPORARY DIRECTORY ~/scratch/ IS NOT USABLE!"}},
        {R"({"core": {"persistentPath": "plain"}})",
         "~/plain/ ~/ 0 1.0",
         {"PERSISTENT DIRECTORY ~/plain IS NOT USABLE!"}},
    };
    auto tilde = [this](std::string text) {
        for (size_t at; (at = text.find(cwd_)) != std::string::npos;) {
            text.replace(at, cwd_.size(), "~");
        }
        return text;
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text == nullptr ? "none" : row.text);
        LogCapture capture;
        CoreConfig config(row.text);
        EXPECT_EQ(row.expected, tilde(config.getPersistentPath() + " " + config.getTemporaryPath() +
                                      " " + std::to_string(config.getSkipCurlGlobalInit()) + " " +
                                      config.getInitialSimulatedSwVersion()));
        std::vector<std::string> logged;
        for (const std::string& message : capture.messages()) {
            logged.push_back(tilde(message));
        }
        EXPECT_EQ(row.logged, logged);
    }
}

}  // namespace
