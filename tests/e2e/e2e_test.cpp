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
    const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
        {{"-v"}, 2, version},
        {{"-v", "-q", "256"}, 2, version},
        {{"-f", path128}, 255, tooLong},
        {{"-l", path128}, 255, tooLong},
        {{"-q", "256"}, 255, usage},
        {{"-s", "-1"}, 255, usage},
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
    ASSERT_TRUE(send(early, text(kStart, 33, 9, 9)));
    ASSERT_TRUE(send(early, text(kRead, 12, 9, 9)));
    ASSERT_TRUE(send(early, "stale", 9));
    Daemon d(5, 6);
    ASSERT_EQ(d.up(), "5, 6, " + std::to_string(d.process.pid()) + "\n") << d.process.output();
    // Requests are served in order: an answer to a stale or malformed one would come first.
    EXPECT_TRUE(d.start(33, 7, 2));
    ASSERT_TRUE(send(d.queue, text(kRead, 12, 256, 0)));
    EXPECT_TRUE(d.reads(12, 3, 4, ""));
    EXPECT_TRUE(d.answers(text(kSet, 0, 4, 0, std::string(540, 'x').c_str()),
                          text(kNegative, 0, 0, 0, "ERROR: Argument list too long!")));
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

// The daemon's CAN bit rate, read in a session of its own.
void expectBitRate(Daemon& d, long session, const char* rate) {
    EXPECT_TRUE(d.start(session));
    EXPECT_TRUE(d.reads(kCanGroup, 1, kBitRate, rate));
    EXPECT_TRUE(d.end());
}

TEST(Daemon, ServesTheClientAndReconfiguresCan) {
    std::string orderNumber;
    std::istringstream env(readFile("/tmp/uboot_env"));
    for (std::string line; std::getline(env, line);)
        if (line.starts_with("Ordernr=")) orderNumber = line.substr(8);
    ASSERT_NE(orderNumber, "");
    ASSERT_NE(orderNumber, "GWMD-310275") << "the sample must differ from the built-in default";
    Daemon d(7, 8);
    ASSERT_NE(d.up(), "") << d.process.output();
    Process client(CFGD_E2E_CLIENT, {"-l", d.lock, "get", "0", "2", "0"});
    EXPECT_EQ(client.wait(kAnswerMs), 0);
    EXPECT_EQ(client.output(), orderNumber + "\n");

    // The stubs log what the program received: the shell's word splitting has taken the blank
    // at the end of the daemon's "... berr-reporting off " command.
    const auto reconfigured = [](const char* rate) {
        return std::vector<std::string>{
            "ip link set can0 down",
            std::string("ip link set can0 type can bitrate ") + rate +
                " sample-point 0.800 listen-only on loopback off triple-sampling off one-shot off "
                "berr-reporting off",
            "ip link set can0 up"};
    };
    const std::string before = readFile(d.file);
    std::size_t logged = commands().size();
    ASSERT_TRUE(d.start(50, 0, 3));  // f3: writes to come
    EXPECT_TRUE(d.sets(kCanGroup, 1, kBitRate, "250000"));
    ASSERT_TRUE(d.end());
    EXPECT_EQ(commands(logged), reconfigured("250000"));
    // Stored: the new file moved into place by the real mv, the old one kept as the backup.
    const std::string stored = readFile(d.file);
    EXPECT_EQ(stored.rfind("#########################################\n# KIV configuration file\n"
                           "# Format version 1.3.1\n",
                           0),
              0u)
        << stored;
    EXPECT_NE(stored.find("\n[can_0]\n"), std::string::npos) << stored;
    EXPECT_NE(stored.find("\nbaudrate                       = 250000\n"), std::string::npos);
    EXPECT_EQ(readFile("/mnt/user/kiv_config.old"), before);
    EXPECT_NE(access("/tmp/kiv_config.tmp", F_OK), 0);

    // A temporary write is applied and leaves the file alone; an abort reloads the file.
    logged = commands().size();
    ASSERT_TRUE(d.start(51, 0, 1));
    EXPECT_TRUE(d.sets(kCanGroup, 1, kBitRate, "125000", kSetTemporary));
    ASSERT_TRUE(d.end());
    EXPECT_EQ(commands(logged), reconfigured("125000"));
    expectBitRate(d, 52, "125000");
    ASSERT_TRUE(d.start(53, 0, 1));
    EXPECT_TRUE(d.sets(kCanGroup, 1, kBitRate, "100000"));
    EXPECT_TRUE(d.end(kAbort));
    expectBitRate(d, 54, "250000");
    EXPECT_EQ(readFile(d.file), stored);

    // A restart comes up with the stored values.
    ASSERT_EQ(kill(d.process.pid(), SIGTERM), 0);
    ASSERT_EQ(d.process.wait(kStartMs), 255);
    Daemon again(7, 8, d.file);
    ASSERT_NE(again.up(), "") << again.process.output();
    expectBitRate(again, 55, "250000");
}

TEST(Daemon, StartsOnTheDefaultsBesideAFileItCannotParse) {
    const std::string unparsable =
        "#########################################\n"
        "# KIV configuration file\n# Format version 1.3.1\n"
        "[can_0]\nbaudrate = 125000\ndescription = " +
        std::string(1030, 'x') + "\n";
    Daemon d(9, 10, Daemon::freshFile(unparsable));
    ASSERT_NE(d.up(), "") << d.process.output();
    const std::string atStart = readFile(d.file);  // the start-up's line feed over its first byte
    EXPECT_EQ(atStart.substr(1), unparsable.substr(1));
    ASSERT_TRUE(d.start(56, 0, 1));
    EXPECT_TRUE(d.reads(kCanGroup, 1, kBitRate, "500000"));
    EXPECT_TRUE(d.sets(kCanGroup, 1, kBitRate, "250000"));
    // Applied, but the store refuses to write over the file, without a text.
    EXPECT_TRUE(d.answers(text(kFinish, 0, 0, 0), text(kNegative, 0, 0, 0, "")));
    EXPECT_EQ(readFile(d.file), atStart);
    const std::string output = d.process.output();
    const std::string line = "can't parse file " + d.file + "\n";
    EXPECT_TRUE(output.find(line) != std::string::npos && output.find(line) == output.rfind(line))
        << output;

    // A directory in the file's place cannot be opened: the start ends with its status (-4).
    const std::string directory = Daemon::freshFile("");
    ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
    Process refused(CFGD_E2E_DAEMON,
                    {"-s", "9", "-q", "10", "-l", "/tmp/e2e-refused", "-f", directory});
    EXPECT_EQ(refused.wait(kStartMs), 252) << refused.output();
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
