#pragma once

namespace Zel {
namespace Core {

// The calls StateControl makes to the "da" service.
enum MicroService : unsigned {
    CheckForNotification = 0,
    GetDeviceIdentity = 1,
    SynchronizeCoreState = 2,
};

const char* MicroServiceToString(unsigned service);
// URL path below "/api/v1/".
const char* MicroServicePath(unsigned service);

}  // namespace Core
}  // namespace Zel
