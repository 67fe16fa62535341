#include "Core/Platform/Http.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "Core/Platform/Base64Util.h"
#include "Core/Project/ProductIdentity.h"
#include "support/LogCapture.h"
#include "support/Pki.h"
#include "tools/cloud/TlsServer.h"

using Zel::Core::Http;
using Zel::Core::ProductIdentity;

namespace {

std::string PerformFailure(const ZelTest::LogCapture& capture) {
    return capture.find("curl_easy_perform() failed with code ");
}

class HttpTest : public testing::Test {
protected:
    // One server for the whole binary: its port goes into the device
    // certificate, so it is bound before the PKI is made. "/slow" is held
    // until released.
    static void SetUpTestSuite() {
        Http::Initialize(true, true);
        server_ = new ZelCloud::TlsServer();
        ASSERT_TRUE(server_->bind()) << server_->error();
        pki_ = &ZelTest::Pki::Get("zel.localhost:" + std::to_string(server_->port()));
        ASSERT_TRUE(pki_->ok()) << pki_->error();
        server_->http().Get("/whoami", [](const httplib::Request& req, httplib::Response& res) {
            ++hits_;
            res.set_content(
                ZelCloud::TlsServer::ClientCommonName(req) + " " + std::to_string(req.remote_port),
                "text/plain");
        });
        server_->http().Get("/slow", [](const httplib::Request&, httplib::Response& res) {
            ++hits_;
            std::unique_lock<std::mutex> lock(mutex_);
            entered_ = true;
            changed_.notify_all();
            changed_.wait(lock, [] { return released_; });
            res.set_content("late", "text/plain");
        });
        ASSERT_TRUE(server_->start(pki_->serverConfig())) << server_->error();
        identity_ = new ProductIdentity(pki_->identityJson().c_str());
    }
    static void TearDownTestSuite() {
        release();
        delete server_;
        delete identity_;
        Http::Terminate();
    }
    static void release() {
        std::lock_guard<std::mutex> lock(mutex_);
        released_ = true;
        changed_.notify_all();
    }

    static Http::Request MakeRequest(const std::string& path, int port = 0) {
        Http::Request request;
        request.url = "https://" + pki_->opid() +
                      "-da.zel.localhost:" + std::to_string(port == 0 ? server_->port() : port) +
                      path;
        request.identity = identity_;
        return request;
    }

    static inline ZelCloud::TlsServer* server_ = nullptr;
    static inline const ZelTest::Pki* pki_ = nullptr;
    static inline ProductIdentity* identity_ = nullptr;
    static inline std::mutex mutex_;
    static inline std::condition_variable changed_;
    static inline bool entered_ = false;
    static inline bool released_ = false;
    static inline std::atomic<int> hits_{0};
};

TEST_F(HttpTest, ExchangesWithTheDeviceCertificateOverOneConnection) {
    ZelTest::LogCapture capture;
    Http::Request request = MakeRequest("/whoami");
    request.reusable = true;
    Http::Response first;
    Http::Response second;
    ASSERT_TRUE(Http::Perform(request, first)) << PerformFailure(capture);
    ASSERT_TRUE(Http::Perform(request, second));
    // The server verified the client certificate and saw the device's name,
    // twice from the same port.
    EXPECT_EQ(200, second.status);
    EXPECT_EQ(0u, second.body.find(pki_->deviceCommonName() + " "));
    EXPECT_EQ(first.body, second.body);
    Http::Cleanup(request);
    Http::Cleanup(request);
    EXPECT_EQ(1u, capture.count("curl_easy_init()"));
    EXPECT_EQ(1u, capture.count("curl_easy_cleanup()"));
}

// The product's security boundary: no exchange without a fully verified peer
// and a usable identity of our own.
TEST_F(HttpTest, RefusesWhatFailsVerification) {
    const std::string kStatus = "91 - \"SSL server certificate status verification FAILED\"";
    const std::string kPeer = "60 - \"SSL peer certificate or SSH remote key was not OK\"";
    const Json::Value good = ZelTest::ParseJson(pki_->identityJson());
    auto with = [&good](const std::string& field, const std::string& value) {
        Json::Value changed = good;
        changed[field] = value;
        return changed.toStyledString();
    };
    const std::string otherKey = ZelTest::ReadFile(pki_->file("ca.key"));
    const struct {
        std::string server;    // "other-server", "wrong-host", or what ours staples ("none")
        std::string identity;  // "" for none
        std::string failure;
        std::string logged;
    } cases[] = {
        {"none", good.toStyledString(), kStatus, "* No OCSP response received"},
        {"server-revoked.ocsp.der", good.toStyledString(), kStatus,
         "* SSL certificate revocation reason"},
        {"other-server", good.toStyledString(), kPeer, "* SSL certificate problem: "},
        {"wrong-host", good.toStyledString(), kPeer,
         "* SSL: no alternative certificate subject name"},
        {"", with("password", "not the pass phrase"), "58 - ", "Cannot read the private key: "},
        // A valid key, but not the certificate's.
        {"", with("key", Zel::Core::Base64Util::Encode(otherKey)), "58 - ",
         "Cannot use the private key: "},
        {"", with("trust", ""), "77 - ", "No certificate in the trust chain"},
        {"", with("cert", Zel::Core::Base64Util::Encode("not a certificate")), "58 - ",
         "Cannot read the client certificate: "},
        {"", "", "58 - ", "No product identity for the TLS connection"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.logged);
        ZelCloud::TlsServer other;
        bool ours = c.server != "other-server" && c.server != "wrong-host";
        if (!ours) {
            ASSERT_TRUE(other.start(pki_->serverConfig(c.server, c.server + ".ocsp.der")));
        }
        std::string ocsp = c.server.empty() ? "server.ocsp.der" : c.server;
        server_->setOcspResponse(ZelTest::ReadFile(pki_->file(ocsp)));
        ProductIdentity identity(c.identity.c_str());
        ZelTest::LogCapture capture;
        Http::Request request = MakeRequest("/whoami", ours ? 0 : other.port());
        request.identity = c.identity.empty() ? nullptr : &identity;
        Http::Response response;
        EXPECT_FALSE(Http::Perform(request, response));
        Http::Cleanup(request);
        std::string refused = PerformFailure(capture) + "\n" + ZelTest::ReadFile(capture.path());
        EXPECT_EQ(0u, refused.find("curl_easy_perform() failed with code " + c.failure)) << refused;
        EXPECT_NE(std::string::npos, refused.find(c.logged)) << refused;
    }
}

TEST_F(HttpTest, AbortFlagEndsAnExchange) {
    ZelTest::LogCapture capture;
    std::atomic<bool> abort{false};
    Http::Request request = MakeRequest("/slow");
    request.abort = &abort;
    std::thread stopper([&abort] {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [] { return entered_; });
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
    int before = hits_;
    EXPECT_FALSE(Http::Perform(request, response));
    EXPECT_EQ(before, hits_);
    release();
}

}  // namespace
