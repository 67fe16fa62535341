#include "SupportView/Platform/Video.h"

#include <gst/gst.h>

#include <cctype>
#include <cstdio>

#include "Core/Platform/Logger.h"
#include "SupportView/Base/SessionHooks.h"
#include "SupportView/Platform/VideoWorker.h"
#include "SupportView/Project/VideoUtils.h"
#include "zel_korvane.h"

namespace Zel {
namespace Sv {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Platform/Video";

constexpr const char* kPluginFiles[] = {
    "libgstcoreelements.so", "libgstapp.so",  "libgstvideocrop.so", "libgstvideoscale.so",
    "libgstvideoconvert.so", "libgstjpeg.so", "libgstmultipart.so", "libgstcurl.so",
};
constexpr const char* kFactories[] = {
    "pipeline",     "appsrc",       "videocrop", "videoscale",
    "videoconvert", "multipartmux", "jpegenc",   "curlhttpsink",
};

// What the relay is told in the location: the largest frame it should take
// (three bytes a pixel bounds any JPEG of the picture), and how long the sink
// waits on a write.
constexpr unsigned kSinkTimeoutSeconds = 5;
constexpr const char* kRelayAction = "publish";

// Limits on what a support agent may ask for.
constexpr unsigned kMaxFrameRate = 60;
constexpr unsigned kMaxFrameRateDenominator = 1001;
constexpr unsigned kMinSide = 16;
constexpr unsigned kMaxWidth = 3840;
constexpr unsigned kMaxHeight = 2160;
constexpr unsigned kMinQuality = 50;
constexpr unsigned kMaxQuality = 100;
constexpr unsigned kMaxKeyframeInterval = 1000;
constexpr size_t kMaxAddressLength = 253;
constexpr size_t kMaxUriLength = 1024;

bool inRange(unsigned value, unsigned low, unsigned high) {
    return value >= low && value <= high;
}

bool isUriChar(unsigned char c) {
    // No query or fragment of its own, no space, no control character.
    return c > 0x20 && c < 0x7f && c != '?' && c != '#' && c != '"' && c != '\\';
}

bool isAddressChar(unsigned char c) {
    return std::isalnum(c) || c == '.' || c == '-' || c == '_';
}
}  // namespace

Video& Video::Instance() {
    static Video instance;
    return instance;
}

Video::Video() : layerCode_(ZEL_KORVANE_LAYER_GRAPHICS_VIDEO) {
    std::string path = VideoUtils::getGstreamerPluginPath();
    ZEL_LOG(ServiceSv, CategoryState, SeverityInfo, "The GStreamer Plugin Path is \"%s\"",
            path.c_str());
    GError* error = nullptr;
    if (!gst_init_check(nullptr, nullptr, &error)) {
        ZEL_LOG(ServiceSv, CategoryState, SeverityError, "GStreamer failed to initialise: %s",
                error != nullptr ? error->message : "");
        g_clear_error(&error);
        return;
    }
    available_ = validateVideoCapabilities();
}

Video::~Video() {
    stopVideo();
    gst_deinit();
}

bool Video::validateVideoCapabilities() {
    guint major = 0, minor = 0, micro = 0, nano = 0;
    gst_version(&major, &minor, &micro, &nano);
    const char* suffix = nano == 1 ? "(CVS)" : nano >= 2 ? "(Pre-release)" : "";
    ZEL_LOG(ServiceSv, CategoryState, SeverityInfo,
            "The Device Agent is linked against GStreamer %d.%d.%d %s", major, minor, micro,
            suffix);

    std::string path = VideoUtils::getGstreamerPluginPath();
    for (const char* file : kPluginFiles) {
        std::string full = path + "/" + file;
        GError* error = nullptr;
        GstPlugin* plugin = gst_plugin_load_file(full.c_str(), &error);
        if (plugin != nullptr) {
            ZEL_LOG(ServiceSv, CategoryState, SeverityInfo, "Loaded plug-in %s.", full.c_str());
            gst_object_unref(plugin);
        } else {
            // Merged or renamed files are fine: the factories decide.
            ZEL_LOG(ServiceSv, CategoryState, SeverityInfo, "Not able to load plug-in %s: %s.",
                    full.c_str(), error != nullptr ? error->message : "");
        }
        g_clear_error(&error);
    }

    bool capable = true;
    for (const char* name : kFactories) {
        GstElementFactory* factory = gst_element_factory_find(name);
        if (factory == nullptr) {
            ZEL_LOG(ServiceSv, CategoryState, SeverityError, "Failed to find factory %s.", name);
            capable = false;
        } else {
            gst_object_unref(factory);
        }
    }
    if (!capable) {
        ZEL_LOG(ServiceSv, CategoryState, SeverityError,
                "GStreamer is not capable of supporting video functionality.");
    }
    return capable;
}

void Video::initialize() {
    std::lock_guard<std::mutex> lock(mutex_);
    inSession_ = true;
}

void Video::terminate() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        inSession_ = false;
    }
    stopVideo();
}

