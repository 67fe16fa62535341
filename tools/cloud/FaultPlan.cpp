#include "tools/cloud/FaultPlan.h"

#include <algorithm>

namespace ZelCloud {

namespace {

bool EndsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

const char* KindName(FaultPlan::Kind kind) {
    switch (kind) {
        case FaultPlan::Kind::Status:
            return "status";
        case FaultPlan::Kind::Delay:
            return "delayMs";
        case FaultPlan::Kind::Drop:
            return "drop";
        case FaultPlan::Kind::BadJson:
            return "badJson";
        case FaultPlan::Kind::Body:
            return "body";
    }
    return "unknown";
}

}  // namespace

std::string FaultPlan::Action::describe() const {
    std::string text;
    auto append = [&text](const std::string& part) {
        text += text.empty() ? "fault: " : ", ";
        text += part;
    };
    if (delayMs > 0) {
        append("delay " + std::to_string(delayMs) + " ms");
    }
    if (drop) {
        append("dropped");
    } else if (hasBody) {
        append("body of " + std::to_string(body.size()) + " bytes, status " +
               std::to_string(bodyStatus));
    } else if (status != 0) {
        append("status " + std::to_string(status));
    } else if (badJson) {
        append("bad json");
    }
    return text;
}

void FaultPlan::add(const Fault& fault) {
    if (fault.count == 0) {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    faults_.push_back(fault);
}

bool FaultPlan::add(const Json::Value& fields, std::string& error) {
    if (!fields.isObject() || !fields["path"].isString() || fields["path"].asString().empty()) {
        error = "a fault needs a non-empty \"path\"";
        return false;
    }
    Fault fault;
    fault.path = fields["path"].asString();
    const Json::Value& count = fields["count"];
    if (!count.isNull()) {
        // isUInt() and isInt64() hold only for values that convert without throwing.
        if (!count.isUInt()) {
            error = "\"count\" must be a non-negative integer";
            return false;
        }
        fault.count = count.asUInt();
    }

    std::vector<Fault> faults;
    const bool hasBody = fields.isMember("body");
    if (hasBody && !fields["body"].isString()) {
        error = "\"body\" must be a string";
        return false;
    }
    if (fields.isMember("status") || hasBody) {
        const Json::Value& status = fields.get("status", 200);
        if (!status.isInt() || status.asInt() < 100 || status.asInt() > 599) {
            error = "\"status\" must be an HTTP status code";
            return false;
        }
        Fault f = fault;
        // With a body the status is the body's own, not a fault of its own.
        f.kind = hasBody ? Kind::Body : Kind::Status;
        f.status = status.asInt();
        if (hasBody) {
            f.body = fields["body"].asString();
        }
        faults.push_back(f);
    }
    if (fields.isMember("delayMs")) {
        const Json::Value& delay = fields["delayMs"];
        if (!delay.isInt64() || delay.asInt64() < 0) {
            error = "\"delayMs\" must be a non-negative integer";
            return false;
        }
        Fault f = fault;
        f.kind = Kind::Delay;
        f.delayMs = static_cast<long>(delay.asInt64());
        faults.push_back(f);
    }
    for (Kind kind : {Kind::Drop, Kind::BadJson}) {
        const char* name = KindName(kind);
        if (!fields.isMember(name)) {
            continue;
        }
        if (!fields[name].isBool()) {
            error = std::string("\"") + name + "\" must be a boolean";
            return false;
        }
        if (fields[name].asBool()) {
            Fault f = fault;
            f.kind = kind;
            faults.push_back(f);
        }
    }
    if (faults.empty()) {
        error = "a fault needs one of \"status\", \"delayMs\", \"drop\", \"badJson\", \"body\"";
        return false;
    }
    for (const Fault& f : faults) {
        add(f);
    }
    return true;
}

FaultPlan::Action FaultPlan::take(const std::string& path) {
    Action action;
    std::lock_guard<std::mutex> lock(mutex_);
    // Only the first fault of each kind counts, so queued faults of one kind
    // apply one after the other.
    bool seen[5] = {false, false, false, false, false};
    for (Fault& fault : faults_) {
        size_t index = static_cast<size_t>(fault.kind);
        if (seen[index] || !EndsWith(path, fault.path)) {
            continue;
        }
        seen[index] = true;
        switch (fault.kind) {
            case Kind::Status:
                action.status = fault.status;
                break;
            case Kind::Delay:
                action.delayMs = fault.delayMs;
                break;
            case Kind::Drop:
                action.drop = true;
                break;
            case Kind::BadJson:
                action.badJson = true;
                break;
            case Kind::Body:
                action.hasBody = true;
                action.bodyStatus = fault.status != 0 ? fault.status : 200;
                action.body = fault.body;
                break;
        }
        --fault.count;
    }
    faults_.erase(std::remove_if(faults_.begin(), faults_.end(),
                                 [](const Fault& fault) { return fault.count == 0; }),
                  faults_.end());
    return action;
}

void FaultPlan::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    faults_.clear();
}

Json::Value FaultPlan::toJson() const {
    std::lock_guard<std::mutex> lock(mutex_);
    Json::Value list(Json::arrayValue);
    for (const Fault& fault : faults_) {
        Json::Value item(Json::objectValue);
        item["path"] = fault.path;
        item["count"] = fault.count;
        switch (fault.kind) {
            case Kind::Status:
                item["status"] = fault.status;
                break;
            case Kind::Delay:
                item["delayMs"] = static_cast<Json::Int64>(fault.delayMs);
                break;
            case Kind::Drop:
                item["drop"] = true;
                break;
            case Kind::BadJson:
                item["badJson"] = true;
                break;
            case Kind::Body:
                item["body"] = fault.body;
                item["status"] = fault.status != 0 ? fault.status : 200;
                break;
        }
        list.append(item);
    }
    return list;
}

}  // namespace ZelCloud
