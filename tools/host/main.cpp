// zel-host: a stand-in for the television's firmware. It starts the agent
// from three documents on disk, prints every status change, opens and closes
// remote-support sessions when asked, and on Ctrl-C, SIGTERM or the end of
// --duration stops the agent and waits for it.
#include <signal.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <string>
#include <thread>

#include "HostOptions.h"
#include "KeyReader.h"
#include "SessionSwitch.h"
#include "StatusPrinter.h"
#include "UpdateAnswerer.h"
#include "zel.h"

namespace {

// Waits for a signal until the end of the run (-1 when it comes first). A wait
// interrupted by something else (a debugger attaching, say) goes on.
int waitForSignal(const sigset_t& signals, unsigned durationSeconds, const timespec& end) {
    for (;;) {
        int signal;
        if (durationSeconds == 0) {
            signal = sigwaitinfo(&signals, nullptr);
        } else {
            timespec now{};
            clock_gettime(CLOCK_MONOTONIC, &now);
            timespec left{end.tv_sec - now.tv_sec, end.tv_nsec - now.tv_nsec};
            if (left.tv_nsec < 0) {
                left.tv_nsec += 1000000000L;
                --left.tv_sec;
            }
            if (left.tv_sec < 0) {
                return -1;
            }
            signal = sigtimedwait(&signals, nullptr, &left);
        }
        if (signal > 0 || errno != EINTR) {
            return signal;
        }
    }
}

// Toggles the session on SIGUSR1; on a stop signal or at the end of the run
// asks the agent to stop.
void awaitStop(const sigset_t& signals, unsigned durationSeconds, SessionSwitch& sessions,
               std::atomic<bool>& stopping) {
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += static_cast<time_t>(durationSeconds);
    int signal;
    while ((signal = waitForSignal(signals, durationSeconds, end)) == SIGUSR1) {
        std::printf("zel-host: SIGUSR1, opening or closing the session\n");
        sessions.toggle();
    }
    if (signal > 0) {
        std::printf("zel-host: signal %d, stopping the agent\n", signal);
    } else {
        std::printf("zel-host: %u seconds are up, stopping the agent\n", durationSeconds);
    }
    std::fflush(stdout);
    stopping = true;
    ZelResult result = ZelTerm();
    if (result != ZelResultSuccess) {
        std::printf("zel-host: ZelTerm returned %u\n", result);
    }
}

}  // namespace

int main(int argc, char** argv) {
    HostOptions options;
    if (!ParseHostOptions(argc, argv, options)) {
        return 2;
    }
    std::string identity, config, device;
    if (!ReadTextFile(options.identityFile, identity) ||
        !ReadTextFile(options.configFile, config) || !ReadTextFile(options.deviceFile, device)) {
        return 2;
    }

    // Only the stopping thread takes the signals; block them before any
    // thread, ours or the agent's, exists so that every thread inherits it.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    ZelResult result = ZelInit(identity.c_str(), config.c_str(), device.c_str());
    if (result != ZelResultSuccess) {
        std::fprintf(stderr, "zel-host: ZelInit returned %u\n", result);
        return 1;
    }
    if (options.testMode) {
        ZelEnableTestMode();
    }
    if (options.hasOemMsg) {
        ZelSetOemMsg(options.oemMsg.c_str());
    }

    if (!options.updateFile.empty()) {
        ZelResult result =
            ZelSetSoftwareUpdateSource(ZelSoftwareUpdateSourceLocal, options.updateFile.c_str());
        std::printf("zel-host: ZelSetSoftwareUpdateSource(Local, %s) returned %u\n",
                    options.updateFile.c_str(), result);
    }
    UpdateAnswerer updates(options.updatePermission);

    SessionSwitch sessions;
    if (options.hasSessionCodeDigits) {
        sessions.useCodeDigits(options.sessionCodeDigits);
    }
    if (options.openSession) {
        sessions.openWhenReady();
    }
    KeyReader keys([&sessions] { sessions.toggle(); });
    if (keys.start()) {
        std::printf("zel-host: type s and Enter to open or close a session\n");
    }

    std::atomic<bool> stopping{false};
    std::thread stopper(awaitStop, std::cref(signals), options.durationSeconds, std::ref(sessions),
                        std::ref(stopping));

    StatusPrinter printer;
    ZelStatus status{};
    ZelGetStatus(ZelStatusMethodNow, &status);
    printer.print(status);
    sessions.observe(status);
    updates.observe(status);
    ZelFreeStatus(&status);
    for (;;) {
        ZelGetStatus(ZelStatusMethodWaitForChange, &status);
        printer.print(status);
        sessions.observe(status);
        updates.observe(status);
        bool stopped = stopping && status.state == DeviceAgentStateUninitialized;
        ZelFreeStatus(&status);
        if (stopped) {
            break;
        }
    }
    stopper.join();
    keys.stop();
    std::printf("zel-host: agent stopped\n");
    return 0;
}
