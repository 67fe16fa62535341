#include "tools/cloud/UpdatePublisher.h"

#include <fstream>
#include <memory>
#include <random>

#include "tools/cloud/TlsServer.h"
#include "tools/pack/Pack.h"

namespace ZelCloud {

namespace {

// An absent member keeps the default; one of the wrong type is refused.
bool OptionalString(const Json::Value& fields, const char* key, std::string& value,
                    std::string& error) {
    const Json::Value& member = fields[key];
    if (member.isNull()) {
        return true;
    }
    if (!member.isString()) {
        error = std::string("\"") + key + "\" must be a string";
        return false;
    }
    value = member.asString();
    return true;
}

bool OptionalBool(const Json::Value& fields, const char* key, bool& value, std::string& error) {
    const Json::Value& member = fields[key];
    if (member.isNull()) {
        return true;
    }
    if (!member.isBool()) {
        error = std::string("\"") + key + "\" must be a boolean";
        return false;
    }
    value = member.asBool();
    return true;
}

bool OptionalUInt64(const Json::Value& fields, const char* key, uint64_t& value,
                    std::string& error) {
    const Json::Value& member = fields[key];
    if (member.isNull()) {
        return true;
    }
    if (!member.isUInt64()) {
        error = std::string("\"") + key + "\" must be a non-negative integer";
        return false;
    }
    value = member.asUInt64();
    return true;
}

bool ReadPayloadFile(const std::string& path, std::string& payload, std::string& error) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) {
        error = "cannot read the payload file " + path;
        return false;
    }
    std::streamoff size = in.tellg();
    if (size <= 0 || static_cast<uint64_t>(size) > UpdateSpec::kMaxSize) {
        error = "the payload file " + path + " must hold 1 to " +
                std::to_string(UpdateSpec::kMaxSize) + " bytes";
        return false;
    }
    payload.resize(static_cast<size_t>(size));
    in.seekg(0);
    if (!in.read(&payload[0], size)) {
        error = "cannot read the payload file " + path;
        return false;
    }
    return true;
}

}  // namespace

bool UpdateSpec::FromJson(const Json::Value& fields, UpdateSpec& spec, std::string& error) {
    spec = UpdateSpec();
    if (!fields.isObject()) {
        error = "an update must be a JSON object";
        return false;
    }
    if (!fields["version"].isString() || fields["version"].asString().empty()) {
        error = "an update needs a non-empty \"version\"";
        return false;
    }
    spec.version = fields["version"].asString();
    uint64_t blockSize = spec.blockSize;
    std::string payloadFile;
    if (!OptionalString(fields, "device", spec.device, error) ||
        !OptionalString(fields, "displayText", spec.displayText, error) ||
        !OptionalString(fields, "payloadFile", payloadFile, error) ||
        !OptionalUInt64(fields, "sizeBytes", spec.sizeBytes, error) ||
        !OptionalUInt64(fields, "seed", spec.seed, error) ||
        !OptionalUInt64(fields, "blockSize", blockSize, error) ||
        !OptionalBool(fields, "mandatory", spec.mandatory, error) ||
        !OptionalBool(fields, "autoAnswer", spec.autoAnswer, error) ||
        !OptionalBool(fields, "offer", spec.offer, error) ||
        !OptionalBool(fields, "secure", spec.secure, error)) {
        return false;
    }
    if (blockSize == 0 || blockSize > UINT32_MAX) {
        error = "\"blockSize\" must be between 1 and " + std::to_string(UINT32_MAX);
        return false;
    }
    spec.blockSize = static_cast<uint32_t>(blockSize);
    const Json::Value& audiences = fields["audiences"];
    if (!audiences.isNull()) {
        if (!audiences.isArray()) {
            error = "\"audiences\" must be an array of strings";
            return false;
        }
        spec.audiences.clear();
        for (const Json::Value& audience : audiences) {
            if (!audience.isString()) {
                error = "\"audiences\" must be an array of strings";
                return false;
            }
            spec.audiences.push_back(audience.asString());
        }
    }
    if (fields.isMember("sizeBytes") && fields.isMember("payloadFile")) {
        error = "give \"sizeBytes\" or \"payloadFile\", not both";
        return false;
    }
    if (fields.isMember("payloadFile")) {
        if (!ReadPayloadFile(payloadFile, spec.payload, error)) {
            return false;
        }
    } else if (!fields.isMember("sizeBytes")) {
        spec.sizeBytes = kDefaultSize;
    }
    return spec.check(error);
}

