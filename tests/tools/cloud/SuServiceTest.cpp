// The local cloud's software updates: publishing, the payload server with its
// ranges and faults, and the device's reports, driven as the device drives them.
#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <openssl/sha.h>

#include <chrono>
#include <cstdio>
#include <future>

#include "support/Pki.h"
#include "support/TempDir.h"
#include "tools/cloud/Cloud.h"
#include "tools/pack/Pack.h"

namespace {

using Answer = ZelCloud::Cloud::Answer;
using Fault = ZelCloud::PayloadFaults::Fault;
using Kind = ZelCloud::PayloadFaults::Kind;
using std::chrono::milliseconds;

constexpr const char* kHost = "FFFFFF0ACC-su.zel.localhost";
constexpr uint64_t kSize = 10000;
constexpr uint32_t kBlock = 4096;  // three blocks, the last 1808 bytes
const milliseconds kWait(10000);

long ElapsedMs(std::chrono::steady_clock::time_point start) {
    auto elapsed = std::chrono::steady_clock::now() - start;
    return static_cast<long>(std::chrono::duration_cast<milliseconds>(elapsed).count());
}

std::string Sha256Hex(const std::string& bytes) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), digest);
    std::string hex;
    char two[3];
    for (unsigned char byte : digest) {
        snprintf(two, sizeof(two), "%02x", byte);
        hex += two;
    }
    return hex;
}

size_t Collect(char* data, size_t size, size_t count, void* body) {
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
}

size_t CollectHeader(char* data, size_t size, size_t count, void* headers) {
    static_cast<std::string*>(headers)->append(data, size * count);
    return size * count;
}

// One GET as the device makes it: libcurl, a Range header when given.
struct Fetched {
    CURLcode code = CURLE_OK;
    long status = 0;
    std::string body;
    std::string headers;
};

// `curl` may be kept by the caller to hold its connection open.
Fetched Fetch(const std::string& url, const std::string& range, CURL* curl = nullptr,
              const ZelTest::Pki* pki = nullptr) {
    Fetched fetched;
    bool own = curl == nullptr;
    if (own) {
        curl = curl_easy_init();
    }
    curl_slist* resolve = nullptr;
    std::string password;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_RANGE, range.empty() ? nullptr : range.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &fetched.body);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, CollectHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &fetched.headers);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, 20000L);
    if (pki != nullptr) {
        std::string port = url.substr(url.rfind(':') + 1);
        port = port.substr(0, port.find('/'));
        resolve = curl_slist_append(nullptr, (kHost + (":" + port) + ":127.0.0.1").c_str());
        password = ZelTest::ReadFile(pki->file("device.pass"));
        curl_easy_setopt(curl, CURLOPT_RESOLVE, resolve);
        curl_easy_setopt(curl, CURLOPT_CAINFO, pki->file("ca.crt").c_str());
        curl_easy_setopt(curl, CURLOPT_SSLCERT, pki->file("device.crt").c_str());
        curl_easy_setopt(curl, CURLOPT_SSLKEY, pki->file("device.key").c_str());
        curl_easy_setopt(curl, CURLOPT_KEYPASSWD, password.c_str());
    }
    fetched.code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &fetched.status);
    if (own) {
        curl_easy_cleanup(curl);
    }
    curl_slist_free_all(resolve);
    return fetched;
}

// Block i's range as the device asks for it: i * (blk + 16), plaintext + 16 bytes.
std::string BlockRange(uint32_t index) {
    uint64_t first = uint64_t{index} * (kBlock + 16);
    uint64_t plain = index == kSize / kBlock ? kSize % kBlock : kBlock;
    return std::to_string(first) + "-" + std::to_string(first + plain + 15);
}

class SuServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        options_.quiet = true;
        options_.pkiDir = pki_.dir();
        options_.payloadPort = 0;
        make();
    }
    // A cloud with options_ that knows the device.
    void make() {
        cloud_ = std::make_unique<ZelCloud::Cloud>(options_);
        Answer answer = cloud_->serve("POST", "/api/v1/da/gidtoken", kHost, cn_, "", "{}");
        gid_ = ZelTest::ParseJson(answer.body)["daGidToken"].asString();
    }
    size_t countFault(const std::string& fault) const {
        size_t count = 0;
        for (const ZelCloud::PayloadRequest& request : cloud_->payloadRequests()) {
            count += request.fault == fault ? 1 : 0;
        }
        return count;
    }
    ZelCloud::PublishedUpdate publish(ZelCloud::UpdateSpec spec = ZelCloud::UpdateSpec()) {
        if (spec.version.empty()) {
            spec.version = "5.0.0";
            spec.sizeBytes = kSize;
            spec.blockSize = kBlock;
            spec.seed = 42;
        }
        ZelCloud::PublishedUpdate published;
        std::string error;
        EXPECT_TRUE(cloud_->publishUpdate(spec, published, error)) << error;
        return published;
    }
    // The report as the device posts it, the gid token in the Authorization header.
    Answer report(const std::string& body, const std::string& gid = "") {
        std::string token = gid.empty() ? gid_ : gid;
        std::vector<std::string> headers = {"Host: " + std::string(kHost),
                                            "Authorization: " + token,
                                            "Content-Type: application/json"};
        return cloud_->serve("POST", "/api/v1/su/download/complete", kHost, cn_, token, body,
                             headers);
    }
    static std::string ReportBody(bool status, const std::string& details,
                                  const std::string& metadata) {
        Json::Value body(Json::objectValue);
        body["suStatus"] = status;
        body["suDetails"] = details;
        body["suDate"] = "2024-05-01T12:00:00Z";
        body["suMetadata"] = metadata;
        return body.toStyledString();
    }

    const ZelTest::Pki& pki_ = ZelTest::Pki::Get();
    const std::string cn_ = pki_.deviceCommonName();
    ZelCloud::CloudOptions options_;
    std::unique_ptr<ZelCloud::Cloud> cloud_;
    std::string gid_;
};

TEST_F(SuServiceTest, PublishingMakesASignedTokenAndOffersIt) {
    ASSERT_TRUE(pki_.ok()) << pki_.error();
    ZelCloud::PublishedUpdate published = publish();
    ASSERT_EQ("u1", published.id);
    EXPECT_EQ(cn_, published.device);
    EXPECT_EQ("http://127.0.0.1:" + std::to_string(cloud_->payloadPort()) + "/payloads/u1",
              published.url);
    EXPECT_EQ(Sha256Hex(ZelCloud::GeneratePayload(kSize, 42)), published.hash);
    EXPECT_EQ(3u, published.blocks);

    ZelPack::Inspection inspection;
    std::string error;
    ASSERT_TRUE(ZelPack::Inspect(published.token, inspection, error)) << error;
    EXPECT_TRUE(inspection.signatureValid);
    const Json::Value& claims = inspection.claims;
    EXPECT_EQ(published.url, claims["url"].asString());
    EXPECT_EQ(published.hash, claims["hsh"].asString());
    EXPECT_EQ(kSize, claims["siz"].asUInt64());
    EXPECT_EQ(kBlock, claims["blk"].asUInt());
    EXPECT_EQ("5.0.0", claims["upn"].asString());
    EXPECT_EQ("4.8.0", claims["aud"][0].asString());
    EXPECT_EQ(pki_.opid(), claims["opd"].asString());

    // The same update as a local payload file: no url, the same encrypted blocks.
    ASSERT_TRUE(ZelPack::Inspect(published.localFile, inspection, error)) << error;
    EXPECT_TRUE(inspection.signatureValid);
    EXPECT_EQ("", inspection.claims["url"].asString());
    EXPECT_EQ(kSize + 16 * 3, inspection.encryptedBytes);

    // Offered to the device with the token as the event's text.
    auto device = cloud_->device(cn_);
    ASSERT_TRUE(device);
    ASSERT_EQ(1u, device->events.size());
    EXPECT_EQ("softwareupdate", device->events.front().event);
    EXPECT_EQ(published.token, device->events.front().parameters.asString());

    ZelCloud::UpdateSpec quiet;
    quiet.version = "5.0.1";
    quiet.payload = "a payload of its own";
    quiet.audiences = {"4.8.0", "4.9.0"};
    quiet.offer = false;
    ZelCloud::PublishedUpdate second = publish(quiet);
    EXPECT_EQ(1u, cloud_->device(cn_)->events.size());
    EXPECT_EQ(Sha256Hex(quiet.payload), second.hash);
    Json::Value listed = cloud_->updates();
    ASSERT_EQ(2u, listed.size());
    EXPECT_EQ("u2", listed[1]["id"].asString());
    EXPECT_FALSE(listed[1]["offered"].asBool());
    EXPECT_EQ(2u, listed[1]["audiences"].size());
    EXPECT_EQ(quiet.payload.size() + 16, listed[1]["encryptedSize"].asUInt64());
}

