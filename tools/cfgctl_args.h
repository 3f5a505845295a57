#pragma once
// cfgctl's command line, kept apart from the queue work so that it can be checked on its own.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

namespace cfgctl {

inline constexpr int kExitOk = 0;
inline constexpr int kExitRefused = 1;   // cfgd answered NEG_ANSW
inline constexpr int kExitUsage = 2;     // bad arguments
inline constexpr int kExitNoDaemon = 3;  // no lock file, no queue, semaphore busy
inline constexpr int kExitNoAnswer = 4;  // cfgd did not answer in time

inline constexpr std::size_t kMaxWrites = 255;  // START_SESSION announces them in one byte

enum class Command { Get, Set, Help };

struct Parameter {
    uint8_t f1;
    uint8_t f2;
    uint8_t f3;
    const char* value;  // nullptr for reads
};

struct Invocation {
    Command command = Command::Get;
    const char* lockPath = nullptr;  // the daemon's default when not given
    int timeoutSeconds = 0;          // the client's default when not given
    bool temporary = false;
    bool abort = false;
    std::vector<Parameter> parameters;
};

// Fills `invocation`; on a bad command line returns false with the reason in `error`.
[[nodiscard]] bool parseArguments(int argc, const char* const* argv, Invocation& invocation,
                                  char* error, std::size_t errorSize);

void printUsage(std::FILE* out);

}  // namespace cfgctl
