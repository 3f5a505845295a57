// The reboot that a change between WLAN station and AP asks for, end to end: the real daemon,
// built to serve one WLAN interface (the device's build serves none, so no request of it can
// ask for a reboot), inside the sandbox, where the reboot command reaches the logging stubs.

#include <gtest/gtest.h>

#include <algorithm>

#include "harness.h"

namespace e2e {
namespace {

TEST(WlanDaemon, ModeChangeToApRebootsAfterEachAnswer) {
    const std::string platformFile = "/mnt/user/platform.config", before = readFile(platformFile);
    ASSERT_NE(before.find("WLAN_MODE=WLAN\n"), std::string::npos) << "must start as a station";
    Daemon d(61, 62, Daemon::freshFile(""), CFGD_E2E_WLAN_DAEMON);
    const std::size_t logged = commands().size();
    // The log ends with the `count`th reboot (its five seconds spent in the stub).
    const auto rebooted = [&](long count) {
        return poll(
            [&] {
                const std::vector<std::string> seen = commands(logged);
                return std::ranges::count(seen, "reboot") == count && seen.size() >= 3 &&
                       std::vector(seen.end() - 3, seen.end()) ==
                           std::vector<std::string>{"sleep 5", "sync", "reboot"};
            },
            kAnswerMs);
    };
    EXPECT_TRUE(d.start(61, 0, 1));
    EXPECT_TRUE(d.sets(3, 1, 7, "2", SET_TEMP_PARAM));  // the interface.s mode: AP
    EXPECT_TRUE(d.end());
    EXPECT_TRUE(rebooted(1)) << ::testing::PrintToString(commands(logged));
    // The request stays raised: every further answer is followed by the command again.
    EXPECT_TRUE(d.reads(3, 0, 0, "1"));
    EXPECT_TRUE(rebooted(2)) << ::testing::PrintToString(commands(logged));

    // The sandbox's device is shared with the other tests: back to a station.
    std::ofstream(platformFile, std::ios::trunc) << before;
    (void)std::remove("/mnt/user/uaputl.conf");
}

}  // namespace
}  // namespace e2e
