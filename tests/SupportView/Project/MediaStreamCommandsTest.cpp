// The media-stream commands as the support agent sends them: their checks,
// their answers and their descriptions. No stream is started here.
#include "SupportView/Project/MediaStreamCommands.h"

#include <gtest/gtest.h>

#include "SupportView/Base/CommandExecutor.h"
#include "SupportView/Base/CommandManager.h"
#include "SupportView/Base/SessionHooks.h"
#include "SupportView/Platform/Video.h"
#include "support/LogCapture.h"

using namespace Zel::Sv;
using ZelTest::LogCapture;
using ZelTest::ParseJson;

namespace {

constexpr const char* kParams = "FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_PARAMS";
constexpr const char* kTransport = "FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_TRANSPORT_CONTROL";
constexpr const char* kLayers = "FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_VIDEO_LAYERS";

class MediaStreamCommandsTest : public ::testing::Test {
protected:
    void SetUp() override {
        CommandManager::Instance().initialize("FFFFFF0ACC", "zel.localhost", "dev-1", "KS-9",
                                              "Korvane", "esn-1", "00:11:22:33:44:55", "7.1");
        ASSERT_TRUE(Video::Instance().isAvailable());
    }
    void TearDown() override {
        VideoSessionTerminate();
        CommandManager::Instance().terminate();
    }

    static Json::Value run(const char* name, const char* operation, const std::string& inputs) {
        Json::Value request(Json::objectValue);
        request["COMMAND"]["NAME"] = name;
        request["COMMAND"]["OPERATION"] = operation;
        request["INPUTS"] = ParseJson(inputs);
        Json::Value response;
        CommandExecutor::processCommand(request, response);
        return response;
    }
    static Json::Value data(const Json::Value& response) { return response["OUTPUTS"][0]["DATA"]; }
};

TEST_F(MediaStreamCommandsTest, BadValuesAreRefusedAndChangeNothing) {
    struct Case {
        const char* name;
        const char* inputs;
        const char* logged;
    };
    const Case cases[] = {
        {kParams, R"({"VIDEO_WIDTH": 0})", "Error Invalid Parameter."},
        {kParams, R"({"VIDEO_WIDTH": 100000})", "Error Invalid Parameter."},
        {kParams, R"({"VIDEO_HEIGHT": "720"})", "Error Invalid Parameter."},
        {kParams, R"({"VIDEO_WIDTH": 320, "VIDEO_CODEC_QUALITY": 49})", "Error Invalid Parameter."},
        {kParams, R"({"VIDEO_CODEC_QUALITY": 101})", "Error Invalid Parameter."},
        {kParams, R"({"FRAME_RATE_NUMERATOR": 0})", "Error Invalid Parameter."},
        {kParams, R"({"FRAME_RATE_DENOMINATOR": -1})", "Error Invalid Parameter."},
        {kParams, R"({"STREAM_FORMAT": {"CONTAINER": "MP4", "VIDEO_CODEC": "H264"}})",
         "Invalid Stream Format: MP4/H264"},
        {kParams, R"({"STREAM_FORMAT": "MJPEG"})", "Error Invalid Parameter."},
        {kParams, R"({"VIDEO_SCALING_ALGORITHM": "BICUBIC"})",
         "Invalid Scaling Algorithm: BICUBIC"},
        {kParams, R"({"DISPLAY_TIMESTAMP_OVERLAY": "yes"})", "Error Invalid Parameter."},
        {kTransport, R"({})", "Error Invalid Parameter."},
        {kTransport, R"({"ACTION": "PLAY"})", "Error Invalid Parameter: Action = \"PLAY\""},
        {kTransport, R"({"ACTION": "RUNNING"})",
         "Error Invalid Parameter: Missing server address or port."},
        {kTransport, R"({"ACTION": "RUNNING", "RELAY_SERVER_ADDRESS": "127.0.0.1"})",
         "Error Invalid Parameter: Missing server address or port."},
        {kTransport, R"({"ACTION": "RUNNING", "RELAY_SERVER_PORT": 8080})",
         "Error Invalid Parameter: Missing server address or port."},
        {kTransport,
         R"({"ACTION": "RUNNING", "RELAY_SERVER_ADDRESS": "a.b/x?", "RELAY_SERVER_PORT": 80})",
         "Error Invalid Parameter: Bad server."},
        {kTransport,
         R"({"ACTION": "RUNNING", "RELAY_SERVER_ADDRESS": "h", "RELAY_SERVER_PORT": 70000})",
         "Error Invalid Parameter: Bad server."},
        {kTransport,
         R"({"ACTION": "RUNNING", "RELAY_SERVER_ADDRESS": "h", "RELAY_SERVER_PORT": 80,
             "RELAY_SERVER_URI": "/s?evil=1"})",
         "Error Invalid Parameter: Bad server."},
        {kTransport,
         R"({"ACTION": "RUNNING", "RELAY_SERVER_ADDRESS": "h", "RELAY_SERVER_PORT": 80,
             "RELAY_SERVER_URI": "no-slash"})",
         "Error Invalid Parameter: Bad server."},
        {kTransport,
         R"({"ACTION": "RUNNING", "RELAY_SERVER_ADDRESS": "h", "RELAY_SERVER_PORT": 80,
             "SECURE_MEDIA_STREAM": "no"})",
         "Error Invalid Parameter."},
        {kLayers, R"({"LAYERS": "SUBTITLES"})", "Invalid Video Layer Setting: SUBTITLES"},
        {kLayers, R"({"LAYERS": ["GRAPHICS", "VIDEO"]})", "Error Invalid Parameter."},
        {kLayers, R"({"LAYER": 2})", "Error Invalid Parameter."},
    };
    Json::Value parameters = data(run(kParams, "GET", "{}"));
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.name) + " " + c.inputs);
        LogCapture capture;
        Json::Value response = run(c.name, "EXECUTE", c.inputs);
        EXPECT_EQ(3u, response["RESULT"].asUInt());
        EXPECT_NE("", capture.find(c.logged));
        EXPECT_EQ(parameters, data(run(kParams, "GET", "{}")));
        EXPECT_EQ("GRAPHICS_VIDEO", data(run(kLayers, "GET", "{}"))["LAYER"].asString());
        EXPECT_EQ("SHUT_DOWN", data(run(kTransport, "GET", "{}"))["STATE"].asString());
    }
}

