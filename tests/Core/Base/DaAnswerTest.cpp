// The "da" answer rules and the timer file, without a cloud or a thread.
#include "Core/Base/DaAnswer.h"

#include <gtest/gtest.h>

#include <vector>

#include "Core/Base/DaTimer.h"
#include "Core/Base/PersistentValues.h"

using namespace Zel::Core;

TEST(DaAnswerTest, AnswersChangeOnlyWhatTheyMayAndRefuseWhatTheyCannotUse) {
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    const struct {
        const char* name;
        MicroService service;
        std::string body;
        bool usable;
        std::string token;   // gid token afterwards (it starts as "old")
        bool synchronized;   // flag afterwards (it starts set)
        uint32_t pollDelay;  // daPollDelayFixedMs afterwards (default 3150000)
        unsigned badSynchs;  // after starting at 2
        size_t events;
    } rows[] = {
        {"identity", GetDeviceIdentity, R"({"daGidToken": "new"})", true, "new", true, 3150000, 2,
         0},
        {"identity without token", GetDeviceIdentity, "{}", false, "old", true, 3150000, 2, 0},
        {"identity with empty token", GetDeviceIdentity, R"({"daGidToken": ""})", false, "old",
         true, 3150000, 2, 0},
        {"not an object", SynchronizeCoreState, "[]", false, "old", true, 3150000, 2, 0},
        {"nested too deep", CheckForNotification, deep, false, "old", true, 3150000, 2, 0},
        {"notification keeps the flag", CheckForNotification, R"({"daStateSynchronized": true})",
         true, "old", true, 3150000, 2, 0},
        {"notification takes the flag", CheckForNotification, R"({"daStateSynchronized": false})",
         true, "old", false, 3150000, 2, 0},
        {"synchronised", SynchronizeCoreState,
         R"({"daSynchronized": true, "daPollDelayFixedMs": 200})", true, "old", true, 200, 0, 0},
        {"unsynchronised counts", SynchronizeCoreState, R"({"daSynchronized": false})", true, "old",
         false, 3150000, 3, 0},
        {"missing flag counts as unsynchronised", SynchronizeCoreState, "{}", true, "old", false,
         3150000, 3, 0},
        {"out-of-range delays keep the old ones", SynchronizeCoreState,
         R"({"daSynchronized": true, "daPollDelayFixedMs": 4294967296,
             "daRetryDelayFixedMs": -5, "daStartupDelayFixedMs": 1e300,
             "daOpidSeqNum": 18446744073709551615})",
         true, "old", true, 3150000, 0, 0},
        {"odd events are skipped, ids out of range become 0", SynchronizeCoreState,
         R"({"daSynchronized": true, "daEvents": [5, {"id": 1}, {"event": 7},
             {"event": "a", "id": -1}, {"event": "b", "id": 1e30, "parameters": {"x": [1]}}]})",
         true, "old", true, 3150000, 0, 2},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        PersistentValues persistent(nullptr, nullptr, nullptr);
        persistent.setGidToken("old");
        persistent.setSynchronized(true);
        unsigned badSynchs = 2;
        std::vector<Event> events;
        EXPECT_EQ(row.usable,
                  DaAnswer::Apply(row.service, row.body, persistent, badSynchs, events));
        EXPECT_EQ(row.token, persistent.getGidToken());
        EXPECT_EQ(row.synchronized, persistent.getSynchronized());
        EXPECT_EQ(row.pollDelay, persistent.getDaPollDelayFixedMs());
        EXPECT_EQ(15000u, persistent.getDaRetryDelayFixedMs());
        EXPECT_EQ(0u, persistent.getDaStartupDelayFixedMs());
        EXPECT_EQ(0u, persistent.getOpidSeqNum());
        EXPECT_EQ(row.badSynchs, badSynchs);
        EXPECT_EQ(row.events, events.size());
    }
}

