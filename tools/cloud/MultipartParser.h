#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace ZelCloud {

// Reads a multipart body ("multipart/x-mixed-replace", as the agent's stream
// sink sends its frames) piece by piece as it arrives, and hands out each
// complete part. A part's size comes from its Content-Length, or, without one,
// from where the next delimiter starts. Memory stays within one part plus one
// header section: anything larger, or anything that is not a delimiter where
// one must be, ends the stream for good.
class MultipartParser {
public:
    struct BodyPart {
        std::string contentType;  // "" when the part names none
        std::string body;
    };
    using Sink = std::function<void(BodyPart&& part)>;

    enum class Error {
        None,
        FrameTooLarge,  // a part over maxPartBytes, announced or found
        HeaderTooLong,  // a header section over maxHeaderBytes
        BadHeader,      // a header line without a colon, or a Content-Length that is no number
        NoDelimiter,    // other bytes where a delimiter must be
    };

    // The delimiter is "--" + boundary; empty parts are skipped.
    MultipartParser(std::string boundary, size_t maxPartBytes, size_t maxHeaderBytes, Sink sink);

    // Reads the next piece of the body; false once the stream is refused, for
    // this piece and every later one (error() says why).
    bool feed(const char* data, size_t size);
    Error error() const { return error_; }
    // The close delimiter has been seen: the rest is an epilogue, ignored.
    bool closed() const { return state_ == State::Epilogue; }
    size_t parts() const { return parts_; }

    static const char* Describe(Error error);
    // The boundary parameter of a multipart Content-Type header; false when the
    // type is not multipart or the boundary is missing or not one RFC 2046 allows.
    static bool BoundaryOf(const std::string& contentType, std::string& boundary);

private:
    enum class State { Delimiter, AfterDelimiter, Headers, SizedBody, ScannedBody, Epilogue };

    bool step();
    bool fail(Error error);
    bool delimiter();
    bool afterDelimiter();
    bool headers();
    bool headerLine(const std::string& line);
    bool sizedBody();
    bool scannedBody();
    void emit();
    size_t available() const { return buffer_.size() - at_; }

    const std::string delimiter_;      // "--" + boundary
    const std::string nextDelimiter_;  // "\r\n--" + boundary: ends a part without a length
    const size_t maxPartBytes_;
    const size_t maxHeaderBytes_;
    Sink sink_;

    State state_ = State::Delimiter;
    Error error_ = Error::None;
    std::string buffer_;  // unread bytes from at_ on
    size_t at_ = 0;
    size_t scanned_ = 0;  // ScannedBody: bytes past at_ known to hold no delimiter
    size_t headerBytes_ = 0;
    bool hasLength_ = false;
    size_t length_ = 0;
    BodyPart part_;
    size_t parts_ = 0;
};

}  // namespace ZelCloud
