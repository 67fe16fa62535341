#include "SoakLoop.h"

#include <chrono>
#include <exception>
#include <thread>

#include "CloudView.h"
#include "zel.h"

namespace {
using Clock = std::chrono::steady_clock;

constexpr const char* kStreamName = "soak";
constexpr const char* kObjectName = "widevine";
constexpr uint64_t kFramesPerStream = 20;

// The agent answers at once; the cloud's documents grow with the run, so
// they are read less often.
constexpr unsigned kAgentPollMs = 50;
constexpr unsigned kCloudPollMs = 200;

// Bounds for each step, well above what they take on a loaded machine.
constexpr unsigned kAgentReadyMs = 60000;
constexpr unsigned kSessionMs = 30000;
constexpr unsigned kCommandMs = 30000;
constexpr unsigned kFramesMs = 30000;
constexpr unsigned kOfferMs = 60000;
constexpr unsigned kDownloadMs = 120000;
constexpr unsigned kProvisionMs = 30000;

Json::Value command(const std::string& name, const Json::Value& inputs) {
    Json::Value request(Json::objectValue);
    request["COMMAND"]["NAME"] = name;
    request["COMMAND"]["OPERATION"] = "EXECUTE";
    request["COMMAND"]["VERSION"] = 0;
    request["INPUTS"] = inputs;
    Json::Value task(Json::objectValue);
    task["requests"].append(request);
    return task;
}

std::string resultText(ZelResult result) {
    return "returned " + std::to_string(result);
}
}  // namespace

SoakLoop::SoakLoop(ControlClient& control, const std::atomic<bool>& stop, const SoakParts& parts,
                   uint64_t updateBytes)
    : control_(control), stop_(stop), parts_(parts), updateBytes_(updateBytes) {}

bool SoakLoop::waitForAgent(const std::string& what, const AgentCheck& done, unsigned timeoutMs,
                            std::string& error) {
    Clock::time_point end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        AgentStatus status;
        if (AgentStatus::Read(status) && done(status)) {
            return true;
        }
        if (stop_) {
            error = "interrupted while waiting for " + what;
            return false;
        }
        if (Clock::now() >= end) {
            error = "no " + what + " after " + std::to_string(timeoutMs / 1000) + " s";
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(kAgentPollMs));
    }
}

bool SoakLoop::waitForCloud(const std::string& what, const char* path, const CloudCheck& done,
                            unsigned timeoutMs, std::string& error) {
    Clock::time_point end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    std::string lastError;
    for (;;) {
        Json::Value document;
        if (control_.get(path, document, lastError) && done(document)) {
            return true;
        }
        if (stop_) {
            error = "interrupted while waiting for " + what;
            return false;
        }
        if (Clock::now() >= end) {
            error = "no " + what + " after " + std::to_string(timeoutMs / 1000) + " s" +
                    (lastError.empty() ? "" : " (" + lastError + ")");
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(kCloudPollMs));
    }
}

bool SoakLoop::prepare(std::string& error) {
    Json::Value relay;
    if (!control_.get("/control/relay", relay, error)) {
        return false;
    }
    if (!CloudView::Number(relay, "port", relayPort_) || relayPort_ == 0 || relayPort_ > 65535) {
        error = "the cloud has no media relay";
        return false;
    }
    // Until its first synchronisation the agent reports sessions as disabled.
    return waitForAgent(
        "agent ready for sessions",
        [](const AgentStatus& status) {
            return status.state == DeviceAgentStateInitialized &&
                   status.sessionState == ZelSessionStateNone;
        },
        kAgentReadyMs, error);
}

bool SoakLoop::iterate(unsigned round, std::string& error) {
    try {
        return runRound(round, error);
    } catch (const std::exception& e) {
        error = std::string("round failed: ") + e.what();
    } catch (...) {
        error = "round failed";
    }
    return false;
}

