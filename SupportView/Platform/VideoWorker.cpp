#include "SupportView/Platform/VideoWorker.h"

#include <gst/app/gstappsrc.h>

#include <algorithm>

#include "Core/Platform/Logger.h"
#include "Core/Platform/TimeManager.h"
#include "SupportView/Platform/StreamTaskPool.h"
#include "SupportView/Project/VideoUtils.h"

namespace Zel {
namespace Sv {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Platform/VideoWorker";

// The multiplexer's part boundary, and the content type that tells the relay.
constexpr const char* kBoundary = "zelframe";
constexpr const char* kContentType = "multipart/x-mixed-replace; boundary=zelframe";
constexpr int kSinkTimeoutSeconds = 5;
constexpr int kBilinear = 1;
constexpr int kMinPercent = 50;

// How long a stopped stream may take to carry its end through to the relay
// before the pipeline is taken down anyway.
constexpr long kEndOfStreamWaitMs = 20;

bool before(const timespec& a, const timespec& b) {
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

GstCaps* rawCaps(const char* format, unsigned width, unsigned height) {
    return gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, format, "width", G_TYPE_INT,
                               static_cast<gint>(width), "height", G_TYPE_INT,
                               static_cast<gint>(height), nullptr);
}

void setFramerate(GstCaps* caps, const Video::VideoParameters& video) {
    gst_caps_set_simple(caps, "framerate", GST_TYPE_FRACTION,
                        static_cast<gint>(video.frameRateNumerator),
                        static_cast<gint>(video.frameRateDenominator), nullptr);
}

struct CapsDeleter {
    void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
};
using CapsPtr = std::unique_ptr<GstCaps, CapsDeleter>;
}  // namespace

VideoWorker::VideoWorker(const Video::StreamSettings& settings)
    : settings_(settings), semaphore_(mutex_) {}

VideoWorker::~VideoWorker() {
    stop();
}

bool VideoWorker::start() {
    return ThreadUtil::Start(thread_, Run, this, "VideoWorker");
}

void VideoWorker::stop() {
    {
        LockMutex lock(mutex_);
        enabled_ = false;
        semaphore_.reset();
    }
    ThreadUtil::Join(thread_);
}

void VideoWorker::sendFrameNow() {
    LockMutex lock(mutex_);
    frameNow_ = true;
    semaphore_.reset();
}

bool VideoWorker::running() {
    LockMutex lock(mutex_);
    return !finished_;
}

void* VideoWorker::Run(void* self) {
    static_cast<VideoWorker*>(self)->loop();
    return nullptr;
}

void VideoWorker::loop() {
    bool playing = configureVideoPipeline() &&
                   gst_element_set_state(pipeline_, GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE;
    if (playing) {
        const Video::VideoParameters& video = settings_.video;
        // Frame k is due k * den / num seconds in; whole milliseconds between
        // frames would run 60/1 at 62.5 frames a second.
        const uint64_t periodNumerator = 1000ull * video.frameRateDenominator;
        const uint64_t periodDenominator = std::max(1u, video.frameRateNumerator);
        uint64_t frames = 0;
        TimeManager& time = TimeManager::Instance();
        timespec next = time.now();
        LockMutex lock(mutex_);
        while (enabled_ && !failed_) {
            timespec now = time.now();
            if (wantData_ && (frameNow_ || !before(now, next))) {
                frameNow_ = false;
                {
                    UnlockMutex unlock(mutex_);
                    pushBufferHandler();
                }
                ZEL_LOG(ServiceSv, CategoryFlow, SeverityDebug, "----- Prev time : %d:%d",
                        static_cast<int>(next.tv_sec), static_cast<int>(next.tv_nsec));
                ++frames;
                auto step =
                    static_cast<unsigned>(frames * periodNumerator / periodDenominator -
                                          (frames - 1) * periodNumerator / periodDenominator);
                // From the last deadline, so the rate holds; a late frame does not bring a burst.
                timespec last = next;
                time.updateTimestamp(last, next, std::max(1u, step), 0);
                if (before(next, now)) {
                    next = now;
                }
                ZEL_LOG(ServiceSv, CategoryFlow, SeverityDebug, "----- Next time : %d:%d",
                        static_cast<int>(next.tv_sec), static_cast<int>(next.tv_nsec));
                continue;
            }
            semaphore_.wait(wantData_ ? &next : nullptr);
        }
        if (!enabled_) {
            ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo, "Video was disabled.");
        }
    } else if (pipeline_ != nullptr) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "The video pipeline did not start.");
    }
    finishStream();
}

