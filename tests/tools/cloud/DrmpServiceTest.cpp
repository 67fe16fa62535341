// The local cloud's secure-object provisioning: tokens made with the device's
// unique key, and work calls that hand out operations once and record what
// came of them, driven in process as the TLS handler drives them.
#include <gtest/gtest.h>
#include <httplib.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <chrono>

#include "support/Pki.h"
#include "tools/cloud/Cloud.h"

namespace {

using Answer = ZelCloud::Cloud::Answer;
using std::chrono::milliseconds;

constexpr const char* kHost = "FFFFFF0ACC-drmp.zel.localhost";
constexpr const char* kDeviceId = "lab-device-1";
const std::string kKey("\x00\x11\x22\x33\x44\x55\x66\x77\x88\x99\xaa\xbb\xcc\xdd\xee\xff", 16);
const milliseconds kWait(10000);

// HMAC-SHA256 of the device id under the key, in base64: the device's proof.
std::string Proof(const std::string& key, const std::string& deviceId = kDeviceId) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
         reinterpret_cast<const unsigned char*>(deviceId.data()), deviceId.size(), digest, &length);
    unsigned char text[4 * EVP_MAX_MD_SIZE];
    int size = EVP_EncodeBlock(text, digest, static_cast<int>(length));
    return std::string(reinterpret_cast<char*>(text), static_cast<size_t>(size));
}

std::string TokenBody(int index, const std::string& hmac, const std::string& deviceId = kDeviceId) {
    Json::Value body(Json::objectValue);
    body["deviceId"] = deviceId;
    body["index"] = index;
    body["hmac"] = hmac;
    return body.toStyledString();
}

class DrmpServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        options_.quiet = true;
        options_.pkiDir = pki_.dir();
        options_.controlPort = 0;
        cloud_ = std::make_unique<ZelCloud::Cloud>(options_);
    }
    Answer call(const std::string& path, const std::string& body, const std::string& token = "",
                const std::string& cn = "") {
        return cloud_->serve("POST", "/api/v1/drmp/" + path, kHost, cn.empty() ? cn_ : cn, token,
                             body);
    }
    // A token from a cloud that does not know the device's key.
    std::string token(const std::string& cn = "") {
        Answer answer = call("token", TokenBody(-1, ""), "", cn);
        EXPECT_EQ(200, answer.status) << answer.body;
        return ZelTest::ParseJson(answer.body)["idToken"].asString();
    }
    Json::Value work(const std::string& token, const std::string& body = R"({"seqNum": 0})") {
        Answer answer = call("work", body, token);
        EXPECT_EQ(200, answer.status) << answer.body;
        return ZelTest::ParseJson(answer.body);
    }
    // What the cloud holds for the lab's device.
    Json::Value device() {
        Json::Value drmp = cloud_->drmp();
        for (const Json::Value& device : drmp["devices"]) {
            if (device["device"].asString() == cn_) {
                return device;
            }
        }
        return Json::Value();
    }
    void queue(const char* operations, const std::string& device = "") {
        std::string error;
        EXPECT_TRUE(cloud_->queueDrmpOperations(ZelTest::ParseJson(operations), error, device))
            << error;
    }

    const ZelTest::Pki& pki_ = ZelTest::Pki::Get();
    const std::string cn_ = pki_.deviceCommonName();
    ZelCloud::CloudOptions options_;
    std::unique_ptr<ZelCloud::Cloud> cloud_;
};

