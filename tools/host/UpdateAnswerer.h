#pragma once

#include <cstdint>
#include <string>

#include "zel.h"

// Plays the user who is asked about an offered software update: answers it
// with the permission given on the command line, and shows how far the
// download has got as a progress bar.
class UpdateAnswerer {
public:
    // `permission`: ZelSoftwareUpdatePermission*, or above them to never answer.
    explicit UpdateAnswerer(uint32_t permission) : permission_(permission) {}

    // Called with every status the host reads.
    void observe(const ZelStatus& status);

    static const char* StateName(uint32_t updateState);
    // "[#####...............]  25%"
    static std::string ProgressBar(uint32_t percent);

private:
    uint32_t permission_;
    uint32_t lastState_ = ZelSoftwareUpdateStateNotAvailable;
    uint32_t lastTenth_ = 0;
    std::string lastVersion_;
};
