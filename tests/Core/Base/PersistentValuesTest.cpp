#include "Core/Base/PersistentValues.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "Core/Base/CoreConfig.h"
#include "Core/Platform/Base64Util.h"
#include "Core/Platform/FileUtil.h"
#include "Core/Project/DeviceValues.h"
#include "Core/Project/ProductIdentity.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

using Zel::Core::Base64Util;
using Zel::Core::CoreConfig;
using Zel::Core::DeviceValues;
using Zel::Core::FileUtil;
using Zel::Core::PersistentBase;
using Zel::Core::PersistentValues;
using Zel::Core::ProductIdentity;
using ZelTest::LogCapture;
using ZelTest::TempDir;

namespace {

// No vendor plug-in in this process: the machine defaults are what we test.
const bool kNoPlugin = setenv("ZEL_KORVANE_PLUGIN", "/nonexistent/libzel_korvane.so", 1) == 0;

std::string compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

Json::Value parse(const std::string& text) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string errors;
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, &errors)) << text;
    return root;
}

std::vector<std::string> filesOf(const std::string& dir, const std::string& base) {
    std::vector<std::string> files;
    FileUtil::getFilesWithBase(dir, base + "_", files);
    return files;
}

// A self-signed certificate with the given common name, made with the openssl tool.
std::string makeCertificate(const TempDir& dir, const std::string& commonName) {
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1"
        " -nodes -days 2 -subj '/CN=" +
        commonName + "' -keyout '" + dir.file("key.pem") + "' -out '" + dir.file("cert.pem") +
        "' >/dev/null 2>&1";
    EXPECT_EQ(0, std::system(command.c_str()));
    return ZelTest::ReadFile(dir.file("cert.pem"));
}

std::string identityDocument(const std::string& certPem) {
    Json::Value root;
    root["cert"] = Base64Util::Encode(certPem);
    return compact(root);
}

// Every persisted member with a value different from its default.
Json::Value allNonDefault() {
    Json::Value v(Json::objectValue);
    v["gidToken"] = "gid-token-1";
    v["synchronized"] = true;
    v["testMode"] = true;
    v["sdkVersion"] = "4.8.0-255-g4399f3ce";
    v["certOpid"] = "OPID01";
    v["certInstance"] = "cloud.example";
    v["deviceId"] = "id-1";
    v["deviceModel"] = "model-1";
    v["deviceSubModel"] = "sub-1";
    v["oemMsg"] = "hello";
    v["devicePlatform"] = "platform-1";
    v["deviceBrand"] = "brand-1";
    v["deviceEsn"] = "esn-1";
    v["deviceMac"] = "01:02:03:04:05:06";
    v["deviceSwVersion"] = "9.9";
    static const char* const kNumbers[] = {"opidSeqNum",
                                           "gidSeqNum",
                                           "dsAggressiveQueuePercentage",
                                           "dsStandardDelayFixedMs",
                                           "dsStandardDelayVariedMs",
                                           "dsAggressiveDelayFixedMs",
                                           "dsAggressiveDelayVariedMs",
                                           "daConnectTimeoutMs",
                                           "daMessageTimeoutMs",
                                           "daPollDelayFixedMs",
                                           "daPollDelayVariedMs",
                                           "daRetryDelayFixedMs",
                                           "daRetryDelayVariedMs",
                                           "daStartupDelayFixedMs",
                                           "daStartupDelayVariedMs",
                                           "dsConnectTimeoutMs",
                                           "dsMessageTimeoutMs",
                                           "dsRetryDelayFixedMs",
                                           "dsRetryDelayVariedMs",
                                           "dsStartupDelayFixedMs",
                                           "dsStartupDelayVariedMs",
                                           "svConnectTimeoutMs",
                                           "svMessageTimeoutMs",
                                           "svRetryDelayFixedMs",
                                           "svRetryDelayVariedMs",
                                           "svActiveTimeoutMs",
                                           "svPausedTimeoutMs",
                                           "svNetworkDiagTimeoutMs",
                                           "svSpeedTestDownloadSize",
                                           "svSpeedTestDownloadTimeMs",
                                           "svSpeedTestUploadSize",
                                           "svSpeedTestUploadTimeMs",
                                           "suConnectTimeoutMs",
                                           "suMessageTimeoutMs",
                                           "suMaxRetryCount",
                                           "suRetryDelayFixedMs",
                                           "suRetryDelayVariedMs",
                                           "suStagingConnectTimeoutMs",
                                           "suStagingMessageTimeoutMs",
                                           "suStagingMaxRetryCount",
                                           "suStagingRetryDelayFixedMs",
                                           "suStagingRetryDelayVariedMs"};
    uint32_t n = 1;
    for (const char* key : kNumbers) {
        v[key] = 7000000u + n++;
    }
    v["daSupportViewEnabled"] = true;
    v["svLbrAwsDomain"] = "lbr.example";
    v["svMrsUrl"] = "https://mrs.example";
    v["svPingTestHostname"] = "ping.example";
    v["svSpeedTestDownloadUrl"] = "https://down.example";
    v["svSpeedTestUploadUrl"] = "https://up.example";
    v["daConsentUrl"] = "https://consent.example";
    v["daConsentState"] = 3u;
    v["suCheckForSoftwareUpdate"] = true;
    v["dsAllowedDataItemIds"].append("item-a");
    v["dsAllowedDataItemIds"].append("item-b");
    return v;
}

