#include "support/LogCapture.h"

#include <algorithm>
#include <sstream>

#include "Core/Platform/Logger.h"

namespace ZelTest {

namespace {
const char* const kServices[] = {"core", "ds", "sv", "su", "drmp", "gnsdk"};
const char* const kCategories[] = {"state", "flow", "clibapi", "webservice", "test", "supervisor"};
}  // namespace

Json::Value LogCapture::LoggersConfig(const std::string& path, const std::string& severity) {
    Json::Value appender;
    appender["type"] = "file";
    appender["argument"] = path;
    appender["append"] = true;
    appender["format"] = "terse";
    Json::Value filters(Json::arrayValue);
    for (const char* service : kServices) {
        for (const char* category : kCategories) {
            Json::Value filter;
            filter["service"] = service;
            filter["category"] = category;
            filter["severity"] = severity;
            filters.append(filter);
        }
    }
    appender["filters"] = filters;
    Json::Value loggers(Json::arrayValue);
    loggers.append(appender);
    return loggers;
}

LogCapture::LogCapture(const std::string& severity) : path_(dir_.file("log.jsonl")) {
    Zel::Core::Logger::Instance().terminate();
    Json::Value loggers = LoggersConfig(path_, severity);
    Zel::Core::Logger::Instance().initialize(loggers);
}

LogCapture::~LogCapture() {
    Zel::Core::Logger::Instance().terminate();
}

std::vector<std::string> LogCapture::messages() const {
    std::vector<std::string> result;
    std::istringstream in(ReadFile(path_));
    std::string line;
    while (std::getline(in, line)) {
        result.push_back(line);
    }
    return result;
}

bool LogCapture::contains(const std::string& message) const {
    return count(message) > 0;
}

size_t LogCapture::count(const std::string& message) const {
    std::vector<std::string> all = messages();
    return static_cast<size_t>(std::count(all.begin(), all.end(), message));
}

}  // namespace ZelTest
