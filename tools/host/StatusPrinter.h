#pragma once

#include <string>

#include "zel.h"

// Turns a status record into one line, printing it only when it differs from
// the last one printed. A change of the session's state or code also gets a
// line of its own, so that the code is easy to spot.
class StatusPrinter {
public:
    // True when the line was new and printed.
    bool print(const ZelStatus& status);
    static std::string Describe(const ZelStatus& status);
    static const char* SessionStateName(uint32_t sessionState);

private:
    void printSession(const ZelStatus& status);

    std::string last_;
    std::string lastSession_;
};