TEST_F(SuServiceTest, PublishingNeedsTheUpdateFilesAndAPlaceToServeFrom) {
    ZelCloud::UpdateSpec spec;
    spec.version = "5.0.0";
    spec.sizeBytes = 100;
    ZelCloud::PublishedUpdate published;
    std::string error;

    ZelTest::TempDir empty;
    ZelCloud::CloudOptions bare = options_;
    bare.pkiDir = empty.path();
    EXPECT_FALSE(ZelCloud::Cloud(bare).publishUpdate(spec, published, error));
    EXPECT_NE(std::string::npos, error.find("signer.key")) << error;

    // Without a payload port only the TLS server can serve it.
    ZelCloud::CloudOptions noPort = options_;
    noPort.payloadPort = -1;
    ZelCloud::Cloud cloud(noPort);
    EXPECT_FALSE(cloud.publishUpdate(spec, published, error));
    spec.secure = true;
    ASSERT_TRUE(cloud.publishUpdate(spec, published, error)) << error;
    EXPECT_EQ("https://" + std::string(kHost) + ":" + std::to_string(cloud.port()) + "/payloads/u1",
              published.url);

    ZelCloud::UpdateSpec unnamed = spec;
    unnamed.version = "";
    EXPECT_FALSE(cloud.publishUpdate(unnamed, published, error));
    spec.sizeBytes = ZelCloud::UpdateSpec::kMaxSize + 1;
    EXPECT_FALSE(cloud.publishUpdate(spec, published, error));
}

