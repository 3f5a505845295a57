#include "cfgctl_args.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>
#include <iterator>

#include "client.h"
#include "core/options.h"
#include "core/version.h"
#include "trial.h"

namespace cfgctl {

namespace {

constexpr int kMaxTimeoutSeconds = 3600;
constexpr unsigned kLargestIndex = 255;
constexpr std::size_t kShownMatches = 5;

constexpr const char* kUsageFormat =
    "Usage: cfgctl [-l LOCKFILE] [-t SECONDS] [--json] [--abort] get PARAM [PARAM ...]\n"
    "       cfgctl [-l LOCKFILE] [-t SECONDS] [--json] [--temp] [--abort] set PARAM VALUE [...]\n"
    "       cfgctl [-l LOCKFILE] [-t SECONDS] [--json] dump [--numeric]\n"
    "       cfgctl [-l LOCKFILE] [-t SECONDS] [--json] [-v] [--temp] [--abort] apply FILE\n"
    "       cfgctl [-l LOCKFILE] [-t SECONDS] [--json] set --trial SECONDS PARAM VALUE [...]\n"
    "       cfgctl [-l LOCKFILE] [-t SECONDS] [--json] [-v] apply --trial SECONDS FILE\n"
    "       cfgctl [-l LOCKFILE] [-t SECONDS] [--json] confirm|rollback [--force]|trial [--init]\n"
    "       cfgctl names [--php]\n"
    "       cfgctl --help|--version\n"
    "Reads or writes cfgd parameters in one session. PARAM is a name such as can1.bitrate\n"
    "(cfgctl names lists them) or three numbers F1 F2 F3 (group, sub-indices, each 0..255).\n"
    "Values that are read are printed one per line.\n"
    "  dump         prints every parameter as \"name = value\"; a read that cfgd refuses\n"
    "               as \"# name refused: reason\"; --numeric: \"F1 F2 F3 = value\"\n"
    "  apply        writes the \"name = value\" lines of FILE (a dump or part of one) that\n"
    "               differ from cfgd's values, in one session, and prints how many it wrote;\n"
    "               read-only names are skipped and counted (-v: and listed)\n"
    "  --trial S    writes as a trial: applied, not stored, and rolled back after S seconds\n"
    "               (%d..%d) unless confirmed; no other write is taken while it is pending\n"
    "  confirm      stores the pending trial's values; rollback: restores the old ones now\n"
    "               (--force: removes a damaged trial record); trial: shows the pending one\n"
    "               (--init: root makes the trial directory beside the lock file)\n"
    "  names        lists the names with their numbers and access (rw, r, live, w);\n"
    "               --php: as the PHP client library's table\n"
    "  -l LOCKFILE  the daemon's lock file (default %s)\n"
    "  -t SECONDS   how long to wait for the daemon, 1..%d (default %d)\n"
    "  --temp       write with SET_TEMP_PARAM: applied at the end, never stored\n"
    "  --abort      end with ABORT_SESSION instead of FINISH_SESSION, to check values:\n"
    "               %s\n"
    "  --version    prints cfgctl's version, which is cfgd's (cfgd -v); -V is the same\n"
    "  --json       the outcome as one JSON object on standard output (messages stay on\n"
    "               standard error): \"status\" (the exit status's word), \"exit\", and where\n"
    "               they apply \"trial\", \"refusal\", \"counts\", \"values\" (get, dump),\n"
    "               \"name_error\" (README.md describes them)\n"
    "Exit status: %d done, %d refused by cfgd, %d bad arguments or file, %d cfgd not\n"
    "reachable, %d no answer in time, %d writes refused while a trial is pending, %d no\n"
    "trial pending (confirm, rollback, trial).\n";

struct CommandWord {
    std::string_view word;
    Command command;
};
constexpr CommandWord kCommands[] = {
    {"get", Command::Get},           {"set", Command::Set},     {"dump", Command::Dump},
    {"apply", Command::Apply},       {"names", Command::Names}, {"confirm", Command::Confirm},
    {"rollback", Command::Rollback}, {"trial", Command::Trial},
};

template <typename Number>
bool readDecimal(std::string_view text, Number& value) {
    if (text.empty()) return false;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc{} && end == text.data() + text.size();
}

bool isNumber(const char* text) {
    return text[0] != '\0' && std::strspn(text, "0123456789") == std::strlen(text);
}

bool readIndex(const char* text, uint8_t& index) {
    unsigned value = 0;
    if (!readDecimal(std::string_view(text), value) || value > kLargestIndex) return false;
    index = static_cast<uint8_t>(value);
    return true;
}

std::size_t editDistance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j)
        row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
            diagonal = above;
        }
    }
    return row[b.size()];
}

