#include "KeyReader.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <string>

KeyReader::KeyReader(std::function<void()> onToggle) : onToggle_(std::move(onToggle)) {}

KeyReader::~KeyReader() {
    stop();
}

bool KeyReader::start() {
    if (isatty(STDIN_FILENO) != 1) {
        return false;
    }
    thread_ = std::thread(&KeyReader::run, this);
    return true;
}

void KeyReader::stop() {
    stopping_ = true;
    if (thread_.joinable()) {
        thread_.join();
    }
}

void KeyReader::run() {
    std::string line;
    while (!stopping_) {
        // A short poll rather than a blocking read, so that stop() can join.
        pollfd input{STDIN_FILENO, POLLIN, 0};
        int ready = poll(&input, 1, 200);
        if (ready < 0 && errno != EINTR) {
            return;
        }
        if (ready <= 0) {
            continue;
        }
        char buffer[256];
        ssize_t count = read(STDIN_FILENO, buffer, sizeof buffer);
        if (count <= 0) {
            return;  // end of input: the signal still toggles
        }
        line.append(buffer, static_cast<size_t>(count));
        for (size_t end; (end = line.find('\n')) != std::string::npos; line.erase(0, end + 1)) {
            std::string typed = line.substr(0, end);
            while (!typed.empty() && (typed.back() == ' ' || typed.back() == '\r')) {
                typed.pop_back();
            }
            if (typed == "s" || typed == "S") {
                onToggle_();
            }
        }
    }
}
