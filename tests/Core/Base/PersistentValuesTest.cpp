#include "Core/Base/PersistentValues.h"

#include <gtest/gtest.h>
#include <json/value.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include "Core/Base/CoreConfig.h"
#include "Core/Platform/FileUtil.h"
#include "Core/Platform/JsonUtil.h"
#include "Core/Project/DeviceValues.h"
#include "Core/Project/ProductIdentity.h"
#include "support/Config.h"
#include "support/LogCapture.h"
#include "support/Pki.h"

using Zel::Core::FileUtil;
using Zel::Core::PersistentValues;
using ZelTest::LogCapture;
using ZelTest::TempDir;

using Zel::Core::JsonUtil;

namespace {

// No vendor plug-in in this process: the machine defaults are what we test.
const bool kNoPlugin = setenv("ZEL_KORVANE_PLUGIN", "/nonexistent/libzel_korvane.so", 1) == 0;

// Every persisted member with a value other than its default (the SDK
// version is the build's own).
Json::Value allNonDefault() {
    std::string text;
    PersistentValues(nullptr, nullptr, nullptr).marshal(text);
    Json::Value values = ZelTest::ParseJson(text);
    uint32_t n = 7000001;
    for (const std::string& key : values.getMemberNames()) {
        Json::Value& value = values[key];
        if (value.isBool()) {
            value = !value.asBool();
        } else if (value.isArray()) {
            value = ZelTest::ParseJson(R"(["item-a", "item-b"])");
        } else if (value.isString() && key != "sdkVersion") {
            value = key + "-1";
        } else if (value.isNumeric()) {
            value = key == "daConsentState" ? 3u : n++;
        }
    }
    return values;
}

class PersistentValuesTest : public ::testing::Test {
protected:
    PersistentValuesTest() : config_(ZelTest::ConfigDoc().dirs(dir_.path()).text().c_str()) {}

    std::string dir() const { return config_.getPersistentPath(); }
    std::vector<std::string> files(const std::string& base) const {
        std::vector<std::string> found;
        FileUtil::getFilesWithBase(dir(), base + "_", found);
        return found;
    }
    void storeValues(const std::string& text) { FileUtil::Store(dir(), "coreValues", text); }
    std::unique_ptr<PersistentValues> make(const Zel::Core::ProductIdentity* identity = nullptr,
                                           const Zel::Core::DeviceValues* device = nullptr) {
        return std::make_unique<PersistentValues>(identity, &config_, device);
    }
    static std::string marshalled(PersistentValues& values) {
        std::string text;
        values.marshal(text);
        return JsonUtil::Compact(ZelTest::ParseJson(text));
    }

