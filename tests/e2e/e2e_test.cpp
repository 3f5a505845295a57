// The real daemon, driven over a real System V message queue inside the sandbox, where its
// commands only reach logging stubs and its files land on private mounts: its command line and
// start, a session that reads the sandbox's own eth0 through the real ioctls, the start-up that
// loads the gateway module and starts the routes, a short soak that leaves its descriptors and
// memory level, and its diagnostic lines in a log file, as an init script or a supervisor keeps
// them: each line there as soon as it is made, and all of them still there however the daemon
// is told to end.

#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstring>
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

// The daemon on the simulated device: a session reads the sandbox's own eth0 through the real
// ioctls, the start-up loads the gateway module and starts the routes, and a short soak leaves
// the daemon's descriptors and memory level.

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

// The daemon's diagnostic lines in a log file, as an init script or a supervisor keeps them:
// each line there as soon as it is made, and all of them still there however the daemon is
// told to end.

constexpr unsigned kWlanGroup = 3;

TEST(Log, EveryLineIsWrittenAtOnceAndSurvivesEachTerminatingSignal) {
    for (const int signal : {SIGTERM, SIGHUP, SIGINT}) {
        SCOPED_TRACE(strsignal(signal));
        Daemon d(91, 92);
        std::string expected = d.process.output();  // whatever the start-up wrote
        // The WLAN group logs each write, refused ones too, and its apply.
        ASSERT_TRUE(d.start(91, 0, 2));
        for (const unsigned f3 : {0u, 1u}) {
            EXPECT_TRUE(d.answers(text(SET_PARAM, kWlanGroup, 0, f3, "x"),
                                  text(NEG_ANSW, kWlanGroup, 0, f3, "read only value!")));
            expected += "storeWlanInformation()\n";
            EXPECT_EQ(d.process.output(), expected);  // written before the answer went out
        }
        EXPECT_TRUE(d.end());
        expected += "setWlanConfig()\nsetWlanConfig: general wlan if info changed\n";
        EXPECT_EQ(d.process.output(), expected);

        ASSERT_EQ(kill(d.process.pid(), signal), 0);
        EXPECT_EQ(d.process.wait(kAnswerMs), 255);
        EXPECT_EQ(d.process.output(), expected);
    }
}

// A log pipe that nobody reads any more fills up; the daemon then waits for room in it, and a
// termination signal still ends it.
TEST(Log, AFullPipeThatNobodyReadsDoesNotHoldOffTermination) {
    int pipeEnds[2];
    ASSERT_EQ(pipe2(pipeEnds, O_CLOEXEC), 0);
    Daemon d(93, 94, Daemon::freshFile(""), CFGD_E2E_DAEMON, pipeEnds[1]);
    ASSERT_EQ(fcntl(pipeEnds[1], F_SETFL, O_NONBLOCK), 0);  // the daemon idles in msgrcv
    for (const std::string page(4096, '-'); write(pipeEnds[1], page.data(), page.size()) > 0;) {
    }
    ASSERT_EQ(fcntl(pipeEnds[1], F_SETFL, 0), 0);
    ASSERT_TRUE(d.start(93, 0, 2));
    ASSERT_TRUE(send(d.queue, text(SET_PARAM, kWlanGroup, 0, 0, "x")));  // logs, then answers
    // Taken off the queue, and the daemon asleep without an answer: waiting for the pipe.
    const std::string stat = "/proc/" + std::to_string(d.process.pid()) + "/stat";
    ASSERT_TRUE(poll(
        [&] {
            msqid_ds queue{};
            return msgctl(d.queue, IPC_STAT, &queue) == 0 && queue.msg_qnum == 0 &&
                   readFile(stat).find(") S ") != std::string::npos;
        },
        kAnswerMs));
    EXPECT_FALSE(receive(d.queue, 93, 0).has_value());

    ASSERT_EQ(kill(d.process.pid(), SIGTERM), 0);
    EXPECT_EQ(d.process.wait(kAnswerMs), 255);
    (void)close(pipeEnds[0]);  // after the daemon: a closed pipe would end it with SIGPIPE
    (void)close(pipeEnds[1]);
}

}  // namespace
}  // namespace e2e
