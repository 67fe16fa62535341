#include "Core/Platform/JsonUtil.h"

#include <gtest/gtest.h>

#include <string>

#include "support/TempDir.h"

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
        {"brackets inside strings do not count", "[\"" + std::string(500, '[') + "\\\"[\"]", true},
        {"over the size cap", "[" + std::string(JsonUtil::kMaxTextBytes, ' ') + "]", false},
        {"not JSON", "{\"a\": ", false},
        {"number beyond a double", "[1e400]", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Json::Value value;
        EXPECT_EQ(row.parses, JsonUtil::Parse(row.text, value));
    }
    // Refused by our own limit, before jsoncpp's throwing one is reached.
    const std::string deeper = nested(JsonUtil::kMaxDepth + 1);
    std::string why;
    Json::Value value;
    EXPECT_FALSE(JsonUtil::ParseQuietly(deeper.data(), deeper.data() + deeper.size(), value, why));
    EXPECT_EQ("nested deeper than 64 levels", why);
    EXPECT_FALSE(JsonUtil::Parse(static_cast<const char*>(nullptr), value));
}

TEST(JsonUtilTest, ReadersCheckTypeAndRangeBeforeConverting) {
    Json::Value values;
    // Each number with whether it reads as a uint32 ("u") and as an int64 ("i").
    ASSERT_TRUE(JsonUtil::Parse(
        R"([[4294967295, "ui"], [4294967296, "i"], [-1, "i"], [1.5, ""], [1e300, ""], ["5", ""],
            [true, ""], [3.0, "ui"], [18446744073709551615, ""], [-9223372036854775808, "i"]])",
        values));
    for (const Json::Value& row : values) {
        SCOPED_TRACE(JsonUtil::Compact(row));
        uint32_t u = 77;
        int64_t i = 77;
        std::string expected = row[1].asString();
        EXPECT_EQ(expected.find('u') == 0, JsonUtil::GetUInt32(row[0], u));
        EXPECT_EQ(expected.find('i') != std::string::npos, JsonUtil::GetInt64(row[0], i));
        EXPECT_EQ(expected.find('u') == 0 ? row[0].asUInt() : 77u, u);
    }

    // Indexing a non-object by name would throw inside jsoncpp.
    EXPECT_TRUE(JsonUtil::Member(values, "key").isNull());
    EXPECT_TRUE(JsonUtil::Member(Json::Value("text"), "key").isNull());

    std::string text = "kept";
    EXPECT_FALSE(JsonUtil::GetString(Json::Value(std::string("a\0b", 3)), text));
    EXPECT_FALSE(JsonUtil::GetString(Json::Value(5), text));
    EXPECT_EQ("kept", text);
}

TEST(JsonUtilTest, CompactOrderedFollowsTheMemberOrder) {
    Json::Value rows(Json::objectValue);
    rows["b"] = 1;
    rows["a"]["y"] = "x";
    rows["a"]["x"] = Json::Value(Json::arrayValue);
    rows["c"] = "\"quoted\"";
    JsonUtil::SetMemberOrder(rows, {"c", "missing", "a", "c"});
    Json::Value outer(Json::objectValue);
    outer["list"].append(rows);
    outer["list"].append(2.5);
    EXPECT_EQ(R"({"list":[{"c":"\"quoted\"","a":{"x":[],"y":"x"},"b":1},2.5]})",
              JsonUtil::CompactOrdered(outer));
    // An order member that is not a list of keys changes nothing.
    Json::Value odd(Json::objectValue);
    odd["z"] = 1;
    odd["a"] = 2;
    odd[JsonUtil::kMemberOrder] = 7;
    EXPECT_EQ(R"({"a":2,"z":1})", JsonUtil::CompactOrdered(odd));
}
