#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "tools/cloud/PayloadFaults.h"
#include "tools/cloud/ServerThread.h"
#include "tools/cloud/UpdateRegistry.h"

namespace ZelCloud {

class PlainServer;

// Serves the encrypted payloads of the published updates under
// "/payloads/<id>", one byte range at a time as the device fetches its blocks,
// with the faults planned for them: over plain HTTP on a port of its own, and
// through the cloud's TLS server, which hands its requests to answer().
class PayloadServer {
public:
    static constexpr const char* kPattern = "/payloads/([^/]+)";

    // Waits out an injected delay; false when the cloud stops first.
    using Pause = std::function<bool(long delayMs)>;

    PayloadServer(UpdateRegistry& updates, PayloadFaults& faults, Pause pause);
    ~PayloadServer();
    PayloadServer(const PayloadServer&) = delete;
    PayloadServer& operator=(const PayloadServer&) = delete;

    // Binds the plain port on 127.0.0.1 (0: any free port); false when it cannot.
    bool bind(int port);
    void start();
    // Stops accepting and ends kept-alive connections; harmless when not running.
    void stop();
    // -1 until bound.
    int port() const { return port_; }

    // Answers a GET that matched kPattern; the server must leave Range to its
    // handlers (httplib would apply the range to the answer again).
    void answer(const httplib::Request& req, httplib::Response& res, const std::string& cn,
                bool secure);

    // Which bytes of a payload of `size` bytes a Range header asks for. Whole:
    // no header, or one that is not a single byte range (ignored, as HTTP allows).
    enum class Range { Whole, Part, Unsatisfiable };
    static Range ParseRange(const std::string& header, uint64_t size, uint64_t& first,
                            uint64_t& last);

private:
    UpdateRegistry& updates_;
    PayloadFaults& faults_;
    Pause pause_;
    std::unique_ptr<PlainServer> server_;
    ServerThread thread_;
    int port_ = -1;
};

}  // namespace ZelCloud
