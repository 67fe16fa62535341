#pragma once

#include <gtest/gtest.h>
#include <json/value.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/Config.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "tools/cloud/Cloud.h"
#include "zel.h"

namespace ZelTest {

// A fault for the next `count` calls whose path ends with `path`.
inline ZelCloud::FaultPlan::Fault Fault(const std::string& path, ZelCloud::FaultPlan::Kind kind,
                                        int status = 0, long delayMs = 0, unsigned count = 1) {
    return {path, kind, status, delayMs, "", count};
}

// One agent and one local cloud on loopback, over real TLS, for tests through
// the C interface. The PKI is made once per test binary for a port chosen
// then; every lab reuses port and PKI with a fresh cloud, persistent
// directory and log.
class AgentLab {
public:
    // Short delays for fast tests; a test merges its own on top.
    static Json::Value FastSettings();
    // Generous upper bound for things that normally take milliseconds.
    static constexpr std::chrono::milliseconds kPatience{20000};

    explicit AgentLab(const Json::Value& settings = FastSettings());
    ~AgentLab();
    AgentLab(const AgentLab&) = delete;
    AgentLab& operator=(const AgentLab&) = delete;

    ZelCloud::Cloud& cloud() { return *cloud_; }
    const std::string& persistentDir() const { return dir_.path(); }
    // The lab's configuration: its directory, its staging file and its log
    // at debug severity.
    ConfigDoc configDoc() const {
        return ConfigDoc()
            .dirs(dir_.path())
            .logTo(log_.path())
            .set("softwareUpdate", "stagingLocation", stagingFile());
    }
    std::string stagingFile() const { return dir_.file("staging.raw"); }
    std::string config() const { return configDoc().text(); }
    const std::string& identity() const;
    const std::string& device() const;
    // Common name of the device certificate: how the cloud knows the device.
    static std::string DeviceCn();

    ZelResult init() { return ZelInit(identity().c_str(), config().c_str(), device().c_str()); }
    // ZelTerm, then waits for Uninitialized.
    bool term();
    bool waitForState(uint32_t state, std::chrono::milliseconds timeout = kPatience);
    uint32_t state() const;
    // Waits until the status's session state is `sessionState`.
    bool waitForSessionState(uint32_t sessionState, std::chrono::milliseconds timeout = kPatience);
    uint32_t sessionState() const;
    // The session code the status shows; "" when it shows none.
    std::string sessionInfo() const;
    bool waitForUpdateState(uint32_t updateState, std::chrono::milliseconds timeout = kPatience);
    // The whole status, its strings copied.
    struct Status {
        uint32_t updateState = 0;
        uint32_t updatePercent = 0;
        uint32_t updatePermission = 0;
        std::string updateVersion;
        std::string updateHash;
        std::string updateStagingFile;
    };
    Status status() const;

    // Waits until `reached` holds, looked at on every change of the agent's status.
    bool waitForStatus(const std::function<bool()>& reached,
                       std::chrono::milliseconds timeout = kPatience);

    bool waitFor(const ZelCloud::RequestLog::Predicate& predicate) {
        return cloud_->waitFor(predicate, kPatience);
    }
    // Waits until the cloud has seen `count` calls of `path` ("da/state") in all.
    bool waitForCalls(const std::string& path, size_t count,
                      std::chrono::milliseconds timeout = kPatience);
    // Paths below "/api/v1/" of every request so far whose path there
    // starts with `prefix` ("da/": the core's calls only), in order.
    std::vector<std::string> paths(const std::string& prefix = "") const;
    std::vector<ZelCloud::RecordedRequest> requests(const std::string& prefix = "") const;
    std::vector<ZelCloud::RecordedRequest> calls(const std::string& path) const;

    // Queues one task, an EXECUTE of the command `name` without inputs, for
    // the active session; false with the cloud's reason when it has none.
    bool queueCommand(const std::string& name, std::string& error);

    const LogFile& log() const { return log_; }
    size_t logCount(const std::string& message) const { return log_.count(message); }
    bool waitForLog(const std::string& message, size_t count = 1,
                    std::chrono::milliseconds timeout = kPatience) const {
        return log_.waitFor(message, count, timeout);
    }

private:
    TempDir dir_;
    LogFile log_;
    std::unique_ptr<ZelCloud::Cloud> cloud_;
};

// End-to-end tests: each has a lab of its own, stopped at the end, after
// which no agent thread may be left.
class LabTest : public testing::Test {
protected:
    // A fresh lab whose agent has not been started.
    AgentLab& lab(const Json::Value& settings = AgentLab::FastSettings());
    // A fresh lab whose agent has synchronised and polled once, so that the
    // cloud's short delays apply.
    AgentLab& started(const Json::Value& settings = AgentLab::FastSettings());
    void TearDown() override;

private:
    std::unique_ptr<AgentLab> lab_;
};

}  // namespace ZelTest
