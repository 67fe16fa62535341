#include "Core/Platform/OpenSsl.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>

namespace Zel {
namespace Core {

namespace {
// Read-only: `text` must outlive the BIO.
BioPtr MemoryBio(std::string_view text) {
    return BioPtr(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}
}  // namespace

void FreeX509InfoStack(STACK_OF(X509_INFO) * infos) {
    sk_X509_INFO_pop_free(infos, X509_INFO_free);
}

std::string OpenSslErrors() {
    std::string text;
    unsigned long code;
    while ((code = ERR_get_error()) != 0) {
        char buffer[256];
        ERR_error_string_n(code, buffer, sizeof(buffer));
        if (!text.empty()) {
            text += "; ";
        }
        text += buffer;
    }
    return text.empty() ? std::string("no detail") : text;
}

std::string OpenSslFirstError() {
    char text[256];
    ERR_error_string_n(ERR_get_error(), text, sizeof text);
    ERR_clear_error();
    return text;
}

void KeepOpenSslPastExit() {
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
}

X509Ptr ReadCertificate(std::string_view pem) {
    BioPtr bio = MemoryBio(pem);
    if (!bio) {
        return X509Ptr();
    }
    return X509Ptr(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
}

X509InfoStackPtr ReadCertificates(std::string_view pem) {
    BioPtr bio = MemoryBio(pem);
    if (!bio) {
        return X509InfoStackPtr();
    }
    return X509InfoStackPtr(PEM_X509_INFO_read_bio(bio.get(), nullptr, nullptr, nullptr));
}

PkeyPtr ReadPrivateKey(std::string_view pem, pem_password_cb* callback, void* userdata) {
    BioPtr bio = MemoryBio(pem);
    if (!bio) {
        return PkeyPtr();
    }
    return PkeyPtr(PEM_read_bio_PrivateKey(bio.get(), nullptr, callback, userdata));
}

int AddCertificates(X509_STORE* store, STACK_OF(X509_INFO) * infos) {
    int added = 0;
    for (int i = 0; i < sk_X509_INFO_num(infos); ++i) {
        X509_INFO* info = sk_X509_INFO_value(infos, i);
        if (info->x509 == nullptr) {
            continue;
        }
        if (X509_STORE_add_cert(store, info->x509) != 1) {
            return -1;
        }
        ++added;
    }
    return added;
}

}  // namespace Core
}  // namespace Zel
