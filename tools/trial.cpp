#include "trial.h"

#include <fcntl.h>
#include <signal.h>
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

long long now() {
    return static_cast<long long>(std::time(nullptr));
}

// A process that has ended but was not yet reaped (its parent, cfgctl, is long gone) counts as
// ended.
bool alive(int pid) {
    if (pid <= 0 || (kill(pid, 0) != 0 && errno != EPERM)) return false;
    char path[32], stat[128] = {};
    std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
    std::FILE* file = std::fopen(path, "r");
    if (file == nullptr) return true;  // without procfs: as kill says
    const std::size_t n = std::fread(stat, 1, sizeof stat - 1, file);
    (void)std::fclose(file);  // read only
    const char* end = std::strrchr(stat, ')');
    return end == nullptr || n == 0 || end[1] != ' ' || end[2] != 'Z';
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

// Ends the trial: its guard (unless that is the caller) and its record.
void removeTrial(const std::string& path, const TrialRecord& trial) {
    if (trial.guardPid > 0 && trial.guardPid != getpid())
        (void)kill(trial.guardPid, SIGTERM);  // it may have ended already
    (void)std::remove(path.c_str());          // a record left behind is settled by the next call
}

void guardLog(int priority, const char* text) {
    std::fprintf(stderr, "cfgctl guard %d: %s\n", static_cast<int>(getpid()), text);
    syslog(priority, "%s", text);
}

// The guard's life: waits for the deadline, or for the daemon to restart, and rolls back. It
// ends as soon as the record is gone or names another guard (confirmed, rolled back, taken
// over).
int guard(const Invocation& invocation, const std::string& path) {
    openlog("cfgctl", LOG_PID, LOG_USER);
    for (;;) {
        (void)sleep(kGuardPollSeconds);  // a signal only makes it look sooner
        TrialLock lock(path);
        TrialRecord trial;
        std::string error;
        if (readTrial(path, trial, error) != TrialFile::Pending || trial.guardPid != getpid())
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
            removeTrial(path, trial);
            return 0;
        }
        if (now() >= trial.deadline + kGraceSeconds) {
            guardLog(LOG_WARNING,
                     "cfgd not reachable since the deadline: gave up rolling back; a restarted "
                     "cfgd runs on its stored configuration, which the trial never changed");
            removeTrial(path, trial);
            return 1;
        }
    }
}

