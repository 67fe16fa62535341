#include "Core/Platform/X509Util.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <memory>

#include "Core/Platform/Logger.h"

namespace {
constexpr const char* kLogSource = "Platform/X509Util";

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
struct X509Free {
    void operator()(X509* cert) const { X509_free(cert); }
};
struct StoreFree {
    void operator()(X509_STORE* store) const { X509_STORE_free(store); }
};
struct StoreCtxFree {
    void operator()(X509_STORE_CTX* ctx) const { X509_STORE_CTX_free(ctx); }
};
struct InfoStackFree {
    void operator()(STACK_OF(X509_INFO) * infos) const {
        sk_X509_INFO_pop_free(infos, X509_INFO_free);
    }
};

using BioPtr = std::unique_ptr<BIO, BioFree>;
using X509Ptr = std::unique_ptr<X509, X509Free>;

// Logs the oldest queued OpenSSL error and empties the queue, so a stale entry
// cannot surface in a later, unrelated TLS call on this thread.
void logOpenSslError() {
    char text[256];
    ERR_error_string_n(ERR_get_error(), text, sizeof text);
    ERR_clear_error();
    ZEL_LOG(Zel::Core::ServiceCore, Zel::Core::CategoryState, Zel::Core::SeverityError, "ERROR: %s",
            text);
}

BioPtr memoryBio(const std::string& text) {
    return BioPtr(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

X509Ptr readCertificate(const std::string& pem) {
    BioPtr bio = memoryBio(pem);
    if (!bio) {
        return X509Ptr();
    }
    return X509Ptr(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
}
}  // namespace

namespace Zel {
namespace Core {

bool X509Util::GetCommonName(const std::string& certPem, std::string& cn) {
    X509Ptr cert = readCertificate(certPem);
    if (!cert) {
        logOpenSslError();
        return false;
    }
    X509_NAME* subject = X509_get_subject_name(cert.get());
    int index = subject ? X509_NAME_get_index_by_NID(subject, NID_commonName, -1) : -1;
    if (index < 0) {
        logOpenSslError();
        return false;
    }
    const ASN1_STRING* value = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index));
    if (value == nullptr) {
        logOpenSslError();
        return false;
    }
    cn.assign(reinterpret_cast<const char*>(ASN1_STRING_get0_data(value)),
              static_cast<size_t>(ASN1_STRING_length(value)));
    return true;
}

bool X509Util::VerifyChain(const std::string& certPem, const std::string& trustPem) {
    X509Ptr cert = readCertificate(certPem);
    if (!cert) {
        logOpenSslError();
        return false;
    }
    std::unique_ptr<X509_STORE, StoreFree> store(X509_STORE_new());
    BioPtr trustBio = memoryBio(trustPem);
    if (!store || !trustBio) {
        logOpenSslError();
        return false;
    }
    std::unique_ptr<STACK_OF(X509_INFO), InfoStackFree> infos(
        PEM_X509_INFO_read_bio(trustBio.get(), nullptr, nullptr, nullptr));
    if (!infos) {
        logOpenSslError();
        return false;
    }
    for (int i = 0; i < sk_X509_INFO_num(infos.get()); ++i) {
        X509_INFO* info = sk_X509_INFO_value(infos.get(), i);
        // The store takes its own reference.
        if (info->x509 != nullptr && X509_STORE_add_cert(store.get(), info->x509) != 1) {
            logOpenSslError();
            return false;
        }
    }
    std::unique_ptr<X509_STORE_CTX, StoreCtxFree> ctx(X509_STORE_CTX_new());
    if (!ctx || X509_STORE_CTX_init(ctx.get(), store.get(), cert.get(), nullptr) != 1) {
        logOpenSslError();
        return false;
    }
    if (X509_verify_cert(ctx.get()) != 1) {
        // The reason sits in the context rather than the error queue.
        ZEL_LOG(ServiceCore, CategoryState, SeverityError, "ERROR: %s",
                X509_verify_cert_error_string(X509_STORE_CTX_get_error(ctx.get())));
        ERR_clear_error();
        return false;
    }
    return true;
}

}  // namespace Core
}  // namespace Zel
