#pragma once

#include <cstdint>
#include <string>

#include "Drmp/Project/DrmpCustom.h"

namespace Zel {
namespace Drmp {

// The secure core of a development device, from the "drmp" configuration:
// the unique key (hex text; empty or not hex: it cannot be read), its index,
// and the supported object names (comma-separated, blanks around them
// ignored). Installs and deletes are kept in memory for the process's life.
class EmulatedSecureCore {
public:
    static void Configure(uint32_t ulpkIndex, const std::string& ulpkHex,
                          const std::string& objectNames);
    static DrmpCustom::Functions Functions();
    // Whether an object is installed, for tests.
    static bool Holds(const std::string& name);
};

}  // namespace Drmp
}  // namespace Zel