TEST_F(SuServiceTest, RangesAreAnsweredAsAskedFor) {
    ZelCloud::PublishedUpdate published = publish();
    ASSERT_TRUE(cloud_->start()) << cloud_->error();
    const std::string encrypted =
        published.localFile.substr(published.localFile.size() - (kSize + 16 * 3));
    const uint64_t size = encrypted.size();
    const struct {
        std::string range;
        long status;
        uint64_t first;  // of the bytes expected
        uint64_t length;
    } rows[] = {
        {"", 200, 0, size},
        {BlockRange(0), 206, 0, kBlock + 16},
        {BlockRange(2), 206, 2 * (kBlock + 16), kSize % kBlock + 16},
        {"100-", 206, 100, size - 100},
        {"100-999999", 206, 100, size - 100},  // the end is cut to the payload's
        {"-10", 206, size - 10, 10},
        {"0-1,4-5", 200, 0, size},  // several ranges: the whole payload
        {std::to_string(size) + "-", 416, 0, 0},
        {std::to_string(size) + "-" + std::to_string(size + 5), 416, 0, 0},
    };
    std::string url = published.url;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.range);
        Fetched fetched = Fetch(url, row.range);
        ASSERT_EQ(CURLE_OK, fetched.code);
        EXPECT_EQ(row.status, fetched.status);
        EXPECT_EQ(encrypted.substr(row.first, row.length), fetched.body);
        if (row.status == 206) {
            std::string expected = "Content-Range: bytes " + std::to_string(row.first) + "-" +
                                   std::to_string(row.first + row.length - 1) + "/" +
                                   std::to_string(size);
            EXPECT_NE(std::string::npos, fetched.headers.find(expected)) << fetched.headers;
        } else if (row.status == 416) {
            EXPECT_NE(std::string::npos,
                      fetched.headers.find("Content-Range: bytes */" + std::to_string(size)))
                << fetched.headers;
        }
    }
    EXPECT_EQ(404, Fetch(url.substr(0, url.size() - 2) + "u9", "").status);

    // Every request is recorded once answered.
    const size_t count = sizeof(rows) / sizeof(rows[0]) + 1;
    ASSERT_TRUE(cloud_->waitForPayloadRequests(count, kWait));
    // Answers are recorded as they end, which need not be the order they began in.
    for (const ZelCloud::PayloadRequest& request : cloud_->payloadRequests()) {
        if (request.range == "bytes=" + BlockRange(0)) {
            EXPECT_EQ(206, request.status);
            EXPECT_EQ(kBlock + 16, request.bytes);
            EXPECT_FALSE(request.secure);
            EXPECT_EQ("u1", request.id);
        } else if (request.id == "u9") {
            EXPECT_EQ(404, request.status);
        }
    }
}

// The device's own transport: only with its certificate, and the same bytes.
TEST_F(SuServiceTest, TheTlsServerServesPayloadsToTheDevice) {
    options_.payloadPort = -1;
    make();
    ZelCloud::UpdateSpec spec;
    spec.version = "5.0.0";
    spec.sizeBytes = kSize;
    spec.blockSize = kBlock;
    spec.secure = true;
    ZelCloud::PublishedUpdate published = publish(spec);
    ASSERT_TRUE(cloud_->start()) << cloud_->error();
    Fetched fetched = Fetch(published.url, BlockRange(1), nullptr, &pki_);
    ASSERT_EQ(CURLE_OK, fetched.code);
    EXPECT_EQ(206, fetched.status);
    EXPECT_EQ(published.localFile.substr(published.localFile.size() - (kSize + 48) + kBlock + 16,
                                         kBlock + 16),
              fetched.body);
    ASSERT_TRUE(cloud_->waitForPayloadRequests(1, kWait));
    EXPECT_TRUE(cloud_->payloadRequests()[0].secure);
    EXPECT_EQ(cn_, cloud_->payloadRequests()[0].cn);
    // Payload requests are not service requests: only the gid token call is there.
    EXPECT_EQ(1u, cloud_->requests().size());
}

