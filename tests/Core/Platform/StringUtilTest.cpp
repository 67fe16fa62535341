#include "Core/Platform/StringUtil.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Zel::Core::StringUtil;

std::string form(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = StringUtil::Vform(format, args);
    va_end(args);
    return text;
}

TEST(StringUtilTest, VformRendersTextsOfEveryLength) {
    EXPECT_EQ("answer 42 from core", form("answer %d from %s", 42, "core"));
    EXPECT_EQ("", form("%s", ""));
    EXPECT_EQ("", form(nullptr));

    // Around the sizes where the buffer has to grow, and far beyond.
    for (size_t length : {255u, 256u, 257u, 100000u}) {
        std::string text(length, 'x');
        text[length - 1] = 'y';
        EXPECT_EQ(text, form("%s", text.c_str())) << length;
        EXPECT_EQ("<" + text + ">7", form("<%s>%d", text.c_str(), 7)) << length;
    }
}

TEST(StringUtilTest, ToUpperCaseLeavesNonLettersAlone) {
    EXPECT_EQ("FILE-LONG-/TMP/AGENT_1.LOG", StringUtil::ToUpperCase("file-Long-/tmp/agent_1.log"));
    EXPECT_EQ(std::string("A\xe9Z\0b", 4) + "B",
              StringUtil::ToUpperCase(std::string("a\xe9z\0b", 5)));
}

}  // namespace
