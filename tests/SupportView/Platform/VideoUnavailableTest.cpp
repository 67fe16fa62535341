// A GStreamer without the HTTP sink: video is unavailable and the
// media-stream commands stay out of the registry. GStreamer reads its plug-in
// path once, so this binary starts with a plug-in directory of its own that
// has every file the pipeline needs but the curl one.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "SupportView/Base/CommandManager.h"
#include "SupportView/Platform/Video.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

using namespace Zel::Sv;
using ZelTest::LogCapture;
using ZelTest::TempDir;

namespace {

TempDir& pluginDir() {
    static TempDir* dir = [] {
        auto* made = new TempDir;
        for (const char* file :
             {"libgstcoreelements.so", "libgstapp.so", "libgstvideocrop.so",
              "libgstvideoconvertscale.so", "libgstjpeg.so", "libgstmultipart.so"}) {
            std::string from = std::string(ZEL_GST_PLUGIN_DIR) + "/" + file;
            EXPECT_EQ(0, symlink(from.c_str(), made->file(file).c_str())) << from;
        }
        setenv("GST_PLUGIN_SYSTEM_PATH_1_0", made->path().c_str(), 1);
        unsetenv("GST_PLUGIN_PATH_1_0");
        setenv("GST_REGISTRY_1_0", made->file("registry.bin").c_str(), 1);
        setenv("ZEL_KORVANE_PLUGIN", "/nonexistent/libzel_korvane.so", 1);
        return made;
    }();
    return *dir;
}
const bool kPrepared = !pluginDir().path().empty();

TEST(VideoUnavailableTest, AMissingFactoryRemovesTheMediaStreamCommands) {
    ASSERT_TRUE(kPrepared);
    LogCapture capture;
    CommandManager::Instance().initialize("FFFFFF0ACC", "zel.localhost", "dev-1", "KS-9", "Korvane",
                                          "esn-1", "00:11:22:33:44:55", "7.1");
    EXPECT_FALSE(Video::Instance().isAvailable());
    EXPECT_NE("", capture.find("Failed to find factory curlhttpsink."));
    EXPECT_EQ("", capture.find("Failed to find factory appsrc."));
    EXPECT_NE("", capture.find("GStreamer is not capable of supporting video functionality."));
    EXPECT_EQ(nullptr, CommandManager::Instance().find("FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_PARAMS"));
    EXPECT_EQ(nullptr, CommandManager::Instance().find(
                           "FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_TRANSPORT_CONTROL"));
    EXPECT_EQ(nullptr,
              CommandManager::Instance().find("FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_VIDEO_LAYERS"));
    EXPECT_NE(nullptr, CommandManager::Instance().find("FFFFFF_LIVE_SUPPORT_NETWORK_DIAGNOSTICS"));
    EXPECT_EQ(14u, CommandManager::Instance().commands().size());

    // Nothing can start a stream.
    Video::Instance().initialize();
    Video::ServerParameters server;
    server.address = "127.0.0.1";
    server.port = 9;
    EXPECT_FALSE(Video::Instance().setMediaStreamParameters(Video::kRunning, server));
    EXPECT_EQ(Video::kShutDown, Video::Instance().getMediaStreamParametersState());
    Video::Instance().terminate();
    CommandManager::Instance().terminate();
}

}  // namespace
