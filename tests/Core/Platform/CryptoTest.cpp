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

// Keys and certificates made once with the openssl command:
//   root CA -> intermediate CA -> leaf "device.example.com" (RSA),
//   an unrelated root, an EC certificate, and a pass-phrase protected RSA key.
class Pki {
public:
    Pki() {
        WriteConfig();
        ok_ = Run("genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out root.key") &&
              Run("req -x509 -new -config pki.cnf -extensions ca -key root.key"
                  " -subj /CN=Test\\ Root -days 30 -sha256 -out root.pem") &&
              Run("genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out int.key") &&
              Run("req -new -config pki.cnf -key int.key -subj /CN=Test\\ Intermediate"
                  " -out int.csr") &&
              Run("x509 -req -in int.csr -CA root.pem -CAkey root.key -set_serial 2 -days 30"
                  " -sha256 -extfile pki.cnf -extensions ca -out int.pem") &&
              Run("genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out leaf.key") &&
              Run("req -new -config pki.cnf -key leaf.key -subj /CN=device.example.com/O=Zel"
                  " -out leaf.csr") &&
              Run("x509 -req -in leaf.csr -CA int.pem -CAkey int.key -set_serial 3 -days 30"
                  " -sha256 -extfile pki.cnf -extensions leaf -out leaf.pem") &&
              Run("genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out other.key") &&
              Run("req -x509 -new -config pki.cnf -extensions ca -key other.key"
                  " -subj /CN=Other\\ Root -days 30 -sha256 -out other.pem") &&
              Run("genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out ec.key") &&
              Run("req -x509 -new -config pki.cnf -extensions leaf -key ec.key"
                  " -subj /CN=ec.example.com -days 30 -sha256 -out ec.pem") &&
              Run("genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -aes-128-cbc"
                  " -pass pass:open\\ sesame -out locked.key") &&
              Run("pkey -in locked.key -passin pass:open\\ sesame -pubout -out locked.pub");
    }

    bool ok() const { return ok_; }
    std::string path(const std::string& name) const { return dir_.file(name); }
    std::string read(const std::string& name) const { return ZelTest::ReadFile(path(name)); }
    void write(const std::string& name, const std::string& content) const {
        ZelTest::WriteFile(path(name), content);
    }
    // Runs openssl with `args` inside the directory; false on failure.
    bool Run(const std::string& args) const {
        std::string command = "cd '" + dir_.path() + "' && openssl " + args + " >/dev/null 2>&1";
        return std::system(command.c_str()) == 0;
    }

private:
    void WriteConfig() {
        write("pki.cnf",
              "[req]\n"
              "distinguished_name = dn\n"
              "[dn]\n"
              "[ca]\n"
              "basicConstraints = critical,CA:TRUE\n"
              "keyUsage = critical,keyCertSign,cRLSign\n"
              "subjectKeyIdentifier = hash\n"
              "[leaf]\n"
              "basicConstraints = critical,CA:FALSE\n"
              "keyUsage = critical,digitalSignature,keyEncipherment\n"
              "subjectKeyIdentifier = hash\n");
    }

    ZelTest::TempDir dir_;
    bool ok_ = false;
};

class CryptoTest : public testing::Test {
protected:
    static void SetUpTestSuite() { pki_ = new Pki(); }
    static void TearDownTestSuite() {
        delete pki_;
        pki_ = nullptr;
    }
    void SetUp() override { ASSERT_TRUE(pki_->ok()) << "openssl could not make the test PKI"; }

    static Pki* pki_;
};

Pki* CryptoTest::pki_ = nullptr;

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
    ASSERT_TRUE(X509Util::GetCommonName(pki_->read("leaf.pem"), cn));
    EXPECT_EQ("device.example.com", cn);

    ZelTest::LogCapture capture;
    cn = "unchanged";
    EXPECT_FALSE(X509Util::GetCommonName("not a certificate", cn));
    EXPECT_EQ("unchanged", cn);
    ASSERT_FALSE(capture.messages().empty());
    EXPECT_EQ(0u, capture.messages()[0].rfind("ERROR: error:", 0)) << capture.messages()[0];

    // A certificate without a common name.
    ASSERT_TRUE(
        pki_->Run("req -x509 -new -config pki.cnf -extensions leaf -key leaf.key"
                  " -subj /O=Nameless -days 1 -out nameless.pem"));
    EXPECT_FALSE(X509Util::GetCommonName(pki_->read("nameless.pem"), cn));
}

