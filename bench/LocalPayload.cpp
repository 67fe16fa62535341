// zel-bench-payload PKI_DIR OUT_FILE MIB: writes a local payload file of MIB
// MiB of plaintext, signed and sealed with the PKI's update keys (as
// make-pki.sh leaves them), for the lab's device (software 4.8.0), block by
// block, so that a payload of gigabytes needs a few megabytes of memory.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "PayloadFile.h"

int main(int argc, char** argv) {
    if (argc != 4 || std::atoll(argv[3]) <= 0) {
        std::fprintf(stderr, "usage: %s PKI_DIR OUT_FILE MIB\n", argv[0]);
        return 2;
    }
    ZelBench::PayloadSpec spec;
    spec.pkiDir = argv[1];
    spec.displayText = "Footprint benchmark";
    spec.audiences = {"4.8.0"};
    ZelBench::Payload payload;
    std::string error;
    if (!ZelBench::WritePayload(spec, argv[2], static_cast<uint64_t>(std::atoll(argv[3])) << 20,
                                payload, error)) {
        std::fprintf(stderr, "zel-bench-payload: %s\n", error.c_str());
        return 1;
    }
    std::printf("%s sha256 %s\n", payload.path.c_str(), payload.hash.c_str());
    return 0;
}
