#include "Core/Project/DeviceValues.h"

#include <json/value.h>
#include <net/if.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <vector>

#include "Core/Base/CoreConfig.h"
#include "Core/Platform/FileUtil.h"
#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"
#include "Core/Project/KorvanePlugin.h"

namespace {
constexpr const char* kLogSource = "Project/DeviceValues";
constexpr const char* kUnknown = "Unknown";
constexpr const char* kNoMac = "00:00:00:00:00:00";

struct PipeCloser {
    void operator()(FILE* pipe) const { pclose(pipe); }
};
using Pipe = std::unique_ptr<FILE, PipeCloser>;

class Socket {
public:
    Socket(int domain, int type) : fd_(socket(domain, type, 0)) {}
    ~Socket() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int fd() const { return fd_; }

private:
    int fd_;
};

void stripLineEnd(std::string& line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
}

bool readFirstLine(const char* path, std::string& line) {
    std::ifstream in(path);
    if (!in || !std::getline(in, line)) {
        return false;
    }
    stripLineEnd(line);
    return !line.empty();
}

// First line a shell command prints, at most 1023 bytes.
bool commandFirstLine(const char* command, std::string& line) {
    Pipe pipe(popen(command, "r"));
    if (!pipe) {
        return false;
    }
    char buffer[1024];
    if (fgets(buffer, sizeof(buffer), pipe.get()) == nullptr) {
        return false;
    }
    line = buffer;
    stripLineEnd(line);
    return !line.empty();
}

bool machineId(std::string& id) {
    return readFirstLine("/etc/machine-id", id) || readFirstLine("/var/lib/dbus/machine-id", id);
}

// The first interface in the kernel's list that is not the loopback and has a
// non-zero hardware address.
bool macAddress(std::string& mac) {
    Socket sock(AF_INET, SOCK_DGRAM);
    if (sock.fd() < 0) {
        return false;
    }
    std::vector<struct ifreq> requests(32);
    struct ifconf conf;
    std::memset(&conf, 0, sizeof(conf));
    conf.ifc_len = static_cast<int>(requests.size() * sizeof(struct ifreq));
    conf.ifc_req = requests.data();
    if (ioctl(sock.fd(), SIOCGIFCONF, &conf) != 0) {
        return false;
    }
    size_t count = static_cast<size_t>(conf.ifc_len) / sizeof(struct ifreq);
    for (size_t i = 0; i < count && i < requests.size(); ++i) {
        struct ifreq request;
        std::memset(&request, 0, sizeof(request));
        std::memcpy(request.ifr_name, requests[i].ifr_name, sizeof(request.ifr_name));
        if (ioctl(sock.fd(), SIOCGIFFLAGS, &request) != 0 || (request.ifr_flags & IFF_LOOPBACK)) {
            continue;
        }
        if (ioctl(sock.fd(), SIOCGIFHWADDR, &request) != 0) {
            continue;
        }
        const unsigned char* hw =
            reinterpret_cast<const unsigned char*>(request.ifr_hwaddr.sa_data);
        bool zero = true;
        for (int b = 0; b < 6; ++b) {
            zero = zero && hw[b] == 0;
        }
        if (zero) {
            continue;
        }
        char text[18];
        snprintf(text, sizeof(text), "%02X:%02X:%02X:%02X:%02X:%02X", hw[0], hw[1], hw[2], hw[3],
                 hw[4], hw[5]);
        mac = text;
        return true;
    }
    return false;
}

std::string orUnknown(bool found, const std::string& value) {
    return found ? value : kUnknown;
}

void copyIn(char (&target)[ZEL_KORVANE_VALUE_SIZE], const std::string& value) {
    std::memset(target, 0, sizeof(target));
    std::strncpy(target, value.c_str(), sizeof(target) - 1);
}

// The plug-in may forget the terminator; never read past the array.
std::string copyOut(const char (&source)[ZEL_KORVANE_VALUE_SIZE]) {
    return std::string(source, strnlen(source, sizeof(source)));
}

}  // namespace

