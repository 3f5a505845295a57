# The device side of every module: cfgctl command lines run through the connection's
# low-level command execution (no module file is copied, no Python runs on the gateway), and
# cfgctl's --json object and exit status read on the controller, never its messages.
from __future__ import absolute_import, division, print_function

__metaclass__ = type

import json
import re
import shlex

from ansible.errors import AnsibleActionFail
from ansible.plugins.action import ActionBase

# cfgctl's exit statuses (cfgctl --help).
EXIT_OK, EXIT_REFUSED, EXIT_USAGE, EXIT_NOT_REACHABLE = 0, 1, 2, 3
EXIT_NO_ANSWER, EXIT_TRIAL_PENDING, EXIT_NO_TRIAL = 4, 5, 6
# The seconds cfgctl takes for a trial (--trial) and for waiting on the daemon (-t).
TRIAL_SECONDS, TIMEOUT_SECONDS = (5, 3600), (1, 3600)
# Why cfgd could not be used (cfgctl's "unreachable"; older ones do not say).
UNREACHABLE = {
    'not_running': 'it is not running (no lock file or queue)',
    'busy': 'another client held its session for the whole time-out (the timeout option)',
    None: 'it is not running, or another client held its session for the whole time-out',
}
# The shell's: no such program, or not executable.
SHELL_NOT_FOUND = (126, 127)

# The options every module takes for reaching cfgctl and the daemon.
COMMON_ARGS = dict(
    cfgctl=dict(type='str', default='cfgctl'),
    lock_file=dict(type='str'),
    timeout=dict(type='int'),
)

_ADDRESS = re.compile(r'^\s*(\d{1,3})\s+(\d{1,3})\s+(\d{1,3})\s*$')


def name_words(name):
    """A parameter as cfgctl's operands: a name, or the three numbers of "F1 F2 F3"."""
    match = _ADDRESS.match(name)
    return list(match.groups()) if match else [name]


def value_text(name, value):
    """A value as cfgctl writes it: numbers are accepted, and a boolean is 1 or 0."""
    if isinstance(value, bool):
        return '1' if value else '0'
    if isinstance(value, (int, float)):
        return str(value)
    if isinstance(value, str):
        return value
    raise AnsibleActionFail('%s: a value must be a text or a number, not %s'
                            % (name, type(value).__name__))


def shown(value):
    """A value on one line of a message or diff, as cfgctl dump shows it."""
    if value is None:
        return '(unread)'
    return value.replace('\n', '\\n').replace('\r', '\\r')


def trial_changes(trial):
    """A trial's parameters that it changes, as [(name or "F1 F2 F3", old, new)]."""
    return [(p.get('name') or ' '.join(map(str, p['address'])), p.get('old'), p.get('new'))
            for p in trial.get('params', []) if p.get('new') is not None]


def trial_text(trial):
    """A pending trial for people: its time left and each parameter's old -> new."""
    changes = ', '.join('%s %s -> %s' % (n, shown(o), shown(v)) for n, o, v in trial_changes(trial))
    return 'a trial is pending (%s s left: %s)' % (trial.get('seconds_left'), changes or 'no values')


def foreign_trial_text(what, trial):
    """`what` stopped by a pending trial that this task did not start."""
    return '%s: %s on the device, started by another task or user: confirm it (cfgd.gateway.trial ' \
        'state=confirmed) or roll it back first' % (what, trial_text(trial))


def diff_of(changes, header):
    """Ansible's before/after form of `changes` [(name, old, new)]: one "name: value" line each."""
    return dict(before_header='%s (cfgd)' % header, after_header='%s (as the task wants it)' % header,
                before=''.join('%s: %s\n' % (n, shown(o)) for n, o, _ in changes),
                after=''.join('%s: %s\n' % (n, shown(v)) for n, _, v in changes))


def change_lines(changes):
    return ['%s: %s -> %s' % (n, shown(o), shown(v)) for n, o, v in changes]


def seconds_in(option, seconds, limits):
    """`seconds`, refused with the option's name when outside cfgctl's `limits`."""
    if seconds is not None and not limits[0] <= seconds <= limits[1]:
        raise AnsibleActionFail('%s takes %d..%d seconds, not %s' % (option, limits[0], limits[1], seconds))
    return seconds


