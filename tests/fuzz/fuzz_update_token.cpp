// An update's metadata token, verified against a product kit: the
// signature stops a forged one, but every parse before it sees the input.
#include <cstddef>
#include <cstdint>
#include <string>

#include "SoftwareUpdate/Platform/MetadataToken.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Zel::Su;
    std::string token(reinterpret_cast<const char*>(data), size);
    ProductKit kit;
    kit.domain = "zel.localhost";
    kit.opid = "FFFFFF0ACC";
    kit.swVersion = "4.8.0";
    for (bool local : {false, true}) {
        UpdateMetadata metadata;
        FailureRecord failure;
        MetadataToken::Verify(token, local, kit, metadata, failure);
    }
    std::string version;
    std::string hash;
    MetadataToken::Peek(token, version, hash);
    return 0;
}