void VideoWorker::finishStream() {
    if (source_ != nullptr) {
        GstFlowReturn result = GST_FLOW_OK;
        g_signal_emit_by_name(source_, "end-of-stream", &result);
        LockMutex lock(mutex_);
        timespec deadline = TimeManager::Instance().now();
        TimeManager::Instance().updateTimestamp(deadline, deadline, kEndOfStreamWaitMs, 0);
        while (!endOfStream_ && !failed_ && semaphore_.wait(&deadline) == 0) {
        }
    }
    cleanupVideoPipeline();
    LockMutex lock(mutex_);
    finished_ = true;
}

bool VideoWorker::configureVideoPipeline() {
    if (!VideoUtils::getSourceFrameDimensions(sourceWidth_, sourceHeight_, visibleWidth_,
                                              visibleHeight_)) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError,
                "No frames to stream: the device reports no frame size.");
        return false;
    }
    GError* error = nullptr;
    taskPool_ = NewStreamTaskPool();
    gst_task_pool_prepare(taskPool_, &error);
    if (error != nullptr) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "No thread pool for the stream: %s",
                error->message);
        g_clear_error(&error);
        return false;
    }
    if (!createElements()) {
        return false;
    }
    setProperties();
    if (!linkElements()) {
        return false;
    }
    bus_ = gst_element_get_bus(pipeline_);
    if (bus_ == nullptr) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Failed to get bus.");
        return false;
    }
    gst_bus_set_sync_handler(bus_, BusCallback, this, nullptr);
    g_signal_connect(source_, "need-data", G_CALLBACK(NeedData), this);
    g_signal_connect(source_, "enough-data", G_CALLBACK(EnoughData), this);
    return true;
}

bool VideoWorker::createElements() {
    struct Make {
        const char* factory;
        const char* name;
        GstElement** element;
        const char* failure;
    };
    const Make makes[] = {
        {"appsrc", "source", &source_, "Failed to create appsrc."},
        {"videocrop", "videocrop", &videocrop_, "Failed to create videocrop."},
        {"videoscale", "videoscale", &videoscale_, "Failed to create videoscale."},
        {"videoconvert", "videoconvert", &videoconvert_, "Failed to create videoconvert."},
        {"jpegenc", "encoder", &encoder_, "Failed to create jpegenc."},
        {"multipartmux", "container", &container_, "Failed to create multipartmux."},
        {"curlhttpsink", "sink", &sink_, "Failed to create tcp or http sink."},
    };
    pipeline_ = gst_pipeline_new("streamPipeline");
    if (pipeline_ == nullptr) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Failed to create pipeline.");
        return false;
    }
    bool made = true;
    for (const Make& make : makes) {
        if (make.element == &sink_) {
            ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo, "Using HTTP encapsulation");
        }
        *make.element = gst_element_factory_make(make.factory, make.name);
        if (*make.element == nullptr) {
            ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "%s", make.failure);
            made = false;
        } else {
            // The pipeline owns it from here on.
            gst_bin_add(GST_BIN(pipeline_), *make.element);
        }
    }
    return made;
}

