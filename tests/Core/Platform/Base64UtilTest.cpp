#include "Core/Platform/Base64Util.h"

#include <gtest/gtest.h>

using Zel::Core::Base64Util;

TEST(Base64UtilTest, KnownVectors) {
    // The examples of RFC 4648.
    const std::pair<const char*, const char*> vectors[] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foobar", "Zm9vYmFy"},
    };
    for (const auto& vector : vectors) {
        EXPECT_EQ(vector.second, Base64Util::Encode(vector.first));
        std::string decoded;
        EXPECT_TRUE(Base64Util::Decode(vector.second, decoded)) << vector.second;
        EXPECT_EQ(vector.first, decoded);
    }
    // Both extra characters of the alphabet.
    EXPECT_EQ("+/+/", Base64Util::Encode(std::string("\xfb\xff\xbf", 3)));
}

TEST(Base64UtilTest, BinaryRoundTripAndLineBreaks) {
    std::string all;
    for (int i = 0; i < 256; ++i) {
        all.push_back(static_cast<char>(i));
    }
    std::string encoded = Base64Util::Encode(all);
    std::string decoded;
    ASSERT_TRUE(Base64Util::Decode(encoded, decoded));
    EXPECT_EQ(all, decoded);

    // PEM-style wrapping is accepted.
    std::string wrapped;
    for (size_t i = 0; i < encoded.size(); i += 64) {
        wrapped += encoded.substr(i, 64) + "\r\n";
    }
    ASSERT_TRUE(Base64Util::Decode(wrapped, decoded));
    EXPECT_EQ(all, decoded);
}

TEST(Base64UtilTest, MalformedInputFails) {
    const char* bad[] = {"Zm9", "Zm9v!", "Zg=", "Zg===", "Zg==Zm9v", "Zm-v", "=Zm9"};
    for (const char* text : bad) {
        std::string decoded = "stale";
        EXPECT_FALSE(Base64Util::Decode(text, decoded)) << text;
        EXPECT_TRUE(decoded.empty()) << text;
    }
}
