#include "Core/Platform/JsonUtil.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cstring>
#include <memory>

namespace Zel {
namespace Core {

namespace {
bool parseRange(const char* begin, const char* end, Json::Value& out) {
    if (begin == end) {
        return false;
    }
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    return reader->parse(begin, end, &out, &errors);
}
}  // namespace

bool JsonUtil::Parse(const std::string& text, Json::Value& out) {
    return parseRange(text.data(), text.data() + text.size(), out);
}

bool JsonUtil::Parse(const char* text, Json::Value& out) {
    if (text == nullptr) {
        return false;
    }
    return parseRange(text, text + std::strlen(text), out);
}

void JsonUtil::ReadString(const Json::Value& object, const char* key, std::string& field) {
    const Json::Value& value = object[key];
    if (!value.isNull() && value.isConvertibleTo(Json::stringValue)) {
        field = value.asString();
    }
}

std::string JsonUtil::Compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

}  // namespace Core
}  // namespace Zel
