#include "Core/Platform/ConsoleAppender.h"

namespace Zel {
namespace Core {

ConsoleAppender::ConsoleAppender(const Json::Value& config, std::ostream& stream)
    : Appender("console", config), stream_(stream) {}

ConsoleAppender::~ConsoleAppender() = default;

void ConsoleAppender::doAppend(const LoggingEvent& event) {
    // One insertion per record, so lines from other writers cannot split it.
    stream_ << render(event);
    stream_.flush();
}

// The standard streams belong to the process.
void ConsoleAppender::close() {}

}  // namespace Core
}  // namespace Zel
