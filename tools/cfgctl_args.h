#pragma once
// cfgctl's command line, kept apart from the queue work so that it can be checked on its own.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "model/param_names.h"
#include "model/value_rules.h"

namespace cfgctl {

// What an aborted session leaves behind, as every message tells it: the hardened daemon goes
// back to its file; the legacy one keeps the file too, but routes and filters of the session
// may stay in the running system until it restarts.
constexpr const char* kAbortedText =
    kHardened ? "nothing was written"
              : "nothing was stored; routes and filters it set may stay in use";
// The writes of `apply --abort`, in its summary line.
constexpr const char* kAbortedWritesText = kHardened ? " and dropped" : " and not stored";

inline constexpr int kExitOk = 0;
inline constexpr int kExitRefused = 1;       // cfgd answered NEG_ANSW
inline constexpr int kExitUsage = 2;         // bad arguments or a bad file
inline constexpr int kExitNoDaemon = 3;      // no lock file, no queue, semaphore busy
inline constexpr int kExitNoAnswer = 4;      // cfgd did not answer in time
inline constexpr int kExitTrialPending = 5;  // a trial is pending: writes are refused
inline constexpr int kExitNoTrial = 6;       // confirm, rollback or trial without a trial

// START_SESSION announces the writes in one byte, and the daemon takes one write more than
// announced.
inline constexpr std::size_t kMaxAnnounced = 255;
inline constexpr std::size_t kMaxWrites = kMaxAnnounced + 1;

inline constexpr std::size_t kErrorSize = 512;  // room for a reason with close matches

enum class Command { Get, Set, Dump, Apply, Names, Confirm, Rollback, Trial, Help, Version };

struct Parameter {
    uint8_t f1;
    uint8_t f2;
    uint8_t f3;
    const char* value;           // nullptr for reads
    const char* name = nullptr;  // as the user wrote it; nullptr when given as numbers
};

struct Report;

// A parameter name that the command line cannot use: unknown (with its close matches), or of an
// access that the command refuses ("r", "live", "w"); --json reports it for programs.
struct NameProblem {
    std::string name;
    std::string access;  // empty for an unknown name
    std::vector<std::string> close;
};

struct Invocation {
    Command command = Command::Get;
    const char* lockPath = nullptr;  // the daemon's default when not given
    int timeoutSeconds = 0;          // the client's default when not given
    bool temporary = false;
    bool abort = false;
    bool numeric = false;        // dump --numeric: addresses instead of names
    bool php = false;            // names --php: the table as the PHP library's file
    const char* file = nullptr;  // apply FILE
    int trialSeconds = 0;        // set/apply --trial SECONDS; 0: not a trial
    bool force = false;          // rollback --force: remove the record, write nothing
    bool init = false;           // trial --init: make the trial directory
    bool json = false;           // --json: the outcome as one JSON object on standard output
    bool verbose = false;        // -v: apply lists the read-only lines it skips
    Report* report = nullptr;    // filled for --json while the command runs
    NameProblem nameProblem;     // why a name was refused, when parseArguments fails on one
    std::vector<Parameter> parameters;
};

// Fills `invocation`; on a bad command line returns false with the reason in `error`.
[[nodiscard]] bool parseArguments(int argc, const char* const* argv, Invocation& invocation,
                                  char* error, std::size_t errorSize);

void printUsage(std::FILE* out);

// "cfgctl VERSION": the daemon's version, as cfgd -v prints it on its first line.
void printVersion(std::FILE* out);

// The parameter names closest to `name` (which names none), closest first, at most `most`.
std::vector<std::string> closeMatches(std::string_view name, std::size_t most);

// Writes "unknown parameter name \"NAME\"" and its close matches into `error`.
void unknownNameError(std::string_view name, char* error, std::size_t errorSize);

// The value a write sends for `value`: the empty text where the value is the parameter's
// "none" that the daemon would read as something else.
const char* valueToWrite(const Param& param, const char* value);

}  // namespace cfgctl
