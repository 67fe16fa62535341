#include "tools/cloud/StreamRegistry.h"

#include <algorithm>
#include <utility>

#include "tools/cloud/SnapshotWait.h"

namespace ZelCloud {

bool StreamRegistry::ValidName(const std::string& name) {
    if (name.empty() || name.size() > kMaxNameLength) {
        return false;
    }
    return std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '_' || c == '.' || c == '-';
    });
}

bool StreamRegistry::evictLocked() {
    if (streams_.size() < kMaxStreams) {
        return true;
    }
    // The stream idle the longest makes way; a connected one never does.
    auto oldest = streams_.end();
    for (auto it = streams_.begin(); it != streams_.end(); ++it) {
        if (it->second.upload == 0 &&
            (oldest == streams_.end() || it->second.lastActivity < oldest->second.lastActivity)) {
            oldest = it;
        }
    }
    if (oldest == streams_.end()) {
        return false;
    }
    streams_.erase(oldest);
    return true;
}

uint64_t StreamRegistry::attach(const std::string& name, int64_t producerId) {
    uint64_t upload = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopped_ || !ValidName(name) || (streams_.count(name) == 0 && !evictLocked())) {
            return 0;
        }
        Stream& stream = streams_[name];
        upload = ++uploads_;
        stream.upload = upload;
        stream.producerId = producerId;
        stream.lastActivity = Clock::now();
    }
    changed_.notify_all();
    return upload;
}

bool StreamRegistry::addFrame(const std::string& name, uint64_t upload, std::string bytes) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = streams_.find(name);
        if (stopped_ || it == streams_.end() || it->second.upload != upload) {
            return false;
        }
        Stream& stream = it->second;
        stream.bytes += bytes.size();
        stream.latest.seq += 1;
        stream.latest.bytes = std::make_shared<const std::string>(std::move(bytes));
        stream.lastFrame = stream.lastActivity = Clock::now();
    }
    changed_.notify_all();
    return true;
}

void StreamRegistry::detach(const std::string& name, uint64_t upload) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = streams_.find(name);
        if (it == streams_.end() || it->second.upload != upload) {
            return;
        }
        it->second.upload = 0;
        it->second.lastActivity = Clock::now();
    }
    changed_.notify_all();
}

bool StreamRegistry::latest(const std::string& name, Frame& frame) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = streams_.find(name);
    if (it == streams_.end() || it->second.latest.seq == 0) {
        return false;
    }
    frame = it->second.latest;
    return true;
}

StreamRegistry::Wait StreamRegistry::waitForFrame(const std::string& name, uint64_t after,
                                                  std::chrono::milliseconds timeout,
                                                  Frame& frame) const {
    std::unique_lock<std::mutex> lock(mutex_);
    bool found = changed_.wait_for(lock, timeout, [&] {
        if (stopped_) {
            return true;
        }
        auto it = streams_.find(name);
        return it != streams_.end() && it->second.latest.seq > after;
    });
    if (stopped_) {
        return Wait::Stopped;
    }
    if (!found) {
        return Wait::Timeout;
    }
    frame = streams_.find(name)->second.latest;
    return Wait::Frame;
}

Json::Value StreamRegistry::toJsonLocked() const {
    Json::Value list(Json::arrayValue);
    Clock::time_point now = Clock::now();
    for (const auto& entry : streams_) {
        const Stream& stream = entry.second;
        Json::Value item(Json::objectValue);
        item["name"] = entry.first;
        item["producerid"] = static_cast<Json::Int64>(stream.producerId);
        item["frames"] = static_cast<Json::UInt64>(stream.latest.seq);
        item["bytes"] = static_cast<Json::UInt64>(stream.bytes);
        item["connected"] = stream.upload != 0;
        if (stream.latest.seq == 0) {
            item["lastFrameAgeMs"] = Json::Value();
        } else {
            auto age =
                std::chrono::duration_cast<std::chrono::milliseconds>(now - stream.lastFrame);
            item["lastFrameAgeMs"] = static_cast<Json::Int64>(age.count());
        }
        list.append(item);
    }
    return list;
}

Json::Value StreamRegistry::toJson() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return toJsonLocked();
}

bool StreamRegistry::waitFor(const Predicate& predicate, std::chrono::milliseconds timeout) const {
    return WaitForSnapshot(
        mutex_, changed_, [this] { return toJsonLocked(); }, predicate, timeout);
}

bool StreamRegistry::stopped() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return stopped_;
}

void StreamRegistry::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopped_ = true;
    }
    changed_.notify_all();
}

}  // namespace ZelCloud
