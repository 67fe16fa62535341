#include "SoftwareUpdate/Base/SuValues.h"

#include <json/value.h>

#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"

namespace Zel {
namespace Su {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Base/SoftwareUpdateManager";
}  // namespace

const char* const SuValues::kBaseName = "suValues";

std::string SuValues::marshal() const {
    Json::Value body(Json::objectValue);
    body["location"] = location;
    body["metadata"] = metadata;
    body["installed"] = installed;
    return JsonUtil::Compact(body);
}

bool SuValues::unmarshal(const std::string& text) {
    Json::Value body;
    if (!JsonUtil::Parse(text, body) || !body.isObject()) {
        ZEL_LOG(ServiceSu, CategoryState, SeverityError, "Failed to read persisted values");
        return false;
    }
    struct Field {
        const char* key;
        std::string* value;
        const char* failure;
    };
    const Field fields[] = {
        {"location", &location, "Failed to read location values"},
        {"metadata", &metadata, "Failed to read metadata values"},
        {"installed", &installed, "Failed to read installed values"},
    };
    for (const Field& field : fields) {
        if (!JsonUtil::GetString(JsonUtil::Member(body, field.key), *field.value)) {
            ZEL_LOG(ServiceSu, CategoryState, SeverityError, "%s", field.failure);
        }
    }
    return true;
}

}  // namespace Su
}  // namespace Zel
