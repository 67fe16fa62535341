#include "tools/cloud/SpeedTest.h"

#include <json/value.h>
#include <json/writer.h>

#include <algorithm>
#include <memory>
#include <random>
#include <utility>

#include "tools/cloud/TlsServer.h"

namespace ZelCloud {

namespace {

constexpr size_t kChunk = 64 * 1024;
constexpr size_t kMaxDigits = 18;

// Random bytes, so that nothing on the way can shrink the download.
const std::string& Pattern() {
    static const std::string* pattern = [] {
        std::mt19937 random(7);
        auto* bytes = new std::string(kChunk, '\0');
        for (char& byte : *bytes) {
            byte = static_cast<char>(random() & 0xff);
        }
        return bytes;
    }();
    return *pattern;
}

std::string Compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

void AddNote(RecordedRequest& record, const std::string& note) {
    record.note = record.note.empty() ? note : record.note + ", " + note;
}

// A download under way; recorded once httplib is done with it.
struct Transfer {
    RecordedRequest record;
    uint64_t size = 0;
    uint64_t sent = 0;
};

}  // namespace

SpeedTest::SpeedTest(RequestLog& log, Describe describe, Gate gate)
    : log_(log), describe_(std::move(describe)), gate_(std::move(gate)) {}

bool SpeedTest::ParseSize(const std::string& text, uint64_t& size) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    // Anything longer is past the cap anyway.
    size = text.size() > kMaxDigits ? kMaxBytes : std::min<uint64_t>(std::stoull(text), kMaxBytes);
    return true;
}

void SpeedTest::route(httplib::Server& server) {
    server.Get(kDownloadPath,
               [this](const httplib::Request& req, httplib::Response& res) { download(req, res); });
    server.Post(kUploadPath,
                [this](const httplib::Request& req, httplib::Response& res,
                       const httplib::ContentReader& reader) { upload(req, res, reader); });
}

void SpeedTest::download(const httplib::Request& req, httplib::Response& res) {
    log_.begin();
    RecordedRequest record = describe_(req);
    if (gate_(req, res, record)) {
        log_.add(record);
        return;
    }
    uint64_t size = kDefaultSize;
    if (req.has_param("size") && !ParseSize(req.get_param_value("size"), size)) {
        Json::Value error(Json::objectValue);
        error["error"] = "size must be a whole number of bytes";
        res.status = record.status = 400;
        res.set_content(Compact(error), "application/json");
        AddNote(record, "bad size");
        log_.add(record);
        return;
    }
    res.status = record.status = 200;
    if (size == 0) {
        res.set_content(std::string(), "application/octet-stream");
        AddNote(record, "0 bytes");
        log_.add(record);
        return;
    }
    auto transfer = std::make_shared<Transfer>();
    transfer->record = std::move(record);
    transfer->size = size;
    auto provide = [transfer](size_t offset, size_t, httplib::DataSink& sink) {
        size_t chunk = static_cast<size_t>(std::min<uint64_t>(kChunk, transfer->size - offset));
        if (!sink.write(Pattern().data(), chunk)) {
            return false;
        }
        transfer->sent += chunk;
        return true;
    };
    RequestLog& log = log_;
    auto done = [&log, transfer](bool success) {
        RecordedRequest& record = transfer->record;
        if (success && transfer->sent == transfer->size) {
            AddNote(record, std::to_string(transfer->size) + " bytes");
        } else {
            AddNote(record, "broken off after " + std::to_string(transfer->sent) + " of " +
                                std::to_string(transfer->size) + " bytes");
        }
        log.add(record);
    };
    res.set_content_provider(static_cast<size_t>(size), "application/octet-stream", provide, done);
}

void SpeedTest::upload(const httplib::Request& req, httplib::Response& res,
                       const httplib::ContentReader& reader) {
    log_.begin();
    RecordedRequest record = describe_(req);
    if (gate_(req, res, record)) {
        log_.add(record);
        return;
    }
    auto answer = [&](int status, const Json::Value& body, const std::string& note) {
        res.status = record.status = status;
        res.set_content(Compact(body), "application/json");
        if (status != 200) {
            // The rest of the body is never read: it must not be taken for a request.
            res.set_header("Connection", "close");
            TlsServer::CloseAfterAnswer();
        }
        AddNote(record, note);
        log_.add(record);
    };
    Json::Value error(Json::objectValue);
    error["error"] = "over " + std::to_string(kMaxBytes) + " bytes";
    if (req.has_header("Content-Length")) {
        std::string length = req.get_header_value("Content-Length");
        if (length.empty() || length.find_first_not_of("0123456789") != std::string::npos) {
            error["error"] = "Content-Length is no number";
            answer(400, error, "bad Content-Length");
            return;
        }
        if (length.size() > kMaxDigits || std::stoull(length) > kMaxBytes) {
            answer(413, error, "refused: Content-Length " + length);
            return;
        }
    }
    uint64_t received = 0;
    bool over = false;
    bool complete = reader([&](const char*, size_t size) {
        received += size;
        over = received > kMaxBytes;
        return !over;
    });
    if (over) {
        answer(413, error, "refused after " + std::to_string(received) + " bytes");
    } else if (!complete) {
        error["error"] = "the body broke off";
        answer(400, error, "broken off after " + std::to_string(received) + " bytes");
    } else {
        Json::Value body(Json::objectValue);
        body["received"] = static_cast<Json::UInt64>(received);
        answer(200, body, std::to_string(received) + " bytes");
    }
}

}  // namespace ZelCloud
