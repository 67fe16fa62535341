#include "tools/cloud/PayloadServer.h"

#include <algorithm>
#include <chrono>

#include "tools/cloud/PlainServer.h"

namespace ZelCloud {

namespace {

constexpr size_t kChunk = 64 * 1024;

// Digits only; saturates rather than wrapping. False for anything else.
bool ParseCount(const std::string& text, uint64_t& value) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    value = 0;
    for (char digit : text) {
        uint64_t next = value * 10 + static_cast<uint64_t>(digit - '0');
        value = value > (UINT64_MAX - 9) / 10 ? UINT64_MAX : next;
    }
    return true;
}

// An answer with payload bytes, as far as it has got; recorded when httplib is done with it.
struct Transfer {
    PayloadRequest record;
    bool drop = false;
};

}  // namespace

PayloadServer::PayloadServer(UpdateRegistry& updates, PayloadFaults& faults, Pause pause)
    : updates_(updates),
      faults_(faults),
      pause_(std::move(pause)),
      server_(new PlainServer),
      thread_(*server_) {
    server_->leaveRangesToHandlers();
    server_->set_keep_alive_max_count(1000000);
    server_->new_task_queue = [] { return new httplib::ThreadPool(16); };
    server_->Get(kPattern, [this](const httplib::Request& req, httplib::Response& res) {
        answer(req, res, std::string(), false);
    });
}

PayloadServer::~PayloadServer() {
    stop();
}

bool PayloadServer::bind(int port) {
    int bound = thread_.bind("127.0.0.1", port);
    if (bound < 0) {
        return false;
    }
    port_ = bound;
    return true;
}

void PayloadServer::start() {
    if (port_ >= 0 && !thread_.running()) {
        thread_.start();
    }
}

void PayloadServer::stop() {
    thread_.stop();
}

PayloadServer::Range PayloadServer::ParseRange(const std::string& header, uint64_t size,
                                               uint64_t& first, uint64_t& last) {
    static const std::string kUnit = "bytes=";
    if (header.compare(0, kUnit.size(), kUnit) != 0 || size == 0) {
        return Range::Whole;
    }
    std::string spec = header.substr(kUnit.size());
    size_t dash = spec.find('-');
    if (dash == std::string::npos) {
        return Range::Whole;
    }
    std::string from = spec.substr(0, dash);
    std::string to = spec.substr(dash + 1);
    uint64_t a = 0;
    uint64_t b = 0;
    if (from.empty()) {
        // The last b bytes.
        if (!ParseCount(to, b)) {
            return Range::Whole;
        }
        if (b == 0) {
            return Range::Unsatisfiable;
        }
        first = b >= size ? 0 : size - b;
        last = size - 1;
        return Range::Part;
    }
    if (!ParseCount(from, a) || (!to.empty() && (!ParseCount(to, b) || b < a))) {
        return Range::Whole;
    }
    if (a >= size) {
        return Range::Unsatisfiable;
    }
    first = a;
    last = to.empty() ? size - 1 : std::min(b, size - 1);
    return Range::Part;
}

void PayloadServer::answer(const httplib::Request& req, httplib::Response& res,
                           const std::string& cn, bool secure) {
    updates_.begin();
    PayloadRequest record;
    record.time = std::chrono::system_clock::now();
    record.id = req.matches.size() > 1 ? req.matches[1].str() : std::string();
    record.cn = cn;
    record.secure = secure;
    record.range = req.get_header_value("Range");
    res.set_header("Accept-Ranges", "bytes");

    std::shared_ptr<const std::string> payload = updates_.payload(record.id);
    if (!payload) {
        res.status = record.status = 404;
        res.set_content("no such payload\n", "text/plain");
        updates_.addRequest(record);
        return;
    }
    uint64_t size = payload->size();
    uint64_t first = 0;
    uint64_t last = size - 1;
    Range range = ParseRange(record.range, size, first, last);
    if (range == Range::Unsatisfiable) {
        res.status = record.status = 416;
        res.set_header("Content-Range", "bytes */" + std::to_string(size));
        updates_.addRequest(record);
        return;
    }

    PayloadFaults::Action action = faults_.take(record.id);
    if (action.delayMs > 0 && !pause_(action.delayMs)) {
        res.status = record.status = 503;
        record.fault = action.describe() + ", cut short by stop";
        updates_.addRequest(record);
        return;
    }
    if (action.status != 0 || action.hasBody) {
        res.status = record.status = action.status != 0 ? action.status : action.bodyStatus;
        res.set_content(action.status != 0 ? std::string("payload fault\n") : action.body,
                        action.status != 0 ? "text/plain" : "application/octet-stream");
        record.fault = action.describe();
        record.bytes = action.status != 0 ? 0 : action.body.size();
        updates_.addRequest(record);
        return;
    }
    uint64_t length = last - first + 1;
    // A dropped answer announces every byte and breaks off after half of them.
    uint64_t sending = action.drop ? length / 2 : length;
    if (sending > 0) {
        faults_.takeCorrupt(record.id, first, first + sending - 1, action);
    }
    res.status = record.status = range == Range::Part ? 206 : 200;
    if (range == Range::Part) {
        res.set_header("Content-Range", "bytes " + std::to_string(first) + "-" +
                                            std::to_string(last) + "/" + std::to_string(size));
    }
    record.fault = action.describe();

    auto transfer = std::make_shared<Transfer>();
    transfer->record = record;
    transfer->drop = action.drop;
    auto provide = [payload, first, sending, action, transfer](size_t offset, size_t,
                                                               httplib::DataSink& sink) {
        if (offset >= sending) {
            return false;  // only a dropped answer gets here: httplib closes the connection
        }
        size_t chunk = static_cast<size_t>(std::min<uint64_t>(kChunk, sending - offset));
        uint64_t at = first + offset;
        const char* data = payload->data() + at;
        std::string flipped;
        if (action.corrupt && action.offset >= at && action.offset < at + chunk) {
            flipped.assign(data, chunk);
            flipped[action.offset - at] = static_cast<char>(flipped[action.offset - at] ^ 0xff);
            data = flipped.data();
        }
        if (!sink.write(data, chunk)) {
            return false;
        }
        transfer->record.bytes += chunk;
        return true;
    };
    UpdateRegistry& updates = updates_;
    bool head = req.method == "HEAD";
    auto done = [&updates, transfer, head](bool success) {
        PayloadRequest& record = transfer->record;
        if (!success && !transfer->drop && !head) {
            record.fault += (record.fault.empty() ? "" : ", ");
            record.fault += "broken off after " + std::to_string(record.bytes) + " bytes";
        }
        updates.addRequest(record);
    };
    res.set_content_provider(static_cast<size_t>(length), "application/octet-stream", provide,
                             done);
}

}  // namespace ZelCloud
