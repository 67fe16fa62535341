#pragma once

#include <memory>
#include <string>

#include "Core/Platform/TlsCredentials.h"

namespace Zel {
namespace Core {

// The device's client certificate, private key, trust chain and key pass phrase.
// Key, certificate and trust arrive base64-encoded in the identity document and
// are decoded once; the getters return the decoded PEM texts.
class ProductIdentity {
public:
    explicit ProductIdentity(const char* text);

    const std::string& getKey() const { return key_; }
    const std::string& getCert() const { return cert_; }
    const std::string& getTrust() const { return trust_; }
    const std::string& getPassword() const { return password_; }

    // False when a base64 field did not decode; the field is then empty and
    // every transfer that needs it fails with a logged reason.
    bool isValid() const { return valid_; }

    // The same identity read into OpenSSL's objects, once, for every TLS connection.
    const TlsCredentials& getTlsCredentials() const { return *credentials_; }

private:
    void setCustomValues();

    std::string encodedKey_;
    std::string encodedCert_;
    std::string encodedTrust_;
    std::string key_;
    std::string cert_;
    std::string trust_;
    std::string password_;
    bool valid_ = true;
    std::unique_ptr<TlsCredentials> credentials_;
};

}  // namespace Core
}  // namespace Zel
