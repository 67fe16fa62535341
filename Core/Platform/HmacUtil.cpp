#include "Core/Platform/HmacUtil.h"

#include <openssl/evp.h>

#include "Core/Platform/Logger.h"
#include "Core/Platform/OpenSsl.h"

namespace {
constexpr const char* kLogSource = "Platform/HmacUtil";
}  // namespace

namespace Zel {
namespace Core {

bool HmacUtil::GetHmacSha256(std::vector<unsigned char> key, const std::string& data,
                             std::string& out) {
    out.clear();
    // An empty key is a valid HMAC key, but the MAC refuses a null pointer for it.
    static const unsigned char kNoKey = 0;
    const unsigned char* keyBytes = key.empty() ? &kNoKey : key.data();
    unsigned char mac[EVP_MAX_MD_SIZE];
    size_t macLen = 0;
    if (EVP_Q_mac(nullptr, "HMAC", nullptr, "SHA256", nullptr, keyBytes, key.size(),
                  reinterpret_cast<const unsigned char*>(data.data()), data.size(), mac, sizeof mac,
                  &macLen) == nullptr) {
        std::string error = OpenSslFirstError();
        ZEL_LOG(ServiceCore, CategoryState, SeverityError, "ERROR: %s", error.c_str());
        return false;
    }
    unsigned char encoded[4 * ((EVP_MAX_MD_SIZE + 2) / 3) + 1];
    int encodedLen = EVP_EncodeBlock(encoded, mac, static_cast<int>(macLen));
    out.assign(reinterpret_cast<const char*>(encoded), static_cast<size_t>(encodedLen));
    return true;
}

}  // namespace Core
}  // namespace Zel
