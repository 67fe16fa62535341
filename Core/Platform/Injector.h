#pragma once

#include <json/value.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "Core/Platform/Http.h"

namespace Zel {
namespace Core {

// Answers requests from the "injectors" section of the configuration instead
// of the network: the first entry whose suffix ends the request URL answers
// with its responses in order, the last one repeating for ever.
class Injector {
public:
    static Injector& Instance();

    // Replaces every entry (and its use counter) with those of an "injectors" array.
    void initialize(const Json::Value& injectors);
    // Drops every entry and cuts short any answer still waiting out its "duration".
    void terminate();
    // Cuts short the answers waiting out their "duration" and keeps the entries;
    // a request whose abort flag is set then gets its answer at once.
    void wake();

    // True when an entry answered; the response is then filled and marked mocked.
    bool mock(Http::Request& request, Http::Response& response);

private:
    struct MockResponse {
        long statusCode = 200;
        std::vector<std::string> headers;
        std::string body;
        double duration = 0;  // seconds
    };
    struct Entry {
        std::string suffix;
        std::vector<MockResponse> responses;
        size_t useCount = 0;
    };

    Injector() = default;
    Injector(const Injector&) = delete;
    Injector& operator=(const Injector&) = delete;

    std::mutex mutex_;
    std::condition_variable wake_;
    unsigned generation_ = 0;  // bumped by terminate() to end every wait
    std::vector<Entry> entries_;
};

}  // namespace Core
}  // namespace Zel
