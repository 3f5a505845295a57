#pragma once
// The record of a pending trial: the values a trial wrote as temporary writes, the values they
// replaced, its deadline, the daemon it wrote to and the guard that rolls it back. It lives on
// the RAM disk beside the daemon's lock file, so that a reboot forgets it together with the
// trial's writes, which were never stored.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "model/param_names.h"

namespace cfgctl {

struct TrialEntry {
    Param param;                       // an address without a name has an empty name
    std::optional<std::string> old;    // the value before the trial
    std::optional<std::string> value;  // the trial's; none for a value only restored with others
};

struct TrialRecord {
    long long deadline = 0;  // seconds since the epoch
    int daemonPid = 0;
    int guardPid = 0;  // 0 while it has none
    std::vector<TrialEntry> entries;
};

// The record "<lock file>.trial/record", one trial per daemon. Its directory, with the record's
// lock and the guard's log, is open to exactly the users that may reach the daemon's queue, so
// that a trial started by the web server's user can be confirmed by root and the other way
// round (the RAM disk's sticky /tmp would let only the record's owner replace or remove it),
// and so that nobody who cannot write to the daemon can plant a record that another user's
// rollback would write.
std::string trialPath(const char* lockPath);
// Makes the record's directory when missing, with the access of the daemon's queue (`ipcMode`
// and `ipcGroup` as the queue has them); a directory that exists is used as it is. False when it
// cannot be made.
[[nodiscard]] bool makeTrialDirectory(const std::string& trialPath, unsigned ipcMode,
                                      unsigned ipcGroup);
// The guard's log beside the record.
std::string guardLogPath(const std::string& trialPath);

std::string formatTrial(const TrialRecord& trial);
// False, with the reason in `error`, for a text that is not a whole record of this version.
[[nodiscard]] bool parseTrial(std::string_view text, TrialRecord& trial, std::string& error);

enum class TrialFile { None, Pending, Damaged };
// Reads the record at `path`; Damaged comes with the reason in `error`.
TrialFile readTrial(const std::string& path, TrialRecord& trial, std::string& error);
// Replaces the record at `path` whole (a temporary file renamed over it).
[[nodiscard]] bool writeTrial(const std::string& path, const TrialRecord& trial);

// Held while a process reads, acts on and rewrites the record, so that a confirm, a rollback
// and the guard never act on one trial at the same time.
class TrialLock {
  public:
    explicit TrialLock(const std::string& trialPath);
    ~TrialLock();
    TrialLock(const TrialLock&) = delete;
    TrialLock& operator=(const TrialLock&) = delete;

  private:
    int fd_;
};

}  // namespace cfgctl