bool SoakLoop::runRound(unsigned round, std::string& error) {
    if (!parts_.sessions && !parts_.updates && !parts_.drmp) {
        // Nothing but the agent's own polling: an idle second per round.
        std::this_thread::sleep_for(std::chrono::seconds(1));
        return true;
    }
    if (parts_.sessions) {
        std::string code;
        if (!openSession(code, error)) {
            return false;
        }
        if (parts_.commands &&
            (!runCommand(code, "FFFFFF_LIVE_SUPPORT_GET_DEVICE_INFO", Json::objectValue, error) ||
             !runCommand(code, "FFFFFF_LIVE_SUPPORT_GET_AVAILABLE_COMMANDS", Json::objectValue,
                         error))) {
            return false;
        }
        if ((parts_.streams && !stream(code, error)) || !closeSession(code, error)) {
            return false;
        }
    }
    if (parts_.updates && !update(round, error)) {
        return false;
    }
    return !parts_.drmp ||
           (provision(round, "install", error) && provision(round, "delete", error));
}

bool SoakLoop::openSession(std::string& code, std::string& error) {
    ZelResult result = ZelSessionInit(0);
    if (result != ZelResultSuccess) {
        error = "ZelSessionInit " + resultText(result);
        return false;
    }
    if (!waitForAgent(
            "session code",
            [&code](const AgentStatus& status) {
                code = status.sessionInfo;
                return status.sessionState == ZelSessionStateReady && !code.empty();
            },
            kSessionMs, error)) {
        return false;
    }
    return waitForCloud(
        "active session " + code, "/control/sessions",
        [&code](const Json::Value& sessions) {
            std::string state;
            return CloudView::SessionState(sessions, code, state) && state == "active";
        },
        kSessionMs, error);
}

bool SoakLoop::runCommand(const std::string& code, const std::string& name,
                          const Json::Value& inputs, std::string& error) {
    Json::Value answer;
    uint64_t seqNum = 0;
    if (!control_.post("/control/tasks", command(name, inputs), answer, error)) {
        return false;
    }
    if (!CloudView::Number(answer, "seqNum", seqNum)) {
        error = "POST /control/tasks answered no seqNum";
        return false;
    }
    Json::Value responses;
    if (!waitForCloud(
            "answer to " + name, "/control/sessions",
            [&](const Json::Value& sessions) {
                return CloudView::TaskResponses(sessions, code, seqNum, responses);
            },
            kCommandMs, error)) {
        return false;
    }
    std::string problem;
    if (!CloudView::AllSucceeded(responses, problem)) {
        error = name + ": " + problem;
        return false;
    }
    return true;
}

bool SoakLoop::stream(const std::string& code, std::string& error) {
    const std::string name = kStreamName;
    uint64_t before = 0;
    Json::Value streams;
    bool connected = false;
    if (!control_.get("/control/streams", streams, error)) {
        return false;
    }
    CloudView::Stream(streams, name, before, connected);  // absent before the first round

    const std::string transport = "FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_TRANSPORT_CONTROL";
    Json::Value running(Json::objectValue);
    running["ACTION"] = "RUNNING";
    running["RELAY_SERVER_ADDRESS"] = "127.0.0.1";
    running["RELAY_SERVER_PORT"] = static_cast<Json::UInt64>(relayPort_);
    running["RELAY_SERVER_URI"] = "/streams/" + name;
    running["SECURE_MEDIA_STREAM"] = false;
    if (!runCommand(code, transport, running, error) ||
        !waitForCloud(
            std::to_string(kFramesPerStream) + " frames at the relay", "/control/streams",
            [&](const Json::Value& document) {
                uint64_t frames = 0;
                return CloudView::Stream(document, name, frames, connected) &&
                       frames >= before + kFramesPerStream;
            },
            kFramesMs, error)) {
        return false;
    }
    Json::Value shutDown(Json::objectValue);
    shutDown["ACTION"] = "SHUT_DOWN";
    if (!runCommand(code, transport, shutDown, error)) {
        return false;
    }
    return waitForCloud(
        "end of the stream's upload", "/control/streams",
        [&](const Json::Value& document) {
            uint64_t frames = 0;
            return CloudView::Stream(document, name, frames, connected) && !connected;
        },
        kFramesMs, error);
}

