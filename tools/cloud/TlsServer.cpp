#include "tools/cloud/TlsServer.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>

#include "tools/cloud/SocketAddress.h"

namespace ZelCloud {

namespace {

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
struct X509Free {
    void operator()(X509* cert) const { X509_free(cert); }
};

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
    return text;
}

// Subject CN of a certificate; empty when there is none.
std::string NameOf(X509* cert) {
    X509_NAME* subject = X509_get_subject_name(cert);
    int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
    if (index < 0) {
        return std::string();
    }
    ASN1_STRING* data = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index));
    unsigned char* utf8 = nullptr;
    int length = ASN1_STRING_to_UTF8(&utf8, data);
    if (length < 0) {
        return std::string();
    }
    std::string name(reinterpret_cast<char*>(utf8), static_cast<size_t>(length));
    OPENSSL_free(utf8);
    return name;
}

// What the handler running on this thread is serving, and its header lines.
thread_local const httplib::Request* wireRequest = nullptr;
thread_local std::vector<std::string> wireHeaders;
thread_local uint64_t wireConnection = 0;
// The handler has refused a body it did not read: the connection ends with its answer.
thread_local bool closeAfterAnswer = false;
// Numbers the accepted connections, so that a test can tell which were reused.
std::atomic<uint64_t> connectionsAccepted{0};

bool Readable(int fd, int timeoutMs) {
    pollfd entry{fd, POLLIN, 0};
    return poll(&entry, 1, timeoutMs) > 0;
}

// A TLS connection as httplib reads and writes it, keeping what it reads
// until the end of the request head.
class WireStream : public httplib::Stream {
public:
    WireStream(int fd, SSL* ssl) : fd_(fd), ssl_(ssl) {}

    bool is_readable() const override { return SSL_pending(ssl_) > 0 || Readable(fd_, kTimeoutMs); }
    bool is_writable() const override {
        pollfd entry{fd_, POLLOUT, 0};
        return poll(&entry, 1, kTimeoutMs) > 0;
    }
    ssize_t read(char* ptr, size_t size) override {
        int got = is_readable() ? SSL_read(ssl_, ptr, static_cast<int>(size)) : 0;
        if (got <= 0) {
            return -1;
        }
        if (head_.find("\r\n\r\n") == std::string::npos) {
            head_.append(ptr, static_cast<size_t>(got));
        }
        return got;
    }
    ssize_t write(const char* ptr, size_t size) override {
        int put = is_writable() ? SSL_write(ssl_, ptr, static_cast<int>(size)) : 0;
        return put > 0 ? put : -1;
    }
    void get_remote_ip_and_port(std::string& ip, int& port) const override {
        SocketAddress(getpeername, fd_, ip, port);
    }
    void get_local_ip_and_port(std::string& ip, int& port) const override {
        SocketAddress(getsockname, fd_, ip, port);
    }
    socket_t socket() const override { return fd_; }

    // The header lines read so far, without the request line.
    std::vector<std::string> headers() const {
        std::vector<std::string> lines;
        size_t end = head_.find("\r\n\r\n");
        for (size_t at = head_.find("\r\n"); at < end;) {
            size_t next = head_.find("\r\n", at + 2);
            lines.push_back(head_.substr(at + 2, next - at - 2));
            at = next;
        }
        return lines;
    }

private:
    static constexpr int kTimeoutMs = 5000;

    int fd_;
    SSL* ssl_;
    std::string head_;
};

// httplib's TLS server, but each request is read through a WireStream, so
// that the order of its headers is not lost to httplib's sorted map.
class WireServer : public httplib::SSLServer {
public:
    using httplib::SSLServer::SSLServer;

