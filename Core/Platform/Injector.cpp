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
    if (value.isArray()) {
        for (const Json::Value& header : value) {
            if (header.isString()) {
                headers.push_back(header.asString());
            }
        }
    } else if (value.isObject()) {
        for (const std::string& name : value.getMemberNames()) {
            const Json::Value& header = value[name];
            if (header.isString()) {
                headers.push_back(name + ": " + header.asString());
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
    if (value.isString()) {
        return value.asString();
    }
    return JsonUtil::Compact(value);
}

bool EndsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

Injector& Injector::Instance() {
    static Injector instance;
    return instance;
}

void Injector::initialize(const Json::Value& injectors) {
    std::vector<Entry> entries;
    if (injectors.isArray()) {
        for (const Json::Value& element : injectors) {
            if (!element.isObject() || !element["suffix"].isString()) {
                ZEL_LOG(ServiceCore, CategoryState, SeverityWarning,
                        "Injector entry without a suffix ignored");
                continue;
            }
            Entry entry;
            entry.suffix = element["suffix"].asString();
            const Json::Value& responses = element["responses"];
            if (responses.isArray()) {
                for (const Json::Value& item : responses) {
                    if (!item.isObject()) {
                        continue;
                    }
                    MockResponse response;
                    if (item["statusCode"].isIntegral()) {
                        response.statusCode = item["statusCode"].asInt();
                    }
                    response.headers = ReadHeaders(item["headers"]);
                    response.body = ReadBody(item["body"]);
                    if (item["duration"].isNumeric()) {
                        // Capped at a year: longer means "never", which a test cannot want.
                        response.duration =
                            std::min(std::max(0.0, item["duration"].asDouble()), 3.2e7);
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
        // Wait out the configured answer time; terminate() ends the wait early.
        auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                            std::chrono::duration<double>(answer.duration));
        unsigned generation = generation_;
        wake_.wait_until(lock, deadline, [&] { return generation_ != generation; });
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
