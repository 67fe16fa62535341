// Screen streaming on one core: frames per second and CPU time per frame of
//  - the agent's pipeline (Zel::Sv::Video with the sample plug-in's moving
//    picture, 1280x720 RGBA) at the highest frame rate it accepts, 60/1;
//  - gst-launch-1.0 running the same elements fed by videotestsrc, paced
//    (live source, 60 fps) and unpaced (as fast as the core allows);
// both posting to the local cloud's media relay, where the frames are
// counted. Also the sample plug-in's fill alone, and videotestsrc alone.
//
// Run it pinned to one core with the relay on another: bench/streaming.sh
// does that. It needs ZEL_BENCH_CONTROL_PORT and ZEL_BENCH_RELAY_PORT of a
// running zel-cloud; ZEL_BENCH_STREAM_SECONDS (default 3) sets the window.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <dlfcn.h>
#include <json/json.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "SupportView/Platform/Video.h"
#include "zel_korvane.h"

extern char** environ;

namespace {

using Zel::Sv::Video;
using Clock = std::chrono::steady_clock;

// The sample plug-in's picture and the part of it that is shown.
constexpr unsigned kSourceWidth = 1280;
constexpr unsigned kSourceHeight = 720;
constexpr unsigned kCropRight = kSourceWidth / 32;
constexpr unsigned kFrameRate = 60;
constexpr unsigned kQuality = 75;
// Steady state only: the start of a stream (pipeline set-up, connection)
// is left out of the window.
constexpr auto kWarmUp = std::chrono::milliseconds(1000);
constexpr long kFrameWaitMs = 5000;

double EnvSeconds(const char* name, double fallback) {
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0') {
        return fallback;
    }
    char* end = nullptr;
    double value = std::strtod(text, &end);
    return *end == '\0' && value > 0 ? value : fallback;
}

int EnvPort(const char* name) {
    const char* text = std::getenv(name);
    int port = text != nullptr ? std::atoi(text) : 0;
    return port > 0 && port < 65536 ? port : 0;
}

const char* SamplePath() {
    const char* path = std::getenv("ZEL_KORVANE_PLUGIN");
    return path != nullptr && *path != '\0' ? path : ZEL_KORVANE_SAMPLE_PATH;
}

double Now() {
    return std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
}

// CPU time (user + system) and minor page faults of a whole process.
struct Usage {
    double cpuSeconds = 0;
    double minorFaults = 0;
};

double Seconds(const timeval& time) {
    return time.tv_sec + time.tv_usec / 1e6;
}

Usage SelfUsage() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return {Seconds(usage.ru_utime) + Seconds(usage.ru_stime),
            static_cast<double>(usage.ru_minflt)};
}

// The same for another process, from /proc: the run time of its threads
// in nanoseconds (its threads live as long as the stream), the faults from
// its stat line.
Usage ProcessUsage(pid_t pid) {
    std::string dir = "/proc/" + std::to_string(pid);
    Usage usage;
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator(dir + "/task", error)) {
        std::ifstream in(task.path() / "schedstat");
        double nanoseconds = 0;
        if (in >> nanoseconds) {
            usage.cpuSeconds += nanoseconds / 1e9;
        }
    }
    std::ifstream in(dir + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t close = text.rfind(')');
    if (error || close == std::string::npos) {
        usage.cpuSeconds = -1;
        return usage;
    }
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    // Fields 3.. follow the command name; minflt is 10.
    for (int index = 3; index <= 10 && fields >> field; ++index) {
        if (index == 10) {
            usage.minorFaults = std::strtod(field.c_str(), nullptr);
        }
    }
    return usage;
}

int AllowedCores() {
    cpu_set_t set;
    CPU_ZERO(&set);
    return sched_getaffinity(0, sizeof(set), &set) == 0 ? CPU_COUNT(&set) : -1;
}

size_t AppendBody(char* data, size_t size, size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
}

size_t FindSequence(char* data, size_t size, size_t count, void* out) {
    std::string line(data, size * count);
    const char* name = "x-frame-seq:";
    if (line.size() > std::strlen(name) &&
        strncasecmp(line.c_str(), name, std::strlen(name)) == 0) {
        *static_cast<long*>(out) = std::strtol(line.c_str() + std::strlen(name), nullptr, 10);
    }
    return size * count;
}

// The relay, seen through the cloud's control interface.
class Relay {
public:
    Relay() : control_(EnvPort("ZEL_BENCH_CONTROL_PORT")), relay_(EnvPort("ZEL_BENCH_RELAY_PORT")) {
        curl_global_init(CURL_GLOBAL_DEFAULT);
    }
    bool ok() const { return control_ != 0 && relay_ != 0; }
    int port() const { return relay_; }

