#include "Core/Platform/FilterProperties.h"

namespace Zel {
namespace Core {

namespace {

const char* const kServiceNames[FilterProperties::kServiceCount] = {"core", "ds",   "sv",
                                                                    "su",   "drmp", "gnsdk"};
const char* const kCategoryNames[FilterProperties::kCategoryCount] = {
    "state", "flow", "clibapi", "webservice", "test", "supervisor"};
const char* const kSeverityNames[FilterProperties::kSeverityCount] = {
    "disabled", "fatal", "error", "warning", "info", "debug", "trace"};

const char* nameOf(const char* const* table, int count, int value) {
    if (value < 0 || value >= count) {
        return "UNKNOWN";
    }
    return table[value];
}

int valueOf(const char* const* table, int count, const std::string& name) {
    for (int i = 0; i < count; ++i) {
        if (name == table[i]) {
            return i;
        }
    }
    return -1;
}

}  // namespace

const char* FilterProperties::GetServiceName(int service) {
    return nameOf(kServiceNames, kServiceCount, service);
}

const char* FilterProperties::GetCategoryName(int category) {
    return nameOf(kCategoryNames, kCategoryCount, category);
}

const char* FilterProperties::GetSeverityName(int severity) {
    return nameOf(kSeverityNames, kSeverityCount, severity);
}

int FilterProperties::GetServiceValue(const std::string& name) {
    return valueOf(kServiceNames, kServiceCount, name);
}

int FilterProperties::GetCategoryValue(const std::string& name) {
    return valueOf(kCategoryNames, kCategoryCount, name);
}

int FilterProperties::GetSeverityValue(const std::string& name) {
    return valueOf(kSeverityNames, kSeverityCount, name);
}

}  // namespace Core
}  // namespace Zel
