#include "Core/Platform/StringSetUtil.h"

#include "Core/Platform/JsonUtil.h"

namespace Zel {
namespace Core {

namespace {
std::string trimmed(const std::string& text) {
    const char* blanks = " \t\r\n";
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        return std::string();
    }
    size_t last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}
}  // namespace

std::string StringSetUtil::StringSetToCsvString(const std::set<std::string>& set) {
    std::string csv;
    for (const std::string& item : set) {
        if (!csv.empty()) {
            csv += ",";
        }
        csv += item;
    }
    return csv;
}

void StringSetUtil::CsvStringToStringSet(const std::string& csv, std::set<std::string>& set) {
    set.clear();
    size_t start = 0;
    for (;;) {
        size_t comma = csv.find(',', start);
        std::string item = trimmed(
            csv.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
        if (!item.empty()) {
            set.insert(item);
        }
        if (comma == std::string::npos) {
            break;
        }
        start = comma + 1;
    }
}

Json::Value StringSetUtil::StringSetToJsonArray(const std::set<std::string>& set) {
    Json::Value array(Json::arrayValue);
    for (const std::string& item : set) {
        array.append(item);
    }
    return array;
}

void StringSetUtil::JsonArrayToStringSet(const Json::Value& array, std::set<std::string>& set) {
    set.clear();
    if (!array.isArray()) {
        return;
    }
    std::string text;
    for (const Json::Value& element : array) {
        if (JsonUtil::GetString(element, text)) {
            set.insert(text);
        }
    }
}

bool StringSetUtil::HasIntersection(const std::set<std::string>& a,
                                    const std::set<std::string>& b) {
    const std::set<std::string>& small = a.size() <= b.size() ? a : b;
    const std::set<std::string>& large = a.size() <= b.size() ? b : a;
    for (const std::string& item : small) {
        if (large.count(item) != 0) {
            return true;
        }
    }
    return false;
}

}  // namespace Core
}  // namespace Zel
