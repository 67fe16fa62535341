#pragma once

#include <memory>
#include <string>

#include "tools/cloud/ServerThread.h"

namespace ZelCloud {

class Cloud;
class PlainServer;
class StreamViewer;

// The cloud's control interface for people and scripts: plain HTTP with JSON
// bodies on 127.0.0.1, doing what the C++ interface of Cloud does, plus the
// viewers of the relayed streams and the support console's page.
class ControlServer {
public:
    explicit ControlServer(Cloud& cloud);
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Port 0 takes any free port. False when the port cannot be bound.
    bool start(int port);
    void stop();
    int port() const { return port_; }

private:
    void route();
    void routeUpdates();
    void routeDrmp();
    void routeStreams();

    Cloud& cloud_;
    std::unique_ptr<StreamViewer> viewer_;
    std::unique_ptr<PlainServer> server_;
    ServerThread thread_;
    int port_ = 0;
};

}  // namespace ZelCloud