bool UpdateSpec::check(std::string& error) const {
    uint64_t size = payload.empty() ? sizeBytes : payload.size();
    if (size == 0 || size > kMaxSize) {
        error = "an update's payload must hold 1 to " + std::to_string(kMaxSize) + " bytes";
        return false;
    }
    if (blockSize == 0) {
        error = "the block size must not be zero";
        return false;
    }
    if ((size - 1) / blockSize + 1 > kMaxBlocks) {
        error = "more than " + std::to_string(kMaxBlocks) + " blocks: choose a larger block size";
        return false;
    }
    if (version.empty()) {
        error = "an update needs a version";
        return false;
    }
    return true;
}

bool UpdateKeys::Load(const std::string& pkiDir, UpdateKeys& keys, std::string& error) {
    const std::pair<const char*, std::string*> files[] = {
        {"signer.key", &keys.signKeyPem},
        {"signer.crt", &keys.signCertPem},
        {"update-ca.crt", &keys.intermediatePem},
        {"device.crt", &keys.deviceCertPem},
    };
    for (const auto& file : files) {
        std::string path = pkiDir + "/" + file.first;
        if (!TlsServer::ReadFile(path, *file.second) || file.second->empty()) {
            error = "cannot read " + path +
                    ": updates need a PKI with the update signing files (make-pki.sh)";
            return false;
        }
    }
    keys.deviceCn = TlsServer::CertificateCommonName(keys.deviceCertPem);
    if (keys.deviceCn.empty()) {
        error = "no common name in " + pkiDir + "/device.crt";
        return false;
    }
    return true;
}

std::string GeneratePayload(uint64_t size, uint64_t seed) {
    std::mt19937_64 random(seed);
    std::string bytes;
    bytes.reserve(static_cast<size_t>(size));
    while (bytes.size() < size) {
        uint64_t number = random();
        for (int i = 0; i < 8 && bytes.size() < size; ++i) {
            bytes += static_cast<char>((number >> (8 * i)) & 0xff);
        }
    }
    return bytes;
}

bool PackUpdate(const UpdateSpec& spec, const UpdateKeys& keys, const std::string& id,
                const std::string& url, Update& update, PublishedUpdate& published,
                std::string& error) {
    if (!spec.check(error)) {
        return false;
    }
    uint64_t size = spec.payload.empty() ? spec.sizeBytes : spec.payload.size();
    uint64_t blocks = (size - 1) / spec.blockSize + 1;
    std::string generated;
    if (spec.payload.empty()) {
        generated = GeneratePayload(size, spec.seed);
    }
    const std::string& plaintext = spec.payload.empty() ? generated : spec.payload;

    ZelPack::Options options;
    options.blockSize = spec.blockSize;
    options.version = spec.version;
    options.displayText = spec.displayText;
    options.audiences = spec.audiences;
    options.url = url;
    options.mandatory = spec.mandatory;
    options.autoAnswer = spec.autoAnswer;
    options.sub = spec.device.empty() ? keys.deviceCn : spec.device;
    options.upf = "zel-cloud";
    options.upi = std::stoull(id.substr(1));
    options.signKeyPem = keys.signKeyPem;
    options.signCertPem = keys.signCertPem;
    options.intermediateCertPem = keys.intermediatePem;
    options.deviceCertPem = keys.deviceCertPem;
    ZelPack::Package package;
    if (!ZelPack::Pack(plaintext, options, package, error)) {
        return false;
    }
    // The local payload file carries the same claims signed again without the url.
    ZelPack::Inspection inspection;
    if (!ZelPack::Inspect(package.token, inspection, error)) {
        return false;
    }
    Json::Value claims = inspection.claims;
    claims["url"] = "";
    std::string localToken;
    if (!ZelPack::SignToken(inspection.header, claims, keys.signKeyPem, localToken, error)) {
        return false;
    }

    update = Update();
    update.id = id;
    update.time = std::chrono::system_clock::now();
    update.device = options.sub;
    update.version = spec.version;
    update.audiences = spec.audiences;
    update.displayText = spec.displayText;
    update.mandatory = spec.mandatory;
    update.autoAnswer = spec.autoAnswer;
    update.offered = spec.offer;
    update.secure = spec.secure;
    update.blockSize = spec.blockSize;
    update.size = size;
    update.blocks = static_cast<uint32_t>(blocks);
    update.hash = package.hash;
    update.url = url;
    update.token = package.token;
    update.encrypted = std::make_shared<const std::string>(std::move(package.encrypted));

    published = PublishedUpdate();
    published.id = id;
    published.device = update.device;
    published.url = url;
    published.token = update.token;
    published.hash = update.hash;
    published.size = size;
    published.blocks = update.blocks;
    published.localFile = ZelPack::LocalFile(localToken, *update.encrypted);
    return true;
}

}  // namespace ZelCloud
