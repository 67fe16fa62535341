// Reading the kernel's route and device tables, from files the test writes.
#include "SupportView/Platform/Network.h"

#include <gtest/gtest.h>

#include <fstream>

#include "support/LogCapture.h"
#include "support/TempDir.h"

using Zel::Sv::Network;
using ZelTest::LogCapture;
using ZelTest::TempDir;

namespace {

const char* kRoutes =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n"
    "eth0\t0000A8C0\t00000000\t0001\t0\t0\t100\t00FFFFFF\t0\t0\t0\n"
    "eth0\t00000000\t0102A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"
    "wlan0\t00000000\t0101000A\t0003\t0\t0\t600\t00000000\t0\t0\t0\n"
    "garbage line\n"
    "\n";

std::string write(const TempDir& dir, const char* name, const std::string& text) {
    std::string path = dir.file(name);
    std::ofstream(path) << text;
    return path;
}

TEST(NetworkTest, RouteTable) {
    std::vector<Network::RouteInfo> routes;
    Network::ParseRouteInfo(kRoutes, routes);
    ASSERT_EQ(3u, routes.size());
    EXPECT_EQ("eth0", routes[0].interface);
    EXPECT_EQ("192.168.0.0", Network::convertToIPv4Address(routes[0].destination));
    EXPECT_EQ("255.255.255.0", Network::convertToIPv4Address(routes[0].mask));
    EXPECT_EQ(100u, routes[0].metric);
    EXPECT_EQ("wlan0", routes[2].interface);

    TempDir dir;
    std::string gateway;
    EXPECT_TRUE(Network::GetDefaultGateway(gateway, write(dir, "route", kRoutes).c_str()));
    EXPECT_EQ("192.168.2.1", gateway);  // the first route to 0.0.0.0

    gateway.clear();
    EXPECT_FALSE(Network::GetDefaultGateway(
        gateway, write(dir, "local",
                       "Iface\tDestination\n"
                       "lo\t0000007F\t00000000\t0001\t0\t0\t0\t000000FF\n")
                     .c_str()));
    EXPECT_EQ("", gateway);

    LogCapture capture;
    EXPECT_FALSE(Network::GetDefaultGateway(gateway, dir.file("missing").c_str()));
    EXPECT_NE("", capture.find("Error Opening File."));
}

TEST(NetworkTest, InterfaceCounters) {
    const std::string devices =
        "Inter-|   Receive                            |  Transmit\n"
        " face |bytes    packets errs drop fifo frame compressed multicast|bytes ...\n"
        "    lo: 100 2 0 0 0 0 0 0 100 2 0 0 0 0 0 0\n"
        "  eth0: 18446744073709551615 20 1 2 3 4 5 6 7 8 9 10 11 12 13 14\n"
        " eth1: 5 6\n";
    struct Case {
        const char* name;
        bool found;
        std::vector<std::string> first;  // leading counters
        const char* last;
    };
    const Case cases[] = {
        {"eth0", true, {"18446744073709551615", "20", "1"}, "14"},
        {"lo", true, {"100", "2"}, "0"},
        {"eth1", true, {"5", "6", Network::kNotAvailable}, Network::kNotAvailable},
        {"eth", false, {Network::kNotAvailable}, Network::kNotAvailable},
        {"wlan0", false, {Network::kNotAvailable}, Network::kNotAvailable},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Network::InterfaceInfo info;
        info.name = c.name;
        EXPECT_EQ(c.found, Network::getInterfaceInfoMetrics(info, devices));
        ASSERT_EQ(Network::kCounterCount, info.counters.size());
        for (size_t i = 0; i < c.first.size(); ++i) {
            EXPECT_EQ(c.first[i], info.counters[i]);
        }
        EXPECT_EQ(c.last, info.counters.back());
        EXPECT_EQ(Network::kHidden, info.hardwareAddress);
    }

    // Each routed interface once, in route order.
    TempDir dir;
    std::vector<Network::RouteInfo> routes;
    Network::ParseRouteInfo(kRoutes, routes);
    std::vector<Network::InterfaceInfo> interfaces;
    EXPECT_TRUE(Network::GetInterfaceInfo(interfaces, routes, write(dir, "dev", devices).c_str()));
    ASSERT_EQ(2u, interfaces.size());
    EXPECT_EQ("eth0", interfaces[0].name);
    EXPECT_EQ("20", interfaces[0].counters[1]);
    EXPECT_EQ("wlan0", interfaces[1].name);
    EXPECT_EQ(Network::kNotAvailable, interfaces[1].counters[0]);
}

}  // namespace
