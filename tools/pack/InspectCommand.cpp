#include "tools/pack/InspectCommand.h"

#include <json/writer.h>

#include <cstdio>

#include "tools/pack/Base64.h"
#include "tools/pack/Certificates.h"
#include "tools/pack/FileIo.h"
#include "tools/pack/Inspector.h"
#include "tools/pack/Pack.h"
#include "tools/pack/TokenCheck.h"

namespace ZelPack {

namespace {

constexpr uint64_t kTagSize = 16;

// Values as JSON with everything outside printable ASCII escaped, so that a
// hostile claim cannot drive the terminal.
std::string Printable(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = false;
    std::string text = Json::writeString(builder, value);
    for (char& c : text) {
        if (c == 0x7f) {
            c = '?';
        }
    }
    return text;
}

// Claim names as they are when plain, quoted and escaped otherwise.
std::string ClaimName(const std::string& name) {
    for (char c : name) {
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '_')) {
            return Printable(Json::Value(name));
        }
    }
    return name.empty() ? "\"\"" : name;
}

std::string ShowClaim(const std::string& name, const Json::Value& value) {
    if ((name == "crt" || name == "int") && value.isString()) {
        return DescribeCertificate(value.asString());
    }
    std::string sealed;
    if (name == "key" && value.isString() && Base64Decode(value.asString(), sealed)) {
        return std::to_string(sealed.size()) + " sealed bytes";
    }
    return Printable(value);
}

void PrintInspection(const Inspection& inspection, bool localFile) {
    std::printf("kind:      %s\n", localFile ? "local payload file" : "token");
    std::printf("header:    %s\n", Printable(inspection.header).c_str());
    std::printf("claims:\n");
    for (const std::string& name : inspection.claims.getMemberNames()) {
        std::printf("  %-7s %s\n", (ClaimName(name) + ":").c_str(),
                    ShowClaim(name, inspection.claims[name]).c_str());
    }
}

}  // namespace

int RunInspect(const std::string& path) {
    std::string content, error;
    if (!ReadWholeFile(path, content, error)) {
        std::fprintf(stderr, "zel-pack: %s\n", error.c_str());
        return 1;
    }
    Inspection inspection;
    if (!Inspect(content, inspection, error)) {
        std::fprintf(stderr, "zel-pack: %s cannot be read: %s\n", path.c_str(), error.c_str());
        return 1;
    }
    bool localFile = IsLocalPayloadFile(content);
    PrintInspection(inspection, localFile);

    std::vector<std::string> problems = TokenProblems(inspection.header, inspection.claims);
    uint64_t blocks = 0;
    if (BlockCount(inspection.claims, blocks)) {
        std::printf("blocks:    %llu\n", static_cast<unsigned long long>(blocks));
        uint64_t expected = inspection.claims["siz"].asUInt64() + blocks * kTagSize;
        if (localFile) {
            std::printf("encrypted: %llu bytes\n",
                        static_cast<unsigned long long>(inspection.encryptedBytes));
            if (inspection.encryptedBytes != expected) {
                problems.push_back("the file holds " + std::to_string(inspection.encryptedBytes) +
                                   " encrypted bytes, the claims make " + std::to_string(expected));
            }
        }
    } else {
        std::printf("blocks:    unknown\n");
    }
    for (const std::string& problem : problems) {
        std::printf("problem:   %s\n", problem.c_str());
    }
    std::printf("signature: %s\n", inspection.signatureValid ? "valid" : "INVALID");
    return inspection.signatureValid && problems.empty() ? 0 : 1;
}

}  // namespace ZelPack
