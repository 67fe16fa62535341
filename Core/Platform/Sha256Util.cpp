#include "Core/Platform/Sha256Util.h"

#include <openssl/evp.h>

#include "Core/Platform/HexUtil.h"
#include "Core/Platform/Logger.h"
#include "Core/Platform/OpenSsl.h"

namespace {
constexpr const char* kLogSource = "Platform/Sha256Util";
}  // namespace

namespace Zel {
namespace Core {

bool Sha256Util::Hash(const std::string& in, std::string& out) {
    out.clear();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned digestLen = 0;
    if (EVP_Digest(in.data(), in.size(), digest, &digestLen, EVP_sha256(), nullptr) != 1) {
        std::string error = OpenSslFirstError();
        ZEL_LOG(ServiceCore, CategoryState, SeverityError, "ERROR: %s", error.c_str());
        return false;
    }
    out = HexUtil::Encode(digest, digestLen);
    return true;
}

}  // namespace Core
}  // namespace Zel
