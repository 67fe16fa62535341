#pragma once

#include <httplib.h>

#include <cstdint>
#include <functional>
#include <string>

#include "tools/cloud/RecordedRequest.h"
#include "tools/cloud/RequestLog.h"

namespace ZelCloud {

// The two ends of the agent's network speed test, on the cloud's TLS service
// (the agent's HTTP client talks to nothing else):
//   GET /speedtest/download?size=N  N bytes of application/octet-stream
//   POST /speedtest/upload          the body counted and dropped: {"received": n}
// Both are recorded like the services' calls, once their answer has gone, and
// the fault plan applies to them ("speedtest/download", "speedtest/upload").
class SpeedTest {
public:
    static constexpr const char* kDownloadPath = "/speedtest/download";
    static constexpr const char* kUploadPath = "/speedtest/upload";
    static constexpr uint64_t kDefaultSize = 102400;
    // Larger downloads are cut to this; larger uploads refused with 413.
    static constexpr uint64_t kMaxBytes = 64ull << 20;

    // What the cloud does with a call before serving it: the planned faults.
    // True when a fault has answered it, with the record's status and note set;
    // otherwise the note may say what was done first (a delay).
    using Gate = std::function<bool(const httplib::Request&, httplib::Response&, RecordedRequest&)>;
    // What the cloud records of a TLS request: time, method, path, host, CN, headers...
    using Describe = std::function<RecordedRequest(const httplib::Request&)>;

    SpeedTest(RequestLog& log, Describe describe, Gate gate);

    // Registers both ends; before any catch-all handler of the same method.
    void route(httplib::Server& server);

    // "size": digits only; false for anything else. Values over kMaxBytes are cut.
    static bool ParseSize(const std::string& text, uint64_t& size);

private:
    void download(const httplib::Request& req, httplib::Response& res);
    void upload(const httplib::Request& req, httplib::Response& res,
                const httplib::ContentReader& reader);

    RequestLog& log_;
    Describe describe_;
    Gate gate_;
};

}  // namespace ZelCloud