void VideoWorker::setProperties() {
    const Video::VideoParameters& video = settings_.video;
    g_object_set(source_, "block", FALSE, nullptr);
    g_object_set(source_, "is-live", TRUE, nullptr);
    g_object_set(source_, "min-percent", kMinPercent, nullptr);
    g_object_set(source_, "format", GST_FORMAT_TIME, nullptr);
    g_object_set(encoder_, "quality", static_cast<gint>(video.quality), nullptr);
    g_object_set(videocrop_, "top", 0, "left", 0, "bottom", 0, nullptr);
    g_object_set(videocrop_, "right", static_cast<gint>(sourceWidth_ - visibleWidth_), nullptr);
    g_object_set(videoscale_, "method", kBilinear, nullptr);
    std::string location = Video::RelayLocation(settings_);
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo, "HTTP URI location: %s", location.c_str());
    g_object_set(sink_, "location", location.c_str(), nullptr);
    g_object_set(sink_, "timeout", kSinkTimeoutSeconds, nullptr);
    // Without both, the relay cannot find the parts of the stream.
    g_object_set(container_, "boundary", kBoundary, nullptr);
    g_object_set(sink_, "content-type", kContentType, nullptr);
}

bool VideoWorker::linkElements() {
    const Video::VideoParameters& video = settings_.video;
    CapsPtr capsCrop(gst_caps_new_simple(
        "video/x-raw", "format", G_TYPE_STRING, "RGBA", "bpp", G_TYPE_INT, 32, "depth", G_TYPE_INT,
        32, "endianness", G_TYPE_INT, 4321, "red_mask", G_TYPE_INT, 0xff00, "green_mask",
        G_TYPE_INT, 0xff0000, "blue_mask", G_TYPE_INT, static_cast<gint>(0xff000000u), "width",
        G_TYPE_INT, static_cast<gint>(sourceWidth_), "height", G_TYPE_INT,
        static_cast<gint>(sourceHeight_), nullptr));
    if (!capsCrop) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Failed to create capsCrop.");
        return false;
    }
    setFramerate(capsCrop.get(), video);
    CapsPtr capsScale(rawCaps("RGBA", visibleWidth_, sourceHeight_));
    if (!capsScale) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Failed to create capsScale.");
        return false;
    }
    CapsPtr capsConvert(rawCaps("RGBA", video.width, video.height));
    if (!capsConvert) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Failed to create capsConvert.");
        return false;
    }
    CapsPtr capsEncoder(rawCaps("YUY2", video.width, video.height));
    if (!capsEncoder) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Failed to create capsEncoder.");
        return false;
    }
    setFramerate(capsEncoder.get(), video);

    struct Link {
        GstElement* from;
        GstElement* to;
        GstCaps* caps;
        const char* failure;
    };
    const Link links[] = {
        {source_, videocrop_, capsCrop.get(), "Error linking source to videocrop."},
        {videocrop_, videoscale_, capsScale.get(), "Error linking videocrop to videoscale."},
        {videoscale_, videoconvert_, capsConvert.get(),
         "Error linking videoscale to videoconvert."},
        {videoconvert_, encoder_, capsEncoder.get(), "Error linking videoconvert to encoder."},
    };
    for (const Link& link : links) {
        if (!gst_element_link_filtered(link.from, link.to, link.caps)) {
            ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "%s", link.failure);
            return false;
        }
    }
    containerPad_ = gst_element_request_pad_simple(container_, "sink_%u");
    GstPad* encoderPad = gst_element_get_static_pad(encoder_, "src");
    bool linked = containerPad_ != nullptr && encoderPad != nullptr &&
                  gst_pad_link(encoderPad, containerPad_) == GST_PAD_LINK_OK;
    if (encoderPad != nullptr) {
        gst_object_unref(encoderPad);
    }
    if (!linked) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Error linking encoder to container.");
        return false;
    }
    if (!gst_element_link(container_, sink_)) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Error linking container to queue.");
        return false;
    }
    return true;
}

