# Documentation only: cfgd.gateway.facts runs on the controller (plugins/action/facts.py).
from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r'''
module: facts
short_description: Reads every cfgd parameter as facts
description:
  - One C(cfgctl dump) on the device; every readable parameter becomes a fact.
version_added: 1.0.0
options: {}
extends_documentation_fragment:
  - cfgd.gateway.cfgctl
attributes:
  diff_mode:
    support: none
'''

EXAMPLES = r'''
- cfgd.gateway.facts:
- ansible.builtin.debug:
    msg: "{{ inventory_hostname }}: CAN 1 at {{ ansible_facts.cfgd['can1.bitrate'] }}"
'''

RETURN = r'''
ansible_facts:
  description: The device's parameters.
  returned: always
  type: complex
  contains:
    cfgd:
      description: Every readable parameter that is not live, by name, as C(cfgctl dump) prints it.
      type: dict
    cfgd_status:
      description: The live state (access C(live)), link states, real bit rates, route counters.
      type: dict
    cfgd_refused:
      description: Reads the daemon refused, by name, with its text (a filter that does not exist).
      type: dict
    cfgd_trial:
      description: The pending trial, or null.
      type: dict
'''
