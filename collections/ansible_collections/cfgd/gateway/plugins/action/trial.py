# cfgd.gateway.trial: confirms, rolls back or reports the device's pending trial. Reporting
# it is also the check that the device still answers after a trial's change: it opens a fresh
# connection and tries again until `wait` seconds have passed, with nothing but cfgctl there.
from __future__ import absolute_import, division, print_function

__metaclass__ = type

import time

from ansible.errors import AnsibleActionFail, AnsibleConnectionFailure
from ansible.utils.display import Display

from ansible_collections.cfgd.gateway.plugins.plugin_utils import cfgctl as util

display = Display()


class ActionModule(util.CfgctlAction):
    ARGS = dict(state=dict(type='str', required=True, choices=['confirmed', 'rolled_back', 'pending']),
                wait=dict(type='int', default=0), delay=dict(type='int', default=2))

    def act(self, result, args, device, task_vars):
        state = args['state']
        if state == 'pending':
            rc, report = self._reach(device, args['wait'], max(1, args['delay']))
        elif self._task.check_mode:
            rc, report = device.run(['trial'])
        else:
            rc, report = device.run(['confirm' if state == 'confirmed' else 'rollback'])
        if rc == util.EXIT_REFUSED and state == 'rolled_back' and report.get('refusal'):
            refusal = report['refusal']
            raise AnsibleActionFail('rolled back, but cfgd refused to restore %s = %s: %s (the other values '
                                    'were restored)' % ((refusal.get('param') or {}).get('name'),
                                                        util.shown(refusal.get('value')), refusal.get('text')),
                                    result=dict(changed=True, rc=rc, cfgctl=report))
        if rc not in (util.EXIT_OK, util.EXIT_NO_TRIAL):
            if state == 'confirmed':
                what = 'confirming the trial (nothing was stored; the trial goes on)'
            else:
                what = 'rolling the trial back' if state == 'rolled_back' else 'reading the trial'
            device.fail(what, rc, report)
        trial = report.get('trial')
        result.update(pending=False, trial=trial, changed=False)
        if rc == util.EXIT_NO_TRIAL:
            result['msg'] = 'no trial pending' + ('' if state == 'pending' else ': nothing to do')
            return result
        result['changes'] = util.change_lines(util.trial_changes(trial))
        if state == 'pending':
            result.update(pending=True, seconds_left=trial.get('seconds_left'), msg=util.trial_text(trial))
        elif self._task.check_mode:
            result.update(pending=True, changed=True, msg='the pending trial would be %s' % state.replace('_', ' '))
        else:
            result.update(changed=True, counts=report.get('counts'),
                          msg='trial %s: %s' % (state.replace('_', ' '), ', '.join(result['changes'])))
        return result

    def _reach(self, device, wait, delay):
        """`cfgctl trial` over a fresh connection, tried again until it answers or `wait` passes;
        then the host is unreachable, as Ansible reports it."""
        deadline = time.time() + wait
        while True:
            try:
                if wait > 0:  # not the connection that the trial's change may have cut
                    self._connection.reset()
                return device.run(['trial'])
            except (AnsibleConnectionFailure, AnsibleActionFail) as error:
                if time.time() + delay > deadline:
                    raise
                display.vvv('cfgd.gateway.trial: device not answering yet (%s)' % error)
                time.sleep(delay)
