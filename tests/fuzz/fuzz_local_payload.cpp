// The front of a local payload file: the length and the token it announces,
// read as the agent reads them, from a file in the working directory.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "SoftwareUpdate/Platform/PayloadManager.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = [] {
        char directory[4096];
        std::string here = getcwd(directory, sizeof directory) != nullptr ? directory : "/tmp";
        return here + "/fuzz_local_payload.bin";
    }();
    FILE* file = fopen(path.c_str(), "wb");
    if (file == nullptr) {
        return 0;
    }
    fwrite(data, 1, size, file);
    fclose(file);
    std::string metadata;
    bool failure = false;
    std::string reason;
    std::string time;
    Zel::Su::PayloadManager::ReadMetadata(path, metadata, failure, reason, time);
    return 0;
}
