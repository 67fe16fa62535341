#include "Core/Platform/Http.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <set>

#include "Core/Platform/Injector.h"
#include "Core/Platform/Logger.h"
#include "Core/Platform/OpenSsl.h"
#include "Core/Platform/TimeManager.h"
#include "Core/Project/ProductIdentity.h"

namespace Zel {
namespace Core {

namespace {

constexpr const char* kLogSource = "Platform/Http";

constexpr long kKeepAliveSeconds = 10;
constexpr int kPollMs = 60000;

std::atomic<bool> globalCleanup{false};

struct MimeFree {
    void operator()(curl_mime* mime) const { curl_mime_free(mime); }
};

// Called by libcurl for every new TLS connection, before the handshake.
CURLcode SslContextCallback(CURL* /*handle*/, void* sslContext, void* data) {
    auto* ctx = static_cast<SSL_CTX*>(sslContext);
    auto* identity = static_cast<const ProductIdentity*>(data);
    if (identity == nullptr) {
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError,
                "No product identity for the TLS connection");
        return CURLE_SSL_CERTPROBLEM;
    }
    ERR_clear_error();
    CURLcode code = identity->getTlsCredentials().install(ctx);
    ERR_clear_error();
    return code;
}

int DebugCallback(CURL* /*handle*/, curl_infotype type, char* text, size_t size, void* /*user*/) {
    const char* prefix;
    switch (type) {
        case CURLINFO_TEXT:
            prefix = "* ";
            break;
        case CURLINFO_HEADER_IN:
            prefix = "< ";
            break;
        case CURLINFO_HEADER_OUT:
            prefix = "> ";
            break;
        default:
            return 0;  // bodies and TLS records stay out of the log
    }
    // One log line per text line; libcurl hands over whole header blocks.
    const char* data = text;
    const char* end = text + size;
    while (data < end) {
        const char* eol = std::find(data, end, '\n');
        const char* last = eol;
        if (last > data && last[-1] == '\r') {
            --last;
        }
        if (last > data) {
            ZEL_LOG(ServiceCore, CategoryWebservice, SeverityTrace, "%s%.*s", prefix,
                    static_cast<int>(last - data), data);
        }
        data = eol == end ? end : eol + 1;
    }
    return 0;
}

size_t WriteCallback(char* data, size_t size, size_t count, void* user) {
    auto* response = static_cast<Http::Response*>(user);
    size_t length = size * count;
    if (length > response->bodyLimit - std::min(response->bodyLimit, response->body.size())) {
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError,
                "Response body larger than %zu bytes refused", response->bodyLimit);
        return 0;  // fails the transfer with CURLE_WRITE_ERROR
    }
    response->body.append(data, length);
    return length;
}

size_t HeaderCallback(char* data, size_t size, size_t count, void* user) {
    auto* response = static_cast<Http::Response*>(user);
    size_t length = size * count;
    std::string line(data, length);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    if (line.compare(0, 5, "HTTP/") == 0) {
        // A new status line (after "100 Continue", say): keep the final answer's headers only.
        response->headers.clear();
    } else if (!line.empty()) {
        response->headers.push_back(line);
    }
    return length;
}

bool Aborted(const Http::Request& request) {
    return request.abort != nullptr && request.abort->load();
}

int ProgressCallback(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return Aborted(*static_cast<const Http::Request*>(user)) ? 1 : 0;
}

// The multi handles of the exchanges in flight, for WakeAll. Never destroyed:
// an agent thread may still be leaving an exchange while the host exits.
struct InFlight {
    std::mutex mutex;
    std::set<CURLM*> multis;
};

InFlight& inFlight() {
    static InFlight* registry = new InFlight;
    return *registry;
}

// Listed for the duration of one transfer; a wake-up happens under the same
// lock, so it never reaches a multi handle that is gone.
class InFlightEntry {
public:
    explicit InFlightEntry(CURLM* multi) : multi_(multi) {
        std::lock_guard<std::mutex> lock(inFlight().mutex);
        inFlight().multis.insert(multi_);
    }
    ~InFlightEntry() {
        std::lock_guard<std::mutex> lock(inFlight().mutex);
        inFlight().multis.erase(multi_);
    }
    InFlightEntry(const InFlightEntry&) = delete;
    InFlightEntry& operator=(const InFlightEntry&) = delete;

private:
    CURLM* multi_;
};

}  // namespace