TEST_F(SuServiceTest, EachPayloadFaultDoesWhatItSays) {
    ZelCloud::PublishedUpdate published = publish();
    ASSERT_TRUE(cloud_->start()) << cloud_->error();
    const std::string encrypted =
        published.localFile.substr(published.localFile.size() - (kSize + 16 * 3));
    const std::string block0 = encrypted.substr(0, kBlock + 16);
    const std::string url = published.url;
    std::string range = BlockRange(0);

    // A status instead of the data, for as many requests as counted.
    cloud_->addPayloadFault(Fault{"", Kind::Status, 500, 0, 0, 2, ""});
    EXPECT_EQ(500, Fetch(url, range).status);
    EXPECT_EQ(500, Fetch(url, range).status);
    EXPECT_EQ(206, Fetch(url, range).status);

    // Only the payload it names.
    cloud_->addPayloadFault(Fault{"u7", Kind::Status, 404, 0, 0, 1, ""});
    EXPECT_EQ(206, Fetch(url, range).status);
    cloud_->clearPayloadFaults();

    // A slow answer.
    cloud_->addPayloadFault(Fault{"u1", Kind::Delay, 0, 300, 0, 1, ""});
    auto start = std::chrono::steady_clock::now();
    Fetched slow = Fetch(url, range);
    EXPECT_GE(ElapsedMs(start), 300);
    EXPECT_EQ(block0, slow.body);

    // The head and half the bytes, then the connection ends.
    cloud_->addPayloadFault(Fault{"", Kind::Drop, 0, 0, 0, 1, ""});
    Fetched dropped = Fetch(url, range);
    EXPECT_EQ(CURLE_PARTIAL_FILE, dropped.code);
    EXPECT_EQ(206, dropped.status);
    EXPECT_EQ(block0.substr(0, block0.size() / 2), dropped.body);

    // One byte flipped wherever it is served, until counted out; a range
    // without it leaves the fault waiting.
    cloud_->addPayloadFault(Fault{"u1", Kind::Corrupt, 0, 0, kBlock + 20, 2, ""});
    EXPECT_EQ(block0, Fetch(url, range).body);
    for (const std::string& ranged : {BlockRange(1), std::string("0-")}) {
        SCOPED_TRACE(ranged);
        Fetched corrupt = Fetch(url, ranged);
        uint64_t first = ranged == BlockRange(1) ? kBlock + 16 : 0;
        std::string expected = encrypted.substr(first, corrupt.body.size());
        ASSERT_EQ(expected.size(), corrupt.body.size());
        size_t at = kBlock + 20 - first;
        EXPECT_EQ(static_cast<char>(expected[at] ^ 0xff), corrupt.body[at]);
        expected[at] = corrupt.body[at];
        EXPECT_EQ(expected, corrupt.body);
    }
    EXPECT_EQ(encrypted.substr(kBlock + 16, kBlock + 16), Fetch(url, BlockRange(1)).body);
    EXPECT_TRUE(cloud_->payloadFaults().empty());

    // Any text instead of the data, with the status asked for.
    std::string error;
    ASSERT_TRUE(cloud_->addPayloadFault(
        ZelTest::ParseJson(R"({"body": "not a block", "status": 206})"), error))
        << error;
    Fetched body = Fetch(url, range);
    EXPECT_EQ(206, body.status);
    EXPECT_EQ("not a block", body.body);
    EXPECT_FALSE(cloud_->addPayloadFault(ZelTest::ParseJson(R"({"body": 7})"), error));

    ASSERT_TRUE(cloud_->waitForPayloadRequests(11, kWait));
    EXPECT_EQ(1u, countFault("fault: body of 11 bytes, status 206"));
    EXPECT_EQ(2u, countFault("fault: status 500"));
    EXPECT_EQ(1u, countFault("fault: delay 300 ms"));
    EXPECT_EQ(1u, countFault("fault: dropped"));
    EXPECT_EQ(2u, countFault("fault: byte " + std::to_string(kBlock + 20) + " flipped"));
    for (const ZelCloud::PayloadRequest& request : cloud_->payloadRequests()) {
        if (request.fault == "fault: dropped") {
            EXPECT_EQ(block0.size() / 2, request.bytes);
        }
    }
}

TEST_F(SuServiceTest, StopCutsADelayShortAndEndsKeptConnections) {
    ZelCloud::PublishedUpdate published = publish();
    ASSERT_TRUE(cloud_->start()) << cloud_->error();
    // A connection the client keeps after its answer.
    CURL* kept = curl_easy_init();
    EXPECT_EQ(206, Fetch(published.url, BlockRange(0), kept).status);
    // Recorded a moment after the client has its answer; until then it counts
    // as in flight, and the wait below would not be for the held answer.
    ASSERT_TRUE(cloud_->waitForPayloadRequests(1, kWait));
    cloud_->addPayloadFault(Fault{"", Kind::Delay, 0, 60000, 0, 1, ""});
    auto held =
        std::async(std::launch::async, [&] { return Fetch(published.url, BlockRange(0)).status; });
    ASSERT_TRUE(cloud_->waitForPayloadsInFlight(1, kWait));
    auto start = std::chrono::steady_clock::now();
    cloud_->stop();
    EXPECT_LT(ElapsedMs(start), 2000);
    EXPECT_EQ(503, held.get());
    curl_easy_cleanup(kept);
    std::vector<std::string> faults;
    for (const ZelCloud::PayloadRequest& request : cloud_->payloadRequests()) {
        faults.push_back(request.fault);
    }
    EXPECT_THAT(faults, testing::Contains("fault: delay 60000 ms, cut short by stop"));
}