TEST_F(MediaStreamCommandsTest, GoodValuesAreKeptAndReported) {
    Json::Value set = data(run(kParams, "EXECUTE", R"({"VIDEO_WIDTH": 320, "VIDEO_HEIGHT": 180,
        "FRAME_RATE_NUMERATOR": 25, "FRAME_RATE_DENOMINATOR": 2, "VIDEO_CODEC_QUALITY": 90,
        "VIDEO_SCALING_ALGORITHM": "LANCZOS", "DISPLAY_TIMESTAMP_OVERLAY": true})"));
    Json::Value got = data(run(kParams, "GET", "{}"));
    EXPECT_EQ(set, got);
    EXPECT_EQ(320u, got["VIDEO_WIDTH"].asUInt());
    EXPECT_EQ(25u, got["FRAME_RATE_NUMERATOR"].asUInt());
    EXPECT_EQ("LANCZOS", got["VIDEO_SCALING_ALGORITHM"].asString());
    EXPECT_EQ(ParseJson(R"({"CONTAINER": "MJPEG", "VIDEO_CODEC": "MJPEG"})"), got["STREAM_FORMAT"]);

    EXPECT_EQ("VIDEO",
              data(run(kLayers, "EXECUTE", R"({"LAYERS": ["VIDEO"]})"))["LAYER"].asString());
    EXPECT_EQ("GRAPHICS",
              data(run(kLayers, "EXECUTE", R"({"LAYER": "GRAPHICS"})"))["LAYER"].asString());
    EXPECT_EQ("GRAPHICS", Video::Instance().getVideoLayer());

    // Outside a session nothing streams, and saying so is no error.
    LogCapture capture;
    Json::Value response = run(kTransport, "EXECUTE",
                               R"({"ACTION": "SHUT_DOWN", "RELAY_SERVER_ADDRESS": "relay.example",
                                   "RELAY_SERVER_PORT": 8080, "RELAY_SERVER_URI": "/streams/tv"})");
    EXPECT_EQ(0u, response["RESULT"].asUInt());
    EXPECT_EQ("SHUT_DOWN", data(response)["STATE"].asString());
    EXPECT_NE("", capture.find("Media Relay Server: relay.example:8080"));
    EXPECT_EQ(3u, run(kTransport, "EXECUTE", R"({"ACTION": "RUNNING"})")["RESULT"].asUInt());
    EXPECT_NE("", capture.find("Video can only stream during a session."));
}

TEST_F(MediaStreamCommandsTest, RelayLocation) {
    Video::StreamSettings settings;
    settings.server.address = "relay.example";
    settings.server.port = 8443;
    settings.server.uri = "/streams/tv-1";
    settings.video.width = 640;
    settings.video.height = 360;
    settings.producerId = 7;
    EXPECT_EQ(
        "http://relay.example:8443/streams/tv-1"
        "?producerid=7&action=publish&maxbytes=691200&timeout=5&secure=0",
        Video::RelayLocation(settings));
    settings.server.secure = true;
    EXPECT_EQ(0u, Video::RelayLocation(settings).rfind("https://relay.example:8443/", 0));
    EXPECT_NE(std::string::npos, Video::RelayLocation(settings).find("&secure=1"));
}

TEST_F(MediaStreamCommandsTest, DescriptionsInTheAvailableCommands) {
    Json::Value list;
    CommandManager::Instance().reportAvailableCommands(Json::Value(), list);
    Json::Value found(Json::objectValue);
    for (const Json::Value& entry : list) {
        found[entry["ID"].asString()] = entry;
    }
    ASSERT_TRUE(found.isMember(kParams));
    Json::Value action = found[kTransport]["DESCRIPTION"]["INPUTS"]["ACTION"];
    EXPECT_EQ("STRING", action["TYPE"].asString());
    EXPECT_EQ(ParseJson(R"(["RUNNING", "SEND_KEYFRAME_NEXT", "SHUT_DOWN"])"), action["VALUES"]);
    EXPECT_EQ("true", action["REQUIRED"].asString());
    EXPECT_EQ("false", action["READONLY"].asString());
    EXPECT_EQ("NUMERIC",
              found[kTransport]["DESCRIPTION"]["INPUTS"]["RELAY_SERVER_PORT"]["TYPE"].asString());
    Json::Value layers = found[kLayers]["DESCRIPTION"]["INPUTS"]["LAYERS"];
    EXPECT_EQ("OBJECT", layers["TYPE"].asString());
    EXPECT_EQ(-1, layers["ORDER"].asInt());
    EXPECT_EQ(3u, layers["VALUES"].size());
    Json::Value quality = found[kParams]["DESCRIPTION"]["INPUTS"]["VIDEO_CODEC_QUALITY"];
    EXPECT_EQ(50, quality["MINIMUM_VALUE"].asInt());
    EXPECT_EQ(100, quality["MAXIMUM_VALUE"].asInt());
    EXPECT_EQ(ParseJson(R"(["EXECUTE", "GET"])"), found[kParams]["OPERATIONS"]);
}

}  // namespace
