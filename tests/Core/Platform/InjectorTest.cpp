#include "Core/Platform/Injector.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "Core/Platform/Http.h"
#include "Core/Platform/TimeManager.h"
#include "support/LogCapture.h"

using Zel::Core::Http;
using Zel::Core::Injector;
using Zel::Core::TimeManager;

namespace {

class InjectorTest : public testing::Test {
protected:
    void SetUp() override { Injector::Instance().terminate(); }
    void TearDown() override {
        Injector::Instance().terminate();
        TimeManager::Instance().setClock({});
    }

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
        {"suffix": "/plain", "responses": [{"statusCode": 200, "body": "not JSON {\u00e9"}]},
        {"suffix": "/json", "responses": [{"statusCode": 200, "body": {"a": [1, "b"]}}]},
        {"suffix": "/default", "responses": [{}]},
        {"suffix": "/headers", "responses": [{"headers": {"X-B": "2", "X-C": 3}}]},
        {"suffix": "/odd", "responses": [{"statusCode": "500", "body": "", "duration": -4}]}])"));
    const struct {
        const char* name;
        const char* url;
        std::string answer;
    } rows[] = {
        // A suffix longer than the URL never matches; the first match wins.
        {"first whole suffix", "https://host/api/v1/da/notification", "200 {}"},
        {"URL shorter than every suffix", "notification", "through"},
        {"a query is part of the URL", "https://host/api/v1/da/notification?x=1", "through"},
        {"case counts", "https://host/api/v1/da/NOTIFICATION", "through"},
        // Entries without responses or without a suffix are dropped, not matched.
        {"entry without responses", "https://host/api/v1/sv/command/get", "207 {}"},
        {"no entry", "https://host/api/v1/su/metadata", "through"},
        {"answers in order", "https://h/api/v1/da/state", "201 one"},
        {"then the last", "https://h/api/v1/da/state", "202 two [X-A: 1]"},
        {"and the last again", "https://h/api/v1/da/state", "202 two [X-A: 1]"},
        {"a body as it is", "https://h/plain", "200 not JSON {\xc3\xa9"},
        {"a JSON body written compact", "https://h/json", "200 {\"a\":[1,\"b\"]}"},
        {"defaults", "https://h/default", "200 {}"},
        {"a header that is no string is dropped", "https://h/headers", "200 {} [X-B: 2]"},
        {"a status that is no number keeps the default", "https://h/odd", "200 "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.answer, Mock(row.url));
    }
    // initialize starts the counters afresh; a section that is no array configures nothing.
    Injector::Instance().initialize(ZelTest::ParseJson(R"([
        {"suffix": "da/state", "responses": [{"statusCode": 201}, {"statusCode": 202}]}])"));
    EXPECT_EQ("201 {}", Mock("https://h/api/v1/da/state"));
    Injector::Instance().initialize(ZelTest::ParseJson(R"({"suffix": "/plain"})"));
    EXPECT_EQ("through", Mock("https://h/plain"));
}

TEST_F(InjectorTest, AnswersThroughPerformEvenWhileTheClockIsBad) {
    ZelTest::LogCapture capture;
    TimeManager::Instance().setClock([] { return timespec{TimeManager::kGoodTimeThreshold, 0}; });
    Injector::Instance().initialize(ZelTest::ParseJson(R"([
        {"suffix": "/da/notification", "responses": [{"statusCode": 200, "body": "<html>"}]}])"));

    Http::Request request;
    request.url = "https://FFFFFF0ACC-da.zel.localhost/api/v1/da/notification";
    Http::Response response;
    ASSERT_TRUE(Http::Perform(request, response));
    EXPECT_TRUE(response.mocked);
    EXPECT_EQ("<html>", response.body);
    EXPECT_FALSE(capture.contains("curl_easy_perform() skipped because time is bad!"));

    // Without an injected answer there is no transfer at all.
    request.url = "https://FFFFFF0ACC-da.zel.localhost/api/v1/da/state";
    EXPECT_FALSE(Http::Perform(request, response));
    EXPECT_FALSE(response.mocked);
    EXPECT_TRUE(capture.contains("curl_easy_perform() skipped because time is bad!"));
    EXPECT_FALSE(capture.contains("curl_easy_init()"));
}

TEST_F(InjectorTest, DurationDelaysTheAnswerAndTerminateCutsItShort) {
    Injector::Instance().initialize(ZelTest::ParseJson(R"([
        {"suffix": "/short", "responses": [{"statusCode": 201, "duration": 0.01}]},
        {"suffix": "/long", "responses": [{"statusCode": 202, "duration": 3600}]}])"));
    EXPECT_EQ("201 {}", Mock("https://h/short"));

    // An hour-long answer must not hold up a shut-down: whether terminate()
    // comes before or during the wait, the call returns.
    std::string answer;
    std::thread caller([&answer] { answer = Mock("https://h/long"); });
    Injector::Instance().terminate();
    caller.join();
    EXPECT_TRUE(answer == "202 {}" || answer == "through") << answer;
}

}  // namespace