class PersistentValuesTest : public ::testing::Test {
protected:
    PersistentValuesTest() : config_(configText().c_str()) {}

    std::string configText() const {
        Json::Value root;
        root["core"]["persistentPath"] = dir_.path();
        return compact(root);
    }
    std::string dir() const { return config_.getPersistentPath(); }
    std::unique_ptr<PersistentValues> make(const ProductIdentity* identity = nullptr,
                                           const DeviceValues* device = nullptr) {
        return std::make_unique<PersistentValues>(identity, &config_, device);
    }

    TempDir dir_;
    CoreConfig config_;
};

TEST_F(PersistentValuesTest, FreshDeviceHasDefaultsAndStoresOnce) {
    auto values = make();
    EXPECT_EQ("", values->getGidToken());
    EXPECT_EQ(3150000u, values->getDaPollDelayFixedMs());
    EXPECT_FALSE(values->isPersisted());

    values->store();
    EXPECT_TRUE(values->isPersisted());
    std::vector<std::string> files = filesOf(dir(), "coreValues");
    ASSERT_EQ(1u, files.size());
    EXPECT_EQ(0, FileUtil::parseVersion(files[0]));

    // No change: no second write (which would be version 1).
    values->store();
    EXPECT_EQ(files, filesOf(dir(), "coreValues"));

    // A setter that does not change the value keeps the persisted state.
    EXPECT_FALSE(values->setDaPollDelayFixedMs(3150000u));
    EXPECT_TRUE(values->isPersisted());
    EXPECT_TRUE(values->setDaPollDelayFixedMs(1000u));
    EXPECT_FALSE(values->isPersisted());
    values->store();
    files = filesOf(dir(), "coreValues");
    ASSERT_EQ(1u, files.size());
    EXPECT_EQ(1, FileUtil::parseVersion(files[0]));
    // No token yet, so no token file.
    EXPECT_TRUE(filesOf(dir(), "coreToken").empty());
}

TEST_F(PersistentValuesTest, EveryFieldSurvivesStoreAndLoad) {
    // Compared as text: jsoncpp tells signed from unsigned numbers apart.
    const Json::Value expected = allNonDefault();
    {
        auto values = make();
        ASSERT_TRUE(values->unmarshal(compact(expected)));
        std::string text;
        values->marshal(text);
        EXPECT_EQ(compact(expected), compact(parse(text)));
        values->store();
    }
    auto loaded = make();
    EXPECT_TRUE(loaded->isPersisted());
    std::string text;
    loaded->marshal(text);
    EXPECT_EQ(compact(expected), compact(parse(text)));
    EXPECT_EQ((std::vector<std::string>{"item-a", "item-b"}), loaded->getDsAllowedDataItemIds());
}

