#include "tools/cloud/SessionRegistry.h"

#include <json/reader.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "tools/cloud/RecordedRequest.h"
#include "tools/cloud/Service.h"
#include "tools/cloud/SnapshotWait.h"

namespace ZelCloud {

namespace {

bool RandomDigits(unsigned count, std::string& digits) {
    digits.clear();
    unsigned char random[32];
    while (digits.size() < count) {
        if (RAND_bytes(random, sizeof(random)) != 1) {
            return false;
        }
        for (unsigned char byte : random) {
            // Bytes from 250 up would favour the digits 0 to 5.
            if (byte < 250 && digits.size() < count) {
                digits += static_cast<char>('0' + byte % 10);
            }
        }
    }
    return true;
}

// The task a result answers, from its TASK_ID (a number, or a number as text).
std::optional<uint32_t> TaskNamed(const Json::Value& document, size_t tasks) {
    if (!document.isObject()) {
        return std::nullopt;
    }
    const Json::Value& id = document["TASK_ID"];
    unsigned long number = 0;
    if (id.isUInt()) {
        number = id.asUInt();
    } else if (id.isString()) {
        std::string text = id.asString();
        if (text.empty() || text.size() > 9 ||
            text.find_first_not_of("0123456789") != std::string::npos) {
            return std::nullopt;
        }
        number = std::stoul(text);
    } else {
        return std::nullopt;
    }
    if (number == 0 || number > tasks) {
        return std::nullopt;
    }
    return static_cast<uint32_t>(number);
}

Json::Value ResultToJson(const SessionRegistry::Result& result) {
    Json::Value value(Json::objectValue);
    value["time"] = RecordedRequest::FormatTime(result.time);
    value["taskSeqNum"] = result.taskSeqNum ? Json::Value(*result.taskSeqNum) : Json::Value();
    value["seqNum"] = result.seqNum;
    value["taskResponse"] = result.text;
    value["document"] = result.document;
    return value;
}

Json::Value SessionToJson(const SessionRegistry::Session& session) {
    Json::Value value(Json::objectValue);
    value["device"] = session.device;
    value["code"] = session.code;
    value["token"] = session.token;
    value["state"] = SessionRegistry::StateName(session.state);
    value["digits"] = session.digits;
    value["allowSessionCodeBypass"] = session.allowSessionCodeBypass;
    value["timeoutMs"] = session.timeoutMs;
    value["polls"] = session.polls;
    Json::Value tasks(Json::arrayValue);
    for (const SessionRegistry::Task& task : session.tasks) {
        Json::Value item(Json::objectValue);
        item["seqNum"] = task.seqNum;
        item["taskRequest"] = task.request;
        item["deliveries"] = task.deliveries;
        item["acknowledged"] = task.seqNum <= session.acknowledged;
        tasks.append(item);
    }
    value["tasks"] = tasks;
    Json::Value results(Json::arrayValue);
    for (const SessionRegistry::Result& result : session.results) {
        results.append(ResultToJson(result));
    }
    value["results"] = results;
    return value;
}

}  // namespace

const char* SessionRegistry::StateName(State state) {
    switch (state) {
        case State::Active:
            return "active";
        case State::Suspended:
            return "suspended";
        case State::Retired:
            return "retired";
    }
    return "unknown";
}

SessionRegistry::Session* SessionRegistry::find(const std::string& device,
                                                const std::string& token) {
    if (token.empty()) {
        return nullptr;
    }
    for (Session& session : sessions_) {
        if (session.token == token && session.device == device) {
            return &session;
        }
    }
    return nullptr;
}

const SessionRegistry::Session* SessionRegistry::pick(const std::string& device) const {
    const Session* chosen = nullptr;
    for (const Session& session : sessions_) {
        if (session.state == State::Active && (device.empty() || session.device == device) &&
            (chosen == nullptr || session.opened > chosen->opened)) {
            chosen = &session;
        }
    }
    return chosen;
}

void SessionRegistry::retireActive(const std::string& device) {
    for (Session& session : sessions_) {
        if (session.device == device && session.state == State::Active) {
            session.state = State::Retired;
        }
    }
}

bool SessionRegistry::open(const std::string& device, bool allowSessionCodeBypass, unsigned digits,
                           uint32_t timeoutMs, Session& opened) {
    Session session;
    if (!RandomDigits(digits, session.code) || !RandomHex(16, session.token)) {
        return false;
    }
    session.device = device;
    session.digits = digits;
    session.allowSessionCodeBypass = allowSessionCodeBypass;
    session.timeoutMs = timeoutMs;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        retireActive(device);
        session.opened = nextOpened_++;
        sessions_.push_back(session);
    }
    changed_.notify_all();
    opened = session;
    return true;
}

