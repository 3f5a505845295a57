// The daemon on the simulated device: a session reads the sandbox's own eth0 through the real
// ioctls, the start-up loads the gateway module and starts the routes, and a short soak leaves
// the daemon's descriptors and memory level.

#include <algorithm>
#include <cctype>
#include <tuple>

#include "harness.h"

namespace e2e {
namespace {

constexpr unsigned kLan = 2, kRoute = 5;

// The session's first read of the interface takes the kernel's MAC and address.
TEST(Lan, FirstReadTakesTheKernelsAddresses) {
    Daemon d(21, 22);
    ASSERT_EQ(runStub("ifconfig", {"eth0", "198.51.100.7"}), 0);  // behind the daemon's back
    std::string mac = readFile("/sys/class/net/eth0/address");
    mac.erase(mac.find_last_not_of('\n') + 1);
    std::ranges::transform(mac, mac.begin(), [](unsigned char c) { return std::toupper(c); });
    ASSERT_EQ(mac.size(), 17u) << "the sandbox has no eth0";
    ASSERT_TRUE(d.start(60));
    EXPECT_TRUE(d.reads(kLan, 1, 8, mac.c_str()));
    EXPECT_TRUE(d.reads(kLan, 1, 2, "198.51.100.7"));
    ASSERT_TRUE(d.end());
}

TEST(StartUp, LoadsTheModuleStartsTheRoutesAndAppliesLanBeforeCan) {
    ASSERT_EQ(runStub("rmmod", {"tarn-gw"}), 0);
    const std::size_t logged = commands().size();
    Daemon d(23, 24, Daemon::fullFile());

    // Every group is applied: first the module and the helper's restart, then LAN before CAN.
    // The command lines are the groups' own.
    const std::vector<std::string> started = commands(logged);
    const auto at = [&](const std::string& command) {
        return std::ranges::find_if(started,
                                    [&](const auto& l) { return l.starts_with(command); }) -
               started.begin();
    };
    ASSERT_EQ(started.size(), 11u) << ::testing::PrintToString(started);
    EXPECT_EQ(at("modprobe tarn-gw "), 0);
    EXPECT_EQ(at("killall /home/tarn/canoip/canoipd"), 1);
    EXPECT_LT(at("ifconfig eth0 192.0.2.10 "), at("ip link set can0 down"));
    EXPECT_LT(at("ip link set can0 up"), at("ip link set can1 up"));

    // The module is loaded, and all eight routes run in the driver: a read of a route fetches its
    // state back from there.
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
    const std::string procfs = sandbox("CFGD_SANDBOX_PROC");
    Daemon d(25, 26, Daemon::fullFile());
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
