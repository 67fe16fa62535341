#include "Core/Platform/StringSetUtil.h"

#include <gtest/gtest.h>
#include <json/reader.h>

using Zel::Core::StringSetUtil;
using Set = std::set<std::string>;

TEST(StringSetUtilTest, CsvBothWays) {
    EXPECT_EQ("", StringSetUtil::StringSetToCsvString(Set{}));
    EXPECT_EQ("a,b,c", StringSetUtil::StringSetToCsvString(Set{"c", "a", "b"}));

    Set set{"stale"};
    StringSetUtil::CsvStringToStringSet("", set);
    EXPECT_TRUE(set.empty());
    StringSetUtil::CsvStringToStringSet(" reboot , key press,,\tinfo\t,", set);
    EXPECT_EQ((Set{"reboot", "key press", "info"}), set);
    StringSetUtil::CsvStringToStringSet(" , ", set);
    EXPECT_TRUE(set.empty());
}

TEST(StringSetUtilTest, JsonBothWays) {
    Json::Value empty = StringSetUtil::StringSetToJsonArray(Set{});
    EXPECT_TRUE(empty.isArray());
    EXPECT_EQ(0u, empty.size());

    Json::Value array = StringSetUtil::StringSetToJsonArray(Set{"b", "a"});
    ASSERT_EQ(2u, array.size());
    EXPECT_EQ("a", array[0].asString());
    EXPECT_EQ("b", array[1].asString());

    Json::Value mixed;
    ASSERT_TRUE(Json::Reader().parse(R"(["one", 2, null, "one", {}, "three"])", mixed));
    Set set{"stale"};
    StringSetUtil::JsonArrayToStringSet(mixed, set);
    EXPECT_EQ((Set{"one", "three"}), set);

    StringSetUtil::JsonArrayToStringSet(Json::Value("not an array"), set);
    EXPECT_TRUE(set.empty());
}

TEST(StringSetUtilTest, Intersection) {
    EXPECT_FALSE(StringSetUtil::HasIntersection(Set{"a"}, Set{}));
    EXPECT_FALSE(StringSetUtil::HasIntersection(Set{"a", "b"}, Set{"c", "A"}));
    EXPECT_TRUE(StringSetUtil::HasIntersection(Set{"a", "b", "c"}, Set{"c"}));
    EXPECT_TRUE(StringSetUtil::HasIntersection(Set{"c"}, Set{"a", "b", "c"}));
}
