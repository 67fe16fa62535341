#pragma once

#include <string>

namespace Zel {
namespace Core {

class Sha256Util {
public:
    // SHA-256 of the bytes of `in` as 64 lowercase hex digits; false (logged,
    // `out` empty) on failure.
    static bool Hash(const std::string& in, std::string& out);
};

}  // namespace Core
}  // namespace Zel
