#pragma once

#include <json/value.h>

#include <string>

namespace ZelPack {

// The value as compact JSON, the form the segments of a token carry.
std::string CompactJson(const Json::Value& value);

// Parses untrusted text; false with the reason, never an exception.
bool ParseJson(const std::string& text, Json::Value& value, std::string& error);

}  // namespace ZelPack
