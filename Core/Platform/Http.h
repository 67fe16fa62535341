#pragma once

#include <curl/curl.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace Zel {
namespace Core {

class ProductIdentity;

// Every HTTPS exchange with the cloud, over libcurl's easy interface with one
// fixed TLS profile: TLS 1.2 or later, "HIGH" ciphers, peer and host name
// verified against the identity's own trust store only, a stapled OCSP
// response required, and the device certificate as the client certificate.
class Http {
public:
    enum class Verb { Get, Post, FormPost, Delete };

    struct CurlDeleter {
        void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
    };
    struct SlistDeleter {
        void operator()(curl_slist* list) const { curl_slist_free_all(list); }
    };
    struct MultiDeleter {
        void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
    };

    // A body beyond this is refused and the exchange fails: no answer of a
    // micro-service comes near it.
    static constexpr size_t kMaxBodyBytes = 1024 * 1024;

    struct Request {
        std::string url;
        std::vector<std::string> headers;  // "Name: value"
        Verb verb = Verb::Get;
        std::string body;       // Post
        std::string formData;   // FormPost: the "data" part
        std::string formToken;  // FormPost: the "token" part
        long connectTimeoutMs = 0;
        long timeoutMs = 0;
        // Client certificate, key and trust store; not owned, must outlive the exchange.
        const ProductIdentity* identity = nullptr;
        // Keeps the handle, and with it the connection, across Perform calls
        // until Cleanup, with TCP keep-alive so an idle connection survives.
        bool reusable = false;
        // When it turns true the running exchange is aborted; WakeAll makes a
        // waiting exchange look at it at once.
        const std::atomic<bool>* abort = nullptr;
        size_t maxBodyBytes = kMaxBodyBytes;

        // Owned by the request, released by Http::Cleanup (or with the request).
        // The transfer runs through the multi handle, which also keeps the
        // connection for the next call; declared first, it outlives the easy handle.
        std::unique_ptr<CURLM, MultiDeleter> multi;
        std::unique_ptr<CURL, CurlDeleter> handle;
        std::unique_ptr<curl_slist, SlistDeleter> headerList;
        bool keepAlive = false;  // the handle has been set up for TCP keep-alive
    };

    struct Response {
        long status = 0;
        double speedUpload = 0;    // bytes per second
        double speedDownload = 0;  // bytes per second
        std::string body;
        std::vector<std::string> headers;  // "Name: value", without the status line
        bool mocked = false;               // answered by the Injector
        size_t bodyLimit = kMaxBodyBytes;  // set from the request by Perform
    };

    // curl_global_init when `globalInit`; `globalCleanup` decides whether
    // Terminate() runs curl_global_cleanup. A host that manages libcurl
    // itself passes false for both.
    static bool Initialize(bool globalInit, bool globalCleanup);
    static void Terminate();

    static bool Perform(Request& request, Response& response);
    // Runs an easy handle set up by the caller through `multi` (made on first
    // use and kept), so that WakeAll and `abort` end it at once, as for
    // Perform. `what` names the transfer in the log.
    static CURLcode PerformEasy(std::unique_ptr<CURLM, MultiDeleter>& multi, CURL* easy,
                                const std::atomic<bool>* abort, const std::string& what);
    static void Cleanup(Request& request);
    // Wakes every exchange in flight so that it sees its abort flag now,
    // rather than at libcurl's next progress call, up to a second later.
    static void WakeAll();

    static void PrintRequest(const Request& request);
    static void PrintResponse(const Request& request, const Response& response);
};

}  // namespace Core
}  // namespace Zel
