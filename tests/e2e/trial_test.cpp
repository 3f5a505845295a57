// Trials with cfgctl against the real daemon: a change applied but not stored, rolled back at
// its deadline by a guard that outlives cfgctl unless confirmed, and the faults around it (the
// guard killed, the daemon restarted or gone, a refused old value, a damaged record), and what
// a local user who plants files, links and records for root's next cfgctl achieves: nothing.

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <tuple>

#include "harness.h"

namespace e2e {
namespace {

constexpr int kTrialSeconds = 5;
constexpr int kGraceMs = 10000;                           // the guard's tries at a gone daemon
constexpr int kDeadlineMs = kTrialSeconds * 1000 + 2000;  // the deadline and two seconds
constexpr const char* kNewRate = "ip link set can1 type can bitrate 250000";
constexpr const char* kOldRate = "ip link set can1 type can bitrate 500000";

// How often a command line that starts with `prefix` was logged from line `first` on.
std::size_t logged(std::size_t first, const std::string& prefix) {
    return std::ranges::count_if(commands(first),
                                 [&](const std::string& l) { return l.starts_with(prefix); });
}

// A daemon of its own on the defaults (can1 at 500000), with a trial of can1.bitrate 250000.
struct TrialSetUp {
    explicit TrialSetUp(int key, int seconds = kTrialSeconds) : d(key, key + 1) {
        stored = readFile(d.file);
        first = commands().size();
        started = ran(d, {"set", "--trial", std::to_string(seconds), "can1.bitrate", "250000"});
        EXPECT_EQ(logged(first, kNewRate), 1u);
    }
    std::string trialFile() const { return d.lock + ".trial/record"; }
    int guardPid() const {
        const std::string record = readFile(trialFile());
        const std::size_t at = record.find("\nguard ");
        return at == std::string::npos ? -1 : std::atoi(record.c_str() + at + 7);
    }
    bool pending() { return cfgctl(d, {"trial"}).status == 0; }
    // Kills the guard and waits until it has ended (unreaped, as its parent is gone, or reaped):
    // SIGKILL is delivered asynchronously, and a guard still running is no reason for another.
    bool killGuard() const {
        const int pid = guardPid();
        const auto ended = [&] {
            const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
            return stat.empty() || stat.find(") Z ") != std::string::npos;
        };
        return pid > 0 && kill(pid, SIGKILL) == 0 && poll(ended, kAnswerMs);
    }

