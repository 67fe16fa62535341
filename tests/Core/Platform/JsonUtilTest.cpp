#include "Core/Platform/JsonUtil.h"

#include <gtest/gtest.h>

#include <string>

#include "support/LogCapture.h"

using Zel::Core::JsonUtil;

namespace {
std::string nested(int depth, const std::string& inner = "1") {
    return std::string(depth, '[') + inner + std::string(depth, ']');
}
}  // namespace

TEST(JsonUtilTest, ParseRefusesWhatWouldThrowOrExhaust) {
    const struct {
        const char* name;
        std::string text;
        bool parses;
    } rows[] = {
        {"at the depth limit", nested(JsonUtil::kMaxDepth), true},
        {"one level deeper", nested(JsonUtil::kMaxDepth + 1), false},
        {"far deeper than jsoncpp's own limit", nested(100000), false},
        {"unbalanced opening brackets", std::string(100000, '{'), false},
        {"brackets inside strings do not count", "[\"" + std::string(500, '[') + "\\\"[\"]", true},
        {"over the size cap", "[" + std::string(JsonUtil::kMaxTextBytes, ' ') + "]", false},
        {"not JSON", "{\"a\": ", false},
        {"empty", "", false},
        {"number beyond a double", "[1e400]", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Json::Value value;
        EXPECT_EQ(row.parses, JsonUtil::Parse(row.text, value));
    }
    Json::Value value;
    EXPECT_FALSE(JsonUtil::Parse(static_cast<const char*>(nullptr), value));
}

TEST(JsonUtilTest, ReadersCheckTypeAndRangeBeforeConverting) {
    Json::Value values;
    ASSERT_TRUE(JsonUtil::Parse(
        R"([0, 4294967295, 4294967296, -1, 1.5, 1e300, "5", true, 3.0,
            9223372036854775807, 18446744073709551615, -9223372036854775808, 1e30])",
        values));
    const struct {
        int index;
        bool uint32;
        bool int64;
    } rows[] = {
        {0, true, true},    {1, true, true},   {2, false, true},   {3, false, true},
        {4, false, false},  {5, false, false}, {6, false, false},  {7, false, false},
        {8, true, true},    {9, false, true},  {10, false, false}, {11, false, true},
        {12, false, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(JsonUtil::Compact(values[row.index]));
        uint32_t u = 77;
        int64_t i = 77;
        EXPECT_EQ(row.uint32, JsonUtil::GetUInt32(values[row.index], u));
        EXPECT_EQ(row.int64, JsonUtil::GetInt64(values[row.index], i));
        if (!row.uint32) {
            EXPECT_EQ(77u, u);
        }
    }

    // Indexing a non-object by name would throw inside jsoncpp.
    EXPECT_TRUE(JsonUtil::Member(values, "key").isNull());
    EXPECT_TRUE(JsonUtil::Member(Json::Value("text"), "key").isNull());

    std::string text = "kept";
    EXPECT_FALSE(JsonUtil::GetString(Json::Value(std::string("a\0b", 3)), text));
    EXPECT_FALSE(JsonUtil::GetString(Json::Value(5), text));
    EXPECT_EQ("kept", text);
    EXPECT_TRUE(JsonUtil::GetText(Json::Value(5), text));
    EXPECT_EQ("5", text);
}

TEST(JsonUtilTest, MemberReadersKeepTheFieldAndSayWhy) {
    ZelTest::LogCapture capture;
    Json::Value document;
    ASSERT_TRUE(JsonUtil::Parse(
        R"({"path": "/data/zel\u0000/etc", "flag": [true], "number": -3, "ok": 1})", document));
    std::string path = "default";
    bool flag = true;
    uint32_t number = 9;
    EXPECT_FALSE(JsonUtil::ReadString(document, "path", path));
    EXPECT_FALSE(JsonUtil::ReadBool(document, "flag", flag));
    EXPECT_FALSE(JsonUtil::ReadUInt32(document, "number", number));
    EXPECT_FALSE(JsonUtil::ReadString(document, "missing", path));
    EXPECT_EQ("default", path);
    EXPECT_TRUE(flag);
    EXPECT_EQ(9u, number);
    EXPECT_TRUE(capture.contains("Value of \"path\" ignored: it holds a NUL character"));
    EXPECT_TRUE(capture.contains("Value of \"flag\" ignored: not a boolean"));
    EXPECT_TRUE(capture.contains("Value of \"number\" ignored: not a 32-bit unsigned number"));
    EXPECT_EQ(3u, capture.messages().size());
    EXPECT_TRUE(JsonUtil::ReadBool(document, "ok", flag));
}