    TempDir dir_;
    Zel::Core::CoreConfig config_;
};

TEST_F(PersistentValuesTest, FreshDeviceHasDefaultsAndStoresOnlyChanges) {
    auto values = make();
    EXPECT_EQ(3150000u, values->getDaPollDelayFixedMs());
    EXPECT_FALSE(values->isPersisted());
    values->store();
    // Setting the same value is no change, so no second write (version 1).
    EXPECT_FALSE(values->setDaPollDelayFixedMs(3150000u));
    values->store();
    EXPECT_TRUE(values->isPersisted());
    EXPECT_EQ(0, FileUtil::parseVersion(files("coreValues").at(0)));
    EXPECT_TRUE(values->setDaPollDelayFixedMs(1000u));
    EXPECT_FALSE(values->isPersisted());
    values->store();
    std::vector<std::string> stored = files("coreValues");
    ASSERT_EQ(1u, stored.size());
    EXPECT_EQ(1, FileUtil::parseVersion(stored[0]));
    // No token yet, so no token file.
    EXPECT_TRUE(files("coreToken").empty());
}

TEST_F(PersistentValuesTest, EveryFieldSurvivesStoreAndLoad) {
    // Compared as text: jsoncpp tells signed from unsigned numbers apart.
    const std::string expected = JsonUtil::Compact(allNonDefault());
    {
        auto values = make();
        ASSERT_TRUE(values->unmarshal(expected));
        EXPECT_EQ(expected, marshalled(*values));
        values->store();
    }
    auto loaded = make();
    EXPECT_TRUE(loaded->isPersisted());
    EXPECT_EQ(expected, marshalled(*loaded));
    EXPECT_EQ((std::vector<std::string>{"item-a", "item-b"}), loaded->getDsAllowedDataItemIds());
}

TEST_F(PersistentValuesTest, TokenFileFollowsTheGidTokenAndOutlivesTheValuesFile) {
    // A values file with a token but no token file: construction writes it.
    storeValues(R"({"gidToken": "from-values"})");
    std::string token;
    {
        LogCapture capture;
        auto values = make();
        EXPECT_TRUE(FileUtil::Load(dir(), "coreToken", token));
        EXPECT_EQ("from-values", token);
        // A new token replaces the file's content at once, and never reaches the log.
        EXPECT_TRUE(values->setGidToken("secret-token"));
        values->store();
        EXPECT_TRUE(FileUtil::Load(dir(), "coreToken", token));
        EXPECT_EQ("secret-token", token);
        for (const std::string& line : capture.messages()) {
            EXPECT_EQ(std::string::npos, line.find("secret-token")) << line;
        }
    }
    FileUtil::Drop(dir(), "coreValues");
    {
        auto values = make();
        EXPECT_EQ("", values->getGidToken());
        EXPECT_EQ("secret-token", values->getBackupToken());
        // Once recovered, a retired token (the cloud refused it) must not be recovered again.
        EXPECT_TRUE(values->setGidToken(values->getBackupToken()));
        EXPECT_TRUE(values->setGidToken(""));
        EXPECT_TRUE(files("coreToken").empty());
        values->store();
    }
    EXPECT_EQ("", make()->getBackupToken());
}

TEST_F(PersistentValuesTest, CertificateAndDeviceValuesWinOverStaleFile) {
    const ZelTest::Pki& pki = ZelTest::Pki::Get("zel.localhost:18443");
    ASSERT_TRUE(pki.ok()) << pki.error();
    auto identity = std::make_unique<Zel::Core::ProductIdentity>(pki.identityJson().c_str());
    Zel::Core::DeviceValues device(R"({"id": "dev-id", "swVersion": "1.2.3"})", &config_);

    storeValues(JsonUtil::Compact(allNonDefault()));
    auto values = make(identity.get(), &device);
    EXPECT_EQ("zel.localhost:18443", values->getCertInstance());
    EXPECT_EQ("dev-id", values->getDeviceId());
    EXPECT_EQ("1.2.3", values->getDeviceSwVersion());
    // Everything else comes from the file, and the changes are still to be stored.
    EXPECT_EQ("gidToken-1", values->getGidToken());
    EXPECT_FALSE(values->isPersisted());
}

}  // namespace

TEST_F(PersistentValuesTest, PoisonedFilesAreDeletedLikeCorruptOnes) {
    // Intact envelopes around content that cannot be used: each is deleted
    // and the device starts without identity rather than with a bad one.
    const struct {
        const char* name;
        const char* base;
        std::string content;
    } rows[] = {
        {"values not JSON", "coreValues", "{\"gidToken\": \"x\","},
        {"values not an object", "coreValues", "[1, 2]"},
        {"values nested too deep", "coreValues", std::string(100000, '[')},
        {"token that would inject a header", "coreToken", "abc\r\nX-Evil: 1"},
        {"token with a NUL", "coreToken", std::string("abc\0def", 7)},
        {"token too long to send", "coreToken", std::string(9000, 't')},
        {"token file over the size cap", "coreToken", std::string(2 * 1024 * 1024, 't')},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        FileUtil::Drop(dir(), "coreValues");
        FileUtil::Drop(dir(), "coreToken");
        ZelTest::WriteFile(dir_.file(std::string(row.base) + "_0_" +
                                     FileUtil::calcMd5Hash(row.content.data(), row.content.size())),
                           row.content);
        auto values = make();
        EXPECT_EQ("", values->getGidToken());
        EXPECT_EQ("", values->getBackupToken());
        EXPECT_TRUE(files(row.base).empty());
    }
    // A token in the values file that could not be sent is no token either.
    storeValues(R"({"gidToken": "two words"})");
    EXPECT_EQ("", make()->getGidToken());
}

TEST(PersistentValuesStoreTest, FailedStoreIsRetriedByTheNextOne) {
    TempDir dir;
    const std::string path = dir.file("later");
    Zel::Core::CoreConfig config(ZelTest::ConfigDoc().dirs(path).text().c_str());
    PersistentValues values(nullptr, &config, nullptr);
    values.setOemMsg("hello");
    values.setGidToken("token-1");
    values.store();
    EXPECT_FALSE(values.isPersisted());
    ASSERT_EQ(0, mkdir(path.c_str(), 0755));
    values.store();
    EXPECT_TRUE(values.isPersisted());
    PersistentValues loaded(nullptr, &config, nullptr);
    EXPECT_EQ("hello", loaded.getOemMsg());
    EXPECT_EQ("token-1", loaded.getBackupToken());
}
