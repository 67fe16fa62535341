#include "support/AgentLab.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <future>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "Core/Platform/JsonUtil.h"
#include "support/LogCapture.h"

namespace ZelTest {

namespace {

struct LabPki {
    int port = 0;
    TempDir dir;
    std::string identity;
    std::string device;
};

int freeLoopbackPort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("no free loopback port");
    }
    close(fd);
    return ntohs(address.sin_port);
}

// Made on first use and kept for the life of the test binary.
const LabPki& labPki() {
    static LabPki* pki = [] {
        auto* made = new LabPki;
        made->port = freeLoopbackPort();
        std::string command = std::string(ZEL_SOURCE_DIR) + "/tools/pki/make-pki.sh '" +
                              made->dir.path() + "' zel.localhost:" + std::to_string(made->port);
        if (std::system(command.c_str()) != 0) {
            throw std::runtime_error("make-pki.sh failed");
        }
        made->identity = ReadFile(made->dir.file("identity.json"));
        made->device = ReadFile(made->dir.file("device.json"));
        return made;
    }();
    return *pki;
}

}  // namespace

constexpr std::chrono::milliseconds AgentLab::kPatience;

Json::Value AgentLab::FastSettings() {
    Json::Value settings;
    settings["daPollDelayFixedMs"] = 200;
    settings["daPollDelayVariedMs"] = 0;
    settings["daRetryDelayFixedMs"] = 100;
    settings["daRetryDelayVariedMs"] = 0;
    settings["daStartupDelayFixedMs"] = 0;
    settings["daStartupDelayVariedMs"] = 0;
    settings["daConnectTimeoutMs"] = 5000;
    settings["daMessageTimeoutMs"] = 15000;
    return settings;
}

AgentLab::AgentLab(const Json::Value& settings) : logPath_(dir_.file("agent.log")) {
    const LabPki& pki = labPki();
    ZelCloud::CloudOptions options;
    options.pkiDir = pki.dir.path();
    options.port = pki.port;
    options.quiet = true;
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
    return "FFFFFF0ACC.zel.localhost:" + std::to_string(labPki().port);
}

std::string AgentLab::config() const {
    Json::Value document;
    document["core"]["persistentPath"] = dir_.path();
    document["core"]["temporaryPath"] = dir_.path();
    document["loggers"] = LogCapture::LoggersConfig(logPath_, "debug");
    return Zel::Core::JsonUtil::Compact(document);
}

const std::string& AgentLab::identity() const {
    return labPki().identity;
}
const std::string& AgentLab::device() const {
    return labPki().device;
}

ZelResult AgentLab::init() {
    return ZelInit(identity().c_str(), config().c_str(), device().c_str());
}

uint32_t AgentLab::state() const {
    ZelStatus status{};
    ZelGetStatus(ZelStatusMethodNow, &status);
    uint32_t state = status.state;
    ZelFreeStatus(&status);
    return state;
}

bool AgentLab::waitForState(uint32_t wanted, std::chrono::milliseconds timeout) {
    // ZelGetStatus(1) has no time limit of its own: wait on a helper thread.
    auto waiter = std::async(std::launch::async, [this, wanted] {
        while (state() != wanted) {
            ZelStatus status{};
            ZelGetStatus(ZelStatusMethodWaitForChange, &status);
            ZelFreeStatus(&status);
        }
    });
    if (waiter.wait_for(timeout) == std::future_status::ready) {
        return true;
    }
    // The waiter can never be joined now; a hung agent is fatal for the binary.
    std::fprintf(stderr, "agent never reached state %u\n", wanted);
    std::_Exit(3);
}

bool AgentLab::term() {
    ZelResult result = ZelTerm();
    if (result != ZelResultSuccess && result != ZelResultBusy) {
        return state() == DeviceAgentStateUninitialized;
    }
    return waitForState(DeviceAgentStateUninitialized);
}

bool AgentLab::waitFor(
    const std::function<bool(const std::vector<ZelCloud::RecordedRequest>&)>& predicate,
    std::chrono::milliseconds timeout) {
    return cloud_->waitFor(predicate, timeout);
}

bool AgentLab::waitForCalls(const std::string& path, size_t count,
                            std::chrono::milliseconds timeout) {
    std::string suffix = "/api/v1/" + path;
    return cloud_->waitFor(
        [&](const std::vector<ZelCloud::RecordedRequest>& requests) {
            return static_cast<size_t>(std::count_if(requests.begin(), requests.end(),
                                                     [&](const ZelCloud::RecordedRequest& r) {
                                                         return r.path == suffix;
                                                     })) >= count;
        },
        timeout);
}

std::vector<std::string> AgentLab::paths() const {
    std::vector<std::string> result;
    for (const auto& request : cloud_->requests()) {
        std::string path = request.path;
        const std::string prefix = "/api/v1/";
        if (path.compare(0, prefix.size(), prefix) == 0) {
            path = path.substr(prefix.size());
        }
        result.push_back(path);
    }
    return result;
}

std::vector<ZelCloud::RecordedRequest> AgentLab::calls(const std::string& path) const {
    std::vector<ZelCloud::RecordedRequest> result;
    for (const auto& request : cloud_->requests()) {
        if (request.path == "/api/v1/" + path) {
            result.push_back(request);
        }
    }
    return result;
}

std::vector<std::string> AgentLab::log() const {
    std::vector<std::string> lines;
    std::istringstream in(ReadFile(logPath_));
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

size_t AgentLab::logCount(const std::string& message) const {
    std::vector<std::string> lines = log();
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), message));
}

bool AgentLab::waitForLog(const std::string& message, size_t count,
                          std::chrono::milliseconds timeout) const {
    // The log is a file the agent appends to; the cloud's request log is what
    // we can wait on, so re-read the file each time the cloud sees a request.
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (logCount(message) < count) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        size_t seen = cloud_->requests().size();
        cloud_->waitForRequests(seen + 1, std::chrono::milliseconds(200));
    }
    return true;
}

Json::Value AgentLab::Parse(const std::string& text) {
    return ParseJson(text);
}

}  // namespace ZelTest
