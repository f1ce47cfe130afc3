#!/usr/bin/python3
"""Commit check of a fully configured element against libyang alone.

Generates the element (bench/commit/element.py) with N L3 interfaces, then
runs, interleaved and repeated, one ipapp-check process (JSON output) and the
floor: yanglint -t config on the running file and on the candidate file. CPU
time (user + system) and peak resident memory come from each child's rusage;
the figures are medians over the repetitions.

  bench/commit/commit_bench.py [--interfaces N] [--ospf-areas A] [--repeat R] [--build DIR]
  bench/commit/commit_bench.py --growth [--table FILE] [--data FILE]

The first form measures one element. --growth measures 16, 64, 256 and 1024
interfaces with --keep-going (beyond 256 interfaces the first validation
refuses the commit and would end it), then the element at its limits with
twice the OSPF rows per interface (every OSPF interface in two areas), and
writes a Markdown table and a data file of the first four for
bench/commit/plot_growth.sh.

Targets: CPU time at most 1.5 times the floor (1.6 times with more than one
OSPF area), peak RSS at most 2 times one yanglint run. Every ratio is printed
beside its target, then "every target met" or the ones missed; the exit
status is 1 when one is missed.
"""

import argparse
import os
import shutil
import statistics
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, HERE)

import element  # noqa: E402

GROWTH_SIZES = (16, 64, 256, 1024)
LIMITS = 256  # L3 interfaces of the element at its limits


def targets(ospf_areas):
    """CPU target (ipapp-check CPU / (yanglint running + yanglint candidate))
    and RSS target (ipapp-check peak RSS / one yanglint run's peak RSS)."""
    return (1.5 if ospf_areas == 1 else 1.6), 2.0


def run(launcher, argv):
    """CPU seconds (user + system) and peak RSS in KiB of one command."""
    proc = subprocess.run(
        [launcher] + argv, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False
    )
    lines = proc.stderr.decode(errors="replace").splitlines()
    if proc.returncode != 0 or not lines or not lines[-1].startswith("measured_run: "):
        sys.exit("commit_bench: %s failed\n%s" % (argv[0], "\n".join(lines)))
    code, user, system, rss = lines[-1].split()[1:]
    if int(code) not in (0, 1):  # ipapp-check: 1 is a refused commit
        sys.exit("commit_bench: %s exited with %s\n%s" % (argv[0], code, "\n".join(lines)))
    return float(user) + float(system), int(rss)


class Bench:
    def __init__(self, build, workdir):
        self.check = os.path.join(build, "tools", "ipapp-check")
        # Commands start from this small launcher: a child of the Python
        # interpreter would count the interpreter's memory as its own.
        self.launcher = os.path.join(build, "bench", "commit", "measured_run")
        for path in (self.check, self.launcher):
            if not os.access(path, os.X_OK):
                sys.exit("commit_bench: %s not built" % path)
        self.yanglint = shutil.which("yanglint") or sys.exit("commit_bench: no yanglint")
        self.yang = sorted(
            os.path.join(ROOT, "yang", f) for f in os.listdir(os.path.join(ROOT, "yang"))
        )
        self.workdir = workdir

    def measure(self, n, repeat, keep_going, ospf_areas=1):
        running = os.path.join(self.workdir, "running-%d-%d.xml" % (n, ospf_areas))
        candidate = os.path.join(self.workdir, "candidate-%d-%d.xml" % (n, ospf_areas))
        element.write(n, running, candidate, ospf_areas=ospf_areas)
        base = [self.check, "--running", running, "--candidate", candidate]
        if keep_going:
            base.append("--keep-going")
        check = base + ["--format", "json"]
        lint = [self.yanglint, "-t", "config"] + self.yang
        samples = {"check_cpu": [], "check_rss": [], "floor_cpu": [], "lint_rss": []}
        run(self.launcher, check)  # warm the page cache and the dynamic loader
        for _ in range(repeat):
            cpu, rss = run(self.launcher, check)
            samples["check_cpu"].append(cpu)
            samples["check_rss"].append(rss)
            cpu_r, rss_r = run(self.launcher, lint + [running])
            cpu_c, rss_c = run(self.launcher, lint + [candidate])
            samples["floor_cpu"].append(cpu_r + cpu_c)
            samples["lint_rss"].append(max(rss_r, rss_c))
        m = {k: statistics.median(v) for k, v in samples.items()}
        m["calls"] = self.calls(base)
        m["n"] = n
        m["ospf_areas"] = ospf_areas
        m["size_kb"] = os.path.getsize(running) / 1000.0
        m["cpu_ratio"] = m["check_cpu"] / m["floor_cpu"]
        m["rss_ratio"] = m["check_rss"] / m["lint_rss"]
        m["cpu_target"], m["rss_target"] = targets(ospf_areas)
        return m

    def calls(self, base):
        """Data-store calls of one commit, counted in its --trace output."""
        # Recording every call is slow on a loaded machine: no time limit.
        proc = subprocess.run(
            base + ["--format", "text", "--trace", "--timeout", "86400"],
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            check=False,
        )
        if proc.returncode not in (0, 1):
            sys.exit("commit_bench: %s --trace failed\n%s" % (base[0], proc.stderr.decode(errors="replace")))
        out = proc.stdout
        count = 0
        for line in out.splitlines():
            if not line.startswith(b"  "):
                continue
            if line.startswith(b"  (trace full)"):  # "... (N calls not recorded)"
                count += int(line.rsplit(b"(", 1)[1].split()[0])
            else:
                count += 1
        return count


