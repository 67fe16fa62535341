#include "tools/cloud/MultipartParser.h"

#include <strings.h>

#include <algorithm>
#include <utility>

namespace ZelCloud {

namespace {

// Input is taken in slices of this much, so that one large piece does not
// sit whole in the buffer next to a part being gathered.
constexpr size_t kSlice = 64 * 1024;
// More digits than any part size we accept could need.
constexpr size_t kMaxLengthDigits = 19;

std::string Trim(const std::string& text) {
    size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string::npos) {
        return std::string();
    }
    size_t end = text.find_last_not_of(" \t");
    return text.substr(begin, end - begin + 1);
}

bool SameName(const std::string& a, const char* b) {
    return strcasecmp(a.c_str(), b) == 0;
}

// The characters RFC 2046 allows in a boundary (a space only inside it).
bool BoundaryChar(char c) {
    if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')) {
        return true;
    }
    return std::string("'()+_,-./:=? ").find(c) != std::string::npos;
}

}  // namespace

MultipartParser::MultipartParser(std::string boundary, size_t maxPartBytes, size_t maxHeaderBytes,
                                 Sink sink)
    : delimiter_("--" + boundary),
      nextDelimiter_("\r\n--" + boundary),
      maxPartBytes_(maxPartBytes),
      maxHeaderBytes_(maxHeaderBytes),
      sink_(std::move(sink)) {}

const char* MultipartParser::Describe(Error error) {
    switch (error) {
        case Error::None:
            return "no error";
        case Error::FrameTooLarge:
            return "a frame over the size limit";
        case Error::HeaderTooLong:
            return "a part header over the size limit";
        case Error::BadHeader:
            return "a bad part header";
        case Error::NoDelimiter:
            return "no multipart delimiter where one must be";
    }
    return "unknown error";
}

bool MultipartParser::BoundaryOf(const std::string& contentType, std::string& boundary) {
    static const std::string kMultipart = "multipart/";
    if (contentType.size() < kMultipart.size() ||
        strncasecmp(contentType.c_str(), kMultipart.c_str(), kMultipart.size()) != 0) {
        return false;
    }
    size_t at = contentType.find(';');
    while (at != std::string::npos) {
        size_t next = contentType.find(';', at + 1);
        std::string parameter = Trim(contentType.substr(at + 1, next - at - 1));
        size_t equals = parameter.find('=');
        if (equals != std::string::npos &&
            SameName(Trim(parameter.substr(0, equals)), "boundary")) {
            std::string value = Trim(parameter.substr(equals + 1));
            if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
                value = value.substr(1, value.size() - 2);
            }
            if (value.empty() || value.size() > 70 || value.back() == ' ' ||
                !std::all_of(value.begin(), value.end(), BoundaryChar)) {
                return false;
            }
            boundary = value;
            return true;
        }
        at = next;
    }
    return false;
}

bool MultipartParser::feed(const char* data, size_t size) {
    for (size_t offset = 0; error_ == Error::None && offset < size; offset += kSlice) {
        buffer_.append(data + offset, std::min(kSlice, size - offset));
        while (step()) {
        }
        buffer_.erase(0, at_);
        at_ = 0;
    }
    return error_ == Error::None;
}

bool MultipartParser::fail(Error error) {
    error_ = error;
    buffer_.clear();
    at_ = 0;
    part_ = BodyPart();
    return false;
}

bool MultipartParser::step() {
    if (error_ != Error::None) {
        return false;
    }
    switch (state_) {
        case State::Delimiter:
            return delimiter();
        case State::AfterDelimiter:
            return afterDelimiter();
        case State::Headers:
            return headers();
        case State::SizedBody:
            return sizedBody();
        case State::ScannedBody:
            return scannedBody();
        case State::Epilogue:
            at_ = buffer_.size();
            return false;
    }
    return false;
}

// The line breaks before a delimiter (the one that ends a sized part, or a
// producer's leading one) are skipped; anything else must be the delimiter.
bool MultipartParser::delimiter() {
    while (at_ < buffer_.size() && (buffer_[at_] == '\r' || buffer_[at_] == '\n')) {
        ++at_;
    }
    size_t compared = std::min(available(), delimiter_.size());
    if (buffer_.compare(at_, compared, delimiter_, 0, compared) != 0) {
        return fail(Error::NoDelimiter);
    }
    if (compared < delimiter_.size()) {
        return false;
    }
    at_ += delimiter_.size();
    state_ = State::AfterDelimiter;
    return true;
}

