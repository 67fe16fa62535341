#pragma once

#include <string>

namespace Zel {
namespace Sv {

// One task received from the "sv" service: owned by its ExecuteTask thread
// until the result waits on the manager's list, then by the list.
struct SessionTask {
    std::string taskRequest;   // the command request document, as text
    std::string taskResponse;  // the answer document, as text
    unsigned seqNum = 0;
    // The session the task belongs to: a result that outlives its session,
    // or the agent, must not be posted to the next one.
    unsigned generation = 0;
};

}  // namespace Sv
}  // namespace Zel