def fit_quadratic(xs, ys):
    """Least-squares a, b, c of y = a + b x + c x^2."""
    rows = [[sum(x ** (i + j) for x in xs) for j in range(3)] for i in range(3)]
    rhs = [sum(y * x ** i for x, y in zip(xs, ys)) for i in range(3)]
    for col in range(3):  # Gauss-Jordan elimination
        pivot = max(range(col, 3), key=lambda r: abs(rows[r][col]))
        rows[col], rows[pivot] = rows[pivot], rows[col]
        rhs[col], rhs[pivot] = rhs[pivot], rhs[col]
        for r in range(3):
            if r != col:
                f = rows[r][col] / rows[col][col]
                rows[r] = [a - f * b for a, b in zip(rows[r], rows[col])]
                rhs[r] -= f * rhs[col]
    return [rhs[i] / rows[i][i] for i in range(3)]


def describe_fit(name, unit, coeffs):
    a, b, c = coeffs
    return "%s ~ %.3g %s + %.3g %s * n + %.3g %s * n^2" % (name, a, unit, b, unit, c, unit)


def shape(m):
    """The element's name in reports: its L3 interfaces, and its OSPF areas when more than one."""
    if m["ospf_areas"] == 1:
        return "%d L3" % m["n"]
    return "%d L3, OSPF rows x%d" % (m["n"], m["ospf_areas"])


def verdicts(rows):
    """One line per ratio with its target, then the summary; whether every target was met."""
    lines, missed = [], []
    for m in rows:
        for what, ratio, target in (
            ("CPU", m["cpu_ratio"], m["cpu_target"]),
            ("RSS", m["rss_ratio"], m["rss_target"]),
        ):
            ok = ratio <= target
            lines.append(
                "%-22s %s ratio %.3f (target <= %.1f) %s"
                % (shape(m) + ":", what, ratio, target, "ok" if ok else "MISSED")
            )
            if not ok:
                missed.append("%s %s %.3f > %.1f" % (shape(m), what, ratio, target))
    if missed:
        lines.append("targets missed: " + "; ".join(missed))
    else:
        lines.append("every target met")
    return lines, not missed


