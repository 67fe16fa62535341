// Secure-object provisioning between the agent and the local cloud, through
// the C interface: the token call, work calls with installs and deletes, the
// results reported once, object states and the ready marker.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "Core/Platform/FileUtil.h"
#include "support/AgentLab.h"

using ZelCloud::FaultPlan;
using ZelTest::AgentLab;
using ZelTest::Fault;

namespace {

using Drmp = ZelTest::LabTest;

const std::string kKeyHex = "00112233445566778899aabbccddeeff";
const std::string kKeyBytes =
    std::string("\x00\x11\x22\x33\x44\x55\x66\x77\x88\x99\xaa\xbb\xcc\xdd\xee\xff", 16);

// Short provisioning delays; a long poll so that only the test asks for work.
Json::Value fastDrmp() {
    Json::Value settings = AgentLab::FastSettings();
    settings["drmpPollDelayFixedMs"] = 600000;
    settings["drmpPollDelayVariedMs"] = 0;
    settings["drmpRetryDelayFixedMs"] = 100;
    settings["drmpRetryDelayVariedMs"] = 0;
    return settings;
}

ZelTest::ConfigDoc emulated(AgentLab& lab, const std::string& key = kKeyHex) {
    return lab.configDoc()
        .set("drmp", "enableEmulatedSecureCore", true)
        .set("drmp", "emulatedUlpk", key)
        .set("drmp", "emulatedUlpkIndex", 7)
        .set("drmp", "emulatedSupportedObjectNames", " keyA , keyB,keyC ")
        .set("drmp", "readyMarkerFile", lab.persistentDir() + "/object_is_ready");
}

void start(AgentLab& lab, const ZelTest::ConfigDoc& config) {
    std::string text = config.text();
    ASSERT_EQ(ZelResultSuccess,
              ZelInit(lab.identity().c_str(), text.c_str(), lab.device().c_str()));
}

Json::Value device(AgentLab& lab) {
    Json::Value devices = lab.cloud().drmp()["devices"];
    for (const Json::Value& entry : devices) {
        if (entry["device"].asString() == AgentLab::DeviceCn()) {
            return entry;
        }
    }
    return Json::Value();
}

bool waitForDevice(AgentLab& lab, const std::function<bool(const Json::Value&)>& reached) {
    return lab.cloud().waitForDrmp(
        [&](const Json::Value& drmp) {
            for (const Json::Value& entry : drmp["devices"]) {
                if (entry["device"].asString() == AgentLab::DeviceCn()) {
                    return reached(entry);
                }
            }
            return false;
        },
        AgentLab::kPatience);
}

bool waitForWorkCalls(AgentLab& lab, unsigned count) {
    return waitForDevice(
        lab, [count](const Json::Value& d) { return d["workCalls"].asUInt() >= count; });
}

Json::Value operation(const std::string& name, const std::string& kind,
                      const std::string& type = "aes", const std::string& text = "secret") {
    Json::Value op(Json::objectValue);
    op["name"] = name;
    if (!kind.empty()) {
        op["operation"] = kind;
    }
    op["encryptionType"] = type;
    op["valueText"] = text;
    op["id"] = name + "-id";
    return op;
}

}  // namespace

