// The media relay and its viewers over real sockets: uploads as the agent's
// stream sink sends them (one chunked multipart body), the frames viewers get
// from the control interface, and the uploads the relay refuses.
#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/Pki.h"
#include "support/TempDir.h"
#include "tools/cloud/Cloud.h"
#include "tools/cloud/MultipartParser.h"
#include "tools/cloud/StreamRegistry.h"

namespace {

using std::chrono::milliseconds;
using ZelCloud::StreamRegistry;

const milliseconds kWait(10000);
constexpr const char* kMultipart = "multipart/x-mixed-replace; boundary=zelframe";

std::string Framed(const std::string& frame, const std::string& type = "image/jpeg") {
    return "--zelframe\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(frame.size()) + "\r\n\r\n" + frame + "\r\n";
}

std::string Target(const std::string& name, const std::string& query = "producerid=7") {
    return "/streams/" + name + "?" + query + "&action=publish&timeout=10&secure=0";
}

// One chunked upload on a thread of its own; the test hands it its bytes.
class Upload {
public:
    Upload(int port, const std::string& target, const std::string& contentType = kMultipart) {
        thread_ = std::thread([this, port, target, contentType] {
            httplib::Client client("127.0.0.1", port);
            client.set_read_timeout(20);
            auto provide = [this](size_t, httplib::DataSink& sink) {
                std::unique_lock<std::mutex> lock(mutex_);
                changed_.wait(lock, [this] { return !queue_.empty() || ended_; });
                if (queue_.empty()) {
                    sink.done();
                    return true;
                }
                std::string bytes = std::move(queue_.front());
                queue_.pop_front();
                lock.unlock();
                return sink.write(bytes.data(), bytes.size());
            };
            httplib::Result result = client.Post(target, {}, provide, contentType);
            std::lock_guard<std::mutex> lock(mutex_);
            status_ = result ? result->status : 0;
            finished_ = true;
            changed_.notify_all();
        });
    }
    ~Upload() {
        end();
        thread_.join();
    }
    void send(const std::string& bytes) {
        std::lock_guard<std::mutex> lock(mutex_);
        queue_.push_back(bytes);
        changed_.notify_all();
    }
    void end() {
        std::lock_guard<std::mutex> lock(mutex_);
        ended_ = true;
        changed_.notify_all();
    }
    // The answer's status once the upload is over; 0 without an answer, -1 when it goes on.
    int status() {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, kWait, [this] { return finished_; }) ? status_ : -1;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::string> queue_;
    bool ended_ = false;
    bool finished_ = false;
    int status_ = 0;
    std::thread thread_;
};

class RelayTest : public ::testing::Test {
protected:
    void SetUp() override {
        ZelCloud::CloudOptions options;
        options.quiet = true;
        options.pkiDir = ZelTest::Pki::Get().dir();
        options.controlPort = 0;
        options.relayPort = 0;
        cloud_ = std::make_unique<ZelCloud::Cloud>(options);
        ASSERT_TRUE(cloud_->start()) << cloud_->error();
        ASSERT_GT(cloud_->relayPort(), 0);
    }

    httplib::Result get(const std::string& path) {
        httplib::Client client("127.0.0.1", cloud_->controlPort());
        client.set_read_timeout(20);
        return client.Get(path.c_str());
    }

    std::future<httplib::Result> getLater(const std::string& path) {
        return std::async(std::launch::async, [this, path] { return get(path); });
    }

    // The record of the upload to the stream once it has ended; null until then.
    Json::Value record(const std::string& name) {
        bool ended = cloud_->waitFor(
            [&](const std::vector<ZelCloud::RecordedRequest>& requests) {
                for (const auto& request : requests) {
                    if (request.path == "/relay/streams/" + name) {
                        return true;
                    }
                }
                return false;
            },
            kWait);
        if (!ended) {
            return Json::Value();
        }
        for (const auto& request : cloud_->requests()) {
            if (request.path == "/relay/streams/" + name) {
                return request.toJson();
            }
        }
        return Json::Value();
    }

    bool waitForStream(const std::string& name, uint64_t frames, bool connected,
                       int64_t producer = 7) {
        return cloud_->waitForStreams(
            [&](const Json::Value& streams) {
                for (const Json::Value& stream : streams) {
                    if (stream["name"].asString() == name &&
                        stream["frames"].asUInt64() == frames &&
                        stream["connected"].asBool() == connected &&
                        stream["producerid"].asInt64() == producer) {
                        return true;
                    }
                }
                return false;
            },
            kWait);
    }

