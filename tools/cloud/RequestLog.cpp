#include "tools/cloud/RequestLog.h"

#include <cstdio>

namespace ZelCloud {

std::string RequestLog::FormatLine(const RecordedRequest& request) {
    std::string line = RecordedRequest::FormatTime(request.time);
    line += ' ';
    line += request.cn.empty() ? "-" : request.cn;
    line += ' ' + request.method + ' ' + request.path + " -> ";
    line += request.status == 0 ? std::string("dropped") : std::to_string(request.status);
    if (!request.note.empty()) {
        line += ' ' + request.note;
    }
    return line;
}

void RequestLog::begin() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++inFlight_;
    }
    changed_.notify_all();
}

void RequestLog::add(const RecordedRequest& request) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (inFlight_ > 0) {
            --inFlight_;
        }
        requests_.push_back(request);
        if (!quiet_) {
            // One write per line so concurrent handlers never interleave.
            std::string line = FormatLine(request) + "\n";
            fwrite(line.data(), 1, line.size(), stdout);
            fflush(stdout);
        }
    }
    changed_.notify_all();
}

std::vector<RecordedRequest> RequestLog::snapshot() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

size_t RequestLog::size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_.size();
}

void RequestLog::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.clear();
}

void RequestLog::setQuiet(bool quiet) {
    std::lock_guard<std::mutex> lock(mutex_);
    quiet_ = quiet;
}

bool RequestLog::waitForRequests(size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return requests_.size() >= count; });
}

bool RequestLog::waitFor(const Predicate& predicate, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return predicate(requests_); });
}

bool RequestLog::waitForInFlight(size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return inFlight_ >= count; });
}

}  // namespace ZelCloud
