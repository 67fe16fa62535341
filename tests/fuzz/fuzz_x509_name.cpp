// The common name of a certificate, from PEM text as the identity document
// delivers it.
#include <cstddef>
#include <cstdint>
#include <string>

#include "Core/Platform/Base64Util.h"
#include "Core/Platform/X509Util.h"

using Zel::Core::X509Util;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string input(reinterpret_cast<const char*>(data), size);
    std::string cn;
    X509Util::GetCommonName(input, cn);

    // Random text rarely survives the PEM armour; the same bytes as the DER
    // inside one reach the certificate parser on every run.
    std::string encoded = Zel::Core::Base64Util::Encode(input);
    std::string pem = "-----BEGIN CERTIFICATE-----\n";
    for (size_t at = 0; at < encoded.size(); at += 64) {
        pem += encoded.substr(at, 64);
        pem += '\n';
    }
    pem += "-----END CERTIFICATE-----\n";
    X509Util::GetCommonName(pem, cn);
    return 0;
}
