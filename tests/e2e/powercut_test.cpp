// The store under kills and power cuts, on the sandbox's simulated flash (CFGD_SANDBOX_FLASH=1:
// data not synced is lost, or torn, at a cut). A client stores in bursts; at a random moment the
// daemon is killed and the daemon started again on its file, whose whole dump (without the live
// values) is sorted: the last acknowledged store, the one in flight, an older one, the defaults,
// or anything else (torn).
// - Cut variants kill the daemon with everything it runs and cut the power, every second time
//   tearing the unsynced data instead of dropping it. The legacy store syncs nothing on the
//   flash: its losses are counted and printed, not judged. The hardened one must lose nothing. A
//   store the daemon refuses (the legacy one cannot store over a file it cannot parse) is made
//   again.
// - Kill variants cut nothing, so what the kernel holds stays (as on tmpfs). Every second kill
//   ends the daemon alone: what it ran goes on, and the restart comes once that has ended; the
//   others end it with the shell and mv it runs. Each restart must come up with the last
//   acknowledged store or the one in flight (the legacy daemon passes with the one before the
//   last too), and no store is refused.
//
// The default run makes a few dozen rounds; the long modes set the count per variant:
//   CFGD_CUT_ROUNDS=1000 CFGD_SANDBOX_FLASH=1 sandbox/sandbox.sh test
//       build/tests/e2e/cfgd_powercut --gtest_filter='*Legacy'   (one command line)
//   CFGD_KILL_ROUNDS=1000 CFGD_SANDBOX_FLASH=1 sandbox/sandbox.sh test
//       build/tests/e2e/cfgd_powercut --gtest_filter='*LegacyKilled'   (one command line)

#include <sys/xattr.h>

#include <array>
#include <chrono>
#include <iterator>
#include <map>
#include <optional>
#include <random>

#include "client.h"
#include "harness.h"

