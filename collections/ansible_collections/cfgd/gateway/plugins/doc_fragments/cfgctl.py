# What every module of the collection shares: the options by which it reaches cfgctl and the
# daemon, its notes, and the attributes and authors that are the same for all (a module's own
# attributes, e.g. check_mode's description, are merged over these).
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
attributes:
  check_mode:
    support: full
  platform:
    platforms: posix
author:
  - cfgd developers
'''
