#pragma once

#include <json/value.h>

#include <cstdarg>
#include <string>

#include "Core/Platform/FunctionTrace.h"
#include "Core/Platform/Mutex.h"

namespace Zel {
namespace Core {

// Numbers passed by log calls; FilterProperties holds the names.
enum LogService : int {
    ServiceCore = 0,
    ServiceDs = 1,
    ServiceSv = 2,
    ServiceSu = 3,
    ServiceDrmp = 4,
    ServiceGnsdk = 5,
};

enum LogCategory : int {
    CategoryState = 0,
    CategoryFlow = 1,
    CategoryClibapi = 2,
    CategoryWebservice = 3,
    CategoryTest = 4,
    CategorySupervisor = 5,
};

enum LogSeverity : int {
    SeverityDisabled = 0,
    SeverityFatal = 1,
    SeverityError = 2,
    SeverityWarning = 3,
    SeverityInfo = 4,
    SeverityDebug = 5,
    SeverityTrace = 6,
};

// The one process-wide logger. Nothing is written until initialize() has
// applied a "loggers" array; the appenders are fixed until terminate().
class Logger {
public:
    static Logger& Instance();

    void initialize(Json::Value& loggers);
    void terminate();

    // Answers from the appenders' level tables, without formatting anything.
    bool test(int service, int category, int severity);

    void log(const std::string& file, int line, const std::string& function, int service,
             int category, int severity, const char* format, ...)
        __attribute__((format(printf, 8, 9)));
    void vlog(const std::string& file, int line, const std::string& function, int service,
              int category, int severity, const char* format, va_list args);

    // Structured record: compact JSON text as the message, category "test",
    // severity "info", so the test format carries it as an object.
    void logJson(const std::string& file, int line, const std::string& function, int service,
                 const Json::Value& record);

private:
    Logger() = default;
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    Mutex mutex_;
    bool initialized_ = false;
};

// Logs one line after a cheap test, so that a disabled line costs no formatting.
// Every .cpp that logs defines `kLogSource`, the source name its lines carry
// (for example "Base/CoreManager").
#define ZEL_LOG(service, category, severity, ...)                                          \
    do {                                                                                   \
        if (::Zel::Core::Logger::Instance().test((service), (category), (severity))) {     \
            ::Zel::Core::Logger::Instance().log(kLogSource, __LINE__, __func__, (service), \
                                                (category), (severity), __VA_ARGS__);      \
        }                                                                                  \
    } while (0)

// Logs "Function Enter" here and "Function Return" when the enclosing scope ends.
#define ZEL_TRACE(service) \
    ::Zel::Core::FunctionTrace zelFunctionTrace(__func__, kLogSource, __LINE__, (service))

}  // namespace Core
}  // namespace Zel