    std::atomic<bool> clearRanges{false};

private:
    bool process_and_close_socket(socket_t sock) override {
        ERR_clear_error();
        SSL* ssl = SSL_new(ssl_context());
        bool served = false;
        if (ssl != nullptr && SSL_set_fd(ssl, sock) == 1 && SSL_accept(ssl) == 1) {
            uint64_t connection = ++connectionsAccepted;
            for (size_t left = keep_alive_max_count_; left > 0 && awaitRequest(sock, ssl); --left) {
                WireStream stream(sock, ssl);
                closeAfterAnswer = false;
                bool closed = false;
                served = process_request(stream, left == 1, closed, [&](httplib::Request& req) {
                    req.ssl = ssl;
                    if (clearRanges) {
                        req.ranges.clear();
                    }
                    wireRequest = &req;
                    wireHeaders = stream.headers();
                    wireConnection = connection;
                });
                wireRequest = nullptr;
                if (!served || closed || closeAfterAnswer) {
                    break;
                }
            }
            if (served) {
                SSL_shutdown(ssl);
            }
        }
        SSL_free(ssl);
        shutdown(sock, SHUT_RDWR);
        close(sock);
        return served;
    }

    // A kept-alive connection waits for its next request until the server stops.
    bool awaitRequest(int sock, SSL* ssl) const {
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(keep_alive_timeout_sec_);
        while (svr_sock_ != INVALID_SOCKET && std::chrono::steady_clock::now() < end) {
            if (SSL_pending(ssl) > 0 || Readable(sock, 50)) {
                return true;
            }
        }
        return false;
    }
};

}  // namespace

TlsServer::TlsServer() {
    // Settings that do not depend on any file; certificates come in start().
    server_ = std::make_unique<WireServer>([this](SSL_CTX& ctx) {
        SSL_CTX_set_min_proto_version(&ctx, TLS1_2_VERSION);
        SSL_CTX_set_options(&ctx, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION);
        SSL_CTX_set_tlsext_status_cb(&ctx, &TlsServer::StatusCallback);
        SSL_CTX_set_tlsext_status_arg(&ctx, this);
        return true;
    });
    thread_ = std::make_unique<ServerThread>(*server_);
}

TlsServer::~TlsServer() {
    stop();
}

bool TlsServer::fail(const std::string& reason) {
    error_ = reason;
    return false;
}

bool TlsServer::bind(int port, const std::string& host) {
    if (bound_) {
        return fail("already bound");
    }
    if (!server_->is_valid()) {
        return fail("cannot create the TLS context");
    }
    int bound = thread_->bind(host, port);
    if (bound < 0) {
        return fail(port == 0 ? "cannot bind to a free port on " + host
                              : "cannot bind to " + host + ":" + std::to_string(port));
    }
    port = bound;
    port_ = port;
    bound_ = true;
    return true;
}

