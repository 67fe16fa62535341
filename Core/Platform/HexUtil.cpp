#include "Core/Platform/HexUtil.h"

namespace Zel {
namespace Core {

namespace {
int digitValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}
}  // namespace

std::string HexUtil::Encode(const unsigned char* bytes, size_t size) {
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(size * 2);
    for (size_t i = 0; i < size; ++i) {
        hex.push_back(kDigits[bytes[i] >> 4]);
        hex.push_back(kDigits[bytes[i] & 0x0f]);
    }
    return hex;
}

bool HexUtil::Decode(const std::string& text, std::vector<uint8_t>& bytes) {
    bytes.clear();
    if (text.empty() || text.size() % 2 != 0) {
        return false;
    }
    bytes.reserve(text.size() / 2);
    for (size_t i = 0; i < text.size(); i += 2) {
        int high = digitValue(text[i]);
        int low = digitValue(text[i + 1]);
        if (high < 0 || low < 0) {
            bytes.clear();
            return false;
        }
        bytes.push_back(static_cast<uint8_t>(high * 16 + low));
    }
    return true;
}

}  // namespace Core
}  // namespace Zel
