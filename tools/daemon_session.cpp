#include "daemon_session.h"

#include <signal.h>
#include <sys/msg.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/options.h"
#include "json_out.h"

namespace cfgctl {

using client::Status;

namespace {

// Prints why the daemon could not be used and gives the exit status for it.
int reportFailure(Status status, const client::Connection& cfgd, const char* lockPath) {
    const client::LockLine& lock = cfgd.lockLine();
    switch (status) {
        case Status::NoLockFile:
            std::fprintf(stderr, "cfgctl: cannot read lock file %s: %s (is cfgd running?)\n",
                         lockPath, std::strerror(errno));
            return kExitNoDaemon;
        case Status::BadLockFile:
            std::fprintf(stderr,
                         "cfgctl: lock file %s does not hold \"<semaphore key>, <queue key>, "
                         "<pid>\"\n",
                         lockPath);
            return kExitNoDaemon;
        case Status::NoQueue:
            std::fprintf(stderr,
                         "cfgctl: cfgd is not running: no queue or semaphore set for the keys in "
                         "%s (semaphore key %d, queue key %d, pid %d)\n",
                         lockPath, lock.semaphoreKey, lock.queueKey, lock.pid);
            return kExitNoDaemon;
        case Status::Busy:
            std::fprintf(stderr, "cfgctl: another client kept cfgd busy for %d s\n",
                         cfgd.timeoutSeconds());
            return kExitNoDaemon;
        case Status::Timeout:
            // A daemon killed without its clean-up leaves lock file and queue behind.
            std::fprintf(stderr, "cfgctl: no answer from cfgd within %d s (pid %d%s)\n",
                         cfgd.timeoutSeconds(), lock.pid,
                         kill(lock.pid, 0) != 0 && errno == ESRCH ? " is not running" : "");
            return kExitNoAnswer;
        case Status::BadAnswer:
            std::fprintf(stderr, "cfgctl: cfgd sent an answer that does not parse\n");
            return kExitNoAnswer;
        case Status::TooLong:
            std::fprintf(stderr, "cfgctl: request too long for a queue message\n");
            return kExitUsage;
        case Status::SystemError:
        case Status::Ok:
            break;
    }
    std::fprintf(stderr, "cfgctl: %s\n", std::strerror(errno));
    return kExitNoDaemon;
}

}  // namespace

bool valueFits(unsigned writeType, const Parameter& p, const char* where) {
    if (client::fitsInRequest(writeType, p.f1, p.f2, p.f3, p.value)) return true;
    std::fprintf(stderr,
                 "cfgctl: %s: value is too long: %zu bytes make a request of %zu bytes, at most "
                 "%zu fit in one\n",
                 where, std::strlen(p.value),
                 client::requestTextLength(writeType, p.f1, p.f2, p.f3, p.value), kQueueTextSize);
    return false;
}

const char* lockPathOf(const Invocation& invocation) {
    return invocation.lockPath != nullptr ? invocation.lockPath : kDefaultLockPath;
}

DaemonSession::DaemonSession(const Invocation& invocation)
    : lockPath_(lockPathOf(invocation)), report_(invocation.report) {
    if (invocation.timeoutSeconds > 0) cfgd_.setTimeout(invocation.timeoutSeconds);
}

int DaemonSession::open() {
    return check(cfgd_.open(lockPath_));
}

int DaemonSession::start(unsigned writes) {
    // A START_SESSION that is answered late must not leave the session open.
    return check(cfgd_.startSession(writes, answer_), true);
}

int DaemonSession::exchange(unsigned mt, const Parameter& p) {
    return check(cfgd_.exchange(mt, p.f1, p.f2, p.f3, p.value, answer_), true);
}

int DaemonSession::end(bool abort, bool keep) {
    const unsigned mt = abort ? ABORT_SESSION : FINISH_SESSION;
    if (int status = check(cfgd_.exchange(mt, 0, 0, 0, nullptr, answer_)); status != 0)
        return status;
    if (!keep) cfgd_.endSession();
    if (answer_.mt != NEG_ANSW) return kExitOk;
    const char* request = abort ? "ABORT_SESSION" : "FINISH_SESSION";
    std::fprintf(stderr, "cfgctl: %s: %s\n", request, answer_.da);
    if (report_ != nullptr) report_->refuse({std::nullopt, request, std::nullopt, answer_.da});
    return kExitRefused;
}

int DaemonSession::check(Status status, bool inSession) {
    if (status == Status::Ok) return 0;
    // Whenever the daemon catches up, this closes the session and drops its writes.
    if (inSession && status != Status::Busy) cfgd_.sendWithoutWaiting(ABORT_SESSION);
    if (report_ != nullptr && (status == Status::Busy || status == Status::NoLockFile ||
                               status == Status::BadLockFile || status == Status::NoQueue))
        report_->unreachable = status == Status::Busy ? "busy" : "not_running";
    return reportFailure(status, cfgd_, lockPath_);
}

const char* labelOf(const Param& param, char (&numbers)[16]) {
    if (param.name[0] != '\0') return param.name;
    std::snprintf(numbers, sizeof numbers, "%u %u %u", param.f1, param.f2, param.f3);
    return numbers;
}

std::string writtenAs(const Parameter& p) {
    if (p.name != nullptr) return p.name;
    char numbers[16];
    std::snprintf(numbers, sizeof numbers, "%u %u %u", p.f1, p.f2, p.f3);
    return numbers;
}

Parameter requestOf(const ApplyLine& line) {
    return {line.param.f1, line.param.f2, line.param.f3,
            valueToWrite(line.param, line.value.c_str())};
}

int readCurrentValues(DaemonSession& cfgd, const std::vector<ApplyLine>& lines,
                      std::vector<std::optional<std::string>>& current) {
    if (int status = cfgd.start(0); status != 0) return status;
    for (const ApplyLine& line : lines) {
        current.emplace_back();
        if (line.param.access == ParamAccess::WriteOnly) continue;
        Parameter p = requestOf(line);
        p.value = nullptr;
        if (int status = cfgd.exchange(READ_PARAM, p); status != 0) return status;
        if (!cfgd.refused()) current.back() = cfgd.answer().da;
    }
    return cfgd.end(false, true);
}
}  // namespace cfgctl
