# cfgd.gateway.facts: every readable parameter and the live state, from one cfgctl dump.
from __future__ import absolute_import, division, print_function

__metaclass__ = type


from ansible_collections.cfgd.gateway.plugins.plugin_utils import cfgctl as util


class ActionModule(util.CfgctlAction):
    def act(self, result, args, device, task_vars):
        report = device.dump()
        config, status, refused = {}, {}, {}
        for value in report['values']:
            if value.get('value') is None:
                refused[value['name']] = value.get('refused')
            else:
                (status if value.get('access') == 'live' else config)[value['name']] = value['value']
        result.update(changed=False, ansible_facts=dict(
            cfgd=config, cfgd_status=status, cfgd_refused=refused, cfgd_trial=report.get('trial')))
        return result
