#pragma once

#include <string>
#include <vector>

namespace Zel {
namespace Core {

class HmacUtil {
public:
    // HMAC-SHA256 of `data` under `key`, base64-encoded into `out`; false
    // (logged, `out` empty) on failure.
    static bool GetHmacSha256(std::vector<unsigned char> key, const std::string& data,
                              std::string& out);
};

}  // namespace Core
}  // namespace Zel
