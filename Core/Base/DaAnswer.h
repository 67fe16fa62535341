#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "Core/Base/EventManager.h"
#include "Core/Base/MicroService.h"

namespace Zel {
namespace Core {

class PersistentValues;

// Applies the body of a 2xx "da" answer to the core's values. It decides
// only from its arguments, so every rule can be tried without a cloud.
class DaAnswer {
public:
    // More events than this in one answer are dropped, so that a flooding
    // cloud cannot grow the queue without bound.
    static constexpr size_t kMaxEvents = 100;

    // False when the answer cannot be used: no JSON object, or an identity
    // answer without a usable "daGidToken". The caller then waits the retry
    // delay, as after a failed exchange. `badSynchs` counts unsynchronised
    // SynchronizeCoreState answers in a row; `events` receives "daEvents".
    static bool Apply(MicroService service, const std::string& body, PersistentValues& persistent,
                      unsigned& badSynchs, std::vector<Event>& events);

private:
    static void applySynchronize(const Json::Value& answer, PersistentValues& persistent,
                                 unsigned& badSynchs, std::vector<Event>& events);
    static void readEvents(const Json::Value& list, std::vector<Event>& events);
};

}  // namespace Core
}  // namespace Zel
