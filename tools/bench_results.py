"""Results of the benchmark programs: read, summed up, compared."""

import re
import statistics

# What the contestants of a case are called; anything else in its place is one, too.
OURS = "ksomd"
PEERS = {"C", "libc", "gcc", "llvm", "clang", "mimalloc", "gfortran", "gfortran_inline",
         "gfortran_native", "openblas", "blis"}
CEILING = re.compile(r"^bare|^limit")
# What Google Benchmark adds to a name.
SUFFIX = re.compile(r"^(manual_time|real_time|process_time|\w+:[\d.]+)$")


class Key:
    """A benchmark's name taken apart: case, size (or None), contestant."""

    def __init__(self, name):
        parts = [part for part in name.split("/") if not SUFFIX.match(part)]
        known = [p for p in parts[1:] if p == OURS or p in PEERS or CEILING.match(p)]
        words = [p for p in parts if not p.isdigit()]
        numbers = [p for p in parts if p.isdigit()]
        self.contestant = known[-1] if known else words[-1]
        self.size = int(numbers[-1]) if numbers else None
        kept = list(reversed(parts))
        for taken in (self.contestant, *numbers[-1:]):
            kept.remove(taken)
        self.case = "/".join(reversed(kept))


class Series:
    """One benchmark: its repetitions, in nanoseconds for each operation, and the work of one."""

    def __init__(self, part, name):
        self.part, self.name, self.key = part, name, Key(name)
        self.times, self.bytes, self.flops = [], None, None
        self.slowest_cells = []  # of a grid: (times the median cell, offset, distance)

    @property
    def median(self):
        return statistics.median(self.times)

    @property
    def spread(self):
        """Half the distance between the quartiles, relative to the median."""
        if len(self.times) < 2:
            return 0.0
        low, _, high = statistics.quantiles(self.times, n=4, method="inclusive")
        return (high - low) / 2 / self.median

    @property
    def slowest_cell(self):
        """The cell that is the slowest of its size: in the repetition in which it is the least so,
        since what disturbs a run makes cells slower, never faster."""
        return min(self.slowest_cells)

    def rate(self):
        """(value, unit) as it is shown."""
        if self.bytes:
            return self.bytes / self.median, "GB/s"
        if self.flops:
            return self.flops / self.median, "GFLOP/s"
        return self.median, "ns"


SCALE = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


def read_google(part, document):
    found = {}
    for run in document.get("benchmarks", []):
        if run.get("run_type") == "aggregate" or run.get("error_occurred"):
            continue
        name = run.get("run_name", run["name"])
        series = found.setdefault(name, Series(part, name))
        clock = "real_time" if "manual_time" in name or "/real_time" in name else "cpu_time"
        nanoseconds = run[clock] * SCALE[run["time_unit"]]
        if "per_call" in run:
            nanoseconds = run["per_call"] * 1e9
        if nanoseconds <= 0:
            continue
        if "bytes_per_second" in run and "per_call" not in run:
            series.bytes = run["bytes_per_second"] * run["cpu_time"] * SCALE[run["time_unit"]] * 1e-9
        if "slowest_cell" in run:
            series.slowest_cells.append(
                (run["slowest_cell"], int(run["offset"]), int(run["distance"])))
        if "GFLOP/s" in run:
            series.flops = run["GFLOP/s"] * nanoseconds
        series.times.append(nanoseconds)
    return [s for s in found.values() if s.times]


def read(results):
    """All series of a results file, by (part, name)."""
    series = []
    for part, document in results["parts"].items():
        series += read_google(part, document)
    return {(s.part, s.name): s for s in series}


# A difference counts from this share on, or from three times both spreads.
LEAST_CHANGE = 0.05


def compare(old, new):
    """(slower, faster, unchanged count): lists of (change, old series, new series)."""
    slower, faster, unchanged = [], [], 0
    for name in old.keys() & new.keys():
        before, after = old[name], new[name]
        if before.key.contestant != OURS:
            continue
        change = after.median / before.median - 1
        noise = max(LEAST_CHANGE, 3 * (before.spread + after.spread))
        if change > noise:
            slower.append((change, before, after))
        elif change < -noise / (1 + noise):
            faster.append((change, before, after))
        else:
            unchanged += 1
    return sorted(slower, key=lambda c: -c[0]), sorted(faster, key=lambda c: c[0]), unchanged
