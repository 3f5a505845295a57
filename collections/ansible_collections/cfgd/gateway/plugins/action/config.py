# cfgd.gateway.config: a dump text (name = value lines) applied as cfgctl apply applies it:
# one cfgctl dump to compare on the controller, and, when a line differs, one cfgctl apply of
# the text, which writes only the differing lines in one session.
from __future__ import absolute_import, division, print_function

__metaclass__ = type

import difflib

from ansible.errors import AnsibleActionFail
from ansible.module_utils.common.text.converters import to_text

from ansible_collections.cfgd.gateway.plugins.plugin_utils import cfgctl as util


def parse_dump(text):
    """The "name = value" lines of `text` as cfgctl apply reads them: the value is everything
    behind the first "=" and one blank; comments and blank lines are left out."""
    lines = []
    for number, line in enumerate(text.split('\n'), 1):
        line = line[:-1] if line.endswith('\r') else line
        if not line.strip() or line.strip().startswith('#'):
            continue
        if '=' not in line:
            raise AnsibleActionFail('line %d: expected NAME = VALUE' % number)
        name, value = line.split('=', 1)
        lines.append((number, name.strip(), value[1:] if value.startswith(' ') else value))
    return lines


class ActionModule(util.CfgctlAction):
    ARGS = dict(src=dict(type='str'), content=dict(type='str'), trial=dict(type='int'))
    CHECKS = dict(mutually_exclusive=[['src', 'content']], required_one_of=[['src', 'content']])

    def act(self, result, args, device, task_vars):
        trial = util.seconds_in('trial', args.get('trial'), util.TRIAL_SECONDS)
        text = args.get('content')
        if text is None:
            with open(self._find_needle('files', args['src']), 'rb') as source:
                text = to_text(source.read(), errors='surrogate_or_strict')
        lines = parse_dump(text)

        report = device.dump()
        by_name = dict((v['name'], v) for v in report['values'])
        by_address = dict((' '.join(map(str, v['address'])), v) for v in report['values'])
        wanted, values, read_only = [], [], []
        for number, name, value in lines:
            read = by_name.get(name) or by_address.get(' '.join(util.name_words(name)))
            if read is None:
                close = difflib.get_close_matches(name, list(by_name), n=5)
                raise AnsibleActionFail('line %d: "%s" is no readable parameter of this device%s (nothing was '
                                        'written)' % (number, name, '; close: ' + ', '.join(close) if close else ''))
            if read.get('access') in ('r', 'live'):
                read_only.append(read['name'])
                continue
            wanted.append((read['name'], value))
            values.append(read)
        util.refuse_pending_trial(report, 'configuration not applied')

        changes = util.plan(wanted, values)
        result.update(read_only=len(read_only))
        if not self.planned(result, changes, task_vars):
            return result
        command = ['apply'] + (['--trial', str(trial)] if trial is not None else []) + ['-']
        rc, report = device.run(command, stdin_text=text)
        if rc != util.EXIT_OK:
            device.fail('applying the configuration', rc, report, changes=result['changes'])
        result.update(counts=report.get('counts'), trial=report.get('trial'))
        result['msg'] = '%d values changed%s' % (len(changes), ' as a trial: confirm within %s s' % trial
                                                 if report.get('trial') else ' and stored')
        return result
