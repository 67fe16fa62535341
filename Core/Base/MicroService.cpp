#include "Core/Base/MicroService.h"

namespace Zel {
namespace Core {

const char* MicroServiceToString(unsigned service) {
    switch (service) {
        case CheckForNotification:
            return "CheckForNotification";
        case GetDeviceIdentity:
            return "GetDeviceIdentity";
        case SynchronizeCoreState:
            return "SynchronizeCoreState";
        default:
            return "Unknown";
    }
}

const char* MicroServicePath(unsigned service) {
    switch (service) {
        case CheckForNotification:
            return "da/notification";
        case GetDeviceIdentity:
            return "da/gidtoken";
        default:
            return "da/state";
    }
}

}  // namespace Core
}  // namespace Zel
