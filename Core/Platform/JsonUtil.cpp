#include "Core/Platform/JsonUtil.h"

#include <algorithm>

#include <json/reader.h>
#include <json/writer.h>

#include <cstring>
#include <exception>
#include <memory>

#include "Core/Platform/Logger.h"

namespace Zel {
namespace Core {

namespace {
constexpr const char* kLogSource = "Platform/JsonUtil";

// jsoncpp parses recursively and throws past its own stack limit, so the
// nesting is measured first, outside strings.
bool nestedWithin(const char* begin, const char* end, int limit) {
    int depth = 0;
    bool inString = false;
    for (const char* p = begin; p < end; ++p) {
        char c = *p;
        if (inString) {
            if (c == '\\') {
                ++p;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > limit) {
                return false;
            }
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return true;
}

const Json::Value& nullValue() {
    // Never destroyed: agent threads may still read it while the process exits.
    static const Json::Value* null = new Json::Value;
    return *null;
}

// Converts only when `fits` says jsoncpp can do it without throwing.
template <typename T, typename Converted>
bool convertIf(const Json::Value& value, T& out, bool (Json::Value::*fits)() const,
               Converted (Json::Value::*convert)() const) {
    if (!(value.*fits)()) {
        return false;
    }
    out = static_cast<T>((value.*convert)());
    return true;
}

// A missing member is silent; a present one that could not be read says why.
bool readMember(const char* key, const Json::Value& value, bool read, const char* why) {
    if (!read && !value.isNull()) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityWarning, "Value of \"%s\" ignored: %s", key,
                why);
    }
    return read;
}
}  // namespace

bool JsonUtil::ParseQuietly(const char* begin, const char* end, Json::Value& out,
                            std::string& why) {
    size_t size = static_cast<size_t>(end - begin);
    if (begin == nullptr || size == 0) {
        why = "empty text";
        return false;
    }
    if (size > kMaxTextBytes) {
        why = std::to_string(size) + " bytes is too large";
        return false;
    }
    if (!nestedWithin(begin, end, kMaxDepth)) {
        why = "nested deeper than " + std::to_string(kMaxDepth) + " levels";
        return false;
    }
    try {
        Json::CharReaderBuilder builder;
        builder["stackLimit"] = kMaxDepth + 1;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        Json::Value value;
        std::string errors;
        if (!reader->parse(begin, end, &value, &errors)) {
            why = "not JSON";
            return false;
        }
        out.swap(value);
        return true;
    } catch (const std::exception& error) {
        why = error.what();
    } catch (...) {
        why = "unknown failure";
    }
    return false;
}

bool JsonUtil::Parse(const std::string& text, Json::Value& out) {
    std::string why;
    if (ParseQuietly(text.data(), text.data() + text.size(), out, why)) {
        return true;
    }
    // Not JSON at all is an ordinary answer to some callers; only a text we
    // refused for its size or shape is worth a line of its own.
    if (why != "not JSON" && why != "empty text") {
        ZEL_LOG(ServiceCore, CategoryState, SeverityWarning, "JSON text of %zu bytes refused: %s",
                text.size(), why.c_str());
    }
    return false;
}

bool JsonUtil::Parse(const char* text, Json::Value& out) {
    if (text == nullptr) {
        return false;
    }
    return Parse(std::string(text), out);
}

const Json::Value& JsonUtil::Member(const Json::Value& object, const char* key) {
    if (!object.isObject()) {
        return nullValue();
    }
    const Json::Value* found = object.find(key, key + std::strlen(key));
    return found != nullptr ? *found : nullValue();
}

bool JsonUtil::GetBool(const Json::Value& value, bool& out) {
    return convertIf(value, out, &Json::Value::isBool, &Json::Value::asBool);
}

// isUInt() and isInt64() are true only for integral values that fit, reals included.
bool JsonUtil::GetUInt32(const Json::Value& value, uint32_t& out) {
    return convertIf(value, out, &Json::Value::isUInt, &Json::Value::asUInt);
}

bool JsonUtil::GetInt64(const Json::Value& value, int64_t& out) {
    return convertIf(value, out, &Json::Value::isInt64, &Json::Value::asInt64);
}

bool JsonUtil::GetUInt64(const Json::Value& value, uint64_t& out) {
    return convertIf(value, out, &Json::Value::isUInt64, &Json::Value::asUInt64);
}

bool JsonUtil::GetDouble(const Json::Value& value, double& out) {
    return convertIf(value, out, &Json::Value::isNumeric, &Json::Value::asDouble);
}

bool JsonUtil::GetString(const Json::Value& value, std::string& out) {
    if (!value.isString()) {
        return false;
    }
    std::string text = value.asString();
    if (text.find('\0') != std::string::npos) {
        return false;
    }
    out.swap(text);
    return true;
}

bool JsonUtil::GetText(const Json::Value& value, std::string& out) {
    if (value.isNull() || value.isArray() || value.isObject() ||
        !value.isConvertibleTo(Json::stringValue)) {
        return false;
    }
    std::string text = value.asString();
    if (text.find('\0') != std::string::npos) {
        return false;
    }
    out.swap(text);
    return true;
}

bool JsonUtil::GetFlag(const Json::Value& value, bool& out) {
    if (value.isNull() || !value.isConvertibleTo(Json::booleanValue)) {
        return false;
    }
    out = value.asBool();
    return true;
}

bool JsonUtil::ReadString(const Json::Value& object, const char* key, std::string& field) {
    const Json::Value& value = Member(object, key);
    return readMember(key, value, GetText(value, field),
                      value.isString() ? "it holds a NUL character" : "not text");
}

bool JsonUtil::ReadBool(const Json::Value& object, const char* key, bool& field) {
    const Json::Value& value = Member(object, key);
    return readMember(key, value, GetFlag(value, field), "not a boolean");
}

bool JsonUtil::ReadUInt32(const Json::Value& object, const char* key, uint32_t& field) {
    const Json::Value& value = Member(object, key);
    return readMember(key, value, GetUInt32(value, field), "not an unsigned 32-bit number");
}

void JsonUtil::SetMemberOrder(Json::Value& object, std::initializer_list<const char*> keys) {
    Json::Value order(Json::arrayValue);
    for (const char* key : keys) {
        order.append(key);
    }
    object[kMemberOrder] = order;
}

namespace {
void writeOrdered(const Json::Value& value, std::string& out) {
    if (value.isArray()) {
        out += '[';
        for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
            out += i == 0 ? "" : ",";
            writeOrdered(value[i], out);
        }
        out += ']';
        return;
    }
    if (!value.isObject()) {
        out += JsonUtil::Compact(value);
        return;
    }
    std::vector<std::string> keys;
    const Json::Value& order = JsonUtil::Member(value, JsonUtil::kMemberOrder);
    for (const Json::Value& key : order.isArray() ? order : Json::Value(Json::arrayValue)) {
        if (key.isString() && value.isMember(key.asString()) &&
            key.asString() != JsonUtil::kMemberOrder &&
            std::find(keys.begin(), keys.end(), key.asString()) == keys.end()) {
            keys.push_back(key.asString());
        }
    }
    for (const std::string& key : value.getMemberNames()) {
        if (key != JsonUtil::kMemberOrder &&
            std::find(keys.begin(), keys.end(), key) == keys.end()) {
            keys.push_back(key);
        }
    }
    out += '{';
    for (size_t i = 0; i < keys.size(); ++i) {
        out += i == 0 ? "" : ",";
        out += JsonUtil::Compact(Json::Value(keys[i]));
        out += ':';
        writeOrdered(value[keys[i]], out);
    }
    out += '}';
}
}  // namespace

std::string JsonUtil::CompactOrdered(const Json::Value& value) {
    std::string out;
    writeOrdered(value, out);
    return out;
}

std::string JsonUtil::Compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

}  // namespace Core
}  // namespace Zel
