#pragma once

#include <string>

namespace Zel {
namespace Core {

// Certificate checks over PEM texts.
class X509Util {
public:
    // The subject's common name, byte for byte; false when the certificate
    // cannot be read or has no common name.
    static bool GetCommonName(const std::string& certPem, std::string& cn);
    // Verifies the (first) certificate of `certPem` against a store built from
    // every certificate in `trustPem`.
    static bool VerifyChain(const std::string& certPem, const std::string& trustPem);
};

}  // namespace Core
}  // namespace Zel
