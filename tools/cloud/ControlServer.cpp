#include "tools/cloud/ControlServer.h"

#include <httplib.h>
#include <json/reader.h>
#include <json/writer.h>

#include "tools/cloud/Cloud.h"

namespace ZelCloud {

namespace {

std::string ToText(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    return Json::writeString(builder, value) + "\n";
}

void Answer(httplib::Response& res, int status, const Json::Value& body) {
    res.status = status;
    res.set_content(ToText(body), "application/json");
}

void Fail(httplib::Response& res, int status, const std::string& error) {
    Json::Value body(Json::objectValue);
    body["error"] = error;
    Answer(res, status, body);
}

void Ok(httplib::Response& res) {
    Json::Value body(Json::objectValue);
    body["ok"] = true;
    Answer(res, 200, body);
}

// Parses the body as a JSON object, or answers 400 and returns false.
bool ParseBody(const httplib::Request& req, httplib::Response& res, Json::Value& body) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    const std::string& text = req.body.empty() ? std::string("{}") : req.body;
    if (!reader->parse(text.data(), text.data() + text.size(), &body, &errors) ||
        !body.isObject()) {
        Fail(res, 400, "body is not a JSON object");
        return false;
    }
    return true;
}

}  // namespace

ControlServer::ControlServer(Cloud& cloud) : cloud_(cloud), server_(new httplib::Server) {}

ControlServer::~ControlServer() {
    stop();
}

void ControlServer::route() {
    httplib::Server& server = *server_;
    server.Post("/control/events", [this](const httplib::Request& req, httplib::Response& res) {
        Json::Value body;
        std::string error;
        if (!ParseBody(req, res, body)) {
            return;
        }
        if (!cloud_.queueEvent(body, error)) {
            Fail(res, 400, error);
            return;
        }
        Ok(res);
    });
    server.Post("/control/settings", [this](const httplib::Request& req, httplib::Response& res) {
        Json::Value body;
        if (!ParseBody(req, res, body)) {
            return;
        }
        cloud_.setSettings(body);
        Answer(res, 200, cloud_.settings());
    });
    server.Get("/control/settings", [this](const httplib::Request&, httplib::Response& res) {
        Answer(res, 200, cloud_.settings());
    });
    server.Post("/control/faults", [this](const httplib::Request& req, httplib::Response& res) {
        Json::Value body;
        std::string error;
        if (!ParseBody(req, res, body)) {
            return;
        }
        if (!cloud_.addFault(body, error)) {
            Fail(res, 400, error);
            return;
        }
        Ok(res);
    });
    server.Post("/control/unsynchronized",
                [this](const httplib::Request& req, httplib::Response& res) {
                    Json::Value body;
                    if (!ParseBody(req, res, body)) {
                        return;
                    }
                    if (!body["count"].isUInt()) {
                        Fail(res, 400, "\"count\" must be a non-negative integer");
                        return;
                    }
                    cloud_.setUnsynchronized(body["count"].asUInt());
                    Ok(res);
                });
    server.Post("/control/desynchronize",
                [this](const httplib::Request& req, httplib::Response& res) {
                    Json::Value body;
                    if (!ParseBody(req, res, body)) {
                        return;
                    }
                    if (!body["device"].isNull() && !body["device"].isString()) {
                        Fail(res, 400, "\"device\" must be a string");
                        return;
                    }
                    if (!cloud_.desynchronize(body["device"].asString())) {
                        Fail(res, 404, "unknown device");
                        return;
                    }
                    Ok(res);
                });
    server.Get("/control/requests", [this](const httplib::Request&, httplib::Response& res) {
        Json::Value list(Json::arrayValue);
        for (const RecordedRequest& request : cloud_.requests()) {
            list.append(request.toJson());
        }
        Answer(res, 200, list);
    });
    server.Get("/control/devices", [this](const httplib::Request&, httplib::Response& res) {
        Answer(res, 200, cloud_.devices());
    });
}

bool ControlServer::start(int port) {
    route();
    // httplib's default adds SO_REUSEPORT, with which a second server on a busy
    // port binds quietly and takes half the connections.
    server_->set_socket_options([](socket_t sock) {
        int yes = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    });
    if (port == 0) {
        port_ = server_->bind_to_any_port("127.0.0.1");
        if (port_ <= 0) {
            return false;
        }
    } else {
        if (!server_->bind_to_port("127.0.0.1", port)) {
            return false;
        }
        port_ = port;
    }
    thread_ = std::thread([this] {
        server_->listen_after_bind();
        std::lock_guard<std::mutex> lock(mutex_);
        listenReturned_ = true;
        listenEnded_.notify_all();
    });
    return true;
}

void ControlServer::stop() {
    if (!thread_.joinable()) {
        return;
    }
    // httplib ignores stop() until its accept loop has begun, so repeat it
    // until the loop is seen to end.
    {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!listenReturned_) {
            lock.unlock();
            server_->stop();
            lock.lock();
            listenEnded_.wait_for(lock, std::chrono::milliseconds(20),
                                  [this] { return listenReturned_; });
        }
    }
    thread_.join();
}

}  // namespace ZelCloud
