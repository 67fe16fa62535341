// zel-pack: what it makes must be what a device verifies and decrypts, checked
// here with OpenSSL directly and the device's own key from the lab PKI; and
// the command refuses what it cannot use.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>

#include "support/Pki.h"
#include "tools/pack/Base64.h"
#include "tools/pack/Certificates.h"
#include "tools/pack/JsonText.h"
#include "tools/pack/Pack.h"
#include "tools/pack/TokenCheck.h"

namespace {

using ZelTest::ReadFile;
using ZelTest::WriteFile;

const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

// A payload whose every block differs from the others.
std::string Payload(size_t size) {
    std::string payload(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        payload[i] = static_cast<char>((i * 131 + i / 251) & 0xff);
    }
    return payload;
}

std::vector<std::string> Split(const std::string& token) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t dot; (dot = token.find('.', start)) != std::string::npos; start = dot + 1) {
        parts.push_back(token.substr(start, dot - start));
    }
    parts.push_back(token.substr(start));
    return parts;
}

std::string Sha256Hex(const std::string& bytes) {
    unsigned char digest[32];
    unsigned int size = 0;
    EXPECT_EQ(1, EVP_Digest(bytes.data(), bytes.size(), digest, &size, EVP_sha256(), nullptr));
    std::string hex;
    for (unsigned char byte : digest) {
        hex += "0123456789abcdef"[byte >> 4];
        hex += "0123456789abcdef"[byte & 15];
    }
    return hex;
}

// Decrypts the sealed key block as the device does: its encrypted key, the
// pass phrase beside it, RSA-OAEP with OpenSSL's defaults.
bool Unseal(const ZelTest::Pki& pki, const std::string& sealedBase64, std::string& bytes) {
    std::string pem = ReadFile(pki.file("device.key"));
    std::string pass = ReadFile(pki.file("device.pass"));
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_mem_buf(pem.data(), int(pem.size())),
                                                  BIO_free);
    ZelPack::PkeyPtr key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, &pass[0]));
    std::string sealed;
    if (!key || !ZelPack::Base64Decode(sealedBase64, sealed)) {
        return false;
    }
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(
        EVP_PKEY_CTX_new(key.get(), nullptr), EVP_PKEY_CTX_free);
    size_t size = 0;
    if (EVP_PKEY_decrypt_init(ctx.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_OAEP_PADDING) != 1 ||
        EVP_PKEY_decrypt(ctx.get(), nullptr, &size, Bytes(sealed), sealed.size()) != 1) {
        return false;
    }
    bytes.assign(size, '\0');
    auto* out = reinterpret_cast<unsigned char*>(&bytes[0]);
    if (EVP_PKEY_decrypt(ctx.get(), out, &size, Bytes(sealed), sealed.size()) != 1) {
        return false;
    }
    bytes.resize(size);
    return true;
}

// Block `index` as the device decrypts it: the block's bytes are the
// ciphertext and the tag, the nonce the template behind the big-endian index.
bool DecryptBlock(const std::string& block, const std::string& keyBlock, uint32_t index,
                  std::string& plain) {
    if (block.size() < 16 || keyBlock.size() != 44) {
        return false;
    }
    std::string nonce = keyBlock.substr(32, 12);
    for (int i = 0; i < 4; ++i) {
        nonce[i] = static_cast<char>(index >> (24 - 8 * i));
    }
    size_t size = block.size() - 16;
    std::string tag = block.substr(size);
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                        EVP_CIPHER_CTX_free);
    plain.assign(size, '\0');
    int length = 0, tail = 0;
    auto* out = reinterpret_cast<unsigned char*>(&plain[0]);
    return EVP_DecryptInit_ex(ctx.get(), EVP_aes_128_gcm(), nullptr, Bytes(keyBlock),
                              Bytes(nonce)) == 1 &&
           EVP_DecryptUpdate(ctx.get(), nullptr, &length, Bytes(keyBlock) + 16, 16) == 1 &&
           EVP_DecryptUpdate(ctx.get(), out, &length, Bytes(block), int(size)) == 1 &&
           EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, 16, &tag[0]) == 1 &&
           EVP_DecryptFinal_ex(ctx.get(), out + length, &tail) == 1;
}

