#!/usr/bin/python3
"""A fleet checked before a roll-out: ipapp-check --batch against one process per element.

Generates a fleet directory (one sub-directory per element, running.xml and
candidate.xml, the shape of bench/commit/element.py; the candidate is the
running configuration with one change): SMALL elements of 16 L3 interfaces and
LIMITS elements at the element's limits (256). For each kind it runs, on
--jobs processes at a time (default 2), interleaved and repeated:

  batch    ipapp-check --batch DIR -j JOBS --format json
  single   ipapp-check --running R --candidate C --format json, once per
           element, under xargs -P JOBS
  floor    yanglint -t config on each running and each candidate file, under
           xargs -P JOBS (two runs per element)
  bound    process_bound JOBS DIR: the batch's processes without their
           commits (each element's process reads and parses its two files
           and ends), the most a batch with a process per element could do
           here

and prints the element rates (elements per second of wall time), their ratios
beside the targets, and the peak memory of the batch's process tree against
JOBS times that of one single check (proportional set size, so that pages the
processes share count once; sampled in runs of their own, which are not
timed: walking /proc takes a good part of a core). Exits 1 when a target is
missed.

  bench/fleet/fleet_bench.py [--quick] [--repeat R] [--jobs N] [--build DIR]

--quick checks 100 small elements and 10 at the limits instead of 1,000 and
100.
"""

import argparse
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(ROOT, "bench", "commit"))

import element  # noqa: E402

BATCH_OVER_SINGLE_SMALL = 3.0
BATCH_OVER_FLOOR_SMALL = 2.0
BATCH_OVER_SINGLE_LIMITS = 1.0


def make_fleet(directory, count, interfaces):
    """count element directories whose files are links to one generated pair."""
    os.makedirs(directory)
    running = os.path.join(directory, "running.source")
    candidate = os.path.join(directory, "candidate.source")
    element.write(interfaces, running, candidate)
    for i in range(count):
        d = os.path.join(directory, "element-%04d" % i)
        os.mkdir(d)
        os.link(running, os.path.join(d, "running.xml"))
        os.link(candidate, os.path.join(d, "candidate.xml"))
    return sorted(os.path.join(directory, e) for e in os.listdir(directory) if e.startswith("element-"))


def tree_pss_kib(root_pid):
    """Proportional set size of a process and all its descendants, in KiB."""
    children = {}
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open("/proc/%s/stat" % entry) as f:
                ppid = int(f.read().rsplit(")", 1)[1].split()[1])
        except (OSError, ValueError, IndexError):
            continue
        children.setdefault(ppid, []).append(int(entry))
    total = 0
    todo = [root_pid]
    while todo:
        pid = todo.pop()
        todo.extend(children.get(pid, []))
        try:
            with open("/proc/%d/smaps_rollup" % pid) as f:
                for line in f:
                    if line.startswith("Pss:"):
                        total += int(line.split()[1])
                        break
        except OSError:
            pass
    return total


