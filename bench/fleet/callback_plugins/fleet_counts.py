# Records, at the start of each task and at the end of the play, the time and how many SSH
# connections (dropbear's accepted logins), SSH sessions (root's login shell) and cfgctl runs each
# simulated device has seen so far; bench/fleet_bench.py takes the differences. The linear
# strategy ends a task on every host before the next starts, so each difference is one task's.
import json
import os
import time

from ansible.plugins.callback import CallbackBase

DOCUMENTATION = """
name: fleet_counts
type: aggregate
short_description: per-task counts of a simulated fleet's SSH connections, sessions, cfgctl runs
description: Writes them as JSON lines to $FLEET_BENCH_COUNTS.
"""


def lines(path, word=None):
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            return sum(1 for line in f if word is None or word in line)
    except FileNotFoundError:
        return 0


def snapshot():
    fleet = os.environ["CFGD_FLEET_DIR"]
    counts = {}
    for name in sorted(os.listdir(fleet)):
        device = os.path.join(fleet, name)
        if name.startswith("gw-"):
            counts[name] = [lines(os.path.join(device, "ssh.log"), "auth succeeded"),
                            lines(os.path.join(device, "shell.log")),
                            lines(os.path.join(device, "cfgctl.log"))]
    return counts


class CallbackModule(CallbackBase):
    CALLBACK_VERSION = 2.0
    CALLBACK_TYPE = "aggregate"
    CALLBACK_NAME = "fleet_counts"
    CALLBACK_NEEDS_ENABLED = True

    def _record(self, name):
        with open(os.environ["FLEET_BENCH_COUNTS"], "a", encoding="utf-8") as f:
            f.write(json.dumps({"task": name, "time": time.time(), "counts": snapshot()}) + "\n")

    def v2_playbook_on_task_start(self, task, is_conditional):
        self._record(task.get_name())

    def v2_playbook_on_stats(self, stats):
        self._record(None)
