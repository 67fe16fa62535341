// StateControl's decisions without a cloud, a thread or a clock: which call
// comes next, when it is due, and what a finished exchange changes.
#include "Core/Base/StateDecisions.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Core/Base/CoreConfig.h"
#include "Core/Base/PersistentValues.h"
#include "Core/Platform/FileUtil.h"
#include "Core/Platform/TimeManager.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

using namespace Zel::Core;

namespace {

constexpr time_t kNow = 1700000000;

// The delay rule with no randomness: varied delays add exactly 1 ms.
void exactDelay(const timespec& base, timespec& out, unsigned fixed, unsigned varied) {
    ApplyDelayRule(base, out, fixed, varied, 0);
}

long long millisAfterNow(const timespec& t) {
    return (static_cast<long long>(t.tv_sec) - kNow) * 1000 + t.tv_nsec / 1000000;
}

class StateDecisionsTest : public ::testing::Test {
protected:
    // Fresh values over an empty directory; `backup` becomes the token file.
    std::unique_ptr<PersistentValues> make(const std::string& token, const std::string& backup) {
        dir_ = std::make_unique<ZelTest::TempDir>();
        config_ = std::make_unique<CoreConfig>(
            ("{\"core\": {\"persistentPath\": \"" + dir_->path() + "\"}}").c_str());
        if (!backup.empty()) {
            FileUtil::Store(config_->getPersistentPath(), "coreToken", backup);
        }
        auto values = std::make_unique<PersistentValues>(nullptr, config_.get(), nullptr);
        if (!token.empty()) {
            values->setGidToken(token);
        }
        values->setDaPollDelayFixedMs(3000);
        values->setDaPollDelayVariedMs(0);
        values->setDaRetryDelayFixedMs(500);
        values->setDaRetryDelayVariedMs(0);
        values->setDaStartupDelayFixedMs(100);
        values->setDaStartupDelayVariedMs(1);
        return values;
    }

    std::unique_ptr<ZelTest::TempDir> dir_;
    std::unique_ptr<CoreConfig> config_;
};

}  // namespace

