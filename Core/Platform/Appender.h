#pragma once

#include <json/value.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Core/Platform/FilterProperties.h"
#include "Core/Platform/Format.h"
#include "Core/Platform/LoggingEvent.h"

namespace Zel {
namespace Core {

// A destination for log records with its own format and filter table.
// Appenders are not thread-safe: the logger's mutex serialises every call.
class Appender {
public:
    virtual ~Appender();
    virtual void doAppend(const LoggingEvent& event) = 0;
    virtual void close() = 0;

    // levels[service][category] >= severity; numbers outside the tables admit nothing.
    bool isLogEnabled(int service, int category, int severity) const;
    const std::string& getName() const { return name_; }
    // Without a format the appender never logs and is not registered.
    bool hasFormat() const { return format_ != nullptr; }

    // Registers `appender` under its name and takes ownership. When the name is
    // taken the registry keeps the first one and `appender` is deleted.
    static bool AddAppender(Appender* appender);
    // Snapshots of the registry, in name order.
    static std::map<std::string, Appender*> GetAppenderMap();
    static std::vector<Appender*> GetAllAppenders();
    static void DeleteAllAppenders();
    static bool IsRegistered(const std::string& name);

    // type + "-" + format + "-" + argument, from one "loggers" element.
    static std::string BuildName(const std::string& type, const Json::Value& config);
    // A member read as text: missing (or not convertible) gives "".
    static std::string ConfigText(const Json::Value& config, const char* key);

    Appender(const Appender&) = delete;
    Appender& operator=(const Appender&) = delete;

protected:
    // Reads "format" and "filters" of the configuration element.
    Appender(const std::string& type, const Json::Value& config);

    // The event as text in this appender's format ("" without one).
    std::string render(const LoggingEvent& event) const;

private:
    std::string name_;
    std::unique_ptr<Format> format_;
    int levels_[FilterProperties::kServiceCount][FilterProperties::kCategoryCount];
};

}  // namespace Core
}  // namespace Zel
