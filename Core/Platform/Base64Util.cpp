#include "Core/Platform/Base64Util.h"

#include <openssl/evp.h>

#include <vector>

namespace Zel {
namespace Core {

std::string Base64Util::Encode(const std::string& in) {
    std::vector<unsigned char> out(4 * ((in.size() + 2) / 3) + 1);
    int written = EVP_EncodeBlock(out.data(), reinterpret_cast<const unsigned char*>(in.data()),
                                  static_cast<int>(in.size()));
    return std::string(reinterpret_cast<char*>(out.data()), written > 0 ? written : 0);
}

namespace {

int sextet(char c) {
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    if (c == '/')
        return 63;
    return -1;
}

}  // namespace

bool Base64Util::Decode(const std::string& in, std::string& out) {
    out.clear();
    out.reserve(in.size() / 4 * 3);
    unsigned accumulator = 0;
    int bits = 0;
    int symbols = 0;
    int padding = 0;
    for (char c : in) {
        if (c == '\n' || c == '\r' || c == ' ' || c == '\t') {
            continue;
        }
        if (c == '=') {
            ++padding;
            ++symbols;
            continue;
        }
        int value = sextet(c);
        if (value < 0 || padding > 0) {
            out.clear();
            return false;
        }
        ++symbols;
        accumulator = (accumulator << 6) | static_cast<unsigned>(value);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<char>((accumulator >> bits) & 0xFF));
        }
    }
    if (symbols % 4 != 0 || padding > 2) {
        out.clear();
        return false;
    }
    return true;
}

}  // namespace Core
}  // namespace Zel