    struct Stream {
        long frames = 0;
        long long bytes = 0;
        bool connected = false;
    };
    bool stream(const std::string& name, Stream& out) {
        std::string body;
        if (get("/control/streams", &body, nullptr, 2000) != 200) {
            return false;
        }
        Json::Value list;
        std::istringstream in(body);
        if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &list, nullptr) ||
            !list.isArray()) {
            return false;
        }
        for (const Json::Value& entry : list) {
            if (entry["name"].asString() == name) {
                out.frames = entry["frames"].asInt64();
                out.bytes = entry["bytes"].asInt64();
                out.connected = entry["connected"].asBool();
                return true;
            }
        }
        out = Stream();
        return true;
    }
    // Returns as the first frame numbered above `after` arrives: its number,
    // or -1 when none came in time.
    long waitFrame(const std::string& name, long after, long waitMs) {
        long sequence = -1;
        std::string path = "/control/streams/" + name +
                           "/frame.jpg?after=" + std::to_string(after) +
                           "&waitMs=" + std::to_string(waitMs);
        return get(path, nullptr, &sequence, waitMs + 2000) == 200 ? sequence : -1;
    }

private:
    long get(const std::string& path, std::string* body, long* sequence, long timeoutMs) {
        CURL* curl = curl_easy_init();
        if (curl == nullptr) {
            return 0;
        }
        std::string ignored;
        std::string url = "http://127.0.0.1:" + std::to_string(control_) + path;
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, timeoutMs);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, AppendBody);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, body != nullptr ? body : &ignored);
        if (sequence != nullptr) {
            curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, FindSequence);
            curl_easy_setopt(curl, CURLOPT_HEADERDATA, sequence);
        }
        long status = 0;
        if (curl_easy_perform(curl) == CURLE_OK) {
            curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        }
        curl_easy_cleanup(curl);
        return status;
    }

    int control_;
    int relay_;
};

Relay& TheRelay() {
    static Relay relay;
    return relay;
}

std::string StreamName(const char* kind, unsigned width, unsigned height) {
    static unsigned runs = 0;
    // Frames are numbered per name across uploads: never reuse one.
    return std::string(kind) + "-" + std::to_string(width) + "x" + std::to_string(height) + "-" +
           std::to_string(getpid()) + "-" + std::to_string(++runs);
}

// A window of steady streaming, its edges at the arrival of a frame.
struct Window {
    long frames = 0;
    double seconds = 0;
    double cpuSeconds = 0;
    double minorFaults = 0;
};

template <typename UsageOf>
bool MeasureWindow(Relay& relay, const std::string& name, UsageOf usage, Window& window) {
    if (relay.waitFrame(name, 0, kFrameWaitMs) < 0) {
        return false;
    }
    std::this_thread::sleep_for(kWarmUp);
    Relay::Stream now;
    if (!relay.stream(name, now)) {
        return false;
    }
    long first = relay.waitFrame(name, now.frames, kFrameWaitMs);
    double start = Now();
    Usage before = usage();
    if (first < 0) {
        return false;
    }
    std::this_thread::sleep_for(
        std::chrono::duration<double>(EnvSeconds("ZEL_BENCH_STREAM_SECONDS", 3)));
    if (!relay.stream(name, now)) {
        return false;
    }
    long last = relay.waitFrame(name, now.frames, kFrameWaitMs);
    window.seconds = Now() - start;
    Usage after = usage();
    window.cpuSeconds = after.cpuSeconds - before.cpuSeconds;
    window.minorFaults = after.minorFaults - before.minorFaults;
    window.frames = last - first;
    return last > first;
}

void Report(benchmark::State& state, const Window& window, const Relay::Stream& stream) {
    state.SetIterationTime(window.seconds);
    double cpuMs = 1000.0 * window.cpuSeconds / window.frames;
    state.counters["fps"] = window.frames / window.seconds;
    state.counters["CpuMs/frame"] = cpuMs;
    state.counters["MaxFps"] = 1000.0 / cpuMs;
    state.counters["CoreLoad%"] = 100.0 * window.cpuSeconds / window.seconds;
    state.counters["Faults/frame"] = window.minorFaults / window.frames;
    state.counters["KB/frame"] = stream.frames > 0 ? stream.bytes / 1000.0 / stream.frames : 0;
    state.counters["Cores"] = AllowedCores();
}

