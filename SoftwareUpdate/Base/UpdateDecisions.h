#pragma once

namespace Zel {
namespace Su {

// What a change of the host's permission does to the staging file.
class UpdateDecisions {
public:
    enum class Action { Nothing, Lock, Unlock };

    // `complete`: every block is staged and verified. A complete download is
    // never locked again (Confirm back to Download, None to Confirm) nor
    // unlocked on the way back from Confirm, where the rows are guarded.
    static Action ForPermissionChange(unsigned previous, unsigned next, bool complete);
};

}  // namespace Su
}  // namespace Zel
