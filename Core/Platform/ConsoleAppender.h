#pragma once

#include <ostream>

#include "Core/Platform/Appender.h"

namespace Zel {
namespace Core {

// Writes to standard output or standard error (any stream, for tests).
class ConsoleAppender : public Appender {
public:
    ConsoleAppender(const Json::Value& config, std::ostream& stream);
    ~ConsoleAppender() override;

    void doAppend(const LoggingEvent& event) override;
    void close() override;

private:
    std::ostream& stream_;
};

}  // namespace Core
}  // namespace Zel
