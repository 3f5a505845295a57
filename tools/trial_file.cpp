#include "trial_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "read_file.h"

namespace cfgctl {

namespace {

constexpr std::string_view kVersionLine = "cfgd-trial 1";
constexpr std::string_view kEndLine = "end";
constexpr const char* kTrialDirectorySuffix = ".trial";
constexpr const char* kRecordName = "/record";
constexpr const char* kLockSuffix = ".lock";
constexpr const char* kNewSuffix = ".new";
constexpr const char* kLogSuffix = ".log";
// The directory limits who reaches the files (see makeTrialDirectory).
constexpr mode_t kSharedFileMode = 0666;

// Opens `path` for writing with the shared mode, whatever the umask; -1 on failure.
int openShared(const std::string& path, int flags) {
    const int fd = ::open(path.c_str(), flags | O_CREAT | O_CLOEXEC, kSharedFileMode);
    if (fd >= 0) (void)fchmod(fd, kSharedFileMode);  // another user's file keeps its mode
    return fd;
}
constexpr char kValueMark = '=';  // a field that holds a value starts with it; none is empty
constexpr std::string_view kNoName = "-";
constexpr std::size_t kMaxRecordBytes = 1 << 20;

void appendEscaped(std::string& out, const std::optional<std::string>& value) {
    if (!value) return;
    out += kValueMark;
    for (const char c : *value) {
        switch (c) {
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\r':
                out += "\\r";
                break;
            default:
                out += c;
        }
    }
}

bool readEscaped(std::string_view field, std::optional<std::string>& value) {
    value.reset();
    if (field.empty()) return true;
    if (field.front() != kValueMark) return false;
    std::string text;
    for (std::size_t i = 1; i < field.size(); ++i) {
        if (field[i] != '\\') {
            text += field[i];
            continue;
        }
        if (++i == field.size()) return false;
        const char* escapes = "\\\\n\nt\tr\r";  // pairs: the escape letter, its character
        const char* found = std::strchr(escapes, field[i]);
        if (found == nullptr || (found - escapes) % 2 != 0) return false;
        text += found[1];
    }
    value = std::move(text);
    return true;
}

template <typename Number>
bool readNumberLine(std::string_view line, std::string_view key, Number& value) {
    if (!line.starts_with(key) || line.size() <= key.size() || line[key.size()] != ' ')
        return false;
    const char* first = line.data() + key.size() + 1;
    const char* last = line.data() + line.size();
    auto [end, error] = std::from_chars(first, last, value);
    return error == std::errc{} && end == last;
}

// "F1 F2 F3<TAB>NAME<TAB>OLD<TAB>NEW"
bool readEntry(std::string_view line, TrialEntry& entry) {
    std::string_view fields[4];
    for (std::size_t i = 0; i < 4; ++i) {
        const std::size_t tab = i < 3 ? line.find('\t') : line.size();
        if (tab == std::string_view::npos) return false;
        fields[i] = line.substr(0, tab);
        line.remove_prefix(std::min(line.size(), tab + 1));
    }
    unsigned address[3];
    std::string_view numbers = fields[0];
    for (unsigned& number : address) {
        auto [end, error] =
            std::from_chars(numbers.data(), numbers.data() + numbers.size(), number);
        if (error != std::errc{} || number > 255) return false;
        numbers.remove_prefix(static_cast<std::size_t>(end - numbers.data()));
        if (!numbers.empty() && numbers.front() == ' ') numbers.remove_prefix(1);
    }
    if (!numbers.empty()) return false;
    entry = TrialEntry{};
    if (fields[1] != kNoName) {
        if (!findParam(std::string(fields[1]), entry.param)) return false;
    } else if (!findParamAt(static_cast<uint8_t>(address[0]), static_cast<uint8_t>(address[1]),
                            static_cast<uint8_t>(address[2]), entry.param)) {
        entry.param.f1 = static_cast<uint8_t>(address[0]);
        entry.param.f2 = static_cast<uint8_t>(address[1]);
        entry.param.f3 = static_cast<uint8_t>(address[2]);
    }
    return readEscaped(fields[2], entry.old) && readEscaped(fields[3], entry.value);
}

}  // namespace

std::string trialPath(const char* lockPath) {
    return std::string(lockPath) + kTrialDirectorySuffix + kRecordName;
}

bool makeTrialDirectory(const std::string& trialPath, unsigned ipcMode, unsigned ipcGroup) {
    const std::string directory = trialPath.substr(0, trialPath.rfind('/'));
    // The queue's read and write bits for its group and for others become the directory's
    // full access; files made in it take the group with the set-group-ID bit.
    mode_t mode = S_IRWXU;
    if ((ipcMode & 0060) != 0) mode |= S_IRWXG | S_ISGID;
    if ((ipcMode & 0006) != 0) mode |= S_IRWXO;
    if (mkdir(directory.c_str(), mode) != 0) return errno == EEXIST;
    // Root gives it the queue's group; another user's own group is the queue's already.
    if (getegid() != ipcGroup) (void)chown(directory.c_str(), static_cast<uid_t>(-1), ipcGroup);
    return chmod(directory.c_str(), mode) == 0;  // past the umask, and after the group
}

std::string guardLogPath(const std::string& trialPath) {
    return trialPath + kLogSuffix;
}

std::string formatTrial(const TrialRecord& trial) {
    std::string out(kVersionLine);
    out += "\ndeadline " + std::to_string(trial.deadline) + "\ndaemon " +
           std::to_string(trial.daemonPid) + "\nguard " + std::to_string(trial.guardPid) + "\n";
    for (const TrialEntry& entry : trial.entries) {
        const Param& p = entry.param;
        out += std::to_string(p.f1) + " " + std::to_string(p.f2) + " " + std::to_string(p.f3) +
               "\t" + (p.name[0] != '\0' ? std::string(p.name) : std::string(kNoName)) + "\t";
        appendEscaped(out, entry.old);
        out += '\t';
        appendEscaped(out, entry.value);
        out += '\n';
    }
    out += kEndLine;
    out += '\n';
    return out;
}

bool parseTrial(std::string_view text, TrialRecord& trial, std::string& error) {
    trial = TrialRecord{};
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        if (end == std::string_view::npos) break;  // a last line without its end is cut
        lines.push_back(text.substr(0, end));
        text.remove_prefix(end + 1);
    }
    if (lines.empty() || lines.front() != kVersionLine) {
        error = "not a trial record of this version";
        return false;
    }
    if (lines.size() < 5 || lines.back() != kEndLine || !text.empty()) {
        error = "cut short";
        return false;
    }
    if (!readNumberLine(lines[1], "deadline", trial.deadline) ||
        !readNumberLine(lines[2], "daemon", trial.daemonPid) ||
        !readNumberLine(lines[3], "guard", trial.guardPid)) {
        error = "its deadline, daemon or guard line does not read";
        return false;
    }
    for (std::size_t i = 4; i + 1 < lines.size(); ++i) {
        TrialEntry entry;
        if (!readEntry(lines[i], entry)) {
            error = "line " + std::to_string(i + 1) + " does not read";
            return false;
        }
        trial.entries.push_back(std::move(entry));
    }
    return true;
}

