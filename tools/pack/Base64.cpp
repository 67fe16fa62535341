#include "tools/pack/Base64.h"

#include <openssl/evp.h>

#include <vector>

namespace ZelPack {

std::string Base64Encode(const std::string& bytes) {
    std::vector<unsigned char> out(4 * ((bytes.size() + 2) / 3) + 1);
    int written = EVP_EncodeBlock(out.data(), reinterpret_cast<const unsigned char*>(bytes.data()),
                                  static_cast<int>(bytes.size()));
    return std::string(reinterpret_cast<const char*>(out.data()), written > 0 ? written : 0);
}

namespace {

int Sextet(char c) {
    if (c >= 'A' && c <= 'Z') {
        return c - 'A';
    }
    if (c >= 'a' && c <= 'z') {
        return c - 'a' + 26;
    }
    if (c >= '0' && c <= '9') {
        return c - '0' + 52;
    }
    if (c == '+') {
        return 62;
    }
    if (c == '/') {
        return 63;
    }
    return -1;
}

}  // namespace

bool Base64Decode(const std::string& text, std::string& bytes) {
    bytes.clear();
    if (text.size() % 4 != 0) {
        return false;
    }
    size_t padding = 0;
    if (!text.empty() && text.back() == '=') {
        padding = text[text.size() - 2] == '=' ? 2 : 1;
    }
    bytes.reserve(text.size() / 4 * 3);
    unsigned accumulator = 0;
    int bits = 0;
    for (size_t i = 0; i < text.size() - padding; ++i) {
        int value = Sextet(text[i]);
        if (value < 0) {
            bytes.clear();
            return false;
        }
        accumulator = (accumulator << 6) | static_cast<unsigned>(value);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            bytes.push_back(static_cast<char>((accumulator >> bits) & 0xFF));
        }
    }
    // The bits the padding leaves over must be zero, or two texts would
    // decode to the same bytes.
    if ((accumulator & ((1u << bits) - 1)) != 0) {
        bytes.clear();
        return false;
    }
    return true;
}

}  // namespace ZelPack
