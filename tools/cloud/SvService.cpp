#include "tools/cloud/SvService.h"

#include <json/writer.h>

#include <chrono>
#include <memory>

namespace ZelCloud {

namespace {

// 204 goes without a body.
void NoTask(ServiceResponse& response, const char* note) {
    response.status = 204;
    response.body = Json::Value();
    response.note = note;
}

// An absent member takes the default; one of the wrong type is refused.
bool OptionalUInt(const Json::Value& body, const char* key, uint32_t& value,
                  ServiceResponse& response) {
    const Json::Value& member = body[key];
    if (member.isNull()) {
        return true;
    }
    if (!member.isUInt()) {
        Refuse(response, 400, std::string("\"") + key + "\" must be an unsigned integer");
        return false;
    }
    value = member.asUInt();
    return true;
}

}  // namespace

SvService::SvService(DeviceRegistry& devices, SessionRegistry& sessions)
    : devices_(devices), sessions_(sessions) {}

void SvService::stop() {
    sessions_.stop();
}

std::string SvService::TaskDocument(const std::string& code, uint32_t seqNum,
                                    const Json::Value& requests) {
    Json::Value document(Json::objectValue);
    document["SESSION_ID"] = code;
    document["TASK_ID"] = std::to_string(seqNum);
    document["REQUESTS"] = requests;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, document);
}

void SvService::handle(const ServiceRequest& request, ServiceResponse& response) {
    const std::string& path = request.path;
    Json::Value body;
    if (!ReadCall(request,
                  {"session/initialize", "session/terminate", "session/suspend", "session/resume",
                   "command/get", "command/put"},
                  body, response)) {
        return;
    }
    // The first Authorization header is the gid token, the second the session token.
    const std::vector<std::string>& authorizations = request.authorizations;
    std::string token = authorizations.size() > 1 ? authorizations[1] : std::string();
    if (path == "session/initialize") {
        initialize(request, body, response);
    } else if (path == "command/get") {
        getCommand(request, token, body, response);
    } else if (path == "command/put") {
        putCommand(request, token, body, response);
    } else if (path == "session/terminate") {
        if (!sessions_.terminate(request.cn, token)) {
            Refuse(response, 422, "no live session");
            return;
        }
        response.note = "session terminated";
    } else if (path == "session/suspend") {
        if (!sessions_.suspend(request.cn, token)) {
            Refuse(response, 422, "no live session");
            return;
        }
        response.note = "session suspended";
    } else {
        uint32_t timeoutMs = 0;
        if (!OptionalUInt(body, "timeoutMs", timeoutMs, response)) {
            return;
        }
        if (!sessions_.resume(request.cn, token, timeoutMs)) {
            Refuse(response, 422, "no live session");
            return;
        }
        response.note = "session resumed";
    }
}

void SvService::initialize(const ServiceRequest& request, const Json::Value& body,
                           ServiceResponse& response) {
    const Json::Value& bypass = body["allowSessionCodeBypass"];
    if (!bypass.isNull() && !bypass.isBool()) {
        Refuse(response, 400, "\"allowSessionCodeBypass\" must be a boolean");
        return;
    }
    const Json::Value& digits = body["sessionCodeDigits"];
    if (!digits.isNull() && !digits.isIntegral()) {
        Refuse(response, 400, "\"sessionCodeDigits\" must be an integer");
        return;
    }
    uint32_t timeoutMs = 0;
    if (!OptionalUInt(body, "timeoutMs", timeoutMs, response)) {
        return;
    }
    std::string gidToken = request.authorizations.empty() ? "" : request.authorizations[0];
    if (!devices_.knows(request.cn, gidToken)) {
        Refuse(response, 422, "unknown gid token");
        return;
    }
    // Out of range is what the device's own configuration falls back from, too.
    unsigned length = kDefaultCodeDigits;
    if (digits.isUInt() && digits.asUInt() >= 4 && digits.asUInt() <= 16) {
        length = digits.asUInt();
    }
    SessionRegistry::Session session;
    if (!sessions_.open(request.cn, bypass.isBool() && bypass.asBool(), length, timeoutMs,
                        session)) {
        Refuse(response, 500, "no random numbers");
        return;
    }
    response.body["sessionCode"] = session.code;
    response.body["sessionToken"] = session.token;
    response.note = "session opened, code " + session.code;
}

void SvService::getCommand(const ServiceRequest& request, const std::string& token,
                           const Json::Value& body, ServiceResponse& response) {
    uint32_t seqNum = 0;
    if (!OptionalUInt(body, "seqNum", seqNum, response)) {
        return;
    }
    SessionRegistry::Task task;
    auto bound = std::chrono::milliseconds(longPollMs_.load());
    switch (sessions_.awaitTask(request.cn, token, seqNum, bound, task)) {
        case SessionRegistry::Poll::Task:
            response.body["seqNum"] = task.seqNum;
            response.body["taskRequest"] = task.request;
            response.note = "task " + std::to_string(task.seqNum);
            return;
        case SessionRegistry::Poll::Unknown:
            Refuse(response, 422, "unknown session token");
            return;
        case SessionRegistry::Poll::Retired:
            Refuse(response, 422, "session retired");
            return;
        case SessionRegistry::Poll::Empty:
            NoTask(response, "no task");
            return;
        case SessionRegistry::Poll::Stopped:
            NoTask(response, "no task, cloud stopping");
            return;
    }
}

void SvService::putCommand(const ServiceRequest& request, const std::string& token,
                           const Json::Value& body, ServiceResponse& response) {
    const Json::Value& text = body["taskResponse"];
    if (!text.isString()) {
        Refuse(response, 400, "\"taskResponse\" must be a string");
        return;
    }
    uint32_t seqNum = 0;
    if (!OptionalUInt(body, "seqNum", seqNum, response)) {
        return;
    }
    uint32_t count = 0;
    if (!sessions_.addResult(request.cn, token, seqNum, text.asString(), count)) {
        Refuse(response, 422, "unknown or retired session token");
        return;
    }
    response.body["seqNum"] = count;
    response.note = "result " + std::to_string(count);
}

}  // namespace ZelCloud
