#pragma once
// The daemon's diagnostic lines. Each line is formatted whole and handed to the kernel in one
// write, so that it reaches a log file or a pipe at once and in one piece, in order with the
// output of the commands the daemon runs, and nothing waits in a stdio buffer that a
// termination by signal (which ends the process without flushing) would lose.

namespace sys {

// A line on standard output.
void logLine(const char* format, ...) __attribute__((format(printf, 1, 2)));
// A line on standard error.
void logError(const char* format, ...) __attribute__((format(printf, 1, 2)));

// For the termination handler (system calls only): writes what is left of a line that a
// termination signal interrupted while it waited for room in its output, waiting for room a
// bounded time, so that a reader that stopped cannot keep the daemon from ending.
void flushPendingLog();

}  // namespace sys
