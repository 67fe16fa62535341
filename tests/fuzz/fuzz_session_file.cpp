// The body of the persisted session file.
#include <cstddef>
#include <cstdint>
#include <string>

#include "SupportView/Base/SessionFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string code;
    std::string token;
    Zel::Sv::SessionFile::Parse(std::string(reinterpret_cast<const char*>(data), size), code,
                                token);
    return 0;
}
