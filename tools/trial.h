#pragma once
// Trials: writes applied as temporary writes (never stored) and rolled back by a guard process
// at a deadline unless confirmed, so that a change that cuts the user off the device or its bus
// undoes itself. A trial that is never confirmed cannot reach the configuration file, and a
// device that reboots during one comes back on its stored configuration.
//
// The record lives beside the daemon's lock file (trial_file.h). Clients keep the convention
// that no other write goes to the daemon while a trial is pending; a client that talks to the
// queue directly is not stopped.

#include <vector>

#include "apply_file.h"
#include "cfgctl_args.h"

namespace cfgctl {

inline constexpr int kMinTrialSeconds = 5;
inline constexpr int kMaxTrialSeconds = 3600;

// Settles a pending trial before a command's own work: rolls back one whose daemon restarted, or
// whose guard is gone and whose deadline has passed; gives a new guard to one whose guard is
// gone before its deadline. Every command that reaches the daemon calls it first.
// Unsafe: the trial directory fails its checks (the reason was printed); no trial is there.
// A trial still pending goes into the --json report, so that a get or dump tells whether its
// values are a trial's, and a refused write why.
enum class TrialState { None, Pending, Damaged, Unsafe };
TrialState settleTrial(const Invocation& invocation, long long& secondsLeft);

// 0 when a write may go ahead; else the exit status, after the reason was printed.
int refuseWritesDuringTrial(const Invocation& invocation);

// set --trial and apply --trial: the lines' values, those that differ, as a trial.
int runTrialStart(const Invocation& invocation, const std::vector<ApplyLine>& lines);
int runConfirm(const Invocation& invocation);
int runRollback(const Invocation& invocation);
int runTrialStatus(const Invocation& invocation);
// trial --init: root makes the trial directory (at boot, before other users' processes run).
int runTrialInit(const Invocation& invocation);

}  // namespace cfgctl
