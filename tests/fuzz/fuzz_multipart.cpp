// The media relay's reader of the agent's multipart upload: the first two
// bytes choose the part limit and the size of the pieces the rest arrives in.
// The frames and the verdict must not depend on the pieces, and no frame may
// break the limit. The rest is also read as an upload's Content-Type.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tools/cloud/MultipartParser.h"

using ZelCloud::MultipartParser;

namespace {

constexpr size_t kMaxHeader = 256;

void check(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "multipart property broken: %s\n", what);
        std::abort();
    }
}

struct Outcome {
    std::vector<std::string> parts;
    MultipartParser::Error error = MultipartParser::Error::None;
    bool closed = false;
};

Outcome Read(const std::string& input, size_t maxPart, size_t piece) {
    Outcome outcome;
    MultipartParser parser("zelframe", maxPart, kMaxHeader, [&](MultipartParser::BodyPart&& part) {
        outcome.parts.push_back(std::move(part.body));
    });
    bool ok = true;
    for (size_t at = 0; at < input.size(); at += piece) {
        bool fed = parser.feed(input.data() + at, std::min(piece, input.size() - at));
        check(ok || !fed, "a refused stream stays refused");
        ok = fed;
    }
    outcome.error = parser.error();
    outcome.closed = parser.closed();
    check(ok == (outcome.error == MultipartParser::Error::None), "feed says what error() says");
    return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    size_t maxPart = 1 + data[0] * 4u;
    size_t piece = 1 + data[1];
    std::string input(reinterpret_cast<const char*>(data) + 2, size - 2);

    Outcome whole = Read(input, maxPart, input.size() + 1);
    Outcome pieces = Read(input, maxPart, piece);
    check(whole.parts == pieces.parts, "the same parts however the bytes arrive");
    check(whole.error == pieces.error, "the same verdict however the bytes arrive");
    check(whole.closed == pieces.closed, "the same end however the bytes arrive");
    for (const std::string& part : whole.parts) {
        check(!part.empty() && part.size() <= maxPart, "parts are within the limit");
    }

    std::string boundary;
    if (MultipartParser::BoundaryOf(input, boundary)) {
        check(!boundary.empty() && boundary.size() <= 70, "a boundary RFC 2046 allows");
    }
    return 0;
}
