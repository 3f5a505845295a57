// The real daemon, driven over a real System V message queue inside the sandbox, where its
// commands only reach logging stubs and its files land on private mounts.

#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/stat.h>

#include <tuple>

#include "harness.h"

namespace e2e {
namespace {

// Each start that ends before serving: the start of what it printed and its exit status.
TEST(CommandLine, EndsWithItsTextAndStatus) {
    const std::string path128 = "/tmp/" + std::string(119, 'p') + ".ini";
    // A directory in the configuration file's place cannot be opened: the start fails (-4).
    const std::string directory = Daemon::freshFile("");
    ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
    const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
        {{"-v"}, 2, "1.5.5\nbuild for: "},
        {{"-f", path128}, 255, "filename to large (max. 127)\n"},
        {{"-l", path128}, 255, "filename to large"},
        {{"-q", "256"}, 255, "\nUsage: cfgd "},
        {{"-s", "-1"}, 255, "\nUsage: cfgd "},
        {{"-f", directory}, 252, ""},
    };
    for (const auto& [arguments, status, output] : cases) {
        Process daemon(CFGD_E2E_DAEMON, arguments);
        EXPECT_EQ(daemon.wait(kStartMs), status) << arguments.back();
        EXPECT_EQ(daemon.output().substr(0, output.size()), output) << arguments.back();
        EXPECT_EQ(daemon.output().empty(), output.empty()) << arguments.back();
    }
}

// A file the library cannot parse (a line longer than it reads) is left as it is, but for the
// line feed the start-up writes over its first byte; the daemon says so once and serves the
// defaults. It serves requests in order, none of those left on its queue before it started,
// and removes its IPC objects and lock file on SIGTERM.
TEST(Daemon, ServesTheDefaultsBesideAFileItCannotParseAndCleansUpOnTerm) {
    const int early = msgget(6, IPC_CREAT | 0666);
    ASSERT_TRUE(send(early, text(START_SESSION, 33, 9, 9)));
    ASSERT_TRUE(send(early, text(READ_PARAM, 12, 9, 9)));
    ASSERT_TRUE(send(early, "stale", 9));
    const std::string unparsable =
        "#\n[can_0]\nbaudrate = 125000\ndescription = " + std::string(1030, 'x') + "\n";
    Daemon d(5, 6, Daemon::freshFile(unparsable));
    EXPECT_EQ(d.line, "5, 6, " + std::to_string(d.process.pid()) + "\n");
    EXPECT_EQ(readFile(d.file), "\n" + unparsable.substr(1));
    // An answer to a stale request would come first.
    EXPECT_TRUE(d.start(33, 7, 2));
    EXPECT_TRUE(d.reads(4, 1, 2, "500000"));  // can0's bit rate
    msqid_ds queue{};
    ASSERT_EQ(msgctl(d.queue, IPC_STAT, &queue), 0);
    EXPECT_EQ(queue.msg_qnum, 0u) << "messages nobody asked for, or stale ones kept";
    const std::string output = d.process.output(), line = "can't parse file " + d.file + "\n";
    EXPECT_TRUE(output.find(line) != std::string::npos && output.find(line) == output.rfind(line))
        << output;

    const int semaphores = semget(5, 0, 0);
    ASSERT_GE(semaphores, 0);
    ASSERT_EQ(kill(d.process.pid(), SIGTERM), 0);
    EXPECT_EQ(d.process.wait(kStartMs), 255);
    EXPECT_EQ(msgctl(d.queue, IPC_STAT, &queue), -1);
    semid_ds semaphoreSet{};
    EXPECT_EQ(semctl(semaphores, 0, IPC_STAT, &semaphoreSet), -1);
    EXPECT_NE(access(d.lock.c_str(), F_OK), 0);
}

}  // namespace
}  // namespace e2e
