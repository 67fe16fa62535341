#include "SupportView/Base/SupportViewManager.h"

#include <cstdlib>
#include <cstring>

#include "Core/Base/CoreConfig.h"
#include "Core/Base/CoreManager.h"
#include "Core/Base/CoreMutex.h"
#include "Core/Base/EventManager.h"
#include "Core/Base/PersistentValues.h"
#include "Core/Platform/FileUtil.h"
#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"
#include "Core/Platform/TimeManager.h"
#include "Core/Project/DeviceValues.h"
#include "SupportView/Base/CommandExecutor.h"
#include "SupportView/Base/CommandManager.h"
#include "SupportView/Base/SessionDecisions.h"
#include "SupportView/Base/SessionFile.h"
#include "SupportView/Base/SessionHooks.h"
#include "zel.h"

namespace Zel {
namespace Sv {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Base/SupportViewManager";

const char* boolText(bool value) {
    return value ? "true" : "false";
}

// Seconds and milliseconds from `from` to `to`, negative when `to` is earlier.
long long millisBetween(const timespec& from, const timespec& to) {
    return (static_cast<long long>(to.tv_sec) - from.tv_sec) * 1000 +
           (to.tv_nsec - from.tv_nsec) / 1000000;
}
}  // namespace

// Never destroyed: an ExecuteTask thread may outlive the agent and even the
// host's exit handlers.
SupportViewManager& SupportViewManager::Instance() {
    static SupportViewManager* instance = new SupportViewManager;
    return *instance;
}

SupportViewManager::SupportViewManager()
    : controls_{{RoleSession, "SessionControl", std::make_unique<TimedSem>(CoreMutex()), {}},
                {RoleGetTask, "GetTaskControl", std::make_unique<TimedSem>(CoreMutex()), {}},
                {RolePutTask, "PutTaskControl", std::make_unique<TimedSem>(CoreMutex()), {}}} {}

bool SupportViewManager::agentRunning() const {
    return config_ != nullptr &&
           CoreManager::Instance().getDeviceAgentState() == CoreManager::Initialized;
}

void SupportViewManager::initialize(const ServiceContext& context) {
    config_ = std::make_unique<SupportViewConfig>(context.configText);
    persistent_ = context.persistent;
    persistentPath_ = context.config->getPersistentPath();
    unsigned generation = values_.generation + 1;
    values_ = SessionValues();
    values_.generation = generation;
    values_.sessionCodeDigits = config_->getSessionCodeDigits();
    abortCalls_ = false;
    for (ControlThread& control : controls_) {
        control.semaphore = std::make_unique<TimedSem>(CoreMutex());
    }
    loadSessionToken();
    if (values_.hasSession()) {
        values_.sessionRequest = SessionRequest::Resume;
    }
    values_.sessionState =
        SessionDecisions::StateFor(values_, persistent_->getDaSupportViewEnabled());

    const DeviceValues* device = CoreManager::Instance().getCoreDevicePtr();
    CommandManager::Instance().initialize(persistent_->getCertOpid(),
                                          persistent_->getCertInstance(), device->getId(),
                                          device->getModel(), device->getBrand(), device->getEsn(),
                                          device->getMac(), device->getSwVersion());
    EventManager::Instance().setReceiver("startsvsession", [this](const Event& event) {
        bool allowed;
        {
            LockMutex lock(CoreMutex());
            allowed = config_ && config_->getAllowRemoteSession();
        }
        if (allowed) {
            sessionInitialize(false);
        } else {
            ZEL_LOG(ServiceCore, CategoryState, SeverityInfo,
                    "Suppressing event=%s, id=%u, parameters=%s", event.name.c_str(), event.id,
                    event.parameters.c_str());
        }
    });

    ThreadUtil::Start(controls_[RoleSession].thread, SessionControl, this, "SessionControl");
    ThreadUtil::Start(controls_[RoleGetTask].thread, GetTaskControl, this, "GetTaskControl");
    ThreadUtil::Start(controls_[RolePutTask].thread, PutTaskControl, this, "PutTaskControl");
    logStateInfo();
}

void SupportViewManager::terminateBegin() {
    if (!config_) {
        return;
    }
    bool resetting = CoreManager::Instance().getDeviceAgentState() == CoreManager::FactoryResetting;
    SessionDecisions::BeginTermination(values_, config_->getPauseSessionOnTerm(), resetting);
    abortCalls_ = true;
    Http::WakeAll();
    // A stream ends with the agent, whatever becomes of the session.
    VideoSessionTerminate();
}

void SupportViewManager::terminateEnd() {
    {
        std::unique_lock<std::mutex> lock(speedTransferMutex_);
        speedTransferDone_.wait(lock, [this] { return speedTransfers_ == 0; });
    }
    for (ControlThread& control : controls_) {
        ZEL_LOG(ServiceSv, CategoryState, SeverityInfo, "Waiting for %s to join", control.name);
        ThreadUtil::Join(control.thread);
    }
    LockMutex lock(CoreMutex());
    ZEL_LOG(ServiceSv, CategoryState, SeverityInfo, "Performing SupportView cleanup");
    retireSessionToken();
    CommandManager::Instance().terminate();
    // Tasks still running find the agent gone and touch nothing of it.
    persistent_ = nullptr;
    config_.reset();
}

void SupportViewManager::factoryResetOffline(const ServiceContext& context) {
    FileUtil::Drop(context.config->getPersistentPath(), SessionFile::kBaseName);
}

void SupportViewManager::cascadeStateChanges() {
    if (!config_ || persistent_ == nullptr) {
        return;
    }
    if (SessionDecisions::TimedOut(values_, TimeManager::Instance().now(),
                                   persistent_->getSvActiveTimeoutMs())) {
        ZEL_LOG(ServiceSv, CategoryState, SeverityInfo, "Session timed out");
        retireSessionToken();
    }
    SessionDecisions::Wakes wakes = SessionDecisions::AssignActivities(values_);
    for (ControlThread& control : controls_) {
        if (wakes.thread[control.role]) {
            ZEL_LOG(ServiceSv, CategoryState, SeverityDebug, "%s delay being reset", control.name);
            control.semaphore->reset();
        }
    }
    unsigned state = SessionDecisions::StateFor(values_, persistent_->getDaSupportViewEnabled());
    if (state != values_.sessionState) {
        values_.sessionState = state;
        CoreManager::Instance().signalStatusChange();
    }
    logStateDebug();
}

void SupportViewManager::getStatus(ZelStatus& status) {
    status.sessionState = values_.sessionState;
    if (values_.readyOrJoined()) {
        status.sessionInfo = static_cast<char*>(std::malloc(values_.sessionCode.size() + 1));
        if (status.sessionInfo != nullptr) {
            std::memcpy(status.sessionInfo, values_.sessionCode.c_str(),
                        values_.sessionCode.size() + 1);
        }
    }
}

unsigned SupportViewManager::sessionInitialize(bool allowSessionCodeBypass,
                                               unsigned sessionCodeDigits) {
    LockMutex lock(CoreMutex());
    if (!agentRunning()) {
        return ZelResultNotInitialized;
    }
    switch (values_.sessionState) {
        case ZelSessionStateDisabled:
            return ZelResultNotInitialized;
        case ZelSessionStateTerminating:
        case ZelSessionStateSuspending:
            return ZelResultBusy;
        case ZelSessionStateInitializing:
        case ZelSessionStateResuming:
        case ZelSessionStateReady:
        case ZelSessionStateJoined:
            return ZelResultAlreadyInitialized;
        default:
            break;
    }
    values_.sessionRequest = SessionRequest::Initialize;
    values_.sessionAllowCodeBypass = allowSessionCodeBypass;
    values_.sessionCodeDigits = sessionCodeDigits;
    CoreManager::Instance().evaluateStateChanges();
    return ZelResultSuccess;
}

unsigned SupportViewManager::sessionInitialize(bool allowSessionCodeBypass) {
    unsigned digits;
    {
        LockMutex lock(CoreMutex());
        if (!agentRunning()) {
            return ZelResultNotInitialized;
        }
        digits = config_->getSessionCodeDigits();
    }
    return sessionInitialize(allowSessionCodeBypass, digits);
}

unsigned SupportViewManager::sessionTerminate() {
    LockMutex lock(CoreMutex());
    if (!agentRunning() || values_.sessionState == ZelSessionStateNone ||
        values_.sessionState == ZelSessionStateDisabled) {
        return ZelResultNotInitialized;
    }
    if (values_.sessionState == ZelSessionStateTerminating ||
        values_.sessionState == ZelSessionStateSuspending) {
        return ZelResultBusy;
    }
    // A session still being opened has no token to end it with: the open is
    // called off instead, and its answer will find nobody waiting.
    values_.sessionRequest =
        values_.hasSession() ? SessionRequest::Terminate : SessionRequest::None;
    CoreManager::Instance().evaluateStateChanges();
    return ZelResultSuccess;
}

unsigned SupportViewManager::executeCommand(const std::string& request, std::string& response) {
    {
        LockMutex lock(CoreMutex());
        if (!agentRunning()) {
            return ZelResultNotInitialized;
        }
    }
    Json::Value document;
    if (!JsonUtil::Parse(request, document) || !document.isObject()) {
        return ZelResultBadArgument;
    }
    // Commands run without the core mutex: some take seconds.
    Json::Value output;
    CommandExecutor::processCommands(document, output);
    Json::Value answer(Json::objectValue);
    answer["SESSION_ID"] = JsonUtil::Member(document, "SESSION_ID");
    answer["TASK_ID"] = JsonUtil::Member(document, "TASK_ID");
    answer["TASK_OUTPUT"] = output;
    response = JsonUtil::CompactOrdered(answer);
    return ZelResultSuccess;
}

std::string SupportViewManager::getSessionToken() {
    LockMutex lock(CoreMutex());
    return values_.sessionToken;
}

bool SupportViewManager::getSvLbrAwsDomain(std::string& domain) {
    LockMutex lock(CoreMutex());
    if (!agentRunning() || persistent_ == nullptr) {
        return false;
    }
    domain = persistent_->getSvLbrAwsDomain();
    return true;
}

void SupportViewManager::startSessionHooks() {
    VideoSessionInitialize();
    TrainingRemoteSessionInitialize();
}

void SupportViewManager::retireSessionToken() {
    if (values_.hasSession()) {
        VideoSessionTerminate();
        TrainingRemoteSessionTerminate();
        values_.sessionToken.clear();
        values_.sessionCode.clear();
        values_.taskResultList.clear();
        values_.generation++;
    }
    values_.sessionAllowCodeBypass = false;
    values_.sessionRequest = SessionRequest::None;
    values_.putTaskSeqNum = 0;
    values_.getTaskSeqNum = 0;
    for (ThreadValues& thread : values_.threads) {
        thread.watch = false;
        thread.retry = false;
    }
    logStateInfo();
}

// The token is a credential: the log shows only that there is one.
void SupportViewManager::storeSessionToken() {
    Json::Value stored;
    stored["code"] = values_.sessionCode;
    stored["token"] = values_.sessionToken.empty() ? "" : "(set)";
    Json::Value record;
    record["svSessionStore"] = stored;
    Logger::Instance().logJson(kLogSource, __LINE__, __func__, ServiceSv, record);
    FileUtil::Store(persistentPath_, SessionFile::kBaseName,
                    SessionFile::Format(values_.sessionCode, values_.sessionToken));
}

// A stored session is good for one start only: the file goes whatever it holds.
void SupportViewManager::loadSessionToken() {
    std::string content;
    bool loaded = FileUtil::Load(persistentPath_, SessionFile::kBaseName, content);
    FileUtil::Drop(persistentPath_, SessionFile::kBaseName);
    std::string code;
    std::string token;
    if (!loaded || !SessionFile::Parse(content, code, token)) {
        return;
    }
    Json::Value shown;
    shown["code"] = code;
    shown["token"] = "(set)";
    Json::Value record;
    record["svSessionLoad"] = shown;
    Logger::Instance().logJson(kLogSource, __LINE__, __func__, ServiceSv, record);
    values_.sessionCode = code;
    values_.sessionToken = token;
    startSessionHooks();
}

void SupportViewManager::logStateInfo() const {
    ZEL_LOG(ServiceSv, CategoryState, SeverityInfo,
            "SupportView State:  session=%c tasks=%u/%u %u/%u", values_.hasSession() ? 'y' : 'n',
            values_.taskExecuteCount, static_cast<unsigned>(values_.taskResultList.size()),
            values_.getTaskSeqNum, values_.putTaskSeqNum);
}

void SupportViewManager::logStatusInfo() const {
    ZEL_LOG(ServiceSv, CategoryState, SeverityInfo, "Session State         = %s",
            ZelSessionStateToString(values_.sessionState));
    ZEL_LOG(ServiceSv, CategoryState, SeverityInfo, "Session Code          = %s",
            values_.sessionCode.c_str());
}

void SupportViewManager::logStateDebug() const {
    if (!Logger::Instance().test(ServiceSv, CategoryState, SeverityDebug)) {
        return;
    }
    auto line = [](const char* label, const char* value) {
        ZEL_LOG(ServiceSv, CategoryState, SeverityDebug, "%-37s: %s", label, value);
    };
    auto number = [&](const char* label, unsigned value) {
        line(label, std::to_string(value).c_str());
    };
    const ThreadValues* threads = values_.threads;
    line("sessionToken", values_.sessionToken.empty() ? "" : "(set)");
    line("sessionCode", values_.sessionCode.c_str());
    line("sessionState", ZelSessionStateToString(values_.sessionState));
    line("sessionRequest", SessionRequestToString(values_.sessionRequest));
    line("sessionAllowCodeBypass", boolText(values_.sessionAllowCodeBypass));
    number("sessionCodeDigits", values_.sessionCodeDigits);
    line("sessionActivity", ThreadActivityToString(threads[RoleSession].activity));
    line("getTaskActivity", ThreadActivityToString(threads[RoleGetTask].activity));
    line("putTaskActivity", ThreadActivityToString(threads[RolePutTask].activity));
    line("sessionWatch", boolText(threads[RoleSession].watch));
    line("getTaskWatch", boolText(threads[RoleGetTask].watch));
    line("putTaskWatch", boolText(threads[RolePutTask].watch));
    line("sessionRetry", boolText(threads[RoleSession].retry));
    line("getTaskRetry", boolText(threads[RoleGetTask].retry));
    line("putTaskRetry", boolText(threads[RolePutTask].retry));
    line("timeoutActive", boolText(values_.timeoutActive));
    timespec now = TimeManager::Instance().now();
    long long ahead = values_.timeoutActive ? millisBetween(now, values_.timeoutLimit) : 0;
    ZEL_LOG(ServiceSv, CategoryState, SeverityDebug,
            "timeoutLimit                         : %i.%03i seconds from now",
            static_cast<int>(ahead / 1000), static_cast<int>(std::llabs(ahead % 1000)));
    static const char* const lastActive[] = {"session last active", "getTask last active",
                                             "putTask last active"};
    for (unsigned role = 0; role < kRoleCount; ++role) {
        long long ago = millisBetween(threads[role].lastActive, now);
        ZEL_LOG(ServiceSv, CategoryState, SeverityDebug, "%-37s: %i.%03i seconds ago",
                lastActive[role], static_cast<int>(ago / 1000),
                static_cast<int>(std::llabs(ago % 1000)));
    }
    number("taskResultList.size()", static_cast<unsigned>(values_.taskResultList.size()));
    number("taskExecuteCount", values_.taskExecuteCount);
    number("getTaskSeqNum", values_.getTaskSeqNum);
    number("putTaskSeqNum", values_.putTaskSeqNum);
    if (config_) {
        config_->logStateDebug();
    }
}

}  // namespace Sv
}  // namespace Zel
