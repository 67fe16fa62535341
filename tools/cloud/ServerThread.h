#pragma once

#include <httplib.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace ZelCloud {

// Runs one httplib server's accept loop on a thread of its own, for the
// cloud's TLS server and its control interface alike.
class ServerThread {
public:
    explicit ServerThread(httplib::Server& server) : server_(server) {}
    ~ServerThread() { stop(); }
    ServerThread(const ServerThread&) = delete;
    ServerThread& operator=(const ServerThread&) = delete;

    // Binds host:port (0: any free port) and returns the port, or -1. Only
    // SO_REUSEADDR is set: httplib's default adds SO_REUSEPORT, with which a
    // second server on a busy port binds quietly and takes some of the
    // connections, where a port in use must be an error.
    int bind(const std::string& host, int port);
    void start();
    // Ends the accept loop and joins the thread; harmless when not running.
    void stop();
    bool running() const { return thread_.joinable(); }

private:
    httplib::Server& server_;
    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable ended_;
    bool listenReturned_ = false;
};

}  // namespace ZelCloud