TEST_F(Drmp, TokenWorkOperationsResultsAndStates) {
    AgentLab& lab = this->lab(fastDrmp());
    lab.cloud().setDrmpKey(AgentLab::DeviceCn(), 7, kKeyBytes);
    start(lab, emulated(lab));
    ASSERT_TRUE(waitForWorkCalls(lab, 1));
    Json::Value first = device(lab);
    ASSERT_EQ(1u, first["tokenCalls"].size());
    EXPECT_TRUE(first["tokenCalls"][0]["matched"].asBool()) << "the HMAC of the emulated key";
    EXPECT_EQ(7, first["tokenCalls"][0]["index"].asInt());
    std::vector<std::string> supported;
    for (const Json::Value& name : first["supported"]) {
        supported.push_back(name.asString());
    }
    EXPECT_EQ((std::vector<std::string>{"keyA", "keyB", "keyC"}), supported);

    Json::Value operations(Json::arrayValue);
    operations.append(operation("keyA", "install", "aes_ur"));
    operations.append(operation("keyB", "delete"));
    operations.append(operation("keyC", ""));
    operations.append(operation("keyD", "install", "des"));
    Json::Value badBase64 = operation("keyE", "install");
    badBase64.removeMember("valueText");
    badBase64["value"] = "%%%";
    operations.append(badBase64);
    std::string error;
    ASSERT_TRUE(lab.cloud().queueDrmpOperations(operations, error)) << error;
    ASSERT_EQ(ZelResultSuccess, ZelCheckForDrmpUpdate());
    ASSERT_TRUE(waitForWorkCalls(lab, 2));
    // The results go with the next work call.
    ASSERT_EQ(ZelResultSuccess, ZelCheckForDrmpUpdate());
    ASSERT_TRUE(lab.cloud().waitForDrmpResults(4, AgentLab::kPatience));
    std::vector<std::pair<std::string, bool>> results;
    for (const auto& result : lab.cloud().drmpResults()) {
        results.emplace_back(result.name + " " + result.operation, result.success);
    }
    EXPECT_EQ((std::vector<std::pair<std::string, bool>>{{"keyA install", true},
                                                         {"keyB delete", false},
                                                         {"keyD install", false},
                                                         {"keyE install", false}}),
              results);
    EXPECT_EQ(1u, lab.logCount("Unknown operation unkonwn"));
    EXPECT_EQ(1u, lab.logCount("Bad encryption type when installing object keyD"));
    EXPECT_EQ(1u, lab.logCount("Bad base64 decoding when installing object keyE"));
    EXPECT_NE(
        "", lab.log().find("InstallObject name:keyA id:keyA-id objectSize:6 encryptionType:32770"));

    // Reported once: a further work call carries none of them again.
    ASSERT_EQ(ZelResultSuccess, ZelCheckForDrmpUpdate());
    ASSERT_TRUE(waitForWorkCalls(lab, 4));
    EXPECT_EQ(4u, lab.cloud().drmpResults().size());
    // keyA is available: the marker says so.
    ASSERT_TRUE(lab.waitForLog("get state ObjectStateAvailable \n"));
    struct stat info {};
    ASSERT_EQ(0, stat((lab.persistentDir() + "/object_is_ready").c_str(), &info));
    EXPECT_EQ(0660u, info.st_mode & 0777);
}

TEST_F(Drmp, UnreadableKeySendsNoHmac) {
    AgentLab& lab = this->lab(fastDrmp());
    start(lab, emulated(lab, "not hex"));
    ASSERT_TRUE(waitForWorkCalls(lab, 1));
    Json::Value call = device(lab)["tokenCalls"][0];
    EXPECT_EQ(-1, call["index"].asInt());
    EXPECT_FALSE(call["checked"].asBool());
    EXPECT_EQ(1u, lab.logCount("DrmpSecureGetUlpk fail \n"));
}

TEST_F(Drmp, UnprocessableDropsTokenResultsAndOperations) {
    AgentLab& lab = this->lab(fastDrmp());
    lab.cloud().setDrmpKey(AgentLab::DeviceCn(), 7, kKeyBytes);
    start(lab, emulated(lab));
    ASSERT_TRUE(waitForWorkCalls(lab, 1));
    std::string error;
    ASSERT_TRUE(lab.cloud().queueDrmpOperations(
        Json::Value(Json::arrayValue).append(operation("keyA", "install")), error));
    ASSERT_EQ(ZelResultSuccess, ZelCheckForDrmpUpdate());
    ASSERT_TRUE(waitForWorkCalls(lab, 2));
    // The next work call, carrying keyA's result, is refused: the token goes, and the result.
    lab.cloud().addFault(Fault("drmp/work", FaultPlan::Kind::Status, 422));
    ASSERT_EQ(ZelResultSuccess, ZelCheckForDrmpUpdate());
    ASSERT_TRUE(
        waitForDevice(lab, [](const Json::Value& d) { return d["tokenCalls"].size() >= 2; }));
    ASSERT_TRUE(waitForWorkCalls(lab, 3));
    EXPECT_TRUE(lab.cloud().drmpResults().empty());

    // A key the cloud does not accept: refused, and no work without a token.
    AgentLab& other = this->lab(fastDrmp());
    other.cloud().setDrmpKey(AgentLab::DeviceCn(), 7, std::string(16, 'x'));
    start(other, emulated(other));
    ASSERT_TRUE(other.waitForLog("token processed (422)"));
    EXPECT_FALSE(device(other)["tokenCalls"][0]["matched"].asBool());
    EXPECT_EQ(0u, device(other)["workCalls"].asUInt());
}