TEST_F(SuServiceTest, ReportsAreRecordedWithTheUpdateTheyName) {
    ZelCloud::PublishedUpdate published = publish();
    Answer answer = report(ReportBody(true, "success", published.token));
    EXPECT_EQ(200, answer.status);
    EXPECT_EQ("{}", answer.body);
    EXPECT_EQ(200,
              report(ReportBody(false, "payload problem - cannot verify block 1", "other")).status);
    ASSERT_TRUE(cloud_->waitForUpdateReports(2, kWait));
    std::vector<ZelCloud::UpdateReport> reports = cloud_->updateReports();
    EXPECT_EQ(cn_, reports[0].device);
    EXPECT_TRUE(reports[0].status);
    EXPECT_EQ("success", reports[0].details);
    EXPECT_EQ("2024-05-01T12:00:00Z", reports[0].date);
    EXPECT_EQ(published.token, reports[0].metadata);
    EXPECT_EQ("u1", reports[0].update);
    EXPECT_FALSE(reports[1].status);
    EXPECT_EQ("", reports[1].update);
    EXPECT_TRUE(reports[1].toJson()["update"].isNull());

    // Refused, and not recorded: an unknown gid token, and malformed calls.
    EXPECT_EQ(422, report(ReportBody(true, "success", published.token), "stale").status);
    const char* bodies[] = {
        "not json",
        "[]",
        R"({"suStatus": "true", "suDetails": "", "suDate": "", "suMetadata": ""})",
        R"({"suStatus": true, "suDetails": 1, "suDate": "", "suMetadata": ""})",
        R"({"suStatus": true, "suDetails": "", "suDate": null, "suMetadata": ""})",
        R"({"suStatus": true, "suDetails": "", "suDate": ""})",
    };
    for (const char* body : bodies) {
        EXPECT_EQ(400, report(body).status) << body;
    }
    EXPECT_EQ(405,
              cloud_->serve("GET", "/api/v1/su/download/complete", kHost, cn_, gid_, "").status);
    EXPECT_EQ(404,
              cloud_->serve("POST", "/api/v1/su/download/other", kHost, cn_, gid_, "{}").status);
    EXPECT_EQ(2u, cloud_->updateReports().size());

    // The cloud's fault plan reaches the report as it reaches every call.
    std::string error;
    ASSERT_TRUE(cloud_->addFault(
        ZelTest::ParseJson(R"({"path": "su/download/complete", "status": 428})"), error));
    EXPECT_EQ(428, report(ReportBody(true, "success", published.token)).status);
    EXPECT_EQ(2u, cloud_->updateReports().size());
}

