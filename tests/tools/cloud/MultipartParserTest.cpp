// The relay's reader of the agent's endless multipart upload: what comes out
// must not depend on how the network cuts the bytes, and every limit holds.
#include "tools/cloud/MultipartParser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using ZelCloud::MultipartParser;
using Error = MultipartParser::Error;

constexpr size_t kMaxPart = 64;
constexpr size_t kMaxHeader = 80;

// A part as the agent's muxer writes it: delimiter, headers, body, line break.
std::string Sized(const std::string& body, const std::string& type = "image/jpeg") {
    return "--zelframe\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body + "\r\n";
}

// A part without a length: it ends where the next delimiter starts.
std::string Unsized(const std::string& body) {
    return "--zelframe\r\nContent-Type: image/jpeg\r\n\r\n" + body + "\r\n";
}

struct Outcome {
    std::vector<std::string> bodies;
    std::vector<std::string> types;
    Error error = Error::None;
    bool closed = false;
};

// Feeds the input in pieces that end at the given offsets.
Outcome Parse(const std::string& input, const std::vector<size_t>& cuts) {
    Outcome outcome;
    MultipartParser parser("zelframe", kMaxPart, kMaxHeader, [&](MultipartParser::BodyPart&& part) {
        outcome.bodies.push_back(part.body);
        outcome.types.push_back(part.contentType);
    });
    size_t at = 0;
    bool ok = true;
    for (size_t cut : cuts) {
        ok = parser.feed(input.data() + at, cut - at) && ok;
        at = cut;
    }
    ok = parser.feed(input.data() + at, input.size() - at) && ok;
    EXPECT_EQ(ok, parser.error() == Error::None);
    outcome.error = parser.error();
    outcome.closed = parser.closed();
    EXPECT_EQ(outcome.bodies.size(), parser.parts());
    return outcome;
}

