// The kernel's route and device tables as the diagnostics read them. They
// come from the kernel, but a broken or foreign /proc must not hurt.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "SupportView/Platform/Network.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using Zel::Sv::Network;
    std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<Network::RouteInfo> routes;
    Network::ParseRouteInfo(text, routes);
    for (const Network::RouteInfo& route : routes) {
        Network::convertToIPv4Address(route.gateway);
        Network::InterfaceInfo info;
        info.name = route.interface;
        Network::getInterfaceInfoMetrics(info, text);
    }
    return 0;
}