TEST_F(SuServiceTest, TheControlInterfacePublishesAndRefusesBadBodies) {
    options_.controlPort = 0;
    make();
    ASSERT_TRUE(cloud_->start()) << cloud_->error();
    httplib::Client control("127.0.0.1", cloud_->controlPort());
    auto post = [&control](const char* path, const std::string& body) {
        auto res = control.Post(path, body, "application/json");
        return res ? res->status : -1;
    };
    const char* updates[] = {
        "[]",
        "{}",
        R"({"version": 1})",
        R"({"version": ""})",
        R"({"version": "5", "sizeBytes": -1})",
        R"({"version": "5", "sizeBytes": "5"})",
        R"({"version": "5", "sizeBytes": 0})",
        R"({"version": "5", "sizeBytes": 67108865})",
        R"({"version": "5", "sizeBytes": 1048577, "blockSize": 1})",
        R"({"version": "5", "seed": 1.5})",
        R"({"version": "5", "blockSize": 0})",
        R"({"version": "5", "blockSize": 4294967296})",
        R"({"version": "5", "audiences": "4.8.0"})",
        R"({"version": "5", "audiences": [1]})",
        R"({"version": "5", "mandatory": "yes"})",
        R"({"version": "5", "device": 7})",
        R"({"version": "5", "payloadFile": "/nonexistent/payload"})",
        R"({"version": "5", "payloadFile": 1})",
        R"({"version": "5", "sizeBytes": 1, "payloadFile": "/etc/hostname"})",
    };
    for (const char* body : updates) {
        EXPECT_EQ(400, post("/control/updates", body)) << body;
    }
    const char* faults[] = {
        "not json",
        "{}",
        R"({"id": 1, "drop": true})",
        R"({"status": 99})",
        R"({"status": "500"})",
        R"({"delayMs": -1})",
        R"({"drop": 1})",
        R"({"corruptOffset": -1})",
        R"({"corruptOffset": 1.5})",
        R"({"drop": true, "count": 0})",
        R"({"drop": true, "count": 4294967296})",
    };
    for (const char* body : faults) {
        EXPECT_EQ(400, post("/control/payload-faults", body)) << body;
    }
    EXPECT_TRUE(cloud_->updates().empty());
    EXPECT_TRUE(cloud_->payloadFaults().empty());

    ZelTest::TempDir dir;
    ZelTest::WriteFile(dir.file("payload.bin"), std::string(5000, 'z'));
    Json::Value request(Json::objectValue);
    request["version"] = "6.0.0";
    request["payloadFile"] = dir.file("payload.bin");
    request["blockSize"] = 1024;
    request["mandatory"] = true;
    auto published = control.Post("/control/updates", request.toStyledString(), "application/json");
    ASSERT_TRUE(published);
    ASSERT_EQ(200, published->status) << published->body;
    Json::Value update = ZelTest::ParseJson(published->body);
    EXPECT_EQ("u1", update["id"].asString());
    EXPECT_EQ(5000u, update["size"].asUInt64());
    EXPECT_EQ(5u, update["blocks"].asUInt());
    EXPECT_TRUE(update["mandatory"].asBool());
    EXPECT_EQ(Sha256Hex(std::string(5000, 'z')), update["hash"].asString());
    EXPECT_EQ(200, post("/control/payload-faults", R"({"id": "u1", "status": 503, "count": 1})"));
    EXPECT_EQ(503, Fetch(update["url"].asString(), "0-1039").status);
    EXPECT_EQ(200, post("/control/payload-faults", R"({"drop": true})"));
    EXPECT_EQ(1u, ZelTest::ParseJson(control.Get("/control/payload-faults")->body).size());
    EXPECT_EQ(200, control.Delete("/control/payload-faults")->status);
    EXPECT_TRUE(cloud_->payloadFaults().empty());
    EXPECT_EQ(206, Fetch(update["url"].asString(), "0-1039").status);
    EXPECT_EQ(200, report(ReportBody(true, "success", update["token"].asString())).status);

    ASSERT_TRUE(cloud_->waitForPayloadRequests(2, kWait));
    Json::Value listed = ZelTest::ParseJson(control.Get("/control/updates")->body);
    EXPECT_EQ(update, listed[0]);
    Json::Value requests = ZelTest::ParseJson(control.Get("/control/payload-requests")->body);
    ASSERT_EQ(2u, requests.size());
    EXPECT_EQ("bytes=0-1039", requests[1]["range"].asString());
    EXPECT_EQ(1040u, requests[1]["bytes"].asUInt64());
    Json::Value reports = ZelTest::ParseJson(control.Get("/control/update-reports")->body);
    ASSERT_EQ(1u, reports.size());
    EXPECT_EQ("u1", reports[0]["update"].asString());
    EXPECT_TRUE(reports[0]["suStatus"].asBool());
}

}  // namespace
