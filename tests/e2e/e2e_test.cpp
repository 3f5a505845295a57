// The real daemon, driven over a real System V message queue inside the sandbox, where its
// commands only reach logging stubs and its files land on private mounts.

#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/stat.h>

#include <tuple>

#include "harness.h"

namespace e2e {
namespace {

constexpr unsigned kCanGroup = 4;
constexpr unsigned kBitRate = 2;

// Each start that ends before serving: what it printed and its exit status.
TEST(CommandLine, EndsWithItsTextAndStatus) {
    const std::string version = "1.5.5\nbuild for: GWMD-310275 at Jan 25 2017 13:37:14\n";
    const std::string tooLong = "filename to large (max. 127)\n";
    const std::string usage =
        "\nUsage: cfgd [-f IniFile] [-l lockFile] [-s semKey] [-q queueKey]\n"
        "\t\t -f\t Ini file to use (default /etc/kiv_config.ini)\n"
        "\t\t -l\t Lock file to use (default /tmp/kiv_lock)\n"
        "\t\t -s\t IPC key for semaphore \n"
        "\t\t -s\t 0 < semKey < 255, if no number is specified ftoc(iniFile, 1) is used to "
        "create one\n"
        "\t\t -q\t IPC key for queue \n"
        "\t\t -q\t 0 < queueKey < 255, if no number is specified ftoc(iniFile, 2) is used to "
        "create one\n";
    const std::string path128 = "/tmp/" + std::string(119, 'p') + ".ini";
    // A directory in the configuration file's place cannot be opened: the start fails (-4).
    const std::string directory = Daemon::freshFile("");
    ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
    const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
        {{"-v"}, 2, version},
        {{"-v", "-q", "256"}, 2, version},
        {{"-f", path128}, 255, tooLong},
        {{"-l", path128}, 255, tooLong},
        {{"-q", "256"}, 255, usage},
        {{"-s", "-1"}, 255, usage},
        {{"-f", directory}, 252, ""},
    };
    for (const auto& [arguments, status, output] : cases) {
        Process daemon(CFGD_E2E_DAEMON, arguments);
        const std::string call = arguments.front() + " " + arguments.back();
        EXPECT_EQ(daemon.wait(kStartMs), status) << call;
        EXPECT_EQ(daemon.output(), output) << call;
    }
}

TEST(Daemon, ServesRequestsInOrderAndCleansUpOnTerm) {
    // Left on the queue before start: the daemon must not serve any of them.
    const int early = msgget(6, IPC_CREAT | 0666);
    ASSERT_TRUE(send(early, text(START_SESSION, 33, 9, 9)));
    ASSERT_TRUE(send(early, text(READ_PARAM, 12, 9, 9)));
    ASSERT_TRUE(send(early, "stale", 9));
    Daemon d(5, 6);
    ASSERT_EQ(d.up(), "5, 6, " + std::to_string(d.process.pid()) + "\n") << d.process.output();
    // Requests are served in order: an answer to a stale one would come first.
    EXPECT_TRUE(d.start(33, 7, 2));
    EXPECT_TRUE(d.reads(12, 3, 4, ""));
    msqid_ds queue{};
    ASSERT_EQ(msgctl(d.queue, IPC_STAT, &queue), 0);
    EXPECT_EQ(queue.msg_qnum, 0u) << "messages nobody asked for, or stale ones kept";

    const int semaphores = semget(5, 0, 0);
    ASSERT_GE(semaphores, 0);
    ASSERT_EQ(kill(d.process.pid(), SIGTERM), 0);
    EXPECT_EQ(d.process.wait(kStartMs), 255);
    EXPECT_EQ(msgctl(d.queue, IPC_STAT, &queue), -1);
    semid_ds semaphoreSet{};
    EXPECT_EQ(semctl(semaphores, 0, IPC_STAT, &semaphoreSet), -1);
    EXPECT_NE(access(d.lock.c_str(), F_OK), 0);
}

// A stored write is applied (the stubs log the commands) and reaches the file through the
// real mv, the old file kept as the backup.
TEST(Daemon, StoresAWrite) {
    Daemon d(7, 8);
    ASSERT_NE(d.up(), "") << d.process.output();
    const std::string before = readFile(d.file);
    const std::size_t logged = commands().size();
    ASSERT_TRUE(d.start(50, 0, 3));  // f3: writes to come
    EXPECT_TRUE(d.sets(kCanGroup, 1, kBitRate, "250000"));
    ASSERT_TRUE(d.end());
    const std::vector<std::string> applied = commands(logged);  // down, the new rate, up
    ASSERT_EQ(applied.size(), 3u) << ::testing::PrintToString(applied);
    EXPECT_TRUE(applied[1].starts_with("ip link set can0 type can bitrate 250000 ")) << applied[1];
    EXPECT_NE(readFile(d.file).find("\nbaudrate                       = 250000\n"),
              std::string::npos);
    EXPECT_EQ(readFile("/mnt/user/kiv_config.old"), before);
    EXPECT_NE(access("/tmp/kiv_config.tmp", F_OK), 0);
}

// A file the library cannot parse (a line longer than it reads) is left as it is, but for the
// line feed the start-up writes over its first byte; the daemon says so once and starts on the
// defaults.
TEST(Daemon, StartsOnTheDefaultsBesideAFileItCannotParse) {
    const std::string unparsable =
        "#########################################\n"
        "# KIV configuration file\n# Format version 1.3.1\n"
        "[can_0]\nbaudrate = 125000\ndescription = " +
        std::string(1030, 'x') + "\n";
    Daemon d(9, 10, Daemon::freshFile(unparsable));
    ASSERT_NE(d.up(), "") << d.process.output();
    EXPECT_EQ(readFile(d.file), "\n" + unparsable.substr(1));
    ASSERT_TRUE(d.start(56, 0, 0));
    EXPECT_TRUE(d.reads(kCanGroup, 1, kBitRate, "500000"));
    ASSERT_TRUE(d.end());
    const std::string output = d.process.output();
    const std::string line = "can't parse file " + d.file + "\n";
    EXPECT_TRUE(output.find(line) != std::string::npos && output.find(line) == output.rfind(line))
        << output;
}

}  // namespace
}  // namespace e2e

int main(int argc, char** argv) {
    // Outside the sandbox the daemon would reconfigure this machine.
    const char* token = std::getenv("CFGD_SANDBOX");
    if (token == nullptr || e2e::readFile("/etc/cfgd-sandbox") != std::string(token) + "\n") {
        std::fprintf(stderr,
                     "%s: runs only inside the sandbox; run it as\n"
                     "  sandbox/sandbox.sh test %s\n",
                     argv[0], argv[0]);
        return 2;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
