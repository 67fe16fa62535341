// An update's metadata checked claim by claim, and its payload staged,
// resumed and refused, from tokens and payloads made by zel-pack.
#include "SoftwareUpdate/Platform/PayloadManager.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <fstream>
#include <functional>
#include <thread>

#include "Core/Platform/Base64Util.h"
#include "support/LogCapture.h"
#include "support/Pki.h"
#include "tools/pack/Pack.h"

using namespace Zel::Su;
using Zel::Core::Base64Util;
using ZelTest::LogCapture;
using ZelTest::ParseJson;
using ZelTest::Pki;
using ZelTest::ReadFile;
using ZelTest::TempDir;

namespace {

std::string Plaintext(size_t size) {
    std::string bytes(size, '\0');
    uint32_t x = 2463534242u;
    for (char& c : bytes) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        c = static_cast<char>(x);
    }
    return bytes;
}

class PayloadManagerTest : public ::testing::Test {
protected:
    static const Pki& pki() { return Pki::Get(); }

    static ProductKit Kit() {
        ProductKit kit;
        kit.domain = "zel.localhost";
        kit.opid = Pki::kDefaultOpid;
        kit.keyPem = ReadFile(pki().file("device.key"));
        kit.password = ReadFile(pki().file("device.pass"));
        kit.swVersion = "4.8.0";
        return kit;
    }

    static ZelPack::Options Options(uint32_t blockSize, const std::string& url = "") {
        ZelPack::Options options;
        options.blockSize = blockSize;
        options.version = "5.0.0";
        options.displayText = "Better pictures";
        options.audiences = {"4.7.0", "4.8.0"};
        options.url = url;
        options.signKeyPem = ReadFile(pki().file("signer.key"));
        options.signCertPem = ReadFile(pki().file("signer.crt"));
        options.intermediateCertPem = ReadFile(pki().file("update-ca.crt"));
        options.deviceCertPem = ReadFile(pki().file("device.crt"));
        return options;
    }

    static ZelPack::Package Pack(const std::string& plaintext, uint32_t blockSize,
                                 const std::string& url = "") {
        ZelPack::Package package;
        std::string error;
        EXPECT_TRUE(ZelPack::Pack(plaintext, Options(blockSize, url), package, error)) << error;
        return package;
    }

    static std::string Sign(const Json::Value& claims, const std::string& keyFile = "signer.key",
                            const Json::Value& header = ParseJson(R"({"alg":"RS512"})")) {
        std::string token;
        std::string error;
        EXPECT_TRUE(ZelPack::SignToken(header, claims, ReadFile(pki().file(keyFile)), token, error))
            << error;
        return token;
    }

    static std::string Seal(const std::string& bytes, const std::string& certFile = "device.crt") {
        std::string sealed;
        std::string error;
        EXPECT_TRUE(ZelPack::SealKeyBlock(bytes, ReadFile(pki().file(certFile)), sealed, error))
            << error;
        return sealed;
    }

    std::string write(const std::string& name, const std::string& content) {
        std::string path = dir_.file(name);
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }

    // Stages the whole payload; the PayloadManager is left for inspection.
    std::unique_ptr<PayloadManager> stage(const ZelPack::Package& package,
                                          const PayloadManager::Staging& staging = {}) {
        std::string local = write("update.bin", package.localFile);
        auto payload =
            std::make_unique<PayloadManager>(package.token, local, dir_.file("staging.raw"), Kit());
        EXPECT_FALSE(payload->getFailure()) << payload->getFailReason();
        if (payload->lockStagingFile(staging)) {
            while (payload->downloadNextBlock()) {
            }
        }
        return payload;
    }

    std::string staged() { return ReadFile(dir_.file("staging.raw")); }

    TempDir dir_;
};