    Daemon d;
    std::string stored;
    std::size_t first = 0;
    std::string started;  // cfgctl's output
};

TEST(Trial, RolledBackAtTheDeadlineWithoutTouchingTheFile) {
    TrialSetUp t(93);
    EXPECT_NE(t.started.find("can1.bitrate: 500000 -> 250000"), std::string::npos);
    EXPECT_EQ(cfgctl(t.d, {"get", "can1.bitrate"}).output, "250000\n");  // reads go on
    EXPECT_TRUE(poll([&] { return !t.pending(); }, kDeadlineMs));
    EXPECT_EQ(logged(t.first, kOldRate), 1u);
    EXPECT_EQ(logged(t.first, "mv "), 0u);
    EXPECT_EQ(readFile(t.d.file), t.stored);
    EXPECT_EQ(cfgctl(t.d, {"get", "can1.bitrate"}).output, "500000\n");
}

TEST(Trial, ConfirmedStoresAndNothingRollsBackLater) {
    TrialSetUp t(95);
    ran(t.d, {"confirm"});
    EXPECT_NE(readFile(t.d.file).find("250000"), std::string::npos);
    std::this_thread::sleep_for(std::chrono::milliseconds(kDeadlineMs));
    EXPECT_EQ(logged(t.first, kOldRate), 0u);
    const Outcome none = cfgctl(t.d, {"confirm"});
    EXPECT_EQ(std::tie(none.status, none.output), std::tuple(6, "cfgctl: no trial pending\n"));
}

TEST(Trial, OtherWritesAreRefusedUntilARollbackThatReportsARefusedOldValue) {
    TrialSetUp t(97, 60);
    const std::string refusal = "confirm or roll back first\n";
    for (const std::vector<std::string>& write :
         {std::vector<std::string>{"set", "can0.bitrate", "125000"},
          {"--temp", "set", "can0.bitrate", "125000"},
          {"set", "--trial", "5", "can0.bitrate", "125000"},
          {"apply", "/dev/null"}}) {
        const Outcome refused = cfgctl(t.d, write);
        EXPECT_EQ(refused.status, 5) << write[0];
        EXPECT_TRUE(refused.output.starts_with("cfgctl: a trial is pending (")) << refused.output;
        EXPECT_TRUE(refused.output.ends_with(refusal)) << refused.output;
    }
    const std::string json = cfgctl(t.d, {"--json", "set", "can0.bitrate", "125000"}).output;
    for (const char* part :
         {"{\"status\":\"trial_pending\",\"exit\":5,\"trial\":{\"seconds_left\":",
          "\"params\":[{\"name\":\"can1.bitrate\",\"address\":[4,2,2],\"old\":"
          "\"500000\",\"new\":\"250000\"}]}}\n"})
        EXPECT_NE(json.find(part), std::string::npos) << json;
    EXPECT_EQ(logged(t.first, "ip link set can0 type can"), 0u);
    // A record whose first old value the daemon refuses: reported, and the others restored.
    std::string record = readFile(t.trialFile());
    const std::size_t at = record.find("\tcan1.bitrate\t");
    ASSERT_NE(at, std::string::npos);
    record.insert(at - 5, "4 1 2\tcan0.bitrate\t=4999\t=1000000\n");
    std::ofstream(t.trialFile()) << record;
    const int guard = t.guardPid();
    const Outcome rolledBack = cfgctl(t.d, {"rollback"});
    EXPECT_EQ(rolledBack.status, 1);
    EXPECT_NE(rolledBack.output.find("rollback: can0.bitrate = 4999: baud rate not changed"),
              std::string::npos)
        << rolledBack.output;
    EXPECT_EQ(logged(t.first, kOldRate), 1u);
    EXPECT_EQ(readFile(t.trialFile()), "");
    EXPECT_TRUE(poll([&] { return kill(guard, 0) != 0; }, kAnswerMs)) << "the guard ended";
    EXPECT_EQ(cfgctl(t.d, {"rollback"}).status, 6);
    EXPECT_EQ(cfgctl(t.d, {"set", "can0.bitrate", "125000"}).status, 0);
}

TEST(Trial, AKilledGuardIsReplacedOrItsTrialRolledBackByTheNextCall) {
    TrialSetUp t(99);
    const int guard = t.guardPid();
    ASSERT_TRUE(t.killGuard());
    EXPECT_TRUE(t.pending());  // before the deadline: a new guard
    const int replacement = t.guardPid();
    EXPECT_NE(replacement, guard);
    EXPECT_EQ(kill(replacement, 0), 0);
    ASSERT_TRUE(t.killGuard());
    std::this_thread::sleep_for(std::chrono::milliseconds(kDeadlineMs));
    EXPECT_EQ(logged(t.first, kOldRate), 0u) << "nobody rolled back";
    // After the deadline the next call rolls back first, then does its own work.
    const Outcome read = cfgctl(t.d, {"get", "can1.bitrate"});
    EXPECT_NE(read.output.find("rolling the trial back first\n"), std::string::npos);
    EXPECT_TRUE(read.output.ends_with("\n500000\n")) << read.output;
    EXPECT_EQ(logged(t.first, kOldRate), 1u);
    EXPECT_EQ(readFile(t.trialFile()), "");
}

// The guard rolls back a trial whose daemon was restarted, and gives up on a daemon gone for
// good after the grace period; neither touches the file.
TEST(Trial, TheGuardRollsBackOnARestartedDaemonAndGivesUpOnAGoneOne) {
    TrialSetUp t(101, 60);
    ASSERT_EQ(kill(t.d.process.pid(), SIGTERM), 0);
    ASSERT_EQ(t.d.process.wait(kAnswerMs), 255);
    const std::size_t restart = commands().size();
    Process again(CFGD_E2E_DAEMON, {"-s", "101", "-q", "102", "-l", t.d.lock, "-f", t.d.file});
    EXPECT_TRUE(poll([&] { return readFile(t.trialFile()).empty(); }, kDeadlineMs));
    EXPECT_EQ(logged(restart, kOldRate), 2u) << "its start-up, then the rollback";
    ran(t.d, {"set", "--trial", std::to_string(kTrialSeconds), "can1.bitrate", "250000"});
    ASSERT_EQ(kill(again.pid(), SIGTERM), 0);
    EXPECT_TRUE(poll([&] { return readFile(t.trialFile()).empty(); }, kDeadlineMs + kGraceMs));
    EXPECT_NE(readFile(t.trialFile() + ".log").find("gave up rolling back"), std::string::npos);
    EXPECT_EQ(readFile(t.d.file), t.stored);
}

TEST(Trial, ADamagedRecordRefusesWritesUntilRemovedByForce) {
    Daemon d(107, 108);
    for (const std::string& damaged : {std::string("cfgd-trial 0\nend\n"),
                                       std::string("cfgd-trial 1\ndeadline 1\ndaemon 1\n")}) {
        const std::size_t first = commands().size();
        ASSERT_EQ(cfgctl(d, {"trial", "--init"}).status, 0);
        std::ofstream(d.lock + ".trial/record") << damaged;
        const Outcome refused = cfgctl(d, {"set", "can1.bitrate", "250000"});
        EXPECT_EQ(refused.status, 2);
        EXPECT_NE(refused.output.find("cfgctl rollback --force removes it"), std::string::npos);
        EXPECT_EQ(cfgctl(d, {"rollback"}).status, 2);
        EXPECT_EQ(commands(first).size(), 0u) << "nothing was written";
        EXPECT_EQ(cfgctl(d, {"rollback", "--force"}).status, 0);
        EXPECT_EQ(cfgctl(d, {"set", "can1.bitrate", "250000"}).status, 0);
    }
}

// A child process as the user `name` that runs `act` and ends (its pid).
pid_t asUser(const char* name, const std::function<bool()>& act) {
    const passwd* user = getpwnam(name);
    const pid_t pid = fork();
    if (pid == 0)
        _exit(user != nullptr && setgroups(0, nullptr) == 0 && setgid(user->pw_gid) == 0 &&
                      setuid(user->pw_uid) == 0 && act()
                  ? 0
                  : 1);
    return pid;
}

// Whether `act` succeeded as the user `name`.
bool did(const char* name, const std::function<bool()>& act) {
    int status = -1;
    (void)waitpid(asUser(name, act), &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// A process of the user `name` that must survive (our child), ended at the scope's end.
struct Victim {
    explicit Victim(const char* name)
        : pid(asUser(name, [] { return execl("/bin/sleep", "sleep", "600", nullptr) == 0; })) {}
    ~Victim() { (void)kill(pid, SIGKILL), (void)waitpid(pid, nullptr, 0); }  // gone either way
    bool running() const { return waitpid(pid, nullptr, WNOHANG) == 0; }
    const pid_t pid;
};

// The start time that /proc/PID/stat gives as its 22nd field.
std::string startTicks(pid_t pid) {
    const std::string text = readFile("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream stat(text.substr(text.rfind(')') + 2));
    std::string field;
    for (int i = 3; i <= 22; ++i)
        stat >> field;
    return field;
}

// A file of root's that planted links aim at.
struct Target {
    Target() { std::ofstream(path) << "secret\n", chmod(path.c_str(), 0600); }
    bool untouched() const {
        struct stat st {};
        return stat(path.c_str(), &st) == 0 && (st.st_mode & 07777) == 0600 && st.st_uid == 0 &&
               readFile(path) == "secret\n";
    }
    const std::string path = "/tmp/e2e-trial-target";
};

TEST(TrialAttack, PlantedDirectoriesAndLinksAreRefusedAndLeftAlone) {
    Daemon d(131, 132);
    const std::string dir = d.lock + ".trial";
    Target target;
    const Victim other("root");
    const std::string record = "cfgd-trial 2\ndeadline 1\ndaemon 1\nguard " +
                               std::to_string(other.pid) + " " + startTicks(other.pid) + "\nend\n";
    // The links a local user plants in a directory of theirs: root must neither open, chmod,
    // truncate nor signal through them.
    const auto plantLinks = [&] {
        return symlink(target.path.c_str(), (dir + "/record.lock").c_str()) == 0 &&
               symlink(target.path.c_str(), (dir + "/record.log").c_str()) == 0 &&
               (std::ofstream(dir + "/record") << record).good();
    };
    // what is planted, how (run as nobody, except where it says root), the refusal
    const std::tuple<const char*, std::function<bool()>, bool, const char*> cases[] = {
        {"nobody's directory", [&] { return mkdir(dir.c_str(), 0777) == 0 && plantLinks(); }, false,
         "owned by uid 65534, not root"},
        {"a link to root's directory", [&] { return symlink("/etc", dir.c_str()) == 0; }, false,
         "a symbolic link"},
        {"root's directory open to all",
         [&] { return mkdir(dir.c_str(), 0777) == 0 && chmod(dir.c_str(), 0777) == 0; }, true,
         "writable by others"},
        {"a link in root's own directory",
         [&] {
             return cfgctl(d, {"trial", "--init"}).status == 0 &&
                    unlink((dir + "/record.lock").c_str()) == 0 &&
                    symlink(target.path.c_str(), (dir + "/record.lock").c_str()) == 0;
         },
         true, "record.lock: a symbolic link"},
    };
    for (const auto& [what, plant, asRoot, refusal] : cases) {
        SCOPED_TRACE(what);
        (void)std::system(("rm -rf " + dir).c_str());
        ASSERT_TRUE(asRoot ? plant() : did("nobody", plant));
        const std::size_t first = commands().size();
        const Outcome trial = cfgctl(d, {"set", "--trial", "60", "can1.bitrate", "250000"});
        EXPECT_EQ(trial.status, 2);
        EXPECT_NE(trial.output.find(std::string("is not safe to use (") + refusal + ")"),
                  std::string::npos)
            << trial.output;
        EXPECT_EQ(logged(first, "ip link"), 0u) << "nothing of the trial was applied";
        for (const char* command : {"confirm", "rollback", "trial"})
            EXPECT_NE(cfgctl(d, {command}).status, 0) << command;
        const Outcome read = cfgctl(d, {"get", "can1.bitrate"});  // the rest goes on
        EXPECT_TRUE(read.status == 0 && read.output.ends_with("500000\n")) << read.output;
        EXPECT_TRUE(target.untouched());
        EXPECT_TRUE(other.running());
    }
}

TEST(TrialAttack, ARecordNamingAnotherProcessSignalsNobody) {
    // The front end's user may write the record; it names the guard as a process of root's,
    // or as a dead guard's pid that another process now has (its start time is the guard's).
    for (const bool reused : {false, true}) {
        SCOPED_TRACE(reused ? "a reused pid" : "root's process");
        TrialSetUp t(reused ? 133 : 135, 60);
        const int guard = t.guardPid();
        const std::string guardLine = "\nguard " + std::to_string(guard) + " ";
        const std::string guardTicks = startTicks(guard);
        ASSERT_TRUE(!reused || t.killGuard());
        const Victim other(reused ? "nobody" : "root");
        const std::string ticks = reused ? guardTicks : startTicks(other.pid);
        ASSERT_TRUE(did(CFGD_E2E_HARDENED_GROUP, [&] {
            std::string text = readFile(t.trialFile());
            const std::size_t at = text.find(guardLine);
            if (at == std::string::npos) return false;
            text.replace(at, text.find('\n', at + 1) - at,
                         "\nguard " + std::to_string(other.pid) + " " + ticks);
            return (std::ofstream(t.trialFile()) << text).good();
        }));
        EXPECT_TRUE(t.pending());  // the named process is no guard: a new one takes over
        EXPECT_NE(t.guardPid(), other.pid);
        ran(t.d, {"rollback"});
        EXPECT_EQ(logged(t.first, kOldRate), 1u);
        EXPECT_TRUE(other.running());
    }
}

}  // namespace
}  // namespace e2e
