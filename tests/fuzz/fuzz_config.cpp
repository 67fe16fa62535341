// The configuration document, as the firmware hands it to the agent, together
// with the "loggers" and "injectors" sections that reading it configures.
#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <streambuf>
#include <string>

#include "Core/Base/CoreConfig.h"
#include "Core/Platform/Appender.h"
#include "Core/Platform/Injector.h"
#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"

using Zel::Core::Appender;
using Zel::Core::JsonUtil;

namespace {

// Takes what console loggers write, so that only libFuzzer talks.
class DiscardBuffer : public std::streambuf {
protected:
    int overflow(int c) override { return traits_type::not_eof(c); }
    std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
};

// The fuzzer runs as root and must not create files or open the system log at
// names it made up, so such loggers become console loggers with the same
// filters and format; true when the document changed.
bool tameLoggers(Json::Value& root) {
    if (!root.isObject() || !root.isMember("loggers") || !root["loggers"].isArray()) {
        return false;
    }
    bool changed = false;
    for (Json::Value& element : root["loggers"]) {
        std::string type = Appender::ConfigText(element, "type");
        if (type != "file" && type != "syslog") {
            continue;
        }
        element["type"] = "console";
        if (!Appender::ConfigText(element, "argument").empty()) {
            element["argument"] = "stdout";
        }
        changed = true;
    }
    return changed;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static DiscardBuffer discard;
    std::cout.rdbuf(&discard);
    std::cerr.rdbuf(&discard);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The agent gets a C string: whatever follows a NUL never reaches it.
    std::string text(reinterpret_cast<const char*>(data), size);
    text.resize(std::strlen(text.c_str()));

    Json::Value root;
    if (JsonUtil::Parse(text, root) && tameLoggers(root)) {
        text = JsonUtil::Compact(root);
    }
    {
        Zel::Core::CoreConfig config(text.c_str());
        config.logStateDebug();
    }

    // Both are process-wide: what one input configured must not shape the next.
    Zel::Core::Logger::Instance().terminate();
    Zel::Core::Injector::Instance().terminate();
    return 0;
}
