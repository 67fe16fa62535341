#include "tools/cloud/Cloud.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <json/reader.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <memory>
#include <string>

#include "Core/Platform/Http.h"
#include "Core/Project/ProductIdentity.h"
#include "support/Pki.h"

namespace {

using ZelCloud::Cloud;
using ZelCloud::CloudOptions;
using namespace std::chrono_literals;

constexpr auto kWait = 20s;  // only ever reached when something is broken

Json::Value Parse(const std::string& text) {
    Json::Value value;
    return Json::Reader().parse(text, value) ? value : Json::Value();
}

// The protocol itself, served without a network: what the TLS handler calls.
class CloudLogicTest : public ::testing::Test {
protected:
    CloudLogicTest() : cloud_(Options()) {}

    static CloudOptions Options() {
        CloudOptions options;
        options.quiet = true;
        return options;
    }

    Cloud::Answer post(const std::string& call, const std::string& body,
                       const std::string& token = "", const std::string& cn = "OPID.lab") {
        return cloud_.serve("POST", "/api/v1/da/" + call, "OPID-da.lab", cn, token, body);
    }

    std::string newToken(const std::string& cn = "OPID.lab") {
        Cloud::Answer answer = post("gidtoken", R"({"daId": "id", "daTestMode": false})", "", cn);
        EXPECT_EQ(200, answer.status);
        return Parse(answer.body)["daGidToken"].asString();
    }

