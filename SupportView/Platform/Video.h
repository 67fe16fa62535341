#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

namespace Zel {
namespace Sv {

class VideoWorker;

// Screen streaming: frames from the vendor plug-in go through a GStreamer
// pipeline to the media relay as multipart MJPEG. One per process; the video
// mutex guards parameters, server settings, layer and state, and a second
// mutex keeps starts and stops of the worker in order.
class Video {
public:
    struct VideoParameters {
        unsigned frameRateNumerator = 10;
        unsigned frameRateDenominator = 1;
        unsigned width = 640;
        unsigned height = 360;
        std::string container = "MJPEG";
        std::string codec = "MJPEG";
        unsigned quality = 75;
        unsigned keyframeInterval = 1;  // every JPEG is a key frame
        std::string scalingAlgorithm = "BILINEAR";
        bool timestampOverlay = false;
    };
    struct ServerParameters {
        std::string address;
        unsigned port = 0;
        std::string uri = "/";
        bool secure = false;
    };

    // What a stream is started with: its parameters, its relay and its number.
    struct StreamSettings {
        VideoParameters video;
        ServerParameters server;
        unsigned producerId = 0;
    };

    static constexpr const char* kRunning = "RUNNING";
    static constexpr const char* kSendKeyframeNext = "SEND_KEYFRAME_NEXT";
    static constexpr const char* kShutDown = "SHUT_DOWN";

    static Video& Instance();
    ~Video();

    // False when GStreamer lacks an element the pipeline needs.
    bool isAvailable() const { return available_; }

    // A session starts, or ends (which stops the stream).
    void initialize();
    void terminate();

    bool startVideo();
    void stopVideo();

    void getVideoParameters(VideoParameters& parameters);
    // False, changing nothing, when a value is out of range.
    bool setVideoParameters(const VideoParameters& parameters);
    // "RUNNING" while a stream runs, else "SHUT_DOWN".
    std::string getMediaStreamParametersState();
    // False, changing nothing, on a bad action or server setting.
    bool setMediaStreamParameters(const std::string& action);
    bool setMediaStreamParameters(const std::string& action, const ServerParameters& server);
    bool performMediaStreamAction(const std::string& action);
    std::string getVideoLayer();
    bool setVideoLayer(const std::string& layer);

    static bool IsStreamFormat(const std::string& container, const std::string& codec);
    static bool IsScalingAlgorithm(const std::string& algorithm);
    static bool IsAction(const std::string& action);
    // Host name or address and URI that cannot change the location's shape.
    static bool IsServer(const ServerParameters& server);
    // The sink's location for these settings.
    static std::string RelayLocation(const StreamSettings& settings);

    // The layer code the plug-in's frame filler takes.
    unsigned layerCode() const { return layerCode_.load(); }

private:
    Video();
    bool validateVideoCapabilities();
    bool isRunning();

    std::mutex mutex_;        // the video mutex
    std::mutex workerMutex_;  // starts and stops, never held by the worker
    bool available_ = false;
    bool inSession_ = false;
    VideoParameters parameters_;
    ServerParameters server_;
    std::string layer_ = "GRAPHICS_VIDEO";
    std::atomic<unsigned> layerCode_;
    unsigned streams_ = 0;
    std::unique_ptr<VideoWorker> worker_;
};

}  // namespace Sv
}  // namespace Zel
