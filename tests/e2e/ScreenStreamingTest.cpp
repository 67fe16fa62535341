// Screen streaming from the sample plug-in's moving picture through the
// agent's pipeline to the local cloud's media relay, driven by the support
// agent's commands in a session.
#include <dirent.h>
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "support/AgentLab.h"

using ZelTest::AgentLab;
using ZelTest::ParseJson;

namespace {

using ScreenStreaming = ZelTest::LabTest;
using Clock = std::chrono::steady_clock;

// The sample plug-in delivers the frames; small ones keep sanitizer runs quick.
const bool kSamplePlugin =
    setenv("ZEL_KORVANE_PLUGIN", ZEL_BINARY_DIR "/tools/korvane/libzel_korvane_sample.so", 1) ==
        0 &&
    setenv("ZEL_KORVANE_SAMPLE_VIDEO_SIZE", "320x180", 1) == 0;

constexpr const char* kTransport = "FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_TRANSPORT_CONTROL";
constexpr const char* kParams = "FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_PARAMS";

Json::Value command(const char* name, const char* operation, const std::string& inputs) {
    Json::Value request(Json::objectValue);
    request["COMMAND"]["NAME"] = name;
    request["COMMAND"]["OPERATION"] = operation;
    request["INPUTS"] = ParseJson(inputs);
    Json::Value list(Json::arrayValue);
    list.append(request);
    return list;
}

// Runs one command in the open session; its response.
Json::Value run(AgentLab& lab, const char* name, const char* operation = "EXECUTE",
                const std::string& inputs = "{}") {
    uint32_t seqNum = 0;
    std::string error;
    EXPECT_TRUE(lab.cloud().queueTask(command(name, operation, inputs), seqNum, error)) << error;
    Json::Value found;
    lab.cloud().waitForSessions(
        [&](const Json::Value& sessions) {
            for (const Json::Value& session : sessions) {
                for (const Json::Value& result : session["results"]) {
                    if (result["taskSeqNum"].asUInt() == seqNum) {
                        found = result["document"]["TASK_OUTPUT"]["RESPONSES"][0];
                        return true;
                    }
                }
            }
            return false;
        },
        AgentLab::kPatience);
    return found;
}

std::string transport(AgentLab& lab, const char* action, const char* stream = "tv") {
    char inputs[256];
    std::snprintf(inputs, sizeof(inputs),
                  R"({"ACTION": "%s", "RELAY_SERVER_ADDRESS": "127.0.0.1", "RELAY_SERVER_PORT": %d,
                      "RELAY_SERVER_URI": "/streams/%s", "SECURE_MEDIA_STREAM": false})",
                  action, lab.cloud().relayPort(), stream);
    Json::Value response = run(lab, kTransport, "EXECUTE", inputs);
    EXPECT_EQ(0u, response["RESULT"].asUInt()) << response.toStyledString();
    return response["OUTPUTS"][0]["DATA"]["STATE"].asString();
}

void openSession(AgentLab& lab) {
    ASSERT_EQ(ZelResultSuccess, ZelSessionInit(0));
    ASSERT_TRUE(lab.waitForSessionState(ZelSessionStateReady));
}

// Waits for a frame numbered above `after`.
ZelCloud::StreamRegistry::Frame frameAfter(AgentLab& lab, uint64_t after,
                                           const std::string& stream = "tv") {
    ZelCloud::StreamRegistry::Frame frame;
    EXPECT_EQ(ZelCloud::StreamRegistry::Wait::Frame,
              lab.cloud().waitForFrame(stream, after, AgentLab::kPatience, frame));
    return frame;
}

// Decodes a JPEG picture with GStreamer's own decoder; its size, or 0x0.
std::pair<int, int> decodedSize(const std::string& jpeg) {
    std::pair<int, int> size{0, 0};
    GError* error = nullptr;
    GstElement* pipeline =
        gst_parse_launch("appsrc name=in ! jpegdec ! appsink name=out sync=false", &error);
    if (pipeline == nullptr) {
        g_clear_error(&error);
        return size;
    }
    GstElement* in = gst_bin_get_by_name(GST_BIN(pipeline), "in");
    GstElement* out = gst_bin_get_by_name(GST_BIN(pipeline), "out");
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstBuffer* buffer = gst_buffer_new_memdup(jpeg.data(), jpeg.size());
    gst_app_src_push_buffer(GST_APP_SRC(in), buffer);
    gst_app_src_end_of_stream(GST_APP_SRC(in));
    GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(out), 10 * GST_SECOND);
    if (sample != nullptr) {
        GstStructure* caps = gst_caps_get_structure(gst_sample_get_caps(sample), 0);
        gst_structure_get_int(caps, "width", &size.first);
        gst_structure_get_int(caps, "height", &size.second);
        gst_sample_unref(sample);
    }
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(in);
    gst_object_unref(out);
    gst_object_unref(pipeline);
    return size;
}

