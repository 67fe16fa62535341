// How long ZelTerm takes to bring the agent to Uninitialized in each state a
// host may stop it in: idle between polls, with a da exchange held by the
// cloud, during the remote-support session's long poll, with a payload block
// held, while streaming the screen, and with a drmp call held. The time runs
// from ZelTerm to the status change that reports Uninitialized.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "Core/Platform/JsonUtil.h"
#include "tools/cloud/Cloud.h"
#include "tools/cloud/TlsServer.h"
#include "zel.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// How long the cloud holds a call: far longer than a ZelTerm should take.
// Each iteration waits for its holds to end before the next begins, since
// the cloud counts requests in flight without telling which.
constexpr long kHoldMs = 2000;
constexpr std::chrono::milliseconds kDrain{kHoldMs + 500};
constexpr std::chrono::milliseconds kPatience = 20s;
// Between the cloud seeing a request and the agent settling into its wait.
constexpr std::chrono::milliseconds kSettle = 200ms;
constexpr long kQuietMs = 120000;

std::string readFile(const std::string& path) {
    std::string text;
    ZelCloud::TlsServer::ReadFile(path, text);
    return text;
}

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// One cloud and PKI for the run; every iteration gets a fresh persistent
// directory, so that nothing carries over from the one before.
struct Lab {
    std::string dir;
    std::unique_ptr<ZelCloud::Cloud> cloud;
    std::string identity, device;
    unsigned runs = 0;
    bool ok = false;

    Lab() {
        char pattern[] = "/tmp/zel-term.XXXXXX";
        if (mkdtemp(pattern) == nullptr) {
            return;
        }
        dir = pattern;
        // The sample plug-in gives the agent a screen to stream.
        setenv("ZEL_KORVANE_PLUGIN", ZEL_KORVANE_SAMPLE_PATH, 0);
        ZelCloud::CloudOptions options;
        options.pkiDir = dir + "/pki";
        options.quiet = true;
        options.payloadPort = 0;
        options.relayPort = 0;
        options.longPollMs = kHoldMs;
        cloud = std::make_unique<ZelCloud::Cloud>(options);
        if (!cloud->bind()) {
            return;
        }
        std::string command = std::string(ZEL_SOURCE_DIR) + "/tools/pki/make-pki.sh " + dir +
                              "/pki zel.localhost:" + std::to_string(cloud->port()) +
                              " >/dev/null 2>&1";
        if (std::system(command.c_str()) != 0 || !cloud->start()) {
            return;
        }
        identity = readFile(dir + "/pki/identity.json");
        device = readFile(dir + "/pki/device.json");
        ok = true;
    }
    ~Lab() {
        if (cloud) {
            cloud->stop();
        }
        if (!dir.empty()) {
            std::system(("rm -rf " + dir).c_str());
        }
    }

    static Lab& Get() {
        static Lab lab;
        return lab;
    }

    std::string freshConfig() {
        std::string data = dir + "/run" + std::to_string(++runs);
        Json::Value document;
        document["core"]["persistentPath"] = data;
        document["core"]["temporaryPath"] = data;
        document["supportView"]["allowRemoteSession"] = true;
        document["softwareUpdate"]["stagingLocation"] = data + "/staging.raw";
        document["drmp"]["enableEmulatedSecureCore"] = true;
        document["drmp"]["emulatedUlpkIndex"] = 1;
        document["drmp"]["emulatedUlpk"] = "000102030405060708090a0b0c0d0e0f";
        document["drmp"]["emulatedSupportedObjectNames"] = "widevine";
        document["drmp"]["readyMarkerFile"] = data + "/object_is_ready";
        std::system(("mkdir -p " + data).c_str());
        return Zel::Core::JsonUtil::Compact(document);
    }

    // Polls far apart unless a case asks otherwise.
    void quietSettings(long daPollMs) {
        Json::Value settings;
        settings["daPollDelayFixedMs"] = Json::Int64(daPollMs);
        settings["daPollDelayVariedMs"] = 0;
        settings["drmpPollDelayFixedMs"] = Json::Int64(kQuietMs);
        settings["drmpPollDelayVariedMs"] = 0;
        cloud->setSettings(settings);
    }

