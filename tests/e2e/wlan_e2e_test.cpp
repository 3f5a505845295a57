// The reboot that a change between WLAN station and AP asks for, end to end: the real daemon,
// built to serve one WLAN interface (the device's build serves none, so no request of it can
// ask for a reboot), inside the sandbox, where the reboot command reaches the logging stubs.

#include <gtest/gtest.h>

#include "harness.h"

namespace e2e {
namespace {

constexpr unsigned kWlanGroup = 3;
constexpr unsigned kModeParameter = 7;
constexpr const char* kPlatformFile = "/mnt/user/platform.config";
constexpr const char* kApFile = "/mnt/user/uaputl.conf";

TEST(WlanDaemon, ModeChangeToApRebootsAfterEachAnswer) {
    const std::string platformBefore = readFile(kPlatformFile);
    ASSERT_NE(platformBefore.find("WLAN_MODE=WLAN\n"), std::string::npos)
        << "the sandbox's device must start as a station";
    Daemon d(61, 62, Daemon::freshFile(""), CFGD_E2E_WLAN_DAEMON);
    ASSERT_NE(d.up(), "") << d.process.output();
    // The command log from `logged` on, once it holds `expected` or the wait is over.
    const std::size_t logged = commands().size();
    std::vector<std::string> seen;
    const auto awaitCommands = [&](const std::vector<std::string>& expected) {
        (void)poll([&] { return (seen = commands(logged)) == expected; }, kAnswerMs);
        return seen;
    };

    EXPECT_TRUE(d.start(61, 0, 1));
    EXPECT_TRUE(d.sets(kWlanGroup, 1, kModeParameter, "2", SET_TEMP_PARAM));
    EXPECT_TRUE(d.end());
    // The apply brings the interface up as an AP (DHCP client on, as the file's defaults say);
    // the reboot runs after the answer, its five seconds spent in the stub.
    const std::vector<std::string> reboot = {"sleep 5", "sync", "reboot"};
    std::vector<std::string> expected = {
        "S39uap stop", "ifconfig eth0 down", "udhcpc.sh restart uap0 VORL-Gateway",
        "S39uap start /tmp/uaputl0.conf", "ifconfig uap0 0.0.0.0 up"};
    expected.insert(expected.end(), reboot.begin(), reboot.end());
    EXPECT_EQ(awaitCommands(expected), expected);
    EXPECT_EQ(readFile(kPlatformFile), "WLAN_DRIVER_REGCODE=0x10\nWLAN_MODE=UAP\nUDHCPDCNF=\"\"\n");
    EXPECT_NE(readFile(kApFile), "");

    // The request stays raised: every further answer is followed by the command again.
    EXPECT_TRUE(d.reads(kWlanGroup, 0, 0, "1"));
    expected.insert(expected.end(), reboot.begin(), reboot.end());
    EXPECT_EQ(awaitCommands(expected), expected);

    // The sandbox's device is shared with the other tests: back to a station.
    std::ofstream(kPlatformFile, std::ios::trunc) << platformBefore;
    (void)std::remove(kApFile);  // the check above has read it
}

}  // namespace
}  // namespace e2e
