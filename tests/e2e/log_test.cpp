// The daemon's diagnostic lines in a log file, as an init script or a supervisor keeps them:
// each line there as soon as it is made, and all of them still there however the daemon is
// told to end.

#include <gtest/gtest.h>

#include <cstring>

#include "harness.h"

namespace e2e {
namespace {

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
