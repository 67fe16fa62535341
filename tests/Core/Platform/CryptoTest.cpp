#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "Core/Platform/HmacUtil.h"
#include "Core/Platform/RsaUtil.h"
#include "Core/Platform/Sha256Util.h"
#include "Core/Platform/X509Util.h"
#include "support/Pki.h"
#include "support/TempDir.h"

using Zel::Core::HmacUtil;
using Zel::Core::RsaUtil;
using Zel::Core::Sha256Util;
using Zel::Core::X509Util;

namespace {

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

// RFC 4231 test cases 1 and 6; the second key is longer than a block, so it is hashed first.
TEST(HmacUtilTest, Rfc4231Vectors) {
    const char* vectors[][3] = {
        {"\x0b\x0b\x0b\x0b\x0b\x0b\x0b\x0b\x0b\x0b\x0b\x0b\x0b\x0b\x0b\x0b\x0b\x0b\x0b\x0b",
         "Hi There", "sDRMYdjbOFNcqK/OrwvxK4gdwgDJgz2nJuk3bC4yz/c="},
        // "" stands for the 131 bytes of 0xaa of test case 6.
        {"", "Test Using Larger Than Block-Size Key - Hash Key First",
         "YOQxWR7gtn8Niiaqy/W3f44LxiE3KMUUBUYEDw7jf1Q="},
    };
    for (const auto& vector : vectors) {
        std::string key = *vector[0] ? vector[0] : std::string(131, '\xaa');
        std::string out;
        ASSERT_TRUE(HmacUtil::GetHmacSha256(std::vector<unsigned char>(key.begin(), key.end()),
                                            vector[1], out));
        EXPECT_EQ(vector[2], out);
    }
}

TEST(Sha256UtilTest, HashesBytesNotCStrings) {
    std::string out;
    ASSERT_TRUE(Sha256Util::Hash(std::string("abc\0", 4), out));
    EXPECT_EQ("dc1114cd074914bd872cc1f9a23ec910ea2203bc79779ab2e17da25782a624fc", out);
}

TEST_F(CryptoTest, ChainVerification) {
    const std::string device = read("device.crt");
    const std::string root = read("ca.crt");
    const std::string other = read("other-ca.crt");
    EXPECT_TRUE(X509Util::VerifyChain(device, root));

    EXPECT_FALSE(X509Util::VerifyChain(device, other));
    // A certificate that is no root is not a trust anchor, not even for itself.
    EXPECT_FALSE(X509Util::VerifyChain(device, device));
    EXPECT_FALSE(X509Util::VerifyChain("garbage", root));
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

    std::string bad = sig;
    bad[bad.length() / 2] ^= 0x01;
    EXPECT_FALSE(verify(device, message, bad));
    EXPECT_FALSE(verify(device, message + " ", sig));
    EXPECT_FALSE(verify(read("ca.crt"), message, sig));
    EXPECT_FALSE(verify(device, message, ZelTest::ReadFile(dir.file("pss"))));
    // An EC certificate is not an RS512 key, even with a valid ECDSA signature.
    EXPECT_FALSE(verify(read("server.crt"), message, ZelTest::ReadFile(dir.file("ec"))));
}

TEST_F(CryptoTest, OaepDecrypt) {
    const std::string secret(44, '\x9b');  // the shape of an update's wrapped key
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

    std::string flipped = cipher;
    flipped[17] ^= 0x80;
    EXPECT_FALSE(decrypt(key, pass_.c_str(), flipped, out));
    EXPECT_TRUE(out.empty());
    // PKCS #1 v1.5 padding is not accepted in place of OAEP.
    EXPECT_FALSE(decrypt(key, pass_.c_str(), ZelTest::ReadFile(dir.file("v15")), out));
    // A wrong pass phrase, or none (which must not ask on a terminal).
    EXPECT_FALSE(decrypt(key, "not the pass phrase", cipher, out));
    EXPECT_FALSE(decrypt(key, nullptr, cipher, out));
}
