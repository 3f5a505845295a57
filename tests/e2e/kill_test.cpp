// The store under SIGKILL: a client bursts permanent sessions while the daemon is killed at
// random moments, alternately alone (what it runs goes on) and together with the shell and mv
// it runs (as a power cut would). After each kill the daemon is started again on its file and
// must come up with one whole stored configuration: the last acknowledged store, the one in
// flight, or the one before the last.
//
// The default run kills a few dozen times; the long mode sets the count:
//   CFGD_KILL_ROUNDS=1000 sandbox/sandbox.sh test build/tests/e2e/cfgd_e2e
//       --gtest_filter=Store.SurvivesSigkillAtRandomMoments   (one command line)

#include <sys/msg.h>

#include <chrono>
#include <optional>
#include <random>

#include "client.h"
#include "harness.h"
#include "store_burst.h"

namespace e2e {
namespace {

// What the daemon holds: the three stored values and the route's name, after the start's
// answer; empty when a request failed.
std::vector<std::string> held(int queue) {
    std::vector<std::string> values;
    for (const std::string& request :
         {text(START_SESSION, kAnswerType, 0, 0), text(READ_PARAM, 0, 4, 0),
          text(READ_PARAM, 4, 1, 2), text(READ_PARAM, 8, 1, 8), text(READ_PARAM, 5, 1, 0),
          text(FINISH_SESSION, 0, 0, 0)}) {
        const std::string answer = exchange(queue, request).value_or("");
        RequestMessage parsed{};
        if (parseRequest(answer.data(), answer.size(), parsed) != 0 || parsed.mt != POS_ANSW)
            return {};
        values.emplace_back(parsed.da);
    }
    return values;
}

TEST(Store, SurvivesSigkillAtRandomMoments) {
    const char* wanted = std::getenv("CFGD_KILL_ROUNDS");
    const long kills = wanted != nullptr && std::atol(wanted) > 0 ? std::atol(wanted) : 40;
    const std::string file = Daemon::freshFile(firstFile());
    std::optional<Daemon> d;
    long acked = 0;           // the last store whose FINISH_SESSION was answered
    bool finishSent = false;  // the FINISH_SESSION of store acked + 1 went out
    std::mt19937 random(std::random_device{}());
    Clock::duration span{};  // kill moments are spread over two sessions' time

    for (long made = 0;; ++made) {
        d.emplace(31, 32, file);
        // One whole store: the last acknowledged, the one in flight or the one before the last.
        const std::vector<std::string> values = held(d->queue);
        ASSERT_EQ(values.size(), 6u) << "after kill " << made;
        const long n = values[1].starts_with("store ") ? std::atol(values[1].c_str() + 6) : -1;
        const Values v = valuesOf(std::max(n, 0L));
        EXPECT_TRUE(n >= 0 && (n == acked || n == acked - 1 || (n == acked + 1 && finishSent)) &&
                    values[2] == v.bitRate && values[3] == v.gui && values[4] == kRouteName)
            << "after kill " << made << " during store " << acked + 1
            << (finishSent ? " (its finish sent)" : "") << ": " << ::testing::PrintToString(values);
        acked = std::max(acked, n);
        finishSent = false;
        if (made == kills || HasFailure()) break;

        if (span == Clock::duration{}) span = twoStores(d->queue, acked);
        const auto deadline =
            Clock::now() +
            Clock::duration(std::uniform_int_distribution<Clock::rep>(0, span.count())(random));
        ASSERT_EQ(storeUntil(d->queue, deadline, acked, finishSent), 0);
        // Every second kill ends the daemon with the shell or mv it runs, the others the daemon
        // alone: what it ran goes on, and the restart comes once that has ended.
        const pid_t pid = d->process.pid();
        ASSERT_EQ(kill(made % 2 == 0 ? -pid : pid, SIGKILL), 0);
        (void)d->process.wait(kAnswerMs);  // reaps it; it ended by the signal
        EXPECT_TRUE(poll([&] { return kill(-pid, 0) != 0; }, kAnswerMs));
    }
}

}  // namespace
}  // namespace e2e
