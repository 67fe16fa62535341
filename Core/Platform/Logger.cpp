// Placeholder until the logging framework lands: logs nothing.
#include "Core/Platform/Logger.h"

namespace Zel {
namespace Core {

Logger& Logger::Instance() {
    static Logger instance;
    return instance;
}

void Logger::initialize(Json::Value&) {}
void Logger::terminate() {}
bool Logger::test(int, int, int) { return false; }
void Logger::log(const std::string&, int, const std::string&, int, int, int, const char*, ...) {}
void Logger::vlog(const std::string&, int, const std::string&, int, int, int, const char*,
                  va_list) {}
void Logger::logJson(const std::string&, int, const std::string&, int, const Json::Value&) {}

}  // namespace Core
}  // namespace Zel