TrialFile readTrial(const std::string& path, TrialRecord& trial, std::string& error) {
    std::FILE* in = std::fopen(path.c_str(), "rb");
    if (in == nullptr) {
        if (errno == ENOENT) return TrialFile::None;
        error = std::strerror(errno);
        return TrialFile::Damaged;
    }
    std::string text;
    const bool failed = !readToEnd(in, text, kMaxRecordBytes);
    (void)std::fclose(in);  // read only: nothing to lose
    if (failed) {
        error = "cannot be read";
        return TrialFile::Damaged;
    }
    return parseTrial(text, trial, error) ? TrialFile::Pending : TrialFile::Damaged;
}

bool writeTrial(const std::string& path, const TrialRecord& trial) {
    const std::string fresh = path + kNewSuffix;
    const std::string text = formatTrial(trial);
    const int fd = openShared(fresh, O_WRONLY | O_TRUNC);
    std::FILE* out = fd >= 0 ? fdopen(fd, "wb") : nullptr;
    if (out == nullptr) {
        if (fd >= 0) (void)close(fd);
        return false;
    }
    const bool written = std::fwrite(text.data(), 1, text.size(), out) == text.size();
    if (std::fclose(out) != 0 || !written) {
        (void)std::remove(fresh.c_str());  // a partial record must not stay behind
        return false;
    }
    return std::rename(fresh.c_str(), path.c_str()) == 0;
}

TrialLock::TrialLock(const std::string& trialPath)
    : fd_(openShared(trialPath + kLockSuffix, O_RDONLY)) {
    // Without the lock file (a read-only /tmp) there is nothing to share the trial with either.
    while (fd_ >= 0 && flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
    }
}

TrialLock::~TrialLock() {
    if (fd_ >= 0) (void)close(fd_);  // closing releases the lock
}

}  // namespace cfgctl
