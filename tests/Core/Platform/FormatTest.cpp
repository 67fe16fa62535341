#include <gtest/gtest.h>

#include <string>

#include "Core/Platform/LoggingEvent.h"
#include "Core/Platform/LongFormat.h"
#include "Core/Platform/MediumFormat.h"
#include "Core/Platform/ShortFormat.h"
#include "Core/Platform/TerseFormat.h"
#include "Core/Platform/TestFormat.h"

namespace {

using namespace Zel::Core;

// 2024-03-01T12:00:00Z
constexpr long kNoon = 1709294400;

LoggingEvent event(const std::string& message, int service = 0, int category = 0, int severity = 4,
                   const std::string& function = "init",
                   const std::string& file = "Base/CoreManager", int line = 412,
                   Timestamp when = Timestamp(kNoon, 123456)) {
    return LoggingEvent(file, line, function, service, category, severity, message, "0a1b2c3d",
                        when);
}

std::string spaces(size_t n) {
    return std::string(n, ' ');
}

TEST(FormatTest, ShortPadsNamesAndKeepsLongerOnesWhole) {
    ShortFormat format;
    EXPECT_EQ("core  state      info    message text\n", format.format(event("message text")));
    EXPECT_EQ("gnsdk supervisor warning a\n", format.format(event("a", 5, 5, 3)));
    EXPECT_EQ("UNKNOWN UNKNOWN    UNKNOWN x\n", format.format(event("x", -1, 6, 7)));
    // The message is taken as it is, never as a format.
    EXPECT_EQ("drmp  webservice trace   100% %s\n", format.format(event("100% %s", 4, 3, 6)));
}

TEST(FormatTest, MediumShowsTimeToTheMillisecondAndFunction) {
    MediumFormat format;
    EXPECT_EQ("12:00:00.123 core  state      info    init()               message text\n",
              format.format(event("message text")));
    EXPECT_EQ("23:59:59.000 sv    flow       debug   aVeryLongFunctionName() m\n",
              format.format(event("m", 2, 1, 5, "aVeryLongFunctionName", "f", 1,
                                  Timestamp(kNoon + 43199, 999))));
    // Exactly the width: one separating blank, no more.
    EXPECT_EQ("00:00:00.999 su    test       fatal   functionNameOfEigh() m\n",
              format.format(event("m", 3, 4, 1, "functionNameOfEigh", "f", 1,
                                  Timestamp(kNoon + 43200, 999999))));
}

TEST(FormatTest, LongShowsDateThreadAndLocation) {
    LongFormat format;
    const std::string location = "Base/CoreManager:412-{init}";
    EXPECT_EQ("[ZEL] 2024-03-01T12:00:00.123456Z 0a1b2c3d core  state      info    " + location +
                  spaces(75 - location.size()) + " message text\n",
              format.format(event("message text")));

    const std::string longFile(70, 'd');
    EXPECT_EQ("[ZEL] 2024-03-01T12:00:00.000005Z 0a1b2c3d ds    clibapi    error   " + longFile +
                  ":-7-{fn} tail\n",
              format.format(event("tail", 1, 2, 2, "fn", longFile, -7, Timestamp(kNoon, 5))));
}

TEST(FormatTest, UnrepresentableTimeLeavesTheTimeTextEmpty) {
    const Timestamp never(1L << 62, 123456);
    EXPECT_EQ(" core  state      info    init()               m\n",
              MediumFormat().format(event("m", 0, 0, 4, "init", "f", 1, never)));
    EXPECT_EQ("[ZEL]  0a1b2c3d core  state      info    f:1-{init}" + spaces(65) + " m\n",
              LongFormat().format(event("m", 0, 0, 4, "init", "f", 1, never)));
    EXPECT_EQ("", LongFormat::TimeStamp(never));
}

TEST(FormatTest, TestFormatCarriesJsonMessagesAsJson) {
    TestFormat format;
    EXPECT_EQ(
        "{\"category\":\"test\",\"file\":\"Base/EventManager\",\"line\":88,\"message\":{"
        "\"coreEventQueued\":{\"event\":\"startsvsession\",\"parameters\":[1,\"x\"]}},\"method\":"
        "\"queue\",\"service\":\"core\",\"severity\":\"info\",\"threadName\":\"0a1b2c3d\","
        "\"timeStamp\":\"2024-03-01T12:00:00.123456Z\"}\n",
        format.format(event(
            "{\"coreEventQueued\": {\"event\": \"startsvsession\", \"parameters\": [1, \"x\"]}}", 0,
            4, 4, "queue", "Base/EventManager", 88)));

    const std::string head =
        "{\"category\":\"state\",\"file\":\"Base/CoreManager\",\"line\":412,\"message\":";
    const std::string tail =
        ",\"method\":\"init\",\"service\":\"core\",\"severity\":\"info\",\"threadName\":"
        "\"0a1b2c3d\",\"timeStamp\":\"2024-03-01T12:00:00.123456Z\"}\n";
    EXPECT_EQ(head + "\"***BAD JSON***\"" + tail, format.format(event("plain words")));
    EXPECT_EQ(head + "\"***BAD JSON***\"" + tail, format.format(event("{\"a\": ")));
    EXPECT_EQ(head + "42" + tail, format.format(event("42")));
    // Comments are accepted but not carried along.
    EXPECT_EQ(head + "{\"a\":1}" + tail, format.format(event("// note\n{\"a\": 1 /* one */}")));
}

TEST(FormatTest, TestFormatNamesOutOfTableNumbersUnknown) {
    EXPECT_EQ(
        "{\"category\":\"UNKNOWN\",\"file\":\"f\",\"line\":1,\"message\":[],\"method\":\"m\","
        "\"service\":\"UNKNOWN\",\"severity\":\"UNKNOWN\",\"threadName\":\"0a1b2c3d\","
        "\"timeStamp\":\"2024-03-01T12:00:00.123456Z\"}\n",
        TestFormat().format(event("[]", 9, 9, 9, "m", "f", 1)));
}

TEST(FormatTest, TerseIsTheBareMessage) {
    TerseFormat format;
    EXPECT_EQ("two\nlines\n", format.format(event("two\nlines", 9, 9, 9)));
}

}  // namespace