    // Waits until every path has been answered at least once.
    bool answered(std::initializer_list<const char*> paths) {
        std::vector<std::string> wanted(paths.begin(), paths.end());
        return cloud->waitFor(
            [&](const std::vector<ZelCloud::RecordedRequest>& requests) {
                return std::all_of(wanted.begin(), wanted.end(), [&](const std::string& path) {
                    return std::any_of(requests.begin(), requests.end(),
                                       [&](const ZelCloud::RecordedRequest& request) {
                                           return request.status != 0 &&
                                                  endsWith(request.path, path);
                                       });
                });
            },
            kPatience);
    }
};

// Polls the status until the predicate holds for it; false after the timeout.
bool waitForStatus(const std::function<bool(const ZelStatus&)>& predicate) {
    auto end = Clock::now() + kPatience;
    for (;;) {
        ZelStatus status{};
        ZelGetStatus(ZelStatusMethodNow, &status);
        bool holds = predicate(status);
        ZelFreeStatus(&status);
        if (holds) {
            return true;
        }
        if (Clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(5ms);
    }
}

// Waits for the very status change, not a poll's later look at it.
void waitForState(uint32_t wanted) {
    ZelStatus status{};
    ZelGetStatus(ZelStatusMethodNow, &status);
    while (status.state != wanted) {
        ZelFreeStatus(&status);
        ZelGetStatus(ZelStatusMethodWaitForChange, &status);
    }
    ZelFreeStatus(&status);
}

ZelCloud::FaultPlan::Fault hold(const char* path) {
    ZelCloud::FaultPlan::Fault fault;
    fault.path = path;
    fault.kind = ZelCloud::FaultPlan::Kind::Delay;
    fault.delayMs = kHoldMs;
    return fault;
}

// Opens a session and waits for its first get to be held by the cloud.
bool openSession(Lab& lab) {
    if (!waitForStatus([](const ZelStatus& s) { return s.sessionState == ZelSessionStateNone; }) ||
        ZelSessionInit(0) != ZelResultSuccess) {
        return false;
    }
    return lab.cloud->waitForSessions(
        [](const Json::Value& sessions) {
            for (const Json::Value& session : sessions) {
                if (session["state"].asString() == "active" && session["polls"].asUInt() > 0) {
                    return true;
                }
            }
            return false;
        },
        kPatience);
}

// Each case brings a freshly initialised agent into its state; false when
// the state was not reached.
struct Case {
    long daPollMs = kQuietMs;
    std::function<void(Lab&)> before;  // faults, offers: before ZelInit
    std::function<bool(Lab&)> reach;
    bool holds = true;  // leaves a call held behind it
};

void RunTerm(benchmark::State& state, const Case& which) {
    Lab& lab = Lab::Get();
    if (!lab.ok) {
        state.SkipWithError("the loopback lab did not start");
        return;
    }
    lab.quietSettings(which.daPollMs);
    for (auto _ : state) {
        lab.cloud->clearFaults();
        lab.cloud->clearPayloadFaults();
        lab.cloud->clearRequests();
        if (which.before) {
            which.before(lab);
        }
        std::string config = lab.freshConfig();
        if (ZelInit(lab.identity.c_str(), config.c_str(), lab.device.c_str()) != 0) {
            state.SkipWithError("ZelInit failed");
            break;
        }
        bool reached = which.reach(lab);
        std::this_thread::sleep_for(kSettle);
        auto start = Clock::now();
        ZelTerm();
        waitForState(DeviceAgentStateUninitialized);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        if (!reached) {
            state.SkipWithError("the agent did not reach the state");
            break;
        }
        if (which.holds) {
            std::this_thread::sleep_for(kDrain);
        }
    }
    lab.cloud->clearFaults();
    lab.cloud->clearPayloadFaults();
}

// Synchronised, provisioning polled, nothing due for two minutes.
void BM_TermIdle(benchmark::State& state) {
    Case idle;
    idle.holds = false;
    idle.reach = [](Lab& lab) {
        bool done = lab.answered({"da/state", "drmp/work"});
        std::this_thread::sleep_for(500ms);
        return done;
    };
    RunTerm(state, idle);
}

// The notification call after synchronising, held by the cloud.
void BM_TermDaExchange(benchmark::State& state) {
    Case exchange;
    exchange.daPollMs = 50;
    exchange.before = [](Lab& lab) { lab.cloud->addFault(hold("da/notification")); };
    exchange.reach = [](Lab& lab) {
        return lab.answered({"da/state", "drmp/work"}) && lab.cloud->waitForInFlight(1, kPatience);
    };
    RunTerm(state, exchange);
}

// sv/command/get, held by the cloud until a task comes.
void BM_TermLongPoll(benchmark::State& state) {
    Case poll;
    poll.reach = openSession;
    RunTerm(state, poll);
}

// The first block of an offered update, held by the payload server.
void BM_TermBlockDownload(benchmark::State& state) {
    Case download;
    download.before = [](Lab& lab) {
        ZelCloud::PayloadFaults::Fault fault;
        fault.kind = ZelCloud::PayloadFaults::Kind::Delay;
        fault.delayMs = kHoldMs;
        lab.cloud->addPayloadFault(fault);
        ZelCloud::UpdateSpec spec;
        spec.version = "5.0.0";
        spec.sizeBytes = 1 << 20;
        ZelCloud::PublishedUpdate published;
        std::string error;
        lab.cloud->publishUpdate(spec, published, error);
    };
    download.reach = [](Lab& lab) {
        return waitForStatus([](const ZelStatus& s) {
                   return s.updateState == ZelSoftwareUpdateStateAvailable;
               }) &&
               ZelSetSoftwareUpdatePermission(ZelSoftwareUpdatePermissionDownload) ==
                   ZelResultSuccess &&
               lab.cloud->waitForPayloadsInFlight(1, kPatience);
    };
    RunTerm(state, download);
}

// The screen streamed to the cloud's relay, half a second of frames in.
void BM_TermStreaming(benchmark::State& state) {
    Case streaming;
    streaming.reach = [](Lab& lab) {
        if (!openSession(lab)) {
            return false;
        }
        Json::Value request;
        request["COMMAND"]["NAME"] = "FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_TRANSPORT_CONTROL";
        request["COMMAND"]["OPERATION"] = "EXECUTE";
        request["COMMAND"]["VERSION"] = 0;
        request["INPUTS"]["ACTION"] = "RUNNING";
        request["INPUTS"]["RELAY_SERVER_ADDRESS"] = "127.0.0.1";
        request["INPUTS"]["RELAY_SERVER_PORT"] = lab.cloud->relayPort();
        request["INPUTS"]["RELAY_SERVER_URI"] = "/streams/term";
        request["INPUTS"]["SECURE_MEDIA_STREAM"] = false;
        Json::Value requests(Json::arrayValue);
        requests.append(request);
        uint32_t seqNum = 0;
        std::string error;
        ZelCloud::StreamRegistry::Frame latest;
        uint64_t after = lab.cloud->latestFrame("term", latest) ? latest.seq : 0;
        ZelCloud::StreamRegistry::Frame frame;
        return lab.cloud->queueTask(requests, seqNum, error) &&
               lab.cloud->waitForFrame("term", after + 30, kPatience, frame) ==
                   ZelCloud::StreamRegistry::Wait::Frame;
    };
    RunTerm(state, streaming);
}

// The first provisioning work call, held by the cloud.
void BM_TermDrmpCall(benchmark::State& state) {
    Case drmp;
    drmp.before = [](Lab& lab) { lab.cloud->addFault(hold("drmp/work")); };
    drmp.reach = [](Lab& lab) {
        return lab.answered({"da/state", "drmp/token"}) && lab.cloud->waitForInFlight(1, kPatience);
    };
    RunTerm(state, drmp);
}

double Max(const std::vector<double>& values) {
    return values.empty() ? 0 : *std::max_element(values.begin(), values.end());
}

void Configure(benchmark::internal::Benchmark* bench) {
    bench->UseManualTime()
        ->Iterations(1)
        ->Repetitions(10)
        ->ComputeStatistics("max", Max)
        ->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_TermIdle)->Apply(Configure);
BENCHMARK(BM_TermDaExchange)->Apply(Configure);
BENCHMARK(BM_TermLongPoll)->Apply(Configure);
BENCHMARK(BM_TermBlockDownload)->Apply(Configure);
BENCHMARK(BM_TermStreaming)->Apply(Configure);
BENCHMARK(BM_TermDrmpCall)->Apply(Configure);

}  // namespace

BENCHMARK_MAIN();
