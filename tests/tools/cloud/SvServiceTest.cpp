// The local cloud's remote-support service: sessions, the long poll for tasks
// and the results posted back, driven in process as the TLS handler drives it.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <future>

#include "support/Pki.h"
#include "tools/cloud/Cloud.h"

namespace {

using Answer = ZelCloud::Cloud::Answer;
using std::chrono::milliseconds;

constexpr const char* kHost = "FFFFFF0ACC-sv.zel.localhost";
const milliseconds kWait(10000);

long ElapsedMs(std::chrono::steady_clock::time_point start) {
    auto elapsed = std::chrono::steady_clock::now() - start;
    return static_cast<long>(std::chrono::duration_cast<milliseconds>(elapsed).count());
}

// True once `count` gets are held, over all sessions.
bool WaitForPolls(const ZelCloud::Cloud& cloud, unsigned count) {
    return cloud.waitForSessions(
        [count](const Json::Value& sessions) {
            unsigned polls = 0;
            for (const Json::Value& session : sessions) {
                polls += session["polls"].asUInt();
            }
            return polls == count;
        },
        kWait);
}

class SvServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        options_.quiet = true;
        options_.pkiDir = pki_.dir();
        options_.controlPort = 0;
        cloud_ = std::make_unique<ZelCloud::Cloud>(options_);
        Answer answer = cloud_->serve("POST", "/api/v1/da/gidtoken", kHost, cn_, "", "{}");
        gid_ = ZelTest::ParseJson(answer.body)["daGidToken"].asString();
    }
    // An sv call as the device sends it: the gid token, then the session token if any.
    Answer sv(const std::string& call, const std::string& body, const std::string& session = "",
              const std::string& cn = "") {
        std::vector<std::string> headers = {"Host: " + std::string(kHost), "Date: today",
                                            "Accept: application/json", "Authorization: " + gid_};
        if (!session.empty()) {
            headers.push_back("Authorization: " + session);
        }
        return cloud_->serve("POST", "/api/v1/sv/" + call, kHost, cn.empty() ? cn_ : cn, gid_, body,
                             headers);
    }
    std::string open(const std::string& body = "{}") {
        return ZelTest::ParseJson(sv("session/initialize", body).body)["sessionToken"].asString();
    }
    // Holds a get on another thread until the cloud answers it.
    std::future<Answer> poll(const std::string& token) {
        auto held = std::async(std::launch::async,
                               [this, token] { return sv("command/get", "{}", token); });
        EXPECT_TRUE(WaitForPolls(*cloud_, 1));
        return held;
    }
    Json::Value task(const Answer& answer) {
        EXPECT_EQ(200, answer.status) << answer.body;
        Json::Value body = ZelTest::ParseJson(answer.body);
        EXPECT_TRUE(body["taskRequest"].isString());
        return ZelTest::ParseJson(body["taskRequest"].asString());
    }

    const ZelTest::Pki& pki_ = ZelTest::Pki::Get();
    const std::string cn_ = pki_.deviceCommonName();
    ZelCloud::CloudOptions options_;
    std::unique_ptr<ZelCloud::Cloud> cloud_;
    std::string gid_;
};

TEST_F(SvServiceTest, InitializeGivesACodeOfTheDigitsAskedForAndAFreshToken) {
    const std::pair<const char*, size_t> rows[] = {
        {R"({"sessionCodeDigits": 4})", 4},  {R"({"sessionCodeDigits": 16})", 16},
        {R"({"sessionCodeDigits": 3})", 9},  {R"({"sessionCodeDigits": 17})", 9},
        {R"({"sessionCodeDigits": -5})", 9}, {"{}", 9},
    };
    std::string previous;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.first);
        Json::Value answer = ZelTest::ParseJson(sv("session/initialize", row.first).body);
        std::string code = answer["sessionCode"].asString();
        EXPECT_EQ(row.second, code.size());
        EXPECT_EQ(std::string::npos, code.find_first_not_of("0123456789"));
        EXPECT_EQ(32u, answer["sessionToken"].asString().size());
        EXPECT_NE(previous, answer["sessionToken"].asString());
        previous = answer["sessionToken"].asString();
    }
    // Only the newest session of the device stays active.
    Json::Value sessions = cloud_->sessions();
    EXPECT_EQ("retired", sessions[0]["state"].asString());
    EXPECT_EQ(previous, cloud_->activeSession(cn_)["token"].asString());
    // No session without the device's current gid token.
    gid_ = "stale";
    EXPECT_EQ(422, sv("session/initialize", "{}").status);
}