def timed(argv, stdin=None, sample_every=None):
    """Wall seconds of a command, and the peak PSS of its process tree when sampled."""
    start = time.monotonic()
    proc = subprocess.Popen(argv, stdin=stdin, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    peak = [0]
    stop = threading.Event()

    def sample():
        while not stop.is_set():
            peak[0] = max(peak[0], tree_pss_kib(proc.pid))
            stop.wait(sample_every)

    sampler = None
    if sample_every:
        sampler = threading.Thread(target=sample)
        sampler.start()
    _, err = proc.communicate()
    seconds = time.monotonic() - start
    if sampler:
        stop.set()
        sampler.join()
    if proc.returncode not in (0, 1):  # 1: a refusal somewhere, or xargs passing it on
        sys.exit("fleet_bench: %s exited with %d\n%s" % (argv[0], proc.returncode, err.decode()))
    return seconds, peak[0]


class Bench:
    def __init__(self, build, jobs):
        self.check = os.path.join(build, "tools", "ipapp-check")
        if not os.access(self.check, os.X_OK):
            sys.exit("fleet_bench: %s not built" % self.check)
        self.yanglint = shutil.which("yanglint") or sys.exit("fleet_bench: no yanglint")
        self.xargs = shutil.which("xargs") or sys.exit("fleet_bench: no xargs")
        self.yang = sorted(
            os.path.join(ROOT, "yang", f)
            for f in os.listdir(os.path.join(ROOT, "yang"))
            if f.endswith(".yang")
        )
        self.bound_tool = os.path.join(build, "bench", "fleet", "process_bound")
        if not os.access(self.bound_tool, os.X_OK):
            sys.exit("fleet_bench: %s not built" % self.bound_tool)
        self.jobs = jobs

    def batch(self, fleet, sample_every):
        return timed(
            [self.check, "--batch", fleet, "-j", str(self.jobs), "--format", "json"],
            sample_every=sample_every,
        )

    def bound(self, fleet):
        return timed([self.bound_tool, str(self.jobs), fleet, os.path.join(ROOT, "yang")])[0]

    def single(self, elements):
        listing = "".join(e + "\n" for e in elements).encode()
        argv = [self.xargs, "-P", str(self.jobs), "-I", "{}", self.check, "--running",
                "{}/running.xml", "--candidate", "{}/candidate.xml", "--format", "json"]
        return self._with_input(argv, listing)

    def floor(self, elements):
        files = []
        for e in elements:
            files += [os.path.join(e, "running.xml"), os.path.join(e, "candidate.xml")]
        listing = "".join(f + "\n" for f in files).encode()
        argv = [self.xargs, "-P", str(self.jobs), "-I", "{}", self.yanglint, "-t", "config"]
        return self._with_input(argv + self.yang + ["{}"], listing)

    def single_peak(self, one_element, repeat):
        """Peak PSS of one single check's process tree (sampled often)."""
        argv = [self.check, "--running", os.path.join(one_element, "running.xml"), "--candidate",
                os.path.join(one_element, "candidate.xml"), "--format", "json"]
        return max(timed(argv, sample_every=0.002)[1] for _ in range(repeat))

    @staticmethod
    def _with_input(argv, data):
        with tempfile.TemporaryFile() as f:
            f.write(data)
            f.seek(0)
            return timed(argv, stdin=f)[0]

    def measure(self, fleet, elements, repeat):
        # Warms the page cache and takes the batch's peak memory: the sampler
        # costs a good part of a core, so the timed runs go without it.
        batch_pss = self.batch(fleet, 0.005)[1]
        samples = {"batch": [], "single": [], "floor": [], "bound": []}
        for _ in range(repeat):
            samples["batch"].append(len(elements) / self.batch(fleet, None)[0])
            samples["bound"].append(len(elements) / self.bound(fleet))
            samples["single"].append(len(elements) / self.single(elements))
            samples["floor"].append(len(elements) / self.floor(elements))
        m = {k: statistics.median(v) for k, v in samples.items()}
        m["batch_pss"] = batch_pss
        m["single_pss"] = self.single_peak(elements[0], 5)
        m["count"] = len(elements)
        return m


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--quick", action="store_true", help="100 small and 10 limit elements")
    parser.add_argument("--repeat", type=int, default=3, help="interleaved repetitions")
    parser.add_argument("--jobs", type=int, default=2, help="processes at a time")
    parser.add_argument("--build", default=os.path.join(ROOT, "build"), help="build directory")
    args = parser.parse_args()
    small, limits = (100, 10) if args.quick else (1000, 100)

    bench = Bench(args.build, args.jobs)
    work = tempfile.mkdtemp(prefix="fleet-bench-")
    missed = []
    try:
        print("%d processes at a time, medians of %d runs" % (args.jobs, args.repeat))
        print("| elements | batch | one process per element | floor (yanglint x2) "
              "| batch / single | batch / floor | batch peak PSS | %d x single check's "
              "| bound | bound / single | bound / floor |" % args.jobs)
        print("|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|")
        for label, count, interfaces, targets in (
            ("small", small, 16, (BATCH_OVER_SINGLE_SMALL, BATCH_OVER_FLOOR_SMALL)),
            ("limits", limits, 256, (BATCH_OVER_SINGLE_LIMITS, None)),
        ):
            fleet = os.path.join(work, label)
            elements = make_fleet(fleet, count, interfaces)
            m = bench.measure(fleet, elements, args.repeat)
            over_single = m["batch"] / m["single"]
            over_floor = m["batch"] / m["floor"]
            bound = args.jobs * m["single_pss"]
            print("| %d x %d L3 | %.1f/s | %.1f/s | %.1f/s | %.2f | %.2f | %.1f MB | %.1f MB "
                  "| %.1f/s | %.2f | %.2f |" % (
                      count, interfaces, m["batch"], m["single"], m["floor"], over_single,
                      over_floor, m["batch_pss"] / 1024.0, bound / 1024.0, m["bound"],
                      m["bound"] / m["single"], m["bound"] / m["floor"]))
            sys.stdout.flush()
            if over_single < targets[0]:
                missed.append("%s: batch / single %.2f < %.1f" % (label, over_single, targets[0]))
            if targets[1] is not None and over_floor < targets[1]:
                missed.append("%s: batch / floor %.2f < %.1f" % (label, over_floor, targets[1]))
            if m["batch_pss"] > bound:
                missed.append("%s: batch peak PSS above %d single checks'" % (label, args.jobs))
            shutil.rmtree(fleet)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    print("targets: batch >= %.0fx one process per element and >= %.0fx the floor (small), "
          ">= 1x one process per element (limits), peak memory <= %d single checks'"
          % (BATCH_OVER_SINGLE_SMALL, BATCH_OVER_FLOOR_SMALL, args.jobs))
    for line in missed:
        print("missed: " + line)
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