    Cloud cloud_;
};

TEST_F(CloudLogicTest, IdentityStateAndNotification) {
    // Without a token the device is unknown to both calls that need one.
    EXPECT_EQ(422, post("state", "{}").status);
    EXPECT_EQ(422, post("notification", "{}", "made-up").status);

    std::string token = newToken();
    ASSERT_FALSE(token.empty());
    // The token belongs to the certificate it was issued to.
    EXPECT_EQ(422, post("state", "{}", token, "OTHER.lab").status);

    // A fresh identity is not yet synchronised.
    EXPECT_FALSE(Parse(post("notification", "{}", token).body)["daStateSynchronized"].asBool());

    Cloud::Answer state = post("state", R"({"oemMsg": "hello", "daTestMode": true})", token);
    ASSERT_EQ(200, state.status);
    Json::Value answer = Parse(state.body);
    EXPECT_TRUE(answer["daSynchronized"].asBool());
    EXPECT_EQ(5000u, answer["daPollDelayFixedMs"].asUInt());
    EXPECT_TRUE(answer["daEvents"].isArray());
    EXPECT_FALSE(answer.isMember("suCheckForSoftwareUpdate"));
    EXPECT_EQ("hello", cloud_.device("OPID.lab")->reported["oemMsg"].asString());
    EXPECT_TRUE(Parse(post("notification", "{}", token).body)["daStateSynchronized"].asBool());

    // A check for software update is acknowledged so the device clears its flag.
    answer = Parse(post("state", R"({"suCheckForSoftwareUpdate": true})", token).body);
    EXPECT_FALSE(answer["suCheckForSoftwareUpdate"].asBool());
    EXPECT_TRUE(answer.isMember("suCheckForSoftwareUpdate"));

    // Told to, the cloud withholds synchronisation for exactly that many state calls.
    cloud_.setUnsynchronized(2);
    EXPECT_FALSE(Parse(post("state", "{}", token).body)["daSynchronized"].asBool());
    EXPECT_FALSE(Parse(post("state", "{}", token).body)["daSynchronized"].asBool());
    EXPECT_TRUE(Parse(post("state", "{}", token).body)["daSynchronized"].asBool());

    // Desynchronising and changing settings both make the next notification ask for a state call.
    EXPECT_FALSE(cloud_.desynchronize("NOBODY.lab"));
    ASSERT_TRUE(cloud_.desynchronize("OPID.lab"));
    EXPECT_FALSE(Parse(post("notification", "{}", token).body)["daStateSynchronized"].asBool());
    uint32_t opidSeqNum = Parse(post("state", "{}", token).body)["daOpidSeqNum"].asUInt();
    Json::Value keys;
    keys["daPollDelayFixedMs"] = 1234;
    cloud_.setSettings(keys);
    EXPECT_FALSE(Parse(post("notification", "{}", token).body)["daStateSynchronized"].asBool());
    answer = Parse(post("state", "{}", token).body);
    EXPECT_EQ(1234u, answer["daPollDelayFixedMs"].asUInt());
    EXPECT_GT(answer["daOpidSeqNum"].asUInt(), opidSeqNum);
    // A null removes the operator's key: the default comes back.
    keys["daPollDelayFixedMs"] = Json::Value();
    cloud_.setSettings(keys);
    EXPECT_EQ(5000u, Parse(post("state", "{}", token).body)["daPollDelayFixedMs"].asUInt());

    // A new identity retires the old token and starts the sequence numbers over.
    cloud_.queueEvent("ping");
    EXPECT_EQ(1u, Parse(post("state", "{}", token).body)["daGidSeqNum"].asUInt());
    std::string second = newToken();
    EXPECT_NE(token, second);
    EXPECT_EQ(422, post("state", "{}", token).status);
    EXPECT_EQ(0u, Parse(post("state", "{}", second).body)["daGidSeqNum"].asUInt());

    // Calls the service does not have, and bodies that are not JSON.
    EXPECT_EQ(404, post("nothing", "{}", second).status);
    EXPECT_EQ(400, post("state", "not json", second).status);
    EXPECT_EQ(405, cloud_.serve("GET", "/api/v1/da/state", "", "OPID.lab", second, "").status);
}

TEST_F(CloudLogicTest, EventsAreDeliveredOnceInOrder) {
    std::string token = newToken();
    post("state", "{}", token);

    // Queued for this device, for any device, and for one not yet seen.
    Json::Value params;
    params["sessionType"] = "remote";
    cloud_.queueEvent("first", params, std::nullopt, "OPID.lab");
    cloud_.queueEvent("second", Json::Value("text"), 7u);
    cloud_.queueEvent("elsewhere", Json::Value(), std::nullopt, "LATER.lab");
    cloud_.queueEvent("third", Json::Value(), std::nullopt, "OPID.lab");
    EXPECT_FALSE(Parse(post("notification", "{}", token).body)["daStateSynchronized"].asBool());

    Json::Value answer = Parse(post("state", "{}", token).body);
    const Json::Value& events = answer["daEvents"];
    ASSERT_EQ(3u, events.size());
    EXPECT_EQ("first", events[0]["event"].asString());
    EXPECT_EQ(1u, events[0]["id"].asUInt());
    EXPECT_EQ("remote", events[0]["parameters"]["sessionType"].asString());
    EXPECT_EQ(7u, events[1]["id"].asUInt());
    // Ids carry on after an id the operator chose.
    EXPECT_EQ("third", events[2]["event"].asString());
    EXPECT_EQ(8u, events[2]["id"].asUInt());

    EXPECT_TRUE(Parse(post("state", "{}", token).body)["daEvents"].empty());
    EXPECT_TRUE(Parse(post("notification", "{}", token).body)["daStateSynchronized"].asBool());

    // The other device's event waited for it.
    std::string later = newToken("LATER.lab");
    answer = Parse(post("state", "{}", later, "LATER.lab").body);
    ASSERT_EQ(1u, answer["daEvents"].size());
    EXPECT_EQ("elsewhere", answer["daEvents"][0]["event"].asString());

    // The control form of queueing checks its input.
    std::string error;
    EXPECT_FALSE(cloud_.queueEvent(Parse(R"({"id": 3})"), error));
    EXPECT_FALSE(cloud_.queueEvent(Parse(R"({"event": "x", "id": -1})"), error));
    EXPECT_TRUE(cloud_.queueEvent(Parse(R"({"event": "x", "parameters": {"a": 1}})"), error));
}

TEST_F(CloudLogicTest, FaultsApplyToTheirPathForTheirCount) {
    std::string token = newToken();
    std::string error;
    ASSERT_TRUE(
        cloud_.addFault(Parse(R"({"path": "da/state", "status": 503, "count": 2})"), error));
    ASSERT_TRUE(cloud_.addFault(Parse(R"({"path": "da/notification", "badJson": true})"), error));

    for (int i = 0; i < 2; ++i) {
        Cloud::Answer answer = post("state", "{}", token);
        EXPECT_EQ(503, answer.status);
        EXPECT_EQ("{}", answer.body);
    }
    EXPECT_EQ(200, post("state", "{}", token).status);

    Cloud::Answer bad = post("notification", "{}", token);
    EXPECT_EQ(200, bad.status);
    EXPECT_EQ("this is not json", bad.body);
    EXPECT_TRUE(Parse(post("notification", "{}", token).body).isObject());

    // Faults of one kind queue up; a drop wins over a status given with it.
    ASSERT_TRUE(cloud_.addFault(Parse(R"({"path": "gidtoken", "status": 500})"), error));
    ASSERT_TRUE(cloud_.addFault(Parse(R"({"path": "gidtoken", "status": 422})"), error));
    ASSERT_TRUE(cloud_.addFault(Parse(R"({"path": "gidtoken", "drop": true})"), error));
    Cloud::Answer first = post("gidtoken", "{}");
    EXPECT_TRUE(first.drop);
    EXPECT_EQ(422, post("gidtoken", "{}").status);
    EXPECT_EQ(200, post("gidtoken", "{}").status);

    // A faulted call is recorded with what it was answered.
    std::vector<ZelCloud::RecordedRequest> requests = cloud_.requests();
    ASSERT_FALSE(requests.empty());
    EXPECT_EQ(0, requests[requests.size() - 3].status);
    EXPECT_EQ(422, requests[requests.size() - 2].status);
    EXPECT_EQ(token, requests[2].authorization);

    // A body fault answers its text as it is, with the status given with it.
    token = newToken();
    ASSERT_TRUE(cloud_.addFault(
        Parse(R"({"path": "da/state", "body": "[[", "status": 299, "count": 2})"), error));
    ASSERT_TRUE(cloud_.addFault(Parse(R"({"path": "notification", "body": ""})"), error));
    for (int i = 0; i < 2; ++i) {
        Cloud::Answer answer = post("state", "{}", token);
        EXPECT_EQ(299, answer.status);
        EXPECT_EQ("[[", answer.body);
    }
    EXPECT_EQ(200, post("state", "{}", token).status);
    Cloud::Answer empty = post("notification", "{}", token);
    EXPECT_EQ(200, empty.status);
    EXPECT_EQ("", empty.body);

    for (const char* fields :
         {R"({"status": 500})", R"({"path": "da/state"})", R"({"path": "x", "status": 42})",
          R"({"path": "x", "drop": "yes"})", R"({"path": "x", "body": 5})",
          R"({"path": "x", "body": "", "status": 42})"}) {
        EXPECT_FALSE(cloud_.addFault(Parse(fields), error)) << fields;
    }
}

int FreePort() {
    int sock = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    int port = -1;
    if (bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        getsockname(sock, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    close(sock);
    return port;
}

// The same cloud over TLS, called by the agent's own HTTP client with a real
// device identity.
class CloudTlsTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        Zel::Core::Http::Initialize(true, true);
        // The port is part of the device certificate's name, so it is fixed first.
        port_ = FreePort();
        ASSERT_GT(port_, 0);
        instance_ = "zel.localhost:" + std::to_string(port_);
        pki_ = &ZelTest::Pki::Get(instance_);
        ASSERT_TRUE(pki_->ok()) << pki_->error();
    }

    static void TearDownTestSuite() { Zel::Core::Http::Terminate(); }

    void SetUp() override {
        ASSERT_NE(nullptr, pki_);
        CloudOptions options;
        options.quiet = true;
        options.port = port_;
        options.controlPort = 0;
        options.pkiDir = pki_->dir();
        cloud_ = std::make_unique<Cloud>(options);
        ASSERT_TRUE(cloud_->start()) << cloud_->error();
        identity_ = std::make_unique<Zel::Core::ProductIdentity>(pki_->identityJson().c_str());
    }

    bool post(const std::string& call, const std::string& body, const std::string& token,
              Zel::Core::Http::Response& response) {
        Zel::Core::Http::Request request;
        request.url = pki_->serviceUrl("da") + "/api/v1/da/" + call;
        request.verb = Zel::Core::Http::Verb::Post;
        request.body = body;
        request.headers = {"Accept: application/json", "Content-Type: application/json"};
        if (!token.empty()) {
            request.headers.push_back("Authorization: " + token);
        }
        request.connectTimeoutMs = 10000;
        request.timeoutMs = 30000;
        request.identity = identity_.get();
        bool ok = Zel::Core::Http::Perform(request, response);
        Zel::Core::Http::Cleanup(request);
        return ok;
    }

    static inline const ZelTest::Pki* pki_ = nullptr;
    static inline int port_ = 0;
    static inline std::string instance_;
    std::unique_ptr<Cloud> cloud_;
    std::unique_ptr<Zel::Core::ProductIdentity> identity_;
};

TEST_F(CloudTlsTest, ServesTheDeviceByItsCertificate) {
    Zel::Core::Http::Response response;
    ASSERT_TRUE(post("gidtoken", R"({"daId": "id", "daTestMode": false})", "", response));
    ASSERT_EQ(200, response.status);
    std::string token = Parse(response.body)["daGidToken"].asString();
    ASSERT_FALSE(token.empty());

    Zel::Core::Http::Response state;
    ASSERT_TRUE(post("state", R"({"daSwVersion": "4.8.0"})", token, state));
    EXPECT_EQ(200, state.status);
    EXPECT_TRUE(Parse(state.body)["daSynchronized"].asBool());

    Zel::Core::Http::Response refused;
    ASSERT_TRUE(post("notification", "{}", "stale", refused));
    EXPECT_EQ(422, refused.status);

    ASSERT_TRUE(cloud_->waitForRequests(3, kWait));
    std::vector<ZelCloud::RecordedRequest> requests = cloud_->requests();
    std::string cn = pki_->deviceCommonName();
    EXPECT_EQ(cn, requests[0].cn);
    EXPECT_EQ(token, requests[1].authorization);
    EXPECT_EQ(422, requests[2].status);
    EXPECT_EQ("4.8.0", cloud_->device(cn)->reported["daSwVersion"].asString());

    // A dropped connection is a failed exchange for the device.
    std::string error;
    ASSERT_TRUE(cloud_->addFault(Parse(R"({"path": "da/state", "drop": true})"), error));
    Zel::Core::Http::Response dropped;
    EXPECT_FALSE(post("state", "{}", token, dropped));
    ASSERT_TRUE(post("state", "{}", token, dropped));
    EXPECT_EQ(200, dropped.status);
}

TEST_F(CloudTlsTest, StopCutsShortADelayedAnswer) {
    std::string error;
    ASSERT_TRUE(cloud_->addFault(Parse(R"({"path": "da/gidtoken", "delayMs": 600000})"), error));
    auto call = std::async(std::launch::async, [this] {
        Zel::Core::Http::Response response;
        return post("gidtoken", "{}", "", response);
    });
    ASSERT_TRUE(cloud_->waitForInFlight(1, kWait));
    cloud_->stop();
    EXPECT_FALSE(call.get());
    std::vector<ZelCloud::RecordedRequest> requests = cloud_->requests();
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ(0, requests[0].status);
}

TEST_F(CloudTlsTest, ControlInterface) {
    httplib::Client control("127.0.0.1", cloud_->controlPort());
    auto status = [&control](const char* path, const char* body) {
        auto result = control.Post(path, body, "application/json");
        return result ? result->status : -1;
    };
    EXPECT_EQ(200, status("/control/events", R"({"event": "startsvsession", "id": 4})"));
    EXPECT_EQ(400, status("/control/events", R"({"id": 4})"));
    EXPECT_EQ(400, status("/control/faults", "not json"));
    EXPECT_EQ(200, status("/control/faults", R"({"path": "da/state", "status": 500, "count": 1})"));
    EXPECT_EQ(200, status("/control/settings", R"({"daPollDelayFixedMs": 100})"));
    EXPECT_EQ(200, status("/control/unsynchronized", R"({"count": 1})"));
    EXPECT_EQ(404, status("/control/desynchronize", R"({"device": "NOBODY"})"));

    Zel::Core::Http::Response response;
    ASSERT_TRUE(post("gidtoken", "{}", "", response));
    std::string token = Parse(response.body)["daGidToken"].asString();
    ASSERT_TRUE(post("state", "{}", token, response));
    EXPECT_EQ(500, response.status);
    ASSERT_TRUE(post("state", "{}", token, response));
    Json::Value answer = Parse(response.body);
    EXPECT_FALSE(answer["daSynchronized"].asBool());
    EXPECT_EQ(100u, answer["daPollDelayFixedMs"].asUInt());
    ASSERT_EQ(1u, answer["daEvents"].size());
    EXPECT_EQ(4u, answer["daEvents"][0]["id"].asUInt());

    auto result = control.Get("/control/requests");
    ASSERT_TRUE(result);
    Json::Value requests = Parse(result->body);
    ASSERT_EQ(3u, requests.size());
    EXPECT_EQ(500, requests[1]["status"].asInt());
    result = control.Get("/control/devices");
    ASSERT_TRUE(result);
    EXPECT_EQ(token, Parse(result->body)["devices"][0]["gidToken"].asString());
}

}  // namespace
