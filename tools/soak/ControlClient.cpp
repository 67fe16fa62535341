#include "ControlClient.h"

#include <exception>
#include <memory>

namespace {
constexpr long kConnectTimeoutMs = 2000;
// Publishing encrypts and signs a few MiB first; everything else is quick.
constexpr long kCallTimeoutMs = 20000;
}  // namespace

ControlClient::ControlClient(int port)
    : base_("http://127.0.0.1:" + std::to_string(port)), curl_(curl_easy_init()) {}

ControlClient::~ControlClient() {
    if (curl_ != nullptr) {
        curl_easy_cleanup(curl_);
    }
}

size_t ControlClient::Collect(char* data, size_t size, size_t count, void* target) {
    try {
        static_cast<std::string*>(target)->append(data, size * count);
        return size * count;
    } catch (...) {
        return 0;  // libcurl ends the transfer with a write error
    }
}

bool ControlClient::get(const std::string& path, Json::Value& answer, std::string& error) {
    return call(path, nullptr, answer, error);
}

bool ControlClient::post(const std::string& path, const Json::Value& body, Json::Value& answer,
                         std::string& error) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    std::string text = Json::writeString(writer, body);
    return call(path, &text, answer, error);
}

bool ControlClient::call(const std::string& path, const std::string* body, Json::Value& answer,
                         std::string& error) {
    try {
        return perform(path, body, answer, error);
    } catch (const std::exception& e) {
        error = path + ": " + e.what();
        return false;
    }
}

bool ControlClient::perform(const std::string& path, const std::string* body, Json::Value& answer,
                            std::string& error) {
    if (curl_ == nullptr) {
        error = "no libcurl handle";
        return false;
    }
    std::string url = base_ + path;
    std::string received;
    curl_easy_reset(curl_);
    curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
    // Loopback only: a proxy from the environment must not get in between.
    curl_easy_setopt(curl_, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);
    // No connection outlives its call: a kept one would come and go with the
    // cloud's keep-alive time-out and blur the descriptor count.
    curl_easy_setopt(curl_, CURLOPT_FORBID_REUSE, 1L);
    curl_easy_setopt(curl_, CURLOPT_CONNECTTIMEOUT_MS, kConnectTimeoutMs);
    curl_easy_setopt(curl_, CURLOPT_TIMEOUT_MS, kCallTimeoutMs);
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, &ControlClient::Collect);
    curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &received);
    curl_slist* headers = nullptr;
    if (body != nullptr) {
        headers = curl_slist_append(headers, "Content-Type: application/json");
        curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(curl_, CURLOPT_POSTFIELDS, body->c_str());
        curl_easy_setopt(curl_, CURLOPT_POSTFIELDSIZE, static_cast<long>(body->size()));
    }
    CURLcode code = curl_easy_perform(curl_);
    curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, nullptr);
    curl_slist_free_all(headers);
    std::string what = (body != nullptr ? "POST " : "GET ") + path;
    if (code != CURLE_OK) {
        error = what + ": " + curl_easy_strerror(code);
        return false;
    }
    long status = 0;
    curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &status);
    if (status < 200 || status > 299) {
        error = what + ": HTTP " + std::to_string(status) + " " + received.substr(0, 200);
        return false;
    }
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    if (!reader->parse(received.data(), received.data() + received.size(), &answer, &errors)) {
        error = what + ": not JSON: " + errors;
        return false;
    }
    return true;
}