struct CommandResult {
    int code = -1;
    std::string output;  // stdout and stderr
};

CommandResult RunZelPack(const std::vector<std::string>& args) {
    std::string command = "'" + std::string(ZEL_PACK) + "'";
    for (const std::string& arg : args) {
        std::string quoted;
        for (char c : arg) {
            quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
        }
        command += " '" + quoted + "'";
    }
    CommandResult result;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    char buffer[4096];
    for (size_t count; (count = fread(buffer, 1, sizeof(buffer), pipe)) > 0;) {
        result.output.append(buffer, count);
    }
    int status = pclose(pipe);
    result.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

class PackTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(pki_.ok()) << pki_.error();
        options_.blockSize = 1000;
        options_.version = "5.0.1";
        options_.displayText = "Nouvelle version";
        options_.audiences = {"4.8.0", "4.8.1"};
        options_.sub = "subscriber";
        options_.upf = "full";
        options_.upi = 123456789012345ull;
        options_.signKeyPem = ReadFile(pki_.file("signer.key"));
        options_.signCertPem = ReadFile(pki_.file("signer.crt"));
        options_.intermediateCertPem = ReadFile(pki_.file("update-ca.crt"));
        options_.deviceCertPem = ReadFile(pki_.file("device.crt"));
    }

    ZelPack::Package pack(const std::string& payload) {
        ZelPack::Package package;
        std::string error;
        EXPECT_TRUE(ZelPack::Pack(payload, options_, package, error)) << error;
        return package;
    }

    const ZelTest::Pki& pki_ = ZelTest::Pki::Get();
    ZelPack::Options options_;
    ZelTest::TempDir dir_;
};

TEST_F(PackTest, PackedTokenInspectsAsValidWithEveryClaim) {
    std::string payload = Payload(3500);
    ZelPack::Package package = pack(payload);
    ZelPack::Inspection inspection;
    std::string error;
    ASSERT_TRUE(ZelPack::Inspect(package.token, inspection, error)) << error;
    EXPECT_TRUE(inspection.signatureValid);
    EXPECT_EQ("RS512", inspection.header["alg"].asString());
    EXPECT_EQ("JWT", inspection.header["typ"].asString());
    EXPECT_TRUE(ZelPack::TokenProblems(inspection.header, inspection.claims).empty());

    const Json::Value& claims = inspection.claims;
    EXPECT_EQ(16u, claims.size());
    Json::Value audiences(Json::arrayValue);
    audiences.append("4.8.0");
    audiences.append("4.8.1");
    const std::vector<std::pair<std::string, Json::Value>> expected = {
        {"hsh", Sha256Hex(payload)},
        {"opd", "FFFFFF0ACC"},
        {"aud", audiences},
        {"blk", 1000},
        {"siz", 3500},
        {"url", ""},
        {"aas", false},
        {"man", false},
        {"upn", "5.0.1"},
        {"sub", "subscriber"},
        {"upf", "full"},
        {"upi", Json::UInt64(123456789012345ull)},  // compared as JSON text
        {"udt", "Nouvelle version"},
    };
    for (const auto& [name, value] : expected) {
        EXPECT_EQ(ZelPack::CompactJson(value), ZelPack::CompactJson(claims[name])) << name;
    }
    EXPECT_EQ(package.hash, claims["hsh"].asString());
    EXPECT_EQ("CN=zel.localhost", ZelPack::DescribeCertificate(claims["crt"].asString()));
    EXPECT_EQ("CN=Zel Test Update CA", ZelPack::DescribeCertificate(claims["int"].asString()));
    EXPECT_EQ(ZelPack::CompactJson(package.claims), ZelPack::CompactJson(claims));
}