TEST_F(PayloadManagerTest, EveryClaimIsChecked) {
    ZelPack::Package good = Pack(Plaintext(3000), 1024);
    const Json::Value claims = good.claims;
    const std::string keys = good.keys.bytes();
    using Edit = std::function<std::string()>;
    auto with = [&](const char* key, const Json::Value& value) -> Edit {
        return [=] {
            Json::Value changed = claims;
            changed[key] = value;
            return Sign(changed);
        };
    };
    struct Case {
        std::string what;
        Edit token;
        std::string logged;
        std::string reason = "metadata problem";
        bool local = false;
    };
    std::vector<Case> cases = {
        {"one segment", [] { return std::string("abc"); }, "metadata claims cannot be found"},
        {"header not base64", [] { return std::string("%%%.e30=.AA=="); },
         "metadata header cannot be base64 decoded"},
        {"header not json", [] { return Base64Util::Encode("{") + ".e30=.AA=="; },
         "metadata header cannot be converted to json"},
        {"alg", [&] { return Sign(claims, "signer.key", ParseJson(R"({"alg":"HS256"})")); },
         "metadata header alg is not RS512"},
        {"claims not json",
         [] { return Base64Util::Encode(R"({"alg":"RS512"})") + ".bm9wZQ==.AA=="; },
         "metadata claims cannot be converted to json"},
        {"url for a local update", with("url", "http://example.invalid/p"),
         "metadata claims url must be empty for local updates, was http://example.invalid/p",
         "metadata problem - claims url must be empty for local updates", true},
        {"no signature", [&] { return good.token.substr(0, good.token.rfind('.') + 1); },
         "metadata signature cannot be found"},
        {"operator", with("opd", "EEEEEE0BCC"),
         "metadata claims opd does not match product kit opid - EEEEEE0BCC vs. FFFFFF0ACC"},
        {"signature",
         [&] {
             std::string token = good.token;
             token[token.size() - 6] = token[token.size() - 6] == 'A' ? 'B' : 'A';
             return token;
         },
         "metadata signature does not match header and claims"},
        {"audience", with("aud", ParseJson(R"(["4.7.0", "4.8.1"])")),
         "metadata claims aud does not include device swVersion 4.8.0"},
        {"block size zero", with("blk", 0), "metadata claims blk is zero"},
        {"block size over the limit", with("blk", 2049),
         "metadata claims maximum configured block size exceeded, 2049 vs. 2048",
         "metadata problem - maximum configured block size exceeded, 2049 vs. 2048"},
        {"size zero", with("siz", 0), "metadata claims siz is zero"},
        {"signer of another name",
         [&] {
             Json::Value changed = claims;
             changed["crt"] = ReadFile(pki().file("update-ca.crt"));
             return Sign(changed, "update-ca.key");
         },
         "metadata claims crt does not match product kit domain - Zel Test Update CA vs. "
         "zel.localhost"},
        {"key not base64", with("key", "%%%"),
         "metadata claims key value cannot be base64 decoded"},
        {"key for another device", with("key", Seal(keys, "signer.crt")),
         "metadata claims key cannot be decrypted using product kit"},
        {"key block short", with("key", Seal(keys.substr(0, 43))),
         "metadata claims key has incorrect decrypted size 43 vs. 44"},
        {"key block long", with("key", Seal(keys + "x")),
         "metadata claims key has incorrect decrypted size 45 vs. 44"},
    };
    for (const std::string& key : claims.getMemberNames()) {
        cases.push_back({"without " + key,
                         [=] {
                             Json::Value changed = claims;
                             changed.removeMember(key);
                             return Sign(changed);
                         },
                         "metadata claims do not include " + key});
    }
    ProductKit kit = Kit();
    kit.maxBlockSizeBytes = 2048;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        LogCapture capture;
        std::string token = c.token();
        PayloadManager payload(token, c.local ? dir_.file("update.bin") : "", dir_.file("s"), kit);
        EXPECT_TRUE(payload.getFailure());
        EXPECT_EQ(c.reason, payload.getFailReason());
        EXPECT_EQ(20u, payload.getFailTime().size());
        EXPECT_NE("", capture.find(c.logged));
    }
    EXPECT_EQ(16u, claims.size());
    // At the limit, and with no limit, the block size is fine.
    PayloadManager atLimit(with("blk", 2048)(), "", dir_.file("s"), kit);
    EXPECT_FALSE(atLimit.getFailure()) << atLimit.getFailReason();
    PayloadManager valid(good.token, "", dir_.file("s"), Kit());
    EXPECT_FALSE(valid.getFailure()) << valid.getFailReason();
    EXPECT_EQ(3u, valid.metadata().totalBlocks);
    EXPECT_EQ("5.0.0", valid.getVersion());
    EXPECT_EQ(R"(["4.7.0","4.8.0"])", valid.metadata().swVersions);
}

TEST_F(PayloadManagerTest, BlocksCoverTheSize) {
    for (size_t size : {2048, 2049, 1, 1024}) {
        PayloadManager payload(Pack(Plaintext(size), 1024).token, "", dir_.file("s"), Kit());
        EXPECT_EQ((size + 1023) / 1024, payload.metadata().totalBlocks) << size;
    }
}

TEST_F(PayloadManagerTest, LocalPayloadIsStagedAndVerified) {
    std::string plaintext = Plaintext(3500);
    std::unique_ptr<PayloadManager> payload = stage(Pack(plaintext, 1000));
    EXPECT_TRUE(payload->isComplete()) << payload->getFailReason();
    EXPECT_EQ(100u, payload->getPercentDownloaded());
    EXPECT_EQ(plaintext, staged());
}

