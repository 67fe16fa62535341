// A "da" answer body: the first byte picks the call it answers, the rest is
// the body, applied as the agent applies it.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Core/Base/DaAnswer.h"
#include "Core/Base/PersistentValues.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Zel::Core;
    if (size == 0) {
        return 0;
    }
    auto service = static_cast<MicroService>(data[0] % 3);
    std::string body(reinterpret_cast<const char*>(data) + 1, size - 1);
    PersistentValues persistent(nullptr, nullptr, nullptr);
    unsigned badSynchs = 0;
    std::vector<Event> events;
    DaAnswer::Apply(service, body, persistent, badSynchs, events);
    return 0;
}
