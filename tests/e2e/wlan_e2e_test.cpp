// The reboot that a change between WLAN station and AP asks for, end to end: the real daemon,
// built to serve one WLAN interface (the device's build serves none, so no request of it can
// ask for a reboot), inside the sandbox, where the reboot command reaches the logging stubs.

#include <gtest/gtest.h>

#include "harness.h"

namespace e2e {
namespace {

constexpr int kStartMs = 20000;  // start-up runs every apply; sanitizer builds are slow
constexpr int kAnswerMs = 5000;  // an answer, or a command, that is due

enum : unsigned { kStart = 0, kRead = 1, kPositive = 3, kFinish = 5, kSetTemporary = 7 };
constexpr unsigned kWlanGroup = 3;
constexpr unsigned kModeParameter = 7;
constexpr long kSession = 61;
constexpr int kSemaphoreKey = 61;
constexpr int kQueueKey = 62;
constexpr const char* kPlatformFile = "/mnt/user/platform.config";
constexpr const char* kApFile = "/mnt/user/uaputl.conf";

using Lines = std::vector<std::string>;

// The command log from `first` on, once it holds `expected` or the wait is over.
Lines awaitCommands(std::size_t first, const Lines& expected) {
    Lines logged;
    (void)poll([&] { return (logged = commandsSince(first)) == expected; }, kAnswerMs);
    return logged;
}

TEST(WlanDaemon, ModeChangeToApRebootsAfterEachAnswer) {
    const std::string platformBefore = readFile(kPlatformFile);
    ASSERT_NE(platformBefore.find("WLAN_MODE=WLAN\n"), std::string::npos)
        << "the sandbox's device must start as a station";
    const std::string lock = "/tmp/e2e-wlan-lock";
    Process daemon(CFGD_E2E_WLAN_DAEMON,
                   {"-s", std::to_string(kSemaphoreKey), "-q", std::to_string(kQueueKey), "-l",
                    lock, "-f", "/tmp/e2e-wlan.ini"});
    ASSERT_TRUE(poll([&] { return readFile(lock).ends_with('\n'); }, kStartMs)) << daemon.output();
    const int queue = msgget(kQueueKey, 0);
    const auto ask = [queue](const std::string& request) {
        EXPECT_TRUE(send(queue, request)) << request;
        return receive(queue, kSession, kAnswerMs).value_or("(no answer)");
    };

    const std::size_t logged = commandsSince(0).size();
    EXPECT_EQ(ask(text(kStart, kSession, 0, 1)), text(kPositive, 1, 0, 1, ""));
    EXPECT_EQ(ask(text(kSetTemporary, kWlanGroup, 1, kModeParameter, "2")),
              text(kPositive, kWlanGroup, 1, kModeParameter, ""));
    EXPECT_EQ(ask(text(kFinish, 0, 0, 0)), text(kPositive, 0, 0, 0, ""));
    // The apply brings the interface up as an AP (DHCP client on, as the file's defaults say);
    // the reboot runs after the answer, its five seconds spent in the stub.
    const Lines reboot = {"sleep 5", "sync", "reboot"};
    Lines expected = {"S39uap stop", "ifconfig eth0 down", "udhcpc.sh restart uap0 VORL-Gateway",
                      "S39uap start /tmp/uaputl0.conf", "ifconfig uap0 0.0.0.0 up"};
    expected.insert(expected.end(), reboot.begin(), reboot.end());
    EXPECT_EQ(awaitCommands(logged, expected), expected);
    EXPECT_EQ(readFile(kPlatformFile), "WLAN_DRIVER_REGCODE=0x10\nWLAN_MODE=UAP\nUDHCPDCNF=\"\"\n");
    EXPECT_NE(readFile(kApFile), "");

    // The request stays raised: every further answer is followed by the command again.
    EXPECT_EQ(ask(text(kRead, kWlanGroup, 0, 0)), text(kPositive, kWlanGroup, 0, 0, "1"));
    expected.insert(expected.end(), reboot.begin(), reboot.end());
    EXPECT_EQ(awaitCommands(logged, expected), expected);

    // The sandbox's device is shared with the other tests: back to a station.
    std::ofstream(kPlatformFile, std::ios::trunc) << platformBefore;
    (void)std::remove(kApFile);  // the check above has read it
}

}  // namespace
}  // namespace e2e