class Cfgctl:
    """cfgctl on the device of the task's connection."""

    def __init__(self, action, args):
        self._action = action
        self._program = args['cfgctl']
        self._base = [self._program]
        if args.get('lock_file'):
            self._base += ['-l', args['lock_file']]
        if args.get('timeout') is not None:
            seconds_in('timeout', args['timeout'], TIMEOUT_SECONDS)
            self._base += ['-t', str(args['timeout'])]
        self.runs = 0
        self.stderr = ''

    def command_line(self, words, stdin_text=None):
        line = ' '.join(shlex.quote(w) for w in self._base + ['--json'] + list(words))
        if stdin_text is not None:
            line = 'printf %s ' + shlex.quote(stdin_text) + ' | ' + line
        return line

    def run(self, words, stdin_text=None):
        """Runs one cfgctl command: (exit status, --json object). Raises AnsibleActionFail where
        cfgctl could not run or the daemon could not be used; an unreachable host is Ansible's."""
        result = self._action._low_level_execute_command(
            self.command_line(words, stdin_text), executable=False)
        self.runs += 1
        rc, err = result.get('rc'), result.get('stderr', '').strip()
        if rc in SHELL_NOT_FOUND:
            raise AnsibleActionFail('%s cannot be run on the device (shell status %s): install cfgd\'s '
                                    'cfgctl there, or give its path in the cfgctl option'
                                    % (self._program, rc), result=dict(rc=rc, stderr=err))
        report = None
        for line in reversed(result.get('stdout', '').splitlines()):
            if line.startswith('{'):
                try:
                    report = json.loads(line)
                except ValueError:
                    pass
                break
        if not isinstance(report, dict) or report.get('exit') != rc:
            raise AnsibleActionFail('%s %s gave no JSON report (status %s): the device\'s cfgctl may '
                                    'be too old for --json %s' % (self._program, words[0], rc, words[0]),
                                    result=dict(rc=rc, stderr=err))
        if rc == EXIT_NOT_REACHABLE:
            raise AnsibleActionFail('cfgd is not reachable on the device: %s' % UNREACHABLE.get(
                report.get('unreachable'), UNREACHABLE[None]), result=dict(rc=rc, stderr=err))
        if rc == EXIT_NO_ANSWER:
            raise AnsibleActionFail('cfgd did not answer in time (the timeout option): it is busy or hung',
                                    result=dict(rc=rc, stderr=err))
        if rc == EXIT_USAGE and 'name_error' in report:
            raise AnsibleActionFail(name_error_text(report['name_error']), result=dict(rc=rc))
        self.stderr = err
        return rc, report

    def dump(self):
        """cfgctl dump's report: every parameter's value, and the pending trial."""
        rc, report = self.run(['dump'])
        if rc != EXIT_OK or 'values' not in report:
            self.fail('reading the parameters', rc, report)
        return report

    def fail(self, what, rc, report, **extra):
        """The failure for an outcome that the module does not take."""
        if rc == EXIT_TRIAL_PENDING and 'trial' in report:
            text = foreign_trial_text(what, report['trial'])
        elif rc == EXIT_REFUSED and report.get('refusal') and report['refusal'].get('param'):
            refusal = report['refusal']
            param = refusal['param']
            text = '%s: cfgd refused %s = %s: %s; the session was aborted, so nothing of this task ' \
                   'was stored' % (what, param.get('as_written') or param.get('name'),
                                   shown(refusal.get('value')), refusal.get('text'))
        elif rc == EXIT_REFUSED and report.get('refusal'):
            text = '%s: cfgd refused to end the session: %s' % (
                what, report['refusal'].get('text') or 'without a reason (applying or storing the '
                'changes failed: its log may tell why, e.g. a configuration file it cannot parse)')
        else:
            text = '%s: cfgctl ended with status %s (%s); its messages: %s' % (
                what, rc, report.get('status'), self.stderr or 'none')
        extra.update(rc=rc, cfgctl=report)
        raise AnsibleActionFail(text, result=extra)


class CfgctlAction(ActionBase):
    """The frame of every module's action: its options checked (ARGS, the options for reaching
    cfgctl, and CHECKS for validate_argument_spec), then act() with cfgctl on the task's device.
    A failure (AnsibleActionFail) becomes a failed result with its message, without the empty
    traceback that Ansible would print for it."""
    TRANSFERS_FILES = False
    _supports_check_mode = True
    _supports_async = False
    ARGS = {}
    CHECKS = {}

    def run(self, tmp=None, task_vars=None):
        task_vars = task_vars or {}
        try:
            result = super(CfgctlAction, self).run(tmp, task_vars)
            _, args = self.validate_argument_spec(argument_spec=dict(self.ARGS, **COMMON_ARGS), **self.CHECKS)
            return self.act(result, args, Cfgctl(self, args), task_vars)
        except AnsibleActionFail as error:
            result = dict(error.result, failed=True)
            result.pop('exception', None)
            result.setdefault('changed', False)
            return result

    def act(self, result, args, device, task_vars):
        raise NotImplementedError

    def planned(self, result, changes, task_vars):
        """Reports `changes` (changed, their lines, the diff); True when they are to be written:
        some, and not in check mode."""
        result.update(changed=bool(changes), changes=change_lines(changes))
        if self._task.diff and changes:
            result['diff'] = diff_of(changes, task_vars.get('inventory_hostname', 'device'))
        if not changes:
            result['msg'] = 'every value is as given: nothing written'
        elif self._task.check_mode:
            result['msg'] = '%d values would change' % len(changes)
        return bool(changes) and not self._task.check_mode


def name_error_text(error):
    name, access = error.get('name'), error.get('access')
    if access == 'w':
        return '%s is write only: it cannot be read, compared or set by this collection' % name
    if access in ('r', 'live'):
        return '%s is read only (%s): it cannot be set' % (name, access)
    close = error.get('close') or []
    return 'unknown parameter name "%s"; %s' % (
        name, 'close: ' + ', '.join(close) if close else 'cfgctl names lists them all')


def refuse_read_only(values):
    """Read-only and live parameters, refused before anything is written."""
    read_only = [v['name'] for v in values if v.get('access') in ('r', 'live')]
    if read_only:
        raise AnsibleActionFail('read only, cannot be set: %s (nothing was written)' % ', '.join(read_only))


def refuse_pending_trial(report, what):
    """Writes wait for a pending trial, which another task or user may have started."""
    if 'trial' in report:
        raise AnsibleActionFail(foreign_trial_text(what, report['trial']) + ' (nothing was written)',
                                result=dict(trial=report['trial']))


def plan(wanted, values):
    """The writes for `wanted` [(name, value)] against `values` (get's list, in the same order):
    [(name, old, new)] of those that differ, then the followers (a route's state, a bit rate, a
    filter's term) that a write to their instance changes, as cfgctl apply orders them."""
    changes, followers, written = [], [], set()
    for (name, value), read in zip(wanted, values):
        old = read.get('value')
        if read.get('follows'):
            followers.append((name, old, value, tuple(read['address'][:2])))
        elif old != value:
            changes.append((name, old, value))
            written.add(tuple(read['address'][:2]))
    for name, old, value, instance in followers:
        if old != value or instance in written:
            changes.append((name, old, value))
    return changes
