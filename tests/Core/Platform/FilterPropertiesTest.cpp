#include "Core/Platform/FilterProperties.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Zel::Core::FilterProperties;

TEST(FilterPropertiesTest, NamesAndNumbersMapBothWays) {
    const std::vector<std::string> services = {"core", "ds", "sv", "su", "drmp", "gnsdk"};
    const std::vector<std::string> categories = {"state",      "flow", "clibapi",
                                                 "webservice", "test", "supervisor"};
    const std::vector<std::string> severities = {"disabled", "fatal", "error", "warning",
                                                 "info",     "debug", "trace"};
    for (int i = 0; i < static_cast<int>(services.size()); ++i) {
        EXPECT_EQ(services[i], FilterProperties::GetServiceName(i));
        EXPECT_EQ(i, FilterProperties::GetServiceValue(services[i]));
    }
    for (int i = 0; i < static_cast<int>(categories.size()); ++i) {
        EXPECT_EQ(categories[i], FilterProperties::GetCategoryName(i));
        EXPECT_EQ(i, FilterProperties::GetCategoryValue(categories[i]));
    }
    for (int i = 0; i < static_cast<int>(severities.size()); ++i) {
        EXPECT_EQ(severities[i], FilterProperties::GetSeverityName(i));
        EXPECT_EQ(i, FilterProperties::GetSeverityValue(severities[i]));
    }
}

TEST(FilterPropertiesTest, UnknownNamesAreMinusOneAndMatchingIsExact) {
    for (const char* bad : {"", "Core", "core ", "all", "UNKNOWN"}) {
        EXPECT_EQ(-1, FilterProperties::GetServiceValue(bad)) << bad;
    }
    EXPECT_EQ(-1, FilterProperties::GetCategoryValue("core"));
    EXPECT_STREQ("UNKNOWN", FilterProperties::GetServiceName(6));
    EXPECT_STREQ("UNKNOWN", FilterProperties::GetCategoryName(-1));
    EXPECT_STREQ("UNKNOWN", FilterProperties::GetSeverityName(7));
    EXPECT_EQ(-1, FilterProperties::GetSeverityValue(std::string("info\0x", 6)));
}

}  // namespace
