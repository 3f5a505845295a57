# Documentation only: cfgd.gateway.trial runs on the controller (plugins/action/trial.py).
from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r'''
module: trial
short_description: Confirms, rolls back or reports the pending cfgd trial
description:
  - C(confirmed) stores the pending trial's values (C(cfgctl confirm)), C(rolled_back) restores
    the old ones now (C(cfgctl rollback)). Without a pending trial both are C(ok) and say so.
  - C(pending) reports the pending trial (seconds left, each parameter's old and new value), or
    that there is none. It opens a fresh connection and, with C(wait), tries again until the
    device answers, so it checks that a trial's change (a new LAN address, say, with
    C(ansible_host) for the task) left the device reachable, without Python on the device as
    M(ansible.builtin.wait_for_connection) would need. After C(wait) the host is unreachable.
version_added: 1.0.0
options:
  state:
    description: What to do with the pending trial.
    type: str
    required: true
    choices: [confirmed, rolled_back, pending]
  wait:
    description: C(pending) only; seconds to go on trying to reach the device.
    type: int
    default: 0
  delay:
    description: Seconds between tries.
    type: int
    default: 2
extends_documentation_fragment:
  - cfgd.gateway.cfgctl
attributes:
  check_mode:
    description: Reports whether a trial would be confirmed or rolled back.
  diff_mode:
    support: none
'''

EXAMPLES = r'''
- name: The device still answers at its new address
  cfgd.gateway.trial:
    state: pending
    wait: 60
  vars:
    ansible_host: 198.51.100.31

- name: Keep the change
  cfgd.gateway.trial:
    state: confirmed
'''

RETURN = r'''
pending:
  description: Whether a trial was pending.
  returned: always
  type: bool
seconds_left:
  description: Seconds until the pending trial rolls back.
  returned: when state is pending and a trial is pending
  type: int
changes:
  description: The trial's parameters as C(name) colon C(old -> new).
  returned: when a trial was pending
  type: list
  elements: str
trial:
  description: cfgctl's trial object (seconds_left, deadline, params).
  returned: always
  type: dict
'''
