#pragma once

#include <json/value.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace ZelCloud {

// The remote-support sessions of every device (by common name): tokens and
// codes, the tasks queued for each session and the results posted back. A
// session that ends stays listed as retired, so its token is still recognised.
// Long polls wait here for a task.
class SessionRegistry {
public:
    enum class State { Active, Suspended, Retired };

    struct Task {
        uint32_t seqNum = 0;  // 1, 2, 3... per session
        std::string request;  // the task request document as sent, text
        unsigned deliveries = 0;
    };

    struct Result {
        std::chrono::system_clock::time_point time;
        std::optional<uint32_t> taskSeqNum;  // the task its TASK_ID names, when it names one
        uint32_t seqNum = 0;                 // as the put call gave it
        std::string text;
        Json::Value document;  // null when the text is not JSON
    };

    struct Session {
        std::string device;
        std::string code;
        std::string token;
        State state = State::Active;
        unsigned digits = 0;
        bool allowSessionCodeBypass = false;
        uint32_t timeoutMs = 0;
        uint64_t opened = 0;        // order of opening, across devices
        uint32_t acknowledged = 0;  // tasks up to this one have reached the device
        unsigned polls = 0;         // gets being held
        std::vector<Task> tasks;    // tasks[i] has seqNum i + 1
        std::vector<Result> results;
    };

    // How a wait for a task ended.
    enum class Poll { Task, Unknown, Retired, Empty, Stopped };

    // Builds the text of task seqNum for the session with this code.
    using TaskBuilder = std::function<std::string(const std::string& code, uint32_t seqNum)>;
    using Predicate = std::function<bool(const Json::Value& sessions)>;

    // A new active session with a random code of `digits` digits; the device's
    // active session is retired. False when no random numbers can be had.
    bool open(const std::string& device, bool allowSessionCodeBypass, unsigned digits,
              uint32_t timeoutMs, Session& opened);
    // Each is false unless the token is a live (active or suspended) session of the device.
    bool terminate(const std::string& device, const std::string& token);
    bool suspend(const std::string& device, const std::string& token);
    // Makes the session active again; another active session of the device is retired.
    bool resume(const std::string& device, const std::string& token, uint32_t timeoutMs);

    // Waits up to `bound` for a task numbered above seqNum, which also acknowledges
    // every task up to seqNum. Task: `task` is filled in.
    Poll awaitTask(const std::string& device, const std::string& token, uint32_t seqNum,
                   std::chrono::milliseconds bound, Task& task);
    // Records a posted result; count becomes the number the session has had.
    // False unless the token is a live session of the device.
    bool addResult(const std::string& device, const std::string& token, uint32_t seqNum,
                   const std::string& text, uint32_t& count);

    // Queues a task for the device's active session; an empty device picks the
    // active session opened last. False, with a reason, without one.
    bool queueTask(const std::string& device, const TaskBuilder& build, uint32_t& seqNum,
                   std::string& error);

    // Every session, in order of opening.
    Json::Value toJson() const;
    // The session queueTask would pick, or null.
    Json::Value active(const std::string& device) const;
    // Waits until the predicate holds for toJson(); checked on every change, locked.
    bool waitFor(const Predicate& predicate, std::chrono::milliseconds timeout) const;

    // Releases every poll being held and makes later ones return at once.
    void stop();

    static const char* StateName(State state);

private:
    Session* find(const std::string& device, const std::string& token);
    const Session* pick(const std::string& device) const;
    void retireActive(const std::string& device);
    Json::Value toJsonLocked() const;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::list<Session> sessions_;  // stable addresses: held polls keep a pointer
    uint64_t nextOpened_ = 0;
    bool stopping_ = false;
};

}  // namespace ZelCloud
