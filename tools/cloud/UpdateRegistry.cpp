#include "tools/cloud/UpdateRegistry.h"

#include <cstdio>

#include "tools/cloud/RecordedRequest.h"
#include "tools/cloud/RequestLog.h"

namespace ZelCloud {

Json::Value Update::toJson() const {
    Json::Value value(Json::objectValue);
    value["id"] = id;
    value["time"] = RecordedRequest::FormatTime(time);
    value["device"] = device;
    value["version"] = version;
    value["audiences"] = Json::Value(Json::arrayValue);
    for (const std::string& audience : audiences) {
        value["audiences"].append(audience);
    }
    value["displayText"] = displayText;
    value["mandatory"] = mandatory;
    value["autoAnswer"] = autoAnswer;
    value["offered"] = offered;
    value["secure"] = secure;
    value["blockSize"] = blockSize;
    value["size"] = static_cast<Json::UInt64>(size);
    value["blocks"] = blocks;
    value["encryptedSize"] = static_cast<Json::UInt64>(encrypted ? encrypted->size() : 0);
    value["hash"] = hash;
    value["url"] = url;
    value["token"] = token;
    return value;
}

Json::Value UpdateReport::toJson() const {
    Json::Value value(Json::objectValue);
    value["time"] = RecordedRequest::FormatTime(time);
    value["device"] = device;
    value["suStatus"] = status;
    value["suDetails"] = details;
    value["suDate"] = date;
    value["suMetadata"] = metadata;
    value["update"] = update.empty() ? Json::Value() : Json::Value(update);
    return value;
}

Json::Value PayloadRequest::toJson() const {
    Json::Value value(Json::objectValue);
    value["time"] = RecordedRequest::FormatTime(time);
    value["id"] = id;
    value["cn"] = cn;
    value["secure"] = secure;
    value["range"] = range;
    value["status"] = status;
    value["bytes"] = static_cast<Json::UInt64>(bytes);
    value["fault"] = fault;
    return value;
}

std::string UpdateRegistry::newId() {
    std::lock_guard<std::mutex> lock(mutex_);
    return "u" + std::to_string(++lastId_);
}

void UpdateRegistry::add(const Update& update) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        updates_.push_back(update);
    }
    changed_.notify_all();
}

std::shared_ptr<const std::string> UpdateRegistry::payload(const std::string& id) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const Update& update : updates_) {
        if (update.id == id) {
            return update.encrypted;
        }
    }
    return nullptr;
}

Json::Value UpdateRegistry::toJson() const {
    std::lock_guard<std::mutex> lock(mutex_);
    Json::Value list(Json::arrayValue);
    for (const Update& update : updates_) {
        list.append(update.toJson());
    }
    return list;
}

UpdateReport UpdateRegistry::addReport(UpdateReport report) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const Update& update : updates_) {
            if (update.token == report.metadata) {
                report.update = update.id;
            }
        }
        reports_.push_back(report);
    }
    changed_.notify_all();
    return report;
}

std::vector<UpdateReport> UpdateRegistry::reports() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return reports_;
}

bool UpdateRegistry::waitForReports(size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return reports_.size() >= count; });
}

void UpdateRegistry::begin() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++inFlight_;
    }
    changed_.notify_all();
}

void UpdateRegistry::addRequest(const PayloadRequest& request) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (inFlight_ > 0) {
            --inFlight_;
        }
        requests_.push_back(request);
        if (!quiet_) {
            // The request log's line, so that payloads read like the rest; the CN
            // is "-" over plain HTTP.
            RecordedRequest line;
            line.time = request.time;
            line.cn = request.cn;
            line.method = "GET";
            line.path = "/payloads/" + request.id;
            line.status = request.status;
            line.note = (request.range.empty() ? std::string("whole") : request.range) + ", " +
                        std::to_string(request.bytes) + " bytes";
            if (!request.fault.empty()) {
                line.note += ", " + request.fault;
            }
            std::string text = RequestLog::FormatLine(line) + "\n";
            fwrite(text.data(), 1, text.size(), stdout);
            fflush(stdout);
        }
    }
    changed_.notify_all();
}

std::vector<PayloadRequest> UpdateRegistry::requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

bool UpdateRegistry::waitForRequests(size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return requests_.size() >= count; });
}

bool UpdateRegistry::waitForInFlight(size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return inFlight_ >= count; });
}

void UpdateRegistry::setQuiet(bool quiet) {
    std::lock_guard<std::mutex> lock(mutex_);
    quiet_ = quiet;
}

}  // namespace ZelCloud
