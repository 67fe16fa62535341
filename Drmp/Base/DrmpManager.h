#pragma once

#include <time.h>

#include <memory>
#include <string>
#include <vector>

#include "Core/Base/ServiceManager.h"
#include "Core/Platform/Http.h"
#include "Core/Platform/Thread.h"
#include "Core/Platform/TimedSem.h"
#include "Drmp/Base/DrmpAnswer.h"
#include "Drmp/Base/DrmpConfig.h"
#include "Drmp/Base/DrmpPersistentValues.h"

namespace Zel {
namespace Drmp {

// Keeps the device's secure objects in step with the cloud's "drmp" service:
// DrmpControl obtains a drmp token, asks for work, carries out the installs
// and deletes through DrmpCustom and reports their results in the next call;
// StatusControl publishes the objects' states. One per process; fields are
// guarded by the core mutex.
class DrmpManager : public Core::ServiceManager {
public:
    enum MicroService : unsigned { Token = 0, Work = 1 };
    static const char* MicroServiceToString(unsigned service);

    static DrmpManager& Instance();

    void initialize(const Core::ServiceContext& context) override;
    void terminateBegin() override;
    void terminateEnd() override;
    void factoryResetOffline(const Core::ServiceContext& context) override;
    // Wakes DrmpControl once the core has its identity: provisioning waits for it.
    void cascadeStateChanges() override;

    // ZelCheckForDrmpUpdate: an immediate work call; 1 while not running.
    unsigned checkForDrmpUpdate();

    static const char* const kTimeBaseName;  // "drmpTime"

private:
    DrmpManager() = default;

    enum class Delay { Startup, Retry, Poll, None };

    static void* DrmpControl(void* self);
    static void* StatusControl(void* self);
    void drmpControl();
    void statusControl();
    bool waitForTurn(Delay delay);
    bool runCall(MicroService service, Core::Http::Request& request);
    void prepMicroService(MicroService service, Core::Http::Request& request);
    std::string tokenBody();
    std::string workBody();
    void carryOut(const std::vector<DrmpOperation>& operations);
    void readTimeFile();
    bool running() const;
    bool haveIdentity() const;

    std::unique_ptr<DrmpConfig> config_;
    std::unique_ptr<DrmpPersistentValues> values_;
    std::unique_ptr<Core::TimedSem> controlSem_;
    std::unique_ptr<Core::TimedSem> statusSem_;
    Core::Thread controlThread_;
    Core::Thread statusThread_;
    std::string persistentPath_;
    timespec lastWork_{};
    bool haveLastWork_ = false;
    bool terminating_ = false;
    bool checkNow_ = false;
    bool statusPending_ = false;
    bool waitingForIdentity_ = false;
};

}  // namespace Drmp
}  // namespace Zel