TEST_F(PackTest, TokenIsCompactJsonInBase64SignedRs512BySigner) {
    ZelPack::Package package = pack(Payload(10));
    std::vector<std::string> parts = Split(package.token);
    ASSERT_EQ(3u, parts.size());
    std::string header, claims, signature;
    ASSERT_TRUE(ZelPack::Base64Decode(parts[0], header));
    ASSERT_TRUE(ZelPack::Base64Decode(parts[1], claims));
    ASSERT_TRUE(ZelPack::Base64Decode(parts[2], signature));
    EXPECT_EQ("{\"alg\":\"RS512\",\"typ\":\"JWT\"}", header);
    EXPECT_EQ(ZelPack::CompactJson(package.claims), claims);
    EXPECT_EQ(std::string::npos, claims.find('\n'));
    EXPECT_EQ(std::string::npos, claims.find("\": ")) << "compact JSON";

    ZelPack::X509Ptr signer = ZelPack::ReadCertificate(ReadFile(pki_.file("signer.crt")));
    ASSERT_TRUE(signer);
    std::string signedPart = parts[0] + "." + parts[1];
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    ASSERT_EQ(1, EVP_DigestVerifyInit(ctx.get(), nullptr, EVP_sha512(), nullptr,
                                      X509_get0_pubkey(signer.get())));
    EXPECT_EQ(1, EVP_DigestVerify(ctx.get(), Bytes(signature), signature.size(), Bytes(signedPart),
                                  signedPart.size()));
}

TEST_F(PackTest, KeyClaimUnsealsWithTheDeviceKeyToTheKeyBlock) {
    ZelPack::Package package = pack(Payload(10));
    std::string keyBlock;
    ASSERT_TRUE(Unseal(pki_, package.claims["key"].asString(), keyBlock));
    EXPECT_EQ(44u, keyBlock.size());
    EXPECT_EQ(package.keys.bytes(), keyBlock);
    EXPECT_EQ(package.keys.key + package.keys.aad + package.keys.iv, keyBlock);
    EXPECT_NE(package.keys.bytes(), pack(Payload(10)).keys.bytes()) << "fresh keys every time";
}

TEST_F(PackTest, EveryBlockDecryptsWithItsIndexInTheNonce) {
    struct Case {
        size_t payload;
        uint32_t block;
        uint32_t blocks;
    };
    const Case cases[] = {
        {1, 1000, 1},    {999, 1000, 1},  {1000, 1000, 1}, {1001, 1000, 2},
        {3000, 1000, 3}, {3500, 1000, 4}, {7, 1, 7},       {65537, 65536, 2},
    };
    ZelPack::KeyBlock keys = ZelPack::KeyBlock::Random();
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.payload) + " bytes in blocks of " + std::to_string(c.block));
        std::string payload = Payload(c.payload);
        std::string encrypted = ZelPack::EncryptBlocks(payload, c.block, keys);
        ASSERT_EQ(c.payload + 16 * c.blocks, encrypted.size());
        std::string decrypted;
        for (uint32_t i = 0; i < c.blocks; ++i) {
            size_t plainSize = std::min<size_t>(c.block, c.payload - size_t{i} * c.block);
            std::string block = encrypted.substr(size_t{i} * (c.block + 16), plainSize + 16);
            std::string plain;
            ASSERT_TRUE(DecryptBlock(block, keys.bytes(), i, plain)) << "block " << i;
            decrypted += plain;
        }
        EXPECT_EQ(payload, decrypted);
    }
}

TEST_F(PackTest, AChangedByteOrAnotherIndexFailsTheTag) {
    ZelPack::KeyBlock keys = ZelPack::KeyBlock::Random();
    std::string encrypted = ZelPack::EncryptBlocks(Payload(200), 100, keys);
    ASSERT_EQ(232u, encrypted.size());
    std::string first = encrypted.substr(0, 116), second = encrypted.substr(116), plain;
    ASSERT_TRUE(DecryptBlock(second, keys.bytes(), 1, plain));
    EXPECT_FALSE(DecryptBlock(second, keys.bytes(), 0, plain)) << "nonce of another block";
    for (size_t at : {size_t{0}, size_t{50}, size_t{99}, size_t{100}, size_t{115}}) {
        std::string changed = first;
        changed[at] = static_cast<char>(changed[at] ^ 0x01);
        EXPECT_FALSE(DecryptBlock(changed, keys.bytes(), 0, plain)) << "byte " << at;
    }
    std::string otherAad = keys.bytes();
    otherAad[20] = static_cast<char>(otherAad[20] ^ 0x80);
    EXPECT_FALSE(DecryptBlock(first, otherAad, 0, plain));
}

