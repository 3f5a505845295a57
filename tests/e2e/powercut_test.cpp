// The store under power cuts, on the sandbox's simulated flash (CFGD_SANDBOX_FLASH=1: data not
// synced is lost, or torn, at a cut). A client stores in bursts; at a random moment the daemon
// and everything it runs are killed and the power is cut, every second time tearing the unsynced
// data instead of dropping it. The daemon then starts on what the flash kept, and its whole
// dump (without the live values) is sorted: the last acknowledged store, the one in flight, an
// older one, the defaults, or anything else (torn). The legacy store syncs nothing on the flash:
// its losses are counted and printed, not judged. The hardened one must lose nothing. A store
// the daemon refuses (the legacy one cannot store over a file it cannot parse) is made again.
//
// The default run cuts a few dozen times; the long mode sets the count per profile:
//   CFGD_CUT_ROUNDS=1000 CFGD_SANDBOX_FLASH=1 sandbox/sandbox.sh test
//       build/tests/e2e/cfgd_powercut --gtest_filter='*Legacy*'   (one command line)

#include <sys/xattr.h>

#include <iterator>
#include <map>
#include <random>

#include "harness.h"
#include "store_burst.h"

namespace e2e {
namespace {

using Dump = std::map<std::string, std::string>;  // a dump's lines by name

struct Profile {
    const char* name;
    const char* daemon;
    bool durable;  // must come up with the last acknowledged store or the one in flight
};

void PrintTo(const Profile& profile, std::ostream* out) {
    *out << profile.name;
}

const Profile kProfiles[] = {{"Legacy", CFGD_E2E_DAEMON, false},
                             {"Hardened", CFGD_E2E_HARDENED_DAEMON, true}};

// The names store n writes, in the order of valuesOf's fields.
const char* const kStored[] = {"general.description", "can0.bitrate", "gui.show_filter"};

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
    const std::string* values[] = {&v.description, &v.bitRate, &v.gui};
    for (std::size_t i = 0; i < std::size(kStored); ++i)
        base[kStored[i]] = kStored[i] + (" = " + *values[i]);
    return base;
}

class PowerCut : public ::testing::TestWithParam<Profile> {};

TEST_P(PowerCut, ComesUpWithTheLastAcknowledgedStoreOrTheOneInFlight) {
    const Profile profile = GetParam();
    const char* wanted = std::getenv("CFGD_CUT_ROUNDS");
    const long cuts = wanted != nullptr && std::atol(wanted) > 0 ? std::atol(wanted) : 30;
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
        ASSERT_FALSE(dump.empty()) << "after cut " << made;
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
            acked = std::max(acked, n);
        }
        finishSent = false;
        if (made == cuts) break;

        bases[acked + 1] = dump;
        if (span == Clock::duration{}) span = twoStores(d->queue, acked);
        const auto deadline =
            Clock::now() +
            Clock::duration(std::uniform_int_distribution<Clock::rep>(0, span.count())(random));
        refused += storeUntil(d->queue, deadline, acked, finishSent);
        ASSERT_FALSE(HasFailure());
        const pid_t pid = d->process.pid();
        ASSERT_EQ(kill(-pid, SIGKILL), 0);
        (void)d->process.wait(kAnswerMs);  // reaps it; it ended by the signal
        ASSERT_TRUE(poll([&] { return kill(-pid, 0) != 0; }, kAnswerMs));
        (void)std::remove("/tmp/kiv_config.tmp");  // RAM: gone with the power
        const char* mode = made % 2 == 0 ? "drop" : "torn";
        ASSERT_EQ(setxattr("/mnt/user", "trusted.flashsim.cut", mode, std::strlen(mode), 0), 0)
            << "no simulated flash at /mnt/user (CFGD_SANDBOX_FLASH=1): " << std::strerror(errno);
    }
    std::string summary = std::string(profile.name) + ", " + std::to_string(cuts) + " cuts:";
    long counted = 0;
    for (const char* outcome : {"last acked", "in flight", "older", "defaults", "torn"}) {
        summary += std::string(" ") + outcome + " " + std::to_string(outcomes[outcome]) + ",";
        counted += outcomes[outcome];
    }
    summary += " stores refused " + std::to_string(refused);
    std::printf("power cuts, %s\n", summary.c_str());
    EXPECT_EQ(counted, cuts) << summary;  // none came up with a store never finished
    if (profile.durable) {
        EXPECT_EQ(outcomes["older"] + outcomes["defaults"], 0) << summary;
        EXPECT_EQ(outcomes["torn"], 0) << summary;
    }
}

INSTANTIATE_TEST_SUITE_P(Profiles, PowerCut, ::testing::ValuesIn(kProfiles),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace e2e
