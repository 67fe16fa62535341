#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Core/Platform/Base64Util.h"
#include "Core/Platform/HmacUtil.h"
#include "Core/Platform/RandomUtil.h"
#include "Core/Platform/RsaUtil.h"
#include "Core/Platform/Sha256Util.h"
#include "Core/Platform/X509Util.h"
#include "support/LogCapture.h"
#include "support/Pki.h"

using Zel::Core::Base64Util;
using Zel::Core::HmacUtil;
using Zel::Core::RandomUtil;
using Zel::Core::RsaUtil;
using Zel::Core::Sha256Util;
using Zel::Core::X509Util;

namespace {

std::string fromHex(const std::string& hex) {
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.length(); i += 2) {
        bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

const unsigned char* raw(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

// The lab's PKI: a root CA that issued the device (RSA, key under a pass
// phrase) and the server (EC) certificates, and an unrelated root.
class CryptoTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(pki_.ok()) << pki_.error(); }

    std::string read(const std::string& name) const { return ZelTest::ReadFile(pki_.file(name)); }
    // Runs openssl with `args` in the PKI's directory; false on failure.
    bool openssl(const std::string& args) const {
        std::string command = "cd '" + pki_.dir() + "' && openssl " + args + " >/dev/null 2>&1";
        return std::system(command.c_str()) == 0;
    }
    bool verify(const std::string& cert, const std::string& message, const std::string& sig) const {
        return RsaUtil::VerifyRS512(cert, raw(message), static_cast<unsigned>(message.size()),
                                    raw(sig), static_cast<unsigned>(sig.size()));
    }
    bool decrypt(const std::string& key, const char* password, const std::string& cipher,
                 std::string& out) const {
        return RsaUtil::Decrypt(key.c_str(), password, raw(cipher),
                                static_cast<unsigned>(cipher.size()), out);
    }

    const ZelTest::Pki& pki_ = ZelTest::Pki::Get();
    const std::string pass_ = read("device.pass");
};

}  // namespace

