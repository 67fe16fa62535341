// What a drmp answer changes, what the values file keeps, and the secure
// store adapter over the emulated core and the sample library.
#include "Drmp/Base/DrmpAnswer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "Core/Base/CoreConfig.h"
#include "Core/Platform/FileUtil.h"
#include "Drmp/Base/DrmpConfig.h"
#include "Drmp/Project/DrmpCustom.h"
#include "support/LogCapture.h"

using namespace Zel::Drmp;
using ZelTest::LogCapture;
using ZelTest::ParseJson;
using ZelTest::TempDir;

namespace {

TEST(DrmpAnswerTest, EncryptionTypes) {
    const std::pair<const char*, uint32_t> types[] = {
        {"none", 0},        {"3des", 1},        {"aes", 2},
        {"rsa", 4},         {"custom", 0x100},  {"3des_ur", 0x8001},
        {"aes_ur", 0x8002}, {"rsa_ur", 0x8004}, {"custom_ur", 0x8100}};
    for (const auto& [text, number] : types) {
        uint32_t type = 99;
        EXPECT_TRUE(DrmpAnswer::EncryptionTypeFromText(text, type)) << text;
        EXPECT_EQ(number, type) << text;
    }
    uint32_t type = 99;
    for (const char* bad : {"AES", "des", "", "aes "}) {
        EXPECT_FALSE(DrmpAnswer::EncryptionTypeFromText(bad, type)) << bad;
    }
}

TEST(DrmpAnswerTest, StatusMerge) {
    TempDir dir;
    Zel::Core::CoreConfig config(
        ("{\"core\":{\"persistentPath\":\"" + dir.path() + "\"}}").c_str());
    DrmpPersistentValues values(&config);
    LogCapture capture;
    EXPECT_TRUE(values.setStatus(ParseJson(
        R"([{"name":"a","state":"pending"},{"name":"b","state":"available"},5,{"name":1,"state":"x"},{"name":"c"}])")));
    ASSERT_EQ(2u, values.getStatus().size());
    EXPECT_TRUE(values.setStatus(
        ParseJson(R"([{"name":"a","state":"available"},{"name":"c","state":"pending"}])")));
    ASSERT_EQ(2u, values.getStatus().size());
    EXPECT_EQ("a", values.getStatus()[0].name);
    EXPECT_EQ("available", values.getStatus()[0].state);
    EXPECT_EQ("c", values.getStatus()[1].name);
    for (const char* line :
         {"Inserting status for a at state pending", "Updating status for a to state available",
          "Removing status for b with state available",
          "Inserting status for c at state pending"}) {
        EXPECT_NE("", capture.find(line)) << line;
    }
    EXPECT_FALSE(values.setStatus(ParseJson(R"({"name":"a"})"))) << "not an array";
    EXPECT_FALSE(values.setStatus(
        ParseJson(R"([{"name":"a","state":"available"},{"name":"c","state":"pending"}])")));
}

TEST(DrmpAnswerTest, WorkAnswerAndWhatIsKept) {
    TempDir dir;
    Zel::Core::CoreConfig config(
        ("{\"core\":{\"persistentPath\":\"" + dir.path() + "\"}}").c_str());
    DrmpPersistentValues values(&config);
    std::vector<DrmpOperation> operations;
    bool statusChanged = false;
    EXPECT_FALSE(DrmpAnswer::ApplyWork("[1]", values, operations, statusChanged));
    ASSERT_TRUE(DrmpAnswer::ApplyWork(
        R"({"seqNum":9,"pollDelayFixedMs":1234,"retryDelayFixedMs":-1,
            "operations":[{"name":"k","encryptionType":"aes","value":"AA=="},7,
                          {"name":"d","operation":"delete"}],
            "status":[{"name":"k","state":"pending"}]})",
        values, operations, statusChanged));
    EXPECT_EQ(9u, values.getSeqNum());
    EXPECT_EQ(1234u, values.pollDelayFixedMs);
    EXPECT_EQ(15000u, values.retryDelayFixedMs) << "an unreadable value keeps the old one";
    ASSERT_EQ(3u, operations.size());
    EXPECT_EQ("unkonwn", operations[0].operation);
    EXPECT_EQ("AA==", operations[0].value);
    EXPECT_EQ("delete", operations[2].operation);
    EXPECT_TRUE(statusChanged);

    EXPECT_FALSE(DrmpAnswer::ApplyToken(R"({"idToken":"a\r\nb"})", values));
    ASSERT_TRUE(DrmpAnswer::ApplyToken(R"({"idToken":"tok"})", values));
    values.addResult("k", "install", true);
    ASSERT_TRUE(values.store());

    // Everything comes back, the token also from its own file.
    DrmpPersistentValues again(&config);
    again.load();
    EXPECT_EQ("tok", again.getToken());
    EXPECT_EQ("tok", again.getBackupToken());
    EXPECT_EQ(9u, again.getSeqNum());
    ASSERT_EQ(1u, again.getResults().size());
    EXPECT_TRUE(again.getResults()[0].success);
    ASSERT_EQ(1u, again.getStatus().size());
    Zel::Core::FileUtil::Drop(dir.path(), "drmpValues");
    DrmpPersistentValues recovered(&config);
    recovered.load();
    EXPECT_EQ("", recovered.getToken());
    EXPECT_EQ("tok", recovered.getBackupToken());
}

