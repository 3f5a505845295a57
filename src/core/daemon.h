#pragma once
// Start-up, the receive loop and clean-up of the daemon.

// Runs the daemon with its command line; returns only the exit status of a start that failed
// or printed its usage or version.
int runDaemon(int argc, char** argv);

// Writes the lock line "<semaphore key>, <queue key>, <pid>". 0; -1 when the file cannot be
// opened; -2 when it could not be written completely.
[[nodiscard]] int writeLockFile(const char* path, int semaphoreKey, int queueKey, int pid);
