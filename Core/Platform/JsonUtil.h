#pragma once

#include <json/value.h>

#include <string>

namespace Zel {
namespace Core {

class JsonUtil {
public:
    // Parses a whole JSON document; false on a null or empty text or a syntax
    // error. Callers check the kind of value they expect themselves.
    static bool Parse(const std::string& text, Json::Value& out);
    static bool Parse(const char* text, Json::Value& out);
    // A present `key` whose value converts to a string replaces `field`;
    // anything else leaves it as it is (jsoncpp would throw).
    static void ReadString(const Json::Value& object, const char* key, std::string& field);
    // One line, no indentation and no trailing newline.
    static std::string Compact(const Json::Value& value);
};

}  // namespace Core
}  // namespace Zel