TEST_F(StateDecisionsTest, NextCallAndWhenItIsDue) {
    const struct {
        const char* name;
        bool synchronized;
        ConsentState consent;
        const char* token;
        const char* backup;
        unsigned badSynchs;
        bool retry;
        bool startup;
        long long lastCallMs;  // relative to now
        MicroService call;
        long long nextCallMs;  // relative to now
        unsigned badSynchsAfter;
        const char* tokenAfter;
        const char* logged;
    } rows[] = {
        {"fresh device asks for an identity at once", false, ConsentStateNotAvailable, "", "", 2,
         false, false, -1000, GetDeviceIdentity, 0, 0, "", nullptr},
        {"lost token comes back from the backup", false, ConsentStateNotAvailable, "", "backup", 0,
         false, false, -1000, SynchronizeCoreState, 0, 0, "backup", "Token Recovery Activated"},
        {"third unsynchronised answer: still at once", false, ConsentStateNotAvailable, "t", "", 2,
         false, false, -1000, SynchronizeCoreState, 0, 2, "t", nullptr},
        {"fourth: the retry delay from the last call", false, ConsentStateNotAvailable, "t", "", 3,
         false, false, -1000, SynchronizeCoreState, -500, 0, "t",
         "Too many SynchronizeCoreState calls in a row, delaying"},
        {"synchronised: the poll delay from the last call", true, ConsentStateRequired, "t", "", 2,
         false, false, -1000, CheckForNotification, 2000, 0, "t", nullptr},
        {"completed consent forces a synchronisation", true, ConsentStateCompleted, "t", "", 0,
         false, false, -1000, SynchronizeCoreState, 0, 0, "t", nullptr},
        {"a failure's retry delay wins", true, ConsentStateNotAvailable, "t", "", 0, true, false,
         -1000, CheckForNotification, -500, 0, "t", nullptr},
        {"start with the poll delay still running keeps it", true, ConsentStateNotAvailable, "t",
         "", 0, false, true, -2000, CheckForNotification, 1000, 0, "t",
         "Using standard delay on core startup"},
        {"start with the poll delay ending within this second keeps it", true,
         ConsentStateNotAvailable, "t", "", 0, false, true, -3000, CheckForNotification, 0, 0, "t",
         "Using standard delay on core startup"},
        {"start after the poll delay ran out: the startup delay from now", true,
         ConsentStateNotAvailable, "t", "", 0, false, true, -4000, CheckForNotification, 101, 0,
         "t", "Using startup delay on core startup"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        auto persistent = make(row.token, row.backup);
        persistent->setSynchronized(row.synchronized);
        persistent->setDaConsentState(row.consent);
        VolatileValues values;
        values.nextDws = row.call == GetDeviceIdentity ? CheckForNotification : GetDeviceIdentity;
        values.badSynchs = row.badSynchs;
        values.retry = row.retry;
        values.startupDelay = row.startup;
        values.lastCall = {kNow + row.lastCallMs / 1000, (row.lastCallMs % 1000) * 1000000};
        timespec now{kNow, 0};
        ZelTest::LogCapture capture;

        EXPECT_TRUE(StateDecisions::ChooseNextCall(values, *persistent));
        StateDecisions::Schedule(values, *persistent, now, exactDelay);

        EXPECT_EQ(row.call, values.nextDws);
        EXPECT_EQ(row.nextCallMs, millisAfterNow(values.nextCall));
        EXPECT_EQ(row.badSynchsAfter, values.badSynchs);
        EXPECT_FALSE(values.retry);
        EXPECT_FALSE(values.startupDelay);
        EXPECT_EQ(row.tokenAfter, persistent->getGidToken());
        if (row.logged != nullptr) {
            EXPECT_EQ(1u, capture.count(row.logged));
        }
        // Choosing again changes nothing and needs no wake-up.
        EXPECT_FALSE(StateDecisions::ChooseNextCall(values, *persistent));
    }
}

TEST_F(StateDecisionsTest, WhatAFinishedExchangeChanges) {
    const struct {
        const char* name;
        long status;
        bool bodyUsable;
        bool pending;
        bool bodyRead;
        bool retry;
        const char* token;
        uint32_t seqNum;
        bool synchronized;
    } rows[] = {
        {"usable answer", 200, true, false, true, false, "t", 7, true},
        {"answer that cannot be used", 204, false, false, true, true, "t", 7, true},
        {"no answer at all", 0, true, false, false, true, "t", 7, true},
        {"redirect", 302, true, false, false, true, "t", 7, true},
        {"server error", 503, true, false, false, true, "t", 7, true},
        {"credentials refused", 422, true, false, false, true, "", 0, false},
        {"precondition required", 428, true, false, false, true, "t", 7, false},
        {"a setting changed meanwhile", 200, true, true, true, false, "t", 7, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        auto persistent = make("t", "");
        persistent->setSynchronized(true);
        persistent->setOpidSeqNum(7);
        persistent->setGidSeqNum(7);
        VolatileValues values;
        values.busy = true;
        values.pending = row.pending;
        bool read = false;
        StateDecisions::ApplyExchange(
            row.status,
            [&] {
                read = true;
                return row.bodyUsable;
            },
            values, *persistent);
        EXPECT_EQ(row.bodyRead, read);
        EXPECT_FALSE(values.busy);
        EXPECT_TRUE(values.evaluate);
        EXPECT_FALSE(values.pending);
        EXPECT_EQ(row.retry, values.retry);
        EXPECT_EQ(row.token, persistent->getGidToken());
        EXPECT_EQ(row.seqNum, persistent->getOpidSeqNum());
        EXPECT_EQ(row.seqNum, persistent->getGidSeqNum());
        EXPECT_EQ(row.synchronized, persistent->getSynchronized());
    }
}

TEST_F(StateDecisionsTest, RefusedCredentialsFetchANewIdentityAfterTheRetryDelay) {
    // 422 retires the token and its backup: no recovery, a new identity, but
    // only once the retry delay from the refused call has passed.
    auto persistent = make("t", "");
    persistent->setSynchronized(true);
    VolatileValues values;
    values.nextDws = CheckForNotification;
    values.lastCall = {kNow, 0};
    StateDecisions::ApplyExchange(
        422, [] { return true; }, values, *persistent);
    EXPECT_TRUE(StateDecisions::ChooseNextCall(values, *persistent));
    StateDecisions::Schedule(values, *persistent, {kNow + 0, 200000000}, exactDelay);
    EXPECT_EQ(GetDeviceIdentity, values.nextDws);
    EXPECT_EQ(500, millisAfterNow(values.nextCall));
    EXPECT_EQ("", persistent->getBackupToken());
}