namespace e2e {
namespace {

using Clock = std::chrono::steady_clock;

constexpr long kAnswerType = 70;

// Store n writes three values, in the file's first section, a middle one and its last, so that
// a file cut short shows: these names in a dump, at these addresses.
const char* const kStored[] = {"general.description", "can0.bitrate", "gui.show_filter"};
using Values = std::array<std::string, std::size(kStored)>;
Values valuesOf(long n) {
    static const char* const rates[] = {"125000", "250000", "500000", "1000000"};
    return {"store " + std::to_string(n), rates[n % 4], n % 2 ? "1" : "0"};
}

// A configuration file as the daemon writes it, holding store 0 and a route no store touches.
std::string firstFile() {
    return std::string(kFileHead) +
           "[general]\ndescription = store 0\n[can_0]\nbaudrate = 125000\n[fwd_gen]\ncount = 1\n"
           "[rt_0]\nrtinfo = kept by every store\nactive = FALSE\ninterface1 = can0\n"
           "destination2 = 198.51.100.40:5000\n[gui]\nshow_filter_info = 0\n";
}

// Sends a request and waits for its answer until `deadline`; nullopt when none came.
std::optional<std::string> exchange(
    int queue, const std::string& request,
    Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(kAnswerMs)) {
    if (!send(queue, request)) return "(not sent)";
    using std::chrono::milliseconds;
    return receive(queue, kAnswerType,
                   std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count());
}

// The permanent session that stores n: each request with its answer.
std::vector<std::pair<std::string, std::string>> storing(long n) {
    const Values v = valuesOf(n);
    return {{text(START_SESSION, kAnswerType, 0, 3), ok(1, 0, 3)},
            {text(SET_PARAM, 0, 4, 0, v[0] + '\0'), ok(0, 4, 0)},
            {text(SET_PARAM, 4, 1, 2, v[1] + '\0'), ok(4, 1, 2)},
            {text(SET_PARAM, 8, 1, 8, v[2] + '\0'), ok(8, 1, 8)},
            {text(FINISH_SESSION, 0, 0, 0), ok(0, 0, 0)}};
}

// Stores acked + 1, acked + 2, ... until no answer comes by `deadline`, counting each
// acknowledged store in `acked`; `finishSent` tells whether the unanswered store's
// FINISH_SESSION went out. A store whose FINISH_SESSION is refused is made again under its
// number; the result counts those.
long storeUntil(int queue, Clock::time_point deadline, long& acked, bool& finishSent) {
    for (long refused = 0;; ++acked) {
        for (const auto& [request, expected] : storing(acked + 1)) {
            finishSent = request == text(FINISH_SESSION, 0, 0, 0);
            const std::optional<std::string> answer = exchange(queue, request, deadline);
            if (!answer) return refused;
            RequestMessage parsed{};
            if (finishSent && parseRequest(answer->data(), answer->size(), parsed) == 0 &&
                parsed.mt == NEG_ANSW) {
                ++refused;
                --acked;
            } else if (*answer != expected) {
                ADD_FAILURE() << "store " << acked + 1 << ": " << *answer;
                return refused;
            }
        }
    }
}

// The time two stores take, measured on five (counted in `acked`): the span over which the
// tests spread their random moments.
Clock::duration twoStores(int queue, long& acked) {
    const auto started = Clock::now();
    for (int i = 0; i < 5; ++i, ++acked)
        for (const auto& [request, answer] : storing(acked + 1))
            EXPECT_EQ(exchange(queue, request), answer);
    return (Clock::now() - started) * 2 / 5;
}

using Dump = std::map<std::string, std::string>;  // a dump's lines by name

struct Profile {
    const char* name;
    const char* daemon;
    bool durable;  // must come up with the last acknowledged store or the one in flight
    bool cut;      // the power is cut after each kill
};

const Profile kProfiles[] = {{"Legacy", CFGD_E2E_DAEMON, false, true},
                             {"Hardened", CFGD_E2E_HARDENED_DAEMON, true, true},
                             {"LegacyKilled", CFGD_E2E_DAEMON, false, false},
                             {"HardenedKilled", CFGD_E2E_HARDENED_DAEMON, true, false}};

// A dump without the values that change by themselves.
Dump dumpOf(const Daemon& d) {
    Dump dump = lines(ran(d, {"dump"}));
    for (const auto& [name, access] : accessByName(d))
        if (access == "live") dump.erase(name);
    return dump;
}

// What store n leaves on top of `base`, as a dump shows it.
Dump storedOn(Dump base, long n) {
    const Values v = valuesOf(n);
    for (std::size_t i = 0; i < v.size(); ++i)
        base[kStored[i]] = kStored[i] + (" = " + v[i]);
    return base;
}

class PowerCut : public ::testing::TestWithParam<Profile> {};

TEST_P(PowerCut, ComesUpWithTheLastAcknowledgedStoreOrTheOneInFlight) {
    const Profile profile = GetParam();
    const char* wanted = std::getenv(profile.cut ? "CFGD_CUT_ROUNDS" : "CFGD_KILL_ROUNDS");
    const long rounds = wanted != nullptr && std::atol(wanted) > 0 ? std::atol(wanted)
                        : profile.cut                              ? 30
                                                                   : 40;
    const char* round = profile.cut ? "cut" : "kill";
    Dump defaults;
    {
        Daemon fresh(41, 42, Daemon::freshFile(""), profile.daemon);
        defaults = dumpOf(fresh);
    }
    // Not synced: the first stores, which no cut interrupts, replace it and its backup.
    const std::string file = Daemon::freshFile(firstFile());
    std::optional<Daemon> d;
    std::map<long, Dump> bases;  // the dump each round started on, by its first store
    long acked = 0;              // the last store whose FINISH_SESSION was answered
    bool finishSent = false;     // the FINISH_SESSION of store acked + 1 went out
    std::map<std::string, long> outcomes;
    long refused = 0;  // stores whose FINISH_SESSION the daemon refused
    std::mt19937 random(std::random_device{}());
    Clock::duration span{};

    for (long made = 0;; ++made) {
        d.emplace(41, 42, file, profile.daemon);
        const Dump dump = dumpOf(*d);
        ASSERT_FALSE(dump.empty()) << "after " << round << " " << made;
        if (made == 0) {
            bases[0] = dump;  // store 0, the first file
        } else {
            const std::string &description = dump.at(kStored[0]), head = " = store ";
            const std::size_t at = description.find(head);
            const long n = at != std::string::npos ? std::atol(&description[at + head.size()]) : -1;
            const auto base = bases.upper_bound(n);  // after the round that made store n
            const bool whole = n >= 0 && dump == storedOn(std::prev(base)->second, n);
            const std::string outcome = !whole       ? dump == defaults ? "defaults" : "torn"
                                        : n == acked ? "last acked"
                                        : n == acked + 1 && finishSent ? "in flight"
                                        : n < acked                    ? "older"
                                                                       : "never finished";
            ++outcomes[outcome];
            ASSERT_TRUE(profile.cut || outcome == "last acked" || outcome == "in flight" ||
                        (outcome == "older" && n == acked - 1))
                << "after kill " << made << " during store " << acked + 1
                << (finishSent ? " (its finish sent)" : "") << ": " << outcome << ", store " << n;
            acked = std::max(acked, n);
        }
        finishSent = false;
        if (made == rounds) break;

        bases[acked + 1] = dump;
        if (span == Clock::duration{}) span = twoStores(d->queue, acked);
        const auto deadline =
            Clock::now() +
            Clock::duration(std::uniform_int_distribution<Clock::rep>(0, span.count())(random));
        refused += storeUntil(d->queue, deadline, acked, finishSent);
        ASSERT_FALSE(HasFailure());
        const pid_t pid = d->process.pid();
        ASSERT_EQ(kill(profile.cut || made % 2 == 0 ? -pid : pid, SIGKILL), 0);
        (void)d->process.wait(kAnswerMs);  // reaps it; it ended by the signal
        ASSERT_TRUE(poll([&] { return kill(-pid, 0) != 0; }, kAnswerMs));
        if (!profile.cut) continue;
        (void)std::remove("/tmp/kiv_config.tmp");  // RAM: gone with the power
        const char* mode = made % 2 == 0 ? "drop" : "torn";
        ASSERT_EQ(setxattr("/mnt/user", "trusted.flashsim.cut", mode, std::strlen(mode), 0), 0)
            << "no simulated flash at /mnt/user (CFGD_SANDBOX_FLASH=1): " << std::strerror(errno);
    }
    std::string summary =
        std::string(profile.name) + ", " + std::to_string(rounds) + " " + round + "s:";
    for (const char* outcome : {"last acked", "in flight", "older", "defaults", "torn"})
        summary += std::string(" ") + outcome + " " + std::to_string(outcomes[outcome]) + ",";
    summary += " stores refused " + std::to_string(refused);
    std::printf("the store, %s\n", summary.c_str());
    EXPECT_EQ(outcomes["never finished"], 0) << summary;
    EXPECT_TRUE(profile.cut || refused == 0) << summary;
    if (profile.durable) {
        EXPECT_EQ(outcomes["older"] + outcomes["defaults"], 0) << summary;
        EXPECT_EQ(outcomes["torn"], 0) << summary;
    }
}

INSTANTIATE_TEST_SUITE_P(Profiles, PowerCut, ::testing::ValuesIn(kProfiles),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace e2e
