#pragma once

#include <cstdint>
#include <mutex>

#include "zel.h"

// Opens and closes remote-support sessions for zel-host: once at start when
// asked, and on every toggle (SIGUSR1, or "s" typed on the terminal). Safe to
// use from the status loop, the signal thread and the key reader at once.
class SessionSwitch {
public:
    // Codes of the given number of digits; without a call the configuration decides.
    void useCodeDigits(unsigned digits);
    // Opens a session as soon as a status says the agent can take one.
    void openWhenReady();
    // Called with every status the host reads.
    void observe(const ZelStatus& status);
    // Opens a session when the last status had none, else ends it.
    void toggle();

private:
    void open();

    std::mutex mutex_;
    uint32_t lastState_ = ZelSessionStateDisabled;
    bool pendingOpen_ = false;
    bool hasDigits_ = false;
    unsigned digits_ = 0;
};
