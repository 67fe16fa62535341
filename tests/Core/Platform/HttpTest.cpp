#include "Core/Platform/Http.h"

#include <gtest/gtest.h>

#include <json/reader.h>
#include <json/writer.h>
#include "support/TempDir.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Core/Platform/Base64Util.h"
#include "Core/Platform/Injector.h"
#include "Core/Platform/TimeManager.h"
#include "Core/Project/ProductIdentity.h"
#include "support/LogCapture.h"
#include "support/Pki.h"
#include "tools/cloud/TlsServer.h"

using Zel::Core::Http;
using Zel::Core::Injector;
using Zel::Core::ProductIdentity;
using Zel::Core::TimeManager;

namespace {

// Holds the "/slow" handler until the test lets it go. Each release() frees
// the handlers that entered before it, whatever reset() does afterwards.
struct Gate {
    std::mutex mutex;
    std::condition_variable changed;
    bool entered = false;
    unsigned generation = 0;

    void reset() {
        std::lock_guard<std::mutex> lock(mutex);
        entered = false;
    }
    void release() {
        std::lock_guard<std::mutex> lock(mutex);
        ++generation;
        changed.notify_all();
    }
    void waitEntered() {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return entered; });
    }
    void enterAndHold() {
        std::unique_lock<std::mutex> lock(mutex);
        unsigned mine = generation;
        entered = true;
        changed.notify_all();
        changed.wait(lock, [this, mine] { return generation != mine; });
    }
};

// Adds the handlers every server of these tests answers with; `hits` counts
// the requests that got through the handshake.
void AddHandlers(ZelCloud::TlsServer& server, std::atomic<int>& hits, Gate* gate) {
    httplib::Server& http = server.http();
    http.Get("/api/v1/whoami", [&hits](const httplib::Request& req, httplib::Response& res) {
        ++hits;
        res.set_header("X-Zel-Test", "whoami");
        res.set_content(ZelCloud::TlsServer::ClientCommonName(req), "text/plain");
    });
    http.Get("/api/v1/port", [&hits](const httplib::Request& req, httplib::Response& res) {
        ++hits;
        res.set_content(std::to_string(req.remote_port), "text/plain");
    });
    http.Get("/api/v1/missing", [&hits](const httplib::Request&, httplib::Response& res) {
        ++hits;
        res.status = 404;
    });
    http.Post("/api/v1/echo", [&hits](const httplib::Request& req, httplib::Response& res) {
        ++hits;
        Json::Value answer;
        answer["body"] = req.body;
        answer["contentType"] = req.get_header_value("Content-Type");
        answer["zel"] = req.get_header_value("X-Zel");
        if (req.is_multipart_form_data()) {
            answer["data"] = req.get_file_value("data").content;
            answer["token"] = req.get_file_value("token").content;
        }
        res.set_content(Json::FastWriter().write(answer), "application/json");
    });
    if (gate != nullptr) {
        http.Get("/api/v1/slow", [&hits, gate](const httplib::Request&, httplib::Response& res) {
            ++hits;
            gate->enterAndHold();
            res.set_content("late", "text/plain");
        });
    }
}

// The identity document with the fields of `changes` (JSON text) replaced.
std::string IdentityWith(const std::string& identity, const std::string& changes) {
    Json::Value document = ZelTest::ParseJson(identity);
    Json::Value replaced = ZelTest::ParseJson(changes);
    for (const std::string& name : replaced.getMemberNames()) {
        document[name] = replaced[name];
    }
    return Json::FastWriter().write(document);
}

// The first logged message starting with `prefix`, or "".
std::string Logged(const ZelTest::LogCapture& capture, const std::string& prefix) {
    for (const std::string& message : capture.messages()) {
        if (message.rfind(prefix, 0) == 0) {
            return message;
        }
    }
    return std::string();
}

std::string PerformFailure(const ZelTest::LogCapture& capture) {
    return Logged(capture, "curl_easy_perform() failed with code ");
}

class HttpTest : public testing::Test {
protected:
    // One server for the whole binary: its port goes into the device
    // certificate, so it is bound before the PKI is made.
    static void SetUpTestSuite() {
        Http::Initialize(true, true);
        server_ = new ZelCloud::TlsServer();
        if (!server_->bind()) {
            setUpError_ = "bind: " + server_->error();
            return;
        }
        pki_ = &ZelTest::Pki::Get("zel.localhost:" + std::to_string(server_->port()));
        if (!pki_->ok()) {
            setUpError_ = pki_->error();
            return;
        }
        AddHandlers(*server_, hits_, &gate_);
        if (!server_->start(pki_->serverConfig())) {
            setUpError_ = "start: " + server_->error();
            return;
        }
        identity_ = new ProductIdentity(pki_->identityJson().c_str());
    }

