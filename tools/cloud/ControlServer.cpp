#include "tools/cloud/ControlServer.h"

#include <httplib.h>
#include <json/reader.h>
#include <json/writer.h>

#include "tools/cloud/Cloud.h"
#include "tools/cloud/ConsolePage.h"
#include "tools/cloud/PlainServer.h"
#include "tools/cloud/StreamViewer.h"

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

ControlServer::ControlServer(Cloud& cloud)
    : cloud_(cloud),
      viewer_(new StreamViewer(cloud.streamRegistry())),
      server_(new PlainServer),
      thread_(*server_) {
    // A live viewer holds a worker for as long as it watches, and a browser
    // keeps several connections: httplib's default pool of 8 runs out.
    server_->new_task_queue = [] { return new httplib::ThreadPool(64); };
}

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
    server.Post("/control/sessions", [this](const httplib::Request& req, httplib::Response& res) {
        Json::Value body;
        if (!ParseBody(req, res, body)) {
            return;
        }
        if (!body["device"].isNull() && !body["device"].isString()) {
            Fail(res, 400, "\"device\" must be a string");
            return;
        }
        cloud_.openSession(body["device"].asString());
        Ok(res);
    });
    server.Get("/control/sessions", [this](const httplib::Request&, httplib::Response& res) {
        Answer(res, 200, cloud_.sessions());
    });
    server.Post("/control/tasks", [this](const httplib::Request& req, httplib::Response& res) {
        Json::Value body;
        if (!ParseBody(req, res, body)) {
            return;
        }
        const Json::Value& device = body["device"];
        const Json::Value& requests = body["requests"];
        const Json::Value& raw = body["raw"];
        if (!device.isNull() && !device.isString()) {
            Fail(res, 400, "\"device\" must be a string");
            return;
        }
        bool useRaw = raw.isString() && requests.isNull();
        if (!useRaw && !(requests.isArray() && raw.isNull())) {
            Fail(res, 400, "a task needs either \"requests\", an array, or \"raw\", a string");
            return;
        }
        uint32_t seqNum = 0;
        std::string error;
        bool queued = useRaw ? cloud_.queueRawTask(raw.asString(), seqNum, error, device.asString())
                             : cloud_.queueTask(requests, seqNum, error, device.asString());
        if (!queued) {
            Fail(res, 409, error);
            return;
        }
        Json::Value answer(Json::objectValue);
        answer["seqNum"] = seqNum;
        Answer(res, 200, answer);
    });
    routeUpdates();
    routeDrmp();
    routeStreams();
    ConsolePage::route(server);
}

void ControlServer::routeStreams() {
    viewer_->route(*server_);
    server_->Get("/control/relay", [this](const httplib::Request&, httplib::Response& res) {
        Json::Value relay(Json::objectValue);
        relay["address"] = "127.0.0.1";
        relay["port"] = cloud_.relayPort();
        Answer(res, 200, relay);
    });
}

void ControlServer::routeDrmp() {
    httplib::Server& server = *server_;
    server.Post("/control/drmp/keys", [this](const httplib::Request& req, httplib::Response& res) {
        Json::Value body;
        std::string error;
        if (!ParseBody(req, res, body)) {
            return;
        }
        if (!cloud_.setDrmpKey(body, error)) {
            Fail(res, 400, error);
            return;
        }
        Ok(res);
    });
    server.Post("/control/drmp/operations",
                [this](const httplib::Request& req, httplib::Response& res) {
                    Json::Value body;
                    std::string error;
                    if (!ParseBody(req, res, body)) {
                        return;
                    }
                    const Json::Value& device = body["device"];
                    if (!device.isNull() && !device.isString()) {
                        Fail(res, 400, "\"device\" must be a string");
                        return;
                    }
                    if (!cloud_.queueDrmpOperations(body["operations"], error, device.asString())) {
                        Fail(res, 400, error);
                        return;
                    }
                    Json::Value answer(Json::objectValue);
                    answer["queued"] = body["operations"].isArray() ? body["operations"].size() : 1;
                    Answer(res, 200, answer);
                });
    server.Get("/control/drmp", [this](const httplib::Request&, httplib::Response& res) {
        Answer(res, 200, cloud_.drmp());
    });
}

void ControlServer::routeUpdates() {
    httplib::Server& server = *server_;
    server.Post("/control/updates", [this](const httplib::Request& req, httplib::Response& res) {
        Json::Value body;
        UpdateSpec spec;
        std::string error;
        if (!ParseBody(req, res, body)) {
            return;
        }
        if (!UpdateSpec::FromJson(body, spec, error)) {
            Fail(res, 400, error);
            return;
        }
        PublishedUpdate published;
        if (!cloud_.publishUpdate(spec, published, error)) {
            // The request was fine; the cloud cannot make or serve updates.
            Fail(res, 500, error);
            return;
        }
        for (const Json::Value& update : cloud_.updates()) {
            if (update["id"].asString() == published.id) {
                Answer(res, 200, update);
            }
        }
    });
    server.Get("/control/updates", [this](const httplib::Request&, httplib::Response& res) {
        Answer(res, 200, cloud_.updates());
    });
    server.Get("/control/update-reports", [this](const httplib::Request&, httplib::Response& res) {
        Json::Value list(Json::arrayValue);
        for (const UpdateReport& report : cloud_.updateReports()) {
            list.append(report.toJson());
        }
        Answer(res, 200, list);
    });
    server.Post("/control/payload-faults",
                [this](const httplib::Request& req, httplib::Response& res) {
                    Json::Value body;
                    std::string error;
                    if (!ParseBody(req, res, body)) {
                        return;
                    }
                    if (!cloud_.addPayloadFault(body, error)) {
                        Fail(res, 400, error);
                        return;
                    }
                    Ok(res);
                });
    server.Get("/control/payload-faults", [this](const httplib::Request&, httplib::Response& res) {
        Answer(res, 200, cloud_.payloadFaults());
    });
    server.Delete("/control/payload-faults",
                  [this](const httplib::Request&, httplib::Response& res) {
                      cloud_.clearPayloadFaults();
                      Ok(res);
                  });
    server.Get("/control/payload-requests",
               [this](const httplib::Request&, httplib::Response& res) {
                   Json::Value list(Json::arrayValue);
                   for (const PayloadRequest& request : cloud_.payloadRequests()) {
                       list.append(request.toJson());
                   }
                   Answer(res, 200, list);
               });
}

bool ControlServer::start(int port) {
    route();
    port_ = thread_.bind("127.0.0.1", port);
    if (port_ < 0) {
        return false;
    }
    thread_.start();
    return true;
}

void ControlServer::stop() {
    // Live viewers and kept-alive browser connections would hold up the stop.
    server_->closeConnections();
    thread_.stop();
}

}  // namespace ZelCloud