bool SoakLoop::closeSession(const std::string& code, std::string& error) {
    ZelResult result = ZelSessionTerm();
    if (result != ZelResultSuccess) {
        error = "ZelSessionTerm " + resultText(result);
        return false;
    }
    if (!waitForAgent(
            "end of session " + code,
            [](const AgentStatus& status) { return status.sessionState == ZelSessionStateNone; },
            kSessionMs, error)) {
        return false;
    }
    return waitForCloud(
        "retired session " + code, "/control/sessions",
        [&code](const Json::Value& sessions) {
            std::string state;
            return CloudView::SessionState(sessions, code, state) && state == "retired";
        },
        kSessionMs, error);
}

bool SoakLoop::update(unsigned round, std::string& error) {
    const std::string version = "5.0." + std::to_string(round);
    Json::Value request(Json::objectValue);
    request["version"] = version;
    request["sizeBytes"] = static_cast<Json::UInt64>(updateBytes_);
    request["seed"] = round;
    request["displayText"] = "Soak round " + std::to_string(round);
    Json::Value published;
    std::string id;
    if (!control_.post("/control/updates", request, published, error)) {
        return false;
    }
    if (!CloudView::Text(published, "id", id)) {
        error = "POST /control/updates answered no id";
        return false;
    }
    // The user's answer to the offer, as a television would ask for it.
    if (!waitForAgent(
            "offer of update " + version,
            [&version](const AgentStatus& status) {
                return status.updateState == ZelSoftwareUpdateStateAvailable &&
                       status.updateVersion == version;
            },
            kOfferMs, error)) {
        return false;
    }
    ZelResult result = ZelSetSoftwareUpdatePermission(ZelSoftwareUpdatePermissionConfirm);
    if (result != ZelResultSuccess) {
        error = "ZelSetSoftwareUpdatePermission(Confirm) " + resultText(result);
        return false;
    }
    if (!waitForAgent(
            "confirmed update " + version,
            [&version](const AgentStatus& status) {
                return status.updateState == ZelSoftwareUpdateStateConfirmed &&
                       status.updateVersion == version;
            },
            kDownloadMs, error)) {
        return false;
    }
    bool success = false;
    std::string details;
    if (!waitForCloud(
            "report of update " + id, "/control/update-reports",
            [&](const Json::Value& reports) {
                return CloudView::UpdateReport(reports, id, success, details);
            },
            kDownloadMs, error)) {
        return false;
    }
    if (!success) {
        error = "update " + id + " reported as failed: " + details;
        return false;
    }
    // The next offer waits for its own answer again.
    result = ZelSetSoftwareUpdatePermission(ZelSoftwareUpdatePermissionNone);
    if (result != ZelResultSuccess) {
        error = "ZelSetSoftwareUpdatePermission(None) " + resultText(result);
        return false;
    }
    return waitForAgent(
        "permission None",
        [](const AgentStatus& status) {
            return status.updatePermission == ZelSoftwareUpdatePermissionNone;
        },
        kSessionMs, error);
}

bool SoakLoop::provision(unsigned round, const char* operation, std::string& error) {
    Json::Value drmp;
    if (!control_.get("/control/drmp", drmp, error)) {
        return false;
    }
    unsigned before = CloudView::DrmpResults(drmp, kObjectName, operation, true);
    Json::Value entry(Json::objectValue);
    entry["name"] = kObjectName;
    entry["operation"] = operation;
    if (std::string(operation) == "install") {
        entry["encryptionType"] = "aes";
        entry["valueText"] = "soak secret " + std::to_string(round);
        entry["id"] = "soak-" + std::to_string(round);
    }
    Json::Value request(Json::objectValue);
    request["operations"].append(entry);
    Json::Value answer;
    if (!control_.post("/control/drmp/operations", request, answer, error)) {
        return false;
    }
    // Fetched at once rather than at the next poll; reported at the call after.
    ZelCheckForDrmpUpdate();
    return waitForCloud(
        std::string("successful ") + operation + " of " + kObjectName, "/control/drmp",
        [&](const Json::Value& document) {
            return CloudView::DrmpResults(document, kObjectName, operation, true) > before;
        },
        kProvisionMs, error);
}
