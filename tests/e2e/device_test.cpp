// The daemon on the simulated device's network and gateway driver: LAN addressing reaches the
// sandbox's own eth0 through the real ifconfig and route, the start-up loads the gateway
// module and starts the routes, and a short soak leaves the daemon's descriptors and memory
// level.
// Addresses exist only in the sandbox's namespace.

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <tuple>

#include "harness.h"

namespace e2e {
namespace {

constexpr unsigned kLan = 2, kRoute = 5;
constexpr unsigned kIpv4 = 2, kMask = 3, kGateway = 5, kMac = 8;

// The kernel's default route of the sandbox's network goes through `gateway`.
bool routesDefaultThrough(const char* gateway) {
    in_addr address{};
    char hex[16];  // /proc/net/route prints the address as the host reads its bytes
    if (inet_pton(AF_INET, gateway, &address) != 1) return false;
    std::snprintf(hex, sizeof hex, "%08X", address.s_addr);
    std::istringstream routes(readFile("/proc/net/route"));
    for (std::string interface, destination, via, rest; routes >> interface >> destination >> via;
         std::getline(routes, rest))
        if (interface == "eth0" && destination == "00000000" && via == hex) return true;
    return false;
}

std::string kernelMac() {
    std::string mac = readFile("/sys/class/net/eth0/address");
    mac.erase(mac.find_last_not_of('\n') + 1);
    std::ranges::transform(mac, mac.begin(), [](unsigned char c) { return std::toupper(c); });
    return mac;
}

TEST(Lan, StaticAddressingReachesTheInterface) {
    Daemon d(21, 22);
    ASSERT_NE(d.up(), "") << d.process.output();
    const std::string mac = kernelMac();
    ASSERT_EQ(mac.size(), 17u) << "the sandbox has no eth0";
    ASSERT_TRUE(d.start(60, 1, 3));
    // The session's first read of the interface puts the kernel's address into the record, so
    // it comes before the writes. Each write is read back; the read, a request without value,
    // also keeps a value from being taken with the tail of a longer one before it.
    EXPECT_TRUE(d.reads(kLan, 1, kMac, mac.c_str()));
    for (const auto& [f3, value] :
         {std::pair{kIpv4, "198.51.100.7"}, {kMask, "255.255.255.0"}, {kGateway, "198.51.100.1"}}) {
        EXPECT_TRUE(d.sets(kLan, 1, f3, value));
        EXPECT_TRUE(d.reads(kLan, 1, f3, value));
    }
    ASSERT_TRUE(d.end());
    EXPECT_EQ(readFile("/etc/resolv.conf"), "nameserver 198.51.100.1\n");
    EXPECT_TRUE(routesDefaultThrough("198.51.100.1")) << readFile("/proc/net/route");
    // The next session reads what the kernel reports for the interface.
    ASSERT_TRUE(d.start(61, 2, 0));
    EXPECT_TRUE(d.reads(kLan, 1, kIpv4, "198.51.100.7"));
    ASSERT_TRUE(d.end());
}

TEST(StartUp, LoadsTheModuleStartsTheRoutesAndAppliesLanBeforeCan) {
    ASSERT_EQ(runStub("rmmod", {"tarn-gw"}), 0);
    ASSERT_EQ(readFile("/proc/modules").find("tarn_gw "), std::string::npos);
    const std::string helper = "canoipd -P canoip -p 45321 -N full-gw -I eth0";
    const auto helpers = std::ranges::count(commands(0, true), helper);
    const std::size_t logged = commands().size();
    Daemon d(23, 24, Daemon::fullFile());
    ASSERT_NE(d.up(), "") << d.process.output();

    // The order of the steps; their command lines are the groups' own.
    const std::vector<std::string> started = commands(logged);
    const std::string steps[] = {"modprobe tarn-gw ",
                                 "killall /home/tarn/canoip/canoipd",  // the helper's restart
                                 "killall ntpd",                       // LAN as a whole
                                 "ifconfig eth0 192.0.2.10 ",
                                 "killall ntpd",
                                 "ip link set can0 down",
                                 "ip link set can0 type can ",
                                 "ip link set can0 up",
                                 "ip link set can1 down",
                                 "ip link set can1 type can ",
                                 "ip link set can1 up"};
    ASSERT_EQ(started.size(), std::size(steps)) << ::testing::PrintToString(started);
    for (std::size_t i = 0; i < started.size(); ++i)
        EXPECT_TRUE(started[i].starts_with(steps[i])) << started[i];
    EXPECT_TRUE(poll([&] { return std::ranges::count(commands(0, true), helper) == helpers + 1; },
                     kAnswerMs));
    EXPECT_NE(readFile("/proc/modules").find("tarn_gw "), std::string::npos);
    EXPECT_NE(readFile("/proc/devices").find(" tarn-gw\n"), std::string::npos);

    // All eight routes run in the driver: a read of a route fetches its state back from there.
    ASSERT_TRUE(d.start(62, 3, 0));
    const std::tuple<unsigned, unsigned, const char*> reads[] = {
        {0, 1, "8"}, {1, 1, "2"}, {1, 8, "127.0.0.1:5000"}, {8, 1, "2"}, {8, 8, "127.0.0.8:5007"}};
    for (const auto& [route, f3, answer] : reads)
        EXPECT_TRUE(d.reads(kRoute, route, f3, answer));
    ASSERT_TRUE(d.end());
}

// A short soak of the benchmark's mixed sessions: every request is answered positively, and
// after the warm-up the daemon holds the same descriptors and hardly more memory.
TEST(Daemon, StaysLevelOverAShortSoak) {
    ASSERT_EQ(runStub("modprobe", {"tarn-gw"}), 0);  // whatever the tests before left
    const std::string procfs = sandbox("CFGD_SANDBOX_PROC");
    Daemon d(25, 26, Daemon::fullFile());
    ASSERT_NE(d.up(), "") << d.process.output();
    client::Connection cfgd;
    ASSERT_EQ(cfgd.open(d.lock.c_str()), client::Status::Ok);
    soak::Soak sessions;
    soak::Use warm;
    for (long requests = 0; requests < 2 * soak::kWarmUpRequests;) {
        const long made = sessions.session(cfgd);
        ASSERT_GT(made, 0) << d.process.output();
        requests += made;
        if (warm.descriptors < 0 && requests >= soak::kWarmUpRequests)
            warm = soak::use(procfs.c_str(), d.process.pid());
    }
    const soak::Use now = soak::use(procfs.c_str(), d.process.pid());
    EXPECT_TRUE(soak::level(warm, now))
        << "descriptors " << warm.descriptors << " -> " << now.descriptors << ", VmRSS "
        << warm.residentKilobytes << " -> " << now.residentKilobytes << " kB";
}

}  // namespace
}  // namespace e2e