CURLcode Http::PerformEasy(std::unique_ptr<CURLM, MultiDeleter>& multiHandle, CURL* easy,
                           const std::atomic<bool>* abort, const std::string& what) {
    auto aborted = [abort] { return abort != nullptr && abort->load(); };
    if (!multiHandle) {
        multiHandle.reset(curl_multi_init());
        if (!multiHandle) {
            ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError, "curl_multi_init() failed");
            return CURLE_OUT_OF_MEMORY;
        }
    }
    CURLM* multi = multiHandle.get();
    CURLMcode added = curl_multi_add_handle(multi, easy);
    if (added != CURLM_OK) {
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError,
                "curl_multi_add_handle failed with code %d - \"%s\"", static_cast<int>(added),
                curl_multi_strerror(added));
        return CURLE_FAILED_INIT;
    }
    CURLcode result = CURLE_ABORTED_BY_CALLBACK;
    {
        InFlightEntry entry(multi);
        for (;;) {
            // Registered before the first look at the flag: an abort set
            // after this look also wakes the poll below.
            if (aborted()) {
                break;
            }
            int running = 0;
            CURLMcode code = curl_multi_perform(multi, &running);
            bool done = false;
            int queued = 0;
            while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
                if (message->msg == CURLMSG_DONE && message->easy_handle == easy) {
                    result = message->data.result;
                    done = true;
                }
            }
            if (done) {
                break;
            }
            // libcurl shortens the wait to its own next deadline; the rest
            // of the time only a wake-up (an abort) ends it early.
            if (code == CURLM_OK) {
                code = curl_multi_poll(multi, nullptr, 0, kPollMs, nullptr);
            }
            if (code != CURLM_OK) {
                ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError,
                        "curl_multi_perform failed with code %d - \"%s\"", static_cast<int>(code),
                        curl_multi_strerror(code));
                result = CURLE_FAILED_INIT;
                break;
            }
        }
    }
    curl_multi_remove_handle(multi, easy);
    // One line whichever noticed the abort: this loop or the progress callback.
    if (result == CURLE_ABORTED_BY_CALLBACK) {
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityInfo, "Aborting transfer of %s",
                what.c_str());
    }
    return result;
}

namespace {

// Runs the prepared transfer through the request's multi handle, so that a
// wake-up or the abort flag ends the wait at once.
CURLcode Transfer(Http::Request& request) {
    return Http::PerformEasy(request.multi, request.handle.get(), request.abort, request.url);
}

template <typename T>
bool SetOption(CURL* handle, CURLoption option, T value, const char* name) {
    CURLcode code = curl_easy_setopt(handle, option, value);
    if (code != CURLE_OK) {
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError, "%s failed with code %d - \"%s\"",
                name, static_cast<int>(code), curl_easy_strerror(code));
        return false;
    }
    return true;
}

template <typename T>
bool GetInfo(CURL* handle, CURLINFO info, T* value, const char* name) {
    CURLcode code = curl_easy_getinfo(handle, info, value);
    if (code != CURLE_OK) {
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError, "%s failed with code %d - \"%s\"",
                name, static_cast<int>(code), curl_easy_strerror(code));
        return false;
    }
    return true;
}

