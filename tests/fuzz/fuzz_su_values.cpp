// The body of the persisted update values.
#include <cstddef>
#include <cstdint>
#include <string>

#include "SoftwareUpdate/Base/SuValues.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Zel::Su::SuValues values;
    values.unmarshal(std::string(reinterpret_cast<const char*>(data), size));
    Zel::Su::SuValues again;
    again.unmarshal(values.marshal());
    return again == values ? 0 : (__builtin_trap(), 0);
}