bool Video::isRunning() {
    return worker_ && worker_->running();
}

bool Video::startVideo() {
    std::lock_guard<std::mutex> order(workerMutex_);
    if (isRunning()) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo, "Video is already enabled.");
        return true;
    }
    worker_.reset();  // one that ended by itself
    StreamSettings settings;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!available_ || !inSession_) {
            ZEL_LOG(ServiceSv, CategoryFlow, SeverityError,
                    "Video can only stream during a session.");
            return false;
        }
        settings.video = parameters_;
        settings.server = server_;
        settings.producerId = ++streams_;
    }
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo, "Starting secure video using MRS %s:%u",
            settings.server.address.c_str(), settings.server.port);
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo, "MRS URI %s", settings.server.uri.c_str());
    auto worker = std::make_unique<VideoWorker>(settings);
    if (!worker->start()) {
        return false;
    }
    worker_ = std::move(worker);
    return true;
}

void Video::stopVideo() {
    std::lock_guard<std::mutex> order(workerMutex_);
    if (!worker_) {
        return;
    }
    worker_->stop();
    worker_.reset();
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo, "The Video Stream is stopped.");
}

void Video::getVideoParameters(VideoParameters& parameters) {
    std::lock_guard<std::mutex> lock(mutex_);
    parameters = parameters_;
}

bool Video::setVideoParameters(const VideoParameters& parameters) {
    if (!IsStreamFormat(parameters.container, parameters.codec)) {
        std::string format = parameters.container + "/" + parameters.codec;
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Invalid Stream Format: %s",
                format.c_str());
        return false;
    }
    if (!IsScalingAlgorithm(parameters.scalingAlgorithm)) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Invalid Scaling Algorithm: %s",
                parameters.scalingAlgorithm.c_str());
        return false;
    }
    if (!inRange(parameters.frameRateNumerator, 1, kMaxFrameRate) ||
        !inRange(parameters.frameRateDenominator, 1, kMaxFrameRateDenominator) ||
        !inRange(parameters.width, kMinSide, kMaxWidth) ||
        !inRange(parameters.height, kMinSide, kMaxHeight) ||
        !inRange(parameters.quality, kMinQuality, kMaxQuality) ||
        parameters.keyframeInterval > kMaxKeyframeInterval) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    parameters_ = parameters;
    return true;
}

std::string Video::getMediaStreamParametersState() {
    std::lock_guard<std::mutex> order(workerMutex_);
    return isRunning() ? kRunning : kShutDown;
}

bool Video::setMediaStreamParameters(const std::string& action) {
    if (!IsAction(action)) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Error Invalid Parameter: Action = \"%s\"",
                action.c_str());
        return false;
    }
    return performMediaStreamAction(action);
}

