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

// A process as the record names it: its pid alone could be another process's by now.
struct GuardId {
    int pid = 0;  // 0 while there is none
    unsigned long long startTicks = 0;
};

struct TrialRecord {
    long long deadline = 0;  // seconds since the epoch
    int daemonPid = 0;
    GuardId guard;
    std::vector<TrialEntry> entries;
};

std::string formatTrial(const TrialRecord& trial);
// False, with the reason in `error`, for a text that is not a whole record of this version.
[[nodiscard]] bool parseTrial(std::string_view text, TrialRecord& trial, std::string& error);

// The directory "<lock file>.trial" with the record, its lock and the guard's log. The lock
// file's place (/tmp) is open to every local user, who may plant links, files and directories
// there before root's first trial. So only root makes the directory and its files, all at once,
// owned by root and given the web front end's group (0750 and 0660), so that the web server's
// user and root can take turns; nobody else can add, replace or remove an entry, and every use
// checks that this is still so, on the opened descriptors.
std::string trialDirectory(const char* lockPath);
// Whether a record may be pending, cheaply: false when there is certainly none.
bool trialMayBePending(const char* lockPath);

enum class TrialFile { None, Pending, Damaged };
enum class TrialPlace { Ready, Missing, Denied, Unsafe };

// The opened, checked directory with the record's lock held: a confirm, a rollback and the
// guard never act on one trial at the same time.
class TrialStore {
  public:
    TrialStore() = default;
    ~TrialStore();
    TrialStore(const TrialStore&) = delete;
    TrialStore& operator=(const TrialStore&) = delete;

    // Opens the directory of `lockPath` and takes the lock. Root makes what is missing; for
    // others a missing directory is Missing, and one they may not use Denied. Unsafe comes
    // with the reason in `error`.
    [[nodiscard]] TrialPlace open(const char* lockPath, std::string& error);

    TrialFile read(TrialRecord& trial, std::string& error) const;
    // Replaces the record whole; clear() leaves none.
    [[nodiscard]] bool write(const TrialRecord& trial) const;
    [[nodiscard]] bool clear() const;
    // The guard's log, for appending (emptied first when `fresh`); -1 when it cannot be used.
    int openLog(bool fresh) const;
    const std::string& directory() const { return directory_; }

  private:
    void close();

    std::string directory_;
    int dir_ = -1;
    int record_ = -1;
    int lock_ = -1;
};

}  // namespace cfgctl
