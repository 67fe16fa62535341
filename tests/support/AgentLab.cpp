#include "support/AgentLab.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <stdexcept>

#include "Core/Platform/Thread.h"
#include "support/Pki.h"

namespace ZelTest {

namespace {

constexpr const char* kApi = "/api/v1/";

// A free loopback port (free when asked, that is). It goes into the device
// certificate, so it is chosen once.
int labPort() {
    static const int port = [] {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        bool bound = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                     getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
        close(fd);
        return bound ? ntohs(address.sin_port) : throw std::runtime_error("no free loopback port");
    }();
    return port;
}

const Pki& labPki() {
    const Pki& pki = Pki::Get("zel.localhost:" + std::to_string(labPort()));
    if (!pki.ok()) {
        throw std::runtime_error(pki.error());
    }
    return pki;
}

}  // namespace

Json::Value AgentLab::FastSettings() {
    return ParseJson(R"({"daPollDelayFixedMs": 200, "daPollDelayVariedMs": 0,
        "daRetryDelayFixedMs": 100, "daRetryDelayVariedMs": 0, "daStartupDelayFixedMs": 0,
        "daStartupDelayVariedMs": 0, "daConnectTimeoutMs": 5000, "daMessageTimeoutMs": 15000})");
}

AgentLab::AgentLab(const Json::Value& settings) : log_(dir_.file("agent.log")) {
    ZelCloud::CloudOptions options;
    options.pkiDir = labPki().dir();
    options.port = labPort();
    options.quiet = true;
    options.payloadPort = 0;
    options.relayPort = 0;
    options.settings = settings;
    cloud_ = std::make_unique<ZelCloud::Cloud>(options);
    if (!cloud_->start()) {
        throw std::runtime_error("the lab cloud did not start: " + cloud_->error());
    }
}

AgentLab::~AgentLab() {
    if (state() != DeviceAgentStateUninitialized) {
        term();
    }
    cloud_->stop();
}

std::string AgentLab::DeviceCn() {
    return labPki().deviceCommonName();
}

const std::string& AgentLab::identity() const {
    static const std::string text = labPki().identityJson();
    return text;
}

const std::string& AgentLab::device() const {
    static const std::string text = labPki().deviceJson();
    return text;
}

uint32_t AgentLab::state() const {
    ZelStatus status{};
    ZelGetStatus(ZelStatusMethodNow, &status);
    uint32_t state = status.state;
    ZelFreeStatus(&status);
    return state;
}

uint32_t AgentLab::sessionState() const {
    ZelStatus status{};
    ZelGetStatus(ZelStatusMethodNow, &status);
    uint32_t state = status.sessionState;
    ZelFreeStatus(&status);
    return state;
}

std::string AgentLab::sessionInfo() const {
    ZelStatus status{};
    ZelGetStatus(ZelStatusMethodNow, &status);
    std::string info = status.sessionInfo != nullptr ? status.sessionInfo : "";
    ZelFreeStatus(&status);
    return info;
}

bool AgentLab::waitForState(uint32_t wanted, std::chrono::milliseconds timeout) {
    return waitForStatus([this, wanted] { return state() == wanted; }, timeout);
}

bool AgentLab::waitForSessionState(uint32_t wanted, std::chrono::milliseconds timeout) {
    return waitForStatus([this, wanted] { return sessionState() == wanted; }, timeout);
}

bool AgentLab::waitForUpdateState(uint32_t wanted, std::chrono::milliseconds timeout) {
    return waitForStatus([this, wanted] { return status().updateState == wanted; }, timeout);
}

AgentLab::Status AgentLab::status() const {
    ZelStatus raw{};
    ZelGetStatus(ZelStatusMethodNow, &raw);
    auto text = [](const char* value) { return std::string(value != nullptr ? value : ""); };
    Status copy;
    copy.updateState = raw.updateState;
    copy.updatePercent = raw.updatePercentDownloaded;
    copy.updatePermission = raw.updatePermission;
    copy.updateVersion = text(raw.updateVersion);
    copy.updateHash = text(raw.updateHash);
    copy.updateStagingFile = text(raw.updateStagingFile);
    ZelFreeStatus(&raw);
    return copy;
}

