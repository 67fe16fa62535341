#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Core/Platform/LongFormat.h"
#include "Core/Platform/MediumFormat.h"
#include "Core/Platform/ShortFormat.h"
#include "Core/Platform/TestFormat.h"

namespace {

using namespace Zel::Core;

constexpr long kNoon = 1709294400;  // 2024-03-01T12:00:00Z
const Timestamp kAtNoon(kNoon, 123456);
const Timestamp kNever(1L << 62, 123456);  // beyond what gmtime can show

struct Record {
    std::string message;
    int service = 0, category = 0, severity = 4;
    std::string function = "init", file = "Base/CoreManager";
    int line = 412;
    Timestamp when = kAtNoon;
};

std::string pad(const std::string& text, size_t width) {
    return text + std::string(width - text.size(), ' ');
}

TEST(FormatTest, EveryFormatRendersItsRecord) {
    const std::string testHead =
        "{\"category\":\"state\",\"file\":\"Base/CoreManager\",\"line\":412,\"message\":";
    const std::string testTail =
        ",\"method\":\"init\",\"service\":\"core\",\"severity\":\"info\",\"threadName\":"
        "\"0a1b2c3d\",\"timeStamp\":\"2024-03-01T12:00:00.123456Z\"}\n";
    const struct {
        const char* name;
        std::shared_ptr<Format> format;
        Record record;
        std::string expected;
    } rows[] = {
        {"the message is never a format",
         std::make_shared<ShortFormat>(),
         {"100% %s", 4, 3, 6},
         "drmp  webservice trace   100% %s\n"},
        {"medium shows milliseconds and the function",
         std::make_shared<MediumFormat>(),
         {"message text"},
         "12:00:00.123 core  state      info    init()               message text\n"},
        {"medium without a time",
         std::make_shared<MediumFormat>(),
         {"m", 0, 0, 4, "init", "f", 1, kNever},
         " core  state      info    init()               m\n"},
        {"long shows date, thread and location",
         std::make_shared<LongFormat>(),
         {"message text"},
         "[ZEL] 2024-03-01T12:00:00.123456Z 0a1b2c3d core  state      info    " +
             pad("Base/CoreManager:412-{init}", 75) + " message text\n"},
        {"test carries a JSON message as JSON",
         std::make_shared<TestFormat>(),
         {"// note\n{\"a\": [1, \"x\"] /* one */}"},
         testHead + "{\"a\":[1,\"x\"]}" + testTail},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Record& r = row.record;
        EXPECT_EQ(row.expected,
                  row.format->format(LoggingEvent(r.file, r.line, r.function, r.service, r.category,
                                                  r.severity, r.message, "0a1b2c3d", r.when)));
    }
}

}  // namespace