    std::unique_ptr<ZelCloud::Cloud> cloud_;
};

TEST_F(RelayTest, ViewersGetTheLatestFrameAndWaitForTheNext) {
    auto none = get("/control/streams/tv-1/frame.jpg");
    ASSERT_TRUE(none);
    EXPECT_EQ(404, none->status);

    Upload upload(cloud_->relayPort(), Target("tv-1", "producerid=7&maxbytes=100000"));
    auto first = getLater("/control/streams/tv-1/frame.jpg?after=0&waitMs=10000");
    upload.send(Framed("frame-1"));
    auto waited = first.get();
    ASSERT_TRUE(waited);
    EXPECT_EQ(200, waited->status);
    EXPECT_EQ("frame-1", waited->body);
    EXPECT_EQ("1", waited->get_header_value("X-Frame-Seq"));
    EXPECT_EQ("image/jpeg", waited->get_header_value("Content-Type"));

    auto latest = get("/control/streams/tv-1/frame.jpg");
    ASSERT_TRUE(latest);
    EXPECT_EQ("frame-1", latest->body);
    EXPECT_EQ("1", latest->get_header_value("X-Frame-Seq"));

    // The next frame arrives in two pieces, cut inside its header.
    auto second = getLater("/control/streams/tv-1/frame.jpg?after=1&waitMs=10000");
    std::string part = Framed("frame-2");
    upload.send(part.substr(0, 20));
    upload.send(part.substr(20));
    auto next = second.get();
    ASSERT_TRUE(next);
    EXPECT_EQ("frame-2", next->body);
    EXPECT_EQ("2", next->get_header_value("X-Frame-Seq"));

    // Nothing newer: a short wait ends without a frame.
    auto nothing = get("/control/streams/tv-1/frame.jpg?after=2&waitMs=50");
    ASSERT_TRUE(nothing);
    EXPECT_EQ(204, nothing->status);
    EXPECT_EQ("2", nothing->get_header_value("X-Frame-Seq"));

    auto list = get("/control/streams");
    ASSERT_TRUE(list);
    Json::Value streams = ZelTest::ParseJson(list->body);
    ASSERT_EQ(1u, streams.size());
    EXPECT_EQ("tv-1", streams[0]["name"].asString());
    EXPECT_EQ(7, streams[0]["producerid"].asInt());
    EXPECT_EQ(2u, streams[0]["frames"].asUInt());
    EXPECT_EQ(14u, streams[0]["bytes"].asUInt());
    EXPECT_TRUE(streams[0]["connected"].asBool());
    EXPECT_TRUE(streams[0]["lastFrameAgeMs"].isInt64());

    upload.end();
    EXPECT_EQ(200, upload.status());
    Json::Value recorded = record("tv-1");
    EXPECT_EQ(200, recorded["status"].asInt());
    EXPECT_TRUE(waitForStream("tv-1", 2, false));
    // The last frame outlives its upload.
    auto kept = get("/control/streams/tv-1/frame.jpg");
    ASSERT_TRUE(kept);
    EXPECT_EQ("frame-2", kept->body);
}

TEST_F(RelayTest, BadViewerRequestsAreRefused) {
    const struct {
        const char* path;
        int status;
    } rows[] = {
        {"/control/streams/tv/frame.jpg?after=x&waitMs=10", 400},
        {"/control/streams/tv/frame.jpg?after=1&waitMs=-5", 400},
        {"/control/streams/tv/frame.jpg?after=99999999999999999999&waitMs=1", 400},
        {"/control/streams/bad%20name/frame.jpg", 404},
        {"/control/streams/tv/frame.jpg", 404},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        auto answer = get(row.path);
        ASSERT_TRUE(answer);
        EXPECT_EQ(row.status, answer->status);
    }
}

TEST_F(RelayTest, ALiveViewerGetsEveryNewFrame) {
    Upload upload(cloud_->relayPort(), Target("tv-2"));
    upload.send(Framed("one"));
    ASSERT_TRUE(waitForStream("tv-2", 1, true));

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> frames;
    std::string contentType;
    auto viewer = std::async(std::launch::async, [&] {
        ZelCloud::MultipartParser parser("zelframe", 1 << 20, 1024,
                                         [&](ZelCloud::MultipartParser::BodyPart&& part) {
                                             std::lock_guard<std::mutex> lock(mutex);
                                             frames.push_back(part.body);
                                             changed.notify_all();
                                         });
        httplib::Client client("127.0.0.1", cloud_->controlPort());
        client.set_read_timeout(20);
        return client.Get(
            "/control/streams/tv-2",
            [&](const httplib::Response& response) {
                contentType = response.get_header_value("Content-Type");
                return true;
            },
            [&](const char* data, size_t size) {
                EXPECT_TRUE(parser.feed(data, size));
                std::lock_guard<std::mutex> lock(mutex);
                return frames.size() < 3;
            });
    });
    auto seen = [&](size_t count) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, kWait, [&] { return frames.size() >= count; });
    };
    // A viewer starts with the latest frame, then gets each new one.
    ASSERT_TRUE(seen(1));
    upload.send(Framed("two"));
    ASSERT_TRUE(seen(2));
    upload.send(Framed("three"));
    ASSERT_TRUE(seen(3));
    ASSERT_EQ(std::future_status::ready, viewer.wait_for(kWait));
    EXPECT_EQ((std::vector<std::string>{"one", "two", "three"}), frames);
    EXPECT_EQ(kMultipart, contentType);
}