TEST_F(PackTest, EncryptBlocksGivesNothingForUnusableKeys) {
    ZelPack::KeyBlock keys = ZelPack::KeyBlock::Random();
    EXPECT_EQ("", ZelPack::EncryptBlocks("abc", 0, keys));
    ZelPack::KeyBlock shortKey = keys;
    shortKey.key.pop_back();
    EXPECT_EQ("", ZelPack::EncryptBlocks("abc", 16, shortKey));
    ZelPack::KeyBlock longIv = keys;
    longIv.iv += "x";
    EXPECT_EQ("", ZelPack::EncryptBlocks("abc", 16, longIv));
}

TEST_F(PackTest, LocalFileIsLengthTokenAndBlocks) {
    ZelPack::Package package = pack(Payload(2500));
    const std::string& file = package.localFile;
    EXPECT_EQ(ZelPack::LocalFile(package.token, package.encrypted), file);
    ASSERT_EQ(4 + package.token.size() + 2500 + 3 * 16, file.size());
    uint32_t length = uint32_t(Bytes(file)[0]) << 24 | uint32_t(Bytes(file)[1]) << 16 |
                      uint32_t(Bytes(file)[2]) << 8 | uint32_t(Bytes(file)[3]);
    EXPECT_EQ(package.token.size(), length);
    EXPECT_EQ(package.token, file.substr(4, length));
    EXPECT_EQ(package.encrypted, file.substr(4 + length));
    EXPECT_EQ(std::string("\x00\x00\x01\x02", 4),
              ZelPack::LocalFile(std::string(258, 'x'), "ab").substr(0, 4));

    ZelPack::Inspection inspection;
    std::string error;
    ASSERT_TRUE(ZelPack::Inspect(file, inspection, error)) << error;
    EXPECT_TRUE(inspection.signatureValid);
    EXPECT_EQ(package.encrypted.size(), inspection.encryptedBytes);
}

TEST_F(PackTest, OperatorIdIsTheDeviceCnPrefixUnlessGiven) {
    EXPECT_EQ(pki_.opid(), pack(Payload(5)).claims["opd"].asString());
    options_.opid = "0123456789";
    options_.url = "https://cdn.example/update.bin";
    options_.mandatory = true;
    options_.autoAnswer = true;
    ZelPack::Package package = pack(Payload(5));
    EXPECT_EQ("0123456789", package.claims["opd"].asString());
    EXPECT_EQ("https://cdn.example/update.bin", package.claims["url"].asString());
    EXPECT_TRUE(package.claims["man"].asBool());
    EXPECT_TRUE(package.claims["aas"].asBool());
}

