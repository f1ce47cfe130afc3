#!/usr/bin/python3
"""A commit of the element at its limits through NETCONF, with and without
the plug-in's check.

Starts two ipapp-netconfd servers seeded with the element's running
configuration (bench/commit/element.py, 256 L3 interfaces by default): one
checks every commit with the plug-in in a child process, the other
(--no-check) is netconfd alone. Each repetition, on each server in turn,
edits the candidate into the element's candidate configuration and times
the <commit>, then edits it back and times that <commit> too; ipapp-check
runs on the same pair. Wall time, and CPU time (user + system) of netconfd
with the children it reaped (the plug-in's process) or of ipapp-check with
its child: on a shared machine the wall times also count the waits for a
core. Medians over the repetitions; the targets apply to CPU time.

  bench/commit/netconfd_bench.py [--interfaces N] [--repeat R] [--build DIR]

Run as a user who may start sshd (root, or the user whose DIR it is) with
Debian's ncclient. Exits 1 when a target is missed: the checked commit at
most 2 times netconfd's own and at most 0.5 s above ipapp-check.
"""

import argparse
import os
import resource
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, HERE)
sys.path.insert(0, os.path.join(ROOT, "tests", "netconfd"))

import element  # noqa: E402
from server import Server, config, processes_mentioning  # noqa: E402

RATIO_TARGET = 2.0
EXTRA_TARGET = 0.5  # seconds above ipapp-check


TICK = os.sysconf("SC_CLK_TCK")


def netconfd_pid(server):
    for pid in processes_mentioning(server.dir):
        with open(f"/proc/{pid}/cmdline", "rb") as f:
            if f.read().split(b"\0")[0].endswith(b"/netconfd"):
                return pid
    sys.exit("netconfd_bench: no netconfd for " + server.dir)


def stat_of(pid):
    with open(f"/proc/{pid}/stat") as f:
        return f.read().rsplit(")", 1)[1].split()


def children_of(pid):
    """Live children of pid."""
    children = []
    for name in os.listdir("/proc"):
        if name.isdigit():
            try:
                fields = stat_of(int(name))
            except OSError:
                continue
            if int(fields[1]) == pid and fields[0] != "Z":
                children.append(int(name))
    return children


def cpu_of(pid):
    """CPU seconds of pid and of the children it has waited for, and of the
    commit runner it started (which has waited for the commits' processes)."""
    total = 0
    for p in [pid] + children_of(pid):
        total += sum(int(x) for x in stat_of(p)[11:15])
    return total / TICK


def timed_commit(session, pid, text):
    session.edit_config(target="candidate", config=config(text))
    cpu = cpu_of(pid)
    began = time.monotonic()
    session.commit()
    return time.monotonic() - began, cpu_of(pid) - cpu


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--interfaces", type=int, default=256)
    parser.add_argument("--repeat", type=int, default=5)
    parser.add_argument("--build", default=os.path.join(ROOT, "build"))
    args = parser.parse_args()
    launcher = os.path.join(args.build, "tools", "netconfd", "ipapp-netconfd")
    check = os.path.join(args.build, "tools", "ipapp-check")

    with tempfile.TemporaryDirectory(prefix="netconfd_bench.") as work:
        running = os.path.join(work, "running.xml")
        candidate = os.path.join(work, "candidate.xml")
        element.write(args.interfaces, running, candidate)
        texts = []
        for path in (candidate, running):
            with open(path) as f:
                texts.append(f.read())
        servers = {}
        try:
            for name, extra in (("checked", []), ("netconfd", ["--no-check"])):
                servers[name] = Server(launcher, args=["--running", running] + extra)
            sessions = {name: (s.connect(), netconfd_pid(s)) for name, s in servers.items()}
            times = {"checked": [], "netconfd": [], "ipapp-check": []}
            cpus = {"checked": [], "netconfd": [], "ipapp-check": []}
            for _ in range(args.repeat):
                for name, (session, pid) in sessions.items():
                    for text in texts:
                        wall, cpu = timed_commit(session, pid, text)
                        times[name].append(wall)
                        cpus[name].append(cpu)
                usage = resource.getrusage(resource.RUSAGE_CHILDREN)
                began = time.monotonic()
                subprocess.run([check, "--running", running, "--candidate", candidate],
                               stdout=subprocess.DEVNULL, check=True)
                times["ipapp-check"].append(time.monotonic() - began)
                after = resource.getrusage(resource.RUSAGE_CHILDREN)
                cpus["ipapp-check"].append(after.ru_utime + after.ru_stime
                                           - usage.ru_utime - usage.ru_stime)
            for session, _ in sessions.values():
                session.close_session()
        finally:
            for server in servers.values():
                server.stop()

    m = {k: statistics.median(v) for k, v in times.items()}
    c = {k: statistics.median(v) for k, v in cpus.items()}
    print("%d L3 interfaces, median of %d        wall      CPU" % (args.interfaces, args.repeat))
    for name, label in (("checked", "commit, plug-in isolated"),
                        ("netconfd", "commit, netconfd alone  "),
                        ("ipapp-check", "ipapp-check, same pair  ")):
        print("  %s  %.3f s  %.3f s" % (label, m[name], c[name]))
    ok = True
    for label, d in (("wall", m), ("CPU", c)):
        ratio = d["checked"] / d["netconfd"]
        extra = d["checked"] - d["ipapp-check"]
        print("  %s: ratio %.2f (target <= %.1f), above ipapp-check %.3f s (target <= %.1f s)"
              % (label, ratio, RATIO_TARGET, extra, EXTRA_TARGET))
        if d is c:
            ok = ratio <= RATIO_TARGET and extra <= EXTRA_TARGET
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
