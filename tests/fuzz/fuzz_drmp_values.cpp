// The body of the persisted provisioning values, with the round trip that
// must hold for whatever was taken from it.
#include <cstddef>
#include <cstdint>
#include <string>

#include "Drmp/Base/DrmpPersistentValues.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using Zel::Drmp::DrmpPersistentValues;
    DrmpPersistentValues values(nullptr);
    if (!values.unmarshal(std::string(reinterpret_cast<const char*>(data), size))) {
        return 0;
    }
    // Text that is not UTF-8 is written back escaped: stable from the first
    // round trip on.
    DrmpPersistentValues again(nullptr);
    DrmpPersistentValues third(nullptr);
    if (!again.unmarshal(values.marshal()) || !third.unmarshal(again.marshal()) ||
        third.marshal() != again.marshal()) {
        __builtin_trap();
    }
    return 0;
}