TEST(DrmpAnswerTest, EmulatedCore) {
    TempDir dir;
    std::string marker = dir.file("ready");
    DrmpConfig config(("{\"drmp\":{\"enableEmulatedSecureCore\":true,\"emulatedUlpk\":\"0a0B\","
                       "\"emulatedUlpkIndex\":3,\"emulatedSupportedObjectNames\":\" x , ,y\","
                       "\"readyMarkerFile\":\"" +
                       marker + "\"}}")
                          .c_str());
    DrmpCustom::Configure(config);
    std::list<std::string> names;
    EXPECT_EQ(0u, DrmpCustom::GetSupportedObjectNames(names));
    EXPECT_EQ((std::list<std::string>{"x", "y"}), names);
    int index = 0;
    std::vector<uint8_t> key;
    EXPECT_EQ(0u, DrmpCustom::GetUlpk(index, key));
    EXPECT_EQ(3, index);
    EXPECT_EQ((std::vector<uint8_t>{0x0a, 0x0b}), key);

    LogCapture capture;
    EXPECT_EQ(1u, DrmpCustom::InstallObject("x", "", {}, 0, DrmpCustom::EncryptionNone));
    EXPECT_EQ(1u, DrmpCustom::InstallObject("x", "", {1}, 0, DrmpCustom::EncryptionNone));
    EXPECT_EQ(0u, DrmpCustom::InstallObject("x", "id", {1, 2}, 2, DrmpCustom::EncryptionAes));
    EXPECT_EQ(0u, DrmpCustom::DeleteObject("x"));
    EXPECT_EQ(1u, DrmpCustom::DeleteObject("x"));
    std::vector<std::string> expected = {"objectSize is 0\n", "encryptionType is not correct\n",
                                         "DrmpSecureObjectDelete fail \n"};
    for (const std::string& line : expected) {
        EXPECT_NE("", capture.find(line)) << line;
    }
    // The marker each time an object is reported available.
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(0u, DrmpCustom::UpdateObjectStatus({{"x", DrmpCustom::ObjectStateAvailable},
                                                      {"y", DrmpCustom::ObjectStatePending},
                                                      {"z", 9}}));
        struct stat info {};
        ASSERT_EQ(0, stat(marker.c_str(), &info));
        EXPECT_EQ(0660u, info.st_mode & 0777);
        std::remove(marker.c_str());
    }
    EXPECT_NE("", capture.find("get state other \n"));

    DrmpConfig unreadable(R"({"drmp":{"enableEmulatedSecureCore":true,"emulatedUlpk":"xyz"}})");
    DrmpCustom::Configure(unreadable);
    EXPECT_EQ(1u, DrmpCustom::GetUlpk(index, key));
}

TEST(DrmpAnswerTest, SampleLibraryNamesFillTheirSlots) {
    TempDir dir;
    std::string full(64, 'n');
    std::ofstream(dir.file("names")) << "short\n" << full << "\n";
    setenv("ZEL_SECURE_SAMPLE_DIR", dir.path().c_str(), 1);
    DrmpConfig config(("{\"drmp\":{\"secureLibraryPath\":\"" + std::string(ZEL_BINARY_DIR) +
                       "/tools/secure/libzel_secure_sample.so\"}}")
                          .c_str());
    DrmpCustom::Configure(config);
    ASSERT_EQ(0u, DrmpCustom::DrmpSecureInitialize());
    std::list<std::string> names;
    EXPECT_EQ(0u, DrmpCustom::GetSupportedObjectNames(names));
    EXPECT_EQ((std::list<std::string>{"short", full}), names);
    EXPECT_EQ(0u, DrmpCustom::DrmpSecureFinalize());
    unsetenv("ZEL_SECURE_SAMPLE_DIR");
}

}  // namespace
