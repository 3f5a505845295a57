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
        ASSERT_NE(d.up(), "") << d.process.output();
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

}  // namespace
}  // namespace e2e
