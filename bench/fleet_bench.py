#!/usr/bin/env python3
"""The fleet benchmark: Ansible's collection cfgd.gateway against simulated fleets.

Run as root from the repository's root after building cfgd, cfgctl and cfgd_gwsim:

    python3 bench/fleet_bench.py                 # fleets of 10 and 50 (forks 10 and 50)
    python3 bench/fleet_bench.py 3 20            # other sizes
    sandbox/fleet.sh 50 python3 bench/fleet_bench.py --inside 50   # in a fleet of one's own

On each fleet it times, with fresh SSH connections each:
  raw   ansible -m raw -a true (the baseline: one SSH round per device), first and last
  (a)   bench/fleet/facts.yml: cfgd.gateway.facts
  (b)   bench/fleet/change.yml: five parameters as a trial, state=pending, state=confirmed
  (c)   bench/fleet/change.yml again: nothing to change
and prints, per task, the SSH connections (dropbear's logins), SSH sessions (commands run by
root's login shell) and cfgctl runs per device (least and most), from the devices' logs. It
measures and asserts nothing; the targets it prints are those the collection aims at.
"""
import glob
import json
import os
import subprocess
import sys
import time

BENCH = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(BENCH)
PLAYS = os.path.join(BENCH, "fleet")


def outside(sizes):
    status = 0
    for size in sizes:
        command = [os.path.join(REPO, "sandbox", "fleet.sh"), str(size),
                   "python3", os.path.abspath(__file__), "--inside", str(size)]
        print("$ " + " ".join(command), flush=True)
        status = subprocess.run(command, check=False).returncode or status
    return status


def close_connections(control_dir):
    """Ends the SSH master connections Ansible left (ControlPersist), so the next run starts cold."""
    for socket in glob.glob(os.path.join(control_dir, "*")):
        subprocess.run(["ssh", "-o", "ControlPath=" + socket, "-O", "exit", "fleet"],
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)


def run(label, command, work):
    """Runs one Ansible command; returns its wall time and the per-task counts it recorded."""
    control_dir = os.path.join(work, label + ".cp")
    counts = os.path.join(work, label + ".counts")
    environment = dict(os.environ,
                       ANSIBLE_SSH_CONTROL_PATH_DIR=control_dir,
                       ANSIBLE_CALLBACK_PLUGINS=os.path.join(PLAYS, "callback_plugins"),
                       ANSIBLE_CALLBACKS_ENABLED="fleet_counts",
                       FLEET_BENCH_COUNTS=counts)
    with open(os.path.join(work, label + ".log"), "w", encoding="utf-8") as log:
        before = snapshot()
        begun = time.time()
        start = time.monotonic()
        status = subprocess.run(command, env=environment, stdout=log, stderr=subprocess.STDOUT,
                                check=False).returncode
        seconds = time.monotonic() - start
        after = snapshot()
        ended = time.time()
    close_connections(control_dir)
    marks = [{"task": "(all)", "time": begun, "counts": before}]
    if os.path.exists(counts):
        with open(counts, encoding="utf-8") as f:
            marks += [json.loads(line) for line in f]
        marks[0]["task"] = "(start-up)"
    marks.append({"task": None, "time": ended, "counts": after})
    return status, seconds, marks


def spread(values):
    return str(min(values)) if min(values) == max(values) else f"{min(values)}-{max(values)}"


def report(label, command, status, seconds, marks, log):
    print(f"{label}: {seconds:.2f} s{'' if status == 0 else f'  (exit status {status})'}")
    print(f"    $ {' '.join(command)}")
    if status != 0:
        with open(log, encoding="utf-8", errors="replace") as f:
            print("".join("    | " + line for line in f.readlines()[-6:]), end="")
    # The span before the first task (start-up) and after the last mark (end) belong to no task
    # but still count, e.g. for an ad-hoc command without a task start.
    for begin, end in zip(marks, marks[1:]):
        name = begin["task"]
        if name is None:
            continue
        per_device = [[b - a for a, b in zip(begin["counts"][d], end["counts"][d])]
                      for d in begin["counts"]]
        if not any(any(row) for row in per_device):
            continue
        connections, sessions, runs = zip(*per_device)
        print(f"    {name:<12} {end['time'] - begin['time']:5.2f} s; per device: SSH connections"
              f" {spread(connections)},"
              f" sessions {spread(sessions)}, cfgctl runs {spread(runs)}")


def inside(size):
    global snapshot  # the counts the callback records, read the same way here
    sys.path.insert(0, os.path.join(PLAYS, "callback_plugins"))
    from fleet_counts import snapshot  # pylint: disable=import-outside-toplevel
    inventory = os.environ["CFGD_FLEET_INVENTORY"]
    work = os.path.join(os.environ["CFGD_FLEET_DIR"], "bench")
    os.makedirs(work, exist_ok=True)
    forks = ["-f", str(size)]
    raw = ["ansible", "-i", inventory, "gateways", "-m", "raw", "-a", "true"] + forks
    runs = [
        ("raw", raw),
        ("(a) facts", ["ansible-playbook", "-i", inventory, os.path.join(PLAYS, "facts.yml")]
         + forks),
        ("(b) change", ["ansible-playbook", "-i", inventory, os.path.join(PLAYS, "change.yml")]
         + forks),
        ("(c) again", ["ansible-playbook", "-i", inventory, os.path.join(PLAYS, "change.yml")]
         + forks),
        ("raw again", raw),  # the first one may still share the machine with the start-up
    ]
    print(f"fleet of {size} devices, forks {size}; logs in {work} (inside the fleet)")
    times = {}
    for label, command in runs:
        name = label.replace(" ", "-").replace("(", "").replace(")", "")
        status, seconds, marks = run(name, command, work)
        times[label] = seconds
        report(label, command, status, seconds, marks, os.path.join(work, name + ".log"))
    raw_seconds = min(times["raw"], times["raw again"])
    print(f"(c) / raw (the faster raw): {times['(c) again'] / raw_seconds:.2f} (target: at most 2);"
          " params per device: target at most 2 sessions, 1 when nothing changes")
    return 0


def main(argv):
    if argv[:1] == ["--inside"]:
        return inside(int(argv[1]))
    return outside([int(a) for a in argv] or [10, 50])


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
