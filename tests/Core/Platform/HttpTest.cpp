#include "Core/Platform/Http.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Core/Platform/Base64Util.h"
#include "Core/Platform/Injector.h"
#include "Core/Project/ProductIdentity.h"
#include "support/LogCapture.h"
#include "support/Pki.h"
#include "tools/cloud/TlsServer.h"

using Zel::Core::Http;
using Zel::Core::ProductIdentity;

namespace {

// Holds "/slow" until released; counts the requests that got past the handshake.
struct Server {
    std::mutex mutex;
    std::condition_variable changed;
    bool entered = false;
    bool released = false;
    std::atomic<int> hits{0};

    void handle(ZelCloud::TlsServer& server) {
        httplib::Server& http = server.http();
        http.Get("/whoami", [this](const httplib::Request& req, httplib::Response& res) {
            ++hits;
            res.set_header("X-Zel-Test", "whoami");
            res.set_content(ZelCloud::TlsServer::ClientCommonName(req), "text/plain");
        });
        http.Get("/port", [this](const httplib::Request& req, httplib::Response& res) {
            ++hits;
            res.set_content(std::to_string(req.remote_port), "text/plain");
        });
        http.Post("/echo", [this](const httplib::Request& req, httplib::Response& res) {
            ++hits;
            res.set_content(req.body, "text/plain");
        });
        http.Get("/slow", [this](const httplib::Request&, httplib::Response& res) {
            ++hits;
            std::unique_lock<std::mutex> lock(mutex);
            entered = true;
            changed.notify_all();
            changed.wait(lock, [this] { return released; });
            res.set_content("late", "text/plain");
        });
    }
    void release() {
        std::lock_guard<std::mutex> lock(mutex);
        released = true;
        changed.notify_all();
    }
};

std::string PerformFailure(const ZelTest::LogCapture& capture) {
    return capture.find("curl_easy_perform() failed with code ");
}

class HttpTest : public testing::Test {
protected:
    // One server for the whole binary: its port goes into the device
    // certificate, so it is bound before the PKI is made.
    static void SetUpTestSuite() {
        Http::Initialize(true, true);
        server_ = new ZelCloud::TlsServer();
        ASSERT_TRUE(server_->bind()) << server_->error();
        pki_ = &ZelTest::Pki::Get("zel.localhost:" + std::to_string(server_->port()));
        ASSERT_TRUE(pki_->ok()) << pki_->error();
        handlers_.handle(*server_);
        ASSERT_TRUE(server_->start(pki_->serverConfig())) << server_->error();
        identity_ = new ProductIdentity(pki_->identityJson().c_str());
    }
    static void TearDownTestSuite() {
        handlers_.release();
        delete server_;
        delete identity_;
        Http::Terminate();
    }
    void SetUp() override {
        ASSERT_NE(nullptr, identity_);
        ASSERT_TRUE(server_->loadOcspResponse(pki_->file("server.ocsp.der")));
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

    // A GET that must fail before any handler runs; gives the failure logged.
    static std::string Refused(const ProductIdentity* identity, int port = 0) {
        ZelTest::LogCapture capture;
        int before = handlers_.hits;
        Http::Request request = MakeRequest("/whoami", port);
        request.identity = identity;
        Http::Response response;
        EXPECT_FALSE(Http::Perform(request, response));
        Http::Cleanup(request);
        EXPECT_EQ(before, handlers_.hits);
        return PerformFailure(capture) + "\n" + ZelTest::ReadFile(capture.path());
    }

    static inline ZelCloud::TlsServer* server_ = nullptr;
    static inline const ZelTest::Pki* pki_ = nullptr;
    static inline ProductIdentity* identity_ = nullptr;
    static inline Server handlers_;
};

TEST_F(HttpTest, ExchangesWithTheDeviceCertificateOverOneConnection) {
    ZelTest::LogCapture capture;
    Http::Request request = MakeRequest("/whoami");
    request.reusable = true;
    Http::Response response;
    ASSERT_TRUE(Http::Perform(request, response)) << PerformFailure(capture);
    // The server verified the client certificate and saw the device's name.
    EXPECT_EQ(200, response.status);
    EXPECT_EQ(pki_->deviceCommonName(), response.body);
    EXPECT_NE(response.headers.end(),
              std::find(response.headers.begin(), response.headers.end(), "X-Zel-Test: whoami"));
    for (const std::string& header : response.headers) {
        EXPECT_NE(0u, header.rfind("HTTP/", 0)) << header;
        EXPECT_EQ(std::string::npos, header.find_first_of("\r\n")) << header;
    }

    // Another status is an answer like any other; a verb and body used on the
    // handle must not leak into the next call, which keeps the connection.
    Http::Response port;
    Http::Response again;
    request.url = MakeRequest("/port").url;
    ASSERT_TRUE(Http::Perform(request, port));
    request.url = MakeRequest("/echo").url;
    request.verb = Http::Verb::Post;
    request.body = "x";
    ASSERT_TRUE(Http::Perform(request, response));
    EXPECT_EQ("x", response.body);
    request.url = MakeRequest("/missing").url;
    request.verb = Http::Verb::Get;
    ASSERT_TRUE(Http::Perform(request, response));
    EXPECT_EQ(404, response.status);
    request.url = MakeRequest("/port").url;
    ASSERT_TRUE(Http::Perform(request, again));
    EXPECT_EQ(port.body, again.body);
    EXPECT_EQ(1u, capture.count("curl_easy_init()"));
    Http::Cleanup(request);
    Http::Cleanup(request);
    EXPECT_EQ(1u, capture.count("curl_easy_cleanup()"));

    // Without the flag every call makes a connection of its own.
    request.reusable = false;
    ASSERT_TRUE(Http::Perform(request, port));
    ASSERT_TRUE(Http::Perform(request, again));
    EXPECT_NE(port.body, again.body);
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
        Server handlers;
        ZelCloud::TlsServer other;
        if (c.other) {
            handlers.handle(other);
            ASSERT_TRUE(other.start(pki_->serverConfig(c.name, c.name + ".ocsp.der")));
        } else if (c.name.empty()) {
            server_->setOcspResponse(std::string());
        } else {
            ASSERT_TRUE(server_->loadOcspResponse(pki_->file(c.name)));
        }
        std::string refused = Refused(identity_, c.other ? other.port() : 0);
        EXPECT_EQ(0u, refused.find(c.failure + "\n")) << refused;
        EXPECT_NE(std::string::npos, refused.find(c.logged)) << refused;
        EXPECT_EQ(0, handlers.hits);
    }
}

TEST_F(HttpTest, FailsWithoutAUsableIdentity) {
    Json::Value document = ZelTest::ParseJson(pki_->identityJson());
    auto with = [&document](const std::string& field, const std::string& value) {
        Json::Value changed = document;
        changed[field] = value;
        return changed.toStyledString();
    };
    const struct {
        std::string identity;
        int code;
        std::string reason;
    } cases[] = {
        {with("password", "not the pass phrase"), 58, "Cannot read the private key: "},
        // A valid key, but not the certificate's.
        {with("key", Zel::Core::Base64Util::Encode(ZelTest::ReadFile(pki_->file("ca.key")))), 58,
         "Cannot use the private key: "},
        {with("trust", ""), 77, "No certificate in the trust chain"},
        {with("cert", Zel::Core::Base64Util::Encode("not a certificate")), 58,
         "Cannot read the client certificate: "},
        {"", 58, "No product identity for the TLS connection"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        ProductIdentity identity(c.identity.c_str());
        std::string refused = Refused(c.identity.empty() ? nullptr : &identity);
        EXPECT_EQ(0u, refused.find("curl_easy_perform() failed with code " +
                                   std::to_string(c.code) + " - "))
            << refused;
        EXPECT_NE(std::string::npos, refused.find(c.reason)) << refused;
    }
}

TEST_F(HttpTest, AbortFlagAndTimeOutEndAnExchange) {
    ZelTest::LogCapture capture;
    std::atomic<bool> abort{false};
    Http::Request request = MakeRequest("/slow");
    request.abort = &abort;
    std::thread stopper([&abort] {
        std::unique_lock<std::mutex> lock(handlers_.mutex);
        handlers_.changed.wait(lock, [] { return handlers_.entered; });
        abort = true;
    });
    Http::Response response;
    EXPECT_FALSE(Http::Perform(request, response));
    stopper.join();
    EXPECT_EQ(
        "curl_easy_perform() failed with code 42 - \"Operation was aborted by an application "
        "callback\"",
        PerformFailure(capture));

    // A flag already set stops the exchange before anything is sent.
    int before = handlers_.hits;
    Http::Request whoami = MakeRequest("/whoami");
    whoami.abort = &abort;
    EXPECT_FALSE(Http::Perform(whoami, response));
    EXPECT_EQ(before, handlers_.hits);

    // The total time-out ends a stuck exchange the same way.
    ZelTest::LogCapture timeout;
    Http::Request stuck = MakeRequest("/slow");
    stuck.timeoutMs = 300;
    EXPECT_FALSE(Http::Perform(stuck, response));
    EXPECT_EQ(0u, PerformFailure(timeout).rfind("curl_easy_perform() failed with code 28 - ", 0));
    handlers_.release();
}

TEST_F(HttpTest, ParallelRequestsEachUseTheirOwnHandle) {
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&good] {
            for (int i = 0; i < 3; ++i) {
                Http::Request request = MakeRequest("/whoami");
                request.reusable = (i % 2) == 0;
                Http::Response response;
                good += Http::Perform(request, response) && response.status == 200 &&
                        response.body == pki_->deviceCommonName();
                Http::Cleanup(request);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(12, good);
}

}  // namespace
