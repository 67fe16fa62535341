#pragma once

#include <httplib.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

#include "tools/cloud/RequestLog.h"
#include "tools/cloud/ServerThread.h"
#include "tools/cloud/StreamRegistry.h"

namespace ZelCloud {

class PlainServer;

// The media relay: plain HTTP on 127.0.0.1, where the agent's stream sink
// uploads its screen as one endless multipart body per stream,
//   POST /streams/<name>?producerid=N&action=publish&maxbytes=N&...
// (chunked, "Content-Type: multipart/x-mixed-replace; boundary=..."). Each
// complete frame goes to the stream registry, from which the control
// interface serves viewers. Plain HTTP because the sink cannot present a
// client certificate. Each upload is recorded once it ends, under
// "/relay/streams/<name>".
class RelayServer {
public:
    static constexpr const char* kPattern = "/streams/([A-Za-z0-9_.-]{1,64})";
    // No frame is larger than this, whatever "maxbytes" says.
    static constexpr size_t kMaxFrameBytes = 8u << 20;
    static constexpr size_t kMaxPartHeaderBytes = 1024;

    RelayServer(StreamRegistry& streams, RequestLog& log);
    ~RelayServer();
    RelayServer(const RelayServer&) = delete;
    RelayServer& operator=(const RelayServer&) = delete;

    // Binds the port on 127.0.0.1 (0: any free port); false when it cannot.
    bool bind(int port);
    void start();
    // Ends every upload at once and stops; harmless when not running.
    void stop();
    // -1 until bound.
    int port() const { return port_; }

private:
    void upload(const httplib::Request& req, httplib::Response& res,
                const httplib::ContentReader& reader);

    StreamRegistry& streams_;
    RequestLog& log_;
    std::unique_ptr<PlainServer> server_;
    ServerThread thread_;
    int port_ = -1;
    std::atomic<bool> stopping_{false};
};

}  // namespace ZelCloud
