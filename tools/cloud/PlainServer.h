#pragma once

#include <httplib.h>

#include <atomic>
#include <mutex>
#include <set>

namespace ZelCloud {

// httplib's plain-HTTP server with a connection loop of its own: a kept-alive
// connection ends as soon as the server stops, and closeConnections() ends the
// ones busy with a request or an answer that never ends by itself (a stream
// upload, a live viewer). Reads and writes wait as long as set_read_timeout
// and set_write_timeout say.
class PlainServer : public httplib::Server {
public:
    // Requests reach the handlers without httplib's parsed ranges, for a
    // handler that answers Range itself (httplib would cut the answer again).
    void leaveRangesToHandlers() { clearRanges_ = true; }
    // Shuts down every open connection, and every one accepted from now on:
    // their reads and writes fail at once.
    void closeConnections();

    // True when the client of the request this thread is serving has closed
    // its end; for a handler that waits long between writes.
    static bool ClientGone();
    // For a handler that answers without reading the whole body: the
    // connection closes after the answer instead of reading the rest of the
    // body as the next request.
    static void CloseAfterAnswer();

private:
    bool process_and_close_socket(socket_t sock) override;
    bool awaitRequest(int sock) const;

    std::atomic<bool> clearRanges_{false};
    std::mutex mutex_;
    std::set<int> open_;
    bool closing_ = false;
};

}  // namespace ZelCloud
