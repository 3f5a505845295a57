// The daemon on the simulated device's network and gateway driver: LAN addressing reaches the
// sandbox's own eth0 through the real ifconfig and route, the start-up loads the gateway
// module and starts the routes, and a short soak leaves the daemon's descriptors and memory
// level.
// Addresses are from the documentation ranges and exist only in the sandbox's namespace.

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <tuple>

#include "harness.h"
#include "soak_session.h"

namespace e2e {
namespace {

constexpr unsigned kLan = 2, kRoute = 5;
constexpr unsigned kIpv4 = 2, kMask = 3, kGateway = 5, kMac = 8;
constexpr const char* kNoNtp = "killall ntpd";  // the NTP step that ends every LAN apply
constexpr const char* kModprobe =
    "modprobe tarn-gw routesmax=8 defamax=8 defsmax=6 defsdu=50 defcdm=500 deffpp=8 deftcpdly=0 "
    "deftcpkeepcnt=3 deftcpkeepidle=5 deftcpkeepintvl=5";

// A device with static addressing and two routes, as the daemon writes its file.
constexpr const char* kTwoRoutes = R"(#########################################
# KIV configuration file
# Format version 1.3.1
#########################################
[host]
devicename                     = e2e-gw

[lan_0]
usedhcp                        = 0
ipv4                           = 198.51.100.20
subnetmask                     = 255.255.255.0
ipv4gw                         = 198.51.100.1

[fwd_gen]
count                          = 2

[rt_0]
rtinfo                         = to the test bench
active                         = TRUE
type                           = CAN2LAN
interface1                     = can0
protocol2                      = UDP
destination2                   = 198.51.100.30:5000
fpp                            = 8

[rt_1]
rtinfo                         = from the test bench
active                         = TRUE
type                           = LAN2CAN
interface1                     = can1
protocol2                      = TCP
destination2                   = 198.51.100.31:5001

)";

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
    const std::tuple<const char*, const char*, const char*, bool> cases[] = {
        {"198.51.100.7", "255.255.255.0", "198.51.100.1", true},
        // A gateway of 0.0.0.0 means none: no route command, yet it is the name server.
        {"198.51.100.130", "255.255.255.128", "0.0.0.0", false},
    };
    for (const auto& [address, mask, gateway, routed] : cases) {
        const std::size_t logged = commands().size();
        ASSERT_TRUE(d.start(60, 1, 3));
        // The session's first read of the interface puts the kernel's address into the record,
        // so it comes before the writes. Each write is read back; the read, a request without
        // value, also keeps a value from being taken with the tail of a longer one before it.
        EXPECT_TRUE(d.reads(kLan, 1, kMac, mac.c_str()));
        for (const auto& [f3, value] :
             {std::pair{kIpv4, address}, {kMask, mask}, {kGateway, gateway}}) {
            EXPECT_TRUE(d.sets(kLan, 1, f3, value));
            EXPECT_TRUE(d.reads(kLan, 1, f3, value));
        }
        ASSERT_TRUE(d.end());
        std::vector<std::string> expected = {std::string("ifconfig eth0 ") + address + " netmask " +
                                             mask + " up"};
        if (routed) {
            expected.push_back("route del default gw 0.0.0.0 dev eth0");
            expected.push_back(std::string("route add default gw ") + gateway + " dev eth0");
        }
        expected.push_back(kNoNtp);
        EXPECT_EQ(commands(logged), expected) << address;
        EXPECT_EQ(readFile("/etc/resolv.conf"), std::string("nameserver ") + gateway + "\n");
        EXPECT_TRUE(!routed || routesDefaultThrough(gateway)) << readFile("/proc/net/route");

        // The next session reads what the kernel reports for the interface.
        ASSERT_TRUE(d.start(61, 2, 0));
        EXPECT_TRUE(d.reads(kLan, 1, kMac, kernelMac().c_str()));
        EXPECT_TRUE(d.reads(kLan, 1, kIpv4, address));
        ASSERT_TRUE(d.end());
    }
}

TEST(StartUp, LoadsTheModuleStartsTheRoutesAndAppliesLanBeforeCan) {
    ASSERT_EQ(runStub("rmmod", {"tarn-gw"}), 0);
    ASSERT_EQ(readFile("/proc/modules").find("tarn_gw "), std::string::npos);
    const std::string helper = "canoipd -P canoip -p 45321 -N e2e-gw -I eth0";
    const auto helpers = std::ranges::count(commands(0, true), helper);
    const std::size_t logged = commands().size();
    Daemon d(23, 24, Daemon::freshFile(kTwoRoutes));
    ASSERT_NE(d.up(), "") << d.process.output();

    std::vector<std::string> expected = {
        kModprobe,
        "killall /home/tarn/canoip/canoipd",  // the helper's restart: stop, then start
        kNoNtp,                               // LAN as a whole
        "ifconfig eth0 198.51.100.20 netmask 255.255.255.0 up",
        "route del default gw 0.0.0.0 dev eth0",
        "route add default gw 198.51.100.1 dev eth0",
        kNoNtp,
    };
    for (const std::string link : {"ip link set can0", "ip link set can1"})
        expected.insert(expected.end(), {link + " down",
                                         link + " type can bitrate 500000 sample-point 0.800 "
                                                "listen-only on loopback off triple-sampling off "
                                                "one-shot off berr-reporting off",
                                         link + " up"});
    EXPECT_EQ(commands(logged), expected);
    EXPECT_TRUE(poll([&] { return std::ranges::count(commands(0, true), helper) == helpers + 1; },
                     kAnswerMs));
    EXPECT_NE(readFile("/proc/modules").find("tarn_gw "), std::string::npos);
    EXPECT_NE(readFile("/proc/devices").find(" tarn-gw\n"), std::string::npos);

    // Both routes run in the driver: a read of a route fetches its state back from there.
    ASSERT_TRUE(d.start(62, 3, 0));
    const std::tuple<unsigned, unsigned, const char*> reads[] = {
        {0, 1, "2"},  {1, 0, "to the test bench"},
        {1, 1, "2"},  {1, 8, "198.51.100.30:5000"},
        {1, 11, "8"}, {2, 1, "2"},
        {2, 6, "6"},  {2, 8, "198.51.100.31:5001"},
        {3, 1, "0"},
    };
    for (const auto& [route, f3, answer] : reads)
        EXPECT_TRUE(d.reads(kRoute, route, f3, answer));
    ASSERT_TRUE(d.end());
}

// A short soak of the benchmark's mixed sessions: every request is answered positively, and
// after the warm-up the daemon holds the same descriptors and hardly more memory.
TEST(Daemon, StaysLevelOverAShortSoak) {
    ASSERT_EQ(runStub("modprobe", {"tarn-gw"}), 0);  // whatever the tests before left
    const char* repository = std::getenv(soak::kRepositoryVariable);
    const char* procfs = std::getenv("CFGD_SANDBOX_PROC");
    ASSERT_TRUE(repository != nullptr && procfs != nullptr);
    Daemon d(25, 26,
             Daemon::freshFile(readFile(std::string(repository) + "/" + soak::kConfiguration)));
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
            warm = soak::use(procfs, d.process.pid());
    }
    const soak::Use now = soak::use(procfs, d.process.pid());
    EXPECT_TRUE(soak::level(warm, now))
        << "descriptors " << warm.descriptors << " -> " << now.descriptors << ", VmRSS "
        << warm.residentKilobytes << " -> " << now.residentKilobytes << " kB";
}

}  // namespace
}  // namespace e2e
