#pragma once

#include <json/value.h>

#include <set>
#include <string>

namespace Zel {
namespace Core {

class StringSetUtil {
public:
    // "a,b,c" in set order.
    static std::string StringSetToCsvString(const std::set<std::string>& set);
    // Replaces `set` with the comma-separated items of `csv`; blanks around an
    // item are dropped, and so are empty items.
    static void CsvStringToStringSet(const std::string& csv, std::set<std::string>& set);
    // Always an array, empty for an empty set.
    static Json::Value StringSetToJsonArray(const std::set<std::string>& set);
    // Replaces `set` with the string elements of `array`; other elements, and
    // any value that is not an array, contribute nothing.
    static void JsonArrayToStringSet(const Json::Value& array, std::set<std::string>& set);
    static bool HasIntersection(const std::set<std::string>& a, const std::set<std::string>& b);
};

}  // namespace Core
}  // namespace Zel
