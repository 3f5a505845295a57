# Documentation only: cfgd.gateway.config runs on the controller (plugins/action/config.py).
from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r'''
module: config
short_description: Applies a cfgctl dump text, writing only the lines that differ
description:
  - Takes C(name = value) lines as C(cfgctl dump) prints them (a whole dump or a part,
    comments and blank lines are ignored, names or C(F1 F2 F3) addresses) and applies them as
    C(cfgctl apply) does. The value is everything behind C(= ); read-only lines are skipped and
    counted; only differing lines are written, in one session, and a refused line aborts it.
  - Reads the device with one C(cfgctl dump) and compares on the controller; writes (one
    C(cfgctl apply)) only when a line differs. Check, diff and C(trial) behave as in
    M(cfgd.gateway.params).
  - A line break cannot be given in a line; C(\n) is written as a backslash and an C(n), as
    C(cfgctl apply) writes it. Use M(cfgd.gateway.params) for such values.
version_added: 1.0.0
options:
  src:
    description: A file on the controller (found as M(ansible.builtin.copy) finds C(src)).
    type: str
  content:
    description: The text itself, e.g. from C(lookup('template', 'gateway.dump.j2')).
    type: str
  trial:
    description: Applies the changes as a trial of this many seconds (5..3600).
    type: int
extends_documentation_fragment:
  - cfgd.gateway.cfgctl
attributes:
  diff_mode:
    support: full
'''

EXAMPLES = r'''
- name: The plant's CAN settings from a template
  cfgd.gateway.config:
    content: "{{ lookup('ansible.builtin.template', 'can.dump.j2') }}"
'''

RETURN = r'''
changes:
  description: Each differing line as C(name) colon C(old -> new).
  returned: always
  type: list
  elements: str
read_only:
  description: How many read-only lines were skipped.
  returned: always
  type: int
counts:
  description: cfgctl apply's counts (written, unchanged, dropped, read_only).
  returned: when written
  type: dict
'''