bool TlsServer::loadCertificates(SSL_CTX* ctx, const Config& config) {
    if (SSL_CTX_use_certificate_file(ctx, config.certFile.c_str(), SSL_FILETYPE_PEM) != 1) {
        return fail("cannot load certificate " + config.certFile + ": " + OpenSslErrors());
    }
    if (SSL_CTX_use_PrivateKey_file(ctx, config.keyFile.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(ctx) != 1) {
        return fail("cannot load key " + config.keyFile + ": " + OpenSslErrors());
    }
    if (!config.chainFile.empty()) {
        // libcurl looks for the issuer of the stapled response's subject in
        // the chain the server sends, so the issuer goes with it.
        std::unique_ptr<BIO, BioFree> bio(BIO_new_file(config.chainFile.c_str(), "r"));
        if (!bio) {
            return fail("cannot open chain " + config.chainFile);
        }
        int count = 0;
        while (true) {
            std::unique_ptr<X509, X509Free> cert(
                PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
            if (!cert) {
                break;
            }
            if (SSL_CTX_add1_chain_cert(ctx, cert.get()) != 1) {
                return fail("cannot add chain certificate: " + OpenSslErrors());
            }
            ++count;
        }
        ERR_clear_error();  // the end of the file reads as "no start line"
        if (count == 0) {
            return fail("no certificate in chain " + config.chainFile);
        }
    }
    if (config.clientCaFile.empty()) {
        SSL_CTX_set_verify(ctx, SSL_VERIFY_NONE, nullptr);
    } else {
        if (SSL_CTX_load_verify_locations(ctx, config.clientCaFile.c_str(), nullptr) != 1) {
            return fail("cannot load client CA " + config.clientCaFile + ": " + OpenSslErrors());
        }
        STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(config.clientCaFile.c_str());
        if (names == nullptr) {
            return fail("no CA name in " + config.clientCaFile);
        }
        SSL_CTX_set_client_CA_list(ctx, names);
        SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    }
    if (config.ocspFile.empty()) {
        setOcspResponse(std::string());
    } else if (!loadOcspResponse(config.ocspFile)) {
        return fail("cannot read OCSP response " + config.ocspFile);
    }
    return true;
}

bool TlsServer::start(const Config& config) {
    if (thread_->running()) {
        return fail("already running");
    }
    if (!bound_ && !bind()) {
        return false;
    }
    if (!loadCertificates(server_->ssl_context(), config)) {
        return false;
    }
    thread_->start();
    return true;
}

void TlsServer::stop() {
    thread_->stop();
}

void TlsServer::leaveRangesToHandlers() {
    static_cast<WireServer&>(*server_).clearRanges = true;
}

void TlsServer::setOcspResponse(const std::string& der) {
    std::lock_guard<std::mutex> lock(mutex_);
    ocspResponse_ = der;
}

bool TlsServer::loadOcspResponse(const std::string& path) {
    std::string der;
    if (!ReadFile(path, der) || der.empty()) {
        return false;
    }
    setOcspResponse(der);
    return true;
}

int TlsServer::StatusCallback(SSL* ssl, void* arg) {
    auto* self = static_cast<TlsServer*>(arg);
    std::string der;
    {
        std::lock_guard<std::mutex> lock(self->mutex_);
        der = self->ocspResponse_;
    }
    if (der.empty()) {
        return SSL_TLSEXT_ERR_NOACK;
    }
    // OpenSSL takes ownership of the buffer.
    auto* buffer = static_cast<unsigned char*>(OPENSSL_malloc(der.size()));
    if (buffer == nullptr) {
        return SSL_TLSEXT_ERR_ALERT_FATAL;
    }
    memcpy(buffer, der.data(), der.size());
    if (SSL_set_tlsext_status_ocsp_resp(ssl, buffer, static_cast<long>(der.size())) != 1) {
        OPENSSL_free(buffer);
        return SSL_TLSEXT_ERR_ALERT_FATAL;
    }
    return SSL_TLSEXT_ERR_OK;
}

std::string TlsServer::ClientCommonName(const httplib::Request& request) {
    if (request.ssl == nullptr) {
        return std::string();
    }
    X509* cert = SSL_get0_peer_certificate(request.ssl);
    return cert == nullptr ? std::string() : NameOf(cert);
}

std::string TlsServer::CertificateCommonName(const std::string& pem) {
    std::unique_ptr<BIO, BioFree> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    if (!bio) {
        return std::string();
    }
    std::unique_ptr<X509, X509Free> cert(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    return cert ? NameOf(cert.get()) : std::string();
}

std::vector<std::string> TlsServer::WireHeaders(const httplib::Request& request) {
    return wireRequest == &request ? wireHeaders : std::vector<std::string>();
}

void TlsServer::CloseAfterAnswer() {
    closeAfterAnswer = true;
}

uint64_t TlsServer::ConnectionId(const httplib::Request& request) {
    return wireRequest == &request ? wireConnection : 0;
}

bool TlsServer::ReadFile(const std::string& path, std::string& content) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::ostringstream buffer;
    buffer << in.rdbuf();
    content = buffer.str();
    return true;
}

}  // namespace ZelCloud