    static void TearDownTestSuite() {
        gate_.release();
        delete server_;
        server_ = nullptr;
        delete identity_;
        identity_ = nullptr;
        Http::Terminate();
    }

    void SetUp() override {
        ASSERT_EQ(setUpError_, "");
        Injector::Instance().terminate();
        ASSERT_TRUE(server_->loadOcspResponse(pki_->file("server.ocsp.der")));
        gate_.reset();
    }

    void TearDown() override {
        gate_.release();
        TimeManager::Instance().setClock({});
    }

    static Http::Request MakeRequest(const std::string& path, int port = 0) {
        Http::Request request;
        request.url = "https://" + pki_->opid() +
                      "-da.zel.localhost:" + std::to_string(port == 0 ? server_->port() : port) +
                      path;
        request.identity = identity_;
        request.connectTimeoutMs = 10000;
        request.timeoutMs = 60000;
        return request;
    }

    // A one-off GET that must fail before any handler of ours runs; returns the
    // failure `capture` logged.
    static std::string Refused(const ZelTest::LogCapture& capture, const ProductIdentity* identity,
                               int port = 0) {
        int before = hits_;
        Http::Request request = MakeRequest("/api/v1/whoami", port);
        request.identity = identity;
        Http::Response response;
        EXPECT_FALSE(Http::Perform(request, response));
        Http::Cleanup(request);
        EXPECT_EQ(hits_, before);
        return PerformFailure(capture);
    }

    static inline ZelCloud::TlsServer* server_ = nullptr;
    static inline const ZelTest::Pki* pki_ = nullptr;
    static inline ProductIdentity* identity_ = nullptr;
    static inline std::atomic<int> hits_{0};
    static inline Gate gate_;
    static inline std::string setUpError_;
};

TEST_F(HttpTest, ExchangesWithTheDeviceCertificate) {
    ZelTest::LogCapture capture;
    Http::Request request = MakeRequest("/api/v1/whoami");
    Http::Response response;
    ASSERT_TRUE(Http::Perform(request, response)) << PerformFailure(capture);

    EXPECT_EQ(response.status, 200);
    EXPECT_FALSE(response.mocked);
    // The server verified the client certificate and saw the device's name.
    EXPECT_EQ(response.body, "FFFFFF0ACC.zel.localhost:" + std::to_string(server_->port()));
    EXPECT_NE(std::find(response.headers.begin(), response.headers.end(), "X-Zel-Test: whoami"),
              response.headers.end());
    for (const std::string& header : response.headers) {
        EXPECT_NE(header.rfind("HTTP/", 0), 0u) << header;
        EXPECT_EQ(header.find_first_of("\r\n"), std::string::npos) << header;
    }
    EXPECT_TRUE(capture.contains("HTTP Status: 200"));

    // Another status is an answer like any other.
    Http::Request missing = MakeRequest("/api/v1/missing");
    ASSERT_TRUE(Http::Perform(missing, response));
    EXPECT_EQ(response.status, 404);
    EXPECT_EQ(response.body, "");

    EXPECT_EQ(capture.count("curl_easy_cleanup()"), 0u);
    Http::Cleanup(request);
    Http::Cleanup(request);
    EXPECT_EQ(capture.count("curl_easy_cleanup()"), 1u);
    EXPECT_FALSE(request.handle);
    Http::Cleanup(missing);
}