TEST(MultipartParserTest, SameFramesHoweverTheBytesArrive) {
    const struct {
        const char* name;
        std::string input;
        std::vector<std::string> bodies;
        Error error;
        bool closed;
    } rows[] = {
        {"sized parts",
         Sized("frame one") + Sized("frame two"),
         {"frame one", "frame two"},
         Error::None,
         false},
        {"a leading line break", "\r\n" + Sized("one"), {"one"}, Error::None, false},
        {"parts without a length",
         Unsized("one") + Unsized("two") + "--zelframe--\r\n",
         {"one", "two"},
         Error::None,
         true},
        {"both kinds",
         Unsized("one") + Sized("two") + Unsized("three") + "--zelframe\r\n",
         {"one", "two", "three"},
         Error::None,
         false},
        {"a last part not yet ended", Sized("one") + Unsized("two"), {"one"}, Error::None, false},
        {"a length covers a delimiter",
         Sized("x\r\n--zelframe\r\ny"),
         {"x\r\n--zelframe\r\ny"},
         Error::None,
         false},
        {"a delimiter only after a line break",
         Unsized("a--zelframe") + "--zelframe\r\n",
         {"a--zelframe"},
         Error::None,
         false},
        {"padding after the delimiter",
         "--zelframe \t\r\nContent-Length: 2\r\n\r\nab\r\n",
         {"ab"},
         Error::None,
         false},
        {"no headers at all", "--zelframe\r\n\r\nab\r\n--zelframe\r\n", {"ab"}, Error::None, false},
        {"empty parts are skipped",
         Sized("") + Unsized("") + Sized("x"),
         {"x"},
         Error::None,
         false},
        {"an epilogue after the close",
         Sized("x") + "--zelframe--garbage\r\n--zelframe\r\n",
         {"x"},
         Error::None,
         true},
        {"largest part",
         Sized(std::string(kMaxPart, 'm')),
         {std::string(kMaxPart, 'm')},
         Error::None,
         false},
        {"a length over the limit",
         Sized("ok") + Sized(std::string(kMaxPart + 1, 'b')),
         {"ok"},
         Error::FrameTooLarge,
         false},
        {"an unsized part over the limit",
         Sized("ok") + Unsized(std::string(kMaxPart + 1, 'b')) + "--zelframe\r\n",
         {"ok"},
         Error::FrameTooLarge,
         false},
        {"an unsized part that never ends",
         Unsized(std::string(10 * kMaxPart, 'b')),
         {},
         Error::FrameTooLarge,
         false},
        {"garbage first", "GET / HTTP/1.1\r\n\r\n" + Sized("x"), {}, Error::NoDelimiter, false},
        {"a longer boundary", "--zelframe2\r\n\r\nx\r\n", {}, Error::NoDelimiter, false},
        {"no delimiter after a sized part",
         Sized("x") + "junk" + Sized("y"),
         {"x"},
         Error::NoDelimiter,
         false},
        {"a header section that never ends",
         "--zelframe\r\nX-Pad: " + std::string(kMaxHeader, 'h') + "\r\n\r\nx\r\n",
         {},
         Error::HeaderTooLong,
         false},
        {"a header line that never ends",
         "--zelframe\r\nX-Pad: " + std::string(1000, 'h'),
         {},
         Error::HeaderTooLong,
         false},
        {"endless padding", "--zelframe" + std::string(1000, ' '), {}, Error::HeaderTooLong, false},
        {"too much padding, then other bytes",
         "--zelframe" + std::string(kMaxHeader + 1, ' ') + "x\r\n",
         {},
         Error::HeaderTooLong,
         false},
        {"padding, then other bytes", "--zelframe  x\r\n", {}, Error::NoDelimiter, false},
        {"a header without a colon",
         "--zelframe\r\nContent-Length 2\r\n\r\nab\r\n",
         {},
         Error::BadHeader,
         false},
        {"a length that is no number",
         "--zelframe\r\nContent-Length: 2a\r\n\r\nab\r\n",
         {},
         Error::BadHeader,
         false},
        {"a negative length",
         "--zelframe\r\nContent-Length: -2\r\n\r\nab\r\n",
         {},
         Error::BadHeader,
         false},
        {"a length of twenty digits",
         "--zelframe\r\nContent-Length: 18446744073709551617\r\n\r\nab\r\n",
         {},
         Error::BadHeader,
         false},
        {"two lengths that differ",
         "--zelframe\r\nContent-Length: 2\r\nContent-Length: 3\r\n\r\nabc\r\n",
         {},
         Error::BadHeader,
         false},
        {"nothing after an error counts",
         "junk" + Sized("x") + Sized("y"),
         {},
         Error::NoDelimiter,
         false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Outcome whole = Parse(row.input, {});
        EXPECT_EQ(row.bodies, whole.bodies);
        EXPECT_EQ(row.error, whole.error);
        EXPECT_EQ(row.closed, whole.closed);
        for (size_t cut = 1; cut < row.input.size(); ++cut) {
            SCOPED_TRACE("cut at " + std::to_string(cut));
            Outcome split = Parse(row.input, {cut});
            ASSERT_EQ(whole.bodies, split.bodies);
            ASSERT_EQ(whole.error, split.error);
        }
        std::vector<size_t> everyByte;
        for (size_t cut = 1; cut < row.input.size(); ++cut) {
            everyByte.push_back(cut);
        }
        Outcome bytes = Parse(row.input, everyByte);
        EXPECT_EQ(whole.bodies, bytes.bodies);
        EXPECT_EQ(whole.error, bytes.error);
    }
}

TEST(MultipartParserTest, PartsCarryTheirType) {
    Outcome outcome = Parse(Sized("a", "image/png") + Unsized("b") + "--zelframe\r\n", {});
    EXPECT_EQ((std::vector<std::string>{"image/png", "image/jpeg"}), outcome.types);
}

TEST(MultipartParserTest, AnErrorIsFinal) {
    MultipartParser parser("zelframe", kMaxPart, kMaxHeader, [](MultipartParser::BodyPart&&) {
        ADD_FAILURE() << "no part after an error";
    });
    EXPECT_FALSE(parser.feed("junk", 4));
    std::string good = Sized("x");
    EXPECT_FALSE(parser.feed(good.data(), good.size()));
    EXPECT_EQ(Error::NoDelimiter, parser.error());
}

TEST(MultipartParserTest, BoundaryFromTheContentType) {
    const struct {
        const char* contentType;
        const char* boundary;  // nullptr: refused
    } rows[] = {
        {"multipart/x-mixed-replace; boundary=zelframe", "zelframe"},
        {"multipart/x-mixed-replace;boundary=\"zel frame\"", "zel frame"},
        {"Multipart/X-Mixed-Replace; charset=x; BOUNDARY = b", "b"},
        {"multipart/mixed; boundary=a'()+_,-./:=?z", "a'()+_,-./:=?z"},
        {"multipart/x-mixed-replace", nullptr},
        {"multipart/x-mixed-replace; boundary=", nullptr},
        {"multipart/x-mixed-replace; boundary=\"\"", nullptr},
        {"multipart/x-mixed-replace; boundary=\"trailing \"", nullptr},
        {"multipart/x-mixed-replace; boundary=a@b", nullptr},
        {"multipart/x-mixed-replace; boundary=a\r\nb", nullptr},
        {"image/jpeg; boundary=zelframe", nullptr},
        {"", nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.contentType);
        std::string boundary = "unchanged";
        EXPECT_EQ(row.boundary != nullptr, MultipartParser::BoundaryOf(row.contentType, boundary));
        if (row.boundary != nullptr) {
            EXPECT_EQ(row.boundary, boundary);
        }
    }
    std::string longest(70, 'b');
    std::string boundary;
    EXPECT_TRUE(MultipartParser::BoundaryOf("multipart/mixed; boundary=" + longest, boundary));
    EXPECT_FALSE(
        MultipartParser::BoundaryOf("multipart/mixed; boundary=" + longest + "b", boundary));
}

}  // namespace
