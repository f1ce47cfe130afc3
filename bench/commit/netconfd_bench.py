#!/usr/bin/python3
"""A commit of the element at its limits through NETCONF, with and without
the plug-in's check.

Starts two ipapp-netconfd servers seeded with the element's running
configuration (bench/commit/element.py, 256 L3 interfaces by default): one
checks every commit with the plug-in in a child process, the other
(--no-check) is netconfd alone. Each repetition, on each server in turn,
edits the candidate into the element's candidate configuration and times
the <commit>, then edits it back and times that <commit> too; ipapp-check
runs on the same pair. Wall times, medians over the repetitions.

  bench/commit/netconfd_bench.py [--interfaces N] [--repeat R] [--build DIR]

Run as a user who may start sshd (root, or the user whose DIR it is) with
Debian's ncclient. Exits 1 when a target is missed: the checked commit at
most 2 times netconfd's own and at most 0.5 s above ipapp-check.
"""

import argparse
import os
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
from server import Server, config  # noqa: E402

RATIO_TARGET = 2.0
EXTRA_TARGET = 0.5  # seconds above ipapp-check


def timed_commit(session, text):
    session.edit_config(target="candidate", config=config(text))
    began = time.monotonic()
    session.commit()
    return time.monotonic() - began


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
            sessions = {name: s.connect() for name, s in servers.items()}
            times = {"checked": [], "netconfd": [], "ipapp-check": []}
            for _ in range(args.repeat):
                for name, session in sessions.items():
                    for text in texts:
                        times[name].append(timed_commit(session, text))
                began = time.monotonic()
                subprocess.run([check, "--running", running, "--candidate", candidate],
                               stdout=subprocess.DEVNULL, check=True)
                times["ipapp-check"].append(time.monotonic() - began)
            for session in sessions.values():
                session.close_session()
        finally:
            for server in servers.values():
                server.stop()

    m = {k: statistics.median(v) for k, v in times.items()}
    ratio = m["checked"] / m["netconfd"]
    extra = m["checked"] - m["ipapp-check"]
    print("%d L3 interfaces, median of %d" % (args.interfaces, args.repeat))
    print("  commit, plug-in isolated:  %.3f s" % m["checked"])
    print("  commit, netconfd alone:    %.3f s" % m["netconfd"])
    print("  ipapp-check, same pair:    %.3f s" % m["ipapp-check"])
    print("  ratio %.2f (target <= %.1f), above ipapp-check %.3f s (target <= %.1f s)"
          % (ratio, RATIO_TARGET, extra, EXTRA_TARGET))
    return 0 if ratio <= RATIO_TARGET and extra <= EXTRA_TARGET else 1


if __name__ == "__main__":
    sys.exit(main())
