#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Core/Platform/Base64Util.h"
#include "Core/Platform/HmacUtil.h"
#include "Core/Platform/RandomUtil.h"
#include "Core/Platform/RsaUtil.h"
#include "Core/Platform/Sha256Util.h"
#include "Core/Platform/X509Util.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

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

std::vector<unsigned char> bytesOf(const std::string& text) {
    return std::vector<unsigned char>(text.begin(), text.end());
}

const unsigned char* raw(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

unsigned length(const std::string& text) {
    return static_cast<unsigned>(text.length());
}

bool VerifyRS512(const std::string& cert, const std::string& message, const std::string& sig) {
    return RsaUtil::VerifyRS512(cert, raw(message), length(message), raw(sig), length(sig));
}

bool Decrypt(const std::string& key, const char* password, const std::string& cipher,
             std::string& out) {
    return RsaUtil::Decrypt(key.c_str(), password, raw(cipher), length(cipher), out);
}

// Keys and certificates made once with the openssl command:
//   root CA -> intermediate CA -> leaf "device.example.com" (RSA),
//   an unrelated root, an EC certificate, and a pass-phrase protected RSA key.
class CryptoTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        dir_ = new ZelTest::TempDir();
        write("pki.cnf", R"([req]
distinguished_name = dn
[dn]
[ca]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
[leaf]
basicConstraints = critical,CA:FALSE
keyUsage = critical,digitalSignature,keyEncipherment
subjectKeyIdentifier = hash
)");
        const std::string rsa = "genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 ";
        const std::string ca = "req -x509 -new -config pki.cnf -extensions ca -days 30 -sha256 ";
        const std::string sign = "x509 -req -days 30 -sha256 -extfile pki.cnf ";
        const std::vector<std::string> commands = {
            rsa + "-out root.key",
            ca + "-key root.key -subj /CN=Test\\ Root -out root.pem",
            rsa + "-out int.key",
            "req -new -config pki.cnf -key int.key -subj /CN=Test\\ Intermediate -out int.csr",
            sign +
                "-in int.csr -CA root.pem -CAkey root.key -set_serial 2 -extensions ca"
                " -out int.pem",
            rsa + "-out leaf.key",
            "req -new -config pki.cnf -key leaf.key -subj /CN=device.example.com/O=Zel"
            " -out leaf.csr",
            sign +
                "-in leaf.csr -CA int.pem -CAkey int.key -set_serial 3 -extensions leaf"
                " -out leaf.pem",
            rsa + "-out other.key",
            ca + "-key other.key -subj /CN=Other\\ Root -out other.pem",
            "genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out ec.key",
            "req -x509 -new -config pki.cnf -extensions leaf -key ec.key"
            " -subj /CN=ec.example.com -days 30 -sha256 -out ec.pem",
            rsa + "-aes-128-cbc -pass pass:open\\ sesame -out locked.key",
            "pkey -in locked.key -passin pass:open\\ sesame -pubout -out locked.pub"};
        for (const std::string& args : commands) {
            if (!Run(args)) {
                failed_ = args;
                return;
            }
        }
    }
    static void TearDownTestSuite() {
        delete dir_;
        dir_ = nullptr;
    }
    void SetUp() override { ASSERT_EQ("", failed_) << "openssl could not make the test PKI"; }

    static std::string read(const std::string& name) { return ZelTest::ReadFile(dir_->file(name)); }
    static void write(const std::string& name, const std::string& content) {
        ZelTest::WriteFile(dir_->file(name), content);
    }
    // Runs openssl with `args` inside the directory; false on failure.
    static bool Run(const std::string& args) {
        std::string command = "cd '" + dir_->path() + "' && openssl " + args + " >/dev/null 2>&1";
        return std::system(command.c_str()) == 0;
    }

    static inline ZelTest::TempDir* dir_ = nullptr;
    static inline std::string failed_;
};

}  // namespace

