#include "tools/cloud/DrmpService.h"

#include <cctype>

namespace ZelCloud {

namespace {

// Checks the members of a work call; the why of a 400 otherwise.
bool ReadWork(const Json::Value& body, DrmpRegistry::Work& work, std::string& why) {
    const Json::Value& seqNum = body["seqNum"];
    const Json::Value& gid = body["gid"];
    const Json::Value& supported = body["supported"];
    const Json::Value& results = body["results"];
    if (!seqNum.isUInt()) {
        why = "\"seqNum\" must be an unsigned integer";
        return false;
    }
    if (!gid.isNull() && !gid.isString()) {
        why = "\"gid\" must be a string";
        return false;
    }
    if (!(supported.isNull() || supported.isArray()) || !(results.isNull() || results.isArray())) {
        why = "\"supported\" and \"results\" must be arrays";
        return false;
    }
    work.seqNum = seqNum.asUInt();
    work.gid = gid.asString();
    for (const Json::Value& name : supported) {
        if (!name.isString()) {
            why = "\"supported\" must hold strings";
            return false;
        }
        work.supported.push_back(name.asString());
    }
    for (const Json::Value& entry : results) {
        if (!entry.isObject() || !entry["name"].isString() || !entry["operation"].isString() ||
            !entry["success"].isBool()) {
            why =
                "each result needs \"name\" and \"operation\", strings, and \"success\", a boolean";
            return false;
        }
        DrmpRegistry::Result result;
        result.name = entry["name"].asString();
        result.operation = entry["operation"].asString();
        result.success = entry["success"].asBool();
        work.results.push_back(result);
    }
    return true;
}

}  // namespace

const char* const DrmpService::kDelays[8] = {
    "connectTimeoutMs",  "messageTimeoutMs",   "pollDelayFixedMs",    "pollDelayVariedMs",
    "retryDelayFixedMs", "retryDelayVariedMs", "startupDelayFixedMs", "startupDelayVariedMs"};

std::string DrmpService::SettingName(const std::string& delay) {
    std::string name = "drmp" + delay;
    name[4] = static_cast<char>(std::toupper(static_cast<unsigned char>(name[4])));
    return name;
}

DrmpService::DrmpService(DeviceRegistry& devices, CloudSettings& settings, DrmpRegistry& drmp)
    : devices_(devices), settings_(settings), drmp_(drmp) {}

void DrmpService::handle(const ServiceRequest& request, ServiceResponse& response) {
    Json::Value body;
    if (!ReadCall(request, {"token", "work"}, body, response)) {
        return;
    }
    if (request.path == "token") {
        token(request, body, response);
    } else {
        work(request, body, response);
    }
}

void DrmpService::token(const ServiceRequest& request, const Json::Value& body,
                        ServiceResponse& response) {
    const Json::Value& deviceId = body["deviceId"];
    const Json::Value& index = body["index"];
    const Json::Value& hmac = body["hmac"];
    if (!deviceId.isString() || !index.isInt64() || !hmac.isString()) {
        Refuse(response, 400, "a token call needs \"deviceId\", \"index\" and \"hmac\"");
        return;
    }
    if (request.cn.empty()) {
        Refuse(response, 403, "no client certificate");
        return;
    }
    std::string token;
    DrmpRegistry::TokenCall call;
    switch (drmp_.issueToken(request.cn, deviceId.asString(), index.asInt64(), hmac.asString(),
                             token, call)) {
        case DrmpRegistry::TokenOutcome::Refused:
            Refuse(response, 422, "hmac or index does not match the device's key");
            return;
        case DrmpRegistry::TokenOutcome::NoRandom:
            Refuse(response, 500, "no random token");
            return;
        case DrmpRegistry::TokenOutcome::Issued:
            break;
    }
    response.body["idToken"] = token;
    response.note = call.checked ? "new drmp token, key checked" : "new drmp token, key unknown";
}

void DrmpService::work(const ServiceRequest& request, const Json::Value& body,
                       ServiceResponse& response) {
    DrmpRegistry::Work report;
    std::string why;
    if (!ReadWork(body, report, why)) {
        Refuse(response, 400, why);
        return;
    }
    // The gid token is only noted: the drmp token is what authenticates.
    report.gidCurrent = devices_.knows(request.cn, report.gid);
    size_t results = report.results.size();
    DrmpRegistry::Orders orders;
    if (!drmp_.work(request.cn, request.authorization, std::move(report), orders)) {
        Refuse(response, 422, "unknown drmp token");
        return;
    }
    Json::Value& answer = response.body;
    answer["seqNum"] = orders.seqNum;
    Json::Value settings = settings_.current();
    for (const char* delay : kDelays) {
        const Json::Value& value = settings[SettingName(delay)];
        if (!value.isNull()) {
            answer[delay] = value;
        }
    }
    answer["operations"] = orders.operations;
    answer["status"] = orders.status;
    response.note = std::to_string(results) + " result(s), " +
                    std::to_string(orders.operations.size()) + " operation(s)";
}

}  // namespace ZelCloud
