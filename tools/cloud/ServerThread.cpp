#include "tools/cloud/ServerThread.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <chrono>

namespace ZelCloud {

int ServerThread::bind(const std::string& host, int port) {
    // Accepted sockets inherit TCP_NODELAY from the listener: without it every
    // small answer waits about 40 ms on Nagle and the client's delayed ACK.
    server_.set_socket_options([](socket_t sock) {
        int yes = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
        setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof(yes));
    });
    if (port == 0) {
        port = server_.bind_to_any_port(host);
        return port > 0 ? port : -1;
    }
    return server_.bind_to_port(host, port) ? port : -1;
}

void ServerThread::start() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        listenReturned_ = false;
    }
    thread_ = std::thread([this] {
        server_.listen_after_bind();
        std::lock_guard<std::mutex> lock(mutex_);
        listenReturned_ = true;
        ended_.notify_all();
    });
}

void ServerThread::stop() {
    if (!thread_.joinable()) {
        return;
    }
    // httplib's stop() does nothing until the accept loop has begun, so it is
    // repeated until the loop is seen to end.
    {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!listenReturned_) {
            lock.unlock();
            server_.stop();
            lock.lock();
            ended_.wait_for(lock, std::chrono::milliseconds(20),
                            [this] { return listenReturned_; });
        }
    }
    thread_.join();
}

}  // namespace ZelCloud
