#include "Drmp/Base/DrmpAnswer.h"

#include <json/value.h>

#include "Core/Platform/JsonUtil.h"

namespace Zel {
namespace Drmp {

using namespace Core;

bool DrmpAnswer::EncryptionTypeFromText(const std::string& text, uint32_t& type) {
    static const struct {
        const char* text;
        uint32_t type;
    } kTypes[] = {
        {"none", 0},        {"3des", 0x1},      {"aes", 0x2},
        {"rsa", 0x4},       {"custom", 0x100},  {"3des_ur", 0x8001},
        {"aes_ur", 0x8002}, {"rsa_ur", 0x8004}, {"custom_ur", 0x8100},
    };
    for (const auto& entry : kTypes) {
        if (text == entry.text) {
            type = entry.type;
            return true;
        }
    }
    return false;
}

bool DrmpAnswer::ApplyToken(const std::string& body, DrmpPersistentValues& values) {
    Json::Value answer;
    std::string token;
    if (!JsonUtil::Parse(body, answer) ||
        !JsonUtil::GetString(JsonUtil::Member(answer, "idToken"), token) || token.empty() ||
        !PersistentBase::IsUsableToken(token)) {
        return false;
    }
    values.setToken(token);
    return true;
}

bool DrmpAnswer::ApplyWork(const std::string& body, DrmpPersistentValues& values,
                           std::vector<DrmpOperation>& operations, bool& statusChanged) {
    statusChanged = false;
    Json::Value answer;
    if (!JsonUtil::Parse(body, answer) || !answer.isObject()) {
        return false;
    }
    uint32_t number = 0;
    if (JsonUtil::GetUInt32(JsonUtil::Member(answer, "seqNum"), number)) {
        values.setSeqNum(number);
    }
    for (const DrmpPersistentValues::Field& field : DrmpPersistentValues::Fields()) {
        if (JsonUtil::GetUInt32(JsonUtil::Member(answer, field.key), number)) {
            values.set(field.value, number);
        }
    }
    const Json::Value& list = JsonUtil::Member(answer, "operations");
    if (list.isArray()) {
        for (const Json::Value& entry : list) {
            if (operations.size() == kMaxOperations) {
                break;
            }
            DrmpOperation operation;
            operation.operation = "unkonwn";  // spelled so in the logs and results
            JsonUtil::GetString(JsonUtil::Member(entry, "name"), operation.name);
            JsonUtil::GetString(JsonUtil::Member(entry, "operation"), operation.operation);
            JsonUtil::GetString(JsonUtil::Member(entry, "id"), operation.id);
            JsonUtil::GetString(JsonUtil::Member(entry, "encryptionType"),
                                operation.encryptionType);
            JsonUtil::GetUInt32(JsonUtil::Member(entry, "unencryptedSize"),
                                operation.unencryptedSize);
            JsonUtil::GetString(JsonUtil::Member(entry, "value"), operation.value);
            operations.push_back(operation);
        }
    }
    statusChanged = values.setStatus(JsonUtil::Member(answer, "status"));
    return true;
}

}  // namespace Drmp
}  // namespace Zel
