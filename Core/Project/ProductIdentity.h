#pragma once

#include <string>

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
};

}  // namespace Core
}  // namespace Zel
