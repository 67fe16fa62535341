// The speed test's two ends on the cloud's TLS service, called as the agent
// calls them: libcurl with the device's certificate, checking the cloud's
// against the lab CA and the name the settings hand out.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "support/Pki.h"
#include "support/TempDir.h"
#include "tools/cloud/Cloud.h"
#include "tools/cloud/SpeedTest.h"

namespace {

using ZelCloud::SpeedTest;

constexpr uint64_t kCap = SpeedTest::kMaxBytes;
constexpr const char* kHost = "FFFFFF0ACC-sv.zel.localhost";

size_t Collect(char* data, size_t size, size_t count, void* body) {
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
}

// An upload body of `left` bytes, made as curl asks for it.
struct Source {
    uint64_t left = 0;
};

size_t Produce(char* buffer, size_t size, size_t count, void* source) {
    auto* from = static_cast<Source*>(source);
    size_t bytes = static_cast<size_t>(std::min<uint64_t>(size * count, from->left));
    memset(buffer, 'u', bytes);
    from->left -= bytes;
    return bytes;
}

struct Reply {
    CURLcode code = CURLE_OK;
    long status = 0;
    std::string body;
};

// A GET, or with `upload` a POST of that many bytes, with a length or chunked.
Reply Call(const ZelTest::Pki& pki, int port, const std::string& url,
           const uint64_t* upload = nullptr, bool chunked = false) {
    Reply reply;
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
    std::string resolve = std::string(kHost) + ":" + std::to_string(port) + ":127.0.0.1";
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> hosts(
        curl_slist_append(nullptr, resolve.c_str()), curl_slist_free_all);
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(
        chunked ? curl_slist_append(nullptr, "Transfer-Encoding: chunked") : nullptr,
        curl_slist_free_all);
    std::string password = ZelTest::ReadFile(pki.file("device.pass"));
    Source source;
    CURL* handle = curl.get();
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_RESOLVE, hosts.get());
    curl_easy_setopt(handle, CURLOPT_CAINFO, pki.file("ca.crt").c_str());
    curl_easy_setopt(handle, CURLOPT_SSLCERT, pki.file("device.crt").c_str());
    curl_easy_setopt(handle, CURLOPT_SSLKEY, pki.file("device.key").c_str());
    curl_easy_setopt(handle, CURLOPT_KEYPASSWD, password.c_str());
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, Collect);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &reply.body);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, 60000L);
    if (upload != nullptr) {
        source.left = *upload;
        curl_easy_setopt(handle, CURLOPT_POST, 1L);
        curl_easy_setopt(handle, CURLOPT_READFUNCTION, Produce);
        curl_easy_setopt(handle, CURLOPT_READDATA, &source);
        curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
        if (!chunked) {
            curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(*upload));
        }
    }
    reply.code = curl_easy_perform(handle);
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &reply.status);
    return reply;
}

class SpeedTestTest : public ::testing::Test {
protected:
    void SetUp() override {
        ZelCloud::CloudOptions options;
        options.quiet = true;
        options.pkiDir = pki_.dir();
        cloud_ = std::make_unique<ZelCloud::Cloud>(options);
        ASSERT_TRUE(cloud_->start()) << cloud_->error();
        origin_ = "https://" + std::string(kHost) + ":" + std::to_string(cloud_->port());
    }

    // The record of the last call to the path, once it is complete.
    ZelCloud::RecordedRequest last(const std::string& path, size_t calls) {
        auto done = [&](const std::vector<ZelCloud::RecordedRequest>& requests) {
            return std::count_if(requests.begin(), requests.end(), [&](const auto& request) {
                       return request.path == path;
                   }) >= static_cast<long>(calls);
        };
        EXPECT_TRUE(cloud_->waitFor(done, std::chrono::milliseconds(10000)));
        ZelCloud::RecordedRequest found;
        for (const auto& request : cloud_->requests()) {
            if (request.path == path) {
                found = request;
            }
        }
        return found;
    }

    const ZelTest::Pki& pki_ = ZelTest::Pki::Get();
    std::unique_ptr<ZelCloud::Cloud> cloud_;
    std::string origin_;
};

TEST_F(SpeedTestTest, DownloadsAsManyBytesAsAsked) {
    const struct {
        const char* query;
        long status;
        uint64_t bytes;
    } rows[] = {
        {"", 200, SpeedTest::kDefaultSize},
        {"?size=5", 200, 5},
        {"?size=0", 200, 0},
        {"?size=99999999999999999999999", 200, kCap},
        {"?size=", 400, 0},
        {"?size=abc", 400, 0},
        {"?size=-1", 400, 0},
        {"?size=1e3", 400, 0},
    };
    size_t calls = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.query);
        Reply reply = Call(pki_, cloud_->port(), origin_ + "/speedtest/download" + row.query);
        ASSERT_EQ(CURLE_OK, reply.code) << curl_easy_strerror(reply.code);
        EXPECT_EQ(row.status, reply.status);
        if (row.status == 200) {
            EXPECT_EQ(row.bytes, reply.body.size());
        }
        ZelCloud::RecordedRequest record = last("/speedtest/download", ++calls);
        EXPECT_EQ(row.status, record.status);
        EXPECT_EQ(pki_.deviceCommonName(), record.cn);
    }
}