#define ZEL_SETOPT(handle, option, value)                   \
    do {                                                    \
        if (!SetOption((handle), option, (value), #option)) \
            return false;                                   \
    } while (0)

// Adds one named part to a multipart form.
bool AddFormPart(curl_mime* mime, const char* name, const std::string& value) {
    curl_mimepart* part = curl_mime_addpart(mime);
    CURLcode code = part == nullptr ? CURLE_OUT_OF_MEMORY : curl_mime_name(part, name);
    if (code == CURLE_OK) {
        code = curl_mime_data(part, value.data(), value.size());
    }
    if (code != CURLE_OK) {
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError, "curl_formadd failed with code %d",
                static_cast<int>(code));
        return false;
    }
    return true;
}

const char* VerbToString(Http::Verb verb) {
    switch (verb) {
        case Http::Verb::Get:
            return "GET";
        case Http::Verb::Post:
            return "POST";
        case Http::Verb::FormPost:
            return "POST (form)";
        case Http::Verb::Delete:
            return "DELETE";
    }
    return "?";
}

// Sets every option of one exchange, in a fixed order; `mime` receives the
// form of a form POST, which must live until the transfer is over.
bool SetUpHandle(Http::Request& request, Http::Response& response,
                 std::unique_ptr<curl_mime, MimeFree>& mime) {
    CURL* handle = request.handle.get();
    ZEL_SETOPT(handle, CURLOPT_VERBOSE, 1L);
    ZEL_SETOPT(handle, CURLOPT_DEBUGFUNCTION, &DebugCallback);
    ZEL_SETOPT(handle, CURLOPT_SSL_CTX_DATA,
               static_cast<void*>(const_cast<ProductIdentity*>(request.identity)));
    ZEL_SETOPT(handle, CURLOPT_SSL_CTX_FUNCTION, &SslContextCallback);
    ZEL_SETOPT(handle, CURLOPT_NOSIGNAL, 1L);
    ZEL_SETOPT(handle, CURLOPT_SSL_VERIFYPEER, 1L);
    ZEL_SETOPT(handle, CURLOPT_SSL_VERIFYHOST, 2L);
    ZEL_SETOPT(handle, CURLOPT_SSL_VERIFYSTATUS, 1L);
    ZEL_SETOPT(handle, CURLOPT_SSL_SESSIONID_CACHE, 0L);
    ZEL_SETOPT(handle, CURLOPT_SSL_CIPHER_LIST, "HIGH");
    ZEL_SETOPT(handle, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    // No system bundle: the identity's trust store is the only one.
    ZEL_SETOPT(handle, CURLOPT_CAINFO, static_cast<char*>(nullptr));
    ZEL_SETOPT(handle, CURLOPT_CAPATH, static_cast<char*>(nullptr));
    ZEL_SETOPT(handle, CURLOPT_URL, request.url.c_str());
    ZEL_SETOPT(handle, CURLOPT_WRITEFUNCTION, &WriteCallback);
    ZEL_SETOPT(handle, CURLOPT_WRITEDATA, static_cast<void*>(&response));
    ZEL_SETOPT(handle, CURLOPT_HEADERFUNCTION, &HeaderCallback);
    ZEL_SETOPT(handle, CURLOPT_HEADERDATA, static_cast<void*>(&response));
    ZEL_SETOPT(handle, CURLOPT_XFERINFOFUNCTION, &ProgressCallback);
    ZEL_SETOPT(handle, CURLOPT_XFERINFODATA, static_cast<void*>(&request));
    ZEL_SETOPT(handle, CURLOPT_NOPROGRESS, 0L);
    ZEL_SETOPT(handle, CURLOPT_CONNECTTIMEOUT_MS, request.connectTimeoutMs);
    ZEL_SETOPT(handle, CURLOPT_TIMEOUT_MS, request.timeoutMs);
    if (request.reusable) {
        if (!request.keepAlive) {
            ZEL_LOG(ServiceCore, CategoryWebservice, SeverityDebug,
                    "Setting up reusable curl handle with TCP keep alive");
        }
        ZEL_SETOPT(handle, CURLOPT_TCP_KEEPALIVE, 1L);
        ZEL_SETOPT(handle, CURLOPT_TCP_KEEPIDLE, kKeepAliveSeconds);
        ZEL_SETOPT(handle, CURLOPT_TCP_KEEPINTVL, kKeepAliveSeconds);
        request.keepAlive = true;
    }

    curl_slist* list = nullptr;
    for (const std::string& header : request.headers) {
        curl_slist* longer = curl_slist_append(list, header.c_str());
        if (longer == nullptr) {
            curl_slist_free_all(list);
            ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError,
                    "CURLOPT_HTTPHEADER failed with code %d - \"%s\"",
                    static_cast<int>(CURLE_OUT_OF_MEMORY), curl_easy_strerror(CURLE_OUT_OF_MEMORY));
            return false;
        }
        list = longer;
    }
    request.headerList.reset(list);
    ZEL_SETOPT(handle, CURLOPT_HTTPHEADER, request.headerList.get());

    switch (request.verb) {
        case Http::Verb::Get:
            ZEL_SETOPT(handle, CURLOPT_HTTPGET, 1L);
            break;
        case Http::Verb::Delete:
            ZEL_SETOPT(handle, CURLOPT_CUSTOMREQUEST, "delete");
            break;
        case Http::Verb::FormPost:
            mime.reset(curl_mime_init(handle));
            if (!mime || !AddFormPart(mime.get(), "data", request.formData) ||
                !AddFormPart(mime.get(), "token", request.formToken)) {
                if (!mime) {
                    ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError,
                            "curl_formadd failed with code %d",
                            static_cast<int>(CURLE_OUT_OF_MEMORY));
                }
                return false;
            }
            if (!SetOption(handle, CURLOPT_MIMEPOST, mime.get(), "CURLOPT_HTTPPOST")) {
                return false;
            }
            break;
        case Http::Verb::Post:
            ZEL_SETOPT(handle, CURLOPT_POST, 1L);
            ZEL_SETOPT(handle, CURLOPT_POSTFIELDS, request.body.c_str());
            ZEL_SETOPT(handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(request.body.size()));
            break;
    }
    return true;
}

}  // namespace

