#include "Core/Platform/FilterProperties.h"

#include <gtest/gtest.h>

#include <climits>
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

TEST(FilterPropertiesTest, OutOfTableNumbersAreUnknown) {
    for (int bad : {-1, 6, 100, INT_MIN, INT_MAX}) {
        EXPECT_STREQ("UNKNOWN", FilterProperties::GetServiceName(bad)) << bad;
        EXPECT_STREQ("UNKNOWN", FilterProperties::GetCategoryName(bad)) << bad;
    }
    EXPECT_STREQ("UNKNOWN", FilterProperties::GetSeverityName(7));
    EXPECT_STREQ("UNKNOWN", FilterProperties::GetSeverityName(-1));
}

TEST(FilterPropertiesTest, UnknownNamesAreMinusOneAndMatchingIsExact) {
    for (const char* bad : {"", "Core", "CORE", " core", "core ", "all", "*", "UNKNOWN"}) {
        EXPECT_EQ(-1, FilterProperties::GetServiceValue(bad)) << bad;
    }
    EXPECT_EQ(-1, FilterProperties::GetCategoryValue("Flow"));
    EXPECT_EQ(-1, FilterProperties::GetCategoryValue("core"));
    EXPECT_EQ(-1, FilterProperties::GetSeverityValue("warn"));
    EXPECT_EQ(-1, FilterProperties::GetSeverityValue("TRACE"));
    EXPECT_EQ(-1, FilterProperties::GetSeverityValue(std::string("info\0x", 6)));
}

}  // namespace