TEST_F(PackTest, PackRefusesWhatNoDeviceAccepts) {
    const std::string junk = "-----BEGIN CERTIFICATE-----\nnot one\n-----END CERTIFICATE-----\n";
    struct Case {
        const char* what;
        std::function<void(ZelPack::Options&, std::string&)> change;
        const char* error;
    };
    const std::vector<Case> cases = {
        {"no version", [](auto& o, auto&) { o.version.clear(); }, "no version"},
        {"block size 0", [](auto& o, auto&) { o.blockSize = 0; }, "block size"},
        {"block size 2^31 + 1", [](auto& o, auto&) { o.blockSize = (1u << 31) + 1; }, "block size"},
        {"empty payload", [](auto&, auto& p) { p.clear(); }, "payload is empty"},
        {"key is junk", [](auto& o, auto&) { o.signKeyPem = "junk"; }, "not a PEM private key"},
        {"key is EC", [&](auto& o, auto&) { o.signKeyPem = ReadFile(pki_.file("server.key")); },
         "not an RSA private key"},
        {"key is encrypted",
         [&](auto& o, auto&) { o.signKeyPem = ReadFile(pki_.file("device.key")); }, "encrypted"},
        {"certificate is junk", [&](auto& o, auto&) { o.signCertPem = junk; },
         "signing certificate is not"},
        {"certificate is a key", [](auto& o, auto&) { o.signCertPem = o.signKeyPem; },
         "signing certificate is not"},
        {"certificate of another key",
         [&](auto& o, auto&) { o.signCertPem = ReadFile(pki_.file("ca.crt")); },
         "does not hold the public key"},
        {"intermediate is junk", [&](auto& o, auto&) { o.intermediateCertPem = junk; },
         "intermediate certificate is not"},
        {"device certificate is junk", [&](auto& o, auto&) { o.deviceCertPem = ""; },
         "device certificate is not"},
        {"device certificate is EC",
         [&](auto& o, auto&) { o.deviceCertPem = ReadFile(pki_.file("server.crt")); }, "RSA key"},
        {"device CN without opid",
         [&](auto& o, auto&) { o.deviceCertPem = ReadFile(pki_.file("ca.crt")); },
         "no operator id"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ZelPack::Options options = options_;
        std::string payload = Payload(100), error;
        c.change(options, payload);
        ZelPack::Package package;
        EXPECT_FALSE(ZelPack::Pack(payload, options, package, error));
        EXPECT_NE(std::string::npos, error.find(c.error)) << error;
        EXPECT_TRUE(package.token.empty());
    }
}

TEST_F(PackTest, SealAndSignRefuseKeysOfTheWrongKind) {
    std::string sealed, token, error;
    EXPECT_FALSE(ZelPack::SealKeyBlock("k", "junk", sealed, error));
    EXPECT_FALSE(ZelPack::SealKeyBlock("k", ReadFile(pki_.file("server.crt")), sealed, error));
    EXPECT_FALSE(ZelPack::SignToken(Json::objectValue, Json::objectValue,
                                    ReadFile(pki_.file("server.key")), token, error));
    EXPECT_TRUE(token.empty());
}

TEST_F(PackTest, ChangedOrForeignSignedTokensAreInvalid) {
    ZelPack::Package package = pack(Payload(10));
    std::vector<std::string> parts = Split(package.token);
    Json::Value claims = package.claims;
    claims["upn"] = "9.9.9";
    std::string changed = ZelPack::Base64Encode(ZelPack::CompactJson(claims));
    // The same claims signed by the root CA's key still name the signer's certificate.
    std::string foreign;
    std::string error;
    ASSERT_TRUE(ZelPack::SignToken(Json::Value(Json::objectValue), package.claims,
                                   ReadFile(pki_.file("ca.key")), foreign, error));
    const std::vector<std::string> tokens = {
        parts[0] + "." + changed + "." + parts[2],
        parts[0] + "." + parts[1],
        parts[0] + "." + parts[1] + ".",
        parts[0] + "." + parts[1] + "." + parts[2].substr(4),
        foreign,
    };
    for (const std::string& token : tokens) {
        ZelPack::Inspection inspection;
        ASSERT_TRUE(ZelPack::Inspect(token, inspection, error)) << error;
        EXPECT_FALSE(inspection.signatureValid) << token.substr(token.size() - 20);
    }
}

TEST_F(PackTest, MalformedInputIsRefusedWithAReason) {
    auto b64 = [](const std::string& text) { return ZelPack::Base64Encode(text); };
    const std::string claims = b64("{}");
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", "empty"},
        {"abc", "no claims"},
        {"!x", "neither"},
        {"abc.def.ghi", "not base64"},
        {b64("{}") + ".e30", "not base64"},
        {b64("not json") + "." + claims + ".", "header is not JSON"},
        {b64("[1]") + "." + claims + ".", "header is not a JSON object"},
        {b64("{}") + "." + b64("\"text\"") + ".", "claims is not JSON"},
        {b64(std::string(100000, '[')) + "." + claims + ".", "header is not JSON"},
        {b64("{}") + "." + claims + ".x.y", "more than three"},
        {std::string("\x00\x00\x10\x00", 4) + "abc", "would hold a token of 4096 bytes"},
        {std::string("\x00\x00\x00\x00", 4), "token of 0 bytes"},
        {std::string("\x00\x00\x00\x03", 4) + "abc", "no claims"},
    };
    for (const auto& [input, reason] : cases) {
        ZelPack::Inspection inspection;
        std::string error;
        EXPECT_FALSE(ZelPack::Inspect(input, inspection, error)) << input.substr(0, 40);
        EXPECT_NE(std::string::npos, error.find(reason)) << error;
    }
}

