#include "sys/log.h"

#include <poll.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <initializer_list>

namespace sys {
namespace {

constexpr int kLineChars = 1023;            // longer lines are cut, and still end the line
constexpr timespec kTerminationWait{1, 0};  // for the rest of a line, at the end

// The line being written. The termination signals are held while it is made and written, and
// let through only while the writer waits for room (ppoll): a termination handler then finds
// here exactly the part that has not reached the output.
char line[kLineChars + 1];
volatile sig_atomic_t lineFd = -1;
volatile sig_atomic_t lineLength = 0;  // 0: no line pending
volatile sig_atomic_t lineWritten = 0;

// Writes what is left of the pending line, waiting for room at most `timeout` (nullptr: as
// long as it takes) with the signal mask `mask` in force while it waits. With room for it, the
// write does not block: a pipe that POLLOUT reports has a free page, and a line is shorter than
// one. (Only another writer of the same pipe, a command the daemon started, can take that room
// first.) What cannot be written is lost: there is nowhere to report a log that fails.
void writePending(const timespec* timeout, const sigset_t* mask) {
    while (lineWritten < lineLength) {
        pollfd output{lineFd, POLLOUT, 0};
        const int ready = ppoll(&output, 1, timeout, mask);
        if (ready < 0 && errno == EINTR) continue;  // a child reaped
        if (ready <= 0 || (output.revents & POLLNVAL) != 0) return;
        const ssize_t n =
            write(lineFd, line + lineWritten, static_cast<std::size_t>(lineLength - lineWritten));
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n <= 0) return;
        lineWritten = lineWritten + static_cast<int>(n);
    }
}

void writeLine(int fd, const char* format, va_list arguments) {
    const int savedErrno = errno;  // callers report errno after logging
    sigset_t termination, previous;
    sigemptyset(&termination);
    for (int signal : {SIGTERM, SIGHUP, SIGINT})
        sigaddset(&termination, signal);
    (void)sigprocmask(SIG_BLOCK, &termination, &previous);  // cannot fail with these arguments

    int length = std::vsnprintf(line, sizeof line, format, arguments);
    if (length > kLineChars) {
        length = kLineChars;
        line[length - 1] = '\n';
    }
    lineFd = fd;
    lineWritten = 0;
    lineLength = length > 0 ? length : 0;
    writePending(nullptr, &previous);
    lineLength = 0;
    (void)sigprocmask(SIG_SETMASK, &previous, nullptr);  // a held signal ends the process here
    errno = savedErrno;
}

}  // namespace

void logLine(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    writeLine(STDOUT_FILENO, format, arguments);
    va_end(arguments);
}

void logError(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    writeLine(STDERR_FILENO, format, arguments);
    va_end(arguments);
}

void flushPendingLog() {
    writePending(&kTerminationWait, nullptr);
    lineLength = 0;
}

}  // namespace sys
