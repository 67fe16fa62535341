#include "SupportView/Base/SessionFile.h"

#include <json/value.h>

#include "Core/Base/PersistentBase.h"
#include "Core/Platform/JsonUtil.h"
#include "SupportView/Base/SvAnswer.h"

namespace Zel {
namespace Sv {

using Core::JsonUtil;

const char* const SessionFile::kBaseName = "session";

std::string SessionFile::Format(const std::string& code, const std::string& token) {
    Json::Value body(Json::objectValue);
    body["code"] = code;
    body["token"] = token;
    return JsonUtil::Compact(body);
}

bool SessionFile::Parse(const std::string& text, std::string& code, std::string& token) {
    Json::Value body;
    std::string readCode;
    std::string readToken;
    if (!JsonUtil::Parse(text, body) || !body.isObject() ||
        !JsonUtil::GetString(JsonUtil::Member(body, "code"), readCode) ||
        !JsonUtil::GetString(JsonUtil::Member(body, "token"), readToken)) {
        return false;
    }
    if (readToken.empty() || !Core::PersistentBase::IsUsableToken(readToken) ||
        readCode.size() > SvAnswer::kMaxCodeBytes ||
        !Core::PersistentBase::IsUsableToken(readCode)) {
        return false;
    }
    code = readCode;
    token = readToken;
    return true;
}

}  // namespace Sv
}  // namespace Zel
