#include "tools/cloud/SuService.h"

#include <chrono>

namespace ZelCloud {

SuService::SuService(DeviceRegistry& devices, UpdateRegistry& updates)
    : devices_(devices), updates_(updates) {}

void SuService::handle(const ServiceRequest& request, ServiceResponse& response) {
    Json::Value body;
    if (!ReadCall(request, {"download/complete"}, body, response)) {
        return;
    }
    if (!body["suStatus"].isBool()) {
        Refuse(response, 400, "\"suStatus\" must be a boolean");
        return;
    }
    for (const char* key : {"suDetails", "suDate", "suMetadata"}) {
        if (!body[key].isString()) {
            Refuse(response, 400, std::string("\"") + key + "\" must be a string");
            return;
        }
    }
    if (!devices_.knows(request.cn, request.authorization)) {
        Refuse(response, 422, "unknown gid token");
        return;
    }
    UpdateReport report;
    report.time = std::chrono::system_clock::now();
    report.device = request.cn;
    report.status = body["suStatus"].asBool();
    report.details = body["suDetails"].asString();
    report.date = body["suDate"].asString();
    report.metadata = body["suMetadata"].asString();
    report = updates_.addReport(report);
    response.note = std::string(report.status ? "success" : "failure") + " reported for " +
                    (report.update.empty() ? "an unknown update" : report.update);
    if (!report.status) {
        response.note += ": " + report.details;
    }
}

}  // namespace ZelCloud
