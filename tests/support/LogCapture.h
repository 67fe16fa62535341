#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "support/TempDir.h"

namespace ZelTest {

// One record of a log written in the "long" format.
struct LogRecord {
    int64_t micros = 0;  // wall-clock time since the epoch; 0 when none was written
    std::string severity;
    std::string location;  // "Base/CoreManager:412-{init}"
    std::string message;   // continuation lines included
};

// A log file in the long format that someone appends to.
class LogFile {
public:
    explicit LogFile(std::string path) : path_(std::move(path)) {}

    const std::string& path() const { return path_; }
    std::vector<LogRecord> records() const;
    std::vector<std::string> messages() const;
    size_t count(const std::string& message) const;
    // The first message that starts with `prefix`, or "".
    std::string find(const std::string& prefix) const;
    // Waits until `message` has been logged `times` times, woken by every write.
    bool waitFor(const std::string& message, size_t times = 1,
                 std::chrono::milliseconds timeout = std::chrono::seconds(20)) const;

    static LogRecord Parse(const std::string& line);

private:
    std::string path_;
};

// Routes every record up to `severity` into a file of its own for the scope.
class LogCapture : private TempDir, public LogFile {
public:
    explicit LogCapture(const std::string& severity = "trace");
    ~LogCapture();
    using LogFile::path;
};

}  // namespace ZelTest