TEST_F(PackTest, TokenProblemsNameMissingAndMistypedClaims) {
    Json::Value header;
    header["alg"] = "HS256";
    Json::Value claims = pack(Payload(10)).claims;
    claims.removeMember("udt");
    claims["blk"] = -1;
    claims["aud"] = Json::arrayValue;
    claims["aud"].append(7);
    claims["siz"] = 0;
    claims["crt"] = "junk";
    std::vector<std::string> problems = ZelPack::TokenProblems(header, claims);
    const std::vector<std::string> expected = {
        "header \"alg\" is not \"RS512\"",
        "claim \"aud\" is not a list of strings",
        "claim \"blk\" is not an unsigned 32-bit integer",
        "claim \"udt\" is missing",
        "claim \"crt\" is not a PEM certificate",
        "claim \"siz\" is zero",
    };
    EXPECT_EQ(expected, problems);
    uint64_t blocks = 0;
    EXPECT_FALSE(ZelPack::BlockCount(claims, blocks));
}

TEST_F(PackTest, Base64IsStandardWithPadding) {
    const std::vector<std::pair<std::string, std::string>> pairs = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"\xfb\xff", "+/8="},
    };
    for (const auto& [bytes, text] : pairs) {
        EXPECT_EQ(text, ZelPack::Base64Encode(bytes));
        std::string decoded;
        EXPECT_TRUE(ZelPack::Base64Decode(text, decoded));
        EXPECT_EQ(bytes, decoded);
    }
    for (const char* bad : {"Zg", "Zg=", "Zh==", "-_8=", "Zm9v\n", "=Zm9", "Z==="}) {
        std::string decoded;
        EXPECT_FALSE(ZelPack::Base64Decode(bad, decoded)) << bad;
    }
}

// The command itself, run as a child.
class PackCommandTest : public PackTest {
protected:
    void SetUp() override {
        PackTest::SetUp();
        WriteFile(dir_.file("payload.bin"), Payload(150000));
        WriteFile(dir_.file("empty.bin"), "");
    }
    std::vector<std::string> packArgs() const {
        return {"pack",
                "--payload",
                dir_.file("payload.bin"),
                "--sign-key",
                pki_.file("signer.key"),
                "--sign-cert",
                pki_.file("signer.crt"),
                "--intermediate",
                pki_.file("update-ca.crt"),
                "--device-cert",
                pki_.file("device.crt"),
                "--version",
                "5.0.1",
                "--audience",
                "4.8.0",
                "--out-token",
                dir_.file("token.jwt"),
                "--out-local",
                dir_.file("local.bin")};
    }
    // packArgs() with the value after `option` replaced, or the option added.
    std::vector<std::string> with(const std::string& option, const std::string& value) const {
        std::vector<std::string> args = packArgs();
        for (size_t i = 1; i + 1 < args.size(); ++i) {
            if (args[i] == option) {
                args[i + 1] = value;
                return args;
            }
        }
        args.push_back(option);
        args.push_back(value);
        return args;
    }
};

TEST_F(PackCommandTest, PacksAndInspectsAsValid) {
    CommandResult packed = RunZelPack(with("--out-payload", dir_.file("payload.enc")));
    ASSERT_EQ(0, packed.code) << packed.output;
    EXPECT_NE(std::string::npos, packed.output.find("blocks:  3 of 65536 bytes")) << packed.output;
    EXPECT_NE(std::string::npos, packed.output.find(Sha256Hex(Payload(150000))));
    std::string token = ReadFile(dir_.file("token.jwt"));
    EXPECT_EQ(ZelPack::LocalFile(token, ReadFile(dir_.file("payload.enc"))),
              ReadFile(dir_.file("local.bin")));

    for (const char* file : {"token.jwt", "local.bin"}) {
        CommandResult shown = RunZelPack({"inspect", dir_.file(file)});
        EXPECT_EQ(0, shown.code) << shown.output;
        for (const char* line : {"signature: valid", "crt:    CN=zel.localhost", "blocks:    3",
                                 "upn:    \"5.0.1\"", "int:    CN=Zel Test Update CA"}) {
            EXPECT_NE(std::string::npos, shown.output.find(line)) << line << "\n" << shown.output;
        }
    }
}

