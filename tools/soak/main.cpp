// zel-soak: runs the agent in this process, as firmware would, against
// zel-cloud for a set time, and watches whether the process keeps growing.
// The cloud is another process, so everything measured here is the agent's
// (and this small driver's, which holds nothing between rounds).
#include <curl/curl.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "AgentStatus.h"
#include "ControlClient.h"
#include "ResourceSampler.h"
#include "SoakLoop.h"
#include "SoakOptions.h"
#include "SoakReport.h"
#include "zel.h"

namespace {
using Clock = std::chrono::steady_clock;

constexpr int kExitGrew = 1;
constexpr int kExitUsage = 2;
constexpr int kExitFailed = 3;
constexpr int kExitInterrupted = 130;

// Ten readings 200 ms apart make one quiet sample.
constexpr unsigned kQuietReadings = 10;
constexpr unsigned kQuietIntervalMs = 200;
constexpr unsigned kStopTimeoutMs = 30000;

std::atomic<bool> stopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set from a signal handler");

void onStopSignal(int) {
    stopRequested = true;
}

bool readFile(const std::string& path, std::string& content) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    if (!in) {
        std::fprintf(stderr, "soak: cannot read %s\n", path.c_str());
        return false;
    }
    content = text.str();
    return true;
}

double minutesSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count() / 60.0;
}

bool sampleInto(SoakReport& report, Clock::time_point start, unsigned rounds) {
    ResourceSample sample;
    if (!ResourceSampler::ReadQuiet(sample, kQuietReadings, kQuietIntervalMs)) {
        std::fprintf(stderr, "soak: cannot read /proc/self\n");
        return false;
    }
    report.add(minutesSince(start), rounds, sample);
    return true;
}

// The rounds, the samples and the verdict, while the agent runs.
int soak(const SoakOptions& options, ControlClient& control) {
    SoakLoop loop(control, stopRequested, options.parts, options.updateBytes);
    std::string error;
    if (!loop.prepare(error)) {
        std::fprintf(stderr, "soak: %s\n", error.c_str());
        return stopRequested ? kExitInterrupted : kExitFailed;
    }
    unsigned round = 0;
    // The first rounds load GStreamer's plug-ins, start GLib's and the
    // agent's lasting threads and fill caches once; they are not growth.
    while (round < options.warmupRounds) {
        if (!loop.iterate(++round, error)) {
            std::fprintf(stderr, "soak: warm-up round %u: %s\n", round, error.c_str());
            return stopRequested ? kExitInterrupted : kExitFailed;
        }
    }
    std::fprintf(stderr, "soak: %u warm-up rounds done; measuring for %u s\n", round,
                 options.seconds);
    SoakReport report(options.rssToleranceKiB, options.heapToleranceKiB);
    Clock::time_point start = Clock::now();
    if (!sampleInto(report, start, 0)) {
        return kExitFailed;
    }
    const unsigned firstMeasured = round;
    const auto period = std::chrono::seconds(options.sampleSeconds);
    Clock::time_point end = start + std::chrono::seconds(options.seconds);
    Clock::time_point nextSample = start + period;
    bool sampledLast = true;
    // At least one round, however short the time asked for.
    while (!stopRequested && (round == firstMeasured || Clock::now() < end)) {
        if (!loop.iterate(++round, error)) {
            std::fprintf(stderr, "soak: round %u: %s\n", round, error.c_str());
            return stopRequested ? kExitInterrupted : kExitFailed;
        }
        sampledLast = false;
        if (Clock::now() >= nextSample) {
            if (!sampleInto(report, start, round - firstMeasured)) {
                return kExitFailed;
            }
            sampledLast = true;
            while (nextSample <= Clock::now()) {
                nextSample += period;
            }
        }
    }
    if (stopRequested) {
        std::fprintf(stderr, "soak: interrupted\n");
        return kExitInterrupted;
    }
    if (!sampledLast && !sampleInto(report, start, round - firstMeasured)) {
        return kExitFailed;
    }
    return report.judge() ? 0 : kExitGrew;
}

// Stops the agent and waits for it; false when it does not stop in time.
bool stopAgent() {
    ZelResult result = ZelTerm();
    if (result != ZelResultSuccess) {
        std::fprintf(stderr, "soak: ZelTerm returned %u\n", result);
    }
    Clock::time_point end = Clock::now() + std::chrono::milliseconds(kStopTimeoutMs);
    for (;;) {
        AgentStatus status;
        if (AgentStatus::Read(status) && status.state == DeviceAgentStateUninitialized) {
            return true;
        }
        if (Clock::now() >= end) {
            std::fprintf(stderr, "soak: the agent did not stop within %u s\n",
                         kStopTimeoutMs / 1000);
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

int run(int argc, char** argv) {
    SoakOptions options;
    if (!options.parse(argc, argv)) {
        return kExitUsage;
    }
    std::string identity, config, device;
    if (!readFile(options.identityFile, identity) || !readFile(options.configFile, config) ||
        !readFile(options.deviceFile, device)) {
        return kExitUsage;
    }

    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    // The agent's threads may take the signal too; their calls go on.
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);

    // malloc's per-thread caches count as memory in use and fill up slowly
    // over minutes; without them the heap figure is what is really held. With
    // its mmap threshold left to move, malloc keeps freed screen frames in its
    // arenas and RSS shows that cache rather than the agent.
    struct Tunable {
        const char* setting;
        const char* without;
    };
    const Tunable tunables[] = {
        {"glibc.malloc.tcache_count=0", "the heap figure includes malloc's per-thread caches"},
        {"glibc.malloc.mmap_threshold=", "RSS includes the frames malloc keeps after a stream"},
    };
    const char* set = std::getenv("GLIBC_TUNABLES");
    for (const Tunable& tunable : tunables) {
        if (set == nullptr || std::strstr(set, tunable.setting) == nullptr) {
            std::fprintf(stderr, "soak: note: without GLIBC_TUNABLES=%s %s\n", tunable.setting,
                         tunable.without);
        }
    }
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
        std::fprintf(stderr, "soak: curl_global_init failed\n");
        return kExitFailed;
    }
    int status = kExitFailed;
    {
        ControlClient control(options.controlPort);
        ResourceSample before;
        ResourceSampler::ReadOnce(before);
        ZelResult result = ZelInit(identity.c_str(), config.c_str(), device.c_str());
        if (result != ZelResultSuccess) {
            std::fprintf(stderr, "soak: ZelInit returned %u\n", result);
        } else {
            try {
                status = soak(options, control);
            } catch (const std::exception& e) {
                std::fprintf(stderr, "soak: %s\n", e.what());
                status = kExitFailed;
            } catch (...) {
                std::fprintf(stderr, "soak: unexpected exception\n");
                status = kExitFailed;
            }
            if (!stopAgent() && status == 0) {
                status = kExitFailed;
            }
            ResourceSample after;
            if (ResourceSampler::ReadOnce(after)) {
                // For the reader only: GStreamer and GLib keep what they started.
                std::fprintf(stderr,
                             "soak: after ZelTerm %u threads and %u descriptors "
                             "(%u and %u before ZelInit)\n",
                             after.threads, after.fds, before.threads, before.fds);
            }
        }
    }
    curl_global_cleanup();
    return status;
}
}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "soak: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "soak: unexpected exception\n");
    }
    return kExitFailed;
}
