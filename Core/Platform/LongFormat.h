#pragma once

#include "Core/Platform/Format.h"

namespace Zel {
namespace Core {

class LongFormat : public Format {
public:
    std::string format(const LoggingEvent& event) override;

    // "%Y-%m-%dT%H:%M:%S.uuuuuuZ" in UTC; the test format carries the same text.
    static std::string TimeStamp(const Timestamp& timestamp);
};

}  // namespace Core
}  // namespace Zel
