#include "Core/Platform/TlsCredentials.h"

#include <openssl/err.h>

#include <cstring>

#include "Core/Platform/Logger.h"

namespace Zel {
namespace Core {

namespace {
constexpr const char* kLogSource = "Platform/Http";

int passphrase(char* buffer, int size, int /*rwflag*/, void* data) {
    const std::string& password = *static_cast<const std::string*>(data);
    if (size < 0 || password.size() > static_cast<size_t>(size)) {
        return -1;
    }
    std::memcpy(buffer, password.data(), password.size());
    return static_cast<int>(password.size());
}
}  // namespace

TlsCredentials::TlsCredentials(const std::string& trustPem, const std::string& certPem,
                               const std::string& keyPem, const std::string& password) {
    ERR_clear_error();
    readTrust(trustPem);
    readCertificates(certPem);
    readKey(keyPem, password);
    ERR_clear_error();
}

void TlsCredentials::readTrust(const std::string& pem) {
    X509InfoStackPtr infos = ReadCertificates(pem);
    X509StorePtr store(X509_STORE_new());
    if (!infos || !store) {
        trustError_ = "Cannot read the trust chain: " + OpenSslErrors();
        return;
    }
    int added = AddCertificates(store.get(), infos.get());
    if (added < 0) {
        trustError_ = "Cannot add a trusted certificate: " + OpenSslErrors();
    } else if (added == 0) {
        ERR_clear_error();
        trustError_ = "No certificate in the trust chain";
    } else {
        store_ = std::move(store);
    }
}

void TlsCredentials::readCertificates(const std::string& pem) {
    X509InfoStackPtr infos = ReadCertificates(pem);
    for (int i = 0; infos && i < sk_X509_INFO_num(infos.get()); ++i) {
        X509* cert = sk_X509_INFO_value(infos.get(), i)->x509;
        if (cert == nullptr || X509_up_ref(cert) != 1) {
            continue;
        }
        // The first is the device's own; intermediates follow it.
        X509Ptr owned(cert);
        if (!certificate_) {
            certificate_ = std::move(owned);
        } else {
            chain_.push_back(std::move(owned));
        }
    }
    if (!certificate_) {
        certificateError_ = "Cannot read the client certificate: " + OpenSslErrors();
    }
}

void TlsCredentials::readKey(const std::string& pem, const std::string& password) {
    key_ = ReadPrivateKey(pem, passphrase, const_cast<std::string*>(&password));
    if (!key_) {
        keyError_ = "Cannot read the private key: " + OpenSslErrors();
    }
}

CURLcode TlsCredentials::install(SSL_CTX* ctx) const {
    if (!store_) {
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError, "%s", trustError_.c_str());
        return CURLE_SSL_CACERT_BADFILE;
    }
    // Shared by reference: only the identity's trust counts.
    SSL_CTX_set1_cert_store(ctx, store_.get());
    if (!certificate_) {
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError, "%s", certificateError_.c_str());
        return CURLE_SSL_CERTPROBLEM;
    }
    ERR_clear_error();
    for (const X509Ptr& cert : chain_) {
        // The context owns what it is given; it gets a reference of its own.
        if (X509_up_ref(cert.get()) != 1) {
            return CURLE_SSL_CERTPROBLEM;
        }
        if (SSL_CTX_add_extra_chain_cert(ctx, cert.get()) != 1) {
            X509_free(cert.get());
            ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError,
                    "Cannot add a chain certificate: %s", OpenSslErrors().c_str());
            return CURLE_SSL_CERTPROBLEM;
        }
    }
    if (SSL_CTX_use_certificate(ctx, certificate_.get()) != 1) {
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError,
                "Cannot use the client certificate: %s", OpenSslErrors().c_str());
        return CURLE_SSL_CERTPROBLEM;
    }
    if (!key_) {
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError, "%s", keyError_.c_str());
        return CURLE_SSL_CERTPROBLEM;
    }
    if (SSL_CTX_use_PrivateKey(ctx, key_.get()) != 1) {
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError, "Cannot use the private key: %s",
                OpenSslErrors().c_str());
        return CURLE_SSL_CERTPROBLEM;
    }
    return CURLE_OK;
}

}  // namespace Core
}  // namespace Zel