// A guard that outlives the caller: its own session, away from the caller's terminal and
// output (a closed SSH session or the end of a web request must not end it, and a caller that
// waits for the end of cfgctl's output must not wait for it). Its pid, or -1.
int startGuard(const Invocation& invocation, const std::string& path, bool freshLog) {
    std::fflush(nullptr);  // nothing buffered may be written twice
    const pid_t pid = fork();
    if (pid != 0) return pid;
    (void)setsid();
    // Inherited descriptors, above all the record's lock, would keep what they hold.
    for (int fd = 3; fd <= kHighestInheritedFd; ++fd)
        (void)close(fd);
    const int in = ::open("/dev/null", O_RDONLY);
    const int log = ::open(guardLogPath(path).c_str(),
                           O_WRONLY | O_CREAT | O_APPEND | (freshLog ? O_TRUNC : 0), 0644);
    (void)dup2(in, STDIN_FILENO);
    (void)dup2(log >= 0 ? log : in, STDOUT_FILENO);
    (void)dup2(log >= 0 ? log : in, STDERR_FILENO);
    (void)signal(SIGHUP, SIG_IGN);
    (void)signal(SIGPIPE, SIG_IGN);
    _exit(guard(invocation, path));
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

// A write refused because of the pending trial: the reason, and the trial under --json.
int refuseForTrial(const Invocation& invocation, const TrialRecord* trial, long long left) {
    std::fprintf(stderr, kPendingFormat, left);
    if (invocation.report == nullptr) return kExitTrialPending;
    TrialRecord read;
    if (trial == nullptr) {
        const std::string path = trialPath(lockPathOf(invocation));
        TrialLock lock(path);
        std::string error;
        if (readTrial(path, read, error) == TrialFile::Pending) trial = &read;
    }
    if (trial != nullptr) invocation.report->setTrial(*trial, left);
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

}  // namespace

TrialState settleTrial(const Invocation& invocation, long long& secondsLeft) {
    const std::string path = trialPath(lockPathOf(invocation));
    if (access(path.c_str(), F_OK) != 0) return TrialState::None;  // the usual case, cheaply
    TrialLock lock(path);
    TrialRecord trial;
    std::string error;
    const TrialFile file = readTrial(path, trial, error);
    if (file == TrialFile::None) return TrialState::None;
    if (file == TrialFile::Damaged) {
        std::fprintf(stderr,
                     "cfgctl: the trial record %s is damaged (%s): nothing was written; "
                     "cfgctl rollback --force removes it\n",
                     path.c_str(), error.c_str());
        return TrialState::Damaged;
    }
    client::LockLine daemon{};
    const bool restarted =
        client::readLockFile(lockPathOf(invocation), daemon) == client::Status::Ok &&
        daemon.pid != trial.daemonPid && alive(daemon.pid);
    const bool guarded = alive(trial.guardPid);
    if (restarted || (!guarded && now() >= trial.deadline)) {
        std::fprintf(stderr, "cfgctl: %s: rolling the trial back first\n",
                     restarted ? "cfgd restarted during a trial"
                               : "a trial's guard is gone and its deadline has passed");
        const int status = rollBack(invocation, trial);
        if (!unreachable(status) || now() >= trial.deadline + kGraceSeconds) {
            removeTrial(path, trial);
            return TrialState::None;
        }
    } else if (!guarded) {
        trial.guardPid = startGuard(invocation, path, false);
        if (trial.guardPid < 0 || !writeTrial(path, trial))
            std::fprintf(stderr, "cfgctl: cannot give the trial a new guard\n");
    }
    secondsLeft = std::max(0LL, trial.deadline - now());
    return TrialState::Pending;
}

int refuseWritesDuringTrial(const Invocation& invocation) {
    long long left = 0;
    switch (settleTrial(invocation, left)) {
        case TrialState::None:
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
    if (int status = refuseWritesDuringTrial(invocation); status != 0) return status;
    const std::string path = trialPath(lockPathOf(invocation));
    DaemonSession cfgd(invocation);
    if (int status = cfgd.open(); status != 0) return status;
    unsigned ipcMode = 0, ipcGroup = 0;
    if (!cfgd.queueAccess(ipcMode, ipcGroup) || !makeTrialDirectory(path, ipcMode, ipcGroup)) {
        std::fprintf(stderr, "cfgctl: cannot make the trial's directory for %s: %s\n", path.c_str(),
                     std::strerror(errno));
        return kExitUsage;
    }
    TrialLock lock(path);  // a second trial started at the same time waits, then is refused
    TrialRecord trial;
    std::string error;
    if (readTrial(path, trial, error) != TrialFile::None)
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
    if (!writeTrial(path, trial)) {
        std::fprintf(stderr, "cfgctl: cannot write the trial record %s: %s\n", path.c_str(),
                     std::strerror(errno));
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
            std::fprintf(stderr, "cfgctl: %s%s = %s: %s (nothing was written)\n", where,
                         written.c_str(), lines[i].value.c_str(), cfgd.refusal());
            if (invocation.report != nullptr)
                invocation.report->refuse(
                    {lines[i].param, written, lines[i].value, cfgd.refusal(), lines[i].line});
            (void)std::remove(path.c_str());  // nothing of the trial was applied
            const int status = cfgd.end(true);
            return status != 0 ? status : kExitRefused;
        }
    }
    const int finished = cfgd.end(false);  // a failed apply is reported, and rolled back too
    trial.deadline = now() + invocation.trialSeconds;
    trial.guardPid = startGuard(invocation, path, true);
    if (trial.guardPid < 0 || !writeTrial(path, trial))
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
    if (state == TrialState::Damaged) return kExitUsage;
    const std::string path = trialPath(lockPathOf(invocation));
    TrialLock lock(path);
    TrialRecord trial;
    std::string error;
    if (state == TrialState::None || readTrial(path, trial, error) != TrialFile::Pending) {
        std::fputs(kNoTrialText, stderr);
        return kExitNoTrial;
    }
    if (invocation.report != nullptr) invocation.report->setTrial(trial, left);
    return act(path, trial, left);
}

}  // namespace

int runConfirm(const Invocation& invocation) {
    return withPendingTrial(invocation, [&](const std::string& path, const TrialRecord& trial,
                                            long long) {
        // The values are the daemon's already, but a store writes only what a write marked.
        const std::vector<ApplyLine> lines = linesOf(trial, false);
        if (int status = writeLines(invocation, lines, SET_PARAM, true, "confirm"); status != 0) {
            std::fprintf(stderr, "cfgctl: nothing was stored; the trial goes on\n");
            return status;
        }
        removeTrial(path, trial);
        std::fprintf(humanOutput(invocation), "confirmed: %zu values stored\n", lines.size());
        if (invocation.report != nullptr) invocation.report->counts = {{"stored", lines.size()}};
        return kExitOk;
    });
}

int runRollback(const Invocation& invocation) {
    if (invocation.force) {
        const std::string path = trialPath(lockPathOf(invocation));
        TrialLock lock(path);
        TrialRecord trial;
        std::string error;
        const TrialFile file = readTrial(path, trial, error);
        if (file == TrialFile::None) {
            std::fputs(kNoTrialText, stderr);
            return kExitNoTrial;
        }
        if (file == TrialFile::Damaged) trial = TrialRecord{};  // no guard to end that it names
        removeTrial(path, trial);
        std::fprintf(humanOutput(invocation), "trial record %s removed; nothing was written\n",
                     path.c_str());
        return kExitOk;
    }
    return withPendingTrial(
        invocation, [&](const std::string& path, const TrialRecord& trial, long long) {
            const int status = rollBack(invocation, trial);
            if (unreachable(status)) return status;
            removeTrial(path, trial);
            const std::size_t restored = linesOf(trial, true).size();
            std::fprintf(humanOutput(invocation), "rolled back: %zu values restored\n", restored);
            if (invocation.report != nullptr) invocation.report->counts = {{"restored", restored}};
            return status;
        });
}

int runTrialStatus(const Invocation& invocation) {
    return withPendingTrial(invocation,
                            [&](const std::string&, const TrialRecord& trial, long long left) {
                                std::FILE* out = humanOutput(invocation);
                                std::fprintf(out, "trial pending: %lld s left\n", left);
                                printTrial(out, trial);
                                return kExitOk;
                            });
}

}  // namespace cfgctl
