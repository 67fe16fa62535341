#include <openssl/rand.h>

#include "tools/pack/Pack.h"

namespace ZelPack {

namespace {

// Empty when the generator fails, which Pack refuses rather than ship a
// predictable key.
std::string RandomBytes(size_t count) {
    std::string bytes(count, '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char*>(&bytes[0]), static_cast<int>(count)) != 1) {
        return std::string();
    }
    return bytes;
}

}  // namespace

KeyBlock KeyBlock::Random() {
    KeyBlock keys;
    keys.key = RandomBytes(16);
    keys.aad = RandomBytes(16);
    keys.iv = RandomBytes(12);
    return keys;
}

std::string KeyBlock::bytes() const {
    return key + aad + iv;
}

}  // namespace ZelPack
