// The device document: the string members the agent takes from it.
#include <cstddef>
#include <cstdint>
#include <string>

#include "Core/Project/DeviceValues.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    Zel::Core::DeviceValues::ReadDocument(text.c_str());
    return 0;
}
