// The daemon's other builds end to end. The hardened one: who may reach its queue, semaphores
// and lock file, and a host name with shell syntax that never reaches a command line. The one
// that serves a WLAN interface (the device's build serves none, so no request of it can ask for
// a reboot): the reboot that a change between station and AP asks for, where the reboot command
// reaches the logging stubs.

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/stat.h>

#include <algorithm>

#include "harness.h"
#include "model/value_rules.h"

namespace e2e {
namespace {

TEST(HardenedDaemon, RefusesShellSyntaxAndOpensItsIpcToTheFrontEndOnly) {
    Daemon d(121, 122, Daemon::freshFile(""), CFGD_E2E_HARDENED_DAEMON);
    const group* frontEnd = getgrnam(CFGD_E2E_HARDENED_GROUP);
    const gid_t gid = frontEnd != nullptr ? frontEnd->gr_gid : 0;  // else root's, as it says
    msqid_ds queue{};
    ASSERT_EQ(msgctl(d.queue, IPC_STAT, &queue), 0);
    EXPECT_EQ(std::pair(queue.msg_perm.mode & 0777, queue.msg_perm.gid), std::pair(0660u, gid));
    semid_ds set{};
    const int sets = semget(121, 0, 0);
    ASSERT_EQ(semctl(sets, 0, IPC_STAT, &set), 0);
    EXPECT_EQ(std::pair(set.sem_perm.mode & 0777, set.sem_perm.gid), std::pair(0660u, gid));
    struct stat lock {};
    ASSERT_EQ(stat(d.lock.c_str(), &lock), 0);
    EXPECT_EQ(lock.st_mode & 0777, 0644u);
    // A trial's directory is root's, and only the queue's group may look in.
    ran(d, {"set", "--trial", "60", "can1.bitrate", "250000"});
    struct stat directory {};
    ASSERT_EQ(lstat((d.lock + ".trial").c_str(), &directory), 0);
    EXPECT_EQ(std::tuple(directory.st_mode & 07777, directory.st_uid, directory.st_gid),
              std::tuple(0750u, 0u, gid));
    ran(d, {"rollback"});

    const std::string logPath = sandbox("CFGD_SANDBOX_LOG");
    const std::size_t logged = readFile(logPath).size();
    const char* name = "gw$(touch /tmp/x)";
    EXPECT_TRUE(d.start(121, 0, 2));
    EXPECT_TRUE(d.answers(text(SET_PARAM, 1, 0, 0, std::string(name) + '\0'),
                          text(NEG_ANSW, 1, 0, 0, rules::kHostNameText)));
    EXPECT_TRUE(d.sets(2, 1, 1, "1"));  // DHCP on: its client line carries the host name
    // A new name: the abort then restarts canoipd, as it would any helper whose line changed.
    EXPECT_TRUE(d.answers(text(SET_PARAM, 1, 0, 0, std::string("gw-7") + '\0'), ok(1, 0, 0)));
    EXPECT_TRUE(d.end());
    EXPECT_TRUE(d.answers(text(ABORT_SESSION, 0, 0, 0), ok(0, 0, 0)));
    std::string log;
    EXPECT_TRUE(poll(
        [&] {
            return (log = readFile(logPath).substr(logged)).find("canoipd -P") != std::string::npos;
        },
        kAnswerMs))
        << log;
    EXPECT_NE(log.find("udhcpc.sh restart"), std::string::npos) << log;
    EXPECT_EQ(log.find("gw$("), std::string::npos) << log;
}

// The reboot that a change between WLAN station and AP asks for, end to end: the real daemon,
// built to serve one WLAN interface (the device's build serves none, so no request of it can
// ask for a reboot), inside the sandbox, where the reboot command reaches the logging stubs.

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