// The names of this process's threads, with how many carry each. GLib's
// shared pool keeps up to two idle threads ("pool-...") for any of its users
// once a stream has used them; they are not the stream's and are left out.
std::map<std::string, int> threadNames() {
    std::map<std::string, int> names;
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) {
        return names;
    }
    while (dirent* entry = readdir(tasks)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        std::getline(comm, name);
        if (name.rfind("pool-", 0) != 0) {
            names[name]++;
        }
    }
    closedir(tasks);
    return names;
}

// How many of this process's descriptors are local sockets. A stream's sink
// holds a pair of them, and so does each curl handle the agent keeps.
int localSockets() {
    std::set<std::string> inodes;
    std::ifstream table("/proc/net/unix");
    std::string line;
    std::getline(table, line);
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string field;
        for (int i = 0; i < 6 && fields >> field; ++i) {
        }
        if (fields >> field) {
            inodes.insert("socket:[" + field + "]");
        }
    }
    int count = 0;
    DIR* fds = opendir("/proc/self/fd");
    if (fds == nullptr) {
        return -1;
    }
    while (dirent* entry = readdir(fds)) {
        char target[64] = {};
        std::string path = std::string("/proc/self/fd/") + entry->d_name;
        if (readlink(path.c_str(), target, sizeof(target) - 1) > 0 && inodes.count(target) != 0) {
            ++count;
        }
    }
    closedir(fds);
    return count;
}

// Whether every thread running now was running in `before`: a thread that was
// finishing when `before` was taken may be gone since.
bool noNewThreads(const std::map<std::string, int>& before) {
    for (const auto& named : threadNames()) {
        auto was = before.find(named.first);
        if (was == before.end() || was->second < named.second) {
            return false;
        }
    }
    return true;
}

// Waits until no thread is left beyond `before` and no more local sockets than
// `sockets`: a call in flight may hold a pair for a moment, a leak holds it.
bool backTo(const std::map<std::string, int>& threads, int sockets) {
    auto end = Clock::now() + AgentLab::kPatience;
    while (Clock::now() < end) {
        if (noNewThreads(threads) && localSockets() <= sockets) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::printf("threads %zu (were %zu), local sockets %d (were %d)\n", threadNames().size(),
                threads.size(), localSockets(), sockets);
    return false;
}

}  // namespace

