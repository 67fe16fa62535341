#include "Core/Platform/Appender.h"

#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/LongFormat.h"
#include "Core/Platform/MediumFormat.h"
#include "Core/Platform/Mutex.h"
#include "Core/Platform/ShortFormat.h"
#include "Core/Platform/TerseFormat.h"
#include "Core/Platform/TestFormat.h"

namespace Zel {
namespace Core {

namespace {

struct Registry {
    Mutex AppenderMapMutex;
    std::map<std::string, Appender*> appenders;
};

// Never destroyed: a detached thread may still log while the process exits.
Registry& registry() {
    static Registry* instance = new Registry;
    return *instance;
}

std::unique_ptr<Format> makeFormat(const std::string& name) {
    if (name == "short")
        return std::make_unique<ShortFormat>();
    if (name == "medium")
        return std::make_unique<MediumFormat>();
    if (name == "long")
        return std::make_unique<LongFormat>();
    if (name == "test")
        return std::make_unique<TestFormat>();
    if (name == "terse")
        return std::make_unique<TerseFormat>();
    return nullptr;
}

}  // namespace

Appender::Appender(const std::string& type, const Json::Value& config)
    : name_(BuildName(type, config)), levels_{} {
    if (!config.isObject()) {
        return;
    }
    const Json::Value& filters = JsonUtil::Member(config, "filters");
    if (!filters.isArray()) {
        return;
    }
    format_ = makeFormat(ConfigText(config, "format"));
    if (!format_) {
        return;
    }
    for (const Json::Value& filter : filters) {
        if (!filter.isObject()) {
            continue;
        }
        int service = FilterProperties::GetServiceValue(ConfigText(filter, "service"));
        int category = FilterProperties::GetCategoryValue(ConfigText(filter, "category"));
        int severity = FilterProperties::GetSeverityValue(ConfigText(filter, "severity"));
        if (service != -1 && category != -1 && severity != -1) {
            levels_[service][category] = severity;
        }
    }
}

Appender::~Appender() {
    Registry& reg = registry();
    LockMutex lock(reg.AppenderMapMutex);
    // A rejected duplicate shares the name but must not unregister the original.
    auto found = reg.appenders.find(name_);
    if (found != reg.appenders.end() && found->second == this) {
        reg.appenders.erase(found);
    }
}

bool Appender::isLogEnabled(int service, int category, int severity) const {
    if (service < 0 || service >= FilterProperties::kServiceCount || category < 0 ||
        category >= FilterProperties::kCategoryCount) {
        return false;
    }
    return levels_[service][category] >= severity;
}

std::string Appender::render(const LoggingEvent& event) const {
    return format_ ? format_->format(event) : std::string();
}

bool Appender::AddAppender(Appender* appender) {
    if (appender == nullptr) {
        return false;
    }
    std::unique_ptr<Appender> rejected;
    {
        Registry& reg = registry();
        LockMutex lock(reg.AppenderMapMutex);
        if (reg.appenders.emplace(appender->getName(), appender).second) {
            return true;
        }
        rejected.reset(appender);
    }
    // Deleted outside the lock: the destructor takes it.
    return false;
}

std::map<std::string, Appender*> Appender::GetAppenderMap() {
    Registry& reg = registry();
    LockMutex lock(reg.AppenderMapMutex);
    return reg.appenders;
}

std::vector<Appender*> Appender::GetAllAppenders() {
    Registry& reg = registry();
    LockMutex lock(reg.AppenderMapMutex);
    std::vector<Appender*> all;
    all.reserve(reg.appenders.size());
    for (const auto& entry : reg.appenders) {
        all.push_back(entry.second);
    }
    return all;
}

void Appender::DeleteAllAppenders() {
    std::map<std::string, Appender*> doomed;
    {
        Registry& reg = registry();
        LockMutex lock(reg.AppenderMapMutex);
        doomed.swap(reg.appenders);
    }
    for (auto& entry : doomed) {
        delete entry.second;
    }
}

bool Appender::IsRegistered(const std::string& name) {
    Registry& reg = registry();
    LockMutex lock(reg.AppenderMapMutex);
    return reg.appenders.count(name) != 0;
}

std::string Appender::BuildName(const std::string& type, const Json::Value& config) {
    return type + "-" + ConfigText(config, "format") + "-" + ConfigText(config, "argument");
}

std::string Appender::ConfigText(const Json::Value& config, const char* key) {
    // Quietly: a logger that cannot be configured has nowhere to report to,
    // and the logger is busy configuring itself. A NUL would cut a file name
    // short and is refused like a wrong type.
    std::string text;
    JsonUtil::GetText(JsonUtil::Member(config, key), text);
    return text;
}

}  // namespace Core
}  // namespace Zel
