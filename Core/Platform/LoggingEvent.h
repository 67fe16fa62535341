#pragma once

#include <string>

#include "Core/Platform/Thread.h"
#include "Core/Platform/Timestamp.h"

namespace Zel {
namespace Core {

// One log call, built once and handed to every admitting appender.
struct LoggingEvent {
    // The calling thread and the current time are taken here.
    LoggingEvent(const std::string& file, int line, const std::string& function, int service,
                 int category, int severity, const std::string& message)
        : LoggingEvent(file, line, function, service, category, severity, message,
                       ThreadUtil::GetThreadIdAsString(), Timestamp()) {}

    // A fixed thread and time, so that a rendered record is reproducible.
    LoggingEvent(const std::string& file, int line, const std::string& function, int service,
                 int category, int severity, const std::string& message,
                 const std::string& threadId, const Timestamp& timestamp)
        : file(file),
          line(line),
          function(function),
          service(service),
          category(category),
          severity(severity),
          message(message),
          threadId(threadId),
          timestamp(timestamp) {}

    std::string file;
    int line;
    std::string function;
    int service;
    int category;
    int severity;
    std::string message;
    std::string threadId;
    Timestamp timestamp;
};

}  // namespace Core
}  // namespace Zel