TEST_F(PackCommandTest, InspectSaysInvalidForChangedOrUnreadableFiles) {
    ASSERT_EQ(0, RunZelPack(packArgs()).code);
    std::string local = ReadFile(dir_.file("local.bin"));
    WriteFile(dir_.file("short.bin"), local.substr(0, local.size() - 1));
    std::string token = ReadFile(dir_.file("token.jwt"));
    token[token.size() - 10] = token[token.size() - 10] == 'A' ? 'B' : 'A';
    WriteFile(dir_.file("changed.jwt"), token);
    WriteFile(dir_.file("junk.jwt"), "eyJ.!!!.x");

    CommandResult changed = RunZelPack({"inspect", dir_.file("changed.jwt")});
    EXPECT_EQ(1, changed.code);
    EXPECT_NE(std::string::npos, changed.output.find("signature: INVALID")) << changed.output;
    CommandResult shortened = RunZelPack({"inspect", dir_.file("short.bin")});
    EXPECT_EQ(1, shortened.code);
    EXPECT_NE(std::string::npos, shortened.output.find("problem:")) << shortened.output;
    for (const std::string& file : {dir_.file("junk.jwt"), dir_.file("missing"), dir_.path()}) {
        CommandResult result = RunZelPack({"inspect", file});
        EXPECT_EQ(1, result.code) << file << ": " << result.output;
        EXPECT_NE(std::string::npos, result.output.find("zel-pack: ")) << result.output;
    }
}

TEST_F(PackCommandTest, RefusesBadInputsWithExitTwo) {
    std::vector<std::string> noVersion = packArgs();
    noVersion.erase(noVersion.begin() + 11, noVersion.begin() + 13);
    ASSERT_EQ("--audience", noVersion[11]);
    std::vector<std::string> noOutput = packArgs();
    noOutput.resize(noOutput.size() - 2);
    std::vector<std::string> twice = packArgs();
    twice.insert(twice.end(), {"--version", "6"});
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "no command"},
        {{"unpack"}, "unknown command"},
        {{"inspect"}, "exactly one file"},
        {noVersion, "missing --version"},
        {noOutput, "--out-local"},
        {with("--payload", dir_.file("missing")), "No such file"},
        {with("--payload", dir_.file("empty.bin")), "payload is empty"},
        {with("--sign-key", pki_.file("server.key")), "not an RSA private key"},
        {with("--sign-key", pki_.file("signer.crt")), "not a PEM private key"},
        {with("--sign-cert", pki_.file("signer.key")), "signing certificate is not"},
        {with("--sign-cert", pki_.file("update-ca.crt")), "does not hold the public key"},
        {with("--intermediate", dir_.file("payload.bin")), "intermediate certificate is not"},
        {with("--device-cert", pki_.file("device.key")), "device certificate is not"},
        {with("--block-size", "0"), "--block-size"},
        {with("--block-size", "2147483649"), "--block-size"},
        {with("--block-size", "12k"), "--block-size"},
        {with("--upi", "-1"), "--upi"},
        {twice, "given twice"},
        {with("--colour", "red"), "unknown option"},
    };
    for (const auto& [args, message] : cases) {
        CommandResult result = RunZelPack(args);
        EXPECT_EQ(2, result.code) << message << ": " << result.output;
        EXPECT_NE(std::string::npos, result.output.find(message)) << result.output;
    }
}

TEST_F(PackCommandTest, WarnsWhenTheDeviceWillRefuseTheSigner) {
    std::vector<std::string> args = with("--sign-key", pki_.file("ca.key"));
    std::replace(args.begin(), args.end(), pki_.file("signer.crt"), pki_.file("ca.crt"));
    CommandResult result = RunZelPack(args);
    EXPECT_EQ(0, result.code) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("\"Zel Test Root CA\" is not the device "
                                                    "certificate's instance \"zel.localhost\""))
        << result.output;
    EXPECT_NE(std::string::npos, result.output.find("the device will refuse"));
}

}  // namespace
