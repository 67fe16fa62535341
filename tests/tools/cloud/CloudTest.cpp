// What the tests rely on in the local cloud beyond what the agent's own tests
// show: its fault plan and its control interface.
#include "tools/cloud/Cloud.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include "support/Pki.h"

namespace {

using ZelCloud::Cloud;
using ZelTest::ParseJson;

class CloudTest : public ::testing::Test {
protected:
    void SetUp() override {
        const ZelTest::Pki& pki = ZelTest::Pki::Get();
        ASSERT_TRUE(pki.ok()) << pki.error();
        ZelCloud::CloudOptions options;
        options.quiet = true;
        options.controlPort = 0;
        options.pkiDir = pki.dir();
        cloud_ = std::make_unique<Cloud>(options);
        ASSERT_TRUE(cloud_->start()) << cloud_->error();
    }

    // The protocol as the TLS handler serves it, without a network.
    Cloud::Answer post(const std::string& call, const std::string& token = "") {
        return cloud_->serve("POST", "/api/v1/da/" + call, "OPID-da.lab", "OPID.lab", token, "{}");
    }
    std::string newToken() { return ParseJson(post("gidtoken").body)["daGidToken"].asString(); }

    std::unique_ptr<Cloud> cloud_;
};

TEST_F(CloudTest, FaultsApplyToTheirPathForTheirCount) {
    std::string token = newToken();
    const struct {
        const char* fault;
        const char* call;
        int status;        // of the faulted calls; 0: dropped
        const char* body;  // of the faulted calls
        int faulted;       // calls affected before the normal answer comes back
    } rows[] = {
        {R"({"path": "da/state", "status": 503, "count": 2})", "state", 503, "{}", 2},
        {R"({"path": "notification", "badJson": true})", "notification", 200, "this is not json",
         1},
        {R"({"path": "da/state", "drop": true})", "state", 0, "", 1},
        {R"({"path": "da/state", "body": "[[", "status": 299, "count": 2})", "state", 299, "[[", 2},
        {R"({"path": "notification", "body": ""})", "notification", 200, "", 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.fault);
        std::string error;
        ASSERT_TRUE(cloud_->addFault(ParseJson(row.fault), error)) << error;
        for (int i = 0; i < row.faulted; ++i) {
            Cloud::Answer answer = post(row.call, token);
            EXPECT_EQ(row.status == 0, answer.drop);
            EXPECT_EQ(row.status == 0 ? 200 : row.status, answer.status);
            EXPECT_EQ(row.body, answer.body);
            // A faulted call is recorded with what it was answered.
            EXPECT_EQ(row.status, cloud_->requests().back().status);
        }
        EXPECT_TRUE(ParseJson(post(row.call, token).body).isObject());
    }
    for (const char* fields :
         {R"({"status": 500})", R"({"path": "da/state"})", R"({"path": "x", "status": 42})",
          R"({"path": "x", "drop": "yes"})", R"({"path": "x", "body": 5})",
          R"({"path": "x", "body": "", "status": 42})"}) {
        std::string error;
        EXPECT_FALSE(cloud_->addFault(ParseJson(fields), error)) << fields;
    }
}

TEST_F(CloudTest, ControlInterface) {
    httplib::Client control("127.0.0.1", cloud_->controlPort());
    auto status = [&control](const char* path, const char* body) {
        auto result = control.Post(path, body, "application/json");
        return result ? result->status : -1;
    };
    std::string token = newToken();
    EXPECT_EQ(200, status("/control/events", R"({"event": "startsvsession", "id": 4})"));
    EXPECT_EQ(400, status("/control/events", R"({"id": 4})"));
    EXPECT_EQ(400, status("/control/faults", "not json"));
    EXPECT_EQ(200, status("/control/faults", R"({"path": "da/state", "status": 500})"));
    EXPECT_EQ(200, status("/control/settings", R"({"daPollDelayFixedMs": 100})"));
    EXPECT_EQ(200, status("/control/unsynchronized", R"({"count": 1})"));
    EXPECT_EQ(404, status("/control/desynchronize", R"({"device": "NOBODY"})"));
    EXPECT_EQ(200, status("/control/desynchronize", R"({"device": "OPID.lab"})"));

    EXPECT_FALSE(ParseJson(post("notification", token).body)["daStateSynchronized"].asBool());
    EXPECT_EQ(500, post("state", token).status);
    Json::Value answer = ParseJson(post("state", token).body);
    EXPECT_FALSE(answer["daSynchronized"].asBool());
    EXPECT_EQ(100u, answer["daPollDelayFixedMs"].asUInt());
    ASSERT_EQ(1u, answer["daEvents"].size());
    EXPECT_EQ(4u, answer["daEvents"][0]["id"].asUInt());

    auto result = control.Get("/control/requests");
    ASSERT_TRUE(result);
    Json::Value requests = ParseJson(result->body);
    ASSERT_EQ(4u, requests.size());
    EXPECT_EQ(500, requests[2]["status"].asInt());
    EXPECT_TRUE(requests[2]["headers"].isArray());
    result = control.Get("/control/devices");
    ASSERT_TRUE(result);
    EXPECT_EQ(token, ParseJson(result->body)["devices"][0]["gidToken"].asString());
}

}  // namespace
