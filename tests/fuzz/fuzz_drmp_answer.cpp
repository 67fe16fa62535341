// A "drmp" answer body: the first byte picks the token or the work answer,
// the rest is the body, applied as the agent applies it.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Drmp/Base/DrmpAnswer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Zel::Drmp;
    if (size == 0) {
        return 0;
    }
    std::string body(reinterpret_cast<const char*>(data) + 1, size - 1);
    // Without a configuration nothing is written.
    DrmpPersistentValues values(nullptr);
    if (data[0] % 2 == 0) {
        DrmpAnswer::ApplyToken(body, values);
    } else {
        std::vector<DrmpOperation> operations;
        bool statusChanged = false;
        DrmpAnswer::ApplyWork(body, values, operations, statusChanged);
        uint32_t type = 0;
        for (const DrmpOperation& operation : operations) {
            DrmpAnswer::EncryptionTypeFromText(operation.encryptionType, type);
        }
    }
    return 0;
}
