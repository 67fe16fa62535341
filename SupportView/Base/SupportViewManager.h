#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "Core/Base/ServiceManager.h"
#include "Core/Platform/Http.h"
#include "Core/Platform/Thread.h"
#include "Core/Platform/TimedSem.h"
#include "SupportView/Base/SessionValues.h"
#include "SupportView/Base/SupportViewConfig.h"

namespace Zel {
namespace Core {
class PersistentValues;
class CoreConfig;
}  // namespace Core

namespace Sv {

// Remote-support sessions on the cloud's "sv" service: SessionControl opens,
// ends, suspends and resumes them, GetTaskControl long-polls for tasks, each
// task runs on an ExecuteTask thread of its own, and PutTaskControl posts the
// results back. One per process; every field is guarded by the core mutex.
class SupportViewManager : public Core::ServiceManager {
public:
    static SupportViewManager& Instance();

    void initialize(const Core::ServiceContext& context) override;
    void terminateBegin() override;
    void terminateEnd() override;
    void cascadeStateChanges() override;
    void getStatus(ZelStatus& status) override;
    void factoryResetOffline(const Core::ServiceContext& context) override;

    // The host's calls and the "startsvsession" event; ZelResult codes.
    unsigned sessionInitialize(bool allowSessionCodeBypass, unsigned sessionCodeDigits);
    unsigned sessionInitialize(bool allowSessionCodeBypass);
    unsigned sessionTerminate();

    // Runs one task's request document: 0, 1 (agent not running) or 5 (not JSON).
    unsigned executeCommand(const std::string& request, std::string& response);

    // Network diagnostics, one test at a time. The pass flags of the NAT,
    // DNS, gateway and internet tests; the rates are megabits per second of
    // payload, -1 when a direction failed.
    void runNetworkDiagnosticsTest(bool& nat, bool& dns, bool& gateway, bool& internet);
    void runLatencyTest(int& latencyMs);
    void runWirelessTest(int& signalDbm, int& quality, int& speedMbps);
    void runSpeedTest(double& up, double& down);
    bool runDownload(double& mbps);
    bool runUpload(double& mbps);

    std::string getSessionToken();
    // False while the agent is not running.
    bool getSvLbrAwsDomain(std::string& domain);
    const SupportViewConfig* getSupportViewConfigPtr() const { return config_.get(); }

    void logStateInfo() const;
    void logStateDebug() const;
    void logStatusInfo() const;

private:
    SupportViewManager();

    // The three control threads share this loop.
    struct ControlThread {
        ThreadRole role;
        const char* name;
        std::unique_ptr<Core::TimedSem> semaphore;
        Core::Thread thread;
    };
    static void* SessionControl(void* self);
    static void* GetTaskControl(void* self);
    static void* PutTaskControl(void* self);
    void controlLoop(ControlThread& control);
    void runCall(ControlThread& control, Core::Http::Request& request);
    void delay(ControlThread& control);
    void startTask(std::unique_ptr<SessionTask> task);
    static void* ExecuteTask(void* task);
    void finishTask(std::unique_ptr<SessionTask> task, bool succeeded);

    // The sv protocol
    void prepMicroService(MicroService service, Core::Http::Request& request);
    void postMicroService(MicroService service, bool performed,
                          const Core::Http::Response& response, const std::string& callToken);
    void setRequestUrl(MicroService service, Core::Http::Request& request) const;
    void setRequestHeaderAuthorizedSession(Core::Http::Request& request) const;
    void setRequestBody(MicroService service, Core::Http::Request& request) const;
    void getResponseHeaders(MicroService service, const Core::Http::Response& response);
    void getResponseBody(MicroService service, const Core::Http::Response& response);

    bool speedTransfer(bool upload, double& mbps);
    bool performSpeedTransfer(Core::Http::Request& request, bool upload, unsigned size,
                              unsigned timeMs, double& mbps);

    void storeSessionToken();
    void loadSessionToken();
    void retireSessionToken();
    void startSessionHooks();
    bool agentRunning() const;

    std::unique_ptr<SupportViewConfig> config_;
    Core::PersistentValues* persistent_ = nullptr;
    std::string persistentPath_;
    SessionValues values_;
    ControlThread controls_[kRoleCount];
    // Cuts short the calls in flight when the agent stops: the long poll and
    // the put at once, a session call in favour of the last one.
    std::atomic<bool> abortCalls_{false};
    // One network test at a time.
    std::mutex networkTestMutex_;
    // Speed-test exchanges in flight; shut-down waits for them, as they use
    // the device identity.
    std::mutex speedTransferMutex_;
    std::condition_variable speedTransferDone_;
    unsigned speedTransfers_ = 0;
};

}  // namespace Sv
}  // namespace Zel
