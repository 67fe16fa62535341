#include "tools/cloud/PayloadFaults.h"

#include <algorithm>

namespace ZelCloud {

std::string PayloadFaults::Action::describe() const {
    std::string text;
    auto append = [&text](const std::string& part) {
        text += text.empty() ? "fault: " : ", ";
        text += part;
    };
    if (delayMs > 0) {
        append("delay " + std::to_string(delayMs) + " ms");
    }
    if (status != 0) {
        append("status " + std::to_string(status));
    } else if (hasBody) {
        append("body of " + std::to_string(body.size()) + " bytes, status " +
               std::to_string(bodyStatus));
    } else if (drop) {
        append("dropped");
    }
    if (corrupt) {
        append("byte " + std::to_string(offset) + " flipped");
    }
    return text;
}

void PayloadFaults::add(const Fault& fault) {
    if (fault.count == 0) {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    faults_.push_back(fault);
}

bool PayloadFaults::add(const Json::Value& fields, std::string& error) {
    if (!fields.isObject()) {
        error = "a payload fault must be a JSON object";
        return false;
    }
    Fault fault;
    const Json::Value& id = fields["id"];
    if (!id.isNull() && !id.isString()) {
        error = "\"id\" must be a string";
        return false;
    }
    fault.id = id.asString();
    const Json::Value& count = fields["count"];
    if (!count.isNull()) {
        // isUInt() holds only for values that convert without throwing.
        if (!count.isUInt() || count.asUInt() == 0) {
            error = "\"count\" must be a positive integer";
            return false;
        }
        fault.count = count.asUInt();
    }

    std::vector<Fault> faults;
    if (fields.isMember("body")) {
        const Json::Value& body = fields["body"];
        const Json::Value& status = fields["status"];
        if (!body.isString()) {
            error = "\"body\" must be a string";
            return false;
        }
        if (!status.isNull() && (!status.isInt() || status.asInt() < 200 || status.asInt() > 599)) {
            error = "\"status\" must be an HTTP status code";
            return false;
        }
        Fault f = fault;
        f.kind = Kind::Body;
        f.status = status.isNull() ? 200 : status.asInt();
        f.body = body.asString();
        faults.push_back(f);
    } else if (fields.isMember("status")) {
        const Json::Value& status = fields["status"];
        if (!status.isInt() || status.asInt() < 100 || status.asInt() > 599) {
            error = "\"status\" must be an HTTP status code";
            return false;
        }
        Fault f = fault;
        f.kind = Kind::Status;
        f.status = status.asInt();
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
    if (fields.isMember("drop")) {
        if (!fields["drop"].isBool()) {
            error = "\"drop\" must be a boolean";
            return false;
        }
        if (fields["drop"].asBool()) {
            Fault f = fault;
            f.kind = Kind::Drop;
            faults.push_back(f);
        }
    }
    if (fields.isMember("corruptOffset")) {
        const Json::Value& offset = fields["corruptOffset"];
        if (!offset.isUInt64()) {
            error = "\"corruptOffset\" must be a non-negative integer";
            return false;
        }
        Fault f = fault;
        f.kind = Kind::Corrupt;
        f.offset = offset.asUInt64();
        faults.push_back(f);
    }
    if (faults.empty()) {
        error =
            "a payload fault needs one of \"status\", \"delayMs\", \"drop\", \"corruptOffset\", "
            "\"body\"";
        return false;
    }
    for (const Fault& f : faults) {
        add(f);
    }
    return true;
}

PayloadFaults::Action PayloadFaults::take(const std::string& id) {
    Action action;
    std::lock_guard<std::mutex> lock(mutex_);
    bool seen[5] = {false, false, false, false, false};
    for (Fault& fault : faults_) {
        size_t index = static_cast<size_t>(fault.kind);
        if (fault.kind == Kind::Corrupt || seen[index] || (!fault.id.empty() && fault.id != id)) {
            continue;
        }
        seen[index] = true;
        if (fault.kind == Kind::Status) {
            action.status = fault.status;
        } else if (fault.kind == Kind::Delay) {
            action.delayMs = fault.delayMs;
        } else if (fault.kind == Kind::Body) {
            action.hasBody = true;
            action.bodyStatus = fault.status != 0 ? fault.status : 200;
            action.body = fault.body;
        } else {
            action.drop = true;
        }
        --fault.count;
    }
    prune();
    return action;
}

void PayloadFaults::takeCorrupt(const std::string& id, uint64_t first, uint64_t last,
                                Action& action) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (Fault& fault : faults_) {
        if (fault.kind == Kind::Corrupt && (fault.id.empty() || fault.id == id) &&
            fault.offset >= first && fault.offset <= last) {
            action.corrupt = true;
            action.offset = fault.offset;
            --fault.count;
            break;
        }
    }
    prune();
}

void PayloadFaults::prune() {
    faults_.erase(std::remove_if(faults_.begin(), faults_.end(),
                                 [](const Fault& fault) { return fault.count == 0; }),
                  faults_.end());
}

void PayloadFaults::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    faults_.clear();
}

Json::Value PayloadFaults::toJson() const {
    std::lock_guard<std::mutex> lock(mutex_);
    Json::Value list(Json::arrayValue);
    for (const Fault& fault : faults_) {
        Json::Value item(Json::objectValue);
        item["id"] = fault.id;
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
            case Kind::Corrupt:
                item["corruptOffset"] = static_cast<Json::UInt64>(fault.offset);
                break;
            case Kind::Body:
                item["status"] = fault.status;
                item["body"] = fault.body;
                break;
        }
        list.append(item);
    }
    return list;
}

}  // namespace ZelCloud