TEST_F(Drmp, ResultsSurviveARestart) {
    AgentLab& lab = this->lab(fastDrmp());
    start(lab, emulated(lab));
    ASSERT_TRUE(waitForWorkCalls(lab, 1));
    std::string error;
    ASSERT_TRUE(lab.cloud().queueDrmpOperations(
        Json::Value(Json::arrayValue).append(operation("keyB", "install")), error));
    ASSERT_EQ(ZelResultSuccess, ZelCheckForDrmpUpdate());
    ASSERT_TRUE(waitForWorkCalls(lab, 2));
    ASSERT_TRUE(lab.waitForLog("u32RetLen = 6\n"));
    ASSERT_TRUE(lab.term());
    EXPECT_TRUE(lab.cloud().drmpResults().empty());

    start(lab, emulated(lab));
    ASSERT_TRUE(lab.waitForCalls("da/notification", 1));
    ASSERT_EQ(ZelResultSuccess, ZelCheckForDrmpUpdate());
    ASSERT_TRUE(lab.cloud().waitForDrmpResults(1, AgentLab::kPatience));
    EXPECT_TRUE(lab.cloud().drmpResults()[0].success);
    EXPECT_EQ(1u, device(lab)["tokenCalls"].size()) << "the token was kept";
}

TEST_F(Drmp, SecureLibraryIsBoundAtRunTime) {
    AgentLab& lab = this->lab(fastDrmp());
    std::string dir = lab.persistentDir() + "/secure";
    ASSERT_EQ(0, mkdir(dir.c_str(), 0700));
    std::ofstream(dir + "/ulpk") << "7 " << kKeyHex << "\n";
    std::ofstream(dir + "/names") << "keyA\nkeyB\n";
    setenv("ZEL_SECURE_SAMPLE_DIR", dir.c_str(), 1);
    lab.cloud().setDrmpKey(AgentLab::DeviceCn(), 7, kKeyBytes);
    start(lab, lab.configDoc().set(
                   "drmp", "secureLibraryPath",
                   std::string(ZEL_BINARY_DIR) + "/tools/secure/libzel_secure_sample.so"));
    ASSERT_TRUE(waitForWorkCalls(lab, 1));
    EXPECT_TRUE(device(lab)["tokenCalls"][0]["matched"].asBool());
    std::string error;
    ASSERT_TRUE(lab.cloud().queueDrmpOperations(
        Json::Value(Json::arrayValue).append(operation("keyA", "install")), error));
    ASSERT_EQ(ZelResultSuccess, ZelCheckForDrmpUpdate());
    ASSERT_TRUE(waitForWorkCalls(lab, 2));
    ASSERT_TRUE(lab.waitForLog("u32RetLen = 6\n"));
    EXPECT_EQ("secret", ZelTest::ReadFile(dir + "/objects/keyA"));

    // No library at all: every operation fails and says so; the agent runs on.
    AgentLab& missing = this->lab(fastDrmp());
    start(missing, missing.configDoc().set("drmp", "secureLibraryPath", "/nonexistent/libx.so"));
    ASSERT_TRUE(waitForWorkCalls(missing, 1));
    EXPECT_EQ(-1, device(missing)["tokenCalls"][0]["index"].asInt());
    EXPECT_EQ(1u, missing.logCount("DrmpSecureGetObjectName fail \n"));
    unsetenv("ZEL_SECURE_SAMPLE_DIR");
}

TEST_F(Drmp, CheckNeedsARunningAgentAndAFutureTimeIsNotBelieved) {
    EXPECT_EQ(ZelResultNotInitialized, ZelCheckForDrmpUpdate());
    AgentLab& lab = this->lab(fastDrmp());
    // A last work call in the future would hold the first one back for a year.
    std::string year =
        R"({"sec": )" + std::to_string(time(nullptr) + 365 * 24 * 3600) + R"(, "nsec": 0})";
    ASSERT_TRUE(Zel::Core::FileUtil::Store(lab.persistentDir(), "drmpTime", year));
    start(lab, emulated(lab));
    ASSERT_TRUE(waitForWorkCalls(lab, 1));
    EXPECT_NE("", lab.log().find("Problem reading " + lab.persistentDir() + "/drmpTime"));
}
