#include "SupportView/Base/SvAnswer.h"

#include <json/value.h>

#include "Core/Base/PersistentBase.h"
#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"

namespace Zel {
namespace Sv {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Base/SupportViewManager";

bool readObject(long status, const std::string& body, Json::Value& answer) {
    return status != 204 && JsonUtil::Parse(body, answer) && answer.isObject();
}

bool usableCode(const std::string& code) {
    if (code.size() > SvAnswer::kMaxCodeBytes) {
        return false;
    }
    for (char c : code) {
        if (c < 0x20 || c > 0x7e) {
            return false;
        }
    }
    return true;
}

SvAnswer::Effect openSession(long status, const std::string& body, SessionValues& values) {
    if (values.sessionRequest != SessionRequest::Initialize) {
        return SvAnswer::Effect::Nothing;
    }
    values.sessionRequest = SessionRequest::None;
    Json::Value answer;
    if (!readObject(status, body, answer)) {
        return SvAnswer::Effect::Nothing;
    }
    std::string code = values.sessionCode;
    std::string token;
    JsonUtil::GetString(JsonUtil::Member(answer, "sessionCode"), code);
    JsonUtil::GetString(JsonUtil::Member(answer, "sessionToken"), token);
    // Both go into headers, logs and the host's status as they stand.
    if (!usableCode(code) || token.empty() || !PersistentBase::IsUsableToken(token)) {
        ZEL_LOG(ServiceSv, CategoryWebservice, SeverityError,
                "InitializeSession answer without a usable session code and token");
        return SvAnswer::Effect::Nothing;
    }
    if (code.size() != values.sessionCodeDigits) {
        ZEL_LOG(ServiceSv, CategoryWebservice, SeverityInfo, "sessionCode digits %u requested %u",
                static_cast<unsigned>(code.size()), values.sessionCodeDigits);
    }
    values.sessionCode = code;
    values.sessionToken = token;
    return SvAnswer::Effect::SessionOpened;
}

SvAnswer::Effect receiveTask(long status, const std::string& body, SessionValues& values,
                             std::unique_ptr<SessionTask>& task) {
    Json::Value answer;
    if (!readObject(status, body, answer)) {
        return SvAnswer::Effect::Nothing;
    }
    auto received = std::make_unique<SessionTask>();
    const Json::Value& request = JsonUtil::Member(answer, "taskRequest");
    if (!JsonUtil::GetString(request, received->taskRequest)) {
        received->taskRequest = request.isObject() ? JsonUtil::Compact(request) : "{}";
    }
    JsonUtil::GetUInt32(JsonUtil::Member(answer, "seqNum"), received->seqNum);
    received->generation = values.generation;
    values.taskExecuteCount++;
    values.getTaskSeqNum = received->seqNum;
    task = std::move(received);
    return SvAnswer::Effect::TaskReceived;
}

SvAnswer::Effect postResult(long status, const std::string& body, SessionValues& values) {
    // The result has arrived whatever the body says; posting it again would
    // only repeat it.
    if (!values.taskResultList.empty()) {
        values.taskResultList.pop_front();
    }
    Json::Value answer;
    values.putTaskSeqNum = 0;
    if (readObject(status, body, answer)) {
        JsonUtil::GetUInt32(JsonUtil::Member(answer, "seqNum"), values.putTaskSeqNum);
    }
    return SvAnswer::Effect::ResultPosted;
}
}  // namespace

SvAnswer::Effect SvAnswer::Apply(MicroService service, long status, const std::string& body,
                                 SessionValues& values, std::unique_ptr<SessionTask>& task) {
    switch (service) {
        case MicroService::InitializeSession:
            return openSession(status, body, values);
        case MicroService::TerminateSession:
            return values.sessionRequest == SessionRequest::Terminate ? Effect::SessionEnded
                                                                      : Effect::Nothing;
        case MicroService::SuspendSession:
            return values.sessionRequest == SessionRequest::Suspend ? Effect::SessionSuspended
                                                                    : Effect::Nothing;
        case MicroService::ResumeSession:
            if (values.sessionRequest == SessionRequest::Resume) {
                values.sessionRequest = SessionRequest::None;
            }
            return Effect::Nothing;
        case MicroService::GetCommand:
            return receiveTask(status, body, values, task);
        case MicroService::PutCommand:
            return postResult(status, body, values);
    }
    return Effect::Nothing;
}

}  // namespace Sv
}  // namespace Zel
