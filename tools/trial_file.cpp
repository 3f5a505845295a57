#include "trial_file.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace cfgctl {

namespace {

constexpr std::string_view kVersionLine = "cfgd-trial 2";
constexpr std::string_view kEndLine = "end";
constexpr const char* kDirectorySuffix = ".trial";
constexpr const char* kRecordName = "record";
constexpr const char* kLockName = "record.lock";
constexpr const char* kLogName = "record.log";
constexpr mode_t kDirectoryMode = 0750;
constexpr mode_t kFileMode = 0660;
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

// "guard PID START": the pid and the start time that prove it is still the same process.
bool readGuardLine(std::string_view line, GuardId& guard) {
    const std::size_t space = line.rfind(' ');
    return space != std::string_view::npos &&
           readNumberLine(line.substr(0, space), "guard", guard.pid) &&
           readNumberLine("start" + std::string(line.substr(space)), "start", guard.startTicks);
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

// Root's directory that only root may add entries to; the group may write beside the sticky
// bit only, which keeps each entry to its owner.
bool safeDirectory(const struct stat& st, std::string& error) {
    char reason[64] = "";
    if (st.st_uid != 0)
        std::snprintf(reason, sizeof reason, "owned by uid %u, not root",
                      static_cast<unsigned>(st.st_uid));
    else if ((st.st_mode & S_IWOTH) != 0)
        std::snprintf(reason, sizeof reason, "writable by others");
    else if ((st.st_mode & S_IWGRP) != 0 && (st.st_mode & S_ISVTX) == 0)
        std::snprintf(reason, sizeof reason, "writable by its group without the sticky bit");
    error = reason;
    return reason[0] == '\0';
}

constexpr int kMissing = -2;
constexpr int kDenied = -3;

// Opens the file `name` of the checked directory `dir` without following a link, made by root
// when missing; -1 (reason in `error`) when it is not root's own plain file, kMissing when it
// is not there and the caller may not make it, kDenied when the caller may not open it.
int openFile(int dir, const char* name, int flags, bool make, gid_t gid, std::string& error) {
    const int base = flags | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    bool made = false;
    int fd = -1;
    if (make) {
        fd = openat(dir, name, base | O_CREAT | O_EXCL, 0600);
        made = fd >= 0;
    }
    if (fd < 0) fd = openat(dir, name, base);
    if (fd < 0) {
        if (errno == ENOENT && !make) return kMissing;
        if (errno == EACCES) return kDenied;
        error =
            std::string(name) + ": " + (errno == ELOOP ? "a symbolic link" : std::strerror(errno));
        return -1;
    }
    struct stat st {};
    char reason[96] = "";
    if (fstat(fd, &st) != 0)
        std::snprintf(reason, sizeof reason, "%s", std::strerror(errno));
    else if (!S_ISREG(st.st_mode))
        std::snprintf(reason, sizeof reason, "not a plain file");
    else if (st.st_uid != 0)
        std::snprintf(reason, sizeof reason, "owned by uid %u, not root",
                      static_cast<unsigned>(st.st_uid));
    else if (st.st_nlink != 1)
        std::snprintf(reason, sizeof reason, "%u links to it", static_cast<unsigned>(st.st_nlink));
    else if ((st.st_mode & S_IWOTH) != 0)
        std::snprintf(reason, sizeof reason, "writable by others");
    else if (made && (fchown(fd, 0, gid) != 0 || fchmod(fd, kFileMode) != 0))
        std::snprintf(reason, sizeof reason, "%s", std::strerror(errno));
    if (reason[0] != '\0') {
        error = std::string(name) + ": " + reason;
        (void)::close(fd);  // not ours to use
        return -1;
    }
    // Blocking again: a plain file never blocks, the flag only kept a FIFO from hanging us.
    (void)fcntl(fd, F_SETFL, flags & O_APPEND);
    return fd;
}

}  // namespace

std::string formatTrial(const TrialRecord& trial) {
    std::string out(kVersionLine);
    out += "\ndeadline " + std::to_string(trial.deadline) + "\ndaemon " +
           std::to_string(trial.daemonPid) + "\nguard " + std::to_string(trial.guard.pid) + " " +
           std::to_string(trial.guard.startTicks) + "\n";
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
        !readGuardLine(lines[3], trial.guard)) {
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

std::string trialDirectory(const char* lockPath) {
    return std::string(lockPath) + kDirectorySuffix;
}

bool trialMayBePending(const char* lockPath) {
    const std::string record = trialDirectory(lockPath) + "/" + kRecordName;
    struct stat st {};
    // Anything but an empty regular file is looked at closely.
    return lstat(record.c_str(), &st) == 0 && (!S_ISREG(st.st_mode) || st.st_size > 0);
}

TrialStore::~TrialStore() {
    close();
}

void TrialStore::close() {
    for (int* fd : {&lock_, &record_, &dir_}) {
        if (*fd >= 0) (void)::close(*fd);  // closing the lock's descriptor releases it
        *fd = -1;
    }
}

TrialPlace TrialStore::open(const char* lockPath, std::string& error) {
    close();
    directory_ = trialDirectory(lockPath);
    const bool root = geteuid() == 0;
    const group* frontEnd = getgrnam(CFGD_FRONT_END_GROUP);
    const gid_t gid = frontEnd != nullptr ? frontEnd->gr_gid : 0;
    if (root && mkdir(directory_.c_str(), 0700) == 0) {
        dir_ = ::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (dir_ < 0 || fchown(dir_, 0, gid) != 0 || fchmod(dir_, kDirectoryMode) != 0) {
            error = std::string("cannot be made: ") + std::strerror(errno);
            return TrialPlace::Unsafe;
        }
    } else {
        dir_ = ::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (dir_ < 0 && errno == ENOENT) return TrialPlace::Missing;
        if (dir_ < 0 && errno == EACCES) return TrialPlace::Denied;
    }
    if (dir_ < 0) {
        const int reason = errno;
        struct stat st {};
        const bool link = lstat(directory_.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
        error = link ? "a symbolic link" : std::strerror(reason);
        return TrialPlace::Unsafe;
    }
    struct stat st {};
    if (fstat(dir_, &st) != 0 || !safeDirectory(st, error)) return TrialPlace::Unsafe;
    record_ = openFile(dir_, kRecordName, O_RDWR, root, gid, error);
    lock_ = record_ >= 0 ? openFile(dir_, kLockName, O_RDONLY, root, gid, error) : record_;
    for (int* fd : {&record_, &lock_}) {
        if (*fd != kMissing && *fd != kDenied) continue;
        const TrialPlace place = *fd == kMissing ? TrialPlace::Missing : TrialPlace::Denied;
        *fd = -1;
        close();
        return place;
    }
    if (record_ < 0 || lock_ < 0) return TrialPlace::Unsafe;
    if (root) {
        const int log = openFile(dir_, kLogName, O_WRONLY, root, gid, error);
        if (log < 0) return TrialPlace::Unsafe;
        (void)::close(log);  // only made here, for a guard that may not be root
    }
    while (flock(lock_, LOCK_EX) != 0) {
        if (errno != EINTR) {
            error = std::string("its lock: ") + std::strerror(errno);
            return TrialPlace::Unsafe;
        }
    }
    return TrialPlace::Ready;
}

TrialFile TrialStore::read(TrialRecord& trial, std::string& error) const {
    std::string text;
    char buffer[4096];
    ssize_t n = 0;
    while (text.size() < kMaxRecordBytes &&
           (n = pread(record_, buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0)
        text.append(buffer, static_cast<std::size_t>(n));
    if (n < 0) {
        error = std::string("cannot be read: ") + std::strerror(errno);
        return TrialFile::Damaged;
    }
    if (text.empty()) return TrialFile::None;
    return parseTrial(text, trial, error) ? TrialFile::Pending : TrialFile::Damaged;
}

bool TrialStore::write(const TrialRecord& trial) const {
    // In place, under the lock: the directory takes no new entries, and a record cut short by
    // a crash reads as damaged (its end line is missing), never as a shorter trial.
    const std::string text = formatTrial(trial);
    return pwrite(record_, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()) &&
           ftruncate(record_, static_cast<off_t>(text.size())) == 0;
}

bool TrialStore::clear() const {
    return ftruncate(record_, 0) == 0;
}

int TrialStore::openLog(bool fresh) const {
    std::string error;
    const int log = openFile(dir_, kLogName, O_WRONLY | O_APPEND, false, 0, error);
    if (log >= 0 && fresh) (void)ftruncate(log, 0);  // an old log only costs room
    return log >= 0 ? log : -1;
}

}  // namespace cfgctl