TEST_F(CryptoTest, ChainVerification) {
    const std::string leaf = pki_->read("leaf.pem");
    const std::string root = pki_->read("root.pem");
    const std::string intermediate = pki_->read("int.pem");
    const std::string other = pki_->read("other.pem");

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
    pki_->write("message.bin", message);
    ASSERT_TRUE(pki_->Run("dgst -sha512 -sign leaf.key -out message.sig message.bin"));
    const std::string sig = pki_->read("message.sig");
    const std::string leaf = pki_->read("leaf.pem");

    EXPECT_TRUE(RsaUtil::VerifyRS512(leaf, raw(message), length(message), raw(sig), length(sig)));

    ZelTest::LogCapture capture;
    std::string badSig = sig;
    badSig[badSig.length() / 2] ^= 0x01;
    EXPECT_FALSE(
        RsaUtil::VerifyRS512(leaf, raw(message), length(message), raw(badSig), length(badSig)));
    std::string badMessage = message;
    badMessage[3] ^= 0x01;
    EXPECT_FALSE(
        RsaUtil::VerifyRS512(leaf, raw(badMessage), length(badMessage), raw(sig), length(sig)));
    EXPECT_FALSE(RsaUtil::VerifyRS512(pki_->read("int.pem"), raw(message), length(message),
                                      raw(sig), length(sig)));
    EXPECT_TRUE(capture.contains("ERROR: error:02000068:rsa routines::bad signature"))
        << capture.messages().size();

    // The same key with PSS padding is another scheme.
    ASSERT_TRUE(
        pki_->Run("dgst -sha512 -sign leaf.key -sigopt rsa_padding_mode:pss"
                  " -out pss.sig message.bin"));
    std::string pssSig = pki_->read("pss.sig");
    EXPECT_FALSE(
        RsaUtil::VerifyRS512(leaf, raw(message), length(message), raw(pssSig), length(pssSig)));

    // An EC certificate is not an RS512 key, even with a valid ECDSA signature.
    ASSERT_TRUE(pki_->Run("dgst -sha512 -sign ec.key -out ec.sig message.bin"));
    std::string ecSig = pki_->read("ec.sig");
    EXPECT_FALSE(RsaUtil::VerifyRS512(pki_->read("ec.pem"), raw(message), length(message),
                                      raw(ecSig), length(ecSig)));
}

TEST_F(CryptoTest, OaepDecrypt) {
    // 44 bytes, the shape of an update's wrapped key.
    std::string secret;
    for (int i = 0; i < 44; ++i) {
        secret.push_back(static_cast<char>(i * 37 + 5));
    }
    pki_->write("secret.bin", secret);
    ASSERT_TRUE(
        pki_->Run("pkeyutl -encrypt -certin -inkey leaf.pem"
                  " -pkeyopt rsa_padding_mode:oaep -in secret.bin -out secret.enc"));
    const std::string cipher = pki_->read("secret.enc");
    const std::string key = pki_->read("leaf.key");

    std::string out;
    ASSERT_TRUE(RsaUtil::Decrypt(key.c_str(), nullptr, raw(cipher), length(cipher), out));
    EXPECT_EQ(secret, out);

    ZelTest::LogCapture capture;
    std::string flipped = cipher;
    flipped[17] ^= 0x80;
    EXPECT_FALSE(RsaUtil::Decrypt(key.c_str(), nullptr, raw(flipped), length(flipped), out));
    EXPECT_TRUE(out.empty());
    // Another key cannot open it.
    std::string otherKey = pki_->read("other.key");
    EXPECT_FALSE(RsaUtil::Decrypt(otherKey.c_str(), nullptr, raw(cipher), length(cipher), out));
    // PKCS #1 v1.5 padding is not accepted in place of OAEP.
    ASSERT_TRUE(
        pki_->Run("pkeyutl -encrypt -certin -inkey leaf.pem"
                  " -pkeyopt rsa_padding_mode:pkcs1 -in secret.bin -out secret.v15"));
    std::string v15 = pki_->read("secret.v15");
    EXPECT_FALSE(RsaUtil::Decrypt(key.c_str(), nullptr, raw(v15), length(v15), out));
    for (const std::string& message : capture.messages()) {
        EXPECT_EQ(0u, message.rfind("ERROR: error:", 0)) << message;
    }
}

TEST_F(CryptoTest, OaepDecryptWithPassPhrase) {
    const std::string secret = "sixteen byte key";
    pki_->write("short.bin", secret);
    ASSERT_TRUE(
        pki_->Run("pkeyutl -encrypt -pubin -inkey locked.pub"
                  " -pkeyopt rsa_padding_mode:oaep -in short.bin -out short.enc"));
    const std::string cipher = pki_->read("short.enc");
    const std::string key = pki_->read("locked.key");

    std::string out;
    ASSERT_TRUE(RsaUtil::Decrypt(key.c_str(), "open sesame", raw(cipher), length(cipher), out));
    EXPECT_EQ(secret, out);

    ZelTest::LogCapture capture;
    EXPECT_FALSE(RsaUtil::Decrypt(key.c_str(), "open sesam", raw(cipher), length(cipher), out));
    // Without a pass phrase the read fails instead of asking on a terminal.
    EXPECT_FALSE(RsaUtil::Decrypt(key.c_str(), nullptr, raw(cipher), length(cipher), out));
    EXPECT_EQ(2u, capture.messages().size());
}
