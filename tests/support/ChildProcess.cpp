#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace ZelTest {

namespace {

using Clock = std::chrono::steady_clock;

bool readable(int fd, Clock::time_point deadline) {
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd entry{fd, POLLIN, 0};
        int ready = poll(&entry, 1, static_cast<int>(std::max<int64_t>(0, left.count())));
        if (ready != -1 || errno != EINTR) {
            return ready > 0;
        }
    }
}

}  // namespace

std::string ChildProcess::Exit::describe() const {
    return exited ? "exited with code " + std::to_string(code)
                  : "killed by signal " + std::to_string(signal) + " (" + strsignal(signal) + ")";
}

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args) {
    int input[2];
    int output[2];
    if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe2 failed");
    }
    in_ = input[1];
    out_ = output[0];
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    // The test's own descriptors (a cloud's listening socket) stay out of the child.
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    int failed = posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(input[0]);
    close(output[1]);
    if (failed == 0) {
        pidfd_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    }
    if (pidfd_ < 0) {
        close(in_);
        close(out_);
        throw std::runtime_error("cannot start " + program + ": " + strerror(failed));
    }
}

ChildProcess::~ChildProcess() {
    if (!exit_) {
        kill(SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    close(in_);
    close(out_);
    close(pidfd_);
}

void ChildProcess::kill(int signal) {
    // Through the pidfd: never a recycled pid.
    if (!exit_) {
        syscall(SYS_pidfd_send_signal, pidfd_, signal, nullptr, 0);
    }
}

bool ChildProcess::writeLine(const std::string& line) {
    // A child that is gone gives EPIPE (the test runner ignores SIGPIPE).
    std::string text = line + "\n";
    for (size_t done = 0; done < text.size();) {
        ssize_t written = write(in_, text.data() + done, text.size() - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        done += static_cast<size_t>(written);
    }
    return true;
}

std::optional<std::string> ChildProcess::readLine(std::chrono::milliseconds timeout) {
    auto deadline = Clock::now() + timeout;
    size_t end;
    while ((end = buffer_.find('\n')) == std::string::npos) {
        char chunk[4096];
        ssize_t got = readable(out_, deadline) ? read(out_, chunk, sizeof chunk) : 0;
        if (got == 0 || (got < 0 && errno != EINTR)) {
            return std::nullopt;  // the output ended, or no line came in time
        }
        buffer_.append(chunk, static_cast<size_t>(std::max<ssize_t>(0, got)));
    }
    std::string line = buffer_.substr(0, end);
    buffer_.erase(0, end + 1);
    return line;
}

std::optional<ChildProcess::Exit> ChildProcess::wait(std::chrono::milliseconds timeout) {
    int status = 0;
    if (!exit_ && readable(pidfd_, Clock::now() + timeout) && waitpid(pid_, &status, 0) == pid_) {
        exit_ = Exit{WIFEXITED(status), WIFEXITED(status) ? WEXITSTATUS(status) : -1,
                     WIFSIGNALED(status) ? WTERMSIG(status) : 0};
    }
    return exit_;
}

}  // namespace ZelTest
