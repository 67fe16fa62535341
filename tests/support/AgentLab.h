#pragma once

#include <json/value.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/TempDir.h"
#include "tools/cloud/Cloud.h"
#include "zel.h"

namespace ZelTest {

// One agent and one local cloud on loopback, over real TLS, for end-to-end
// tests through the C interface. The PKI is made once per test binary for a
// port chosen then; every lab reuses port and PKI with a fresh cloud and a
// fresh persistent directory.
class AgentLab {
public:
    // Short delays for fast tests; a test merges its own on top.
    static Json::Value FastSettings();

    explicit AgentLab(const Json::Value& settings = FastSettings());
    ~AgentLab();
    AgentLab(const AgentLab&) = delete;
    AgentLab& operator=(const AgentLab&) = delete;

    ZelCloud::Cloud& cloud() { return *cloud_; }
    const std::string& persistentDir() const { return dir_.path(); }
    std::string config() const;
    const std::string& identity() const;
    const std::string& device() const;
    // Common name of the device certificate: how the cloud knows the device.
    static std::string DeviceCn();

    ZelResult init();
    // ZelTerm, then waits for Uninitialized; false when that does not come.
    bool term();
    bool waitForState(uint32_t state, std::chrono::milliseconds timeout = kPatience);
    uint32_t state() const;

    // Waits until the cloud has served requests satisfying `predicate`.
    bool waitFor(
        const std::function<bool(const std::vector<ZelCloud::RecordedRequest>&)>& predicate,
        std::chrono::milliseconds timeout = kPatience);
    // Waits until the cloud has seen `count` calls of `path` ("da/state") in all.
    bool waitForCalls(const std::string& path, size_t count,
                      std::chrono::milliseconds timeout = kPatience);
    // Paths below "/api/v1/" of every request so far, in order.
    std::vector<std::string> paths() const;
    std::vector<ZelCloud::RecordedRequest> calls(const std::string& path) const;

    // The agent's log, one message a line.
    std::vector<std::string> log() const;
    size_t logCount(const std::string& message) const;
    bool waitForLog(const std::string& message, size_t count = 1,
                    std::chrono::milliseconds timeout = kPatience) const;

    static Json::Value Parse(const std::string& text);

    // Generous upper bound for things that normally take milliseconds.
    static constexpr std::chrono::milliseconds kPatience{20000};

private:
    TempDir dir_;
    std::string logPath_;
    std::unique_ptr<ZelCloud::Cloud> cloud_;
};

}  // namespace ZelTest
