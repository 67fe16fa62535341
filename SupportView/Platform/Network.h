#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Zel {
namespace Sv {

// The kernel's network tables, for the network diagnostics.
class Network {
public:
    // One line of the route table.
    struct RouteInfo {
        std::string interface;
        uint32_t destination = 0;  // as the kernel prints it: network order in memory
        uint32_t gateway = 0;
        unsigned refCount = 0;
        unsigned use = 0;
        unsigned metric = 0;
        uint32_t mask = 0;
    };

    static constexpr unsigned kCounterCount = 16;
    static constexpr const char* kNotAvailable = "Not Available";
    static constexpr const char* kHidden = "********";

    // An interface that carries a route, with its addresses and the sixteen
    // counters of its line in the device table (receive bytes, packets,
    // errs, drop, fifo, frame, compressed, multicast, then transmit bytes,
    // packets, errs, drop, fifo, colls, carrier, compressed).
    struct InterfaceInfo {
        std::string name;
        std::string address = kNotAvailable;
        std::string hardwareAddress = kHidden;  // never shown to the support agent
        std::vector<std::string> counters = std::vector<std::string>(kCounterCount, kNotAvailable);
    };

    static constexpr const char* kRouteFile = "/proc/net/route";
    static constexpr const char* kDeviceFile = "/proc/net/dev";

    // False, with the error logged, when the file cannot be read.
    static bool GetRouteInfo(std::vector<RouteInfo>& routes, const char* path = kRouteFile);
    // The lines of a route table's text that scan (the heading does not).
    static void ParseRouteInfo(const std::string& text, std::vector<RouteInfo>& routes);
    // The gateway of the route to 0.0.0.0, dotted; false when there is none.
    static bool GetDefaultGateway(std::string& gateway, const char* path = kRouteFile);
    // The interfaces the routes use, once each, with their counters.
    static bool GetInterfaceInfo(std::vector<InterfaceInfo>& interfaces,
                                 const std::vector<RouteInfo>& routes,
                                 const char* devicePath = kDeviceFile);
    // Fills the counters from the device table's text; false when the
    // interface has no line there.
    static bool getInterfaceInfoMetrics(InterfaceInfo& info, const std::string& deviceText);
    static std::string convertToIPv4Address(uint32_t address);

    // A whole small file of the kernel's; false when it cannot be read.
    static bool ReadFile(const char* path, std::string& text);
};

}  // namespace Sv
}  // namespace Zel
