#pragma once

#include <json/value.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "Core/Base/CoreMutex.h"
#include "Core/Base/MicroService.h"
#include "Core/Base/VolatileValues.h"
#include "Core/Platform/BinarySem.h"
#include "Core/Platform/Http.h"
#include "Core/Platform/Thread.h"
#include "Core/Platform/TimedSem.h"

struct ZelStatus;

namespace Zel {
namespace Core {

class CoreConfig;
class DeviceValues;
class PersistentValues;
class ProductIdentity;
class ServiceManager;

// The agent's lifecycle, its core objects and the StateControl thread that
// keeps the core state in step with the "da" service. One per process.
class CoreManager {
public:
    enum DeviceAgentState : unsigned {
        Uninitialized = 0,
        Initialized = 1,
        Terminating = 2,
        FactoryResetting = 3,
    };
    static const char* DeviceAgentStateToString(unsigned state);

    static CoreManager& Instance();

    // The host's entry points; each returns a ZelResult code.
    unsigned initialize(const char* identity, const char* config, const char* device);
    unsigned terminate(bool factoryReset);
    unsigned factoryResetOffline(const char* config);
    unsigned enableTestMode();
    unsigned setOemMsg(const char* message);
    unsigned checkForSoftwareUpdate();
    unsigned getStatus(unsigned method, ZelStatus* status);
    unsigned freeStatus(ZelStatus* status);
    unsigned supervisorLog(unsigned severity, const std::string& text);

    // Core mutex held by the caller for all of these.
    void evaluateStateChanges();
    void signalStatusChange();
    void setNotSynchronized();
    void retireGidToken();

    Mutex& getMutex() { return CoreMutex(); }
    unsigned getDeviceAgentState() const { return state_; }
    ProductIdentity* getCoreIdentityPtr() const { return identity_.get(); }
    CoreConfig* getCoreConfigPtr() const { return config_.get(); }
    DeviceValues* getCoreDevicePtr() const { return device_.get(); }
    PersistentValues* getCorePersistentPtr() const { return persistent_.get(); }
    // Set while the agent shuts down; long transfers watch it and give up.
    const std::atomic<bool>* getAbortFlag() const { return &abort_; }

    // Request pieces shared by every service's control threads.
    void setRequestHttpVerb(Http::Request& request, Http::Verb verb) const;
    void setRequestIdentity(Http::Request& request) const;
    void setRequestUrl(Http::Request& request, const std::string& service,
                       const std::string& path) const;
    static void setRequestHeaderDate(Http::Request& request);
    static void setRequestHeaderAcceptJson(Http::Request& request);
    static void setRequestHeaderContentTypeJson(Http::Request& request);
    void setRequestHeaderAuthorizedGid(Http::Request& request) const;

private:
    CoreManager();

    bool terminatingOrResetting() const {
        return state_ == Terminating || state_ == FactoryResetting;
    }
    void logStateInfo() const;
    void logStateDebug() const;
    void noteSettingChanged();

    // StateControl
    static void* StateControl(void* self);
    void stateControl();
    void readTimerFile();
    void writeTimerFile() const;

    // The da protocol
    void prepMicroService(MicroService service, Http::Request& request);
    void postMicroService(MicroService service, bool performed, const Http::Response& response);
    void setRequestBody(MicroService service, Http::Request& request) const;
    void getResponseHeaders(MicroService service, const Http::Response& response);
    bool getResponseBody(MicroService service, const Http::Response& response);

    // Start and shut-down
    bool buildCoreObjects(const char* identity, const char* config, const char* device);
    void releaseCoreObjects();
    void beginTermination(bool factoryReset);
    static void* TerminateThread(void* self);
    void finishTermination();

    std::atomic<unsigned> state_{Uninitialized};
    std::unique_ptr<CoreConfig> config_;
    std::unique_ptr<ProductIdentity> identity_;
    std::unique_ptr<DeviceValues> device_;
    std::unique_ptr<PersistentValues> persistent_;
    std::unique_ptr<VolatileValues> volatile_;
    std::unique_ptr<TimedSem> stateSem_;
    BinarySem statusSem_;
    Thread stateThread_;
    Thread terminateThread_;
    std::atomic<bool> abort_{false};
    std::string configText_;
    std::vector<ServiceManager*> managers_;
};

}  // namespace Core
}  // namespace Zel
