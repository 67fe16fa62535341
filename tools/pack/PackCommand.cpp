#include "tools/pack/PackCommand.h"

#include <cstdio>

#include "tools/pack/Certificates.h"
#include "tools/pack/FileIo.h"

namespace ZelPack {

namespace {

constexpr int kBadInput = 2;
constexpr uint64_t kTagSize = 16;

void Warn(const std::string& text) {
    std::fprintf(stderr, "zel-pack: warning: %s\n", text.c_str());
}

bool ReadInputs(const PackRequest& request, std::string& payload, Options& options) {
    struct Input {
        const char* what;
        const std::string& path;
        std::string& content;
    };
    const Input inputs[] = {
        {"payload", request.payloadFile, payload},
        {"signing key", request.signKeyFile, options.signKeyPem},
        {"signing certificate", request.signCertFile, options.signCertPem},
        {"intermediate certificate", request.intermediateFile, options.intermediateCertPem},
        {"device certificate", request.deviceCertFile, options.deviceCertPem},
    };
    for (const Input& input : inputs) {
        std::string error;
        if (!ReadWholeFile(input.path, input.content, error)) {
            std::fprintf(stderr, "zel-pack: %s: %s\n", input.what, error.c_str());
            return false;
        }
    }
    return true;
}

// What a device would refuse although the package is well made.
void WarnAboutDevice(const PackRequest& request, const Options& options, const Package& package,
                     uint64_t blocks) {
    X509Ptr device = ReadCertificate(options.deviceCertPem);
    X509Ptr signer = ReadCertificate(options.signCertPem);
    std::string deviceName = device ? CommonName(device.get()) : std::string();
    size_t dot = deviceName.find('.');
    std::string instance = dot == std::string::npos ? std::string() : deviceName.substr(dot + 1);
    std::string signerName = signer ? CommonName(signer.get()) : std::string();
    if (signerName != instance) {
        Warn("the signing certificate's CN \"" + signerName +
             "\" is not the device certificate's instance \"" + instance +
             "\": the device will refuse this update");
    }
    if (!options.opid.empty() && options.opid != deviceName.substr(0, dot)) {
        Warn("--opid \"" + options.opid + "\" is not the device certificate's operator id \"" +
             deviceName.substr(0, dot) + "\": the device will refuse this update");
    }
    if (options.audiences.empty()) {
        Warn("no --audience: no device software version will accept this update");
    }
    if (!request.localOut.empty() && !options.url.empty()) {
        Warn("a local payload file with --url is refused by the device; leave --url out for it");
    }
    if (request.localOut.empty() && options.url.empty()) {
        Warn("the token names no --url: a device fetching the network payload has nowhere to go");
    }
    // The device computes the offset of a block in 32 bits, past the token
    // in a local file.
    uint64_t lastStart = 4 + package.token.size() + (blocks - 1) * (options.blockSize + kTagSize);
    if (lastStart > UINT32_MAX) {
        Warn("the payload is too large for a device to address all of its blocks");
    }
}

bool WriteOutputs(const PackRequest& request, const Package& package) {
    struct Output {
        const char* what;
        const std::string& path;
        const std::string& content;
    };
    const Output outputs[] = {
        {"token", request.tokenOut, package.token},
        {"payload", request.payloadOut, package.encrypted},
        {"local", request.localOut, package.localFile},
    };
    for (const Output& output : outputs) {
        if (output.path.empty()) {
            continue;
        }
        std::string error;
        if (!WriteWholeFile(output.path, output.content, error)) {
            std::fprintf(stderr, "zel-pack: %s\n", error.c_str());
            return false;
        }
        std::printf("%-8s %s (%zu bytes)\n", (std::string(output.what) + ":").c_str(),
                    output.path.c_str(), output.content.size());
    }
    return true;
}

}  // namespace

int RunPack(const PackRequest& request) {
    std::string payload;
    Options options = request.options;
    if (!ReadInputs(request, payload, options)) {
        return kBadInput;
    }
    Package package;
    std::string error;
    if (!Pack(payload, options, package, error)) {
        std::fprintf(stderr, "zel-pack: cannot pack: %s\n", error.c_str());
        return kBadInput;
    }
    uint64_t blocks = (payload.size() - 1) / options.blockSize + 1;
    WarnAboutDevice(request, options, package, blocks);
    std::printf("version: %s\n", options.version.c_str());
    std::printf("size:    %zu bytes\n", payload.size());
    std::printf("blocks:  %llu of %u bytes\n", static_cast<unsigned long long>(blocks),
                options.blockSize);
    std::printf("sha256:  %s\n", package.hash.c_str());
    return WriteOutputs(request, package) ? 0 : 1;
}

}  // namespace ZelPack
