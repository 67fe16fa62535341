// The body of the persisted update values.
#include <cstddef>
#include <cstdint>
#include <string>

#include "SoftwareUpdate/Base/SuValues.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Zel::Su::SuValues values;
    values.unmarshal(std::string(reinterpret_cast<const char*>(data), size));
    // Text that is not UTF-8 is written back escaped: stable from the first
    // round trip on.
    Zel::Su::SuValues again;
    again.unmarshal(values.marshal());
    Zel::Su::SuValues third;
    third.unmarshal(again.marshal());
    return third == again ? 0 : (__builtin_trap(), 0);
}
