#pragma once

#include <httplib.h>

#include <chrono>

#include "tools/cloud/StreamRegistry.h"

namespace ZelCloud {

// The relayed streams as the control interface shows them:
//   GET /control/streams                  the streams, as StreamRegistry lists them
//   GET /control/streams/<name>/frame.jpg the latest frame (404 without one); with
//       ?after=S&waitMs=W the first frame numbered above S, waiting up to W ms
//       (at most kMaxWaitMs; 204 when none came). "X-Frame-Seq" numbers the frame.
//   GET /control/streams/<name>           a live multipart/x-mixed-replace stream of
//       every new frame, for an <img>; it ends when the viewer goes or the cloud stops.
// The live stream must run on a PlainServer, which tells when a viewer has gone.
class StreamViewer {
public:
    static constexpr const char* kBoundary = "zelframe";
    static constexpr long kMaxWaitMs = 10000;
    // How often a live stream without new frames looks whether its viewer is still there.
    static constexpr std::chrono::milliseconds kIdleCheck{1000};

    explicit StreamViewer(const StreamRegistry& streams) : streams_(streams) {}

    void route(httplib::Server& server);

private:
    void frame(const httplib::Request& req, httplib::Response& res);
    void live(const httplib::Request& req, httplib::Response& res);

    const StreamRegistry& streams_;
};

}  // namespace ZelCloud