TEST_F(RelayTest, RefusedUploadsLeaveTheRelayServing) {
    const struct {
        const char* name;
        std::string query;
        std::string contentType;
        std::string body;
        int status;
    } rows[] = {
        {"another-action", "producerid=1&action=play", kMultipart, Framed("x"), 400},
        {"bad-producer", "producerid=x7", kMultipart, Framed("x"), 400},
        {"negative-maxbytes", "producerid=1&maxbytes=-1", kMultipart, Framed("x"), 400},
        {"not-multipart", "producerid=1", "image/jpeg", "x", 415},
        {"no-boundary", "producerid=1", "multipart/x-mixed-replace", Framed("x"), 415},
        {"over-maxbytes", "producerid=1&maxbytes=10", kMultipart, Framed("0123456789A"), 413},
        {"garbage", "producerid=1", kMultipart, "GET / HTTP/1.1\r\n\r\n", 400},
        {"not-jpeg", "producerid=1", kMultipart, Framed("<p>", "text/html"), 415},
        {"endless-header", "producerid=1", kMultipart, "--zelframe\r\nX: " + std::string(2000, 'h'),
         400},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        {
            Upload upload(cloud_->relayPort(),
                          std::string("/streams/") + row.name + "?" + row.query, row.contentType);
            upload.send(row.body);
            upload.end();
            EXPECT_NE(-1, upload.status());
        }
        Json::Value recorded = record(row.name);
        EXPECT_EQ(row.status, recorded["status"].asInt()) << recorded["note"].asString();
        auto frame = get(std::string("/control/streams/") + row.name + "/frame.jpg");
        ASSERT_TRUE(frame);
        EXPECT_EQ(404, frame->status);
    }
    // A name the relay does not take is not a stream.
    {
        Upload upload(cloud_->relayPort(), Target(std::string(65, 'n')));
        upload.send(Framed("x"));
        upload.end();
        EXPECT_EQ(404, upload.status());
    }
    // And the relay still serves.
    Upload upload(cloud_->relayPort(), Target("good"));
    upload.send(Framed("fine"));
    upload.end();
    EXPECT_EQ(200, upload.status());
    auto frame = get("/control/streams/good/frame.jpg");
    ASSERT_TRUE(frame);
    EXPECT_EQ("fine", frame->body);
}

TEST_F(RelayTest, ANewUploadReplacesTheOld) {
    Upload first(cloud_->relayPort(), Target("tv", "producerid=1"));
    first.send(Framed("a1"));
    ASSERT_TRUE(waitForStream("tv", 1, true, 1));
    Upload second(cloud_->relayPort(), Target("tv", "producerid=2"));
    ASSERT_TRUE(waitForStream("tv", 1, true, 2));
    second.send(Framed("b1"));
    ASSERT_TRUE(waitForStream("tv", 2, true, 2));

    // The old upload's next frame ends it; the stream keeps the new one's.
    first.send(Framed("a2"));
    Json::Value recorded = record("tv");
    EXPECT_EQ(409, recorded["status"].asInt()) << recorded["note"].asString();
    auto frame = get("/control/streams/tv/frame.jpg");
    ASSERT_TRUE(frame);
    EXPECT_EQ("b1", frame->body);
    EXPECT_EQ("2", frame->get_header_value("X-Frame-Seq"));
    EXPECT_TRUE(waitForStream("tv", 2, true, 2));
}