def growth_table(rows):
    table = [
        "| L3 interfaces | OSPF rows | file | ipapp-check CPU | yanglint x2 CPU | CPU ratio (target) "
        "| ipapp-check peak RSS | yanglint peak RSS | RSS ratio (target) | store calls |",
        "|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|",
    ]
    for m in rows:
        table.append(
            "| %d | %d | %.0f KB | %.1f ms | %.1f ms | %.2f (≤ %.1f) | %.1f MB | %.1f MB "
            "| %.2f (≤ %.1f) | %d |"
            % (
                m["n"],
                element.ospf_rows(m["n"], m["ospf_areas"]),
                m["size_kb"],
                1000 * m["check_cpu"],
                1000 * m["floor_cpu"],
                m["cpu_ratio"],
                m["cpu_target"],
                m["check_rss"] / 1024.0,
                m["lint_rss"] / 1024.0,
                m["rss_ratio"],
                m["rss_target"],
                m["calls"],
            )
        )
    return table


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--interfaces", type=int, default=LIMITS, help="L3 interfaces (multiple of 4)")
    parser.add_argument(
        "--ospf-areas", type=int, default=1, help="areas per OSPF interface (1 to 4), one row each"
    )
    parser.add_argument("--repeat", type=int, default=9, help="interleaved repetitions")
    parser.add_argument("--build", default=os.path.join(ROOT, "build"), help="build directory")
    parser.add_argument("--keep-going", action="store_true", help="pass --keep-going")
    parser.add_argument(
        "--growth", action="store_true", help="16, 64, 256 and 1024 interfaces, and 256 with two areas"
    )
    parser.add_argument("--table", help="--growth: write the Markdown table here")
    parser.add_argument("--data", help="--growth: write the plot data here")
    args = parser.parse_args()
    if args.interfaces < 4 or args.interfaces % 4 or args.interfaces > 1024:
        parser.error("--interfaces must be a multiple of 4 from 4 to 1024")
    if not 1 <= args.ospf_areas <= 4:
        parser.error("--ospf-areas must be from 1 to 4")
    if args.repeat < 1:
        parser.error("--repeat must be at least 1")

    with tempfile.TemporaryDirectory(prefix="commit_bench.") as workdir:
        bench = Bench(args.build, workdir)
        if args.growth:
            rows = [bench.measure(n, args.repeat, True) for n in GROWTH_SIZES]
            second = bench.measure(LIMITS, args.repeat, True, ospf_areas=2)
            table = growth_table(rows + [second])
            ns = [m["n"] for m in rows]
            fits = [
                describe_fit(
                    "ipapp-check CPU", "ms", fit_quadratic(ns, [1000 * m["check_cpu"] for m in rows])
                ),
                describe_fit(
                    "floor CPU", "ms", fit_quadratic(ns, [1000 * m["floor_cpu"] for m in rows])
                ),
                describe_fit("store calls", "", fit_quadratic(ns, [m["calls"] for m in rows])),
            ]
            table.append("")
            table += ["%s" % f for f in fits]
            text = "\n".join(table) + "\n"
            sys.stdout.write(text)
            if args.table:
                with open(args.table, "w") as f:
                    f.write(text)
            if args.data:
                with open(args.data, "w") as f:
                    f.write("# n check_cpu_ms floor_cpu_ms check_rss_mb lint_rss_mb calls\n")
                    for m in rows:
                        f.write(
                            "%d %.2f %.2f %.2f %.2f %d\n"
                            % (
                                m["n"],
                                1000 * m["check_cpu"],
                                1000 * m["floor_cpu"],
                                m["check_rss"] / 1024.0,
                                m["lint_rss"] / 1024.0,
                                m["calls"],
                            )
                        )
            lines, ok = verdicts(rows + [second])
            print("\nmedians of %d interleaved runs:" % args.repeat)
            print("\n".join(lines))
            return 0 if ok else 1

        m = bench.measure(args.interfaces, args.repeat, args.keep_going, args.ospf_areas)
        print(
            "element: %d L3 interfaces, %d OSPF rows, %.0f KB per file"
            % (m["n"], element.ospf_rows(m["n"], m["ospf_areas"]), m["size_kb"])
        )
        print(
            "CPU time (median of %d): ipapp-check %.1f ms, yanglint running + candidate %.1f ms"
            % (args.repeat, 1000 * m["check_cpu"], 1000 * m["floor_cpu"])
        )
        print(
            "peak RSS (median of %d): ipapp-check %.1f MB, one yanglint run %.1f MB"
            % (args.repeat, m["check_rss"] / 1024.0, m["lint_rss"] / 1024.0)
        )
        print("data-store calls of the commit: %d" % m["calls"])
        lines, ok = verdicts([m])
        print("\n".join(lines))
        return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
