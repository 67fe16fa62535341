#include "SoftwareUpdate/Base/UpdateDecisions.h"

#include "zel.h"

namespace Zel {
namespace Su {

UpdateDecisions::Action UpdateDecisions::ForPermissionChange(unsigned previous, unsigned next,
                                                             bool complete) {
    struct Row {
        unsigned previous;
        unsigned next;
        Action action;
        bool guarded;
    };
    static const Row kRows[] = {
        {ZelSoftwareUpdatePermissionNone, ZelSoftwareUpdatePermissionDownload, Action::Lock, false},
        {ZelSoftwareUpdatePermissionConfirm, ZelSoftwareUpdatePermissionDownload, Action::Lock,
         true},
        {ZelSoftwareUpdatePermissionNone, ZelSoftwareUpdatePermissionConfirm, Action::Lock, true},
        {ZelSoftwareUpdatePermissionDownload, ZelSoftwareUpdatePermissionNone, Action::Unlock,
         false},
        {ZelSoftwareUpdatePermissionConfirm, ZelSoftwareUpdatePermissionNone, Action::Unlock, true},
        {ZelSoftwareUpdatePermissionDownload, ZelSoftwareUpdatePermissionConfirm, Action::Unlock,
         false},
    };
    for (const Row& row : kRows) {
        if (row.previous == previous && row.next == next) {
            return row.guarded && complete ? Action::Nothing : row.action;
        }
    }
    return Action::Nothing;
}

}  // namespace Su
}  // namespace Zel
