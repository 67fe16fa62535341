#include "SoftwareUpdate/Platform/MetadataToken.h"

#include <json/value.h>

#include <cstdarg>
#include <cstdio>

#include "Core/Platform/Base64Util.h"
#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"
#include "Core/Platform/RsaUtil.h"
#include "Core/Platform/StringUtil.h"
#include "Core/Platform/X509Util.h"
#include "SoftwareUpdate/Platform/PayloadManager.h"

namespace Zel {
namespace Su {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Platform/PayloadManager";
constexpr const char* kMetadataProblem = "metadata problem";

// Logs `detail` and records `reason` (the detail itself when null).
bool refuse(FailureRecord& failure, const char* reason, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
bool refuse(FailureRecord& failure, const char* reason, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string detail = StringUtil::Vform(format, args);
    va_end(args);
    ZEL_LOG(ServiceSu, CategoryFlow, SeverityError, "%s", detail.c_str());
    PayloadManager::SetFailure(failure.failure, failure.reason, failure.time, "%s",
                               reason != nullptr ? reason : detail.c_str());
    return false;
}

enum class Kind { Text, Texts, Count, Count64, Flag };

// The claims in the order they are checked.
struct Claim {
    const char* key;
    Kind kind;
};
constexpr Claim kClaims[] = {
    {"crt", Kind::Text}, {"int", Kind::Text},  {"key", Kind::Text},    {"hsh", Kind::Text},
    {"opd", Kind::Text}, {"aud", Kind::Texts}, {"blk", Kind::Count},   {"siz", Kind::Count64},
    {"url", Kind::Text}, {"aas", Kind::Flag},  {"man", Kind::Flag},    {"upn", Kind::Text},
    {"sub", Kind::Text}, {"upf", Kind::Text},  {"upi", Kind::Count64}, {"udt", Kind::Text},
};

bool hasKind(const Json::Value& value, Kind kind) {
    switch (kind) {
        case Kind::Text:
            return value.isString();
        case Kind::Texts:
            if (!value.isArray()) {
                return false;
            }
            for (const Json::Value& item : value) {
                if (!item.isString()) {
                    return false;
                }
            }
            return true;
        case Kind::Count:
            return value.isUInt();
        case Kind::Count64:
            return value.isUInt64();
        case Kind::Flag:
            return value.isBool();
    }
    return false;
}

std::string text(const Json::Value& claims, const char* key) {
    std::string value;
    JsonUtil::GetString(JsonUtil::Member(claims, key), value);
    return value;
}

bool splitToken(const std::string& token, std::string segments[3]) {
    size_t first = token.find('.');
    if (first == std::string::npos) {
        segments[0] = token;
        return false;
    }
    size_t second = token.find('.', first + 1);
    segments[0] = token.substr(0, first);
    segments[1] = token.substr(
        first + 1, second == std::string::npos ? std::string::npos : second - first - 1);
    if (second != std::string::npos) {
        segments[2] = token.substr(second + 1);
    }
    return true;
}
}  // namespace

bool MetadataToken::Peek(const std::string& token, std::string& version, std::string& hash) {
    std::string segments[3];
    std::string decoded;
    Json::Value claims;
    std::string why;
    if (!splitToken(token, segments) || !Base64Util::Decode(segments[1], decoded) ||
        !JsonUtil::ParseQuietly(decoded.data(), decoded.data() + decoded.size(), claims, why) ||
        !claims.isObject()) {
        return false;
    }
    version = text(claims, "upn");
    hash = text(claims, "hsh");
    return true;
}

bool MetadataToken::Verify(const std::string& token, bool local, const ProductKit& kit,
                           UpdateMetadata& m, FailureRecord& failure) {
    m.local = local;
    std::string segments[3];
    if (!splitToken(token, segments)) {
        return refuse(failure, kMetadataProblem, "metadata claims cannot be found");
    }
    std::string header;
    std::string claimsText;
    std::string signature;
    if (!Base64Util::Decode(segments[0], header)) {
        return refuse(failure, kMetadataProblem, "metadata header cannot be base64 decoded");
    }
    if (!Base64Util::Decode(segments[1], claimsText)) {
        return refuse(failure, kMetadataProblem, "metadata claims cannot be base64 decoded");
    }
    if (!Base64Util::Decode(segments[2], signature)) {
        return refuse(failure, kMetadataProblem, "metadata signature cannot be base64 decoded");
    }
    Json::Value headerJson;
    if (!JsonUtil::Parse(header, headerJson) || !headerJson.isObject()) {
        return refuse(failure, kMetadataProblem, "metadata header cannot be converted to json");
    }
    if (text(headerJson, "alg") != "RS512") {
        return refuse(failure, kMetadataProblem, "metadata header alg is not RS512");
    }
    ZEL_LOG(ServiceSu, CategoryFlow, SeverityInfo, "Claims - %s", claimsText.c_str());
    Json::Value claims;
    if (!JsonUtil::Parse(claimsText, claims) || !claims.isObject()) {
        return refuse(failure, kMetadataProblem, "metadata claims cannot be converted to json");
    }
    for (const Claim& claim : kClaims) {
        if (!claims.isMember(claim.key)) {
            return refuse(failure, kMetadataProblem, "metadata claims do not include %s",
                          claim.key);
        }
    }
    for (const Claim& claim : kClaims) {
        if (!hasKind(claims[claim.key], claim.kind)) {
            return refuse(failure, kMetadataProblem, "metadata claims %s has the wrong type",
                          claim.key);
        }
    }

    JsonUtil::GetBool(claims["man"], m.mandatory);
    JsonUtil::GetBool(claims["aas"], m.autoAnswer);
    JsonUtil::GetUInt32(claims["blk"], m.blockSize);
    JsonUtil::GetUInt64(claims["siz"], m.totalSize);
    m.version = text(claims, "upn");
    m.swVersions = JsonUtil::Compact(claims["aud"]);
    m.opid = text(claims, "opd");
    m.displayText = text(claims, "udt");
    m.url = text(claims, "url");
    m.signCert = text(claims, "crt");
    m.chainCert = text(claims, "int");
    m.hash = text(claims, "hsh");
    m.encryptedKey = text(claims, "key");

    if (local && !m.url.empty()) {
        return refuse(failure, "metadata problem - claims url must be empty for local updates",
                      "metadata claims url must be empty for local updates, was %s", m.url.c_str());
    }
    if (segments[2].empty()) {
        return refuse(failure, kMetadataProblem, "metadata signature cannot be found");
    }
    if (m.opid != kit.opid) {
        return refuse(failure, kMetadataProblem,
                      "metadata claims opd does not match product kit opid - %s vs. %s",
                      m.opid.c_str(), kit.opid.c_str());
    }
    std::string signedBytes = segments[0] + "." + segments[1];
    if (!RsaUtil::VerifyRS512(m.signCert,
                              reinterpret_cast<const unsigned char*>(signedBytes.data()),
                              static_cast<unsigned>(signedBytes.size()),
                              reinterpret_cast<const unsigned char*>(signature.data()),
                              static_cast<unsigned>(signature.size()))) {
        return refuse(failure, kMetadataProblem,
                      "metadata signature does not match header and claims");
    }
    bool listed = false;
    for (const Json::Value& version : claims["aud"]) {
        std::string listedVersion;
        listed = listed ||
                 (JsonUtil::GetString(version, listedVersion) && listedVersion == kit.swVersion);
    }
    if (!listed) {
        return refuse(failure, kMetadataProblem,
                      "metadata claims aud does not include device swVersion %s",
                      kit.swVersion.c_str());
    }
    ZEL_LOG(ServiceSu, CategoryFlow, SeverityInfo, "metadata claim sub value is %s",
            text(claims, "sub").c_str());
    ZEL_LOG(ServiceSu, CategoryFlow, SeverityInfo, "metadata claim upf value is %s",
            text(claims, "upf").c_str());
    uint64_t upi = 0;
    JsonUtil::GetUInt64(claims["upi"], upi);
    ZEL_LOG(ServiceSu, CategoryFlow, SeverityInfo, "metadata claim upi value is %llu",
            static_cast<unsigned long long>(upi));
    if (m.blockSize == 0) {
        return refuse(failure, kMetadataProblem, "metadata claims blk is zero");
    }
    if (kit.maxBlockSizeBytes != 0 && m.blockSize > kit.maxBlockSizeBytes) {
        char reason[128];
        snprintf(reason, sizeof reason,
                 "metadata problem - maximum configured block size exceeded, %u vs. %u",
                 m.blockSize, kit.maxBlockSizeBytes);
        return refuse(failure, reason,
                      "metadata claims maximum configured block size exceeded, %u vs. %u",
                      m.blockSize, kit.maxBlockSizeBytes);
    }
    if (m.totalSize == 0) {
        return refuse(failure, kMetadataProblem, "metadata claims siz is zero");
    }
    uint64_t blocks = (m.totalSize - 1) / m.blockSize + 1;
    if (blocks > UINT32_MAX) {
        return refuse(failure, kMetadataProblem, "metadata claims siz needs %llu blocks",
                      static_cast<unsigned long long>(blocks));
    }
    m.totalBlocks = static_cast<uint32_t>(blocks);
    std::string commonName;
    X509Util::GetCommonName(m.signCert, commonName);
    if (commonName != kit.domain) {
        return refuse(failure, kMetadataProblem,
                      "metadata claims crt does not match product kit domain - %s vs. %s",
                      commonName.c_str(), kit.domain.c_str());
    }
    std::string sealed;
    if (!Base64Util::Decode(m.encryptedKey, sealed)) {
        return refuse(failure, kMetadataProblem,
                      "metadata claims key value cannot be base64 decoded");
    }
    std::string keys;
    if (!RsaUtil::Decrypt(kit.keyPem.c_str(), kit.password.empty() ? nullptr : kit.password.c_str(),
                          reinterpret_cast<const unsigned char*>(sealed.data()),
                          static_cast<unsigned>(sealed.size()), keys)) {
        return refuse(failure, kMetadataProblem,
                      "metadata claims key cannot be decrypted using product kit");
    }
    if (keys.size() != UpdateMetadata::kKeyBlockBytes) {
        return refuse(failure, kMetadataProblem,
                      "metadata claims key has incorrect decrypted size %zu vs. %zu", keys.size(),
                      UpdateMetadata::kKeyBlockBytes);
    }
    m.contentKey = keys.substr(0, 16);
    m.blockAad = keys.substr(16, 16);
    m.blockIv = keys.substr(32, 12);
    return true;
}

}  // namespace Su
}  // namespace Zel
