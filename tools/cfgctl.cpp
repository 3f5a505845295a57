// cfgctl: reads and writes cfgd parameters from scripts, tests and the field engineer's shell.
// One call is one session, held under the daemon's client semaphore from start to end.

#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "apply_file.h"
#include "cfgctl_args.h"
#include "client.h"
#include "core/options.h"
#include "daemon_session.h"
#include "json_out.h"
#include "read_file.h"
#include "trial.h"

namespace {

using cfgctl::Command;
using cfgctl::DaemonSession;
using cfgctl::Invocation;
using client::Status;

constexpr std::size_t kMaxApplyFileBytes = 1 << 20;

const char* requestName(const Invocation& invocation) {
    if (invocation.command == Command::Get) return "get";
    return invocation.temporary ? "set --temp" : "set";
}

// Every command settles a pending trial first; writes are refused while one is pending.
int settleOrRefuse(const Invocation& invocation, bool writes) {
    if (writes) return cfgctl::refuseWritesDuringTrial(invocation);
    long long left = 0;
    // Reads go on during a trial; the settle puts it into --json's report.
    (void)cfgctl::settleTrial(invocation, left);
    return cfgctl::kExitOk;
}

// An address that has no name in the table.
Param paramAddress(const cfgctl::Parameter& p) {
    Param param{};
    param.f1 = p.f1;
    param.f2 = p.f2;
    param.f3 = p.f3;
    return param;
}

std::optional<std::string> optionalValue(const char* value) {
    return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

// get and dump under --json: the value, or the refusal, goes into the object instead of a line.
void reportValue(const Invocation& invocation, const Param& param, const DaemonSession& cfgd) {
    cfgctl::Report& report = *invocation.report;
    report.hasValues = true;
    if (cfgd.refused())
        report.values.push_back({param, std::nullopt, cfgd.refusal()});
    else
        report.values.push_back({param, std::string(cfgd.answer().da), {}});
}

// set's parameters as the lines of an apply, with their names where they have one.
std::vector<cfgctl::ApplyLine> linesOf(const Invocation& invocation) {
    std::vector<cfgctl::ApplyLine> lines;
    for (const cfgctl::Parameter& p : invocation.parameters) {
        cfgctl::ApplyLine line{0, {}, p.value};
        if (!findParamAt(p.f1, p.f2, p.f3, line.param)) line.param = paramAddress(p);
        lines.push_back(std::move(line));
    }
    return lines;
}

int runGetSet(const Invocation& invocation) {
    const bool writes = invocation.command == Command::Set;
    const unsigned writeType = invocation.temporary ? SET_TEMP_PARAM : SET_PARAM;
    for (const cfgctl::Parameter& p : invocation.parameters) {
        char where[32];
        std::snprintf(where, sizeof where, "%u %u %u", p.f1, p.f2, p.f3);
        if (p.value != nullptr && !cfgctl::valueFits(writeType, p, where))
            return cfgctl::kExitUsage;
    }
    if (invocation.trialSeconds > 0) return cfgctl::runTrialStart(invocation, linesOf(invocation));
    if (int status = settleOrRefuse(invocation, writes); status != 0) return status;
    DaemonSession cfgd(invocation);
    if (int status = cfgd.open(); status != 0) return status;
    const unsigned announced =
        writes
            ? static_cast<unsigned>(std::min(invocation.parameters.size(), cfgctl::kMaxAnnounced))
            : 0;
    if (int status = cfgd.start(announced); status != 0) return status;

    bool refused = false;
    for (const cfgctl::Parameter& p : invocation.parameters) {
        if (int status = cfgd.exchange(writes ? writeType : unsigned{READ_PARAM}, p); status != 0)
            return status;
        const std::string written = cfgctl::writtenAs(p);
        if (!writes && invocation.report != nullptr) {
            // A program gets every value it asked for, and the refused reads among them.
            Param param{};
            if (!findParamAt(p.f1, p.f2, p.f3, param)) param = paramAddress(p);
            reportValue(invocation, param, cfgd);
            if (cfgd.refused()) {
                invocation.report->refuse({param, written, std::nullopt, cfgd.refusal()});
                refused = true;
            }
            continue;
        }
        if (cfgd.refused()) {
            std::fprintf(stderr, "cfgctl: %s %s: %s\n", requestName(invocation), written.c_str(),
                         cfgd.refusal());
            if (invocation.report != nullptr) {
                Param param{};
                if (!findParamAt(p.f1, p.f2, p.f3, param)) param = paramAddress(p);
                invocation.report->refuse({param, written, optionalValue(p.value), cfgd.refusal()});
            }
            refused = true;
            break;
        }
        if (!writes) {
            std::printf("%s\n", cfgd.answer().da);
        } else if (cfgd.answer().da[0] != '\0') {
            // A write that went through with a remark from the daemon.
            std::fprintf(stderr, "cfgctl: %s %s: %s\n", requestName(invocation), written.c_str(),
                         cfgd.answer().da);
        }
    }
    // A refused write aborts, so that none of the call's writes is stored (nor, in the hardened
    // profile, left applied); reads have nothing to drop, and finishing them spares the daemon a
    // reload of its file.
    const int status = cfgd.end(invocation.abort || (refused && writes));
    if (status != 0) return status;
    return refused ? cfgctl::kExitRefused : cfgctl::kExitOk;
}

// A value on one dump line: line breaks would start a line of their own.
void printValue(const char* value) {
    for (const char* c = value; *c != '\0'; ++c) {
        if (*c == '\n') {
            std::fputs("\\n", stdout);
        } else if (*c == '\r') {
            std::fputs("\\r", stdout);
        } else {
            std::putchar(*c);
        }
    }
}

int runDump(const Invocation& invocation) {
    (void)settleOrRefuse(invocation, false);  // never refuses a read
    DaemonSession cfgd(invocation);
    if (int status = cfgd.open(); status != 0) return status;
    if (int status = cfgd.start(0); status != 0) return status;
    for (std::size_t i = 0; i < paramCount(); ++i) {
        const Param param = paramAt(i);
        if (param.access == ParamAccess::WriteOnly) continue;
        const cfgctl::Parameter p{param.f1, param.f2, param.f3, nullptr};
        if (int status = cfgd.exchange(READ_PARAM, p); status != 0) return status;
        if (invocation.report != nullptr) {
            reportValue(invocation, param, cfgd);
            continue;
        }
        char label[kParamNameSize];
        if (invocation.numeric)
            std::snprintf(label, sizeof label, "%u %u %u", p.f1, p.f2, p.f3);
        else
            std::snprintf(label, sizeof label, "%s", param.name);
        // A refused read is a comment: it has no value to compare or to apply.
        if (cfgd.refused()) {
            std::printf("# %s refused: %s\n", label, cfgd.refusal());
            continue;
        }
        std::printf("%s = ", label);
        printValue(cfgd.answer().da);
        std::putchar('\n');
    }
    return cfgd.end(false);
}

bool readWholeFile(const char* path, std::string& text) {
    std::FILE* in = std::strcmp(path, "-") == 0 ? stdin : std::fopen(path, "rb");
    if (in == nullptr) {
        std::fprintf(stderr, "cfgctl: cannot open %s: %s\n", path, std::strerror(errno));
        return false;
    }
    const bool failed = !cfgctl::readToEnd(in, text, kMaxApplyFileBytes);
    if (in != stdin) (void)std::fclose(in);  // read only: nothing to lose
    if (failed || text.size() >= kMaxApplyFileBytes) {
        std::fprintf(stderr, "cfgctl: cannot read %s: %s\n", path,
                     failed ? std::strerror(errno) : "larger than 1 MiB");
        return false;
    }
    return true;
}

int runApply(const Invocation& invocation) {
    const char* path = invocation.file;
    std::string text;
    if (!readWholeFile(path, text)) return cfgctl::kExitUsage;
    cfgctl::ApplyFile file;
    char error[cfgctl::kErrorSize];
    if (!cfgctl::parseApplyText(text, file, error, sizeof error)) {
        std::fprintf(stderr, "cfgctl: %s:%s\n", path, error);
        return cfgctl::kExitUsage;
    }
    char numbers[16];
    if (invocation.verbose)
        for (const cfgctl::ApplyLine& line : file.readOnly)
            std::fprintf(stderr, "cfgctl: %s:%u: %s is read only: skipped\n", path, line.line,
                         cfgctl::labelOf(line.param, numbers));
    if (invocation.report != nullptr)
        invocation.report->counts.emplace_back("read_only", file.readOnly.size());
    const unsigned writeType = invocation.temporary ? SET_TEMP_PARAM : SET_PARAM;
    for (const cfgctl::ApplyLine& line : file.writes) {
        char where[cfgctl::kErrorSize];
        std::snprintf(where, sizeof where, "%s:%u", path, line.line);
        if (!cfgctl::valueFits(writeType, cfgctl::requestOf(line), where))
            return cfgctl::kExitUsage;
    }

    if (invocation.trialSeconds > 0) return cfgctl::runTrialStart(invocation, file.writes);
    if (int status = settleOrRefuse(invocation, true); status != 0) return status;
    DaemonSession cfgd(invocation);
    if (int status = cfgd.open(); status != 0) return status;
    std::vector<std::optional<std::string>> current;
    if (int status = cfgctl::readCurrentValues(cfgd, file.writes, current); status != 0)
        return status;
    const std::vector<std::size_t> plan = cfgctl::planWrites(file.writes, current);
    if (plan.size() > cfgctl::kMaxWrites) {
        std::fprintf(stderr,
                     "cfgctl: %s: %zu values differ, but one session takes at most %zu writes: "
                     "apply the file in parts (nothing was written)\n",
                     path, plan.size(), cfgctl::kMaxWrites);
        return cfgctl::kExitUsage;
    }
    if (!plan.empty()) {
        if (int status =
                cfgd.start(static_cast<unsigned>(std::min(plan.size(), cfgctl::kMaxAnnounced)));
            status != 0)
            return status;
        for (std::size_t position : plan) {
            const cfgctl::ApplyLine& line = file.writes[position];
            if (int status = cfgd.exchange(writeType, cfgctl::requestOf(line)); status != 0)
                return status;
            if (cfgd.refused()) {
                const char* label = cfgctl::labelOf(line.param, numbers);
                std::fprintf(stderr, "cfgctl: %s:%u: %s = %s: %s (%s)\n", path, line.line, label,
                             line.value.c_str(), cfgd.refusal(), cfgctl::kAbortedText);
                if (invocation.report != nullptr)
                    invocation.report->refuse(
                        {line.param, label, line.value, cfgd.refusal(), line.line});
                const int status = cfgd.end(true);
                return status != 0 ? status : cfgctl::kExitRefused;
            }
            if (cfgd.answer().da[0] != '\0')
                std::fprintf(stderr, "cfgctl: %s:%u: %s: %s\n", path, line.line,
                             cfgctl::labelOf(line.param, numbers), cfgd.answer().da);
        }
        if (int status = cfgd.end(invocation.abort); status != 0) return status;
    }
    const std::size_t unchanged = file.writes.size() - plan.size();
    std::fprintf(cfgctl::humanOutput(invocation),
                 "%s: %zu written%s, %zu unchanged, %zu read only\n", path, plan.size(),
                 invocation.abort ? cfgctl::kAbortedWritesText : "", unchanged,
                 file.readOnly.size());
    if (invocation.report != nullptr) {
        std::vector<std::pair<const char*, std::size_t>>& counts = invocation.report->counts;
        counts.insert(counts.begin(), {{"written", plan.size()},
                                       {"unchanged", unchanged},
                                       {"dropped", invocation.abort ? plan.size() : 0}});
    }
    return cfgctl::kExitOk;
}

// The most characters of a value for `p` that the daemon keeps and a request carries (with
// its terminator); 0 for a parameter that cannot be written.
std::size_t longestValue(const Param& p) {
    if (p.access == ParamAccess::ReadOnly || p.access == ParamAccess::Live) return 0;
    std::string value(p.chars != 0 && p.chars < kQueueTextSize ? p.chars : kQueueTextSize, 'x');
    while (!value.empty() && !client::fitsInRequest(SET_PARAM, p.f1, p.f2, p.f3, value.c_str()))
        value.pop_back();
    return value.size();
}

// The PHP library's table: name => [f1, f2, f3, access, longest value] and, where they apply,
// 'none' (the read's "none" text, written as the empty value) and 'range' (a number's).
void printPhpNames() {
    std::printf(
        "<?php\n"
        "// cfgd's parameter names for the PHP client library, written by `cfgctl names --php`\n"
        "// from the daemon's table: do not edit (the test command checks that it is current).\n"
        "// name => [f1, f2, f3, access ('rw', 'r', 'live', 'w'), the most characters of a value\n"
        "// that the daemon keeps and a request carries (0: not written)], and where they apply\n"
        "// 'none' => the read's text for \"none\", written back as the empty value, and\n"
        "// 'range' => [lowest, highest] of a number whose refusal text does not say it\n"
        "return [\n");
    for (std::size_t i = 0; i < paramCount(); ++i) {
        const Param p = paramAt(i);
        const std::string_view access = accessWord(p.access);
        std::printf("    '%s' => [%u, %u, %u, '%.*s', %zu", p.name, p.f1, p.f2, p.f3,
                    static_cast<int>(access.size()), access.data(), longestValue(p));
        if (p.noneText != nullptr) std::printf(", 'none' => '%s'", p.noneText);
        if (p.high != 0) std::printf(", 'range' => [%u, %u]", p.low, p.high);
        std::printf("],\n");
    }
    std::printf("];\n");
}

int runNames(const Invocation& invocation) {
    if (invocation.php) {
        printPhpNames();
        return cfgctl::kExitOk;
    }
    for (std::size_t i = 0; i < paramCount(); ++i) {
        const Param p = paramAt(i);
        const std::string_view access = accessWord(p.access);
        std::printf("%-24s %3u %3u %3u  %.*s\n", p.name, p.f1, p.f2, p.f3,
                    static_cast<int>(access.size()), access.data());
    }
    return cfgctl::kExitOk;
}

int dispatch(const Invocation& invocation) {
    switch (invocation.command) {
        case Command::Dump:
            return runDump(invocation);
        case Command::Apply:
            return runApply(invocation);
        case Command::Names:
            return runNames(invocation);
        case Command::Confirm:
            return cfgctl::runConfirm(invocation);
        case Command::Rollback:
            return cfgctl::runRollback(invocation);
        case Command::Trial:
            return invocation.init ? cfgctl::runTrialInit(invocation)
                                   : cfgctl::runTrialStatus(invocation);
        default:
            return runGetSet(invocation);
    }
}

int run(const Invocation& given) {
    if (!given.json) return dispatch(given);
    cfgctl::Report report;
    Invocation invocation = given;
    invocation.report = &report;
    const int status = dispatch(invocation);
    std::printf("%s\n", cfgctl::reportJson(status, report).c_str());
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc <= 1) {
        cfgctl::printUsage(stderr);
        return cfgctl::kExitUsage;
    }
    Invocation invocation;
    char error[cfgctl::kErrorSize];
    if (!cfgctl::parseArguments(argc, argv, invocation, error, sizeof error)) {
        std::fprintf(stderr, "cfgctl: %s\n(cfgctl --help shows the usage)\n", error);
        if (invocation.json && !invocation.nameProblem.name.empty())
            std::printf("%s\n", cfgctl::nameErrorJson(invocation.nameProblem).c_str());
        return cfgctl::kExitUsage;
    }
    if (invocation.command == Command::Help) {
        cfgctl::printUsage(stdout);
        return cfgctl::kExitOk;
    }
    if (invocation.command == Command::Version) {
        cfgctl::printVersion(stdout);
        return cfgctl::kExitOk;
    }
    const int status = run(invocation);
    if (std::fflush(stdout) != 0) {
        std::fprintf(stderr, "cfgctl: cannot write the values: %s\n", std::strerror(errno));
        return status != cfgctl::kExitOk ? status : cfgctl::kExitRefused;
    }
    return status;
}
