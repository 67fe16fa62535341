// Base64 decoding of the identity's fields, and the round trips that must hold.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Core/Platform/Base64Util.h"

using Zel::Core::Base64Util;

namespace {

void check(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "base64 property broken: %s\n", what);
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string input(reinterpret_cast<const char*>(data), size);

    // Any bytes survive encoding and decoding unchanged.
    std::string decoded;
    std::string encoded = Base64Util::Encode(input);
    check(encoded.size() == (size + 2) / 3 * 4, "encoded length");
    check(Base64Util::Decode(encoded, decoded) && decoded == input, "decode(encode(x)) == x");

    // The input as base64: whatever decodes re-encodes to the same text less
    // its blanks, except for the unused low bits of the last symbol.
    if (!Base64Util::Decode(input, decoded)) {
        return 0;
    }
    std::string canonical = Base64Util::Encode(decoded);
    std::string again;
    check(Base64Util::Decode(canonical, again) && again == decoded,
          "decode(encode(decode(x))) == decode(x)");
    std::string stripped;
    for (char c : input) {
        if (c != '\n' && c != '\r' && c != ' ' && c != '\t') {
            stripped += c;
        }
    }
    check(canonical.size() == stripped.size(), "canonical length");
    size_t last = stripped.find_last_not_of('=');
    if (last != std::string::npos) {
        check(canonical.compare(0, last, stripped, 0, last) == 0, "canonical symbols");
    }
    return 0;
}
