#pragma once

#include <curl/curl.h>
#include <openssl/ssl.h>

#include <string>
#include <vector>

#include "Core/Platform/OpenSsl.h"

namespace Zel {
namespace Core {

// The device's trust store, certificate chain and decrypted private key,
// read from their PEM texts once and handed to every new TLS connection:
// reading them per connection would re-run the key's pass-phrase derivation
// for each handshake.
class TlsCredentials {
public:
    TlsCredentials(const std::string& trustPem, const std::string& certPem,
                   const std::string& keyPem, const std::string& password);
    TlsCredentials(const TlsCredentials&) = delete;
    TlsCredentials& operator=(const TlsCredentials&) = delete;

    // Installs them into a new TLS context, trust first, then the certificate,
    // then the key; the first missing piece fails it with its reason logged.
    CURLcode install(SSL_CTX* ctx) const;

private:
    void readTrust(const std::string& pem);
    void readCertificates(const std::string& pem);
    void readKey(const std::string& pem, const std::string& password);

    X509StorePtr store_;
    std::string trustError_;
    X509Ptr certificate_;
    std::vector<X509Ptr> chain_;
    std::string certificateError_;
    PkeyPtr key_;
    std::string keyError_;
};

}  // namespace Core
}  // namespace Zel