// "--trial SECONDS" at `at`: moves `at` behind it. False, with the reason, when malformed.
bool readTrialOption(int argc, const char* const* argv, int& at, Invocation& invocation,
                     char* error, std::size_t errorSize) {
    if (at >= argc || std::string_view(argv[at]) != "--trial") return true;
    if (at + 1 >= argc || !readDecimal(std::string_view(argv[at + 1]), invocation.trialSeconds) ||
        invocation.trialSeconds < kMinTrialSeconds || invocation.trialSeconds > kMaxTrialSeconds) {
        std::snprintf(error, errorSize, "--trial takes %d..%d seconds", kMinTrialSeconds,
                      kMaxTrialSeconds);
        return false;
    }
    if (invocation.temporary || invocation.abort) {
        std::snprintf(error, errorSize, "--trial writes temporarily already: no --temp or --abort");
        return false;
    }
    at += 2;
    return true;
}

// Reads the operands of get and set: a name, or three numbers; then the value for set.
bool readOperands(int argc, const char* const* argv, int at, bool writes, Invocation& invocation,
                  char* error, std::size_t errorSize) {
    const char* form = writes ? "set takes PARAM VALUE pairs (PARAM a name or F1 F2 F3)"
                              : "get takes names or F1 F2 F3 triples";
    if (at >= argc) {
        std::snprintf(error, errorSize, "%s, got none", form);
        return false;
    }
    while (at < argc) {
        Parameter parameter{};
        Param param{};
        bool named = false;
        if (isNumber(argv[at])) {
            if (argc - at < 3) {
                std::snprintf(error, errorSize, "%s: \"%s\" is not followed by F2 F3", form,
                              argv[at]);
                return false;
            }
            uint8_t* const indices[] = {&parameter.f1, &parameter.f2, &parameter.f3};
            for (std::size_t i = 0; i < std::size(indices); ++i, ++at) {
                if (!readIndex(argv[at], *indices[i])) {
                    std::snprintf(error, errorSize, "F%zu must be a number 0..%u, not \"%s\"",
                                  i + 1, kLargestIndex, argv[at]);
                    return false;
                }
            }
        } else {
            if (!findParam(argv[at], param)) {
                unknownNameError(argv[at], error, errorSize);
                invocation.nameProblem = {argv[at], "", closeMatches(argv[at], kShownMatches)};
                return false;
            }
            const bool refused =
                writes ? param.access == ParamAccess::ReadOnly || param.access == ParamAccess::Live
                       : param.access == ParamAccess::WriteOnly;
            if (refused) {
                std::snprintf(error, errorSize, "%s is %s", param.name,
                              writes ? "read only" : "write only");
                invocation.nameProblem = {argv[at], std::string(accessWord(param.access)), {}};
                return false;
            }
            parameter.f1 = param.f1;
            parameter.f2 = param.f2;
            parameter.f3 = param.f3;
            parameter.name = argv[at];
            named = true;
            ++at;
        }
        if (writes) {
            if (at >= argc) {
                std::snprintf(error, errorSize, "%s: the last one has no value", form);
                return false;
            }
            parameter.value = named ? valueToWrite(param, argv[at]) : argv[at];
            ++at;
        }
        invocation.parameters.push_back(parameter);
    }
    if (writes && invocation.parameters.size() > kMaxWrites) {
        std::snprintf(error, errorSize, "at most %zu writes per call, got %zu", kMaxWrites,
                      invocation.parameters.size());
        return false;
    }
    return true;
}

// The operands of a command that takes nothing or one flag; `operand` is the first, if any.
bool readFlag(std::size_t operands, const char* const* operand, std::string_view flag, bool& set,
              char* error, std::size_t errorSize) {
    if (operands == 0) return true;
    if (operands == 1 && *operand == flag) {
        set = true;
        return true;
    }
    // The command word stands right before the operands.
    std::snprintf(error, errorSize, "%s takes only %.*s", operand[-1],
                  static_cast<int>(flag.size()), flag.data());
    return false;
}

// The words behind the commands other than get and set.
bool readCommandRest(int argc, const char* const* argv, int at, Invocation& invocation, char* error,
                     std::size_t errorSize) {
    const std::size_t operands = static_cast<std::size_t>(argc - at);
    switch (invocation.command) {
        case Command::Dump:
            return readFlag(operands, argv + at, "--numeric", invocation.numeric, error, errorSize);
        case Command::Names:
            return readFlag(operands, argv + at, "--php", invocation.php, error, errorSize);
        case Command::Rollback:
            return readFlag(operands, argv + at, "--force", invocation.force, error, errorSize);
        case Command::Trial:
            return readFlag(operands, argv + at, "--init", invocation.init, error, errorSize);
        case Command::Confirm:
            if (operands == 0) return true;
            std::snprintf(error, errorSize, "%s takes no operands", argv[at - 1]);
            return false;
        case Command::Apply:
            if (operands == 1) {
                invocation.file = argv[at];
                return true;
            }
            std::snprintf(error, errorSize, "apply takes one FILE, got %zu operands", operands);
            return false;
        default:
            return true;
    }
}

}  // namespace

