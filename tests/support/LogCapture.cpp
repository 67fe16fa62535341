#include "support/LogCapture.h"

#include <poll.h>
#include <sys/inotify.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "Core/Platform/Logger.h"
#include "support/Config.h"

namespace ZelTest {

namespace {

// "2024-03-01T12:00:00.123456Z" in microseconds, 0 when it is not a time.
int64_t ParseTime(const std::string& text) {
    tm utc{};
    const char* rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &utc);
    if (rest == nullptr || *rest != '.') {
        return 0;
    }
    return static_cast<int64_t>(timegm(&utc)) * 1000000 + std::atoll(rest + 1);
}

}  // namespace

LogRecord LogFile::Parse(const std::string& line) {
    LogRecord record;
    size_t at = 6;  // after "[ZEL] "
    auto next = [&]() {
        size_t start = line.find_first_not_of(' ', at);
        start = start == std::string::npos ? line.size() : start;
        at = std::min(line.find(' ', start), line.size());
        return line.substr(start, at - start);
    };
    if (line.compare(at, 1, " ") == 0) {
        ++at;  // no time: an empty field
    } else {
        record.micros = ParseTime(next());
    }
    next();  // thread, service and category
    next();
    next();
    record.severity = next();
    record.location = next();
    // The location is padded to 75 columns, then one blank.
    size_t message = at - record.location.size() + std::max<size_t>(75, record.location.size()) + 1;
    record.message = message < line.size() ? line.substr(message) : std::string();
    return record;
}

std::vector<LogRecord> LogFile::records() const {
    std::vector<LogRecord> result;
    std::istringstream in(ReadFile(path_));
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("[ZEL] ", 0) == 0 || result.empty()) {
            result.push_back(Parse(line));
        } else {
            result.back().message += "\n" + line;
        }
    }
    return result;
}

std::vector<std::string> LogFile::messages() const {
    std::vector<std::string> result;
    for (const LogRecord& record : records()) {
        result.push_back(record.message);
    }
    return result;
}

size_t LogFile::count(const std::string& message) const {
    std::vector<std::string> all = messages();
    return static_cast<size_t>(std::count(all.begin(), all.end(), message));
}

std::string LogFile::find(const std::string& prefix) const {
    for (const std::string& message : messages()) {
        if (message.rfind(prefix, 0) == 0) {
            return message;
        }
    }
    return std::string();
}

bool LogFile::waitFor(const std::string& message, size_t times,
                      std::chrono::milliseconds timeout) const {
    int fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    std::string dir = path_.substr(0, path_.rfind('/'));
    inotify_add_watch(fd, dir.c_str(), IN_MODIFY | IN_CREATE);
    auto deadline = std::chrono::steady_clock::now() + timeout;
    bool seen;
    while (!(seen = count(message) >= times)) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd entry{fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&entry, 1, static_cast<int>(left.count())) <= 0) {
            seen = count(message) >= times;
            break;
        }
        char events[4096];
        while (read(fd, events, sizeof events) > 0) {
        }
    }
    close(fd);
    return seen;
}

LogCapture::LogCapture(const std::string& severity) : LogFile(file("log")) {
    Zel::Core::Logger::Instance().terminate();
    Json::Value loggers = ConfigDoc().logTo(path(), severity).json()["loggers"];
    Zel::Core::Logger::Instance().initialize(loggers);
}

LogCapture::~LogCapture() {
    Zel::Core::Logger::Instance().terminate();
}

}  // namespace ZelTest
