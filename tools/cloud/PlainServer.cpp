#include "tools/cloud/PlainServer.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "tools/cloud/SocketAddress.h"

namespace ZelCloud {

namespace {

// The connection the handler on this thread serves; -1 outside one.
thread_local int servedSocket = -1;
thread_local bool closeAfterAnswer = false;

bool Ready(int fd, short events, int timeoutMs) {
    pollfd entry{fd, events, 0};
    int ready;
    do {
        ready = poll(&entry, 1, timeoutMs);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

int Millis(time_t sec, time_t usec) {
    return static_cast<int>(sec * 1000 + usec / 1000);
}

// A plain TCP connection as httplib reads and writes it.
class PlainStream : public httplib::Stream {
public:
    PlainStream(int fd, int readTimeoutMs, int writeTimeoutMs)
        : fd_(fd), readTimeoutMs_(readTimeoutMs), writeTimeoutMs_(writeTimeoutMs) {}

    bool is_readable() const override { return Ready(fd_, POLLIN, readTimeoutMs_); }
    bool is_writable() const override { return Ready(fd_, POLLOUT, writeTimeoutMs_); }
    ssize_t read(char* ptr, size_t size) override {
        if (!is_readable()) {
            return -1;
        }
        ssize_t got;
        do {
            got = recv(fd_, ptr, size, 0);
        } while (got < 0 && errno == EINTR);
        return got;
    }
    ssize_t write(const char* ptr, size_t size) override {
        if (!is_writable()) {
            return -1;
        }
        ssize_t put;
        do {
            put = send(fd_, ptr, size, MSG_NOSIGNAL);
        } while (put < 0 && errno == EINTR);
        return put;
    }
    void get_remote_ip_and_port(std::string& ip, int& port) const override {
        SocketAddress(getpeername, fd_, ip, port);
    }
    void get_local_ip_and_port(std::string& ip, int& port) const override {
        SocketAddress(getsockname, fd_, ip, port);
    }
    socket_t socket() const override { return fd_; }

private:
    int fd_;
    int readTimeoutMs_;
    int writeTimeoutMs_;
};

}  // namespace

void PlainServer::closeConnections() {
    std::lock_guard<std::mutex> lock(mutex_);
    closing_ = true;
    for (int sock : open_) {
        shutdown(sock, SHUT_RDWR);
    }
}

void PlainServer::CloseAfterAnswer() {
    closeAfterAnswer = true;
}

bool PlainServer::ClientGone() {
    if (servedSocket < 0) {
        return false;
    }
    // The client sends nothing while it reads an answer: anything readable
    // is its end of the connection (or a reset).
    pollfd entry{servedSocket, POLLIN | POLLRDHUP, 0};
    if (poll(&entry, 1, 0) <= 0) {
        return false;
    }
    if (entry.revents & (POLLRDHUP | POLLHUP | POLLERR)) {
        return true;
    }
    char byte;
    return recv(servedSocket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

bool PlainServer::process_and_close_socket(socket_t sock) {
    {
        // Under the lock, so that closeConnections never meets a number
        // already closed and handed out again.
        std::lock_guard<std::mutex> lock(mutex_);
        if (closing_) {
            shutdown(sock, SHUT_RDWR);
        }
        open_.insert(sock);
    }
    servedSocket = sock;
    bool served = false;
    for (size_t left = keep_alive_max_count_; left > 0 && awaitRequest(sock); --left) {
        PlainStream stream(sock, Millis(read_timeout_sec_, read_timeout_usec_),
                           Millis(write_timeout_sec_, write_timeout_usec_));
        bool closed = false;
        closeAfterAnswer = false;
        served = process_request(stream, left == 1, closed, [this](httplib::Request& req) {
            if (clearRanges_) {
                req.ranges.clear();
            }
        });
        if (!served || closed || closeAfterAnswer) {
            break;
        }
    }
    servedSocket = -1;
    std::lock_guard<std::mutex> lock(mutex_);
    open_.erase(sock);
    shutdown(sock, SHUT_RDWR);
    close(sock);
    return served;
}

// A kept-alive connection waits for its next request until the server stops.
bool PlainServer::awaitRequest(int sock) const {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(keep_alive_timeout_sec_);
    while (svr_sock_ != INVALID_SOCKET && std::chrono::steady_clock::now() < end) {
        if (Ready(sock, POLLIN, 50)) {
            return true;
        }
    }
    return false;
}

}  // namespace ZelCloud