TEST_F(PersistentValuesTest, MissingOrMistypedKeysKeepDefaults) {
    Json::Value partial;
    partial["svMrsUrl"] = "https://mrs.example";
    partial["daRetryDelayFixedMs"] = 42;
    partial["daPollDelayFixedMs"] = "12";
    partial["testMode"] = 1;
    partial["gidToken"] = 5;
    partial["opidSeqNum"] = -3;
    partial["gidSeqNum"] = 1.5;
    partial["dsAllowedDataItemIds"].append("a");
    partial["dsAllowedDataItemIds"].append(3);
    partial["daConsentState"] = 9;
    FileUtil::Store(dir(), "coreValues", compact(partial));

    auto values = make();
    EXPECT_EQ("https://mrs.example", values->getSvMrsUrl());
    EXPECT_EQ(42u, values->getDaRetryDelayFixedMs());
    EXPECT_EQ(3150000u, values->getDaPollDelayFixedMs());
    EXPECT_FALSE(values->getTestMode());
    EXPECT_EQ("", values->getGidToken());
    EXPECT_EQ(0u, values->getOpidSeqNum());
    EXPECT_TRUE(values->getDsAllowedDataItemIds().empty());
    EXPECT_EQ(Zel::Core::ConsentStateNotAvailable, values->getDaConsentState());

    EXPECT_FALSE(values->unmarshal("not json"));
    EXPECT_FALSE(values->unmarshal("[1]"));
    EXPECT_EQ("https://mrs.example", values->getSvMrsUrl());
}

TEST_F(PersistentValuesTest, CorruptOrHalfWrittenValuesFileIsDiscarded) {
    Json::Value stored = allNonDefault();
    const std::string content = compact(stored);
    // Half-written: the name promises the whole text, the file holds half of it.
    const std::string halfName =
        "coreValues_0_" + FileUtil::calcMd5Hash(content.data(), content.size());
    ZelTest::WriteFile(dir_.file(halfName), content.substr(0, content.size() / 2));
    {
        LogCapture capture;
        auto values = make();
        EXPECT_TRUE(capture.contains("Bad file hash"));
        EXPECT_EQ("", values->getGidToken());
        EXPECT_FALSE(values->isPersisted());
    }
    EXPECT_TRUE(filesOf(dir(), "coreValues").empty());

    // Intact envelope, body not JSON: defaults as well.
    FileUtil::Store(dir(), "coreValues", "{\"gidToken\": \"x\",");
    auto values = make();
    EXPECT_EQ("", values->getGidToken());
    EXPECT_FALSE(values->isPersisted());
}

TEST_F(PersistentValuesTest, TokenFileSurvivesLossOfValuesFile) {
    {
        LogCapture capture;
        auto values = make();
        EXPECT_TRUE(values->setGidToken("secret-token"));
        EXPECT_EQ("secret-token", values->getBackupToken());
        values->store();
        // The token itself never reaches the log.
        for (const std::string& line : capture.messages()) {
            EXPECT_EQ(std::string::npos, line.find("secret-token")) << line;
        }
        EXPECT_EQ(1u, filesOf(dir(), "coreToken").size());
    }
    FileUtil::Drop(dir(), "coreValues");
    {
        auto values = make();
        EXPECT_EQ("", values->getGidToken());
        EXPECT_EQ("secret-token", values->getBackupToken());
        // Recovery copies the backup back; the token file is not rewritten.
        const std::vector<std::string> before = filesOf(dir(), "coreToken");
        EXPECT_TRUE(values->setGidToken(values->getBackupToken()));
        EXPECT_EQ(before, filesOf(dir(), "coreToken"));
        values->store();
    }
    auto values = make();
    EXPECT_EQ("secret-token", values->getGidToken());
    EXPECT_EQ("secret-token", values->getBackupToken());

    // A factory reset offline only has the configuration, and drops both files.
    PersistentBase(&config_).drop();
    EXPECT_TRUE(filesOf(dir(), "coreValues").empty());
    EXPECT_TRUE(filesOf(dir(), "coreToken").empty());
}