TEST_F(SvServiceTest, CallsOnASessionNeedALiveSessionOfTheDevice) {
    std::string retired = open();
    std::string suspended = open();
    ASSERT_EQ(200, sv("session/suspend", "{}", suspended).status);
    const char* calls[] = {"session/terminate", "session/suspend", "session/resume", "command/get",
                           "command/put"};
    for (const char* call : calls) {
        SCOPED_TRACE(call);
        std::string body = std::string(call) == "command/put" ? R"({"taskResponse": "{}"})" : "{}";
        EXPECT_EQ(422, sv(call, body).status);  // no session header
        EXPECT_EQ(422, sv(call, body, "unknown").status);
        EXPECT_EQ(422, sv(call, body, retired).status);  // replaced by a newer session
        EXPECT_EQ(422, sv(call, body, suspended, "OTHER.zel.localhost").status);
    }
    // A suspended session answers no task at once and can be resumed, then ended.
    EXPECT_EQ(204, sv("command/get", "{}", suspended).status);
    EXPECT_EQ(200, sv("session/resume", R"({"timeoutMs": 7})", suspended).status);
    EXPECT_EQ(7u, cloud_->activeSession()["timeoutMs"].asUInt());
    EXPECT_EQ(200, sv("session/terminate", "{}", suspended).status);
    EXPECT_EQ(422, sv("session/resume", "{}", suspended).status);
    EXPECT_TRUE(cloud_->activeSession().isNull());
}

TEST_F(SvServiceTest, ATaskReleasesAHeldPollAndIsSentUntilAcknowledged) {
    std::string token = open();
    std::string code = cloud_->activeSession()["code"].asString();
    auto held = poll(token);
    Json::Value requests = ZelTest::ParseJson(
        R"([{"COMMAND": {"NAME": "FFFFFF_LIVE_SUPPORT_GET_DEVICE_INFO", "OPERATION": "EXECUTE",
            "VERSION": 0}, "INPUTS": {}}])");
    uint32_t seqNum = 0;
    std::string error;
    ASSERT_TRUE(cloud_->queueTask(requests, seqNum, error)) << error;
    EXPECT_EQ(1u, seqNum);
    Json::Value document = task(held.get());
    EXPECT_EQ(code, document["SESSION_ID"].asString());
    EXPECT_EQ("1", document["TASK_ID"].asString());
    EXPECT_EQ(requests, document["REQUESTS"]);
    // The answer may have been lost: until seqNum 1 comes back, task 1 is sent again.
    EXPECT_EQ("1", task(sv("command/get", R"({"seqNum": 0})", token))["TASK_ID"].asString());
    ASSERT_TRUE(cloud_->queueRawTask("not json", seqNum, error)) << error;
    EXPECT_EQ("not json",
              ZelTest::ParseJson(sv("command/get", R"({"seqNum": 1})", token).body)["taskRequest"]
                  .asString());
    // Acknowledged tasks are not sent again, even to a device starting over from 0.
    cloud_->setLongPollMs(20);
    Answer none = sv("command/get", R"({"seqNum": 2})", token);
    EXPECT_EQ(204, none.status);
    EXPECT_EQ("", none.body);
    EXPECT_EQ(204, sv("command/get", R"({"seqNum": 0})", token).status);
}

TEST_F(SvServiceTest, AHeldPollEndsWhenItsSessionIsRetiredOrTheCloudStops) {
    cloud_->setLongPollMs(60000);
    std::string token = open();
    auto held = poll(token);
    open();
    EXPECT_EQ(422, held.get().status);

    held = poll(open());
    // Only queued for an active session.
    uint32_t seqNum = 0;
    std::string error;
    EXPECT_FALSE(cloud_->queueTask(Json::Value(), seqNum, error));
    EXPECT_FALSE(cloud_->queueTask(Json::Value(Json::arrayValue), seqNum, error, "nobody"));
    auto start = std::chrono::steady_clock::now();
    cloud_->stop();
    EXPECT_EQ(204, held.get().status);
    EXPECT_LT(ElapsedMs(start), 2000);
}

TEST_F(SvServiceTest, PutRecordsEachResultAndCountsThem) {
    std::string token = open();
    uint32_t seqNum = 0;
    std::string error;
    ASSERT_TRUE(cloud_->queueTask(Json::Value(Json::arrayValue), seqNum, error)) << error;
    const char* results[] = {R"({"SESSION_ID": "1", "TASK_ID": "1", "TASK_OUTPUT": {}})", "bad"};
    for (uint32_t i = 0; i < 2; ++i) {
        Json::Value body;
        body["taskResponse"] = results[i];
        body["seqNum"] = i;
        Answer answer = sv("command/put", body.toStyledString(), token);
        EXPECT_EQ(i + 1, ZelTest::ParseJson(answer.body)["seqNum"].asUInt());
    }
    ASSERT_TRUE(cloud_->waitForResults(2, kWait, cn_));
    Json::Value listed = cloud_->activeSession()["results"];
    EXPECT_EQ(1u, listed[0]["taskSeqNum"].asUInt());
    EXPECT_TRUE(listed[0]["document"]["TASK_OUTPUT"].isObject());
    EXPECT_EQ("bad", listed[1]["taskResponse"].asString());
    EXPECT_TRUE(listed[1]["document"].isNull());
    EXPECT_TRUE(listed[1]["taskSeqNum"].isNull());
}

