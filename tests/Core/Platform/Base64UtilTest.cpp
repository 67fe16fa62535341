#include "Core/Platform/Base64Util.h"

#include <gtest/gtest.h>

using Zel::Core::Base64Util;

TEST(Base64UtilTest, Vectors) {
    std::string all;
    for (int i = 0; i < 256; ++i) {
        all.push_back(static_cast<char>(i));
    }
    std::string wrapped;  // PEM-style lines
    for (size_t i = 0; i < Base64Util::Encode(all).size(); i += 64) {
        wrapped += Base64Util::Encode(all).substr(i, 64) + "\r\n";
    }
    const struct {
        const char* name;
        std::string text;
        bool decodes;
        std::string bytes;
        bool canonical;  // what Encode gives for the bytes
    } rows[] = {
        // The examples of RFC 4648.
        {"empty", "", true, "", true},
        {"one byte", "Zg==", true, "f", true},
        {"six bytes", "Zm9vYmFy", true, "foobar", true},
        {"both extra symbols", "+/+/", true, std::string("\xfb\xff\xbf", 3), true},
        {"every byte", Base64Util::Encode(all), true, all, true},
        {"wrapped in lines", wrapped, true, all, false},
        {"truncated quantum", "Zm9", false, "", false},
        {"foreign symbol", "Zm9v!", false, "", false},
        {"too little padding", "Zg=", false, "", false},
        {"padding inside", "Zg==Zm9v", false, "", false},
        {"URL alphabet", "Zm-v", false, "", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::string decoded = "stale";
        EXPECT_EQ(row.decodes, Base64Util::Decode(row.text, decoded));
        EXPECT_EQ(row.bytes, decoded);
        if (row.canonical) {
            EXPECT_EQ(row.text, Base64Util::Encode(row.bytes));
        }
    }
}
