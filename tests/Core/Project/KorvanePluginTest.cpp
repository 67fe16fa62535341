#include "Core/Project/KorvanePlugin.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "Core/Platform/JsonUtil.h"
#include "Core/Project/DeviceValues.h"
#include "Core/Project/ProductIdentity.h"
#include "SupportView/Base/CommandExecutor.h"
#include "SupportView/Base/CommandManager.h"
#include "support/LogCapture.h"
#include "support/Pki.h"

using korvane::KorvanePlugin;
using Zel::Core::DeviceValues;
using Zel::Core::JsonUtil;
using Zel::Core::ProductIdentity;
using ZelTest::LogCapture;
using ZelTest::TempDir;

namespace {

const std::string kSampleDir = std::string(ZEL_BINARY_DIR) + "/tools/korvane/";
const std::string kSample = kSampleDir + "libzel_korvane_sample.so";
const std::string kSampleWithoutCommands = kSampleDir + "libzel_korvane_sample_nocommands.so";

// The process-wide plug-in of this test is the sample library.
const bool kSamplePlugin = setenv("ZEL_KORVANE_PLUGIN", kSample.c_str(), 1) == 0;

TEST(KorvanePluginTest, PluginPasswordServesAnIdentityWithoutOne) {
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

TEST(KorvanePluginTest, DeviceValuesComeFromPluginUnlessTheDocumentHasThem) {
    DeviceValues fromPlugin("{}", nullptr);
    EXPECT_EQ("KorvaneSample", fromPlugin.getModel());
    // "initialize" ran before the values were asked for.
    EXPECT_EQ("KorvaneOS", fromPlugin.getPlatform());

    DeviceValues fromDocument(R"({"model": "doc-model", "id": "doc-id"})", nullptr);
    EXPECT_EQ("doc-model", fromDocument.getModel());
    EXPECT_EQ("Korvane", fromDocument.getBrand());
}

TEST(KorvanePluginTest, MissingPartsAreLoggedAndSurvived) {
    LogCapture capture;
    KorvanePlugin partial(kSampleWithoutCommands);
    ASSERT_TRUE(partial.isLoaded());
    EXPECT_EQ(nullptr, partial.createCommandsExt);
    EXPECT_NE(nullptr, partial.getZelPasswordExt);
    EXPECT_EQ(std::vector<std::string>{"createCommandsExt null : "}, capture.messages());

    KorvanePlugin missing("/nonexistent/dir/libzel_korvane.so");
    EXPECT_FALSE(missing.isLoaded());
    std::string password = "unchanged";
    EXPECT_FALSE(missing.getZelPassword(password));
    EXPECT_EQ("unchanged", password);
    TempDir dir;
    ZelTest::WriteFile(dir.file("libbroken.so"), "not an ELF file");
    EXPECT_FALSE(KorvanePlugin(dir.file("libbroken.so")).isLoaded());
    EXPECT_NE("", capture.find("can't dlopen : " + dir.file("libbroken.so")));
}

// Outputs[0]["DATA"] of one command run through the framework.
Json::Value runCommand(const char* name, const Json::Value& inputs, unsigned& result) {
    Json::Value request;
    request["COMMAND"]["NAME"] = name;
    request["INPUTS"] = inputs;
    Json::Value response;
    Zel::Sv::CommandExecutor::processCommand(request, response);
    result = response["RESULT"].asUInt();
    return response["OUTPUTS"][0]["DATA"];
}

TEST(KorvanePluginTest, SampleAddsOneCommandAndReplacesOne) {
    LogCapture capture;
    Zel::Sv::CommandManager& manager = Zel::Sv::CommandManager::Instance();
    manager.initialize("FFFFFF0ACC", "zel.localhost", "id", "model", "brand", "esn", "mac", "1");
    EXPECT_NE("", capture.find("FFFFFF_LIVE_SUPPORT_CHECK_FOR_UPDATES replaced by korvane\n"));
    EXPECT_NE("", capture.find("KORVANE_SAMPLE_ECHO added by korvane\n"));

    unsigned result = 99;
    EXPECT_FALSE(runCommand("FFFFFF_LIVE_SUPPORT_CHECK_FOR_UPDATES", Json::Value(Json::objectValue),
                            result)["SOFTWARE_CURRENT_FLAG"]
                     .asBool());
    EXPECT_EQ(0u, result);
    Json::Value inputs;
    inputs["say"] = "hello";
    EXPECT_EQ(inputs, runCommand("KORVANE_SAMPLE_ECHO", inputs, result)["ECHO"]);
    EXPECT_EQ(0u, result);
    EXPECT_EQ(10u, manager.find("KORVANE_SAMPLE_ECHO")->timeToComplete());
    // The built-in commands the plug-in leaves alone stay.
    EXPECT_TRUE(manager.find("FFFFFF_LIVE_SUPPORT_GET_DEVICE_INFO"));
    manager.terminate();
}

}  // namespace