TEST_F(SvServiceTest, MalformedCallsAreRefusedNotThrownAbout) {
    std::string token = open();
    const std::pair<const char*, const char*> rows[] = {
        {"session/initialize", "not json"},
        {"session/initialize", "[1]"},
        {"session/initialize", R"({"sessionCodeDigits": "9"})"},
        {"session/initialize", R"({"allowSessionCodeBypass": 1})"},
        {"session/initialize", R"({"timeoutMs": -1})"},
        {"session/resume", R"({"timeoutMs": 1e20})"},
        {"session/terminate", "\xff\xfe"},
        {"command/get", R"({"seqNum": "1"})"},
        {"command/get", R"({"seqNum": 4294967296})"},
        {"command/put", R"({"seqNum": 1})"},
        {"command/put", R"({"taskResponse": {"TASK_ID": 1}})"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.first) + " " + row.second);
        EXPECT_EQ(400, sv(row.first, row.second, token).status);
    }
    EXPECT_EQ(404, sv("session/other", "{}", token).status);
    EXPECT_EQ(405, cloud_->serve("GET", "/api/v1/sv/command/get", kHost, cn_, gid_, "").status);
    // Nothing of it reached the session.
    EXPECT_EQ("active", cloud_->activeSession()["state"].asString());
}

TEST_F(SvServiceTest, TheControlInterfaceOpensSessionsAndQueuesTasks) {
    ASSERT_TRUE(cloud_->start()) << cloud_->error();
    httplib::Client control("127.0.0.1", cloud_->controlPort());
    auto post = [&control](const char* path, const std::string& body) {
        auto res = control.Post(path, body, "application/json");
        return res ? res->status : -1;
    };
    EXPECT_EQ(200, post("/control/sessions", R"({"device": "D"})"));
    EXPECT_EQ("startsvsession", cloud_->device("D")->events.front().event);
    EXPECT_EQ(409, post("/control/tasks", R"({"requests": []})"));
    open();
    const std::pair<const char*, int> rows[] = {
        {R"({"requests": []})", 200},
        {R"({"raw": "x"})", 200},
        {R"({"requests": [], "raw": ""})", 400},
        {R"({"requests": {}})", 400},
        {R"({"raw": 1})", 400},
        {R"({"device": 1, "raw": ""})", 400},
        {"[]", 400},
        {R"({"device": "D", "raw": ""})", 409},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.second, post("/control/tasks", row.first)) << row.first;
    }
    auto listed = control.Get("/control/sessions");
    ASSERT_TRUE(listed);
    EXPECT_EQ("x", ZelTest::ParseJson(listed->body)[0]["tasks"][1]["taskRequest"].asString());
}

size_t Collect(char* data, size_t size, size_t count, void* body) {
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
}

// Over TLS, as the device calls: two Authorization headers, the poll held in a worker.
TEST_F(SvServiceTest, TheTlsServerCarriesBothTokensAndStopsWithAPollHeld) {
    cloud_->setLongPollMs(60000);
    ASSERT_TRUE(cloud_->start()) << cloud_->error();
    std::string token = open();
    auto get = [&](uint32_t seqNum, std::string& body) {
        std::string port = std::to_string(cloud_->port());
        std::string url = "https://" + std::string(kHost) + ":" + port + "/api/v1/sv/command/get";
        std::string request = "{\"seqNum\": " + std::to_string(seqNum) + "}";
        std::string password = ZelTest::ReadFile(pki_.file("device.pass"));
        curl_slist* resolve =
            curl_slist_append(nullptr, (kHost + (":" + port) + ":127.0.0.1").c_str());
        curl_slist* headers = curl_slist_append(nullptr, ("Authorization: " + gid_).c_str());
        headers = curl_slist_append(headers, ("Authorization: " + token).c_str());
        CURL* curl = curl_easy_init();
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_RESOLVE, resolve);
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(curl, CURLOPT_CAINFO, pki_.file("ca.crt").c_str());
        curl_easy_setopt(curl, CURLOPT_SSLCERT, pki_.file("device.crt").c_str());
        curl_easy_setopt(curl, CURLOPT_SSLKEY, pki_.file("device.key").c_str());
        curl_easy_setopt(curl, CURLOPT_KEYPASSWD, password.c_str());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.c_str());
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Collect);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
        long status = -1;
        if (curl_easy_perform(curl) == CURLE_OK) {
            curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        }
        curl_easy_cleanup(curl);
        curl_slist_free_all(headers);
        curl_slist_free_all(resolve);
        return status;
    };
    std::string first;
    std::string second;
    auto held = std::async(std::launch::async, [&] { return get(0, first); });
    uint32_t seqNum = 0;
    std::string error;
    ASSERT_TRUE(WaitForPolls(*cloud_, 1));
    ASSERT_TRUE(cloud_->queueRawTask("{}", seqNum, error)) << error;
    EXPECT_EQ(200, held.get());
    EXPECT_EQ(1u, ZelTest::ParseJson(first)["seqNum"].asUInt());

    held = std::async(std::launch::async, [&] { return get(1, second); });
    ASSERT_TRUE(WaitForPolls(*cloud_, 1));
    auto start = std::chrono::steady_clock::now();
    cloud_->stop();
    EXPECT_EQ(204, held.get());
    EXPECT_LT(ElapsedMs(start), 3000);
    EXPECT_EQ("", second);
}

}  // namespace
