#pragma once

#include <string>

namespace Zel {
namespace Core {

// The names behind the service, category and severity numbers of a log call.
// The configuration's filters and the text formats use the names.
class FilterProperties {
public:
    // The name, or "UNKNOWN" for a number outside the table.
    static const char* GetServiceName(int service);
    static const char* GetCategoryName(int category);
    static const char* GetSeverityName(int severity);

    // The number, or -1 for a name not in the table (exact, case-sensitive).
    static int GetServiceValue(const std::string& name);
    static int GetCategoryValue(const std::string& name);
    static int GetSeverityValue(const std::string& name);

    static constexpr int kServiceCount = 6;
    static constexpr int kCategoryCount = 6;
    static constexpr int kSeverityCount = 7;
};

}  // namespace Core
}  // namespace Zel