TEST_F(SpeedTestTest, UploadsAreCountedUpToTheCap) {
    const struct {
        const char* name;
        uint64_t bytes;
        bool chunked;
        long status;
        const char* note;
    } rows[] = {
        {"a thousand bytes", 1000, false, 200, "1000 bytes"},
        {"nothing", 0, false, 200, "0 bytes"},
        {"chunked", 100000, true, 200, "100000 bytes"},
        {"a length over the cap", kCap + 1, false, 413, "refused: Content-Length 67108865"},
        {"chunked over the cap", kCap + 1, true, 413, "refused after 67108865 bytes"},
    };
    size_t calls = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Reply reply =
            Call(pki_, cloud_->port(), origin_ + "/speedtest/upload", &row.bytes, row.chunked);
        ZelCloud::RecordedRequest record = last("/speedtest/upload", ++calls);
        EXPECT_EQ(row.status, record.status);
        EXPECT_EQ(row.note, record.note);
        if (row.status == 200) {
            ASSERT_EQ(CURLE_OK, reply.code) << curl_easy_strerror(reply.code);
            EXPECT_EQ(200, reply.status);
            EXPECT_EQ(row.bytes, ZelTest::ParseJson(reply.body)["received"].asUInt64());
        }
        // The cloud holds none of it.
        EXPECT_TRUE(record.body.empty());
    }
}

TEST_F(SpeedTestTest, FaultsApplyToBothEnds) {
    std::string error;
    ASSERT_TRUE(cloud_->addFault(
        ZelTest::ParseJson(R"({"path": "speedtest/download", "status": 503})"), error))
        << error;
    ASSERT_TRUE(cloud_->addFault(
        ZelTest::ParseJson(R"({"path": "speedtest/upload", "drop": true})"), error))
        << error;
    EXPECT_EQ(503, Call(pki_, cloud_->port(), origin_ + "/speedtest/download").status);
    EXPECT_EQ(503, last("/speedtest/download", 1).status);
    uint64_t bytes = 10;
    EXPECT_NE(CURLE_OK, Call(pki_, cloud_->port(), origin_ + "/speedtest/upload", &bytes).code);
    EXPECT_EQ(0, last("/speedtest/upload", 1).status);
    // Each for one call only.
    EXPECT_EQ(200, Call(pki_, cloud_->port(), origin_ + "/speedtest/download").status);
    EXPECT_EQ(200, Call(pki_, cloud_->port(), origin_ + "/speedtest/upload", &bytes).status);
}

TEST_F(SpeedTestTest, TheSettingsNameTheseEndsAsTheDeviceReachesThem) {
    Json::Value settings = cloud_->settings();
    EXPECT_EQ(origin_ + "/speedtest/download?size=102400",
              settings["svSpeedTestDownloadURL"].asString());
    EXPECT_EQ(origin_ + "/speedtest/upload", settings["svSpeedTestUploadURL"].asString());
    // The urls work with the certificate checked against the name in them.
    Reply download = Call(pki_, cloud_->port(), settings["svSpeedTestDownloadURL"].asString());
    ASSERT_EQ(CURLE_OK, download.code) << curl_easy_strerror(download.code);
    EXPECT_EQ(200, download.status);
    EXPECT_EQ(settings["svSpeedTestDownloadSize"].asUInt64(), download.body.size());
    uint64_t bytes = settings["svSpeedTestUploadSize"].asUInt64();
    Reply upload = Call(pki_, cloud_->port(), settings["svSpeedTestUploadURL"].asString(), &bytes);
    ASSERT_EQ(CURLE_OK, upload.code) << curl_easy_strerror(upload.code);
    EXPECT_EQ(200, upload.status);

    // The operator's keys win, and a null gives the cloud's back.
    cloud_->setSettings(ZelTest::ParseJson(R"({"svSpeedTestDownloadURL": "https://elsewhere/"})"));
    EXPECT_EQ("https://elsewhere/", cloud_->settings()["svSpeedTestDownloadURL"].asString());
    cloud_->setSettings(ZelTest::ParseJson(R"({"svSpeedTestDownloadURL": null})"));
    EXPECT_EQ(origin_ + "/speedtest/download?size=102400",
              cloud_->settings()["svSpeedTestDownloadURL"].asString());
}

}  // namespace
