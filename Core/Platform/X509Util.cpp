#include "Core/Platform/X509Util.h"

#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include "Core/Platform/Logger.h"
#include "Core/Platform/OpenSsl.h"

namespace {
constexpr const char* kLogSource = "Platform/X509Util";

void logOpenSslError() {
    std::string error = Zel::Core::OpenSslFirstError();
    ZEL_LOG(Zel::Core::ServiceCore, Zel::Core::CategoryState, Zel::Core::SeverityError, "ERROR: %s",
            error.c_str());
}
}  // namespace

namespace Zel {
namespace Core {

bool X509Util::GetCommonName(const std::string& certPem, std::string& cn) {
    X509Ptr cert = ReadCertificate(certPem);
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
    X509Ptr cert = ReadCertificate(certPem);
    if (!cert) {
        logOpenSslError();
        return false;
    }
    X509StorePtr store(X509_STORE_new());
    X509InfoStackPtr infos = ReadCertificates(trustPem);
    if (!store || !infos || AddCertificates(store.get(), infos.get()) < 0) {
        logOpenSslError();
        return false;
    }
    X509StoreCtxPtr ctx(X509_STORE_CTX_new());
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