TEST_F(ScreenStreaming, FramesOfTheRequestedSizeThatChange) {
    ASSERT_TRUE(kSamplePlugin);
    AgentLab& lab = started();
    openSession(lab);
    Json::Value set = run(lab, kParams, "EXECUTE",
                          R"({"VIDEO_WIDTH": 240, "VIDEO_HEIGHT": 136, "VIDEO_CODEC_QUALITY": 80,
                              "FRAME_RATE_NUMERATOR": 20, "FRAME_RATE_DENOMINATOR": 1})");
    ASSERT_EQ(0u, set["RESULT"].asUInt()) << set.toStyledString();
    EXPECT_EQ("RUNNING", transport(lab, "RUNNING"));

    ZelCloud::StreamRegistry::Frame first = frameAfter(lab, 0);
    ASSERT_TRUE(first.bytes);
    EXPECT_EQ(std::make_pair(240, 136), decodedSize(*first.bytes));
    // The picture moves: some frame within the next few differs from the first.
    bool changed = false;
    for (uint64_t seq = first.seq; !changed && seq < first.seq + 20;) {
        ZelCloud::StreamRegistry::Frame next = frameAfter(lab, seq);
        ASSERT_TRUE(next.bytes);
        changed = *next.bytes != *first.bytes;
        seq = next.seq;
    }
    EXPECT_TRUE(changed);

    // The sink's libcurl (GnuTLS) and the agent's (OpenSSL) live side by side:
    // the agent's TLS calls go on while the stream runs.
    std::ifstream maps("/proc/self/maps");
    std::string mapped((std::istreambuf_iterator<char>(maps)), std::istreambuf_iterator<char>());
    EXPECT_NE(std::string::npos, mapped.find("libcurl-gnutls.so"));
    EXPECT_NE(std::string::npos, mapped.find("libcurl.so"));
    size_t polls = lab.calls("da/notification").size();
    EXPECT_TRUE(lab.waitForCalls("da/notification", polls + 2));
    EXPECT_NE(ZelCloud::StreamRegistry::Wait::Timeout,
              lab.cloud().waitForFrame("tv", frameAfter(lab, 0).seq, AgentLab::kPatience, first));
    EXPECT_EQ("RUNNING", run(lab, kTransport, "GET")["OUTPUTS"][0]["DATA"]["STATE"].asString());

    // The relay heard of the stream with the documented query.
    EXPECT_TRUE(lab.waitForLog(
        "HTTP URI location: http://127.0.0.1:" + std::to_string(lab.cloud().relayPort()) +
        "/streams/tv?producerid=1&action=publish&maxbytes=97920&timeout=5"
        "&secure=0"));

    // Stopped, then started again with other parameters.
    EXPECT_EQ("SHUT_DOWN", transport(lab, "SHUT_DOWN"));
    EXPECT_TRUE(lab.waitForLog("The Video Stream is stopped."));
    EXPECT_TRUE(lab.cloud().waitForStreams(
        [](const Json::Value& streams) {
            return streams.size() == 1 && !streams[0]["connected"].asBool();
        },
        AgentLab::kPatience));
    ZelCloud::StreamRegistry::Frame last;
    ASSERT_TRUE(lab.cloud().latestFrame("tv", last));
    run(lab, kParams, "EXECUTE", R"({"VIDEO_WIDTH": 160, "VIDEO_HEIGHT": 90})");
    EXPECT_EQ("RUNNING", transport(lab, "RUNNING"));
    ZelCloud::StreamRegistry::Frame again = frameAfter(lab, last.seq);
    ASSERT_TRUE(again.bytes);
    EXPECT_EQ(std::make_pair(160, 90), decodedSize(*again.bytes));
    EXPECT_TRUE(lab.waitForLog(
        "HTTP URI location: http://127.0.0.1:" + std::to_string(lab.cloud().relayPort()) +
        "/streams/tv?producerid=2&action=publish&maxbytes=43200&timeout=5"
        "&secure=0"));
    EXPECT_EQ("RUNNING", transport(lab, "SEND_KEYFRAME_NEXT"));
}

TEST_F(ScreenStreaming, SessionEndAndShutDownStopTheStream) {
    ASSERT_TRUE(kSamplePlugin);
    AgentLab& lab = started();
    std::map<std::string, int> before;
    int sockets = 0;
    // The session ends: the stream with it, every thread it started and every
    // descriptor its elements held. The control threads make their curl handles
    // at their first call and keep them, so the descriptors are counted from the
    // end of the first session on: a leak shows after the second.
    for (const char* stream : {"first", "second"}) {
        openSession(lab);
        if (before.empty()) {
            before = threadNames();
        }
        int idle = localSockets();
        EXPECT_EQ("RUNNING", transport(lab, "RUNNING", stream));
        frameAfter(lab, 0, stream);
        EXPECT_LT(idle, localSockets());

        size_t stopped = lab.logCount("The Video Stream is stopped.");
        // The long poll's handle goes when the thread settles without a session.
        size_t settled = lab.logCount("GetTaskControl delaying indefinitely");
        ASSERT_EQ(ZelResultSuccess, ZelSessionTerm());
        ASSERT_TRUE(lab.waitForSessionState(ZelSessionStateNone));
        EXPECT_TRUE(lab.waitForLog("The Video Stream is stopped.", stopped + 1));
        EXPECT_TRUE(lab.waitForLog("GetTaskControl delaying indefinitely", settled + 1));
        if (sockets == 0) {
            sockets = localSockets();
        }
        EXPECT_TRUE(backTo(before, sockets));
    }

    // A new session streams again; ZelTerm stops it on its way down.
    openSession(lab);
    EXPECT_EQ("RUNNING", transport(lab, "RUNNING", "third"));
    frameAfter(lab, 0, "third");
    auto start = Clock::now();
    ASSERT_TRUE(lab.term());
    auto took = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    std::printf("ZelTerm while streaming: Uninitialized after %.1f ms\n", took);
    EXPECT_EQ(3u, lab.logCount("The Video Stream is stopped."));
    EXPECT_TRUE(lab.cloud().waitForStreams(
        [](const Json::Value& streams) {
            for (const Json::Value& stream : streams) {
                if (stream["connected"].asBool()) {
                    return false;
                }
            }
            return true;
        },
        AgentLab::kPatience));
}