// "--" closes the stream; otherwise only padding may follow on the delimiter's line.
bool MultipartParser::afterDelimiter() {
    if (available() < 2) {
        return false;
    }
    if (buffer_.compare(at_, 2, "--") == 0) {
        state_ = State::Epilogue;
        return true;
    }
    size_t end = buffer_.find("\r\n", at_);
    size_t lineEnd = end;
    if (end == std::string::npos) {
        // A last '\r' may be the first half of the line break.
        lineEnd = buffer_.size() - (buffer_.back() == '\r' ? 1 : 0);
    }
    // Too much padding is found before what follows it, however the bytes
    // arrive.
    size_t other = std::min(buffer_.find_first_not_of(" \t", at_), lineEnd);
    if (other - at_ > maxHeaderBytes_) {
        return fail(Error::HeaderTooLong);
    }
    if (other < lineEnd) {
        return fail(Error::NoDelimiter);
    }
    if (end == std::string::npos) {
        return false;
    }
    at_ = end + 2;
    state_ = State::Headers;
    headerBytes_ = 0;
    hasLength_ = false;
    length_ = 0;
    part_ = BodyPart();
    return true;
}

bool MultipartParser::headers() {
    size_t end = buffer_.find("\r\n", at_);
    if (end == std::string::npos) {
        if (headerBytes_ + available() > maxHeaderBytes_) {
            return fail(Error::HeaderTooLong);
        }
        return false;
    }
    std::string line = buffer_.substr(at_, end - at_);
    headerBytes_ += line.size() + 2;
    if (headerBytes_ > maxHeaderBytes_) {
        return fail(Error::HeaderTooLong);
    }
    at_ = end + 2;
    if (line.empty()) {
        scanned_ = 0;
        state_ = hasLength_ ? State::SizedBody : State::ScannedBody;
        return true;
    }
    return headerLine(line);
}

bool MultipartParser::headerLine(const std::string& line) {
    size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0) {
        return fail(Error::BadHeader);
    }
    std::string name = Trim(line.substr(0, colon));
    std::string value = Trim(line.substr(colon + 1));
    if (SameName(name, "Content-Type")) {
        part_.contentType = value;
    } else if (SameName(name, "Content-Length")) {
        if (value.empty() || value.size() > kMaxLengthDigits ||
            value.find_first_not_of("0123456789") != std::string::npos) {
            return fail(Error::BadHeader);
        }
        size_t length = static_cast<size_t>(std::stoull(value));
        if (hasLength_ && length != length_) {
            return fail(Error::BadHeader);
        }
        if (length > maxPartBytes_) {
            return fail(Error::FrameTooLarge);
        }
        hasLength_ = true;
        length_ = length;
    }
    return true;
}

bool MultipartParser::sizedBody() {
    size_t take = std::min(length_ - part_.body.size(), available());
    part_.body.append(buffer_, at_, take);
    at_ += take;
    if (part_.body.size() < length_) {
        return false;
    }
    emit();
    state_ = State::Delimiter;
    return true;
}

bool MultipartParser::scannedBody() {
    size_t found = buffer_.find(nextDelimiter_, at_ + scanned_);
    if (found == std::string::npos) {
        // The last few bytes may be the start of a delimiter still to come.
        size_t keep = nextDelimiter_.size() - 1;
        scanned_ = available() > keep ? available() - keep : 0;
        if (scanned_ > maxPartBytes_) {
            return fail(Error::FrameTooLarge);
        }
        return false;
    }
    if (found - at_ > maxPartBytes_) {
        return fail(Error::FrameTooLarge);
    }
    part_.body.assign(buffer_, at_, found - at_);
    at_ = found + 2;  // the delimiter itself is the next state's
    emit();
    state_ = State::Delimiter;
    return true;
}

void MultipartParser::emit() {
    if (!part_.body.empty()) {
        ++parts_;
        sink_(std::move(part_));
    }
    part_ = BodyPart();
}

}  // namespace ZelCloud
