#include "Core/Project/KorvanePlugin.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Core/Platform/JsonUtil.h"
#include "Core/Project/DeviceValues.h"
#include "Core/Project/ProductIdentity.h"
#include "support/LogCapture.h"
#include "support/Pki.h"
#include "support/TempDir.h"

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

// Sets (or, given nullptr, unsets) an environment variable for one scope.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) {
            old_ = old;
        }
        set(value);
    }
    ~ScopedEnv() { set(old_ ? old_->c_str() : nullptr); }

private:
    void set(const char* value) { value != nullptr ? setenv(name_, value, 1) : unsetenv(name_); }

    const char* name_;
    std::optional<std::string> old_;
};

bool keyOpensWith(const std::string& keyPem, const std::string& password) {
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(
        BIO_new_mem_buf(keyPem.data(), static_cast<int>(keyPem.size())), &BIO_free);
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
        PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, const_cast<char*>(password.c_str())),
        &EVP_PKEY_free);
    return key != nullptr;
}

void collectCommand(void* registry, const ZelKorvaneCommand* command) {
    auto* commands = static_cast<std::vector<std::pair<std::string, ZelKorvaneCommand>>*>(registry);
    commands->emplace_back(command->name, *command);
}

void collectOutput(void* writeContext, const char* json) {
    *static_cast<std::string*>(writeContext) = json;
}

class KorvanePluginTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(std::filesystem::exists(kSample)) << "build the zel_korvane_sample target";
        ASSERT_TRUE(std::filesystem::exists(kSampleWithoutCommands));
    }
};

TEST_F(KorvanePluginTest, ProcessPluginComesFromTheOverride) {
    EXPECT_EQ(kSample, KorvanePlugin::LibraryPath());
    {
        ScopedEnv unset("ZEL_KORVANE_PLUGIN", nullptr);
        EXPECT_EQ("/usr/local/lib/libzel_korvane.so", KorvanePlugin::LibraryPath());
    }
    KorvanePlugin& plugin = KorvanePlugin::Instance();
    ASSERT_TRUE(plugin.isLoaded());
}

TEST_F(KorvanePluginTest, PluginPasswordOpensTheDeviceKey) {
    const ZelTest::Pki& pki = ZelTest::Pki::Get("zel.localhost:18443");
    ASSERT_TRUE(pki.ok()) << pki.error();
    Json::Value document = ZelTest::ParseJson(pki.identityJson());
    const std::string passPhrase = document["password"].asString();
    ASSERT_FALSE(passPhrase.empty());
    document.removeMember("password");

    {
        ScopedEnv password("ZEL_KORVANE_SAMPLE_PASSWORD", passPhrase.c_str());
        ProductIdentity identity(JsonUtil::Compact(document).c_str());
        ASSERT_TRUE(identity.isValid());
        EXPECT_EQ(passPhrase, identity.getPassword());
        EXPECT_TRUE(keyOpensWith(identity.getKey(), identity.getPassword()));

        // The document's own pass phrase wins over the plug-in's.
        document["password"] = "from-document";
        ProductIdentity overridden(JsonUtil::Compact(document).c_str());
        EXPECT_EQ("from-document", overridden.getPassword());
        EXPECT_FALSE(keyOpensWith(overridden.getKey(), overridden.getPassword()));
        document.removeMember("password");
    }
    {
        ScopedEnv password("ZEL_KORVANE_SAMPLE_PASSWORD", "wrong");
        ProductIdentity identity(JsonUtil::Compact(document).c_str());
        EXPECT_EQ("wrong", identity.getPassword());
        EXPECT_FALSE(keyOpensWith(identity.getKey(), identity.getPassword()));
    }
}

TEST_F(KorvanePluginTest, SamplePasswordCanComeFromFileBesideTheLibrary) {
    TempDir dir;
    const std::string copy = dir.file("libzel_korvane_copy.so");
    std::filesystem::copy_file(kSample, copy);
    ZelTest::WriteFile(copy + ".pass", "from-file\n");
    ScopedEnv unset("ZEL_KORVANE_SAMPLE_PASSWORD", nullptr);
    KorvanePlugin plugin(copy);
    std::string password;
    EXPECT_TRUE(plugin.getZelPassword(password));
    EXPECT_EQ("from-file", password);
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

TEST_F(KorvanePluginTest, CommandsAndVideoEntryPointsWork) {
    KorvanePlugin& plugin = KorvanePlugin::Instance();
    ASSERT_NE(nullptr, plugin.createCommandsExt);
    std::vector<std::pair<std::string, ZelKorvaneCommand>> commands;
    plugin.createCommandsExt(&collectCommand, &commands);
    ASSERT_EQ(2u, commands.size());
    EXPECT_EQ("FFFFFF_LIVE_SUPPORT_CHECK_FOR_UPDATES", commands[0].first);
    EXPECT_EQ("KORVANE_SAMPLE_ECHO", commands[1].first);

    const ZelKorvaneCommand& echo = commands[1].second;
    std::string output;
    EXPECT_EQ(0u, echo.handler(echo.context, ZEL_KORVANE_OPERATION_EXECUTE, "{\"a\": [1, 2]}",
                               &collectOutput, &output));
    EXPECT_EQ(ZelTest::ParseJson("{\"ECHO\": {\"a\": [1, 2]}}"), ZelTest::ParseJson(output));
    EXPECT_EQ(
        4u, echo.handler(echo.context, ZEL_KORVANE_OPERATION_GET, "null", &collectOutput, &output));

    uint32_t visibleWidth = 0;
    uint32_t visibleHeight = 0;
    const uint32_t width = plugin.getVideoWidthExt(&visibleWidth);
    const uint32_t height = plugin.getVideoHeightExt(&visibleHeight);
    std::vector<uint8_t> frame(width * height * 4);
    EXPECT_EQ(
        static_cast<int32_t>(frame.size()),
        plugin.fillVideoBufferExt(frame.data(), frame.size(), ZEL_KORVANE_LAYER_GRAPHICS_VIDEO));
    EXPECT_EQ(255, frame[3]);
    EXPECT_GT(0, plugin.fillVideoBufferExt(frame.data(), frame.size() - 1,
                                           ZEL_KORVANE_LAYER_GRAPHICS_VIDEO));
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
    bool logged = false;
    for (const std::string& line : capture.messages()) {
        logged = logged || line.rfind("can't dlopen : " + dir.file("libbroken.so"), 0) == 0;
    }
    EXPECT_TRUE(logged);
}

}  // namespace
