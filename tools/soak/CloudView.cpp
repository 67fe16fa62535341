#include "CloudView.h"

const Json::Value* CloudView::Member(const Json::Value& object, const char* key,
                                     Json::ValueType type) {
    if (!object.isObject()) {
        return nullptr;
    }
    const Json::Value* member = object.find(key, key + std::char_traits<char>::length(key));
    if (member == nullptr) {
        return nullptr;
    }
    bool fits = false;
    switch (type) {
        case Json::uintValue:
            fits = member->isUInt64();
            break;
        case Json::intValue:
            fits = member->isInt64();
            break;
        case Json::booleanValue:
            fits = member->isBool();
            break;
        case Json::stringValue:
            fits = member->isString();
            break;
        case Json::arrayValue:
            fits = member->isArray();
            break;
        case Json::objectValue:
            fits = member->isObject();
            break;
        default:
            fits = member->type() == type;
            break;
    }
    return fits ? member : nullptr;
}

bool CloudView::Number(const Json::Value& object, const char* key, uint64_t& value) {
    const Json::Value* member = Member(object, key, Json::uintValue);
    if (member == nullptr) {
        return false;
    }
    value = member->asUInt64();
    return true;
}

bool CloudView::Text(const Json::Value& object, const char* key, std::string& value) {
    const Json::Value* member = Member(object, key, Json::stringValue);
    if (member == nullptr) {
        return false;
    }
    value = member->asString();
    return true;
}

bool CloudView::SessionState(const Json::Value& sessions, const std::string& code,
                             std::string& state) {
    if (!sessions.isArray()) {
        return false;
    }
    bool found = false;
    // The same code may come round again; the last one listed is the newest.
    for (const Json::Value& session : sessions) {
        std::string listed;
        if (Text(session, "code", listed) && listed == code && Text(session, "state", state)) {
            found = true;
        }
    }
    return found;
}

bool CloudView::TaskResponses(const Json::Value& sessions, const std::string& code, uint64_t seqNum,
                              Json::Value& responses) {
    if (!sessions.isArray()) {
        return false;
    }
    for (const Json::Value& session : sessions) {
        std::string listed;
        const Json::Value* results = Member(session, "results", Json::arrayValue);
        if (!Text(session, "code", listed) || listed != code || results == nullptr) {
            continue;
        }
        for (const Json::Value& result : *results) {
            uint64_t task = 0;
            if (!Number(result, "taskSeqNum", task) || task != seqNum) {
                continue;
            }
            responses = Json::Value(Json::arrayValue);
            const Json::Value* document = Member(result, "document", Json::objectValue);
            const Json::Value* output =
                document != nullptr ? Member(*document, "TASK_OUTPUT", Json::objectValue) : nullptr;
            const Json::Value* list =
                output != nullptr ? Member(*output, "RESPONSES", Json::arrayValue) : nullptr;
            if (list != nullptr) {
                responses = *list;
            }
            return true;
        }
    }
    return false;
}

bool CloudView::AllSucceeded(const Json::Value& responses, std::string& problem) {
    if (!responses.isArray() || responses.empty()) {
        problem = "no responses";
        return false;
    }
    for (const Json::Value& response : responses) {
        uint64_t result = 0;
        if (!Number(response, "RESULT", result)) {
            problem = "a response without RESULT";
            return false;
        }
        if (result != 0) {
            problem = "RESULT " + std::to_string(result);
            return false;
        }
    }
    return true;
}

bool CloudView::Stream(const Json::Value& streams, const std::string& name, uint64_t& frames,
                       bool& connected) {
    if (!streams.isArray()) {
        return false;
    }
    for (const Json::Value& stream : streams) {
        std::string listed;
        const Json::Value* isConnected = Member(stream, "connected", Json::booleanValue);
        if (Text(stream, "name", listed) && listed == name && Number(stream, "frames", frames) &&
            isConnected != nullptr) {
            connected = isConnected->asBool();
            return true;
        }
    }
    return false;
}

bool CloudView::UpdateReport(const Json::Value& reports, const std::string& id, bool& success,
                             std::string& details) {
    if (!reports.isArray()) {
        return false;
    }
    bool found = false;
    for (const Json::Value& report : reports) {
        std::string update;
        const Json::Value* status = Member(report, "suStatus", Json::booleanValue);
        if (Text(report, "update", update) && update == id && status != nullptr) {
            found = true;
            success = status->asBool();
            if (!Text(report, "suDetails", details)) {
                details.clear();
            }
        }
    }
    return found;
}

unsigned CloudView::DrmpResults(const Json::Value& drmp, const std::string& name,
                                const std::string& operation, bool success) {
    const Json::Value* devices = Member(drmp, "devices", Json::arrayValue);
    if (devices == nullptr) {
        return 0;
    }
    unsigned count = 0;
    for (const Json::Value& device : *devices) {
        const Json::Value* results = Member(device, "results", Json::arrayValue);
        if (results == nullptr) {
            continue;
        }
        for (const Json::Value& result : *results) {
            std::string listedName;
            std::string listedOperation;
            const Json::Value* outcome = Member(result, "success", Json::booleanValue);
            if (Text(result, "name", listedName) && listedName == name &&
                Text(result, "operation", listedOperation) && listedOperation == operation &&
                outcome != nullptr && outcome->asBool() == success) {
                ++count;
            }
        }
    }
    return count;
}
