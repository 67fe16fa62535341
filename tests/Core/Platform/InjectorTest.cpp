#include "Core/Platform/Injector.h"

#include <gtest/gtest.h>

#include <json/reader.h>
#include "support/TempDir.h"

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "Core/Platform/Http.h"
#include "Core/Platform/TimeManager.h"
#include "support/LogCapture.h"

using Zel::Core::Http;
using Zel::Core::Injector;
using Zel::Core::TimeManager;

namespace {

Http::Request RequestTo(const std::string& url) {
    Http::Request request;
    request.url = url;
    return request;
}

class InjectorTest : public testing::Test {
protected:
    void SetUp() override { Injector::Instance().terminate(); }
    void TearDown() override {
        Injector::Instance().terminate();
        TimeManager::Instance().setClock({});
    }

    // Status of the injected answer, or -1 when the injector let the request through.
    static long Mock(const std::string& url, Http::Response* out = nullptr) {
        Http::Request request = RequestTo(url);
        Http::Response response;
        response.mocked = true;  // must be cleared when nothing answers
        bool answered = Injector::Instance().mock(request, response);
        EXPECT_EQ(answered, response.mocked);
        if (out != nullptr) {
            *out = response;
        }
        return answered ? response.status : -1;
    }
};

TEST_F(InjectorTest, AnswersInOrderAndRepeatsTheLast) {
    Injector::Instance().initialize(ZelTest::ParseJson(R"([
        {"suffix": "da/synchronize", "responses": [
            {"statusCode": 201, "body": "one"},
            {"statusCode": 202, "body": "two", "headers": ["X-A: 1"]}]}])"));
    Http::Response response;
    EXPECT_EQ(Mock("https://FFFFFF0ACC-da.zel.localhost/api/v1/da/synchronize", &response), 201);
    EXPECT_EQ(response.body, "one");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Mock("https://FFFFFF0ACC-da.zel.localhost/api/v1/da/synchronize", &response),
                  202);
        EXPECT_EQ(response.body, "two");
        ASSERT_EQ(response.headers.size(), 1u);
        EXPECT_EQ(response.headers[0], "X-A: 1");
    }

    // initialize starts the counters afresh.
    Injector::Instance().initialize(ZelTest::ParseJson(R"([
        {"suffix": "synchronize", "responses": [{"statusCode": 201}, {"statusCode": 202}]}])"));
    EXPECT_EQ(Mock("https://x/synchronize"), 201);
    EXPECT_EQ(Mock("https://x/synchronize"), 202);
}

TEST_F(InjectorTest, MatchesOnlyWholeSuffixesInConfigurationOrder) {
    Injector::Instance().initialize(ZelTest::ParseJson(R"([
        {"suffix": "https://host/api/v1/da/notification/longer", "responses": [{"statusCode": 500}]},
        {"suffix": "/notification", "responses": [{"statusCode": 200}]},
        {"suffix": "da/notification", "responses": [{"statusCode": 204}]},
        {"suffix": "/sv/command/get", "responses": []},
        {"responses": [{"statusCode": 418}]},
        {"suffix": "get", "responses": [{"statusCode": 207}]}])"));
    // A suffix longer than the URL never matches, even when the URL is its prefix.
    EXPECT_EQ(Mock("https://host/api/v1/da/notification"), 200);
    EXPECT_EQ(Mock("notification"), -1);
    EXPECT_EQ(Mock("https://host/api/v1/da/notification?x=1"), -1);
    EXPECT_EQ(Mock("https://host/api/v1/da/NOTIFICATION"), -1);
    // Entries without responses or without a suffix are dropped, not matched.
    EXPECT_EQ(Mock("https://host/api/v1/sv/command/get"), 207);
    EXPECT_EQ(Mock("https://host/api/v1/su/metadata"), -1);

    // Nothing is left after terminate().
    Injector::Instance().terminate();
    EXPECT_EQ(Mock("https://host/api/v1/da/notification"), -1);
}