TEST_F(DrmpServiceTest, TokenCallsAreCheckedAgainstTheKeyWhenItIsKnown) {
    const std::string right = Proof(kKey);
    const struct Row {
        const char* what;
        const char* keyFor;  // nullptr: no key; "cn": the certificate's CN
        int index;
        std::string hmac;
        int status;
        bool checked;
    } rows[] = {
        {"key by CN", "cn", 7, right, 200, true},
        {"key by device id", kDeviceId, 7, right, 200, true},
        {"key for every device", "", 7, right, 200, true},
        {"wrong hmac", "cn", 7, Proof("other key"), 422, true},
        {"hmac of another id", "cn", 7, Proof(kKey, "other-id"), 422, true},
        {"wrong index", "cn", 8, right, 422, true},
        {"key unread", "cn", -1, "", 422, true},
        {"key of another device", "other-device", 7, "anything", 200, false},
        {"no key, key unread", nullptr, -1, "", 200, false},
        {"no key, any hmac", nullptr, 3, "anything", 200, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        cloud_ = std::make_unique<ZelCloud::Cloud>(options_);
        if (row.keyFor != nullptr) {
            std::string name = std::string(row.keyFor) == "cn" ? cn_ : row.keyFor;
            cloud_->setDrmpKey(name, 7, kKey);
        }
        Answer answer = call("token", TokenBody(row.index, row.hmac));
        EXPECT_EQ(row.status, answer.status) << answer.body;
        std::string token = ZelTest::ParseJson(answer.body)["idToken"].asString();
        EXPECT_EQ(row.status == 200 ? 48u : 0u, token.size());

        Json::Value state = device();
        EXPECT_EQ(cn_, state["device"].asString());
        EXPECT_EQ(token, state["token"].asString());
        EXPECT_EQ(row.status == 200 ? kDeviceId : "", state["deviceId"].asString());
        const Json::Value& recorded = state["tokenCalls"][0];
        EXPECT_EQ(row.checked, recorded["checked"].asBool());
        EXPECT_EQ(row.checked ? Json::Value(row.status == 200) : Json::Value(),
                  recorded["matched"]);
        EXPECT_EQ(row.status == 200, recorded["accepted"].asBool());
        EXPECT_EQ(row.index, recorded["index"].asInt());
        // The key bytes never leave the cloud.
        EXPECT_EQ(std::string::npos, cloud_->drmp().toStyledString().find(right));
    }
}

TEST_F(DrmpServiceTest, WorkNeedsTheDevicesCurrentToken) {
    std::string first = token();
    std::string current = token();
    std::string other = token("FFFFFF0ACC.other");
    ASSERT_NE(first, current);
    for (const std::string& stale : {std::string(), std::string("unknown"), first, other}) {
        SCOPED_TRACE(stale);
        EXPECT_EQ(422, call("work", R"({"seqNum": 0})", stale).status);
    }
    EXPECT_EQ(0u, device()["workCalls"].asUInt());
    work(current);
    EXPECT_EQ(1u, device()["workCalls"].asUInt());
    // The fault plan sees drmp calls as it sees every other.
    std::string error;
    ASSERT_TRUE(
        cloud_->addFault(ZelTest::ParseJson(R"({"path": "drmp/work", "status": 503})"), error));
    EXPECT_EQ(503, call("work", R"({"seqNum": 0})", current).status);
    EXPECT_EQ(1u, device()["workCalls"].asUInt());
}

TEST_F(DrmpServiceTest, OperationsAreHandedOutOnceAndInOrder) {
    // Queued before any device has called: for whichever asks first.
    queue(R"({"name": "first", "operation": "install", "encryptionType": "aes",
              "valueText": "secret", "id": "o1"})");
    std::string current = token();
    // Queued once the device is known: for it, and pending at once.
    queue(R"([{"name": "second", "operation": "delete"},
              {"name": "third", "encryptionType": "aes_ur", "value": "AAE=", "unencryptedSize": 9},
              {"name": "fourth", "operation": "install", "valueText": "", "unencryptedSize": 1}])");
    EXPECT_EQ("fourth", device()["objects"][0]["name"].asString());
    EXPECT_EQ(3u, device()["queued"].size());

    Json::Value operations = work(current)["operations"];
    ASSERT_EQ(4u, operations.size());
    const char* names[] = {"first", "second", "third", "fourth"};
    for (Json::ArrayIndex i = 0; i < 4; ++i) {
        EXPECT_EQ(names[i], operations[i]["name"].asString());
        EXPECT_FALSE(operations[i].isMember("valueText"));
    }
    // A text value goes out in base64 with its length; the rest as queued.
    EXPECT_EQ("c2VjcmV0", operations[0]["value"].asString());
    EXPECT_EQ(6u, operations[0]["unencryptedSize"].asUInt());
    EXPECT_EQ("o1", operations[0]["id"].asString());
    EXPECT_FALSE(operations[2].isMember("operation"));
    EXPECT_EQ("AAE=", operations[2]["value"].asString());
    EXPECT_EQ("", operations[3]["value"].asString());
    EXPECT_EQ(1u, operations[3]["unencryptedSize"].asUInt());

    EXPECT_EQ(0u, work(current)["operations"].size());
    EXPECT_EQ(0u, device()["queued"].size());
    EXPECT_EQ(0u, cloud_->drmp()["anyDevice"].size());

    // Not an operation: refused, nothing queued.
    for (const char* bad : {R"("install")", "[1]", R"({"valueText": 5})",
                            R"({"valueText": "a", "value": "YQ=="})", "null"}) {
        std::string error;
        EXPECT_FALSE(cloud_->queueDrmpOperations(ZelTest::ParseJson(bad), error)) << bad;
        EXPECT_NE("", error);
    }
    EXPECT_EQ(0u, device()["queued"].size());
}

