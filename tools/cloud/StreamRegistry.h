#pragma once

#include <json/value.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace ZelCloud {

// The media streams the relay receives, by name: the latest complete frame
// (a JPEG picture) of each, for viewers, and what is known of its upload. Frames are numbered per
// name from 1 on, across uploads, so that a viewer can wait for "the frame
// after the one I have" whoever sends it.
class StreamRegistry {
public:
    static constexpr size_t kMaxStreams = 16;
    static constexpr size_t kMaxNameLength = 64;

    struct Frame {
        uint64_t seq = 0;
        std::shared_ptr<const std::string> bytes;
    };
    enum class Wait { Frame, Timeout, Stopped };
    using Predicate = std::function<bool(const Json::Value& streams)>;

    // [A-Za-z0-9_.-]{1,64}
    static bool ValidName(const std::string& name);

    // An upload for the name begins and replaces any earlier one, whose frames
    // are refused from now on. Returns its handle, or 0 for a name that is not
    // valid, when every one of kMaxStreams names has an upload connected, or
    // once the registry has stopped.
    uint64_t attach(const std::string& name, int64_t producerId);
    // A complete frame of the upload; false when the upload has been replaced
    // or the registry has stopped (the upload should end).
    bool addFrame(const std::string& name, uint64_t upload, std::string bytes);
    // The upload has ended.
    void detach(const std::string& name, uint64_t upload);

    // The latest frame; false when the stream has none.
    bool latest(const std::string& name, Frame& frame) const;
    // Waits for a frame numbered above `after` (for a stream that may not
    // exist yet), at most `timeout`; Stopped at once when the registry stops.
    Wait waitForFrame(const std::string& name, uint64_t after, std::chrono::milliseconds timeout,
                      Frame& frame) const;

    // [{"name", "producerid", "frames", "bytes", "connected", "lastFrameAgeMs"}],
    // "lastFrameAgeMs" null before the first frame.
    Json::Value toJson() const;
    // Waits until the predicate holds for toJson(); checked on every change,
    // locked, so it must not call back into the registry.
    bool waitFor(const Predicate& predicate, std::chrono::milliseconds timeout) const;

    // Wakes every waiter and refuses uploads and frames from now on.
    void stop();
    bool stopped() const;

private:
    using Clock = std::chrono::steady_clock;
    struct Stream {
        int64_t producerId = 0;
        uint64_t upload = 0;  // the connected upload's handle, 0 when none
        uint64_t bytes = 0;   // of every frame received
        Frame latest;
        Clock::time_point lastActivity;
        Clock::time_point lastFrame;
    };

    Json::Value toJsonLocked() const;
    // Makes room for one more name; false when every stream is connected.
    bool evictLocked();

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::map<std::string, Stream> streams_;
    uint64_t uploads_ = 0;
    bool stopped_ = false;
};

}  // namespace ZelCloud