TEST(DaAnswerTest, EventsKeepOrderTextAndAreCapped) {
    PersistentValues persistent(nullptr, nullptr, nullptr);
    unsigned badSynchs = 0;
    std::vector<Event> events;
    std::string body = R"({"daSynchronized": true, "daEvents": [
        {"event": "startsvsession", "id": 4, "parameters": "as text"},
        {"event": "softwareupdate", "id": 5, "parameters": {"token": "t"}})";
    for (size_t i = 0; i < DaAnswer::kMaxEvents; ++i) {
        body += R"(, {"event": "more"})";
    }
    body += "]}";
    ASSERT_TRUE(DaAnswer::Apply(SynchronizeCoreState, body, persistent, badSynchs, events));
    ASSERT_EQ(DaAnswer::kMaxEvents, events.size());
    EXPECT_EQ("startsvsession", events[0].name);
    EXPECT_EQ(4u, events[0].id);
    EXPECT_EQ("as text", events[0].parameters);
    EXPECT_EQ("softwareupdate", events[1].name);
    EXPECT_EQ(R"({"token":"t"})", events[1].parameters);
}

TEST(DaTimerTest, OnlyATimeThatMakesAValidDeadlineIsRead) {
    const struct {
        const char* text;
        bool usable;
    } rows[] = {
        {R"({"sec": 1700000000, "nsec": 999999999})", true},
        {R"({"sec": 0, "nsec": 0})", true},
        {R"({"sec": 1, "nsec": 1000000000})", false},
        {R"({"sec": 1, "nsec": -1})", false},
        {R"({"sec": -1, "nsec": 5})", false},
        {R"({"sec": -9223372036854775808, "nsec": 0})", false},
        {R"({"sec": 18446744073709551615, "nsec": 0})", false},
        {R"({"sec": 1e30, "nsec": 5})", false},
        {R"({"sec": "1", "nsec": 5})", false},
        {R"({"sec": 1})", false},
        {"[1, 2]", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        timespec lastCall{7, 7};
        EXPECT_EQ(row.usable, DaTimer::Parse(row.text, lastCall));
        if (!row.usable) {
            EXPECT_EQ(7, lastCall.tv_sec);
        }
    }
    timespec read{};
    ASSERT_TRUE(DaTimer::Parse(DaTimer::Format({1700000000, 123}), read));
    EXPECT_EQ(1700000000, read.tv_sec);
    EXPECT_EQ(123, read.tv_nsec);
}

TEST(DaAnswerTest, KeysSpelledUnlikeTheirFieldsAndTheConsentMapping) {
    const struct {
        const char* name;
        std::string body;
        const char* downloadUrl;
        const char* uploadUrl;
        ConsentState consent;
    } rows[] = {
        {"the cloud spells them URL",
         R"({"svSpeedTestDownloadURL": "d", "svSpeedTestUploadURL": "u"})", "d", "u",
         ConsentStateNotAvailable},
        {"the file's spelling is not the cloud's",
         R"({"svSpeedTestDownloadUrl": "d", "svSpeedTestUploadUrl": "u"})", "", "",
         ConsentStateNotAvailable},
        {"consent required", R"({"daConsentState": "ConsentRequired"})", "", "",
         ConsentStateRequired},
        {"any other consent text", R"({"daConsentState": "ConsentStarted"})", "", "",
         ConsentStateNotRequired},
        {"consent that is no text", R"({"daConsentState": 2})", "", "", ConsentStateNotAvailable},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        PersistentValues persistent(nullptr, nullptr, nullptr);
        unsigned badSynchs = 0;
        std::vector<Event> events;
        ASSERT_TRUE(DaAnswer::Apply(SynchronizeCoreState, row.body, persistent, badSynchs, events));
        EXPECT_EQ(row.downloadUrl, persistent.getSvSpeedTestDownloadUrl());
        EXPECT_EQ(row.uploadUrl, persistent.getSvSpeedTestUploadUrl());
        EXPECT_EQ(row.consent, persistent.getDaConsentState());
    }
}