TEST_F(DrmpServiceTest, ResultsAreRecordedAndObjectStatesFollowThem) {
    std::string current = token();
    queue(R"([{"name": "a", "operation": "install"}, {"name": "b", "operation": "install"}])");
    auto states = [](const Json::Value& answer) {
        std::string text;
        for (const Json::Value& entry : answer["status"]) {
            text += entry["name"].asString() + "=" + entry["state"].asString() + " ";
        }
        return text;
    };
    EXPECT_EQ("a=pending b=pending ", states(work(current)));
    const struct {
        const char* body;
        const char* queue;   // queued before this call, or nullptr
        const char* states;  // in the answer
    } rows[] = {
        {R"({"seqNum": 1, "results": [{"name": "a", "operation": "install", "success": true},
             {"name": "b", "operation": "install", "success": false}]})",
         nullptr, "a=available b=pending "},
        {R"({"seqNum": 2, "results": []})", R"({"name": "a", "operation": "delete"})",
         "a=available b=pending "},
        {R"({"seqNum": 3, "results": [{"name": "a", "operation": "delete", "success": false}]})",
         nullptr, "a=available b=pending "},
        {R"({"seqNum": 4, "results": [{"name": "a", "operation": "delete", "success": true},
             {"name": "b", "operation": "install", "success": true},
             {"name": "c", "operation": "other", "success": true}]})",
         nullptr, "b=available "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.body);
        if (row.queue != nullptr) {
            queue(row.queue);
        }
        EXPECT_EQ(row.states, states(work(current, row.body)));
    }
    ASSERT_TRUE(cloud_->waitForDrmpResults(6, kWait));
    EXPECT_FALSE(cloud_->waitForDrmpResults(7, milliseconds(1)));
    std::vector<ZelCloud::DrmpRegistry::Result> results = cloud_->drmpResults(cn_);
    ASSERT_EQ(6u, results.size());
    EXPECT_EQ(cloud_->drmpResults().size(), results.size());
    EXPECT_TRUE(cloud_->drmpResults("unknown").empty());
    const struct {
        uint32_t seqNum;
        const char* name;
        const char* operation;
        bool success;
    } expected[] = {{1, "a", "install", true}, {1, "b", "install", false},
                    {3, "a", "delete", false}, {4, "a", "delete", true},
                    {4, "b", "install", true}, {4, "c", "other", true}};
    for (size_t i = 0; i < results.size(); ++i) {
        EXPECT_EQ(expected[i].seqNum, results[i].seqNum) << i;
        EXPECT_EQ(expected[i].name, results[i].name) << i;
        EXPECT_EQ(expected[i].operation, results[i].operation) << i;
        EXPECT_EQ(expected[i].success, results[i].success) << i;
        EXPECT_EQ(cn_, results[i].device);
    }
    EXPECT_EQ(6u, device()["results"].size());
}

TEST_F(DrmpServiceTest, AnswersCarryTheSequenceNumberAndTheDelays) {
    std::string current = token();
    Json::Value answer = work(current, R"({"seqNum": 0, "gid": "not the gid token",
                                           "supported": ["x", "y"]})");
    EXPECT_EQ(1u, answer["seqNum"].asUInt());
    const std::pair<const char*, int> defaults[] = {
        {"connectTimeoutMs", 10000}, {"messageTimeoutMs", 20000}, {"pollDelayFixedMs", 5000},
        {"pollDelayVariedMs", 1000}, {"retryDelayFixedMs", 2000}, {"retryDelayVariedMs", 1000},
        {"startupDelayFixedMs", 0},  {"startupDelayVariedMs", 0}};
    for (const auto& delay : defaults) {
        EXPECT_EQ(delay.second, answer[delay.first].asInt()) << delay.first;
    }
    Json::Value state = device();
    EXPECT_EQ("not the gid token", state["gid"].asString());
    EXPECT_FALSE(state["gidCurrent"].asBool());
    EXPECT_EQ("y", state["supported"][1].asString());

    cloud_->setSettings(ZelTest::ParseJson(R"({"drmpPollDelayFixedMs": 300,
                                               "drmpStartupDelayVariedMs": 7})"));
    // One above the larger of the device's number and the last handed out.
    const std::pair<const char*, unsigned> rows[] = {
        {R"({"seqNum": 1})", 2}, {R"({"seqNum": 10})", 11}, {R"({"seqNum": 3})", 12}};
    for (const auto& row : rows) {
        answer = work(current, row.first);
        EXPECT_EQ(row.second, answer["seqNum"].asUInt()) << row.first;
        EXPECT_EQ(300, answer["pollDelayFixedMs"].asInt());
        EXPECT_EQ(7, answer["startupDelayVariedMs"].asInt());
        EXPECT_EQ(1000, answer["pollDelayVariedMs"].asInt());
    }
}

