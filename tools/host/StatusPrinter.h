#pragma once

#include <string>

#include "zel.h"

// Turns a status record into one line, printing it only when it differs from
// the last one printed.
class StatusPrinter {
public:
    // True when the line was new and printed.
    bool print(const ZelStatus& status);
    static std::string Describe(const ZelStatus& status);

private:
    std::string last_;
};
