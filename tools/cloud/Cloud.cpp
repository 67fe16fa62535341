#include "tools/cloud/Cloud.h"

#include <json/writer.h>
#include <strings.h>
#include <sys/socket.h>

#include <utility>

#include "tools/cloud/ControlServer.h"
#include "tools/cloud/DaService.h"
#include "tools/cloud/DrmpService.h"
#include "tools/cloud/PayloadServer.h"
#include "tools/cloud/RelayServer.h"
#include "tools/cloud/SpeedTest.h"
#include "tools/cloud/SuService.h"
#include "tools/cloud/SvService.h"
#include "tools/cloud/TlsServer.h"

namespace ZelCloud {

namespace {

constexpr const char* kApiPrefix = "/api/v1/";
constexpr const char* kNotJson = "this is not json";

std::string Compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

// Every Authorization header among the wire header lines, in order; the
// single header given apart when the lines are not known.
std::vector<std::string> Authorizations(const std::vector<std::string>& headers,
                                        const std::string& authorization) {
    static const std::string kName = "authorization:";
    std::vector<std::string> values;
    for (const std::string& line : headers) {
        if (line.size() >= kName.size() &&
            strncasecmp(line.c_str(), kName.c_str(), kName.size()) == 0) {
            size_t begin = line.find_first_not_of(" \t", kName.size());
            size_t end = line.find_last_not_of(" \t");
            values.push_back(begin == std::string::npos ? std::string()
                                                        : line.substr(begin, end - begin + 1));
        }
    }
    if (values.empty() && !authorization.empty()) {
        values.push_back(authorization);
    }
    return values;
}

// Sends a service answer over the TLS connection, or drops the connection.
void Reply(const Cloud::Answer& answer, const httplib::Request& req, httplib::Response& res) {
    if (answer.drop) {
        // No answer at all: the client sees the connection end.
        if (req.ssl != nullptr) {
            shutdown(SSL_get_fd(req.ssl), SHUT_RDWR);
        }
        return;
    }
    res.status = answer.status;
    if (answer.status != 204) {
        res.set_content(answer.body, "application/json");
    }
}

// What is recorded of a TLS request before it is answered.
RecordedRequest Describe(const httplib::Request& req) {
    RecordedRequest record;
    record.time = std::chrono::system_clock::now();
    record.method = req.method;
    record.path = req.path;
    record.host = req.get_header_value("Host");
    record.cn = TlsServer::ClientCommonName(req);
    record.authorization = req.get_header_value("Authorization");
    record.headers = TlsServer::WireHeaders(req);
    record.connection = TlsServer::ConnectionId(req);
    return record;
}

// "https://<opid>-<service>.<instance>" as the device names the service, from
// the device's common name "<opid>.<instance>"; the cloud's port is added when
// the instance has none. Empty when the name has no instance.
std::string ServiceOrigin(const std::string& deviceCn, const std::string& service, int port) {
    size_t dot = deviceCn.find('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == deviceCn.size()) {
        return std::string();
    }
    std::string instance = deviceCn.substr(dot + 1);
    if (instance.find(':') == std::string::npos) {
        instance += ":" + std::to_string(port);
    }
    return "https://" + deviceCn.substr(0, dot) + "-" + service + "." + instance;
}

}  // namespace

Cloud::Cloud(CloudOptions options)
    : options_(std::move(options)),
      server_(new TlsServer),
      payloads_(new PayloadServer(updates_, payloadFaults_,
                                  [this](long delayMs) { return pause(delayMs); })),
      relay_(new RelayServer(streams_, log_)) {
    setQuiet(options_.quiet);
    if (options_.settings.isObject()) {
        settings_.merge(options_.settings);
    }
    registerServices();
    auto gate = [this](const httplib::Request& req, httplib::Response& res,
                       RecordedRequest& record) {
        Answer answer;
        if (!applyFault(record, answer)) {
            return false;
        }
        Reply(answer, req, res);
        return true;
    };
    speedTest_ = std::make_unique<SpeedTest>(log_, Describe, gate);
}

Cloud::~Cloud() {
    stop();
}

// Every micro-service the cloud offers, by name. A new service is one class and
// one line here.
void Cloud::registerServices() {
    auto da = std::make_unique<DaService>(devices_, settings_);
    da_ = da.get();
    addService(std::move(da));
    auto sv = std::make_unique<SvService>(devices_, sessions_);
    sv->setLongPollMs(options_.longPollMs);
    sv_ = sv.get();
    addService(std::move(sv));
    addService(std::make_unique<SuService>(devices_, updates_));
    addService(std::make_unique<DrmpService>(devices_, settings_, drmp_));
}

void Cloud::addService(std::unique_ptr<Service> service) {
    std::string name = service->name();
    services_[name] = std::move(service);
}

bool Cloud::bind() {
    if (port_ == 0) {
        if (!server_->bind(options_.port)) {
            error_ = server_->error();
            return false;
        }
        port_ = server_->port();
    }
    if (options_.payloadPort >= 0 && payloads_->port() < 0 &&
        !payloads_->bind(options_.payloadPort)) {
        error_ = "cannot bind the payload port " + std::to_string(options_.payloadPort);
        return false;
    }
    if (options_.relayPort >= 0 && relay_->port() < 0 && !relay_->bind(options_.relayPort)) {
        error_ = "cannot bind the relay port " + std::to_string(options_.relayPort);
        return false;
    }
    return true;
}

bool Cloud::start() {
    if (!bind()) {
        return false;
    }
    httplib::Server& http = server_->http();
    auto handler = [this](const httplib::Request& req, httplib::Response& res) {
        std::string host = req.get_header_value("Host");
        Answer answer = serve(req.method, req.path, host, TlsServer::ClientCommonName(req),
                              req.get_header_value("Authorization"), req.body,
                              TlsServer::WireHeaders(req), TlsServer::ConnectionId(req));
        Reply(answer, req, res);
    };
    // A device keeps its connection for as long as it likes, so a test knows
    // which connection a call goes over.
    http.set_keep_alive_max_count(1000000);
    // Each long poll holds a worker, and so does every kept-alive connection
    // between its requests: httplib's default pool of 8 runs out with a few devices.
    http.new_task_queue = [] { return new httplib::ThreadPool(64); };
    // Payloads before the catch-all; the payload server answers Range itself.
    server_->leaveRangesToHandlers();
    http.Get(PayloadServer::kPattern, [this](const httplib::Request& req, httplib::Response& res) {
        payloads_->answer(req, res, TlsServer::ClientCommonName(req), true);
    });
    speedTest_->route(http);
    http.Post(".*", handler);
    http.Get(".*", handler);
    http.Put(".*", handler);
    http.Delete(".*", handler);

    TlsServer::Config config;
    const std::string& dir = options_.pkiDir;
    config.certFile = dir + "/server.crt";
    config.keyFile = dir + "/server.key";
    config.chainFile = dir + "/ca.crt";
    config.clientCaFile = dir + "/ca.crt";
    config.ocspFile = dir + "/server.ocsp.der";
    if (!server_->start(config)) {
        error_ = server_->error();
        return false;
    }
    payloads_->start();
    relay_->start();
    addAddressSettings();
    if (options_.controlPort >= 0) {
        control_ = std::make_unique<ControlServer>(*this);
        if (!control_->start(options_.controlPort)) {
            error_ = "cannot bind the control port " + std::to_string(options_.controlPort);
            stop();
            return false;
        }
    }
    return true;
}

void Cloud::stop() {
    {
        std::lock_guard<std::mutex> lock(stopMutex_);
        stopping_ = true;
    }
    stopped_.notify_all();
    // Held long polls and waiting viewers first: the servers wait for their
    // handlers to return.
    for (auto& service : services_) {
        service.second->stop();
    }
    streams_.stop();
    server_->stop();
    payloads_->stop();
    relay_->stop();
    if (control_) {
        control_->stop();
    }
}

int Cloud::controlPort() const {
    return control_ ? control_->port() : -1;
}

int Cloud::payloadPort() const {
    return payloads_->port();
}

int Cloud::relayPort() const {
    return relay_->port();
}

void Cloud::addAddressSettings() {
    // The name the device knows the cloud by, so that the certificate matches.
    std::string pem;
    std::string origin;
    if (TlsServer::ReadFile(options_.pkiDir + "/device.crt", pem)) {
        origin = ServiceOrigin(TlsServer::CertificateCommonName(pem), "sv", port_);
    }
    if (origin.empty()) {
        return;
    }
    Json::Value keys(Json::objectValue);
    keys["svSpeedTestDownloadURL"] =
        origin + SpeedTest::kDownloadPath + "?size=" + std::to_string(SpeedTest::kDefaultSize);
    keys["svSpeedTestUploadURL"] = origin + SpeedTest::kUploadPath;
    settings_.setAddressDefaults(keys);
}

bool Cloud::pause(long delayMs) {
    std::unique_lock<std::mutex> lock(stopMutex_);
    return !stopped_.wait_for(lock, std::chrono::milliseconds(delayMs),
                              [this] { return stopping_; });
}

Cloud::Answer Cloud::serve(const std::string& method, const std::string& path,
                           const std::string& host, const std::string& cn,
                           const std::string& authorization, const std::string& body,
                           const std::vector<std::string>& headers, uint64_t connection) {
    RecordedRequest record;
    record.time = std::chrono::system_clock::now();
    record.method = method;
    record.path = path;
    record.host = host;
    record.cn = cn;
    record.authorization = authorization;
    record.body = body;
    record.headers = headers;
    record.connection = connection;

    log_.begin();
    Answer answer;
    if (applyFault(record, answer)) {
        log_.add(record);
        return answer;
    }

    ServiceResponse response;
    std::string prefix(kApiPrefix);
    auto service = services_.end();
    std::string rest;
    if (path.compare(0, prefix.size(), prefix) == 0) {
        rest = path.substr(prefix.size());
        size_t slash = rest.find('/');
        if (slash != std::string::npos) {
            service = services_.find(rest.substr(0, slash));
            rest = rest.substr(slash + 1);
        }
    }
    if (service == services_.end()) {
        response.status = 404;
        response.body["error"] = "no such service";
        response.note = "no such service";
    } else {
        std::vector<std::string> authorizations = Authorizations(headers, authorization);
        ServiceRequest request{method, rest, cn, authorization, body, authorizations};
        service->second->handle(request, response);
    }
    answer.status = response.status;
    answer.body = response.status == 204 ? std::string() : Compact(response.body);
    record.status = response.status;
    record.note = record.note.empty() ? response.note : record.note + ", " + response.note;
    log_.add(record);
    return answer;
}

bool Cloud::applyFault(RecordedRequest& record, Answer& answer) {
    FaultPlan::Action fault = faults_.take(record.path);
    if (fault.delayMs > 0 && !pause(fault.delayMs)) {
        // Stopping: give up the call rather than hold up the shut-down.
        answer.drop = true;
        record.status = 0;
        record.note = fault.describe() + ", cut short by stop";
        return true;
    }
    if (fault.drop || fault.status != 0 || fault.badJson || fault.hasBody) {
        record.note = fault.describe();
        if (fault.drop) {
            answer.drop = true;
        } else if (fault.hasBody) {
            answer.status = fault.bodyStatus;
            answer.body = std::move(fault.body);
        } else if (fault.status != 0) {
            answer.status = fault.status;
            answer.body = "{}";
        } else {
            answer.status = 200;
            answer.body = kNotJson;
        }
        record.status = answer.drop ? 0 : answer.status;
        return true;
    }
    if (fault.delayMs > 0) {
        record.note = fault.describe();
    }
    return false;
}

void Cloud::queueEvent(const std::string& event, const Json::Value& parameters,
                       std::optional<uint32_t> id, const std::string& device) {
    devices_.queueEvent(device, event, id, parameters);
}

bool Cloud::queueEvent(const Json::Value& fields, std::string& error) {
    if (!fields.isObject() || !fields["event"].isString() || fields["event"].asString().empty()) {
        error = "an event needs a non-empty \"event\"";
        return false;
    }
    if (!fields["device"].isNull() && !fields["device"].isString()) {
        error = "\"device\" must be a string";
        return false;
    }
    std::optional<uint32_t> id;
    if (!fields["id"].isNull()) {
        if (!fields["id"].isUInt()) {
            error = "\"id\" must be an unsigned integer";
            return false;
        }
        id = fields["id"].asUInt();
    }
    queueEvent(fields["event"].asString(), fields["parameters"], id, fields["device"].asString());
    return true;
}

void Cloud::setSettings(const Json::Value& keys) {
    if (settings_.merge(keys)) {
        // Devices learn settings from a state call, so make them ask.
        devices_.desynchronize("");
    }
}

Json::Value Cloud::settings() const {
    return settings_.current();
}

void Cloud::addFault(const FaultPlan::Fault& fault) {
    faults_.add(fault);
}

bool Cloud::addFault(const Json::Value& fields, std::string& error) {
    return faults_.add(fields, error);
}

void Cloud::setUnsynchronized(unsigned count) {
    da_->setUnsynchronized(count);
}

bool Cloud::desynchronize(const std::string& device) {
    return devices_.desynchronize(device);
}

void Cloud::openSession(const std::string& device) {
    queueEvent("startsvsession", Json::Value(), std::nullopt, device);
}

bool Cloud::queueTask(const Json::Value& requests, uint32_t& seqNum, std::string& error,
                      const std::string& device) {
    if (!requests.isArray()) {
        error = "\"requests\" must be an array";
        return false;
    }
    auto build = [&requests](const std::string& code, uint32_t number) {
        return SvService::TaskDocument(code, number, requests);
    };
    return sessions_.queueTask(device, build, seqNum, error);
}

bool Cloud::queueRawTask(const std::string& text, uint32_t& seqNum, std::string& error,
                         const std::string& device) {
    auto build = [&text](const std::string&, uint32_t) { return text; };
    return sessions_.queueTask(device, build, seqNum, error);
}

bool Cloud::waitForResults(size_t count, std::chrono::milliseconds timeout,
                           const std::string& device) const {
    return sessions_.waitFor(
        [&](const Json::Value& sessions) {
            size_t results = 0;
            for (const Json::Value& session : sessions) {
                if (device.empty() || session["device"].asString() == device) {
                    results += session["results"].size();
                }
            }
            return results >= count;
        },
        timeout);
}

void Cloud::setLongPollMs(long ms) {
    sv_->setLongPollMs(ms);
}

bool Cloud::publishUpdate(const UpdateSpec& spec, PublishedUpdate& published, std::string& error) {
    if (!spec.secure && options_.payloadPort < 0) {
        error = "no payload server for a plain-HTTP url (payloadPort, --payload-port)";
        return false;
    }
    UpdateKeys keys;
    if (!spec.check(error) || !UpdateKeys::Load(options_.pkiDir, keys, error)) {
        return false;
    }
    if (!bind()) {
        error = error_;
        return false;
    }
    std::string id = updates_.newId();
    std::string url;
    if (spec.secure) {
        // The su service's host, as the device names it: "<opid>-su.<instance>".
        url = ServiceOrigin(keys.deviceCn, "su", port_);
        if (url.empty()) {
            error = "the device certificate's CN " + keys.deviceCn + " has no instance";
            return false;
        }
    } else {
        url = "http://127.0.0.1:" + std::to_string(payloads_->port());
    }
    url += "/payloads/" + id;
    Update update;
    if (!PackUpdate(spec, keys, id, url, update, published, error)) {
        return false;
    }
    updates_.add(update);
    if (spec.offer) {
        // The agent takes a string parameter as the event's text: the token.
        queueEvent("softwareupdate", Json::Value(published.token), std::nullopt, published.device);
    }
    return true;
}

void Cloud::setDrmpKey(const std::string& device, int64_t index, const std::string& keyBytes) {
    drmp_.setKey(device, DrmpRegistry::Key{index, keyBytes});
}

bool Cloud::setDrmpKey(const Json::Value& fields, std::string& error) {
    std::string device;
    DrmpRegistry::Key key;
    if (!DrmpRegistry::KeyFromJson(fields, device, key, error)) {
        return false;
    }
    drmp_.setKey(device, key);
    return true;
}

bool Cloud::queueDrmpOperations(const Json::Value& operations, std::string& error,
                                const std::string& device) {
    std::vector<Json::Value> list;
    if (!DrmpRegistry::OperationsFromJson(operations, list, error)) {
        return false;
    }
    drmp_.queue(device, list);
    return true;
}

std::optional<DeviceRegistry::Device> Cloud::device(const std::string& cn) const {
    return devices_.device(cn);
}

bool Cloud::waitForRequests(size_t count, std::chrono::milliseconds timeout) const {
    return log_.waitForRequests(count, timeout);
}

bool Cloud::waitFor(const RequestLog::Predicate& predicate,
                    std::chrono::milliseconds timeout) const {
    return log_.waitFor(predicate, timeout);
}

}  // namespace ZelCloud