bool SessionRegistry::terminate(const std::string& device, const std::string& token) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Session* session = find(device, token);
        if (session == nullptr || session->state == State::Retired) {
            return false;
        }
        session->state = State::Retired;
    }
    changed_.notify_all();
    return true;
}

bool SessionRegistry::suspend(const std::string& device, const std::string& token) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Session* session = find(device, token);
        if (session == nullptr || session->state == State::Retired) {
            return false;
        }
        session->state = State::Suspended;
    }
    // A device suspends on its way out: its poll must not hold it up.
    changed_.notify_all();
    return true;
}

bool SessionRegistry::resume(const std::string& device, const std::string& token,
                             uint32_t timeoutMs) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Session* session = find(device, token);
        if (session == nullptr || session->state == State::Retired) {
            return false;
        }
        if (session->state != State::Active) {
            retireActive(device);
            session->state = State::Active;
        }
        session->timeoutMs = timeoutMs;
    }
    changed_.notify_all();
    return true;
}

SessionRegistry::Poll SessionRegistry::awaitTask(const std::string& device,
                                                 const std::string& token, uint32_t seqNum,
                                                 std::chrono::milliseconds bound, Task& task) {
    std::unique_lock<std::mutex> lock(mutex_);
    Session* session = find(device, token);
    if (session == nullptr) {
        return Poll::Unknown;
    }
    if (session->state == State::Retired) {
        return Poll::Retired;
    }
    // The device has every task up to the one it names. A device that starts
    // over from 0 (after a resume) is not sent the old tasks again.
    uint32_t queued = static_cast<uint32_t>(session->tasks.size());
    session->acknowledged = std::max(session->acknowledged, std::min(seqNum, queued));
    auto next = [session, seqNum] { return std::max(seqNum, session->acknowledged); };
    if (session->state == State::Active) {
        ++session->polls;
        changed_.notify_all();
        changed_.wait_for(lock, bound, [&] {
            return stopping_ || session->state != State::Active || session->tasks.size() > next();
        });
        --session->polls;
        changed_.notify_all();
    }
    if (session->state == State::Retired) {
        return Poll::Retired;
    }
    if (session->state == State::Active && session->tasks.size() > next()) {
        Task& found = session->tasks[next()];
        ++found.deliveries;
        task = found;
        return Poll::Task;
    }
    return stopping_ ? Poll::Stopped : Poll::Empty;
}

bool SessionRegistry::addResult(const std::string& device, const std::string& token,
                                uint32_t seqNum, const std::string& text, uint32_t& count) {
    Result result;
    result.time = std::chrono::system_clock::now();
    result.seqNum = seqNum;
    result.text = text;
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &result.document, &errors)) {
        result.document = Json::Value();
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Session* session = find(device, token);
        if (session == nullptr || session->state == State::Retired) {
            return false;
        }
        result.taskSeqNum = TaskNamed(result.document, session->tasks.size());
        session->results.push_back(std::move(result));
        count = static_cast<uint32_t>(session->results.size());
    }
    changed_.notify_all();
    return true;
}

bool SessionRegistry::queueTask(const std::string& device, const TaskBuilder& build,
                                uint32_t& seqNum, std::string& error) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Session* session = const_cast<Session*>(pick(device));
        if (session == nullptr) {
            error = device.empty() ? "no active session" : "no active session for " + device;
            return false;
        }
        Task task;
        task.seqNum = static_cast<uint32_t>(session->tasks.size() + 1);
        task.request = build(session->code, task.seqNum);
        session->tasks.push_back(task);
        seqNum = task.seqNum;
    }
    changed_.notify_all();
    return true;
}

Json::Value SessionRegistry::toJsonLocked() const {
    Json::Value list(Json::arrayValue);
    for (const Session& session : sessions_) {
        list.append(SessionToJson(session));
    }
    return list;
}

Json::Value SessionRegistry::toJson() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return toJsonLocked();
}

Json::Value SessionRegistry::active(const std::string& device) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const Session* session = pick(device);
    return session == nullptr ? Json::Value() : SessionToJson(*session);
}

bool SessionRegistry::waitFor(const Predicate& predicate, std::chrono::milliseconds timeout) const {
    return WaitForSnapshot(
        mutex_, changed_, [this] { return toJsonLocked(); }, predicate, timeout);
}

void SessionRegistry::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
}

}  // namespace ZelCloud
