#include "Core/Platform/TestFormat.h"

#include <json/value.h>
#include <json/writer.h>

#include "Core/Platform/FilterProperties.h"
#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/LongFormat.h"

namespace Zel {
namespace Core {

std::string TestFormat::format(const LoggingEvent& event) {
    Json::Value record(Json::objectValue);
    record["timeStamp"] = LongFormat::TimeStamp(event.timestamp);
    record["threadName"] = event.threadId;
    record["service"] = FilterProperties::GetServiceName(event.service);
    record["category"] = FilterProperties::GetCategoryName(event.category);
    record["severity"] = FilterProperties::GetSeverityName(event.severity);
    record["file"] = event.file;
    record["line"] = event.line;
    record["method"] = event.function;

    // Structured records arrive as JSON text and are carried as JSON, so the
    // reader of the log gets objects rather than quoted strings.
    // Parsed quietly: this runs inside the logger, which must not log.
    Json::Value message;
    std::string why;
    const char* text = event.message.data();
    if (JsonUtil::ParseQuietly(text, text + event.message.size(), message, why)) {
        record["message"] = message;
    } else {
        record["message"] = "***BAD JSON***";
    }

    Json::FastWriter writer;
    return writer.write(record);
}

}  // namespace Core
}  // namespace Zel