bool AgentLab::waitForStatus(const std::function<bool()>& reached,
                             std::chrono::milliseconds timeout) {
    // ZelGetStatus(1) has no time limit of its own: wait on a helper thread.
    auto waiter = std::async(std::launch::async, [&reached] {
        while (!reached()) {
            ZelStatus status{};
            ZelGetStatus(ZelStatusMethodWaitForChange, &status);
            ZelFreeStatus(&status);
        }
    });
    if (waiter.wait_for(timeout) == std::future_status::ready) {
        return true;
    }
    // The waiter can never be joined now; a hung agent is fatal for the binary.
    std::fprintf(stderr, "the agent's status never got where the test waited for; its log ends:\n");
    // Without the state dumps, which say little here.
    std::vector<std::string> messages;
    for (const std::string& message : log_.messages()) {
        if (message.find("->") == std::string::npos && message.find("  : ") == std::string::npos) {
            messages.push_back(message);
        }
    }
    for (size_t i = messages.size() > 40 ? messages.size() - 40 : 0; i < messages.size(); ++i) {
        std::fprintf(stderr, "  %s\n", messages[i].c_str());
    }
    Pki::RemoveAll();
    std::_Exit(3);
}

bool AgentLab::term() {
    ZelResult result = ZelTerm();
    if (result != ZelResultSuccess && result != ZelResultBusy) {
        return state() == DeviceAgentStateUninitialized;
    }
    return waitForState(DeviceAgentStateUninitialized);
}

bool AgentLab::waitForCalls(const std::string& path, size_t count,
                            std::chrono::milliseconds timeout) {
    return cloud_->waitFor(
        [&](const std::vector<ZelCloud::RecordedRequest>& requests) {
            return static_cast<size_t>(
                       std::count_if(requests.begin(), requests.end(),
                                     [&](auto& r) { return r.path == kApi + path; })) >= count;
        },
        timeout);
}

std::vector<ZelCloud::RecordedRequest> AgentLab::requests(const std::string& prefix) const {
    std::vector<ZelCloud::RecordedRequest> result;
    for (const auto& request : cloud_->requests()) {
        if (request.path.rfind(kApi + prefix, 0) == 0 || prefix.empty()) {
            result.push_back(request);
        }
    }
    return result;
}

std::vector<std::string> AgentLab::paths(const std::string& prefix) const {
    std::vector<std::string> result;
    for (const auto& request : requests(prefix)) {
        bool api = request.path.rfind(kApi, 0) == 0;
        result.push_back(api ? request.path.substr(std::string(kApi).size()) : request.path);
    }
    return result;
}

std::vector<ZelCloud::RecordedRequest> AgentLab::calls(const std::string& path) const {
    std::vector<ZelCloud::RecordedRequest> result;
    for (const auto& request : cloud_->requests()) {
        if (request.path == kApi + path) {
            result.push_back(request);
        }
    }
    return result;
}

bool AgentLab::queueCommand(const std::string& name, std::string& error) {
    Json::Value request(Json::objectValue);
    request["COMMAND"]["NAME"] = name;
    request["COMMAND"]["OPERATION"] = "EXECUTE";
    request["COMMAND"]["VERSION"] = 0;
    request["INPUTS"] = Json::Value(Json::objectValue);
    Json::Value requests(Json::arrayValue);
    requests.append(request);
    uint32_t seqNum = 0;
    return cloud_->queueTask(requests, seqNum, error);
}

AgentLab& LabTest::lab(const Json::Value& settings) {
    lab_.reset();
    lab_ = std::make_unique<AgentLab>(settings);
    return *lab_;
}

AgentLab& LabTest::started(const Json::Value& settings) {
    AgentLab& made = lab(settings);
    EXPECT_EQ(ZelResultSuccess, made.init());
    EXPECT_TRUE(made.waitForCalls("da/notification", 1)) << "the agent never polled";
    return made;
}

void LabTest::TearDown() {
    if (lab_) {
        EXPECT_TRUE(lab_->term());
        lab_.reset();
    }
    EXPECT_TRUE(Zel::Core::ThreadUtil::WaitForNoLiveThreads(AgentLab::kPatience.count()));
    EXPECT_EQ(0u, Zel::Core::ThreadUtil::LiveThreads()) << "an agent thread was left behind";
}

}  // namespace ZelTest
