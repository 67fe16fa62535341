// The identity document: JSON with the base64-encoded key, certificate and
// trust chain, followed as the agent does to the common name it reports.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Core/Platform/X509Util.h"
#include "Core/Project/ProductIdentity.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The pass phrase default comes from the vendor plug-in; a path that can
    // never exist keeps whatever plug-in this machine has out of the process.
    setenv("ZEL_KORVANE_PLUGIN", "/dev/null/libzel_korvane.so", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    Zel::Core::ProductIdentity identity(text.c_str());
    if (!identity.getCert().empty()) {
        std::string cn;
        Zel::Core::X509Util::GetCommonName(identity.getCert(), cn);
    }
    return 0;
}
