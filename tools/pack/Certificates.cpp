#include "tools/pack/Certificates.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>

namespace ZelPack {

namespace {

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;

BioPtr MemoryBio(const std::string& text) {
    return BioPtr(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

// Refuses every pass phrase request: a key that asks for one is encrypted.
int NoPassphrase(char*, int, int, void* asked) {
    *static_cast<bool*>(asked) = true;
    return -1;
}

}  // namespace

std::string OpenSslError() {
    unsigned long code = ERR_peek_last_error();
    std::string text;
    if (code != 0) {
        char buffer[256];
        ERR_error_string_n(code, buffer, sizeof(buffer));
        text = buffer;
    }
    ERR_clear_error();
    return text;
}

X509Ptr ReadCertificate(const std::string& pem) {
    BioPtr bio = MemoryBio(pem);
    X509Ptr cert(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    ERR_clear_error();
    return cert;
}

std::string CertificatePem(const X509* cert) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_X509(bio.get(), const_cast<X509*>(cert)) != 1) {
        ERR_clear_error();
        return std::string();
    }
    char* data = nullptr;
    long size = BIO_get_mem_data(bio.get(), &data);
    return size > 0 ? std::string(data, static_cast<size_t>(size)) : std::string();
}

PkeyPtr ReadRsaPrivateKey(const std::string& pem, std::string& error) {
    BioPtr bio = MemoryBio(pem);
    bool asked = false;
    PkeyPtr key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, NoPassphrase, &asked) : nullptr);
    if (!key) {
        std::string reason = OpenSslError();
        error = asked ? "it is encrypted; give it without a pass phrase"
                      : "it is not a PEM private key" + (reason.empty() ? "" : " (" + reason + ")");
        return nullptr;
    }
    if (!EVP_PKEY_is_a(key.get(), "RSA")) {
        error =
            std::string("it is not an RSA private key but ") + EVP_PKEY_get0_type_name(key.get());
        return nullptr;
    }
    return key;
}

std::string CommonName(const X509* cert) {
    const X509_NAME* subject = X509_get_subject_name(cert);
    int index = subject ? X509_NAME_get_index_by_NID(subject, NID_commonName, -1) : -1;
    if (index < 0) {
        return std::string();
    }
    const ASN1_STRING* data = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index));
    unsigned char* utf8 = nullptr;
    int length = data ? ASN1_STRING_to_UTF8(&utf8, data) : -1;
    if (length < 0) {
        ERR_clear_error();
        return std::string();
    }
    std::string name(reinterpret_cast<const char*>(utf8), static_cast<size_t>(length));
    OPENSSL_free(utf8);
    return name;
}

std::string DescribeCertificate(const std::string& pem) {
    X509Ptr cert = ReadCertificate(pem);
    if (!cert) {
        return "(not a certificate)";
    }
    std::string name = CommonName(cert.get());
    if (name.empty()) {
        return "(no CN)";
    }
    for (char& c : name) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            c = '?';
        }
    }
    return "CN=" + name;
}

}  // namespace ZelPack