bool Http::Initialize(bool globalInit, bool globalCleanupOnTerminate) {
    globalCleanup = globalCleanupOnTerminate;
    if (!globalInit) {
        return true;
    }
    CURLcode code = curl_global_init(CURL_GLOBAL_ALL);
    if (code != CURLE_OK) {
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError,
                "curl_global_init failed with code %d - \"%s\"", static_cast<int>(code),
                curl_easy_strerror(code));
        return false;
    }
    return true;
}

void Http::Terminate() {
    if (globalCleanup.exchange(false)) {
        curl_global_cleanup();
    }
}

bool Http::Perform(Request& request, Response& response) {
    response = Response();
    if (Injector::Instance().mock(request, response)) {
        return true;
    }
    if (!TimeManager::Instance().isGoodTime()) {
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError,
                "curl_easy_perform() skipped because time is bad!");
        return false;
    }

    if (request.reusable && request.handle) {
        // Same handle, same connection; only the options start afresh.
        curl_easy_reset(request.handle.get());
    } else {
        // A one-off request keeps no connection from an earlier call either.
        request.handle.reset();
        request.multi.reset();
        request.keepAlive = false;
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityDebug, "curl_easy_init()");
        request.handle.reset(curl_easy_init());
        if (!request.handle) {
            ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError,
                    "curl_easy_init() failed, aborting Http::Perform()");
            return false;
        }
    }
    // The handle no longer points at the previous header list.
    request.headerList.reset();

    std::unique_ptr<curl_mime, MimeFree> mime;
    response.bodyLimit = request.maxBodyBytes;
    if (!SetUpHandle(request, response, mime)) {
        return false;
    }

    CURL* handle = request.handle.get();
    CURLcode code = Transfer(request);
    mime.reset();
    if (code != CURLE_OK) {
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError,
                "curl_easy_perform() failed with code %d - \"%s\"", static_cast<int>(code),
                curl_easy_strerror(code));
        return false;
    }

    long status = 0;
    curl_off_t speedUpload = 0;
    curl_off_t speedDownload = 0;
    if (!GetInfo(handle, CURLINFO_RESPONSE_CODE, &status, "CURLINFO_RESPONSE_CODE") ||
        !GetInfo(handle, CURLINFO_SPEED_UPLOAD_T, &speedUpload, "CURLINFO_SPEED_UPLOAD") ||
        !GetInfo(handle, CURLINFO_SPEED_DOWNLOAD_T, &speedDownload, "CURLINFO_SPEED_DOWNLOAD")) {
        return false;
    }
    response.status = status;
    response.speedUpload = static_cast<double>(speedUpload);
    response.speedDownload = static_cast<double>(speedDownload);
    ZEL_LOG(ServiceCore, CategoryWebservice, SeverityDebug, "HTTP Status: %d",
            static_cast<int>(status));
    return true;
}

void Http::Cleanup(Request& request) {
    if (request.handle) {
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityDebug, "curl_easy_cleanup()");
        request.handle.reset();
    }
    request.multi.reset();
    request.headerList.reset();
    request.keepAlive = false;
}

void Http::WakeAll() {
    std::lock_guard<std::mutex> lock(inFlight().mutex);
    for (CURLM* multi : inFlight().multis) {
        curl_multi_wakeup(multi);
    }
}

void Http::PrintRequest(const Request& request) {
    ZEL_LOG(ServiceCore, CategoryWebservice, SeverityDebug, "Request %s %s",
            VerbToString(request.verb), request.url.c_str());
    for (const std::string& header : request.headers) {
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityDebug, "Request header %s",
                header.c_str());
    }
    if (request.verb == Verb::Post) {
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityDebug, "Request body %s",
                request.body.c_str());
    } else if (request.verb == Verb::FormPost) {
        // The token is a credential: its size is enough to tell it is there.
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityDebug,
                "Request form data %s, token of %zu bytes", request.formData.c_str(),
                request.formToken.size());
    }
}

void Http::PrintResponse(const Request& request, const Response& response) {
    ZEL_LOG(ServiceCore, CategoryWebservice, SeverityDebug, "Response %ld%s for %s",
            response.status, response.mocked ? " (injected)" : "", request.url.c_str());
    for (const std::string& header : response.headers) {
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityDebug, "Response header %s",
                header.c_str());
    }
    ZEL_LOG(ServiceCore, CategoryWebservice, SeverityDebug, "Response body %s",
            response.body.c_str());
}

}  // namespace Core
}  // namespace Zel
