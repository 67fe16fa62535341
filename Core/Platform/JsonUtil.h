#pragma once

#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>

namespace Zel {
namespace Core {

// The only way from outside text into jsoncpp. Parsing never throws: a text
// that is too large or nested too deep is refused before jsoncpp sees it,
// and the readers check type and range before converting, because jsoncpp's
// as...() conversions throw on anything else.
class JsonUtil {
public:
    // Far above any document, answer or file the agent handles.
    static constexpr size_t kMaxTextBytes = 4 * 1024 * 1024;
    static constexpr int kMaxDepth = 64;

    // Parses a whole JSON document; false on a null or empty text, a syntax
    // error, or a text beyond the limits (logged). Callers check the kind of
    // value they expect themselves.
    static bool Parse(const std::string& text, Json::Value& out);
    static bool Parse(const char* text, Json::Value& out);
    // The same without a log line, for the logger itself; `why` says what failed.
    static bool ParseQuietly(const char* begin, const char* end, Json::Value& out,
                             std::string& why);

    // The member `key` of an object; a null value for anything else (jsoncpp
    // asserts when a non-object is indexed by name).
    static const Json::Value& Member(const Json::Value& object, const char* key);

    // Value readers: true and `out` set only when the value has the type and
    // fits; otherwise `out` keeps what it had.
    static bool GetBool(const Json::Value& value, bool& out);
    static bool GetUInt32(const Json::Value& value, uint32_t& out);
    static bool GetInt64(const Json::Value& value, int64_t& out);
    static bool GetUInt64(const Json::Value& value, uint64_t& out);
    static bool GetDouble(const Json::Value& value, double& out);
    // A JSON string without an embedded NUL, which would cut the text short
    // wherever it becomes a C string (a path, a header).
    static bool GetString(const Json::Value& value, std::string& out);
    // Lenient forms for documents, by jsoncpp's own conversion rules: numbers
    // and booleans as text (still without a NUL), numbers as booleans.
    static bool GetText(const Json::Value& value, std::string& out);
    static bool GetFlag(const Json::Value& value, bool& out);

    // Member readers for documents: a missing member keeps `field` silently;
    // a present member that cannot be read keeps it with a warning naming the
    // key. ReadString and ReadBool take the lenient forms.
    static bool ReadString(const Json::Value& object, const char* key, std::string& field);
    static bool ReadBool(const Json::Value& object, const char* key, bool& field);
    static bool ReadUInt32(const Json::Value& object, const char* key, uint32_t& field);

    // One line, no indentation and no trailing newline.
    static std::string Compact(const Json::Value& value);

    // jsoncpp keeps object members sorted. An object that must be read in a
    // given order carries its keys in this member, which CompactOrdered
    // follows (other members come after, sorted) and leaves out.
    static constexpr const char* kMemberOrder = "\x1forder";
    static void SetMemberOrder(Json::Value& object, std::initializer_list<const char*> keys);
    static std::string CompactOrdered(const Json::Value& value);
};

}  // namespace Core
}  // namespace Zel
