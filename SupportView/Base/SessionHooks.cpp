#include "SupportView/Base/SessionHooks.h"

namespace Zel {
namespace Sv {

// Screen streaming has nothing to set up or stop until it is part of the agent.
void VideoSessionInitialize() {}
void VideoSessionTerminate() {}

}  // namespace Sv
}  // namespace Zel