TEST_F(RelayTest, StoppingEndsUploadsAndViewers) {
    Upload upload(cloud_->relayPort(), Target("tv-3"));
    upload.send(Framed("one"));
    ASSERT_TRUE(waitForStream("tv-3", 1, true));
    std::promise<void> firstBytes;
    auto viewer = std::async(std::launch::async, [&] {
        httplib::Client client("127.0.0.1", cloud_->controlPort());
        client.set_read_timeout(20);
        bool told = false;
        return client.Get("/control/streams/tv-3", [&](const char*, size_t) {
            if (!told) {
                firstBytes.set_value();
                told = true;
            }
            return true;
        });
    });
    ASSERT_EQ(std::future_status::ready, firstBytes.get_future().wait_for(kWait));
    auto waiting = getLater("/control/streams/tv-3/frame.jpg?after=1&waitMs=10000");

    // Neither the endless upload nor the endless viewer holds up the stop.
    auto stopped = std::async(std::launch::async, [this] { cloud_->stop(); });
    ASSERT_EQ(std::future_status::ready, stopped.wait_for(kWait));
    EXPECT_EQ(std::future_status::ready, viewer.wait_for(kWait));
    ASSERT_EQ(std::future_status::ready, waiting.wait_for(kWait));
    auto answer = waiting.get();
    // Asked before the stop: told the cloud is stopping; after: no answer at all.
    EXPECT_TRUE(!answer || answer->status == 503);
    // The producer learns it when it next sends.
    upload.end();
    EXPECT_NE(-1, upload.status());
    EXPECT_EQ(503, record("tv-3")["status"].asInt());
}

TEST(StreamRegistryTest, KeepsAtMostSixteenStreamsAndEndsWithStop) {
    StreamRegistry streams;
    std::vector<uint64_t> uploads;
    for (size_t i = 0; i < StreamRegistry::kMaxStreams; ++i) {
        uploads.push_back(streams.attach("s" + std::to_string(i), 0));
        ASSERT_NE(0u, uploads.back());
    }
    EXPECT_EQ(0u, streams.attach("one-too-many", 0));
    // The same name is no new stream: it replaces its upload.
    uint64_t again = streams.attach("s0", 0);
    EXPECT_NE(0u, again);
    EXPECT_FALSE(streams.addFrame("s0", uploads[0], "old upload"));
    EXPECT_TRUE(streams.addFrame("s0", again, "new upload"));

    // An idle stream makes room, the one idle the longest.
    streams.detach("s3", uploads[3]);
    streams.detach("s5", uploads[5]);
    EXPECT_NE(0u, streams.attach("newcomer", 0));
    Json::Value list = streams.toJson();
    EXPECT_EQ(StreamRegistry::kMaxStreams, list.size());
    for (const Json::Value& stream : list) {
        EXPECT_NE("s3", stream["name"].asString());
    }

    streams.stop();
    EXPECT_EQ(0u, streams.attach("late", 0));
    EXPECT_FALSE(streams.addFrame("s0", again, "late frame"));
    StreamRegistry::Frame frame;
    EXPECT_EQ(StreamRegistry::Wait::Stopped, streams.waitForFrame("s0", 1, kWait, frame));
}

// A test's condition often asks the cloud again; the wait must not hold the
// registry while it does, and must see a change made meanwhile.
TEST(StreamRegistryTest, AWaitsConditionMayReadTheRegistry) {
    StreamRegistry streams;
    std::thread producer([&] {
        uint64_t upload = streams.attach("tv", 0);
        streams.addFrame("tv", upload, "frame");
    });
    bool seen = streams.waitFor(
        [&](const Json::Value&) {
            StreamRegistry::Frame frame;
            return streams.toJson().size() == 1 && streams.latest("tv", frame);
        },
        kWait);
    producer.join();
    EXPECT_TRUE(seen);
    EXPECT_FALSE(streams.waitFor([](const Json::Value& list) { return list.empty(); },
                                 std::chrono::milliseconds(20)));
}

TEST(StreamRegistryTest, NamesAreShortAndPlain) {
    for (const char* good : {"a", "tv-1", "FFFFFF0ACC.zel.localhost-18443", "A_b.c-9"}) {
        EXPECT_TRUE(StreamRegistry::ValidName(good)) << good;
    }
    for (const std::string& bad :
         {std::string(), std::string(65, 'a'), std::string("a/b"), std::string("a b"),
          std::string("a%20"), std::string("\xc3\xa9"), std::string("a\0b", 3)}) {
        EXPECT_FALSE(StreamRegistry::ValidName(bad)) << bad;
    }
    EXPECT_TRUE(StreamRegistry::ValidName(std::string(64, 'a')));
}

}  // namespace
