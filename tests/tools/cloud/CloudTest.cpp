// What the tests rely on in the local cloud beyond what the agent's own tests
// show: its fault plan.
#include "tools/cloud/Cloud.h"

#include <gtest/gtest.h>

#include "support/Pki.h"

namespace {

TEST(CloudTest, FaultsApplyToTheirPathForTheirCount) {
    ZelCloud::CloudOptions options;
    options.quiet = true;
    options.pkiDir = ZelTest::Pki::Get().dir();
    ZelCloud::Cloud cloud(options);
    ASSERT_TRUE(cloud.start()) << cloud.error();
    // The protocol as the TLS handler serves it, without a network.
    auto post = [&cloud](const std::string& call, const std::string& token) {
        return cloud.serve("POST", "/api/v1/da/" + call, "OPID-da.lab", "OPID.lab", token, "{}");
    };
    std::string token = ZelTest::ParseJson(post("gidtoken", "").body)["daGidToken"].asString();
    const struct {
        const char* fault;
        const char* call;
        int status;        // of the faulted calls; 0: dropped
        const char* body;  // of the faulted calls
        int faulted;       // calls affected before the normal answer comes back
    } rows[] = {
        {R"({"path": "da/state", "status": 503, "count": 2})", "state", 503, "{}", 2},
        {R"({"path": "da/state", "drop": true})", "state", 0, "", 1},
        {R"({"path": "notification", "body": ""})", "notification", 200, "", 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.fault);
        std::string error;
        ASSERT_TRUE(cloud.addFault(ZelTest::ParseJson(row.fault), error)) << error;
        for (int i = 0; i < row.faulted; ++i) {
            ZelCloud::Cloud::Answer answer = post(row.call, token);
            EXPECT_EQ(row.status == 0, answer.drop);
            EXPECT_EQ(row.status == 0 ? 200 : row.status, answer.status);
            EXPECT_EQ(row.body, answer.body);
            // A faulted call is recorded with what it was answered.
            EXPECT_EQ(row.status, cloud.requests().back().status);
        }
        EXPECT_TRUE(ZelTest::ParseJson(post(row.call, token).body).isObject());
    }
    // Numbers beyond what the plan holds are refused, not thrown about.
    for (const char* bad : {R"({"path": "x", "count": 4294967296})",
                            R"({"path": "x", "delayMs": 9223372036854775808})"}) {
        std::string error;
        EXPECT_FALSE(cloud.addFault(ZelTest::ParseJson(bad), error)) << bad;
    }
}

}  // namespace
