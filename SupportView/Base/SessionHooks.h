#pragma once

namespace Zel {
namespace Sv {

// What else starts and ends with a session. Called with the core mutex held.
void VideoSessionInitialize();
void VideoSessionTerminate();
void TrainingRemoteSessionInitialize();
void TrainingRemoteSessionTerminate();

}  // namespace Sv
}  // namespace Zel