TEST_F(PayloadManagerTest, TamperingIsRefused) {
    const std::string plaintext = Plaintext(3500);
    struct Case {
        const char* what;
        std::function<void(ZelPack::Package&)> edit;
        const char* reason;
    };
    const Case cases[] = {
        {"a byte of block 1",
         [](ZelPack::Package& p) { p.localFile[4 + p.token.size() + 1016 + 10] ^= 1; },
         "payload problem - cannot verify block 1"},
        {"a byte of the tag of block 3",
         [](ZelPack::Package& p) { p.localFile[p.localFile.size() - 3] ^= 1; },
         "payload problem - cannot verify block 3"},
        {"the hash claim",
         [](ZelPack::Package& p) {
             Json::Value claims = p.claims;
             claims["hsh"] = std::string(64, '0');
             p.token = Sign(claims);
             p.localFile = ZelPack::LocalFile(p.token, p.encrypted);
         },
         "payload problem - cannot verify hash, "},
        {"a short last block",
         [](ZelPack::Package& p) { p.localFile.resize(p.localFile.size() - 1); },
         "payload problem - cannot process tag for block 3, read 15 instead of 16"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ZelPack::Package package = Pack(plaintext, 1000);
        c.edit(package);
        std::unique_ptr<PayloadManager> payload = stage(package);
        EXPECT_TRUE(payload->getFailure());
        EXPECT_EQ(0u, payload->getFailReason().rfind(c.reason, 0)) << payload->getFailReason();
        payload->removeStagingFile();
    }
}

TEST_F(PayloadManagerTest, ResumesWholeBlocksOnly) {
    const std::string plaintext = Plaintext(3500);
    struct Case {
        const char* what;
        std::string before;  // the staging file left by an earlier run
        uint32_t resumed;
        const char* logged;
        size_t writes;
    };
    const Case cases[] = {
        {"two and a half blocks", plaintext.substr(0, 2500), 2,
         "Truncating 500 bytes from staging file", 2},
        {"complete", plaintext, 4, "Staging file contains 3500 bytes of 3500 total", 0},
        {"larger than the payload", plaintext + "tail", 0,
         "Truncating 3504 bytes from staging file", 4},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        write("staging.raw", c.before);
        LogCapture capture("debug");
        std::unique_ptr<PayloadManager> payload = stage(Pack(plaintext, 1000));
        EXPECT_TRUE(payload->isComplete()) << payload->getFailReason();
        EXPECT_EQ(c.resumed, payload->getResumedBlocks());
        EXPECT_NE("", capture.find(c.logged));
        size_t writes = 0;
        for (const std::string& line : capture.messages()) {
            writes +=
                line.rfind("Staging ", 0) == 0 && line.find(" bytes to position 0") != line.npos;
        }
        EXPECT_EQ(c.writes, writes);
        EXPECT_EQ(plaintext, staged());
    }
    // A kept block that was changed since fails the hash, not silently.
    std::string changed = plaintext;
    changed[10] ^= 1;
    write("staging.raw", changed);
    EXPECT_EQ(0u, stage(Pack(plaintext, 1000))
                      ->getFailReason()
                      .rfind("payload problem - cannot verify hash", 0));
}

// A payload server on loopback that answers every request the same way.
class PayloadServer {
public:
    explicit PayloadServer(
        std::function<void(const httplib::Request&, httplib::Response&)> answer) {
        server_.Get(".*", [answer](const httplib::Request& req, httplib::Response& res) {
            answer(req, res);
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
    }
    ~PayloadServer() {
        server_.stop();
        thread_.join();
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/payload"; }

private:
    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;
};

TEST_F(PayloadManagerTest, NetworkPayloadIsFetchedByRangesAndRetried) {
    const std::string plaintext = Plaintext(2500);
    std::string encrypted;
    std::atomic<int> requests{0};
    std::atomic<bool> missing{false};
    PayloadServer server([&](const httplib::Request&, httplib::Response& res) {
        ++requests;
        if (missing) {
            res.status = 404;
            return;
        }
        res.set_content(encrypted, "application/octet-stream");
    });
    ZelPack::Package package = Pack(plaintext, 1000, server.url());
    encrypted = package.encrypted;
    unsigned waits = 0;
    PayloadManager::Staging staging;
    staging.maxRetryCount = 3;
    staging.waitUntil = [&](const timespec&) { return ++waits > 0; };

    auto payload =
        std::make_unique<PayloadManager>(package.token, "", dir_.file("staging.raw"), Kit());
    ASSERT_TRUE(payload->lockStagingFile(staging));
    while (payload->downloadNextBlock()) {
    }
    EXPECT_TRUE(payload->isComplete()) << payload->getFailReason();
    EXPECT_EQ(plaintext, staged());
    EXPECT_EQ(3, requests.load());
    EXPECT_EQ(0u, waits);

    // Every attempt answered 404: the retries, with a delay before each, then the failure.
    missing = true;
    requests = 0;
    payload->removeStagingFile();
    LogCapture capture;
    payload = std::make_unique<PayloadManager>(package.token, "", dir_.file("staging.raw"), Kit());
    ASSERT_TRUE(payload->lockStagingFile(staging));
    EXPECT_FALSE(payload->downloadNextBlock());
    EXPECT_EQ("payload problem - cannot transfer data for block 0, http (404)",
              payload->getFailReason());
    EXPECT_EQ(3, requests.load());
    EXPECT_EQ(2u, waits);
    EXPECT_NE("", capture.find("Payload delaying (3 of 3) for "));
}

}  // namespace
