// An "sv" answer body: the first byte picks the call it answers and the
// request pending, the rest is the body, applied as the agent applies it.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "SupportView/Base/SvAnswer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Zel::Sv;
    if (size == 0) {
        return 0;
    }
    auto service = static_cast<MicroService>(data[0] % 6);
    SessionValues values;
    values.sessionToken = "token";
    values.sessionRequest = static_cast<SessionRequest>((data[0] / 6) % 5);
    values.taskResultList.push_back(std::make_unique<SessionTask>());
    long status = (data[0] & 0x80) != 0 ? 204 : 200;
    std::string body(reinterpret_cast<const char*>(data) + 1, size - 1);
    std::unique_ptr<SessionTask> task;
    SvAnswer::Apply(service, status, body, values, task);
    return 0;
}
