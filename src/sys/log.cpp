#include "sys/log.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <initializer_list>

namespace sys {
namespace {

constexpr int kLineChars = 1023;  // longer lines are cut, and still end the line

void writeLine(int fd, const char* format, va_list arguments) {
    const int savedErrno = errno;  // callers report errno after logging
    // A termination signal ends the process at once; held back while the line is made and
    // written, it cannot cut the line or drop it half made.
    sigset_t termination, previous;
    sigemptyset(&termination);
    for (int signal : {SIGTERM, SIGHUP, SIGINT})
        sigaddset(&termination, signal);
    (void)sigprocmask(SIG_BLOCK, &termination, &previous);  // cannot fail with these arguments

    char line[kLineChars + 1];
    int length = std::vsnprintf(line, sizeof line, format, arguments);
    if (length > kLineChars) {
        length = kLineChars;
        line[length - 1] = '\n';
    }
    for (int written = 0; length > 0 && written < length;) {
        const ssize_t n = write(fd, line + written, static_cast<std::size_t>(length - written));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;  // nowhere to report a log that cannot be written
        written += static_cast<int>(n);
    }
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

}  // namespace sys
