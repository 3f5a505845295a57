# cfgd.gateway.params: reads the named parameters in one cfgctl run, compares on the
# controller and writes only what differs in a second one (none when nothing does).
from __future__ import absolute_import, division, print_function

__metaclass__ = type

from ansible.errors import AnsibleActionFail

from ansible_collections.cfgd.gateway.plugins.plugin_utils import cfgctl as util


class ActionModule(util.CfgctlAction):
    ARGS = dict(params=dict(type='dict', required=True), trial=dict(type='int'))

    def act(self, result, args, device, task_vars):
        trial = util.seconds_in('trial', args.get('trial'), util.TRIAL_SECONDS)
        wanted = [(str(name), util.value_text(name, value)) for name, value in args['params'].items()]
        if not wanted:
            raise AnsibleActionFail('params names no parameter')
        words = [w for name, _ in wanted for w in util.name_words(name)]
        rc, report = device.run(['get'] + words)
        if rc not in (util.EXIT_OK, util.EXIT_REFUSED) or 'values' not in report:
            device.fail('reading the parameters', rc, report)
        values = report['values']
        util.refuse_read_only(values)
        util.refuse_pending_trial(report, 'parameters not written')

        changes = util.plan(wanted, values)
        result.update(values=dict((name, value) for name, value in wanted))
        if not self.planned(result, changes, task_vars):
            return result
        unread = [name for name, old, _ in changes if old is None]
        if trial is not None and unread:
            raise AnsibleActionFail('%s cannot be read, so a trial could not restore it (nothing was '
                                    'written)' % ', '.join(unread))
        command = ['set'] + (['--trial', str(trial)] if trial is not None else [])
        for name, _, value in changes:
            command += util.name_words(name) + [value]
        rc, report = device.run(command)
        if rc != util.EXIT_OK:
            device.fail('writing the parameters', rc, report, changes=result['changes'])
        if 'trial' in report:
            result['trial'] = report['trial']
            result['msg'] = '%d values changed as a trial: confirm within %s s (cfgd.gateway.trial ' \
                'state=confirmed) or it rolls back' % (len(changes), trial)
        else:
            result['msg'] = '%d values changed and stored' % len(changes)
        return result
