#pragma once

#include <gst/gst.h>

#include "Core/Platform/Mutex.h"
#include "Core/Platform/Thread.h"
#include "Core/Platform/TimedSem.h"
#include "SupportView/Platform/Video.h"

namespace Zel {
namespace Sv {

// One stream: the "VideoWorker" thread builds the pipeline, pushes a frame
// whenever appsrc wants data and the frame time has come, and takes the
// pipeline down when the stream is stopped or fails. GStreamer's threads
// only set flags and wake it.
class VideoWorker {
public:
    explicit VideoWorker(const Video::StreamSettings& settings);
    ~VideoWorker();  // stops and joins
    VideoWorker(const VideoWorker&) = delete;
    VideoWorker& operator=(const VideoWorker&) = delete;

    bool start();
    // Disables the stream, wakes the worker and joins it.
    void stop();
    // Pushes the next frame at once.
    void sendFrameNow();
    // False once the worker has ended by itself (a pipeline error).
    bool running();

private:
    static void* Run(void* self);
    void loop();
    bool configureVideoPipeline();
    bool createElements();
    bool linkElements();
    void setProperties();
    void cleanupVideoPipeline();
    void pushBufferHandler();
    void finishStream();

    static void NeedData(GstElement* source, guint length, gpointer self);
    static void EnoughData(GstElement* source, gpointer self);
    static GstBusSyncReply BusCallback(GstBus* bus, GstMessage* message, gpointer self);
    void needDataHandler();
    void enoughDataHandler();
    GstBusSyncReply busCallbackHandler(GstMessage* message);

    Video::StreamSettings settings_;
    unsigned sourceWidth_ = 0;
    unsigned sourceHeight_ = 0;
    unsigned visibleWidth_ = 0;
    unsigned visibleHeight_ = 0;

    GstElement* pipeline_ = nullptr;
    GstElement* source_ = nullptr;
    GstElement* videocrop_ = nullptr;
    GstElement* videoscale_ = nullptr;
    GstElement* videoconvert_ = nullptr;
    GstElement* encoder_ = nullptr;
    GstElement* container_ = nullptr;
    GstElement* sink_ = nullptr;
    GstPad* containerPad_ = nullptr;
    GstBus* bus_ = nullptr;
    // The pipeline's streaming threads come from here, so that taking it down
    // can wait for them to finish.
    GstTaskPool* taskPool_ = nullptr;

    // Guards the flags below; the semaphore waits on it.
    Core::Mutex mutex_;
    Core::TimedSem semaphore_;
    bool enabled_ = true;
    bool wantData_ = false;
    bool frameNow_ = false;
    bool endOfStream_ = false;
    bool failed_ = false;
    bool finished_ = false;
    Core::Thread thread_;
};

}  // namespace Sv
}  // namespace Zel