TEST_F(HttpTest, SendsBodiesFormsAndVerbs) {
    ZelTest::LogCapture capture;
    Http::Request post = MakeRequest("/api/v1/echo");
    post.verb = Http::Verb::Post;
    post.body = "{\"a\":\"b\\u0000c\"}";
    post.headers = {"Content-Type: application/json; charset=UTF-8", "X-Zel: 1"};
    Http::Response response;
    ASSERT_TRUE(Http::Perform(post, response)) << PerformFailure(capture);
    Json::Value echo = ZelTest::ParseJson(response.body);
    EXPECT_EQ(echo["body"].asString(), post.body);
    EXPECT_EQ(echo["contentType"].asString(), "application/json; charset=UTF-8");
    EXPECT_EQ(echo["zel"].asString(), "1");

    // An empty body is still a POST with a length of 0.
    post.body.clear();
    ASSERT_TRUE(Http::Perform(post, response));
    EXPECT_EQ(ZelTest::ParseJson(response.body)["body"].asString(), "");
    EXPECT_TRUE(capture.contains("> Content-Length: 0"));

    Http::Request form = MakeRequest("/api/v1/echo");
    form.verb = Http::Verb::FormPost;
    form.formData = "{\"objects\":[1,2]}";
    form.formToken = "t0ken&=;\"";
    ASSERT_TRUE(Http::Perform(form, response)) << PerformFailure(capture);
    echo = ZelTest::ParseJson(response.body);
    EXPECT_EQ(echo["data"].asString(), form.formData);
    EXPECT_EQ(echo["token"].asString(), form.formToken);
    EXPECT_EQ(echo["contentType"].asString().rfind("multipart/form-data; boundary=", 0), 0u);

    // The verb goes out in lower case; the test server does not know it.
    Http::Request remove = MakeRequest("/api/v1/item");
    remove.verb = Http::Verb::Delete;
    ASSERT_TRUE(Http::Perform(remove, response)) << PerformFailure(capture);
    EXPECT_TRUE(capture.contains("> delete /api/v1/item HTTP/1.1"));
    EXPECT_EQ(response.status, 400);

    Http::Cleanup(post);
    Http::Cleanup(form);
    Http::Cleanup(remove);
}

TEST_F(HttpTest, ReusableRequestKeepsItsConnection) {
    ZelTest::LogCapture capture;
    Http::Request request = MakeRequest("/api/v1/port");
    request.reusable = true;
    Http::Response first;
    Http::Response second;
    ASSERT_TRUE(Http::Perform(request, first)) << PerformFailure(capture);
    // A different verb and body on the same handle must not leak into the next call.
    request.url = MakeRequest("/api/v1/echo").url;
    request.verb = Http::Verb::Post;
    request.body = "x";
    Http::Response echo;
    ASSERT_TRUE(Http::Perform(request, echo));
    request.url = MakeRequest("/api/v1/port").url;
    request.verb = Http::Verb::Get;
    ASSERT_TRUE(Http::Perform(request, second));
    EXPECT_EQ(first.body, second.body);
    EXPECT_EQ(ZelTest::ParseJson(echo.body)["body"].asString(), "x");
    EXPECT_EQ(capture.count("curl_easy_init()"), 1u);
    EXPECT_EQ(capture.count("Setting up reusable curl handle with TCP keep alive"), 1u);
    Http::Cleanup(request);
    EXPECT_EQ(capture.count("curl_easy_cleanup()"), 1u);

    // After Cleanup, and without the flag, every call starts a new connection.
    request.reusable = false;
    ASSERT_TRUE(Http::Perform(request, first));
    ASSERT_TRUE(Http::Perform(request, second));
    EXPECT_NE(first.body, second.body);
    EXPECT_EQ(capture.count("curl_easy_init()"), 3u);
    EXPECT_EQ(capture.count("Setting up reusable curl handle with TCP keep alive"), 1u);
    Http::Cleanup(request);
}

TEST_F(HttpTest, RefusesServersThatFailVerification) {
    const std::string kStatus =
        "curl_easy_perform() failed with code 91 - \"SSL server certificate status verification "
        "FAILED\"";
    const std::string kPeer =
        "curl_easy_perform() failed with code 60 - \"SSL peer certificate or SSH remote key was "
        "not OK\"";
    const struct {
        std::string name;  // the other server's certificate, or the OCSP answer of ours
        bool other;
        std::string failure;
        std::string logged;
    } cases[] = {
        {"", false, kStatus, "* No OCSP response received"},
        {"server-revoked.ocsp.der", false, kStatus, "* SSL certificate revocation reason"},
        {"other-server", true, kPeer, "* SSL certificate problem: "},
        {"wrong-host", true, kPeer, "* SSL: no alternative certificate subject name"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.logged);
        std::atomic<int> hits{0};
        ZelCloud::TlsServer other;
        if (c.other) {
            AddHandlers(other, hits, nullptr);
            ASSERT_TRUE(other.start(pki_->serverConfig(c.name, c.name + ".ocsp.der")))
                << other.error();
        } else if (c.name.empty()) {
            server_->setOcspResponse(std::string());
        } else {
            ASSERT_TRUE(server_->loadOcspResponse(pki_->file(c.name)));
        }
        ZelTest::LogCapture capture;
        EXPECT_EQ(Refused(capture, identity_, c.other ? other.port() : 0), c.failure);
        EXPECT_NE(Logged(capture, c.logged), "");
        EXPECT_EQ(hits, 0);
    }
}