TEST_F(DrmpServiceTest, BadBodiesAreRefusedWithoutEffect) {
    std::string current = token();
    const std::pair<const char*, const char*> rows[] = {
        {"token", "not json"},
        {"token", "[]"},
        {"token", R"({"index": 7, "hmac": ""})"},
        {"token", R"({"deviceId": 1, "index": 7, "hmac": ""})"},
        {"token", R"({"deviceId": "d", "index": "7", "hmac": ""})"},
        {"token", R"({"deviceId": "d", "index": 1.5, "hmac": ""})"},
        {"token", R"({"deviceId": "d", "index": 7})"},
        {"token", R"({"deviceId": "d", "index": 7, "hmac": null})"},
        {"work", "{}"},
        {"work", R"({"seqNum": -1})"},
        {"work", R"({"seqNum": "1"})"},
        {"work", R"({"seqNum": 4294967296})"},
        {"work", R"({"seqNum": 1, "gid": 5})"},
        {"work", R"({"seqNum": 1, "supported": "x"})"},
        {"work", R"({"seqNum": 1, "supported": [1]})"},
        {"work", R"({"seqNum": 1, "results": {}})"},
        {"work", R"({"seqNum": 1, "results": ["x"]})"},
        {"work", R"({"seqNum": 1, "results": [{"name": "a", "operation": "install"}]})"},
        {"work", R"({"seqNum": 1, "results": [{"name": "a", "success": true}]})"},
        {"work",
         R"({"seqNum": 1, "results": [{"name": "a", "operation": "install", "success": 1}]})"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.second);
        EXPECT_EQ(400, call(row.first, row.second, current).status);
    }
    EXPECT_EQ(404, call("other", "{}", current).status);
    EXPECT_EQ(405, cloud_->serve("GET", "/api/v1/drmp/work", kHost, cn_, current, "").status);
    // Still the same token, and no call got through.
    Json::Value state = device();
    EXPECT_EQ(current, state["token"].asString());
    EXPECT_EQ(1u, state["tokenCalls"].size());
    EXPECT_EQ(0u, state["workCalls"].asUInt());
}

TEST_F(DrmpServiceTest, TheControlInterfaceRegistersKeysAndQueuesOperations) {
    ASSERT_TRUE(cloud_->start()) << cloud_->error();
    httplib::Client control("127.0.0.1", cloud_->controlPort());
    auto post = [&control](const char* path, const std::string& body) {
        auto res = control.Post(path, body, "application/json");
        return res ? res->status : -1;
    };
    const std::pair<const char*, int> keys[] = {
        {R"({"device": "D", "index": 7, "key": "00112233445566778899aabbccddeeff"})", 200},
        {R"({"index": 0, "key": "ABcd"})", 200},
        {R"({"device": "D", "index": -1, "key": "00"})", 400},
        {R"({"device": "D", "index": 4294967296, "key": "00"})", 400},
        {R"({"device": "D", "index": "7", "key": "00"})", 400},
        {R"({"device": "D", "index": 7, "key": "001"})", 400},
        {R"({"device": "D", "index": 7, "key": "zz"})", 400},
        {R"({"device": "D", "index": 7, "key": ""})", 400},
        {R"({"device": 1, "index": 7, "key": "00"})", 400},
        {"[]", 400},
    };
    for (const auto& row : keys) {
        EXPECT_EQ(row.second, post("/control/drmp/keys", row.first)) << row.first;
    }
    const std::pair<const char*, int> operations[] = {
        {R"({"device": "D", "operations": {"name": "k", "operation": "install"}})", 200},
        {R"({"device": "D", "operations": [{"name": "l", "valueText": "v"}, {}]})", 200},
        {R"({"device": "D"})", 400},
        {R"({"device": "D", "operations": [5]})", 400},
        {R"({"device": 5, "operations": []})", 400},
    };
    for (const auto& row : operations) {
        EXPECT_EQ(row.second, post("/control/drmp/operations", row.first)) << row.first;
    }
    auto listed = control.Get("/control/drmp");
    ASSERT_TRUE(listed);
    Json::Value drmp = ZelTest::ParseJson(listed->body);
    const Json::Value& device = drmp["devices"][0];
    EXPECT_EQ("D", device["device"].asString());
    EXPECT_TRUE(device["keyKnown"].asBool());
    EXPECT_EQ(7, device["keyIndex"].asInt());
    ASSERT_EQ(3u, device["queued"].size());
    EXPECT_EQ("dg==", device["queued"][1]["value"].asString());
    EXPECT_EQ("k=pending", device["objects"][0]["name"].asString() + "=" +
                               device["objects"][0]["state"].asString());
    EXPECT_EQ(2u, drmp["keys"].size());
    EXPECT_EQ(std::string::npos, listed->body.find("00112233"));
}

}  // namespace
