#include "Core/Base/EventManager.h"

#include <json/value.h>

#include "Core/Base/CoreMutex.h"
#include "Core/Base/PersistentValues.h"
#include "Core/Platform/Logger.h"

namespace Zel {
namespace Core {

namespace {
constexpr const char* kLogSource = "Base/EventManager";
}  // namespace

EventManager& EventManager::Instance() {
    static EventManager* instance = new EventManager;  // outlives exit, like the core
    return *instance;
}

EventManager::EventManager() : semaphore_(false, CoreMutex()) {}

void EventManager::initialize(const ServiceContext& context) {
    persistent_ = context.persistent;
    terminating_ = false;
    queue_.clear();
    ThreadUtil::Start(thread_, EventControl, this, "EventControl");
}

void EventManager::terminateBegin() {
    terminating_ = true;
    semaphore_.giveLocked();
}

void EventManager::terminateEnd() {
    ZEL_LOG(ServiceCore, CategoryState, SeverityInfo, "Waiting for EventControl to join");
    ThreadUtil::Join(thread_);
}

void EventManager::queueEvent(const std::string& event, unsigned id,
                              const std::string& parameters) {
    if (terminating_) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityInfo,
                "Not Queueing event=%s, id=%u, parameters=%s", event.c_str(), id,
                parameters.c_str());
        return;
    }
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "Queueing event=%s, id=%u, parameters=%s",
            event.c_str(), id, parameters.c_str());
    bool wasEmpty = queue_.empty();
    queue_.push_back(Event{event, id, parameters});
    if (wasEmpty) {
        semaphore_.giveLocked();
    }
    Json::Value queued;
    queued["event"] = event;
    queued["parameters"] = parameters;
    Json::Value record;
    record["coreEventQueued"] = queued;
    Logger::Instance().logJson(kLogSource, __LINE__, __func__, ServiceCore, record);
}

void EventManager::setReceiver(const std::string& event, Receiver receiver) {
    std::lock_guard<std::mutex> guard(receiversMutex_);
    receivers_[event] = std::move(receiver);
}

void EventManager::clearReceiver(const std::string& event) {
    std::lock_guard<std::mutex> guard(receiversMutex_);
    receivers_.erase(event);
}

void EventManager::PerformConsentNotification(const std::string&) {}

void* EventManager::EventControl(void* self) {
    static_cast<EventManager*>(self)->run();
    return nullptr;
}

void EventManager::run() {
    ZEL_LOG(ServiceCore, CategoryState, SeverityInfo, "EventControl started");
    for (;;) {
        Event next;
        {
            LockMutex lock(CoreMutex());
            while (queue_.empty() && !terminating_) {
                semaphore_.takeLocked();
            }
            if (terminating_) {
                for (const Event& event : queue_) {
                    ZEL_LOG(ServiceCore, CategoryState, SeverityInfo,
                            "Aborting event=%s, id=%u, parameters=%s", event.name.c_str(), event.id,
                            event.parameters.c_str());
                }
                queue_.clear();
                return;
            }
            next = std::move(queue_.front());
            queue_.pop_front();
        }
        // Receivers take their own locks and may call back into the core.
        dispatch(next);
    }
}

void EventManager::dispatch(const Event& event) {
    Receiver receiver;
    {
        std::lock_guard<std::mutex> guard(receiversMutex_);
        auto found = receivers_.find(event.name);
        if (found != receivers_.end()) {
            receiver = found->second;
        }
    }
    if (receiver) {
        receiver(event);
    } else if (event.name == "consentnotification") {
        std::string url;
        {
            LockMutex lock(CoreMutex());
            if (persistent_ != nullptr) {
                url = persistent_->getDaConsentUrl();
            }
        }
        PerformConsentNotification(url);
    } else if (event.name == "startsvsession") {
        ZEL_LOG(ServiceCore, CategoryState, SeverityInfo,
                "Suppressing event=%s, id=%u, parameters=%s", event.name.c_str(), event.id,
                event.parameters.c_str());
    } else {
        ZEL_LOG(ServiceCore, CategoryState, SeverityInfo, "Ignoring event=%s, id=%u, parameters=%s",
                event.name.c_str(), event.id, event.parameters.c_str());
    }
}

}  // namespace Core
}  // namespace Zel
