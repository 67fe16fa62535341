#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Zel {
namespace Core {

// Bytes as lowercase hex digits, and back.
class HexUtil {
public:
    static std::string Encode(const unsigned char* bytes, size_t size);
    // False, with `bytes` left empty, for an empty or odd-length text or a
    // character that is not a hex digit (either case).
    static bool Decode(const std::string& text, std::vector<uint8_t>& bytes);
};

}  // namespace Core
}  // namespace Zel
