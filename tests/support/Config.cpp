#include "support/Config.h"

#include <sstream>

#include "Core/Platform/JsonUtil.h"

namespace ZelTest {

std::string EveryFilter(const std::string& severity) {
    std::string filters;
    for (const char* service : {"core", "ds", "sv", "su", "drmp", "gnsdk"}) {
        for (const char* category :
             {"state", "flow", "clibapi", "webservice", "test", "supervisor"}) {
            filters += std::string(service) + "/" + category + "/" + severity + " ";
        }
    }
    return filters;
}

Json::Value LoggerElement(const std::string& type, const std::string& argument,
                          const std::string& format, const std::string& filters, bool append) {
    Json::Value element;
    element["type"] = type;
    element["argument"] = argument;
    element["append"] = append;
    element["format"] = format;
    element["filters"] = Json::Value(Json::arrayValue);
    std::istringstream in(filters);
    for (std::string entry; in >> entry;) {
        size_t first = entry.find('/');
        size_t last = entry.rfind('/');
        Json::Value filter(entry);
        if (first != std::string::npos) {
            filter = Json::Value();
            filter["service"] = entry.substr(0, first);
            filter["category"] = entry.substr(first + 1, last - first - 1);
            filter["severity"] = entry.substr(last + 1);
        }
        element["filters"].append(filter);
    }
    return element;
}

ConfigDoc& ConfigDoc::dirs(const std::string& path) {
    return core("persistentPath", path).core("temporaryPath", path);
}

ConfigDoc& ConfigDoc::core(const std::string& key, const Json::Value& value) {
    doc_["core"][key] = value;
    return *this;
}

ConfigDoc& ConfigDoc::set(const std::string& section, const std::string& key,
                          const Json::Value& value) {
    doc_[section][key] = value;
    return *this;
}

ConfigDoc& ConfigDoc::logTo(const std::string& path, const std::string& severity) {
    return logger(LoggerElement("file", path, "long", EveryFilter(severity)));
}

ConfigDoc& ConfigDoc::logger(const Json::Value& element) {
    doc_["loggers"].append(element);
    return *this;
}

ConfigDoc& ConfigDoc::inject(const std::string& suffix, const Json::Value& responses) {
    Json::Value injector;
    injector["suffix"] = suffix;
    injector["responses"] = responses;
    doc_["injectors"].append(injector);
    return *this;
}

std::string ConfigDoc::text() const {
    return Zel::Core::JsonUtil::Compact(doc_);
}

}  // namespace ZelTest
