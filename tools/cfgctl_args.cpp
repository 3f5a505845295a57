#include "cfgctl_args.h"

#include <charconv>
#include <iterator>
#include <string_view>

#include "client.h"
#include "core/options.h"

namespace cfgctl {

namespace {

constexpr int kMaxTimeoutSeconds = 3600;
constexpr unsigned kLargestIndex = 255;
constexpr std::size_t kGetOperands = 3;
constexpr std::size_t kSetOperands = 4;

constexpr const char* kUsageFormat =
    "Usage: cfgctl [-l LOCKFILE] [-t SECONDS] [--abort] get F1 F2 F3 [F1 F2 F3 ...]\n"
    "       cfgctl [-l LOCKFILE] [-t SECONDS] [--temp] [--abort] set F1 F2 F3 VALUE [...]\n"
    "Reads or writes cfgd parameters in one session; F1 is the group, F2 and F3 the\n"
    "sub-indices, each 0..255. Values that are read are printed one per line.\n"
    "  -l LOCKFILE  the daemon's lock file (default %s)\n"
    "  -t SECONDS   how long to wait for the daemon, 1..%d (default %d)\n"
    "  --temp       write with SET_TEMP_PARAM: applied at the end, never stored\n"
    "  --abort      end with ABORT_SESSION instead of FINISH_SESSION: writes are dropped\n"
    "Exit status: %d done, %d refused by cfgd, %d bad arguments, %d cfgd not reachable,\n"
    "%d no answer in time.\n";

template <typename Number>
bool readDecimal(std::string_view text, Number& value) {
    if (text.empty()) return false;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc{} && end == text.data() + text.size();
}

bool readIndex(const char* text, uint8_t& index) {
    unsigned value = 0;
    if (!readDecimal(std::string_view(text), value) || value > kLargestIndex) return false;
    index = static_cast<uint8_t>(value);
    return true;
}

}  // namespace

void printUsage(std::FILE* out) {
    std::fprintf(out, kUsageFormat, kDefaultLockPath, kMaxTimeoutSeconds,
                 client::kDefaultTimeoutSeconds, kExitOk, kExitRefused, kExitUsage, kExitNoDaemon,
                 kExitNoAnswer);
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
        } else if (arg == "--abort") {
            invocation.abort = true;
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
    if (word == "get") {
        invocation.command = Command::Get;
    } else if (word == "set") {
        invocation.command = Command::Set;
    } else {
        std::snprintf(error, errorSize, "unknown command \"%s\"", argv[at - 1]);
        return false;
    }
    const bool writes = invocation.command == Command::Set;
    if (invocation.temporary && !writes) {
        std::snprintf(error, errorSize, "--temp applies to set only");
        return false;
    }
    const std::size_t group = writes ? kSetOperands : kGetOperands;
    const std::size_t operands = static_cast<std::size_t>(argc - at);
    if (operands == 0 || operands % group != 0) {
        std::snprintf(error, errorSize, "%s takes groups of %zu operands (%s), got %zu",
                      writes ? "set" : "get", group, writes ? "F1 F2 F3 VALUE" : "F1 F2 F3",
                      operands);
        return false;
    }
    if (writes && operands / group > kMaxWrites) {
        std::snprintf(error, errorSize, "at most %zu writes per call, got %zu", kMaxWrites,
                      operands / group);
        return false;
    }
    for (; at < argc; at += static_cast<int>(group)) {
        Parameter parameter{};
        uint8_t* const indices[] = {&parameter.f1, &parameter.f2, &parameter.f3};
        for (std::size_t i = 0; i < std::size(indices); ++i) {
            const char* text = argv[at + static_cast<int>(i)];
            if (!readIndex(text, *indices[i])) {
                std::snprintf(error, errorSize, "F%zu must be a number 0..%u, not \"%s\"", i + 1,
                              kLargestIndex, text);
                return false;
            }
        }
        parameter.value = writes ? argv[at + 3] : nullptr;
        invocation.parameters.push_back(parameter);
    }
    return true;
}

}  // namespace cfgctl
