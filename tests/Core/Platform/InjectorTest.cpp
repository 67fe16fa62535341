#include "Core/Platform/Injector.h"

#include <gtest/gtest.h>

#include <string>

#include "Core/Platform/Http.h"
#include "support/TempDir.h"

using Zel::Core::Http;
using Zel::Core::Injector;

namespace {

class InjectorTest : public testing::Test {
protected:
    void SetUp() override { Injector::Instance().terminate(); }
    void TearDown() override { Injector::Instance().terminate(); }

    // "status body [headers]" of the injected answer, or "through" when the
    // injector let the request pass.
    static std::string Mock(const std::string& url) {
        Http::Request request;
        request.url = url;
        Http::Response response;
        response.mocked = true;  // must be cleared when nothing answers
        bool answered = Injector::Instance().mock(request, response);
        EXPECT_EQ(answered, response.mocked);
        std::string text = std::to_string(response.status) + " " + response.body;
        for (const std::string& header : response.headers) {
            text += " [" + header + "]";
        }
        return answered ? text : "through";
    }
};

TEST_F(InjectorTest, AnswersByWholeSuffixInOrderRepeatingTheLast) {
    Injector::Instance().initialize(ZelTest::ParseJson(R"([
        {"suffix": "https://host/api/v1/da/notification/longer", "responses": [{"statusCode": 500}]},
        {"suffix": "/notification", "responses": [{"statusCode": 200}]},
        {"suffix": "da/notification", "responses": [{"statusCode": 204}]},
        {"suffix": "/sv/command/get", "responses": []},
        {"responses": [{"statusCode": 418}]},
        {"suffix": "get", "responses": [{"statusCode": 207}]},
        {"suffix": "da/state", "responses": [{"statusCode": 201, "body": "one"},
            {"statusCode": 202, "body": "two", "headers": ["X-A: 1"]}]},
        {"suffix": "/json", "responses": [{"statusCode": 200, "body": {"a": [1, "b"]}}]}])"));
    const struct {
        const char* name;
        const char* url;
        std::string answer;
    } rows[] = {
        // A suffix longer than the URL never matches; the first match wins.
        {"first whole suffix", "https://host/api/v1/da/notification", "200 {}"},
        {"URL shorter than every suffix", "notification", "through"},
        {"a query is part of the URL", "https://host/api/v1/da/notification?x=1", "through"},
        // Entries without responses or without a suffix are dropped, not matched.
        {"entry without responses", "https://host/api/v1/sv/command/get", "207 {}"},
        {"answers in order", "https://h/api/v1/da/state", "201 one"},
        {"then the last", "https://h/api/v1/da/state", "202 two [X-A: 1]"},
        {"a JSON body written compact", "https://h/json", "200 {\"a\":[1,\"b\"]}"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.answer, Mock(row.url));
    }
    // initialize starts the counters afresh.
    Injector::Instance().initialize(ZelTest::ParseJson(R"([
        {"suffix": "da/state", "responses": [{"statusCode": 201}, {"statusCode": 202}]}])"));
    EXPECT_EQ("201 {}", Mock("https://h/api/v1/da/state"));
}

}  // namespace
