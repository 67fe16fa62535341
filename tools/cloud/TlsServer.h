#pragma once

#include <httplib.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tools/cloud/ServerThread.h"

namespace ZelCloud {

// An HTTPS server on loopback with the TLS profile the agent expects of its
// cloud: a server certificate sent with its issuer, client certificates
// required and verified, and a stapled OCSP response.
//
// Typical use: register handlers on http(), then start(). When the port must
// be known before the certificates exist (it is part of the device's
// certificate), call bind() first, make the certificates, then start().
// Handlers run on the server's worker threads; register them before start().
// An object serves once: after stop() make a new one.
class TlsServer {
public:
    struct Config {
        std::string certFile;      // server certificate, PEM
        std::string keyFile;       // its private key, PEM, unencrypted
        std::string chainFile;     // certificates sent after the server's (its issuer), PEM
        std::string clientCaFile;  // CA that client certificates must chain to; empty: none asked
        std::string ocspFile;      // DER OCSP response to staple; empty: staple nothing
    };

    TlsServer();
    ~TlsServer();
    TlsServer(const TlsServer&) = delete;
    TlsServer& operator=(const TlsServer&) = delete;

    // Opens the listening socket on `port`, or on a free one when 0.
    bool bind(int port = 0, const std::string& host = "127.0.0.1");
    // Loads the certificates and serves on a thread of its own; binds to a free
    // port on 127.0.0.1 first when bind() was not called.
    bool start(const Config& config);
    // Stops accepting, waits for running handlers and joins the thread. Idempotent.
    void stop();

    int port() const { return port_; }
    bool running() const { return thread_->running(); }
    // Why bind() or start() failed.
    const std::string& error() const { return error_; }

    httplib::Server& http() { return *server_; }
    // Requests reach the handlers without httplib's parsed ranges, so that a
    // handler answering Range itself is not cut again (the payload server).
    void leaveRangesToHandlers();

    // The response stapled from now on; empty staples nothing.
    void setOcspResponse(const std::string& der);
    bool loadOcspResponse(const std::string& path);

    // Subject CN of the verified client certificate; empty without one.
    static std::string ClientCommonName(const httplib::Request& request);
    // The header lines of the request a handler is serving, as they came over
    // the wire: in order, "Name: value" each.
    static std::vector<std::string> WireHeaders(const httplib::Request& request);
    // Which connection the request came over: accepted connections are
    // numbered from 1; 0 outside a handler.
    static uint64_t ConnectionId(const httplib::Request& request);
    // For a handler that answers without reading the whole body: the
    // connection closes after the answer instead of reading the rest of the
    // body as the next request.
    static void CloseAfterAnswer();

    // Subject CN of a PEM certificate; empty when there is none.
    static std::string CertificateCommonName(const std::string& pem);

    static bool ReadFile(const std::string& path, std::string& content);

private:
    static int StatusCallback(SSL* ssl, void* arg);
    bool fail(const std::string& reason);
    bool loadCertificates(SSL_CTX* ctx, const Config& config);

    std::unique_ptr<httplib::SSLServer> server_;
    std::unique_ptr<ServerThread> thread_;
    int port_ = 0;
    bool bound_ = false;
    std::string error_;

    std::mutex mutex_;  // guards ocspResponse_
    std::string ocspResponse_;
};

}  // namespace ZelCloud