void printUsage(std::FILE* out) {
    std::fprintf(out, kUsageFormat, kMinTrialSeconds, kMaxTrialSeconds, kDefaultLockPath,
                 kMaxTimeoutSeconds, client::kDefaultTimeoutSeconds, kAbortedText, kExitOk,
                 kExitRefused, kExitUsage, kExitNoDaemon, kExitNoAnswer, kExitTrialPending,
                 kExitNoTrial);
}

void printVersion(std::FILE* out) {
    std::fprintf(out, "cfgctl %s\n", kSoftwareVersion);
}

std::vector<std::string> closeMatches(std::string_view name, std::size_t most) {
    std::string folded(name);
    for (char& c : folded)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    // Near enough to be a slip: an edit for every four characters, and never less than two.
    const std::size_t limit = std::max<std::size_t>(2, folded.size() / 4);
    std::vector<std::pair<std::size_t, std::string>> near;
    for (std::size_t i = 0; i < paramCount(); ++i) {
        const Param param = paramAt(i);
        const std::size_t distance = editDistance(folded, param.name);
        if (distance <= limit) near.emplace_back(distance, param.name);
    }
    std::stable_sort(near.begin(), near.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<std::string> names;
    for (std::size_t i = 0; i < near.size() && i < most; ++i)
        names.push_back(near[i].second);
    return names;
}

void unknownNameError(std::string_view name, char* error, std::size_t errorSize) {
    const std::vector<std::string> matches = closeMatches(name, kShownMatches);
    std::string text = "unknown parameter name \"" + std::string(name) + "\"";
    if (matches.empty()) {
        text += " (cfgctl names lists them all)";
    } else {
        text += "; close: ";
        for (std::size_t i = 0; i < matches.size(); ++i)
            text += (i > 0 ? ", " : "") + matches[i];
    }
    std::snprintf(error, errorSize, "%s", text.c_str());
}

const char* valueToWrite(const Param& param, const char* value) {
    return param.noneText != nullptr && std::strcmp(value, param.noneText) == 0 ? "" : value;
}

bool parseArguments(int argc, const char* const* argv, Invocation& invocation, char* error,
                    std::size_t errorSize) {
    invocation = Invocation{};
    int at = 1;
    // Options come before the command word; everything behind it is an operand, so that a
    // value may begin with "-".
    for (; at < argc; ++at) {
        const std::string_view arg = argv[at];
        if (arg == "-h" || arg == "--help") {
            invocation.command = Command::Help;
            return true;
        }
        if (arg == "--temp") {
            invocation.temporary = true;
        } else if (arg == "-V" || arg == "--version") {
            invocation.command = Command::Version;
            return true;
        } else if (arg == "--abort") {
            invocation.abort = true;
        } else if (arg == "--json") {
            invocation.json = true;
        } else if (arg == "-v") {
            invocation.verbose = true;
        } else if (arg == "-l" || arg == "-t") {
            if (at + 1 >= argc) {
                std::snprintf(error, errorSize, "%s needs an argument", argv[at]);
                return false;
            }
            const char* operand = argv[++at];
            if (arg == "-l") {
                invocation.lockPath = operand;
            } else if (!readDecimal(std::string_view(operand), invocation.timeoutSeconds) ||
                       invocation.timeoutSeconds < 1 ||
                       invocation.timeoutSeconds > kMaxTimeoutSeconds) {
                std::snprintf(error, errorSize, "-t takes 1..%d seconds, not \"%s\"",
                              kMaxTimeoutSeconds, operand);
                return false;
            }
        } else if (!arg.empty() && arg[0] == '-') {
            std::snprintf(error, errorSize, "unknown option \"%s\"", argv[at]);
            return false;
        } else {
            break;
        }
    }
    if (at >= argc) {
        std::snprintf(error, errorSize, "no command given");
        return false;
    }
    const std::string_view word = argv[at++];
    const auto* known = std::find_if(std::begin(kCommands), std::end(kCommands),
                                     [&](const CommandWord& c) { return c.word == word; });
    if (known == std::end(kCommands)) {
        std::snprintf(error, errorSize, "unknown command \"%s\"", argv[at - 1]);
        return false;
    }
    invocation.command = known->command;
    const bool writes = invocation.command == Command::Set || invocation.command == Command::Apply;
    if (invocation.temporary && !writes) {
        std::snprintf(error, errorSize, "--temp applies to set and apply only");
        return false;
    }
    if (invocation.json && invocation.command == Command::Names) {
        std::snprintf(error, errorSize, "--json does not apply to names");
        return false;
    }
    if (invocation.verbose && invocation.command != Command::Apply) {
        std::snprintf(error, errorSize, "-v applies to apply only");
        return false;
    }
    if (writes && !readTrialOption(argc, argv, at, invocation, error, errorSize)) return false;
    if (invocation.command == Command::Get || invocation.command == Command::Set)
        return readOperands(argc, argv, at, writes, invocation, error, errorSize);
    return readCommandRest(argc, argv, at, invocation, error, errorSize);
}

}  // namespace cfgctl