TEST_F(PersistentValuesTest, TokenFileFollowsTheGidToken) {
    // A values file with a token but no token file: construction writes it.
    Json::Value stored;
    stored["gidToken"] = "from-values";
    FileUtil::Store(dir(), "coreValues", compact(stored));
    {
        LogCapture capture;
        auto values = make();
        EXPECT_EQ("from-values", values->getBackupToken());
        std::string token;
        EXPECT_TRUE(FileUtil::Load(dir(), "coreToken", token));
        EXPECT_EQ("from-values", token);

        // A new token replaces the file's content at once.
        EXPECT_TRUE(values->setGidToken("second"));
        EXPECT_FALSE(values->setGidToken("second"));
        EXPECT_TRUE(FileUtil::Load(dir(), "coreToken", token));
        EXPECT_EQ("second", token);

        // A retired token (the cloud refused it) must not be recovered.
        EXPECT_TRUE(values->setGidToken(""));
        EXPECT_EQ("", values->getBackupToken());
        EXPECT_TRUE(filesOf(dir(), "coreToken").empty());
        values->store();
    }
    auto values = make();
    EXPECT_EQ("", values->getGidToken());
    EXPECT_EQ("", values->getBackupToken());
}

TEST_F(PersistentValuesTest, CertificateAndDeviceValuesWinOverStaleFile) {
    TempDir pki;
    ProductIdentity identity(
        identityDocument(makeCertificate(pki, "FFFFFF0ACC.zel.localhost:18443")).c_str());
    ASSERT_TRUE(identity.isValid());
    DeviceValues device(
        R"({"id": "dev-id", "model": "M", "subModel": "S", "platform": "P", "brand": "B",
            "esn": "E", "mac": "0A:0B:0C:0D:0E:0F", "swVersion": "1.2.3"})",
        &config_);

    Json::Value stale = allNonDefault();
    FileUtil::Store(dir(), "coreValues", compact(stale));
    auto values = make(&identity, &device);
    EXPECT_EQ("FFFFFF0ACC", values->getCertOpid());
    EXPECT_EQ("zel.localhost:18443", values->getCertInstance());
    EXPECT_EQ("dev-id", values->getDeviceId());
    EXPECT_EQ("0A:0B:0C:0D:0E:0F", values->getDeviceMac());
    EXPECT_EQ("1.2.3", values->getDeviceSwVersion());
    // Everything else comes from the file, and the changes are still to be stored.
    EXPECT_EQ("gid-token-1", values->getGidToken());
    EXPECT_EQ("hello", values->getOemMsg());
    EXPECT_FALSE(values->isPersisted());

    // A common name without a dot is all operator id.
    TempDir other;
    ProductIdentity bare(identityDocument(makeCertificate(other, "OPIDONLY")).c_str());
    auto plain = make(&bare, nullptr);
    EXPECT_EQ("OPIDONLY", plain->getCertOpid());
    EXPECT_EQ("", plain->getCertInstance());
}

TEST_F(PersistentValuesTest, ConsentChangesAreReportedOnce) {
    auto values = make();
    EXPECT_FALSE(values->testDaConsentUrl());
    EXPECT_FALSE(values->testDaConsentState());
    EXPECT_TRUE(values->setDaConsentUrl("https://consent"));
    EXPECT_TRUE(values->setDaConsentState(Zel::Core::ConsentStateRequired));
    EXPECT_TRUE(values->testDaConsentUrl());
    EXPECT_FALSE(values->testDaConsentUrl());
    EXPECT_TRUE(values->testDaConsentState());
    EXPECT_FALSE(values->testDaConsentState());
    EXPECT_FALSE(values->setDaConsentState(Zel::Core::ConsentStateRequired));
    EXPECT_FALSE(values->testDaConsentState());
}

TEST_F(PersistentValuesTest, LogStateDebugHidesTheToken) {
    auto values = make();
    values->setGidToken("very-secret");
    values->setDaConsentState(Zel::Core::ConsentStateCompleted);
    values->setDsAllowedDataItemIds({"x"});
    LogCapture capture;
    values->logStateDebug();
    EXPECT_TRUE(capture.contains("persist->daConsentState              : Completed"));
    EXPECT_TRUE(capture.contains("persist->dsAllowedDataItemIds        : [\"x\"]"));
    EXPECT_TRUE(capture.contains("persist->gidToken                    : (set)"));
    for (const std::string& line : capture.messages()) {
        EXPECT_EQ(std::string::npos, line.find("very-secret")) << line;
    }
}

}  // namespace
