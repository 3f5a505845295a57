#pragma once
// The daemon's command line.

#include <cstdio>

#include "config/config_path.h"

inline constexpr const char* kDefaultLockPath = "/tmp/kiv_lock";
// The lock file's one line: semaphore key, queue key, daemon pid.
inline constexpr const char* kLockLineFormat = "%d, %d, %d\n";
inline constexpr int kNoKey = -1;

struct Options {
    char configPath[kMaxPathLength + 1];
    char lockPath[kMaxPathLength + 1];
    int queueKey;
    int semaphoreKey;
};

inline constexpr int kContinue = 1000;  // parseOptions: no reason to end, start the daemon

// Reads the command line into `options` (which it first sets to the defaults). Returns
// kContinue, or the exit status the daemon ends with after its text went to `out`.
int parseOptions(int argc, char** argv, Options& options, std::FILE* out);