bool Video::setMediaStreamParameters(const std::string& action, const ServerParameters& server) {
    if (server.address.empty() || server.port == 0) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError,
                "Error Invalid Parameter: Missing server address or port.");
        return false;
    }
    if (!IsServer(server)) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Error Invalid Parameter: Bad server.");
        return false;
    }
    if (!IsAction(action)) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Error Invalid Parameter: Action = \"%s\"",
                action.c_str());
        return false;
    }
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo, "Media Relay Server: %s:%u",
            server.address.c_str(), server.port);
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo, "Media Relay Server URI: %s",
            server.uri.c_str());
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo, "Secure Video: %s",
            server.secure ? "true" : "false");
    {
        std::lock_guard<std::mutex> lock(mutex_);
        server_ = server;
    }
    return performMediaStreamAction(action);
}

bool Video::performMediaStreamAction(const std::string& action) {
    if (action == kRunning) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (server_.address.empty() || server_.port == 0) {
                ZEL_LOG(ServiceSv, CategoryFlow, SeverityError,
                        "Error Invalid Parameter: Missing server address or port.");
                return false;
            }
        }
        return startVideo();
    }
    if (action == kShutDown) {
        stopVideo();
        return true;
    }
    if (action == kSendKeyframeNext) {
        // Every JPEG stands alone: the next key frame is simply the next frame, now.
        std::lock_guard<std::mutex> order(workerMutex_);
        if (isRunning()) {
            worker_->sendFrameNow();
        }
        return true;
    }
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Error Invalid Media Stream Action.");
    return false;
}

std::string Video::getVideoLayer() {
    std::lock_guard<std::mutex> lock(mutex_);
    return layer_;
}

bool Video::setVideoLayer(const std::string& layer) {
    unsigned code = 0;
    if (!VideoUtils::LayerCode(layer, code)) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Invalid Video Layer Setting: %s",
                layer.c_str());
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    layer_ = layer;
    layerCode_ = code;
    return true;
}

bool Video::IsStreamFormat(const std::string& container, const std::string& codec) {
    return container == "MJPEG" && codec == "MJPEG";
}

bool Video::IsScalingAlgorithm(const std::string& algorithm) {
    return algorithm == "NEAREST" || algorithm == "BILINEAR" || algorithm == "LANCZOS";
}

bool Video::IsAction(const std::string& action) {
    return action == kRunning || action == kSendKeyframeNext || action == kShutDown;
}

bool Video::IsServer(const ServerParameters& server) {
    if (server.address.empty() || server.address.size() > kMaxAddressLength || server.port == 0 ||
        server.port > 65535 || server.uri.empty() || server.uri[0] != '/' ||
        server.uri.size() > kMaxUriLength) {
        return false;
    }
    for (unsigned char c : server.address) {
        if (!isAddressChar(c)) {
            return false;
        }
    }
    for (unsigned char c : server.uri) {
        if (!isUriChar(c)) {
            return false;
        }
    }
    return true;
}

std::string Video::RelayLocation(const StreamSettings& settings) {
    const ServerParameters& server = settings.server;
    std::string base = std::string(server.secure ? "https://" : "http://") + server.address + ":" +
                       std::to_string(server.port) + server.uri;
    unsigned long long maxBytes =
        3ull * settings.video.width * settings.video.height;  // bounded by the parameter limits
    char query[160];
    std::snprintf(query, sizeof(query), "?producerid=%d&action=%s&maxbytes=%d&timeout=%d&secure=%d",
                  static_cast<int>(settings.producerId), kRelayAction, static_cast<int>(maxBytes),
                  static_cast<int>(kSinkTimeoutSeconds), server.secure ? 1 : 0);
    return base + query;
}

void VideoSessionInitialize() {
    Video::Instance().initialize();
}

void VideoSessionTerminate() {
    Video::Instance().terminate();
}

}  // namespace Sv
}  // namespace Zel
