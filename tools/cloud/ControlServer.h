#pragma once

#include <memory>
#include <string>

#include "tools/cloud/ServerThread.h"

namespace httplib {
class Server;
}

namespace ZelCloud {

class Cloud;

// The cloud's control interface for people and scripts: plain HTTP with JSON
// bodies on 127.0.0.1, doing what the C++ interface of Cloud does.
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

    Cloud& cloud_;
    std::unique_ptr<httplib::Server> server_;
    ServerThread thread_;
    int port_ = 0;
};

}  // namespace ZelCloud
