# The options by which every module of the collection reaches cfgctl and the daemon.
from __future__ import absolute_import, division, print_function

__metaclass__ = type


class ModuleDocFragment(object):
    DOCUMENTATION = r'''
options:
  cfgctl:
    description:
      - The cfgctl program on the device, a name in the PATH of its SSH session or a path.
    type: str
    default: cfgctl
  lock_file:
    description:
      - The daemon's lock file (cfgctl's C(-l)); the daemon's default when not given.
    type: str
  timeout:
    description:
      - Seconds to wait for the daemon, 1..3600 (cfgctl's C(-t)); cfgctl's default when not given.
    type: int
notes:
  - Runs only C(cfgctl) on the device, through the connection's low-level command execution as
    M(ansible.builtin.raw) does; no module file is copied and no Python is needed there.
  - Needs a cfgctl that knows C(--json) for C(get) and C(dump).
  - Fails with a message, not a traceback, when cfgctl is missing on the device (the shell's
    status 127), cfgd is not running or busy with another client for the whole time-out, cfgd
    does not answer in time, or a trial started by someone else is pending.
'''
