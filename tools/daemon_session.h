#pragma once
// cfgctl's side of a session with cfgd: the lock file, the session semaphore and the exchanges,
// with every failure reported on standard error and turned into cfgctl's exit status.

#include <optional>
#include <string>
#include <vector>

#include "apply_file.h"
#include "cfgctl_args.h"
#include "client.h"

namespace cfgctl {

// A value that would not fit into one request; reported (naming `where`) before any session.
[[nodiscard]] bool valueFits(unsigned writeType, const Parameter& p, const char* where);

// The daemon, reached through its lock file, with the session rules that every command keeps.
class DaemonSession {
  public:
    explicit DaemonSession(const Invocation& invocation);

    // 0, or the exit status after the reason was printed.
    int open();
    int start(unsigned writes);
    // One request; its answer in answer(). 0, or the exit status after the reason was printed.
    int exchange(unsigned mt, const Parameter& p);
    // FINISH_SESSION or ABORT_SESSION; `keep` holds the semaphore for another session.
    int end(bool abort, bool keep = false);

    const RequestMessage& answer() const { return answer_; }
    bool refused() const { return answer_.mt == NEG_ANSW; }
    // Some refusals come without a text (a parameter that is not served).
    const char* refusal() const { return answer_.da[0] != '\0' ? answer_.da : "refused by cfgd"; }
    const char* lockPath() const { return lockPath_; }
    int daemonPid() const { return cfgd_.lockLine().pid; }

  private:
    int check(client::Status status, bool inSession = false);

    const char* lockPath_;
    Report* report_;
    client::Connection cfgd_;
    RequestMessage answer_{};
};

// A parameter's name, or its numbers "F1 F2 F3" when it has none.
const char* labelOf(const Param& param, char (&numbers)[16]);

// A parameter of the command line as the user wrote it: its name, or "F1 F2 F3".
std::string writtenAs(const Parameter& p);

// The request that writes `line`'s value (or reads it, when the value is dropped).
Parameter requestOf(const ApplyLine& line);

// The current value of each of `lines` (nullopt where the read is refused or not possible), read
// in one session, under the semaphore that a writing session then keeps.
int readCurrentValues(DaemonSession& cfgd, const std::vector<ApplyLine>& lines,
                      std::vector<std::optional<std::string>>& current);

// The lock file an invocation names, or the daemon's default.
const char* lockPathOf(const Invocation& invocation);

}  // namespace cfgctl
