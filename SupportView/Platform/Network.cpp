#include "SupportView/Platform/Network.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cinttypes>
#include <cstdio>
#include <memory>
#include <sstream>

#include "Core/Platform/Logger.h"

namespace Zel {
namespace Sv {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Platform/Network";

// The kernel's tables are small; anything bigger is not one of them.
constexpr size_t kMaxFileBytes = 1024 * 1024;

struct FileCloser {
    void operator()(FILE* file) const { std::fclose(file); }
};

std::string addressOf(const std::string& name) {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return Network::kNotAvailable;
    }
    std::string found = Network::kNotAvailable;
    for (ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET &&
            entry->ifa_name != nullptr && name == entry->ifa_name) {
            const auto* in = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
            found = Network::convertToIPv4Address(in->sin_addr.s_addr);
            break;
        }
    }
    freeifaddrs(list);
    return found;
}
}  // namespace

bool Network::ReadFile(const char* path, std::string& text) {
    std::unique_ptr<FILE, FileCloser> file(std::fopen(path, "r"));
    if (!file) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Error Opening File.");
        return false;
    }
    text.clear();
    char buffer[4096];
    size_t read;
    while ((read = std::fread(buffer, 1, sizeof(buffer), file.get())) > 0) {
        text.append(buffer, read);
        if (text.size() > kMaxFileBytes) {
            break;
        }
    }
    if (std::ferror(file.get()) || text.size() > kMaxFileBytes) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Error Reading File.");
        return false;
    }
    return true;
}

void Network::ParseRouteInfo(const std::string& text, std::vector<RouteInfo>& routes) {
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        char name[128] = {};
        RouteInfo route;
        if (std::sscanf(line.c_str(), "%127s %10X %10X %*u %10u %10u %10u %10X", name,
                        &route.destination, &route.gateway, &route.refCount, &route.use,
                        &route.metric, &route.mask) == 7) {
            route.interface = name;
            routes.push_back(route);
        }
    }
}

bool Network::GetRouteInfo(std::vector<RouteInfo>& routes, const char* path) {
    std::string text;
    if (!ReadFile(path, text)) {
        return false;
    }
    ParseRouteInfo(text, routes);
    return true;
}

bool Network::GetDefaultGateway(std::string& gateway, const char* path) {
    std::vector<RouteInfo> routes;
    if (!GetRouteInfo(routes, path)) {
        return false;
    }
    for (const RouteInfo& route : routes) {
        if (route.destination == 0) {
            ZEL_LOG(ServiceSv, CategoryFlow, SeverityDebug, "Route to 0.0.0.0 via %s",
                    route.interface.c_str());
            gateway = convertToIPv4Address(route.gateway);
            return true;
        }
    }
    return false;
}

bool Network::GetInterfaceInfo(std::vector<InterfaceInfo>& interfaces,
                               const std::vector<RouteInfo>& routes, const char* devicePath) {
    std::string deviceText;
    bool haveDevices = ReadFile(devicePath, deviceText);
    for (const RouteInfo& route : routes) {
        bool known = false;
        for (const InterfaceInfo& info : interfaces) {
            known = known || info.name == route.interface;
        }
        if (known) {
            continue;
        }
        InterfaceInfo info;
        info.name = route.interface;
        info.address = addressOf(info.name);
        if (haveDevices) {
            getInterfaceInfoMetrics(info, deviceText);
        }
        interfaces.push_back(info);
    }
    return haveDevices;
}

bool Network::getInterfaceInfoMetrics(InterfaceInfo& info, const std::string& deviceText) {
    std::istringstream lines(deviceText);
    std::string line;
    while (std::getline(lines, line)) {
        size_t colon = line.find(':');
        if (colon == std::string::npos) {
            continue;
        }
        size_t start = line.find_first_not_of(' ');
        if (start >= colon || line.substr(start, colon - start) != info.name) {
            continue;
        }
        unsigned long long values[kCounterCount];
        int scanned =
            std::sscanf(line.c_str() + colon + 1,
                        "%20llu %20llu %20llu %20llu %20llu %20llu %20llu %20llu "
                        "%20llu %20llu %20llu %20llu %20llu %20llu %20llu %20llu",
                        &values[0], &values[1], &values[2], &values[3], &values[4], &values[5],
                        &values[6], &values[7], &values[8], &values[9], &values[10], &values[11],
                        &values[12], &values[13], &values[14], &values[15]);
        for (int i = 0; i < scanned && i < static_cast<int>(kCounterCount); ++i) {
            info.counters[i] = std::to_string(values[i]);
        }
        return true;
    }
    return false;
}

std::string Network::convertToIPv4Address(uint32_t address) {
    in_addr in{};
    in.s_addr = address;
    char text[INET_ADDRSTRLEN];
    if (inet_ntop(AF_INET, &in, text, sizeof(text)) == nullptr) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError,
                "Error converting network address to string.");
        return "0.0.0.0";
    }
    return text;
}

}  // namespace Sv
}  // namespace Zel
