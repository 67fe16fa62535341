#include "tools/pack/TokenCheck.h"

#include "tools/pack/Base64.h"
#include "tools/pack/Certificates.h"

namespace ZelPack {

namespace {

enum class Kind { String, StringList, UInt32, UInt64, Bool };

struct ClaimRule {
    const char* name;
    Kind kind;
};

// Every claim a device requires, in the order it looks for them.
const ClaimRule kClaims[] = {
    {"crt", Kind::String}, {"int", Kind::String},     {"key", Kind::String}, {"hsh", Kind::String},
    {"opd", Kind::String}, {"aud", Kind::StringList}, {"blk", Kind::UInt32}, {"siz", Kind::UInt64},
    {"url", Kind::String}, {"aas", Kind::Bool},       {"man", Kind::Bool},   {"upn", Kind::String},
    {"sub", Kind::String}, {"upf", Kind::String},     {"upi", Kind::UInt64}, {"udt", Kind::String},
};

bool HasKind(const Json::Value& value, Kind kind) {
    switch (kind) {
        case Kind::String:
            return value.isString();
        case Kind::StringList:
            if (!value.isArray()) {
                return false;
            }
            for (const Json::Value& item : value) {
                if (!item.isString()) {
                    return false;
                }
            }
            return true;
        case Kind::UInt32:
            return value.isIntegral() && value.isUInt();
        case Kind::UInt64:
            return value.isIntegral() && value.isUInt64();
        case Kind::Bool:
            return value.isBool();
    }
    return false;
}

const char* KindName(Kind kind) {
    switch (kind) {
        case Kind::String:
            return "a string";
        case Kind::StringList:
            return "a list of strings";
        case Kind::UInt32:
            return "an unsigned 32-bit integer";
        case Kind::UInt64:
            return "an unsigned 64-bit integer";
        case Kind::Bool:
            return "true or false";
    }
    return "";
}

bool IsLowerHex(const std::string& text) {
    for (char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
            return false;
        }
    }
    return true;
}

// Checks of the values, for the claims that have the right type.
void CheckValues(const Json::Value& claims, std::vector<std::string>& problems) {
    for (const char* name : {"crt", "int"}) {
        const Json::Value& cert = claims[name];
        if (cert.isString() && !ReadCertificate(cert.asString())) {
            problems.push_back(std::string("claim \"") + name + "\" is not a PEM certificate");
        }
    }
    std::string sealed;
    const Json::Value& key = claims["key"];
    if (key.isString() && !Base64Decode(key.asString(), sealed)) {
        problems.push_back("claim \"key\" is not base64");
    }
    const Json::Value& hash = claims["hsh"];
    if (hash.isString() && (hash.asString().size() != 64 || !IsLowerHex(hash.asString()))) {
        problems.push_back("claim \"hsh\" is not 64 lower-case hex digits");
    }
    const Json::Value& blk = claims["blk"];
    if (HasKind(blk, Kind::UInt32) && blk.asUInt() == 0) {
        problems.push_back("claim \"blk\" is zero");
    }
    const Json::Value& siz = claims["siz"];
    if (HasKind(siz, Kind::UInt64) && siz.asUInt64() == 0) {
        problems.push_back("claim \"siz\" is zero");
    }
    const Json::Value& aud = claims["aud"];
    if (HasKind(aud, Kind::StringList) && aud.empty()) {
        problems.push_back("claim \"aud\" names no software version");
    }
}

}  // namespace

std::vector<std::string> TokenProblems(const Json::Value& header, const Json::Value& claims) {
    std::vector<std::string> problems;
    if (!header.isObject() || !claims.isObject()) {
        problems.push_back("header and claims must be JSON objects");
        return problems;
    }
    const Json::Value& alg = header["alg"];
    if (!alg.isString() || alg.asString() != "RS512") {
        problems.push_back("header \"alg\" is not \"RS512\"");
    }
    for (const ClaimRule& rule : kClaims) {
        if (!claims.isMember(rule.name)) {
            problems.push_back(std::string("claim \"") + rule.name + "\" is missing");
        } else if (!HasKind(claims[rule.name], rule.kind)) {
            problems.push_back(std::string("claim \"") + rule.name + "\" is not " +
                               KindName(rule.kind));
        }
    }
    CheckValues(claims, problems);
    return problems;
}

bool BlockCount(const Json::Value& claims, uint64_t& blocks) {
    if (!claims.isObject()) {
        return false;
    }
    const Json::Value& blk = claims["blk"];
    const Json::Value& siz = claims["siz"];
    if (!HasKind(blk, Kind::UInt32) || !HasKind(siz, Kind::UInt64) || blk.asUInt() == 0 ||
        siz.asUInt64() == 0) {
        return false;
    }
    blocks = (siz.asUInt64() - 1) / blk.asUInt() + 1;
    return true;
}

}  // namespace ZelPack
