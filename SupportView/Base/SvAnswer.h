#pragma once

#include <memory>
#include <string>

#include "SupportView/Base/SessionValues.h"

namespace Zel {
namespace Sv {

// Applies the body of a 2xx "sv" answer to the session's values. It decides
// only from its arguments, so every rule can be tried without a cloud; the
// manager carries out the effect it returns.
class SvAnswer {
public:
    // A session code is shown to the viewer; anything longer is not a code.
    static constexpr size_t kMaxCodeBytes = 64;

    enum class Effect {
        Nothing,
        SessionOpened,     // token and code taken: start the session hooks
        SessionEnded,      // the cloud ended it: retire the token
        SessionSuspended,  // store the token, then retire it
        TaskReceived,      // `task` holds a new task to run
        ResultPosted,      // the first result has gone
    };

    // `status` is the answer's 2xx code; a 204 carries no body to read.
    static Effect Apply(MicroService service, long status, const std::string& body,
                        SessionValues& values, std::unique_ptr<SessionTask>& task);
};

}  // namespace Sv
}  // namespace Zel