TEST(HmacUtilTest, Rfc4231Vectors) {
    struct Vector {
        std::string key;
        std::string data;
        const char* mac;
    };
    const Vector vectors[] = {
        {std::string(20, '\x0b'), "Hi There",
         "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
        {"Jefe", "what do ya want for nothing?",
         "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
        {std::string(131, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First",
         "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54"},
    };
    for (const Vector& vector : vectors) {
        std::string out;
        ASSERT_TRUE(HmacUtil::GetHmacSha256(bytesOf(vector.key), vector.data, out));
        EXPECT_EQ(Base64Util::Encode(fromHex(vector.mac)), out) << vector.mac;
    }
}

TEST(Sha256UtilTest, Fips180Vectors) {
    std::string out;
    ASSERT_TRUE(Sha256Util::Hash("abc", out));
    EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", out);
    ASSERT_TRUE(Sha256Util::Hash("", out));
    EXPECT_EQ("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855", out);
    ASSERT_TRUE(Sha256Util::Hash(std::string(1000000, 'a'), out));
    EXPECT_EQ("cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0", out);
    // Bytes, not C strings.
    ASSERT_TRUE(Sha256Util::Hash(std::string("abc\0", 4), out));
    EXPECT_NE("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", out);
}

TEST(RandomUtilTest, BytesAndFailures) {
    unsigned char a[32] = {};
    unsigned char b[32] = {};
    ASSERT_TRUE(RandomUtil::GetBytes(a, sizeof a));
    ASSERT_TRUE(RandomUtil::GetBytes(b, sizeof b));
    EXPECT_NE(0, std::memcmp(a, b, sizeof a));
    EXPECT_TRUE(RandomUtil::GetBytes(a, 0));

    ZelTest::LogCapture capture;
    ZelTest::TempDir dir;
    EXPECT_FALSE(RandomUtil::ReadBytes(dir.file("missing").c_str(), a, 4));
    EXPECT_TRUE(
        capture.contains("Problem with " + dir.file("missing") + ", unable to open for reading."));
    ZelTest::WriteFile(dir.file("short"), "xyz");
    EXPECT_FALSE(RandomUtil::ReadBytes(dir.file("short").c_str(), a, 4));
    EXPECT_TRUE(
        capture.contains("Problem with " + dir.file("short") + ", read 3 bytes instead of 4"));
}

TEST_F(CryptoTest, CommonName) {
    std::string cn;
    ASSERT_TRUE(X509Util::GetCommonName(read("leaf.pem"), cn));
    EXPECT_EQ("device.example.com", cn);

    ZelTest::LogCapture capture;
    cn = "unchanged";
    EXPECT_FALSE(X509Util::GetCommonName("not a certificate", cn));
    EXPECT_EQ("unchanged", cn);
    ASSERT_FALSE(capture.messages().empty());
    EXPECT_EQ(0u, capture.messages()[0].rfind("ERROR: error:", 0)) << capture.messages()[0];

    // A certificate without a common name.
    ASSERT_TRUE(
        Run("req -x509 -new -config pki.cnf -extensions leaf -key leaf.key"
            " -subj /O=Nameless -days 1 -out nameless.pem"));
    EXPECT_FALSE(X509Util::GetCommonName(read("nameless.pem"), cn));
}

TEST_F(CryptoTest, ChainVerification) {
    const std::string leaf = read("leaf.pem");
    const std::string root = read("root.pem");
    const std::string intermediate = read("int.pem");
    const std::string other = read("other.pem");

    EXPECT_TRUE(X509Util::VerifyChain(leaf, root + intermediate));
    EXPECT_TRUE(X509Util::VerifyChain(leaf, intermediate + other + root));

    ZelTest::LogCapture capture;
    EXPECT_FALSE(X509Util::VerifyChain(leaf, other));
    EXPECT_FALSE(X509Util::VerifyChain(leaf, other + intermediate));
    // The intermediate alone is not a trust anchor.
    EXPECT_FALSE(X509Util::VerifyChain(leaf, intermediate));
    EXPECT_FALSE(X509Util::VerifyChain("garbage", root + intermediate));
    EXPECT_TRUE(capture.contains("ERROR: unable to get local issuer certificate"));

    // A tampered certificate no longer carries a valid signature.
    std::string tampered = leaf;
    size_t body = tampered.find('\n', tampered.find("-----BEGIN")) + 1;
    size_t at = body + 200;
    tampered[at] = tampered[at] == 'A' ? 'B' : 'A';
    EXPECT_FALSE(X509Util::VerifyChain(tampered, root + intermediate));
}

TEST_F(CryptoTest, SignatureRS512) {
    const std::string message = "{\"alg\":\"RS512\"}.{\"sub\":\"update\"}";
    write("message.bin", message);
    ASSERT_TRUE(Run("dgst -sha512 -sign leaf.key -out message.sig message.bin"));
    // The same key with PSS padding is another scheme.
    ASSERT_TRUE(
        Run("dgst -sha512 -sign leaf.key -sigopt rsa_padding_mode:pss -out pss.sig"
            " message.bin"));
    ASSERT_TRUE(Run("dgst -sha512 -sign ec.key -out ec.sig message.bin"));
    const std::string sig = read("message.sig");
    const std::string leaf = read("leaf.pem");
    EXPECT_TRUE(VerifyRS512(leaf, message, sig));

    ZelTest::LogCapture capture;
    std::string badSig = sig;
    badSig[badSig.length() / 2] ^= 0x01;
    EXPECT_FALSE(VerifyRS512(leaf, message, badSig));
    std::string badMessage = message;
    badMessage[3] ^= 0x01;
    EXPECT_FALSE(VerifyRS512(leaf, badMessage, sig));
    EXPECT_FALSE(VerifyRS512(read("int.pem"), message, sig));
    EXPECT_TRUE(capture.contains("ERROR: error:02000068:rsa routines::bad signature"));
    EXPECT_FALSE(VerifyRS512(leaf, message, read("pss.sig")));
    // An EC certificate is not an RS512 key, even with a valid ECDSA signature.
    EXPECT_FALSE(VerifyRS512(read("ec.pem"), message, read("ec.sig")));
}

TEST_F(CryptoTest, OaepDecrypt) {
    // 44 bytes, the shape of an update's wrapped key.
    std::string secret;
    for (int i = 0; i < 44; ++i) {
        secret.push_back(static_cast<char>(i * 37 + 5));
    }
    write("secret.bin", secret);
    const std::string encrypt = "pkeyutl -encrypt -certin -inkey leaf.pem -in secret.bin ";
    ASSERT_TRUE(Run(encrypt + "-pkeyopt rsa_padding_mode:oaep -out secret.enc"));
    ASSERT_TRUE(Run(encrypt + "-pkeyopt rsa_padding_mode:pkcs1 -out secret.v15"));
    const std::string cipher = read("secret.enc");
    const std::string key = read("leaf.key");

    std::string out;
    ASSERT_TRUE(Decrypt(key, nullptr, cipher, out));
    EXPECT_EQ(secret, out);

    ZelTest::LogCapture capture;
    std::string flipped = cipher;
    flipped[17] ^= 0x80;
    EXPECT_FALSE(Decrypt(key, nullptr, flipped, out));
    EXPECT_TRUE(out.empty());
    // Another key cannot open it.
    EXPECT_FALSE(Decrypt(read("other.key"), nullptr, cipher, out));
    // PKCS #1 v1.5 padding is not accepted in place of OAEP.
    EXPECT_FALSE(Decrypt(key, nullptr, read("secret.v15"), out));
    for (const std::string& message : capture.messages()) {
        EXPECT_EQ(0u, message.rfind("ERROR: error:", 0)) << message;
    }
}

TEST_F(CryptoTest, OaepDecryptWithPassPhrase) {
    const std::string secret = "sixteen byte key";
    write("short.bin", secret);
    ASSERT_TRUE(
        Run("pkeyutl -encrypt -pubin -inkey locked.pub -pkeyopt rsa_padding_mode:oaep"
            " -in short.bin -out short.enc"));
    const std::string cipher = read("short.enc");
    const std::string key = read("locked.key");

    std::string out;
    ASSERT_TRUE(Decrypt(key, "open sesame", cipher, out));
    EXPECT_EQ(secret, out);

    ZelTest::LogCapture capture;
    EXPECT_FALSE(Decrypt(key, "open sesam", cipher, out));
    // Without a pass phrase the read fails instead of asking on a terminal.
    EXPECT_FALSE(Decrypt(key, nullptr, cipher, out));
    EXPECT_EQ(2u, capture.messages().size());
}
