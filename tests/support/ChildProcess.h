#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace ZelTest {

// A program run as a child process with its stdin and stdout on pipes, so a
// test can script it line by line and survive its crash or hang. A child
// still running at the end of the scope is killed.
class ChildProcess {
public:
    // How the child ended.
    struct Exit {
        bool exited = false;  // false: killed by `signal`
        int code = -1;
        int signal = 0;
        bool ok() const { return exited && code == 0; }
        std::string describe() const;
    };

    // Starts `program` with `args` (not counting argv[0]); stderr is shared.
    ChildProcess(const std::string& program, const std::vector<std::string>& args);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Writes `line` and a newline; false when the child no longer reads.
    bool writeLine(const std::string& line);
    // The next line of output without its newline; nothing when the output
    // ends or no line comes within `timeout`.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout);
    // Sends `signal` to the child unless it has been seen to end.
    void kill(int signal);
    // Waits for the child to end; nothing when it still runs after `timeout`.
    std::optional<Exit> wait(std::chrono::milliseconds timeout);

private:
    pid_t pid_ = -1;
    int pidfd_ = -1;
    int in_ = -1;   // the child's stdin
    int out_ = -1;  // the child's stdout
    std::string buffer_;
    std::optional<Exit> exit_;
};

}  // namespace ZelTest
