#include "tools/cloud/RelayServer.h"

#include <strings.h>

#include <algorithm>
#include <chrono>

#include "tools/cloud/MultipartParser.h"
#include "tools/cloud/PlainServer.h"

namespace ZelCloud {

namespace {

// Uploads beyond the streams the registry keeps wait in httplib's queue.
constexpr size_t kWorkers = StreamRegistry::kMaxStreams + 8;
// A producer that sends nothing for this long has gone; a live screen sends
// several frames a second.
constexpr time_t kReadTimeoutSec = 15;
constexpr size_t kMaxDigits = 18;

// A whole number that fits in 64 bits, signed when `sign` allows a '-'.
bool ParseInteger(const std::string& text, bool sign, int64_t& value) {
    size_t digits = sign && !text.empty() && text[0] == '-' ? 1 : 0;
    if (text.size() == digits || text.size() - digits > kMaxDigits ||
        text.find_first_not_of("0123456789", digits) != std::string::npos) {
        return false;
    }
    value = std::stoll(text);
    return true;
}

bool IsJpeg(const std::string& contentType) {
    std::string type = contentType.substr(0, contentType.find(';'));
    type.erase(type.find_last_not_of(" \t") + 1);
    return type.empty() || strcasecmp(type.c_str(), "image/jpeg") == 0;
}

}  // namespace

RelayServer::RelayServer(StreamRegistry& streams, RequestLog& log)
    : streams_(streams), log_(log), server_(new PlainServer), thread_(*server_) {
    server_->new_task_queue = [] { return new httplib::ThreadPool(kWorkers); };
    server_->set_read_timeout(kReadTimeoutSec);
    server_->Post(kPattern,
                  [this](const httplib::Request& req, httplib::Response& res,
                         const httplib::ContentReader& reader) { upload(req, res, reader); });
}

RelayServer::~RelayServer() {
    stop();
}

bool RelayServer::bind(int port) {
    int bound = thread_.bind("127.0.0.1", port);
    if (bound < 0) {
        return false;
    }
    port_ = bound;
    return true;
}

void RelayServer::start() {
    if (port_ >= 0 && !thread_.running()) {
        thread_.start();
    }
}

void RelayServer::stop() {
    // The uploads never end by themselves: their connections are cut first.
    stopping_ = true;
    server_->closeConnections();
    thread_.stop();
}

void RelayServer::upload(const httplib::Request& req, httplib::Response& res,
                         const httplib::ContentReader& reader) {
    log_.begin();
    RecordedRequest record;
    record.time = std::chrono::system_clock::now();
    record.method = req.method;
    std::string name = req.matches.size() > 1 ? req.matches[1].str() : std::string();
    record.path = "/relay/streams/" + name;
    record.host = req.get_header_value("Host");
    for (const auto& header : req.headers) {
        record.headers.push_back(header.first + ": " + header.second);
    }
    auto finish = [&](int status, const std::string& note) {
        res.status = status;
        // An upload never ends by itself: what is left of it is no request.
        res.set_header("Connection", "close");
        PlainServer::CloseAfterAnswer();
        res.set_content(note + "\n", "text/plain");
        record.status = status;
        record.note = note;
        log_.add(record);
    };

    int64_t producerId = 0;
    int64_t maxBytes = 0;
    if (req.has_param("action") && req.get_param_value("action") != "publish") {
        finish(400, "only action=publish is served");
        return;
    }
    if (req.has_param("producerid") &&
        !ParseInteger(req.get_param_value("producerid"), true, producerId)) {
        finish(400, "producerid must be a whole number");
        return;
    }
    if (req.has_param("maxbytes") &&
        !ParseInteger(req.get_param_value("maxbytes"), false, maxBytes)) {
        finish(400, "maxbytes must be a whole number");
        return;
    }
    size_t limit = kMaxFrameBytes;
    if (maxBytes > 0) {
        limit = std::min(limit, static_cast<size_t>(maxBytes));
    }
    std::string boundary;
    if (!MultipartParser::BoundaryOf(req.get_header_value("Content-Type"), boundary)) {
        finish(415, "the body must be multipart with a boundary");
        return;
    }
    uint64_t handle = streams_.attach(name, producerId);
    if (handle == 0) {
        finish(503, "no room for another stream");
        return;
    }

    uint64_t received = 0;
    bool notJpeg = false;
    bool refused = false;  // replaced by a newer upload, or the cloud stops
    MultipartParser parser(boundary, limit, kMaxPartHeaderBytes,
                           [&](MultipartParser::BodyPart&& part) {
                               if (!IsJpeg(part.contentType)) {
                                   notJpeg = true;
                               } else if (!streams_.addFrame(name, handle, std::move(part.body))) {
                                   refused = true;
                               }
                           });
    bool complete = reader([&](const char* data, size_t size) {
        received += size;
        return parser.feed(data, size) && !notJpeg && !refused;
    });
    streams_.detach(name, handle);

    std::string counts = "producer " + std::to_string(producerId) + ", " +
                         std::to_string(parser.parts()) + " frames, " + std::to_string(received) +
                         " bytes";
    if (stopping_ || streams_.stopped()) {
        finish(503, "cut short by stop, " + counts);
    } else if (parser.error() != MultipartParser::Error::None) {
        bool tooLarge = parser.error() == MultipartParser::Error::FrameTooLarge;
        std::string why = MultipartParser::Describe(parser.error());
        if (tooLarge) {
            why += " of " + std::to_string(limit) + " bytes";
        }
        finish(tooLarge ? 413 : 400, "dropped: " + why + ", " + counts);
    } else if (notJpeg) {
        finish(415, "dropped: a part that is not image/jpeg, " + counts);
    } else if (refused) {
        finish(409, "replaced by a newer upload, " + counts);
    } else if (!complete) {
        finish(400, "broken off, " + counts);
    } else {
        finish(200, "ended, " + counts);
    }
}

}  // namespace ZelCloud
