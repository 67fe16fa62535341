#pragma once

#include <string>

namespace Zel {
namespace Core {

class RsaUtil {
public:
    // RS512 (RSASSA-PKCS1-v1_5 with SHA-512): checks `sig` over `data` with the
    // RSA public key of the PEM certificate.
    static bool VerifyRS512(const std::string& certPem, const unsigned char* data, unsigned len,
                            const unsigned char* sig, unsigned sigLen);
    // RSA-OAEP decryption with a PEM private key; `second` is the key's pass
    // phrase, null for an unencrypted key. The plain text goes to `out`.
    static bool Decrypt(const char* keyPem, const char* second, const unsigned char* in,
                        unsigned len, std::string& out);
};

}  // namespace Core
}  // namespace Zel
