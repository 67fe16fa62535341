#pragma once

struct ZelStatus;

namespace Zel {
namespace Core {

class CoreConfig;
class PersistentValues;

// What every service manager is handed when the agent starts.
struct ServiceContext {
    const char* configText;        // the whole configuration document
    CoreConfig* config;            // its "core" section
    PersistentValues* persistent;  // the core's persisted values
};

// A service that lives from ZelInit to the end of ZelTerm. The core starts
// the managers in the order it lists them and stops them in the same order.
// initialize and terminateBegin run with the core mutex held; terminateBegin
// must not block (set a flag, wake the threads). terminateEnd runs without
// it and joins.
class ServiceManager {
public:
    virtual ~ServiceManager() = default;

    virtual void initialize(const ServiceContext& context) = 0;
    virtual void terminateBegin() = 0;
    virtual void terminateEnd() = 0;

    // Logged by the terminating thread before terminateEnd; null logs nothing.
    virtual const char* waitMessage() const { return nullptr; }
    // Called with the core mutex held whenever the core re-evaluates its state.
    virtual void cascadeStateChanges() {}
    // Fills this service's members of the status record, core mutex held.
    virtual void getStatus(ZelStatus&) {}
    // ZelFactoryResetOffline, core mutex held, the agent not running: drop
    // whatever this service keeps under the context's directories. The
    // context carries no persistent values.
    virtual void factoryResetOffline(const ServiceContext&) {}
};

}  // namespace Core
}  // namespace Zel