namespace Zel {
namespace Core {

const char* const DeviceValues::kSwVersionBaseName = "swVersion";

namespace {
using Member = std::string DeviceValues::*;
}  // namespace

DeviceValues::DeviceValues(const char* text, const CoreConfig* config)
    : config_(config), document_(ReadDocument(text)) {
    static const std::pair<const char*, Member> kFields[] = {
        {"id", &DeviceValues::id_},
        {"model", &DeviceValues::model_},
        {"subModel", &DeviceValues::subModel_},
        {"platform", &DeviceValues::platform_},
        {"brand", &DeviceValues::brand_},
        {"esn", &DeviceValues::esn_},
        {"mac", &DeviceValues::mac_},
        {"swVersion", &DeviceValues::swVersion_},
    };
    // The plug-in sees the document's values where there are some: they win
    // in the end anyway.
    for (const auto& field : kFields) {
        auto found = document_.find(field.first);
        if (found != document_.end()) {
            this->*field.second = found->second;
        }
    }
    setCustomValues();
    applyPlugin();
    for (const auto& field : kFields) {
        auto found = document_.find(field.first);
        if (found != document_.end()) {
            this->*field.second = found->second;
        }
    }
}

std::map<std::string, std::string> DeviceValues::ReadDocument(const char* text) {
    std::map<std::string, std::string> values;
    Json::Value root;
    if (!JsonUtil::Parse(text, root) || !root.isObject()) {
        return values;
    }
    for (const char* key :
         {"id", "model", "subModel", "platform", "brand", "esn", "mac", "swVersion"}) {
        std::string value;
        if (JsonUtil::ReadString(root, key, value)) {
            values[key] = value;
        }
    }
    return values;
}

// The standard build describes the machine it runs on; model and subModel are
// placeholders (the working directory) that a device build replaces. Values
// the document supplies are not looked up: some cost a shell command.
void DeviceValues::setCustomValues() {
    std::string value;
    if (!supplied("id") || !supplied("esn")) {
        bool found = machineId(value);
        std::string id = orUnknown(found, value);
        if (!supplied("id")) {
            id_ = id;
        }
        if (!supplied("esn")) {
            esn_ = id;
        }
    }
    if (!supplied("model") || !supplied("subModel")) {
        bool found = commandFirstLine("/bin/pwd", value);
        std::string model = orUnknown(found, value);
        if (!supplied("model")) {
            model_ = model;
        }
        if (!supplied("subModel")) {
            subModel_ = model;
        }
    }
    if (!supplied("platform")) {
        bool found = commandFirstLine("/bin/uname -o", value);
        platform_ = orUnknown(found, value);
    }
    if (!supplied("brand")) {
        bool found = commandFirstLine("/usr/bin/lsb_release -si", value);
        brand_ = orUnknown(found, value);
    }
    if (!supplied("mac")) {
        mac_ = macAddress(value) ? value : kNoMac;
    }

    if (config_ != nullptr && config_->getEnableSwVersionSimulation()) {
        swVersion_ = config_->getInitialSimulatedSwVersion();
        std::string content;
        std::string version;
        auto usable = [&version](const std::string& text) {
            Json::Value stored;
            return JsonUtil::Parse(text, stored) &&
                   JsonUtil::GetString(JsonUtil::Member(stored, "swVersion"), version);
        };
        if (FileUtil::Load(config_->getPersistentPath(), kSwVersionBaseName, content, usable)) {
            swVersion_ = version;
        }
    } else if (!supplied("swVersion")) {
        bool found = commandFirstLine("/usr/bin/lsb_release -sr", value);
        swVersion_ = orUnknown(found, value);
    }
}

void DeviceValues::applyPlugin() {
    korvane::KorvanePlugin& plugin = korvane::KorvanePlugin::Instance();
    if (plugin.createDeviceValuesExt == nullptr) {
        return;
    }
    std::unique_ptr<ZelKorvaneDeviceValues> values(new ZelKorvaneDeviceValues);
    copyIn(values->id, id_);
    copyIn(values->model, model_);
    copyIn(values->subModel, subModel_);
    copyIn(values->platform, platform_);
    copyIn(values->brand, brand_);
    copyIn(values->esn, esn_);
    copyIn(values->mac, mac_);
    copyIn(values->swVersion, swVersion_);
    int32_t result = plugin.createDeviceValuesExt(values.get());
    if (result != 0) {
        ZEL_LOG(ServiceCore, CategoryClibapi, SeverityWarning,
                "createDeviceValuesExt returned %d, device values unchanged", result);
        return;
    }
    id_ = copyOut(values->id);
    model_ = copyOut(values->model);
    subModel_ = copyOut(values->subModel);
    platform_ = copyOut(values->platform);
    brand_ = copyOut(values->brand);
    esn_ = copyOut(values->esn);
    mac_ = copyOut(values->mac);
    swVersion_ = copyOut(values->swVersion);
}

bool DeviceValues::setSimulatedSwVersion(const std::string& version) {
    if (config_ == nullptr || !config_->getEnableSwVersionSimulation()) {
        return false;
    }
    Json::Value stored(Json::objectValue);
    stored["swVersion"] = version;
    FileUtil::Store(config_->getPersistentPath(), kSwVersionBaseName, JsonUtil::Compact(stored));
    swVersion_ = version;
    return true;
}

void DeviceValues::logStateDebug() const {
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "device->id                           : %s",
            id_.c_str());
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "device->model                        : %s",
            model_.c_str());
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "device->subModel                     : %s",
            subModel_.c_str());
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "device->platform                     : %s",
            platform_.c_str());
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "device->brand                        : %s",
            brand_.c_str());
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "device->esn                          : %s",
            esn_.c_str());
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "device->mac                          : %s",
            mac_.c_str());
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "device->swVersion                    : %s",
            swVersion_.c_str());
}

}  // namespace Core
}  // namespace Zel
