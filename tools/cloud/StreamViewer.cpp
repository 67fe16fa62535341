#include "tools/cloud/StreamViewer.h"

#include <json/writer.h>

#include <algorithm>
#include <memory>
#include <string>

#include "tools/cloud/PlainServer.h"

namespace ZelCloud {

namespace {

constexpr const char* kName = "([A-Za-z0-9_.-]{1,64})";
constexpr size_t kMaxDigits = 19;

bool ParseNumber(const std::string& text, uint64_t& value) {
    if (text.empty() || text.size() > kMaxDigits ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    value = std::stoull(text);
    return true;
}

void Text(httplib::Response& res, int status, const std::string& text) {
    res.status = status;
    res.set_content(text + "\n", "text/plain");
}

void Picture(httplib::Response& res, const StreamRegistry::Frame& frame) {
    res.status = 200;
    res.set_header("X-Frame-Seq", std::to_string(frame.seq));
    res.set_content(*frame.bytes, "image/jpeg");
}

// One live viewer: the last frame it was sent.
struct Viewer {
    uint64_t seq = 0;
    bool started = false;
};

}  // namespace

void StreamViewer::route(httplib::Server& server) {
    server.Get("/control/streams", [this](const httplib::Request&, httplib::Response& res) {
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "  ";
        res.set_content(Json::writeString(builder, streams_.toJson()) + "\n", "application/json");
    });
    server.Get(std::string("/control/streams/") + kName + "/frame\\.jpg",
               [this](const httplib::Request& req, httplib::Response& res) { frame(req, res); });
    server.Get(std::string("/control/streams/") + kName,
               [this](const httplib::Request& req, httplib::Response& res) { live(req, res); });
}

void StreamViewer::frame(const httplib::Request& req, httplib::Response& res) {
    std::string name = req.matches[1].str();
    res.set_header("Cache-Control", "no-store");
    StreamRegistry::Frame frame;
    if (!req.has_param("after")) {
        if (!streams_.latest(name, frame)) {
            Text(res, 404, "no frame of " + name);
            return;
        }
        Picture(res, frame);
        return;
    }
    uint64_t after = 0;
    uint64_t waitMs = 0;
    if (!ParseNumber(req.get_param_value("after"), after) ||
        (req.has_param("waitMs") && !ParseNumber(req.get_param_value("waitMs"), waitMs))) {
        Text(res, 400, "after and waitMs must be whole numbers");
        return;
    }
    waitMs = std::min<uint64_t>(waitMs, kMaxWaitMs);
    switch (streams_.waitForFrame(name, after, std::chrono::milliseconds(waitMs), frame)) {
        case StreamRegistry::Wait::Frame:
            Picture(res, frame);
            return;
        case StreamRegistry::Wait::Timeout:
            if (streams_.latest(name, frame)) {
                res.set_header("X-Frame-Seq", std::to_string(frame.seq));
            }
            res.status = 204;
            return;
        case StreamRegistry::Wait::Stopped:
            Text(res, 503, "the cloud is stopping");
            return;
    }
}

void StreamViewer::live(const httplib::Request& req, httplib::Response& res) {
    std::string name = req.matches[1].str();
    auto viewer = std::make_shared<Viewer>();
    const StreamRegistry& streams = streams_;
    res.set_header("Cache-Control", "no-store");
    auto provide = [&streams, name, viewer](size_t, httplib::DataSink& sink) {
        StreamRegistry::Frame frame;
        switch (streams.waitForFrame(name, viewer->seq, kIdleCheck, frame)) {
            case StreamRegistry::Wait::Stopped:
                return false;
            case StreamRegistry::Wait::Timeout:
                return !PlainServer::ClientGone();
            case StreamRegistry::Wait::Frame:
                break;
        }
        viewer->seq = frame.seq;
        std::string part = viewer->started ? "" : std::string("--") + kBoundary + "\r\n";
        viewer->started = true;
        part +=
            "Content-Type: image/jpeg\r\nContent-Length: " + std::to_string(frame.bytes->size()) +
            "\r\nX-Frame-Seq: " + std::to_string(frame.seq) + "\r\n\r\n";
        part += *frame.bytes;
        // The next delimiter goes out with the frame: a browser shows a part
        // only once it has seen the delimiter after it.
        part += std::string("\r\n--") + kBoundary + "\r\n";
        return sink.write(part.data(), part.size());
    };
    res.set_chunked_content_provider(
        std::string("multipart/x-mixed-replace; boundary=") + kBoundary, provide);
}

}  // namespace ZelCloud
