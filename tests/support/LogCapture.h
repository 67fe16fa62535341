#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "support/TempDir.h"

namespace ZelTest {

// Routes every log record of every service and category, at the given
// severity and below, into a file in the "terse" format (the bare message),
// and reads the messages back.
// The logger is terminated again at the end of the scope.
class LogCapture {
public:
    explicit LogCapture(const std::string& severity = "trace");
    ~LogCapture();

    // The "loggers" array this capture installs; useful inside a whole
    // configuration document handed to ZelInit.
    static Json::Value LoggersConfig(const std::string& path, const std::string& severity);

    std::vector<std::string> messages() const;
    bool contains(const std::string& message) const;
    size_t count(const std::string& message) const;
    const std::string& path() const { return path_; }

private:
    TempDir dir_;
    std::string path_;
};

}  // namespace ZelTest
