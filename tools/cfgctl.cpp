// cfgctl: reads and writes cfgd parameters from scripts, tests and the field engineer's shell.
// One call is one session, held under the daemon's client semaphore from start to end.

#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cfgctl_args.h"
#include "client.h"
#include "core/options.h"

namespace {

using cfgctl::Command;
using cfgctl::Invocation;
using client::Status;

const char* requestName(const Invocation& invocation) {
    if (invocation.command == Command::Get) return "get";
    return invocation.temporary ? "set --temp" : "set";
}

// Prints why the daemon could not be used and gives the exit status for it.
int reportFailure(Status status, const client::Connection& cfgd, const char* lockPath) {
    const client::LockLine& lock = cfgd.lockLine();
    switch (status) {
        case Status::NoLockFile:
            std::fprintf(stderr, "cfgctl: cannot read lock file %s: %s (is cfgd running?)\n",
                         lockPath, std::strerror(errno));
            return cfgctl::kExitNoDaemon;
        case Status::BadLockFile:
            std::fprintf(stderr,
                         "cfgctl: lock file %s does not hold \"<semaphore key>, <queue key>, "
                         "<pid>\"\n",
                         lockPath);
            return cfgctl::kExitNoDaemon;
        case Status::NoQueue:
            std::fprintf(stderr,
                         "cfgctl: cfgd is not running: no queue or semaphore set for the keys in "
                         "%s (semaphore key %d, queue key %d, pid %d)\n",
                         lockPath, lock.semaphoreKey, lock.queueKey, lock.pid);
            return cfgctl::kExitNoDaemon;
        case Status::Busy:
            std::fprintf(stderr, "cfgctl: another client kept cfgd busy for %d s\n",
                         cfgd.timeoutSeconds());
            return cfgctl::kExitNoDaemon;
        case Status::Timeout:
            // A daemon killed without its clean-up leaves lock file and queue behind.
            std::fprintf(stderr, "cfgctl: no answer from cfgd within %d s (pid %d%s)\n",
                         cfgd.timeoutSeconds(), lock.pid,
                         kill(lock.pid, 0) != 0 && errno == ESRCH ? " is not running" : "");
            return cfgctl::kExitNoAnswer;
        case Status::BadAnswer:
            std::fprintf(stderr, "cfgctl: cfgd sent an answer that does not parse\n");
            return cfgctl::kExitNoAnswer;
        case Status::TooLong:
            std::fprintf(stderr, "cfgctl: request too long for a queue message\n");
            return cfgctl::kExitUsage;
        case Status::SystemError:
        case Status::Ok:
            break;
    }
    std::fprintf(stderr, "cfgctl: %s\n", std::strerror(errno));
    return cfgctl::kExitNoDaemon;
}

// Values are checked before the session starts, so that a call never stops half-way for them.
bool valuesFit(const Invocation& invocation, unsigned writeType) {
    for (const cfgctl::Parameter& p : invocation.parameters) {
        if (p.value == nullptr || client::fitsInRequest(writeType, p.f1, p.f2, p.f3, p.value))
            continue;
        std::fprintf(stderr,
                     "cfgctl: value for %u %u %u is too long: %zu bytes make a request of %zu "
                     "bytes, at most %zu fit in one\n",
                     p.f1, p.f2, p.f3, std::strlen(p.value),
                     client::requestTextLength(writeType, p.f1, p.f2, p.f3, p.value),
                     kQueueTextSize);
        return false;
    }
    return true;
}

int run(const Invocation& invocation) {
    const bool writes = invocation.command == Command::Set;
    const unsigned writeType = invocation.temporary ? SET_TEMP_PARAM : SET_PARAM;
    if (!valuesFit(invocation, writeType)) return cfgctl::kExitUsage;

    const char* lockPath = invocation.lockPath != nullptr ? invocation.lockPath : kDefaultLockPath;
    client::Connection cfgd;
    if (invocation.timeoutSeconds > 0) cfgd.setTimeout(invocation.timeoutSeconds);
    if (Status s = cfgd.open(lockPath); s != Status::Ok) return reportFailure(s, cfgd, lockPath);

    RequestMessage answer;
    const unsigned announced = writes ? static_cast<unsigned>(invocation.parameters.size()) : 0;
    if (Status s = cfgd.startSession(announced, answer); s != Status::Ok) {
        // A START_SESSION that is answered late must not leave the session open.
        if (s == Status::Timeout) cfgd.sendWithoutWaiting(ABORT_SESSION);
        return reportFailure(s, cfgd, lockPath);
    }

    bool refused = false;
    for (const cfgctl::Parameter& p : invocation.parameters) {
        const unsigned mt = writes ? writeType : unsigned{READ_PARAM};
        if (Status s = cfgd.exchange(mt, p.f1, p.f2, p.f3, p.value, answer); s != Status::Ok) {
            // Whenever the daemon catches up, this closes the session and drops its writes.
            cfgd.sendWithoutWaiting(ABORT_SESSION);
            return reportFailure(s, cfgd, lockPath);
        }
        if (answer.mt == NEG_ANSW) {
            // Some refusals come without a text (a parameter that is not served).
            std::fprintf(stderr, "cfgctl: %s %u %u %u: %s\n", requestName(invocation), p.f1, p.f2,
                         p.f3, answer.da[0] != '\0' ? answer.da : "refused by cfgd");
            refused = true;
            break;
        }
        if (!writes) {
            std::printf("%s\n", answer.da);
        } else if (answer.da[0] != '\0') {
            // A write that went through with a remark from the daemon.
            std::fprintf(stderr, "cfgctl: %s %u %u %u: %s\n", requestName(invocation), p.f1, p.f2,
                         p.f3, answer.da);
        }
    }

    // A refused write aborts, so that none of the call's writes is applied or stored; reads
    // have nothing to drop, and finishing them spares the daemon a reload of its file.
    const bool abort = invocation.abort || (refused && writes);
    const unsigned end = abort ? ABORT_SESSION : FINISH_SESSION;
    if (Status s = cfgd.exchange(end, 0, 0, 0, nullptr, answer); s != Status::Ok)
        return reportFailure(s, cfgd, lockPath);
    cfgd.endSession();
    if (answer.mt == NEG_ANSW) {
        std::fprintf(stderr, "cfgctl: %s: %s\n", abort ? "ABORT_SESSION" : "FINISH_SESSION",
                     answer.da);
        return cfgctl::kExitRefused;
    }
    return refused ? cfgctl::kExitRefused : cfgctl::kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
    Invocation invocation;
    char error[160];
    if (!cfgctl::parseArguments(argc, argv, invocation, error, sizeof error)) {
        std::fprintf(stderr, "cfgctl: %s\n", error);
        cfgctl::printUsage(stderr);
        return cfgctl::kExitUsage;
    }
    if (invocation.command == Command::Help) {
        cfgctl::printUsage(stdout);
        return cfgctl::kExitOk;
    }
    const int status = run(invocation);
    if (std::fflush(stdout) != 0) {
        std::fprintf(stderr, "cfgctl: cannot write the values: %s\n", std::strerror(errno));
        return status != cfgctl::kExitOk ? status : cfgctl::kExitRefused;
    }
    return status;
}