TEST(HmacUtilTest, Rfc4231Vectors) {
    const struct {
        std::string key;
        std::string data;
        const char* mac;
    } vectors[] = {
        {std::string(20, '\x0b'), "Hi There",
         "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
        {"Jefe", "what do ya want for nothing?",
         "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
        {std::string(131, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First",
         "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54"},
    };
    for (const auto& vector : vectors) {
        SCOPED_TRACE(vector.mac);
        std::string out;
        ASSERT_TRUE(HmacUtil::GetHmacSha256(
            std::vector<unsigned char>(vector.key.begin(), vector.key.end()), vector.data, out));
        EXPECT_EQ(Base64Util::Encode(fromHex(vector.mac)), out);
    }
}

TEST(Sha256UtilTest, Fips180Vectors) {
    const struct {
        std::string data;
        const char* hash;
    } vectors[] = {
        {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {std::string(1000000, 'a'),
         "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
        // Bytes, not C strings.
        {std::string("abc\0", 4),
         "dc1114cd074914bd872cc1f9a23ec910ea2203bc79779ab2e17da25782a624fc"},
    };
    for (const auto& vector : vectors) {
        std::string out;
        ASSERT_TRUE(Sha256Util::Hash(vector.data, out));
        EXPECT_EQ(vector.hash, out);
    }
}

TEST(RandomUtilTest, BytesDiffer) {
    unsigned char a[32] = {};
    unsigned char b[32] = {};
    ASSERT_TRUE(RandomUtil::GetBytes(a, sizeof a));
    ASSERT_TRUE(RandomUtil::GetBytes(b, sizeof b));
    EXPECT_NE(0, std::memcmp(a, b, sizeof a));
}

TEST_F(CryptoTest, CommonName) {
    std::string cn;
    ASSERT_TRUE(X509Util::GetCommonName(read("device.crt"), cn));
    EXPECT_EQ(pki_.deviceCommonName(), cn);

    ZelTest::LogCapture capture;
    cn = "unchanged";
    EXPECT_FALSE(X509Util::GetCommonName("not a certificate", cn));
    EXPECT_EQ("unchanged", cn);
    EXPECT_EQ(0u, capture.messages().at(0).rfind("ERROR: error:", 0)) << capture.messages()[0];
    EXPECT_FALSE(X509Util::GetCommonName(
        ZelTest::ReadFile(std::string(ZEL_SOURCE_DIR) +
                          "/tests/fuzz/corpus/fuzz_x509_name/no-common-name.pem"),
        cn));
}

TEST_F(CryptoTest, ChainVerification) {
    const std::string device = read("device.crt");
    const std::string root = read("ca.crt");
    const std::string other = read("other-ca.crt");
    EXPECT_TRUE(X509Util::VerifyChain(device, root));
    EXPECT_TRUE(X509Util::VerifyChain(device, other + root));

    ZelTest::LogCapture capture;
    EXPECT_FALSE(X509Util::VerifyChain(device, other));
    // A certificate that is no root is not a trust anchor, not even for itself.
    EXPECT_FALSE(X509Util::VerifyChain(device, device));
    EXPECT_FALSE(X509Util::VerifyChain("garbage", root));
    EXPECT_TRUE(capture.contains("ERROR: unable to get local issuer certificate"));
    // A tampered certificate no longer carries a valid signature.
    std::string tampered = device;
    size_t at = tampered.find('\n', tampered.find("-----BEGIN")) + 200;
    tampered[at] = tampered[at] == 'A' ? 'B' : 'A';
    EXPECT_FALSE(X509Util::VerifyChain(tampered, root));
}

TEST_F(CryptoTest, SignatureRS512) {
    const std::string message = "{\"alg\":\"RS512\"}.{\"sub\":\"update\"}";
    ZelTest::TempDir dir;
    ZelTest::WriteFile(dir.file("message"), message);
    auto sign = [&](const std::string& how, const std::string& out) {
        return openssl("dgst -sha512 -passin file:device.pass " + how + " -out " + dir.file(out) +
                       " " + dir.file("message"));
    };
    ASSERT_TRUE(sign("-sign device.key", "rsa"));
    // The same key with PSS padding is another scheme.
    ASSERT_TRUE(sign("-sign device.key -sigopt rsa_padding_mode:pss", "pss"));
    ASSERT_TRUE(sign("-sign server.key", "ec"));
    const std::string sig = ZelTest::ReadFile(dir.file("rsa"));
    const std::string device = read("device.crt");
    EXPECT_TRUE(verify(device, message, sig));

    ZelTest::LogCapture capture;
    std::string badSig = sig;
    badSig[badSig.length() / 2] ^= 0x01;
    EXPECT_FALSE(verify(device, message, badSig));
    std::string badMessage = message;
    badMessage[3] ^= 0x01;
    EXPECT_FALSE(verify(device, badMessage, sig));
    EXPECT_FALSE(verify(read("ca.crt"), message, sig));
    EXPECT_TRUE(capture.contains("ERROR: error:02000068:rsa routines::bad signature"));
    EXPECT_FALSE(verify(device, message, ZelTest::ReadFile(dir.file("pss"))));
    // An EC certificate is not an RS512 key, even with a valid ECDSA signature.
    EXPECT_FALSE(verify(read("server.crt"), message, ZelTest::ReadFile(dir.file("ec"))));
}

TEST_F(CryptoTest, OaepDecrypt) {
    // 44 bytes, the shape of an update's wrapped key.
    std::string secret;
    for (int i = 0; i < 44; ++i) {
        secret.push_back(static_cast<char>(i * 37 + 5));
    }
    ZelTest::TempDir dir;
    ZelTest::WriteFile(dir.file("secret"), secret);
    const std::string encrypt =
        "pkeyutl -encrypt -certin -inkey device.crt -in " + dir.file("secret") + " -pkeyopt ";
    ASSERT_TRUE(openssl(encrypt + "rsa_padding_mode:oaep -out " + dir.file("oaep")));
    ASSERT_TRUE(openssl(encrypt + "rsa_padding_mode:pkcs1 -out " + dir.file("v15")));
    const std::string cipher = ZelTest::ReadFile(dir.file("oaep"));
    const std::string key = read("device.key");

    std::string out;
    ASSERT_TRUE(decrypt(key, pass_.c_str(), cipher, out));
    EXPECT_EQ(secret, out);

    ZelTest::LogCapture capture;
    std::string flipped = cipher;
    flipped[17] ^= 0x80;
    EXPECT_FALSE(decrypt(key, pass_.c_str(), flipped, out));
    EXPECT_TRUE(out.empty());
    // Another key cannot open it.
    EXPECT_FALSE(decrypt(read("ca.key"), nullptr, cipher, out));
    // PKCS #1 v1.5 padding is not accepted in place of OAEP.
    EXPECT_FALSE(decrypt(key, pass_.c_str(), ZelTest::ReadFile(dir.file("v15")), out));
    // A wrong pass phrase, or none (which must not ask on a terminal).
    EXPECT_FALSE(decrypt(key, "not the pass phrase", cipher, out));
    EXPECT_FALSE(decrypt(key, nullptr, cipher, out));
    for (const std::string& message : capture.messages()) {
        EXPECT_EQ(0u, message.rfind("ERROR: error:", 0)) << message;
    }
}