TEST_F(InjectorTest, BodiesAndDefaults) {
    Injector::Instance().initialize(ZelTest::ParseJson(R"([
        {"suffix": "/plain", "responses": [{"statusCode": 200, "body": "not JSON {\u00e9"}]},
        {"suffix": "/json", "responses": [{"statusCode": 200, "body": {"a": [1, "b"]}}]},
        {"suffix": "/default", "responses": [{}]},
        {"suffix": "/headers", "responses": [{"headers": {"X-B": "2", "X-C": 3}}]},
        {"suffix": "/odd", "responses": [{"statusCode": "500", "body": "", "duration": -4}]}])"));
    Http::Response response;
    EXPECT_EQ(Mock("https://h/plain", &response), 200);
    EXPECT_EQ(response.body, "not JSON {\xc3\xa9");
    EXPECT_EQ(Mock("https://h/json", &response), 200);
    EXPECT_EQ(response.body, R"({"a":[1,"b"]})");
    EXPECT_EQ(Mock("https://h/default", &response), 200);
    EXPECT_EQ(response.body, "{}");
    EXPECT_TRUE(response.headers.empty());
    Mock("https://h/headers", &response);
    ASSERT_EQ(response.headers.size(), 1u);  // a header value that is no string is dropped
    EXPECT_EQ(response.headers[0], "X-B: 2");
    // A status that is no number keeps the default; an empty body stays empty.
    EXPECT_EQ(Mock("https://h/odd", &response), 200);
    EXPECT_EQ(response.body, "");

    // A section that is not an array configures nothing.
    Injector::Instance().initialize(ZelTest::ParseJson(R"({"suffix": "/plain"})"));
    EXPECT_EQ(Mock("https://h/plain"), -1);
}

TEST_F(InjectorTest, AnswersThroughPerformEvenWhileTheClockIsBad) {
    ZelTest::LogCapture capture;
    TimeManager::Instance().setClock([] {
        timespec at{};
        at.tv_sec = 1000;
        return at;
    });
    Injector::Instance().initialize(ZelTest::ParseJson(R"([
        {"suffix": "/da/notification", "responses": [{"statusCode": 200, "body": "<html>"}]}])"));

    Http::Request request = RequestTo("https://FFFFFF0ACC-da.zel.localhost/api/v1/da/notification");
    Http::Response response;
    ASSERT_TRUE(Http::Perform(request, response));
    EXPECT_TRUE(response.mocked);
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, "<html>");
    EXPECT_FALSE(capture.contains("curl_easy_perform() skipped because time is bad!"));

    Http::Request other = RequestTo("https://FFFFFF0ACC-da.zel.localhost/api/v1/da/synchronize");
    EXPECT_FALSE(Http::Perform(other, response));
    EXPECT_FALSE(response.mocked);
    EXPECT_TRUE(capture.contains("curl_easy_perform() skipped because time is bad!"));
    EXPECT_FALSE(capture.contains("curl_easy_init()"));
}

TEST_F(InjectorTest, DurationDelaysTheAnswerAndTerminateCutsItShort) {
    // A short wait is served in full.
    Injector::Instance().initialize(ZelTest::ParseJson(R"([
        {"suffix": "/short", "responses": [{"statusCode": 201, "duration": 0.01}]},
        {"suffix": "/long", "responses": [{"statusCode": 202, "duration": 3600}]}])"));
    EXPECT_EQ(Mock("https://h/short"), 201);

    // An hour-long answer must not hold up a shut-down: whether terminate()
    // comes before or during the wait, the call returns.
    std::atomic<long> status{0};
    std::thread caller([&status] { status = Mock("https://h/long"); });
    Injector::Instance().terminate();
    caller.join();
    EXPECT_TRUE(status == 202 || status == -1) << status;
}

}  // namespace
