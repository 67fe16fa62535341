#pragma once

#include <atomic>
#include <functional>
#include <thread>

// Reads lines typed on the terminal and calls back for each line "s". Does
// nothing when stdin is not a terminal (a pipe or /dev/null in scripts).
class KeyReader {
public:
    explicit KeyReader(std::function<void()> onToggle);
    ~KeyReader();
    KeyReader(const KeyReader&) = delete;
    KeyReader& operator=(const KeyReader&) = delete;

    // False when stdin is no terminal and nothing was started.
    bool start();
    void stop();

private:
    void run();

    std::function<void()> onToggle_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};