Video& Agent() {
    // The agent finds the plug-in through this variable on first use.
    setenv("ZEL_KORVANE_PLUGIN", SamplePath(), 0);
    static bool initialized = [] {
        Video::Instance().initialize();
        return true;
    }();
    (void)initialized;
    return Video::Instance();
}

void BM_AgentStream(benchmark::State& state) {
    unsigned width = static_cast<unsigned>(state.range(0));
    unsigned height = static_cast<unsigned>(state.range(1));
    Relay& relay = TheRelay();
    if (!relay.ok()) {
        state.SkipWithError("no relay: run bench/streaming.sh");
        return;
    }
    Video& video = Agent();
    if (!video.isAvailable()) {
        state.SkipWithError("GStreamer lacks an element of the pipeline");
        return;
    }
    Video::VideoParameters parameters;
    video.getVideoParameters(parameters);
    parameters.width = width;
    parameters.height = height;
    parameters.frameRateNumerator = kFrameRate;
    parameters.frameRateDenominator = 1;
    parameters.quality = kQuality;
    if (!video.setVideoParameters(parameters)) {
        state.SkipWithError("parameters refused");
        return;
    }
    for (auto _ : state) {
        std::string name = StreamName("agent", width, height);
        Video::ServerParameters server;
        server.address = "127.0.0.1";
        server.port = static_cast<unsigned>(relay.port());
        server.uri = "/streams/" + name;
        server.secure = false;
        if (!video.setMediaStreamParameters(Video::kRunning, server)) {
            state.SkipWithError("the stream did not start");
            break;
        }
        Window window;
        bool measured = MeasureWindow(relay, name, SelfUsage, window);
        video.performMediaStreamAction(Video::kShutDown);
        Relay::Stream stream;
        if (!measured || !relay.stream(name, stream)) {
            state.SkipWithError("no steady stream at the relay");
            break;
        }
        Report(state, window, stream);
    }
}
BENCHMARK(BM_AgentStream)
    ->Args({1280, 720})
    ->Args({640, 360})
    ->UseManualTime()
    ->Iterations(1)
    ->Repetitions(3)
    ->Unit(benchmark::kMillisecond);

std::vector<std::string> Split(const std::string& text) {
    std::vector<std::string> words;
    std::istringstream in(text);
    for (std::string word; in >> word;) {
        words.push_back(word);
    }
    return words;
}

pid_t Spawn(std::vector<std::string> args) {
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    return posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) == 0 ? pid : -1;
}

