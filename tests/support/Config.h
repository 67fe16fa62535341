#pragma once

#include <json/value.h>

#include <string>

namespace ZelTest {

// "service/category/severity" for every service and category, blank-separated.
std::string EveryFilter(const std::string& severity);

// One "loggers" element. `filters` lists "service/category/severity" entries
// separated by blanks; a word without a slash goes in as a bare string.
Json::Value LoggerElement(const std::string& type, const std::string& argument,
                          const std::string& format, const std::string& filters,
                          bool append = true);

// A configuration document for ZelInit and CoreConfig, built in steps.
class ConfigDoc {
public:
    // "persistentPath" and "temporaryPath".
    ConfigDoc& dirs(const std::string& path);
    ConfigDoc& core(const std::string& key, const Json::Value& value);
    // Any other section's key, "supportView" say.
    ConfigDoc& set(const std::string& section, const std::string& key, const Json::Value& value);
    // Every record up to `severity` into the file at `path`, in the long format.
    ConfigDoc& logTo(const std::string& path, const std::string& severity = "debug");
    ConfigDoc& logger(const Json::Value& element);
    // Calls whose URL ends with `suffix` get `responses` (an array) without a network.
    ConfigDoc& inject(const std::string& suffix, const Json::Value& responses);

    const Json::Value& json() const { return doc_; }
    std::string text() const;

private:
    Json::Value doc_{Json::objectValue};
};

}  // namespace ZelTest
