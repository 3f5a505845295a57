#include "trial.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>

#include "client.h"
#include "daemon_session.h"
#include "json_out.h"
#include "trial_file.h"

namespace cfgctl {

namespace {

// How long the guard goes on trying to reach a daemon that is not running at the deadline. A
// daemon that comes back later loads its stored configuration, which the trial never touched.
constexpr long long kGraceSeconds = 10;
constexpr unsigned kGuardPollSeconds = 1;
constexpr int kHighestInheritedFd = 255;
constexpr const char* kPendingFormat =
    "cfgctl: a trial is pending (%lld s left): confirm or roll back first\n";
constexpr const char* kNoTrialText = "cfgctl: no trial pending\n";
constexpr const char* kUnsafeFormat =
    "cfgctl: the trial directory %s is not safe to use (%s): no trial is read or written there "
    "until root removes it\n";
constexpr const char* kMissingFormat =
    "cfgctl: there is no trial directory %s: root makes it (cfgctl trial --init, which the init "
    "script runs at boot)\n";
constexpr const char* kDeniedFormat =
    "cfgctl: the trial directory %s is for root and the group %s only\n";

long long now() {
    return static_cast<long long>(std::time(nullptr));
}

// The name a guard gives itself, which /proc/PID/stat shows between parentheses.
constexpr const char* kGuardName = "cfgctl-guard";
constexpr std::string_view kProgramName = "cfgctl";

struct ProcessState {
    char state = 0;
    unsigned long long startTicks = 0;
    std::string name;
};

// The start of /proc/PID/FILE into `text`, terminated: its length, or -1 without the process.
template <std::size_t N>
ssize_t readProcFile(int pid, const char* file, char (&text)[N]) {
    char path[48];
    std::snprintf(path, sizeof path, "/proc/%d/%s", pid, file);
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    const ssize_t n = ::read(fd, text, N - 1);
    (void)::close(fd);  // read only
    text[n > 0 ? n : 0] = '\0';
    return n;
}

// /proc/PID/stat: "PID (NAME) STATE ..." with the start time (in clock ticks after boot) as the
// 22nd field. False when there is no such process.
bool readProcess(int pid, ProcessState& process) {
    char stat[512];
    if (readProcFile(pid, "stat", stat) <= 0) return false;
    const char* open = std::strchr(stat, '(');
    const char* close = std::strrchr(stat, ')');
    if (open == nullptr || close == nullptr || close < open) return false;
    process.name.assign(open + 1, close);
    process.state = close[1] == ' ' ? close[2] : 0;
    const char* field = close + 2;  // the state, the 3rd field
    for (int i = 3; i < 22 && field != nullptr; ++i) {
        field = std::strchr(field, ' ');
        if (field != nullptr) ++field;
    }
    return field != nullptr && std::sscanf(field, "%llu", &process.startTicks) == 1;
}

// A process that has ended but was not yet reaped (its parent, cfgctl, is long gone) counts as
// ended.
bool alive(int pid) {
    if (pid <= 0 || (kill(pid, 0) != 0 && errno != EPERM)) return false;
    ProcessState process;
    return !readProcess(pid, process) || process.state != 'Z';  // without procfs: as kill says
}

// Whether the record's guard is still that guard: a pid alone may have been reused by any
// process since, or be planted by whoever could write the record. Its start time, the name it
// gave itself and the program it runs must all match.
bool isGuard(const GuardId& guard) {
    ProcessState process;
    if (guard.pid <= 0 || !readProcess(guard.pid, process) || process.state == 'Z' ||
        process.startTicks != guard.startTicks || process.name != kGuardName)
        return false;
    char command[256];
    if (readProcFile(guard.pid, "cmdline", command) <= 0) return false;
    const char* slash = std::strrchr(command, '/');  // argv[0] ends at the first NUL
    return std::string_view(slash != nullptr ? slash + 1 : command) == kProgramName;
}

// Unreachable daemon: the guard tries again, a client leaves the trial as it is.
bool unreachable(int status) {
    return status == kExitNoDaemon || status == kExitNoAnswer;
}

void printValue(std::FILE* out, const std::optional<std::string>& value) {
    if (!value) {
        std::fputs("(unread)", out);
        return;
    }
    for (const char c : *value)
        c == '\n' ? (void)std::fputs("\\n", out) : (void)std::fputc(c, out);
}

// The entries' values of one side as apply lines, in the order that reproduces them: a value
// that another write changes goes after it.
std::vector<ApplyLine> linesOf(const TrialRecord& trial, bool old) {
    std::vector<ApplyLine> lines;
    for (const TrialEntry& entry : trial.entries) {
        const std::optional<std::string>& value = old ? entry.old : entry.value;
        if (value) lines.push_back({0, entry.param, *value});
    }
    return lines;
}

// Writes `lines` in one session ending with FINISH_SESSION. A refused write is reported and the
// rest go on (`stopAtRefusal` false) or the session is aborted (true). 0, kExitRefused after a
// refusal, or the status of a daemon that could not be used.
int writeLines(const Invocation& invocation, const std::vector<ApplyLine>& lines, unsigned mt,
               bool stopAtRefusal, const char* what) {
    const std::vector<std::optional<std::string>> unknown(lines.size());
    const std::vector<std::size_t> order = planWrites(lines, unknown);
    DaemonSession cfgd(invocation);
    if (int status = cfgd.open(); status != 0) return status;
    if (int status = cfgd.start(static_cast<unsigned>(std::min(order.size(), kMaxAnnounced)));
        status != 0)
        return status;
    bool refused = false;
    for (const std::size_t i : order) {
        if (int status = cfgd.exchange(mt, requestOf(lines[i])); status != 0) return status;
        if (!cfgd.refused()) continue;
        char numbers[16];
        const char* label = labelOf(lines[i].param, numbers);
        std::fprintf(stderr, "cfgctl: %s: %s = %s: %s\n", what, label, lines[i].value.c_str(),
                     cfgd.refusal());
        if (invocation.report != nullptr)
            invocation.report->refuse({lines[i].param, label, lines[i].value, cfgd.refusal()});
        refused = true;
        if (stopAtRefusal) break;
    }
    if (int status = cfgd.end(refused && stopAtRefusal); status != 0) return status;
    return refused ? kExitRefused : kExitOk;
}

int rollBack(const Invocation& invocation, const TrialRecord& trial) {
    return writeLines(invocation, linesOf(trial, true), SET_TEMP_PARAM, false, "rollback");
}

// Ends the trial: its guard (unless that is the caller, or no longer that guard) and its record.
void removeTrial(const TrialStore& store, const TrialRecord& trial) {
    if (trial.guard.pid != getpid() && isGuard(trial.guard))
        (void)kill(trial.guard.pid, SIGTERM);  // it may have ended since
    if (!store.clear()) std::fprintf(stderr, "cfgctl: cannot clear the trial record\n");
}

void guardLog(int priority, const char* text) {
    std::fprintf(stderr, "cfgctl guard %d: %s\n", static_cast<int>(getpid()), text);
    syslog(priority, "%s", text);
}

// The guard's life: waits for the deadline, or for the daemon to restart, and rolls back. It
// ends as soon as the record is gone or names another guard (confirmed, rolled back, taken
// over).
int guard(const Invocation& invocation) {
    openlog("cfgctl", LOG_PID, LOG_USER);
    for (;;) {
        (void)sleep(kGuardPollSeconds);  // a signal only makes it look sooner
        TrialStore store;
        TrialRecord trial;
        std::string error;
        if (store.open(lockPathOf(invocation), error) != TrialPlace::Ready ||
            store.read(trial, error) != TrialFile::Pending || trial.guard.pid != getpid())
            return 0;
        client::LockLine daemon{};
        const bool restarted =
            client::readLockFile(lockPathOf(invocation), daemon) == client::Status::Ok &&
            daemon.pid != trial.daemonPid && alive(daemon.pid);
        if (!restarted && now() < trial.deadline) continue;
        guardLog(LOG_NOTICE, restarted ? "cfgd restarted during the trial: rolling back"
                                       : "deadline reached: rolling back");
        const int status = rollBack(invocation, trial);
        if (!unreachable(status)) {
            guardLog(LOG_NOTICE, status == kExitOk ? "rolled back"
                                                   : "rolled back, but cfgd refused some values");
            removeTrial(store, trial);
            return 0;
        }
        if (now() >= trial.deadline + kGraceSeconds) {
            guardLog(LOG_WARNING,
                     "cfgd not reachable since the deadline: gave up rolling back; a restarted "
                     "cfgd runs on its stored configuration, which the trial never changed");
            removeTrial(store, trial);
            return 1;
        }
    }
}

// A guard that outlives the caller: its own session, away from the caller's terminal and
// output (a closed SSH session or the end of a web request must not end it, and a caller that
// waits for the end of cfgctl's output must not wait for it). Its identity; a pid of -1 when it
// could not be started.
GuardId startGuard(const Invocation& invocation, const TrialStore& store, bool freshLog) {
    std::fflush(nullptr);  // nothing buffered may be written twice
    // Named before the fork, so that nobody ever sees the guard under the caller's name.
    char name[16] = {};
    (void)prctl(PR_GET_NAME, name);
    (void)prctl(PR_SET_NAME, kGuardName);
    const pid_t pid = fork();
    (void)prctl(PR_SET_NAME, name);  // the caller's own again (the child keeps the guard's)
    if (pid != 0) {
        ProcessState process;
        const bool known = pid > 0 && readProcess(pid, process);
        return {pid > 0 ? pid : -1, known ? process.startTicks : 0};
    }
    (void)prctl(PR_SET_NAME, kGuardName);
    (void)setsid();
    const int in = ::open("/dev/null", O_RDONLY);
    const int log = store.openLog(freshLog);
    (void)dup2(in, STDIN_FILENO);
    (void)dup2(log >= 0 ? log : in, STDOUT_FILENO);
    (void)dup2(log >= 0 ? log : in, STDERR_FILENO);
    // Inherited descriptors, above all the record's lock, would keep what they hold.
    for (int fd = 3; fd <= kHighestInheritedFd; ++fd)
        (void)::close(fd);
    (void)signal(SIGHUP, SIG_IGN);
    (void)signal(SIGPIPE, SIG_IGN);
    _exit(guard(invocation));
}

void printTrial(std::FILE* out, const TrialRecord& trial) {
    for (const TrialEntry& entry : trial.entries) {
        char numbers[16];
        std::fprintf(out, "  %s: ", labelOf(entry.param, numbers));
        printValue(out, entry.old);
        if (entry.value) {
            std::fputs(" -> ", out);
            printValue(out, entry.value);
        } else {
            std::fputs(" (restored with the others)", out);
        }
        std::fputc('\n', out);
    }
}

// A write refused because of the pending trial: the reason, and under --json the trial that
// settleTrial did not report (one found after it).
int refuseForTrial(const Invocation& invocation, const TrialRecord* trial, long long left) {
    std::fprintf(stderr, kPendingFormat, left);
    if (trial != nullptr && invocation.report != nullptr) invocation.report->setTrial(*trial, left);
    return kExitTrialPending;
}

// How the user wrote the parameter of `lines[i]`: set's operand, or the name or numbers of
// apply's line.
std::string asWritten(const Invocation& invocation, const std::vector<ApplyLine>& lines,
                      std::size_t i) {
    if (invocation.command == Command::Set && i < invocation.parameters.size())
        return writtenAs(invocation.parameters[i]);
    char numbers[16];
    return labelOf(lines[i].param, numbers);
}

// The values of other parameters of the instances that `lines` write, which those writes change
// (a route's state, a rate after a timing text, a filter's term): read with the others, so that
// a rollback restores them too.
std::vector<ApplyLine> followersOf(const std::vector<ApplyLine>& lines) {
    std::vector<ApplyLine> followers;
    for (std::size_t i = 0; i < paramCount(); ++i) {
        const Param p = paramAt(i);
        if (!p.followsInstance || p.access != ParamAccess::ReadWrite) continue;
        const auto sameInstance = [&](const ApplyLine& l) {
            return l.param.f1 == p.f1 && l.param.f2 == p.f2;
        };
        const auto same = [&](const ApplyLine& l) { return sameInstance(l) && l.param.f3 == p.f3; };
        if (std::any_of(lines.begin(), lines.end(), sameInstance) &&
            std::none_of(lines.begin(), lines.end(), same))
            followers.push_back({0, p, ""});
    }
    return followers;
}

// Opens the trial directory, saying why not when it cannot be used (quietly where a missing or
// foreign one only means that there is no trial for this user).
bool openStore(const Invocation& invocation, TrialStore& store, bool quiet = false) {
    std::string error;
    switch (store.open(lockPathOf(invocation), error)) {
        case TrialPlace::Ready:
            return true;
        case TrialPlace::Missing:
            if (!quiet) std::fprintf(stderr, kMissingFormat, store.directory().c_str());
            return false;
        case TrialPlace::Denied:
            if (!quiet)
                std::fprintf(stderr, kDeniedFormat, store.directory().c_str(),
                             CFGD_FRONT_END_GROUP);
            return false;
        case TrialPlace::Unsafe:
            break;
    }
    std::fprintf(stderr, kUnsafeFormat, store.directory().c_str(), error.c_str());
    return false;
}

}  // namespace

TrialState settleTrial(const Invocation& invocation, long long& secondsLeft) {
    const char* lockPath = lockPathOf(invocation);
    if (!trialMayBePending(lockPath)) return TrialState::None;  // the usual case, cheaply
    TrialStore store;
    std::string error;
    switch (store.open(lockPath, error)) {
        case TrialPlace::Ready:
            break;
        case TrialPlace::Unsafe:
            std::fprintf(stderr, kUnsafeFormat, store.directory().c_str(), error.c_str());
            return TrialState::Unsafe;
        default:
            return TrialState::None;  // not this user's to settle
    }
    TrialRecord trial;
    const TrialFile file = store.read(trial, error);
    if (file == TrialFile::None) return TrialState::None;
    if (file == TrialFile::Damaged) {
        std::fprintf(stderr,
                     "cfgctl: the trial record in %s is damaged (%s): nothing was written; "
                     "cfgctl rollback --force removes it\n",
                     store.directory().c_str(), error.c_str());
        return TrialState::Damaged;
    }
    client::LockLine daemon{};
    const bool restarted = client::readLockFile(lockPath, daemon) == client::Status::Ok &&
                           daemon.pid != trial.daemonPid && alive(daemon.pid);
    const bool guarded = isGuard(trial.guard);
    if (restarted || (!guarded && now() >= trial.deadline)) {
        std::fprintf(stderr, "cfgctl: %s: rolling the trial back first\n",
                     restarted ? "cfgd restarted during a trial"
                               : "a trial's guard is gone and its deadline has passed");
        const int status = rollBack(invocation, trial);
        if (!unreachable(status) || now() >= trial.deadline + kGraceSeconds) {
            removeTrial(store, trial);
            return TrialState::None;
        }
    } else if (!guarded) {
        trial.guard = startGuard(invocation, store, false);
        if (trial.guard.pid < 0 || !store.write(trial))
            std::fprintf(stderr, "cfgctl: cannot give the trial a new guard\n");
    }
    secondsLeft = std::max(0LL, trial.deadline - now());
    if (invocation.report != nullptr) invocation.report->setTrial(trial, secondsLeft);
    return TrialState::Pending;
}

int refuseWritesDuringTrial(const Invocation& invocation) {
    long long left = 0;
    switch (settleTrial(invocation, left)) {
        case TrialState::None:
        case TrialState::Unsafe:  // no trial of ours can be there; its reason was printed
            return kExitOk;
        case TrialState::Pending:
            return refuseForTrial(invocation, nullptr, left);
        case TrialState::Damaged:
            break;
    }
    return kExitUsage;
}

namespace {

// A trial start's counts, before those the caller gave (apply's read-only lines).
void addCounts(const Invocation& invocation, std::size_t written, std::size_t unchanged) {
    if (invocation.report == nullptr) return;
    std::vector<std::pair<const char*, std::size_t>>& counts = invocation.report->counts;
    counts.insert(counts.begin(), {{"written", written}, {"unchanged", unchanged}});
}

}  // namespace

int runTrialStart(const Invocation& invocation, const std::vector<ApplyLine>& lines) {
    long long left = 0;
    if (const TrialState state = settleTrial(invocation, left); state != TrialState::None) {
        if (state != TrialState::Pending) return kExitUsage;  // the reason was printed
        return refuseForTrial(invocation, nullptr, left);
    }
    DaemonSession cfgd(invocation);
    if (int status = cfgd.open(); status != 0) return status;
    TrialStore store;  // a second trial started at the same time waits, then is refused
    if (!openStore(invocation, store)) return kExitUsage;
    TrialRecord trial;
    std::string error;
    if (store.read(trial, error) != TrialFile::None)
        return refuseForTrial(invocation, &trial, std::max(0LL, trial.deadline - now()));

    std::vector<ApplyLine> read = lines;
    const std::vector<ApplyLine> followers = followersOf(lines);
    read.insert(read.end(), followers.begin(), followers.end());
    std::vector<std::optional<std::string>> current;
    if (int status = readCurrentValues(cfgd, read, current); status != 0) return status;
    const std::vector<std::optional<std::string>> currentOfLines(current.begin(),
                                                                 current.begin() + lines.size());
    const std::vector<std::size_t> plan = planWrites(lines, currentOfLines);

    trial.daemonPid = cfgd.daemonPid();
    char numbers[16];
    for (const std::size_t i : plan) {
        if (!current[i]) {
            std::fprintf(stderr,
                         "cfgctl: %s cannot be read, so a trial could not restore it (nothing "
                         "was written)\n",
                         labelOf(lines[i].param, numbers));
            return cfgd.end(true) != 0 ? kExitNoAnswer : kExitUsage;
        }
        trial.entries.push_back({lines[i].param, current[i], lines[i].value});
    }
    for (std::size_t i = 0; i < followers.size() && !plan.empty(); ++i)
        if (current[lines.size() + i])
            trial.entries.push_back({followers[i].param, current[lines.size() + i], {}});
    if (plan.empty()) {
        std::fprintf(humanOutput(invocation),
                     "nothing differs from cfgd's values: no trial started\n");
        addCounts(invocation, 0, lines.size());
        return cfgd.end(false);
    }
    if (trial.entries.size() > kMaxWrites) {
        std::fprintf(stderr,
                     "cfgctl: %zu values would change, but a rollback takes at most %zu writes "
                     "in one session: try the changes in parts (nothing was written)\n",
                     trial.entries.size(), kMaxWrites);
        return cfgd.end(true) != 0 ? kExitNoAnswer : kExitUsage;
    }
    // Recorded before anything is written: if this call dies halfway, the next one finds a
    // trial without a guard and rolls it back.
    trial.deadline = now() + invocation.trialSeconds;
    if (!store.write(trial)) {
        std::fprintf(stderr, "cfgctl: cannot write the trial record in %s: %s\n",
                     store.directory().c_str(), std::strerror(errno));
        (void)cfgd.end(true);
        return kExitUsage;
    }
    if (int status = cfgd.start(static_cast<unsigned>(std::min(plan.size(), kMaxAnnounced)));
        status != 0)
        return status;
    for (const std::size_t i : plan) {
        if (int status = cfgd.exchange(SET_TEMP_PARAM, requestOf(lines[i])); status != 0)
            return status;
        if (cfgd.refused()) {
            const std::string written = asWritten(invocation, lines, i);
            char where[kErrorSize] = "";  // apply's file and line, as a refused apply names them
            if (lines[i].line > 0)
                std::snprintf(where, sizeof where, "%s:%u: ", invocation.file, lines[i].line);
            std::fprintf(stderr, "cfgctl: %s%s = %s: %s (%s)\n", where, written.c_str(),
                         lines[i].value.c_str(), cfgd.refusal(), kAbortedText);
            if (invocation.report != nullptr)
                invocation.report->refuse(
                    {lines[i].param, written, lines[i].value, cfgd.refusal(), lines[i].line});
            (void)store.clear();  // nothing of the trial was applied; a record left is settled
            const int status = cfgd.end(true);
            return status != 0 ? status : kExitRefused;
        }
    }
    const int finished = cfgd.end(false);  // a failed apply is reported, and rolled back too
    trial.deadline = now() + invocation.trialSeconds;
    trial.guard = startGuard(invocation, store, true);
    if (trial.guard.pid < 0 || !store.write(trial))
        std::fprintf(stderr, "cfgctl: cannot start the trial's guard: the next call rolls back\n");
    std::FILE* out = humanOutput(invocation);
    std::fprintf(out, "trial: applied, not stored; rolled back in %d s unless confirmed:\n",
                 invocation.trialSeconds);
    printTrial(out, trial);
    std::fprintf(out, "keep it with: cfgctl confirm; undo it now with: cfgctl rollback\n");
    if (invocation.report != nullptr) invocation.report->setTrial(trial, invocation.trialSeconds);
    addCounts(invocation, plan.size(), lines.size() - plan.size());
    return finished;
}

namespace {

// Runs `act` on the pending trial under its lock, after settling it; without one, says so.
template <typename Act>
int withPendingTrial(const Invocation& invocation, Act act) {
    long long left = 0;
    const TrialState state = settleTrial(invocation, left);
    if (state == TrialState::Damaged || state == TrialState::Unsafe) return kExitUsage;
    TrialStore store;
    TrialRecord trial;
    std::string error;
    if (state == TrialState::None || !openStore(invocation, store, true) ||
        store.read(trial, error) != TrialFile::Pending) {
        if (invocation.report != nullptr) invocation.report->hasTrial = false;  // ended since
        std::fputs(kNoTrialText, stderr);
        return kExitNoTrial;
    }
    if (invocation.report != nullptr) invocation.report->setTrial(trial, left);
    return act(store, trial, left);
}

}  // namespace

int runConfirm(const Invocation& invocation) {
    return withPendingTrial(invocation, [&](const TrialStore& store, const TrialRecord& trial,
                                            long long) {
        // The values are the daemon's already, but a store writes only what a write marked.
        const std::vector<ApplyLine> lines = linesOf(trial, false);
        if (int status = writeLines(invocation, lines, SET_PARAM, true, "confirm"); status != 0) {
            std::fprintf(stderr, "cfgctl: nothing was stored; the trial goes on\n");
            return status;
        }
        removeTrial(store, trial);
        std::fprintf(humanOutput(invocation), "confirmed: %zu values stored\n", lines.size());
        if (invocation.report != nullptr) invocation.report->counts = {{"stored", lines.size()}};
        return kExitOk;
    });
}

int runRollback(const Invocation& invocation) {
    if (invocation.force) {
        TrialStore store;
        if (!openStore(invocation, store)) return kExitUsage;
        TrialRecord trial;
        std::string error;
        const TrialFile file = store.read(trial, error);
        if (file == TrialFile::None) {
            std::fputs(kNoTrialText, stderr);
            return kExitNoTrial;
        }
        if (file == TrialFile::Damaged) trial = TrialRecord{};  // no guard to end that it names
        removeTrial(store, trial);
        std::fprintf(humanOutput(invocation), "trial record in %s removed; nothing was written\n",
                     store.directory().c_str());
        return kExitOk;
    }
    return withPendingTrial(
        invocation, [&](const TrialStore& store, const TrialRecord& trial, long long) {
            const int status = rollBack(invocation, trial);
            if (unreachable(status)) return status;
            removeTrial(store, trial);
            const std::size_t restored = linesOf(trial, true).size();
            std::fprintf(humanOutput(invocation), "rolled back: %zu values restored\n", restored);
            if (invocation.report != nullptr) invocation.report->counts = {{"restored", restored}};
            return status;
        });
}

int runTrialInit(const Invocation& invocation) {
    if (geteuid() != 0) {
        std::fputs("cfgctl: only root makes the trial directory\n", stderr);
        return kExitUsage;
    }
    TrialStore store;
    if (!openStore(invocation, store)) return kExitUsage;
    std::fprintf(humanOutput(invocation), "trial directory %s ready\n", store.directory().c_str());
    return kExitOk;
}

int runTrialStatus(const Invocation& invocation) {
    return withPendingTrial(invocation,
                            [&](const TrialStore&, const TrialRecord& trial, long long left) {
                                std::FILE* out = humanOutput(invocation);
                                std::fprintf(out, "trial pending: %lld s left\n", left);
                                printTrial(out, trial);
                                return kExitOk;
                            });
}

}  // namespace cfgctl
