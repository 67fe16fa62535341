#pragma once

#include <string>

namespace Zel {
namespace Sv {

class System {
public:
    // Runs a shell command; false when it could not run. `status` gets what
    // system() returned.
    static bool SystemCall(const std::string& command, int& status);
};

}  // namespace Sv
}  // namespace Zel
