#include "Core/Project/KorvanePlugin.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "Core/Platform/JsonUtil.h"
#include "Core/Project/DeviceValues.h"
#include "Core/Project/ProductIdentity.h"
#include "support/LogCapture.h"
#include "support/Pki.h"

using korvane::KorvanePlugin;
using Zel::Core::DeviceValues;
using Zel::Core::ProductIdentity;
using ZelTest::LogCapture;
using ZelTest::TempDir;

using Zel::Core::JsonUtil;

namespace {

const std::string kSampleDir = std::string(ZEL_BINARY_DIR) + "/tools/korvane/";
const std::string kSample = kSampleDir + "libzel_korvane_sample.so";
const std::string kSampleWithoutCommands = kSampleDir + "libzel_korvane_sample_nocommands.so";

// The process-wide plug-in of this test is the sample library.
const bool kSamplePlugin = setenv("ZEL_KORVANE_PLUGIN", kSample.c_str(), 1) == 0;

class KorvanePluginTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(std::filesystem::exists(kSample)) << "build the zel_korvane_sample target";
        ASSERT_TRUE(std::filesystem::exists(kSampleWithoutCommands));
    }
};

TEST_F(KorvanePluginTest, ProcessPluginComesFromTheOverride) {
    EXPECT_EQ(kSample, KorvanePlugin::LibraryPath());
    ASSERT_TRUE(KorvanePlugin::Instance().isLoaded());
    unsetenv("ZEL_KORVANE_PLUGIN");
    EXPECT_EQ("/usr/local/lib/libzel_korvane.so", KorvanePlugin::LibraryPath());
    setenv("ZEL_KORVANE_PLUGIN", kSample.c_str(), 1);
}

TEST_F(KorvanePluginTest, PluginPasswordServesAnIdentityWithoutOne) {
    Json::Value document = ZelTest::ParseJson(ZelTest::Pki::Get().identityJson());
    document.removeMember("password");
    // The sample hands out what this variable holds.
    setenv("ZEL_KORVANE_SAMPLE_PASSWORD", "from-plugin", 1);
    EXPECT_EQ("from-plugin", ProductIdentity(JsonUtil::Compact(document).c_str()).getPassword());
    // The document's own pass phrase wins over the plug-in's.
    document["password"] = "from-document";
    EXPECT_EQ("from-document", ProductIdentity(JsonUtil::Compact(document).c_str()).getPassword());
    unsetenv("ZEL_KORVANE_SAMPLE_PASSWORD");
}

TEST_F(KorvanePluginTest, DeviceValuesComeFromPluginUnlessTheDocumentHasThem) {
    DeviceValues fromPlugin("{}", nullptr);
    EXPECT_EQ("KorvaneSample", fromPlugin.getModel());
    EXPECT_EQ("Korvane", fromPlugin.getBrand());
    // "initialize" ran before the values were asked for.
    EXPECT_EQ("KorvaneOS", fromPlugin.getPlatform());
    EXPECT_FALSE(fromPlugin.getId().empty());

    DeviceValues fromDocument(R"({"model": "doc-model", "id": "doc-id"})", nullptr);
    EXPECT_EQ("doc-model", fromDocument.getModel());
    EXPECT_EQ("Korvane", fromDocument.getBrand());
}

TEST_F(KorvanePluginTest, MissingEntryPointIsLoggedAndSurvived) {
    LogCapture capture;
    KorvanePlugin plugin(kSampleWithoutCommands);
    ASSERT_TRUE(plugin.isLoaded());
    EXPECT_EQ(nullptr, plugin.createCommandsExt);
    EXPECT_NE(nullptr, plugin.getZelPasswordExt);
    const std::vector<std::string> expected = {"createCommandsExt null : "};
    EXPECT_EQ(expected, capture.messages());
}

TEST_F(KorvanePluginTest, MissingOrBrokenLibraryLeavesNoEntryPoints) {
    LogCapture capture;
    {
        KorvanePlugin plugin("/nonexistent/dir/libzel_korvane.so");
        EXPECT_FALSE(plugin.isLoaded());
        std::string password = "unchanged";
        EXPECT_FALSE(plugin.getZelPassword(password));
        EXPECT_EQ("unchanged", password);
    }
    EXPECT_TRUE(capture.contains("no /nonexistent/dir/libzel_korvane.so"));

    TempDir dir;
    ZelTest::WriteFile(dir.file("libbroken.so"), "not an ELF file");
    KorvanePlugin broken(dir.file("libbroken.so"));
    EXPECT_FALSE(broken.isLoaded());
    EXPECT_NE("", capture.find("can't dlopen : " + dir.file("libbroken.so")));
}

}  // namespace