TEST_F(HttpTest, FailsWithoutAUsableIdentity) {
    const std::string document = pki_->identityJson();
    // A valid key, but not the certificate's.
    const std::string foreignKey =
        Zel::Core::Base64Util::Encode(ZelTest::ReadFile(pki_->file("ca.key")));
    const struct {
        std::string identity;
        int code;
        std::string reason;
    } cases[] = {
        {IdentityWith(document, R"({"password": "not the pass phrase"})"), 58,
         "Cannot read the private key: "},
        {IdentityWith(document, R"({"password": "", "key": ")" + foreignKey + "\"}"), 58,
         "Cannot use the private key: "},
        {IdentityWith(document, R"({"trust": ""})"), 77, "No certificate in the trust chain"},
        // "not a certificate"
        {IdentityWith(document, R"({"cert": "bm90IGEgY2VydGlmaWNhdGU="})"), 58,
         "Cannot read the client certificate: "},
        {"", 58, "No product identity for the TLS connection"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        ZelTest::LogCapture capture;
        ProductIdentity identity(c.identity.c_str());
        EXPECT_EQ(
            Refused(capture, c.identity.empty() ? nullptr : &identity)
                .rfind("curl_easy_perform() failed with code " + std::to_string(c.code) + " - ", 0),
            0u);
        EXPECT_NE(Logged(capture, c.reason), "");
    }
}

TEST_F(HttpTest, NoTransferWhileTheClockIsBad) {
    ZelTest::LogCapture capture;
    TimeManager::Instance().setClock([] { return timespec{TimeManager::kGoodTimeThreshold, 0}; });
    Refused(capture, identity_);
    EXPECT_TRUE(capture.contains("curl_easy_perform() skipped because time is bad!"));
    EXPECT_FALSE(capture.contains("curl_easy_init()"));

    TimeManager::Instance().setClock([] {
        return timespec{TimeManager::kGoodTimeThreshold + 1, 0};
    });
    Http::Request request = MakeRequest("/api/v1/whoami");
    Http::Response response;
    EXPECT_TRUE(Http::Perform(request, response)) << PerformFailure(capture);
    Http::Cleanup(request);
}

TEST_F(HttpTest, AbortFlagInterruptsAnExchange) {
    ZelTest::LogCapture capture;
    std::atomic<bool> abort{false};
    Http::Request request = MakeRequest("/api/v1/slow");
    request.abort = &abort;
    std::thread stopper([&abort] {
        gate_.waitEntered();
        abort = true;
    });
    Http::Response response;
    EXPECT_FALSE(Http::Perform(request, response));
    stopper.join();
    gate_.release();
    EXPECT_EQ(PerformFailure(capture),
              "curl_easy_perform() failed with code 42 - \"Operation was aborted by an "
              "application callback\"");

    // A flag already set stops the exchange before anything is sent.
    int before = hits_;
    Http::Request whoami = MakeRequest("/api/v1/whoami");
    whoami.abort = &abort;
    EXPECT_FALSE(Http::Perform(whoami, response));
    EXPECT_EQ(hits_, before);

    // The total time-out ends a stuck exchange the same way.
    gate_.reset();
    Http::Request stuck = MakeRequest("/api/v1/slow");
    stuck.timeoutMs = 300;
    ZelTest::LogCapture timeout;
    EXPECT_FALSE(Http::Perform(stuck, response));
    gate_.release();
    EXPECT_EQ(PerformFailure(timeout).rfind("curl_easy_perform() failed with code 28 - ", 0), 0u)
        << PerformFailure(timeout);
}

TEST_F(HttpTest, ParallelRequestsEachUseTheirOwnHandle) {
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&good] {
            for (int i = 0; i < 3; ++i) {
                Http::Request request = MakeRequest("/api/v1/whoami");
                request.reusable = (i % 2) == 0;
                Http::Response response;
                if (Http::Perform(request, response) && response.status == 200 &&
                    response.body == pki_->deviceCommonName()) {
                    ++good;
                }
                Http::Cleanup(request);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(good, 12);
}

}  // namespace
