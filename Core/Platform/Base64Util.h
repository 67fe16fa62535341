#pragma once

#include <string>

namespace Zel {
namespace Core {

// Standard base64 (alphabet A-Z a-z 0-9 + /, "=" padding).
class Base64Util {
public:
    static std::string Encode(const std::string& in);
    // Line breaks and blanks in the input are skipped; any other character
    // outside the alphabet, or a truncated quantum, makes the decode fail.
    static bool Decode(const std::string& in, std::string& out);
};

}  // namespace Core
}  // namespace Zel
