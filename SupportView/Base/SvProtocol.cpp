// SupportViewManager's side of the "sv" service: building each call's
// request and applying its answer.
#include <json/value.h>

#include "Core/Base/CoreManager.h"
#include "Core/Base/PersistentValues.h"
#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"
#include "SupportView/Base/SessionDecisions.h"
#include "SupportView/Base/SupportViewManager.h"
#include "SupportView/Base/SvAnswer.h"

namespace Zel {
namespace Sv {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Base/SupportViewManager";
}  // namespace

void SupportViewManager::setRequestUrl(MicroService service, Http::Request& request) const {
    CoreManager::Instance().setRequestUrl(request, "sv", MicroServicePath(service));
}

void SupportViewManager::setRequestHeaderAuthorizedSession(Http::Request& request) const {
    if (values_.hasSession()) {
        request.headers.push_back("Authorization: " + values_.sessionToken);
    }
}

void SupportViewManager::setRequestBody(MicroService service, Http::Request& request) const {
    Json::Value body(Json::objectValue);
    switch (service) {
        case MicroService::InitializeSession:
            body["allowSessionCodeBypass"] = values_.sessionAllowCodeBypass;
            body["sessionCodeDigits"] = values_.sessionCodeDigits;
            body["timeoutMs"] = persistent_->getSvActiveTimeoutMs();
            break;
        case MicroService::ResumeSession:
            body["timeoutMs"] = persistent_->getSvPausedTimeoutMs();
            break;
        case MicroService::GetCommand:
            body["seqNum"] = values_.getTaskSeqNum;
            break;
        case MicroService::PutCommand:
            body["taskResponse"] =
                values_.taskResultList.empty() ? "" : values_.taskResultList.front()->taskResponse;
            body["seqNum"] = values_.putTaskSeqNum;
            break;
        case MicroService::TerminateSession:
        case MicroService::SuspendSession:
            break;
    }
    request.body = JsonUtil::Compact(body);
}

void SupportViewManager::prepMicroService(MicroService service, Http::Request& request) {
    ZEL_LOG(ServiceSv, CategoryWebservice, SeverityInfo, "%s initiated",
            MicroServiceToString(service));
    CoreManager& core = CoreManager::Instance();
    request.headers.clear();
    core.setRequestHttpVerb(request, Http::Verb::Post);
    core.setRequestIdentity(request);
    setRequestUrl(service, request);
    CoreManager::setRequestHeaderDate(request);
    CoreManager::setRequestHeaderAcceptJson(request);
    CoreManager::setRequestHeaderContentTypeJson(request);
    core.setRequestHeaderAuthorizedGid(request);
    setRequestHeaderAuthorizedSession(request);
    setRequestBody(service, request);
    request.connectTimeoutMs = persistent_->getSvConnectTimeoutMs();
    request.timeoutMs = persistent_->getSvMessageTimeoutMs();
    request.abort = &abortCalls_;
    core.evaluateStateChanges();
}

void SupportViewManager::postMicroService(MicroService service, bool performed,
                                          const Http::Response& response,
                                          const std::string& callToken) {
    long status = performed ? response.status : 0;
    CoreManager& core = CoreManager::Instance();
    switch (SessionDecisions::ApplyStatus(values_, service, status, callToken)) {
        case SessionDecisions::Reaction::ReadAnswer:
            getResponseHeaders(service, response);
            getResponseBody(service, response);
            break;
        case SessionDecisions::Reaction::RetireGidToken:
            core.retireGidToken();
            break;
        case SessionDecisions::Reaction::RetireSession:
            retireSessionToken();
            break;
        case SessionDecisions::Reaction::NotSynchronized:
            core.setNotSynchronized();
            break;
        case SessionDecisions::Reaction::Done:
            break;
    }
    core.evaluateStateChanges();
    ZEL_LOG(ServiceSv, CategoryWebservice, SeverityInfo, "%s processed (%u)",
            MicroServiceToString(service), static_cast<unsigned>(status));
}

void SupportViewManager::getResponseHeaders(MicroService, const Http::Response& response) {
    ZEL_LOG(ServiceSv, CategoryWebservice, SeverityTrace, "response headers: %zu",
            response.headers.size());
}

void SupportViewManager::getResponseBody(MicroService service, const Http::Response& response) {
    std::unique_ptr<SessionTask> task;
    switch (SvAnswer::Apply(service, response.status, response.body, values_, task)) {
        case SvAnswer::Effect::SessionOpened:
            startSessionHooks();
            logStateInfo();
            break;
        case SvAnswer::Effect::SessionEnded:
            retireSessionToken();
            break;
        case SvAnswer::Effect::SessionSuspended:
            storeSessionToken();
            retireSessionToken();
            break;
        case SvAnswer::Effect::TaskReceived:
            logStateInfo();
            startTask(std::move(task));
            break;
        case SvAnswer::Effect::ResultPosted:
            logStateInfo();
            break;
        case SvAnswer::Effect::Nothing:
            break;
    }
}

}  // namespace Sv
}  // namespace Zel
