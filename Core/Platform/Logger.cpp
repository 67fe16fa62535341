#include "Core/Platform/Logger.h"

#include <json/writer.h>
#include <syslog.h>

#include <iostream>
#include <memory>
#include <vector>

#include "Core/Platform/Appender.h"
#include "Core/Platform/ConsoleAppender.h"
#include "Core/Platform/FileAppender.h"
#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/LoggingEvent.h"
#include "Core/Platform/StringUtil.h"
#include "Core/Platform/SyslogAppender.h"

namespace Zel {
namespace Core {

namespace {

constexpr mode_t kLogFileMode = 0644;

// One element of the "loggers" array. Elements that cannot produce a working
// appender are dropped without a word: the logger has nowhere to report to.
void createAppender(const Json::Value& element) {
    if (!element.isObject()) {
        return;
    }
    std::string argument = Appender::ConfigText(element, "argument");
    if (argument.empty()) {
        return;
    }
    std::string type = Appender::ConfigText(element, "type");
    // A repeated entry would be rejected by the registry anyway; not building
    // it spares the first one a truncated file or a closed syslog connection.
    if (Appender::IsRegistered(Appender::BuildName(type, element))) {
        return;
    }

    std::unique_ptr<Appender> appender;
    if (type == "console") {
        if (argument == "stdout") {
            appender = std::make_unique<ConsoleAppender>(element, std::cout);
        } else if (argument == "stderr") {
            appender = std::make_unique<ConsoleAppender>(element, std::cerr);
        }
    } else if (type == "file") {
        bool appendFlag = false;
        JsonUtil::GetFlag(JsonUtil::Member(element, "append"), appendFlag);
        appender = std::make_unique<FileAppender>(element, argument, appendFlag, kLogFileMode);
    } else if (type == "syslog") {
        appender = std::make_unique<SyslogAppender>(element, argument, LOG_USER);
    }

    if (appender && appender->hasFormat()) {
        Appender::AddAppender(appender.release());
    }
}

}  // namespace

Logger& Logger::Instance() {
    // Never destroyed: detached threads may still log while the process exits.
    static Logger* instance = new Logger;
    return *instance;
}

void Logger::initialize(Json::Value& loggers) {
    LockMutex lock(mutex_);
    const Json::Value& elements = loggers;
    if (initialized_ || !elements.isArray()) {
        return;
    }
    for (const Json::Value& element : elements) {
        createAppender(element);
    }
    initialized_ = true;
}

void Logger::terminate() {
    LockMutex lock(mutex_);
    if (initialized_) {
        Appender::DeleteAllAppenders();
        initialized_ = false;
    }
}

bool Logger::test(int service, int category, int severity) {
    LockMutex lock(mutex_);
    if (!initialized_) {
        return false;
    }
    for (Appender* appender : Appender::GetAllAppenders()) {
        if (appender->isLogEnabled(service, category, severity)) {
            return true;
        }
    }
    return false;
}

void Logger::log(const std::string& file, int line, const std::string& function, int service,
                 int category, int severity, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vlog(file, line, function, service, category, severity, format, args);
    va_end(args);
}

void Logger::vlog(const std::string& file, int line, const std::string& function, int service,
                  int category, int severity, const char* format, va_list args) {
    // Held throughout: appenders and formats rely on never being entered twice.
    LockMutex lock(mutex_);
    if (!initialized_) {
        return;
    }
    std::vector<Appender*> targets;
    for (Appender* appender : Appender::GetAllAppenders()) {
        if (appender->isLogEnabled(service, category, severity)) {
            targets.push_back(appender);
        }
    }
    if (targets.empty()) {
        return;
    }
    LoggingEvent event(file, line, function, service, category, severity,
                       StringUtil::Vform(format, args));
    for (Appender* appender : targets) {
        appender->doAppend(event);
    }
}

void Logger::logJson(const std::string& file, int line, const std::string& function, int service,
                     const Json::Value& record) {
    if (!test(service, CategoryTest, SeverityInfo)) {
        return;
    }
    Json::FastWriter writer;
    writer.omitEndingLineFeed();
    std::string text = writer.write(record);
    log(file, line, function, service, CategoryTest, SeverityInfo, "%s", text.c_str());
}

}  // namespace Core
}  // namespace Zel