// Ends a gst-launch-1.0 run with an end of stream (-e), killing it if it
// does not go; false when it ended in failure.
bool Finish(pid_t pid, bool interrupt) {
    if (interrupt) {
        kill(pid, SIGINT);
    }
    int status = 0;
    for (int i = 0; i < 300; ++i) {
        if (waitpid(pid, &status, WNOHANG) == pid) {
            return WIFEXITED(status) && WEXITSTATUS(status) == 0;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return false;
}

std::string SourceCaps() {
    return "video/x-raw,format=RGBA,width=" + std::to_string(kSourceWidth) +
           ",height=" + std::to_string(kSourceHeight) + ",framerate=" + std::to_string(kFrameRate) +
           "/1";
}

// The agent's elements and caps, with videotestsrc in place of appsrc.
std::vector<std::string> LaunchArgs(unsigned width, unsigned height, bool paced, int relayPort,
                                    const std::string& name) {
    std::string size = "width=" + std::to_string(width) + ",height=" + std::to_string(height);
    std::vector<std::string> args =
        Split("gst-launch-1.0 -q -e videotestsrc pattern=smpte is-live=" +
              std::string(paced ? "true" : "false") + " ! " + SourceCaps() +
              " ! videocrop right=" + std::to_string(kCropRight) +
              " ! video/x-raw,format=RGBA,width=" + std::to_string(kSourceWidth - kCropRight) +
              ",height=" + std::to_string(kSourceHeight) +
              " ! videoscale method=1 ! video/x-raw,format=RGBA," + size +
              " ! videoconvert ! video/x-raw,format=YUY2," + size + ",framerate=" +
              std::to_string(kFrameRate) + "/1 ! jpegenc quality=" + std::to_string(kQuality) +
              " ! multipartmux boundary=zelframe ! curlhttpsink timeout=5 sync=" +
              std::string(paced ? "true" : "false"));
    args.push_back("location=http://127.0.0.1:" + std::to_string(relayPort) + "/streams/" + name +
                   "?producerid=1&action=publish");
    // One argument: gst-launch keeps the space in it.
    args.push_back("content-type=multipart/x-mixed-replace; boundary=zelframe");
    return args;
}

void BM_GstLaunch(benchmark::State& state) {
    unsigned width = static_cast<unsigned>(state.range(0));
    unsigned height = static_cast<unsigned>(state.range(1));
    bool paced = state.range(2) != 0;
    Relay& relay = TheRelay();
    if (!relay.ok()) {
        state.SkipWithError("no relay: run bench/streaming.sh");
        return;
    }
    for (auto _ : state) {
        std::string name = StreamName(paced ? "gst-paced" : "gst-unpaced", width, height);
        pid_t pid = Spawn(LaunchArgs(width, height, paced, relay.port(), name));
        if (pid < 0) {
            state.SkipWithError("gst-launch-1.0 did not start");
            break;
        }
        Window window;
        bool measured = MeasureWindow(
            relay, name, [pid] { return ProcessUsage(pid); }, window);
        bool finished = Finish(pid, true);
        Relay::Stream stream;
        if (!measured || !finished || !relay.stream(name, stream)) {
            state.SkipWithError("gst-launch-1.0 gave no steady stream, or failed");
            break;
        }
        Report(state, window, stream);
    }
}
BENCHMARK(BM_GstLaunch)
    ->ArgNames({"w", "h", "paced"})
    ->Args({1280, 720, 1})
    ->Args({1280, 720, 0})
    ->Args({640, 360, 1})
    ->Args({640, 360, 0})
    ->UseManualTime()
    ->Iterations(1)
    ->Repetitions(3)
    ->Unit(benchmark::kMillisecond);

// The sample plug-in drawing one frame into a buffer the size the agent
// allocates.
void BM_SampleFill(benchmark::State& state) {
    void* handle = dlopen(SamplePath(), RTLD_NOW | RTLD_LOCAL);
    auto fill =
        handle != nullptr
            ? reinterpret_cast<ZelKorvaneFillVideoBufferExt>(dlsym(handle, "fillVideoBufferExt"))
            : nullptr;
    auto widthOf =
        handle != nullptr
            ? reinterpret_cast<ZelKorvaneGetVideoWidthExt>(dlsym(handle, "getVideoWidthExt"))
            : nullptr;
    auto heightOf =
        handle != nullptr
            ? reinterpret_cast<ZelKorvaneGetVideoHeightExt>(dlsym(handle, "getVideoHeightExt"))
            : nullptr;
    if (fill == nullptr || widthOf == nullptr || heightOf == nullptr) {
        state.SkipWithError("the sample plug-in did not load");
        return;
    }
    uint32_t size = widthOf(nullptr) * heightOf(nullptr) * 4;
    std::vector<uint8_t> buffer(size);
    for (auto _ : state) {
        int32_t filled = fill(buffer.data(), size, ZEL_KORVANE_LAYER_GRAPHICS_VIDEO);
        benchmark::DoNotOptimize(filled);
        benchmark::ClobberMemory();
    }
    state.counters["Width"] = widthOf(nullptr);
    state.counters["Height"] = heightOf(nullptr);
    state.counters["Cores"] = AllowedCores();
    dlclose(handle);
}
BENCHMARK(BM_SampleFill)
    ->MinTime(1.0)
    ->Repetitions(3)
    ->MeasureProcessCPUTime()
    ->Unit(benchmark::kMillisecond);

// videotestsrc drawing the same caps into fakesink: CPU of a run of N
// frames less that of a run of one, per frame.
double LaunchCpuSeconds(unsigned frames) {
    pid_t pid = Spawn(
        Split("gst-launch-1.0 -q videotestsrc pattern=smpte num-buffers=" + std::to_string(frames) +
              " ! " + SourceCaps() + " ! fakesink sync=false"));
    if (pid < 0) {
        return -1;
    }
    int status = 0;
    rusage usage{};
    if (wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return -1;
    }
    return Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
}

void BM_TestSource(benchmark::State& state) {
    constexpr unsigned kFrames = 300;
    for (auto _ : state) {
        double one = LaunchCpuSeconds(1);
        double many = LaunchCpuSeconds(kFrames);
        if (one < 0 || many < 0) {
            state.SkipWithError("gst-launch-1.0 failed");
            break;
        }
        double perFrame = (many - one) / (kFrames - 1);
        state.SetIterationTime(perFrame);
        state.counters["CpuMs/frame"] = 1000.0 * perFrame;
        state.counters["Cores"] = AllowedCores();
    }
}
BENCHMARK(BM_TestSource)
    ->UseManualTime()
    ->Iterations(1)
    ->Repetitions(3)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
