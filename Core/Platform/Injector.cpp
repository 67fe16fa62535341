#include "Core/Platform/Injector.h"

#include <json/writer.h>

#include <algorithm>
#include <chrono>

#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"

namespace Zel {
namespace Core {

namespace {

constexpr const char* kLogSource = "Platform/Injector";

std::vector<std::string> ReadHeaders(const Json::Value& value) {
    std::vector<std::string> headers;
    std::string header;
    if (value.isArray()) {
        for (const Json::Value& item : value) {
            if (JsonUtil::GetString(item, header)) {
                headers.push_back(header);
            }
        }
    } else if (value.isObject()) {
        for (const std::string& name : value.getMemberNames()) {
            if (JsonUtil::GetString(JsonUtil::Member(value, name.c_str()), header)) {
                headers.push_back(name + ": " + header);
            }
        }
    }
    return headers;
}

// A string body is answered as it stands, JSON or not; a JSON value written
// into the configuration is answered as compact text.
std::string ReadBody(const Json::Value& value) {
    if (value.isNull()) {
        return "{}";
    }
    std::string text;
    if (JsonUtil::GetString(value, text)) {
        return text;
    }
    return JsonUtil::Compact(value);
}

bool EndsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

// Never destroyed: an agent thread may still ask it while the host exits.
Injector& Injector::Instance() {
    static Injector* instance = new Injector;
    return *instance;
}

void Injector::initialize(const Json::Value& injectors) {
    std::vector<Entry> entries;
    if (injectors.isArray()) {
        for (const Json::Value& element : injectors) {
            Entry entry;
            if (!JsonUtil::GetString(JsonUtil::Member(element, "suffix"), entry.suffix)) {
                ZEL_LOG(ServiceCore, CategoryState, SeverityWarning,
                        "Injector entry without a suffix ignored");
                continue;
            }
            const Json::Value& responses = JsonUtil::Member(element, "responses");
            if (responses.isArray()) {
                for (const Json::Value& item : responses) {
                    if (!item.isObject()) {
                        continue;
                    }
                    MockResponse response;
                    int64_t status = 0;
                    if (JsonUtil::GetInt64(JsonUtil::Member(item, "statusCode"), status) &&
                        status >= 0 && status <= 999) {
                        response.statusCode = static_cast<int>(status);
                    }
                    response.headers = ReadHeaders(JsonUtil::Member(item, "headers"));
                    response.body = ReadBody(JsonUtil::Member(item, "body"));
                    double duration = 0;
                    if (JsonUtil::GetDouble(JsonUtil::Member(item, "duration"), duration)) {
                        // Capped at a year: longer means "never", which a test cannot want.
                        response.duration = std::min(std::max(0.0, duration), 3.2e7);
                    }
                    entry.responses.push_back(std::move(response));
                }
            }
            if (entry.responses.empty()) {
                ZEL_LOG(ServiceCore, CategoryState, SeverityWarning,
                        "Injector entry %s without responses ignored", entry.suffix.c_str());
                continue;
            }
            ZEL_LOG(ServiceCore, CategoryState, SeverityDebug,
                    "Injector entry %s with %zu responses", entry.suffix.c_str(),
                    entry.responses.size());
            entries.push_back(std::move(entry));
        }
    } else if (!injectors.isNull()) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityWarning, "Injectors must be an array");
    }
    std::lock_guard<std::mutex> lock(mutex_);
    entries_ = std::move(entries);
}

void Injector::terminate() {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.clear();
    ++generation_;
    wake_.notify_all();
}

// The abort flag is set before this takes the mutex, so a waiter cannot miss it.
void Injector::wake() {
    std::lock_guard<std::mutex> lock(mutex_);
    wake_.notify_all();
}

bool Injector::mock(Http::Request& request, Http::Response& response) {
    response.mocked = false;
    std::unique_lock<std::mutex> lock(mutex_);
    auto entry = std::find_if(entries_.begin(), entries_.end(), [&](const Entry& candidate) {
        return EndsWith(request.url, candidate.suffix);
    });
    if (entry == entries_.end()) {
        return false;
    }
    size_t index = std::min(entry->useCount, entry->responses.size() - 1);
    MockResponse answer = entry->responses[index];
    ++entry->useCount;

    if (answer.duration > 0) {
        // Wait out the configured answer time; terminate() ends the wait
        // early, and so does wake() once the request is to be aborted.
        auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                            std::chrono::duration<double>(answer.duration));
        unsigned generation = generation_;
        auto aborted = [&] { return request.abort != nullptr && request.abort->load(); };
        wake_.wait_until(lock, deadline, [&] { return aborted() || generation_ != generation; });
    }
    lock.unlock();

    response.status = answer.statusCode;
    response.headers = std::move(answer.headers);
    response.body = std::move(answer.body);
    response.mocked = true;
    ZEL_LOG(ServiceCore, CategoryWebservice, SeverityDebug, "Injected response %zu (%ld) for %s",
            index + 1, response.status, request.url.c_str());
    return true;
}

}  // namespace Core
}  // namespace Zel