void VideoWorker::cleanupVideoPipeline() {
    if (pipeline_ != nullptr) {
        gst_element_set_state(pipeline_, GST_STATE_NULL);
    }
    if (containerPad_ != nullptr) {
        gst_element_release_request_pad(container_, containerPad_);
        gst_object_unref(containerPad_);
        containerPad_ = nullptr;
    }
    if (bus_ != nullptr) {
        gst_bus_set_sync_handler(bus_, nullptr, nullptr, nullptr);
        gst_object_unref(bus_);
        bus_ = nullptr;
    }
    if (pipeline_ != nullptr) {
        gst_object_unref(pipeline_);
        pipeline_ = nullptr;
    }
    if (taskPool_ != nullptr) {
        gst_task_pool_cleanup(taskPool_);  // waits for the streaming threads
        gst_object_unref(taskPool_);
        taskPool_ = nullptr;
    }
    source_ = videocrop_ = videoscale_ = videoconvert_ = encoder_ = container_ = sink_ = nullptr;
    // GLib keeps idle pool threads for a while; a stopped stream leaves none.
    g_thread_pool_stop_unused_threads();
    VideoUtils::showCursor(false);
}

void VideoWorker::pushBufferHandler() {
    gsize size = static_cast<gsize>(sourceWidth_) * sourceHeight_ * 4;
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, size, nullptr);
    if (buffer == nullptr) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "No memory for a frame of %u bytes.",
                static_cast<unsigned>(size));
        return;
    }
    GstMapInfo map;
    int filled = -1;
    if (gst_buffer_map(buffer, &map, GST_MAP_WRITE)) {
        filled = VideoUtils::fillVideoFrameBuffer(map.data, static_cast<uint32_t>(size));
        gst_buffer_unmap(buffer, &map);
    }
    if (filled < 0 || static_cast<gsize>(filled) != size) {
        // No frame this time; the next frame time tries again.
        gst_buffer_unref(buffer);
        return;
    }
    GstFlowReturn result = gst_app_src_push_buffer(GST_APP_SRC(source_), buffer);
    if (result != GST_FLOW_OK) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError,
                "Received (%d) response when pushing buffer into appsrc.", result);
    }
}

void VideoWorker::NeedData(GstElement*, guint, gpointer self) {
    static_cast<VideoWorker*>(self)->needDataHandler();
}

void VideoWorker::EnoughData(GstElement*, gpointer self) {
    static_cast<VideoWorker*>(self)->enoughDataHandler();
}

GstBusSyncReply VideoWorker::BusCallback(GstBus*, GstMessage* message, gpointer self) {
    return static_cast<VideoWorker*>(self)->busCallbackHandler(message);
}

void VideoWorker::needDataHandler() {
    LockMutex lock(mutex_);
    wantData_ = true;
    semaphore_.reset();
}

void VideoWorker::enoughDataHandler() {
    LockMutex lock(mutex_);
    wantData_ = false;
    semaphore_.reset();
}

GstBusSyncReply VideoWorker::busCallbackHandler(GstMessage* message) {
    switch (GST_MESSAGE_TYPE(message)) {
        case GST_MESSAGE_ERROR: {
            GError* error = nullptr;
            gst_message_parse_error(message, &error, nullptr);
            ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "GStreamer Bus Error: %s",
                    error != nullptr ? error->message : "");
            g_clear_error(&error);
            LockMutex lock(mutex_);
            failed_ = true;
            semaphore_.reset();
            break;
        }
        case GST_MESSAGE_EOS: {
            ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo, "GStreamer Message: GST_MESSAGE_EOS");
            LockMutex lock(mutex_);
            endOfStream_ = true;
            semaphore_.reset();
            break;
        }
        case GST_MESSAGE_STREAM_STATUS: {
            // Streaming threads run in our pool, so that taking the pipeline down joins them.
            GstStreamStatusType type;
            GstElement* owner = nullptr;
            gst_message_parse_stream_status(message, &type, &owner);
            const GValue* object = gst_message_get_stream_status_object(message);
            if (type == GST_STREAM_STATUS_TYPE_CREATE && object != nullptr &&
                G_VALUE_TYPE(object) == GST_TYPE_TASK && taskPool_ != nullptr) {
                gst_task_set_pool(GST_TASK(g_value_get_object(object)), taskPool_);
            }
            break;
        }
        default:
            break;
    }
    // Nobody pops the bus: whatever was posted would pile up there. A sync handler
    // that drops a message owns it, and each message holds its element.
    gst_message_unref(message);
    return GST_BUS_DROP;
}

}  // namespace Sv
}  // namespace Zel
