#pragma once

#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "Core/Base/ServiceManager.h"
#include "Core/Platform/BinarySem.h"
#include "Core/Platform/Thread.h"

namespace Zel {
namespace Core {

struct Event {
    std::string name;
    unsigned id = 0;
    std::string parameters;
};

// Hands the cloud's events, one at a time and in arrival order, from
// StateControl to the services that own them, on its own "EventControl"
// thread so that StateControl never waits for a receiver.
class EventManager : public ServiceManager {
public:
    using Receiver = std::function<void(const Event&)>;

    static EventManager& Instance();

    void initialize(const ServiceContext& context) override;
    void terminateBegin() override;
    void terminateEnd() override;
    const char* waitMessage() const override { return "Waiting for EventManager"; }

    // Core mutex held by the caller.
    void queueEvent(const std::string& event, unsigned id, const std::string& parameters);

    // The services that own "startsvsession" and "softwareupdate" register
    // here. Without a receiver a session request is suppressed and an update
    // offer ignored.
    void setReceiver(const std::string& event, Receiver receiver);
    void clearReceiver(const std::string& event);

    // Hook for a device build that shows the consent page; nothing here.
    static void PerformConsentNotification(const std::string& url);

private:
    EventManager();

    static void* EventControl(void* self);
    void run();
    void dispatch(const Event& event);

    PersistentValues* persistent_ = nullptr;
    std::deque<Event> queue_;
    bool terminating_ = false;
    BinarySem semaphore_;
    Thread thread_;

    std::mutex receiversMutex_;
    std::map<std::string, Receiver> receivers_;
};

}  // namespace Core
}  // namespace Zel
