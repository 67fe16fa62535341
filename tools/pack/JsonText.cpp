#include "tools/pack/JsonText.h"

#include <json/reader.h>
#include <json/writer.h>

#include <exception>
#include <memory>

namespace ZelPack {

std::string CompactJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

bool ParseJson(const std::string& text, Json::Value& value, std::string& error) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["rejectDupKeys"] = false;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    try {
        if (reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
            return true;
        }
    } catch (const std::exception& e) {
        // jsoncpp throws on nesting deeper than its stack limit.
        errors = e.what();
    }
    value = Json::Value();
    error = errors;
    while (!error.empty() && (error.back() == '\n' || error.back() == ' ')) {
        error.pop_back();
    }
    return false;
}

}  // namespace ZelPack
