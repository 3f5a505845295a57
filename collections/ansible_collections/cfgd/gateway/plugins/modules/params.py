# Documentation only: cfgd.gateway.params runs on the controller (plugins/action/params.py).
from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r'''
module: params
short_description: Sets cfgd parameters by name, writing only those that differ
description:
  - Reads the named parameters in one cfgctl run on the device, compares them on the
    controller and writes only the values that differ, in one session (a second cfgctl run).
    When nothing differs, nothing is written and the task is C(ok).
  - A value the daemon refuses fails the task with the parameter's name and the daemon's text;
    the session is aborted, so nothing of the task is stored.
  - Read-only, live and write-only names are refused before anything is written; an unknown
    name fails with cfgctl's close matches. While a trial is pending on the device (started by
    this play or anyone else) the task fails and names it.
  - A write to a route, an interface's bit timing or a filter's kind changes the route's
    state, the interface's bit rate or the filter's term; those, when given, are written again
    after it, as C(cfgctl apply) does.
  - Give values in the form C(cfgctl get) reads them back (C(0x1ff), not C(0x1FF)), or every
    run writes them again.
version_added: 1.0.0
options:
  params:
    description:
      - Parameter names (C(cfgctl names) lists them, e.g. C(can1.bitrate)) or addresses
        C(F1 F2 F3), with their values; numbers are accepted, a boolean is written as 1 or 0.
      - Values reach cfgctl as one argument each, unchanged (blanks, quotes, C($), C(;) and line
        breaks included); whether the daemon takes them is its decision.
    type: dict
    required: true
  trial:
    description:
      - Applies the changes as a trial of this many seconds (5..3600), written temporarily and
        rolled back by the device at the deadline unless M(cfgd.gateway.trial) confirms it.
      - The trial is left pending; check that the device still answers with
        M(cfgd.gateway.trial) C(state=pending) and C(wait), then confirm.
      - A change of the address that the task connects to cuts its SSH connection before the
        answer comes back; the collection's README.md shows a play for it (SSH keepalives,
        C(ignore_unreachable), check and confirm at the new address).
    type: int
extends_documentation_fragment:
  - cfgd.gateway.cfgctl
attributes:
  check_mode:
    description: Reads, compares and reports what would change; writes nothing.
  diff_mode:
    support: full
    description: Shows one line per changed parameter, its name and value, before and after.
'''

EXAMPLES = r'''
- name: Second CAN interface at 250 kbit/s, route 1 to a new peer
  cfgd.gateway.params:
    params:
      can1.bitrate: 250000
      route1.peer: 198.51.100.20:5001

- name: A LAN change as a trial of 90 s
  cfgd.gateway.params:
    params:
      lan0.ipv4: 198.51.100.31
    trial: 90
'''

RETURN = r'''
changes:
  description: Each written (or, in check mode, differing) parameter as C(name) colon C(old -> new).
  returned: always
  type: list
  elements: str
  sample: ["can1.bitrate: 500000 -> 250000"]
values:
  description: The values as given, as texts.
  returned: always
  type: dict
trial:
  description: The trial started (seconds_left, deadline, params with name, address, old, new).
  returned: when a trial was started
  type: dict
'''
