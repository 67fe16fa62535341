#pragma once

#include <json/json.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "AgentStatus.h"
#include "ControlClient.h"
#include "SoakParts.h"

// Drives one round of the agent's work through the C interface and the
// cloud's control interface: a remote-support session with two commands and
// a screen stream, a software update downloaded and confirmed, and a secure
// object installed and deleted again. Every round starts and ends at a quiet
// point: no session, no stream, no download, no provisioning under way.
class SoakLoop {
public:
    // `updateBytes`: the size of each published update.
    SoakLoop(ControlClient& control, const std::atomic<bool>& stop, const SoakParts& parts,
             uint64_t updateBytes);

    // Waits until the agent can open sessions and learns the relay's port.
    bool prepare(std::string& error);
    // One round; `round` numbers the updates and objects. False with `error`
    // at the first step that does not come through in time.
    bool iterate(unsigned round, std::string& error);

private:
    using AgentCheck = std::function<bool(const AgentStatus&)>;
    using CloudCheck = std::function<bool(const Json::Value&)>;

    bool runRound(unsigned round, std::string& error);
    bool openSession(std::string& code, std::string& error);
    bool runCommand(const std::string& code, const std::string& name, const Json::Value& inputs,
                    std::string& error);
    bool stream(const std::string& code, std::string& error);
    bool closeSession(const std::string& code, std::string& error);
    bool update(unsigned round, std::string& error);
    bool provision(unsigned round, const char* operation, std::string& error);

    // Polls until `done` holds; false with `error` naming `what` after `timeoutMs`.
    bool waitForAgent(const std::string& what, const AgentCheck& done, unsigned timeoutMs,
                      std::string& error);
    bool waitForCloud(const std::string& what, const char* path, const CloudCheck& done,
                      unsigned timeoutMs, std::string& error);

    ControlClient& control_;
    const std::atomic<bool>& stop_;
    SoakParts parts_;
    uint64_t updateBytes_;
    uint64_t relayPort_ = 0;
};
