#pragma once

#include <memory>
#include <string>

#include "Core/Base/ServiceManager.h"
#include "Core/Platform/BinarySem.h"
#include "Core/Platform/Thread.h"
#include "Core/Platform/TimedSem.h"
#include "SoftwareUpdate/Base/SoftwareUpdateConfig.h"
#include "SoftwareUpdate/Base/SuValues.h"
#include "SoftwareUpdate/Platform/PayloadManager.h"
#include "zel.h"

namespace Zel {
namespace Core {
class PersistentValues;
}  // namespace Core

namespace Su {

// Software updates: the host's source and permission, the UpdateControl
// thread that turns an offered update into a verified staging file one
// block per turn, the report to the "su" service, and the update part of
// the status. One per process; fields are guarded by the core mutex, the
// PayloadManager belongs to UpdateControl alone.
class SoftwareUpdateManager : public Core::ServiceManager {
public:
    static SoftwareUpdateManager& Instance();

    static const char* ZelSoftwareUpdateStateToString(unsigned state);
    static const char* ZelSoftwareUpdateSourceToString(unsigned source);
    static const char* ZelSoftwareUpdatePermissionToString(unsigned permission);

    void initialize(const Core::ServiceContext& context) override;
    void terminateBegin() override;
    void terminateEnd() override;
    void getStatus(ZelStatus& status) override;
    void factoryResetOffline(const Core::ServiceContext& context) override;

    // ZelResult codes. `fromHost`: the host asks again even for the same
    // source, so that a failed update can be tried once more.
    unsigned setSource(unsigned source, const std::string& location, bool fromHost);
    unsigned setPermission(unsigned permission);

    const SoftwareUpdateConfig* getSuConfigPtr() const { return config_.get(); }
    void logStateInfo() const;
    void logStatusInfo() const;

private:
    SoftwareUpdateManager();

    // What UpdateControl works from in one turn.
    struct Snapshot {
        unsigned source = ZelSoftwareUpdateSourceNetwork;
        std::string location;
        std::string metadata;
        unsigned permission = 0;
        bool force = false;
        bool local() const { return source == ZelSoftwareUpdateSourceLocal; }
        // What is offered, to tell one update from the next.
        std::string offer() const { return local() ? "L:" + location : "N:" + metadata; }
        bool empty() const { return local() ? location.empty() : metadata.empty(); }
    };

    static void* UpdateControl(void* self);
    void updateControl();
    bool waitForChanges(Snapshot& snapshot);
    void runTurn(const Snapshot& snapshot);
    void supersede();
    bool analyse(const Snapshot& snapshot);
    void applyPermission(const Snapshot& snapshot);
    void settle(const Snapshot& snapshot);
    void failTurn(const std::string& reason, const std::string& time);
    void finishTurn();
    bool waitUntil(const timespec& deadline);

    // Reports the end of a network update to "su/download/complete"; false
    // only when the cloud refused it.
    bool SendTerminalStatus(bool network, bool failure, const std::string& details,
                            const std::string& date, const std::string& metadata);

    void setState(unsigned state);
    bool terminating() const;

    std::unique_ptr<SoftwareUpdateConfig> config_;
    Core::PersistentValues* persistent_ = nullptr;
    std::string persistentPath_;
    Core::BinarySem changes_;
    std::unique_ptr<Core::TimedSem> delaySem_;
    Core::Thread thread_;

    // Host and cloud side, under the core mutex.
    unsigned source_ = ZelSoftwareUpdateSourceNetwork;
    unsigned permission_ = 0;
    SuValues values_;
    SuValues stored_;
    bool changesPending_ = false;
    bool force_ = false;
    bool terminating_ = false;
    bool resetting_ = false;

    // What the status shows, under the core mutex.
    unsigned state_ = 0;
    unsigned percent_ = 0;
    bool mandatory_ = false;
    bool autoAnswer_ = false;
    std::string version_;
    std::string displayText_;
    std::string hash_;
    unsigned signalledState_ = 0;
    unsigned signalledPercent_ = 0;
    unsigned signalledPermission_ = 0;

    // UpdateControl's own.
    std::unique_ptr<PayloadManager> payload_;
    std::string activeOffer_;
    std::string activeToken_;
    bool activeNetwork_ = false;
    std::string failedOffer_;
    unsigned turnPermission_ = 0;
    bool reported_ = false;
};

}  // namespace Su
}  // namespace Zel
