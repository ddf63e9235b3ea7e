#!/usr/bin/env python3
"""Runs the benchmarks, keeps their raw results, and writes docs/benchmarks.md from them.

usage: bench_report.py [--quick] [--compare OLD.json] [--report RESULTS.json] [PART ...]

Contestants alternate within one run (random interleaving of the repetitions); medians and spreads
are kept. Raw results go to build/bench/results.json. With --compare, what became slower or faster
than in OLD.json by more than the noise is told, and no page is written. --report runs nothing: it
writes the page from earlier results. --quick ends within two minutes, and writes no page.
"""

import argparse
import datetime
import json
import os
import pathlib
import re
import subprocess
import sys
import time

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).parent))
import bench_results  # noqa: E402
from bench_results import OURS  # noqa: E402

PROGRAMS = pathlib.Path("build/bench/bench")
RESULTS = pathlib.Path("build/bench/results.json")
PAGE = pathlib.Path("docs/benchmarks.md")
PLOTS = pathlib.Path("docs/benchmarks")

# A complete run goes through all parts in rounds: neighbours on the machine disturb it for seconds
# at a time, which is then one round of a benchmark.
ROUNDS = 2
# What a part runs in a round: (which benchmarks, repetitions of each, rough seconds). Large matrices
# take seconds a product with the slower contestants, so that fewer are multiplied.
FULL = {
    "matmul": [("ceiling|/([2-9]|12|16|24|32|48|64)/", 3, 40),
               ("_n_n/(128|256|512)/|_(n_t|t_n|t_t)/(128|256)/", 2, 45),
               ("_(n_t|t_n|t_t)/512/(ksomd|openblas|blis|gfortran_native)/", 1, 15),
               ("_n_n/1024/", 1, 40), ("r8_n_n/2048/(ksomd|openblas|blis)/", 1, 8)],
    "mem": [("^(mix|size|bulk)/", 3, 40), ("^grid/", 1, 35)],
    "": [("", 3, 50)],
}
QUICK = {
    "matmul": [("ceiling|_n_n/(8|64|256)/(ksomd|openblas|blis|gfortran_native)/", 3, 14)],
    "vec": [("fold/(i32|f32|f64)/.*/1000/|divide|convert", 3, 14)],
    "mem": [("^(mix|size|bulk)/", 3, 14)],
    "": [("", 3, 14)],
}

TITLES = {"mem": "Memory", "quad": "Quad precision", "matmul": "Matrix products",
          "vec": "Vectorised loops", "pool": "Pools"}
FAMILIES = {"quad": [("(add|sub|mul|div)/", "arithmetic"), ("(to|from)_", "conversions"),
                     ("", "comparisons")],
            "matmul": [(r"(r4|r8|c4|c8)_", r"\1"), ("ceiling", "the processor's limits")],
            "vec": [(r"fold/(\w+)", r"folds of \1"), ("strided", "strided folds")],
            "pool": [("", "allocate and free")]}
VERSIONS = {"clang": ["clang++-22", "--version"], "gcc": ["g++", "--version"],
            "gfortran": ["gfortran", "--version"], "C library": ["ldd", "--version"]}
PACKAGES = ["libopenblas0-serial", "libblis4-serial", "libmimalloc2.0", "libbenchmark1debian"]
# What a program tells of the kernels that its contestants were made to use.
KERNELS = ["ksomd kernels", "openblas", "blis"]
LEGENDS = {
    "matmul": "Square matrices on one thread; the name tells the operands' type and layouts. "
              "`ksomd_avx`, `ksomd_baseline`: with the wider kernels switched off; "
              "`ksomd_portable`: the portable kernels, which pack nothing on the heap. The Fortran "
              "compiler at -O3: `gfortran` calls its run-time library, whose kernels fuse and "
              "follow the processor; `gfortran_inline` is inlined and baseline; `gfortran_native` "
              "is inlined for this processor. The BLAS libraries fuse. `loop`: the plain loop "
              "nest.",
    "mem": "`variant`: called by its own name, without the dispatch; `generic`, `server`: other "
           "variants. Distances are in bytes.",
    "pool": "ns for the allocation and the release of a block.",
    "quad": "`chain`: each operation waits for the one before it; `near`, `far`: exponents of "
            "random operands.",
    "vec": "`clang`, `gcc`: the plain loop at -O3 for the baseline; `library`: the C++ library's "
           "sort and a scan.",
}


# ---- running ------------------------------------------------------------------------------------

def parts():
    return {p.name.removesuffix("_bench"): p for p in sorted(PROGRAMS.glob("*_bench"))}


def one_processor():
    """Runs a child on the last processor that this process may use, BLAS on one thread."""
    allowed = sorted(os.sched_getaffinity(0))
    return {"preexec_fn": lambda: os.sched_setaffinity(0, {allowed[-1]}),
            "env": {**os.environ, "OPENBLAS_NUM_THREADS": "1", "BLIS_NUM_THREADS": "1"}}


def count_of(program, chosen):
    command = [program, "--benchmark_list_tests=true", f"--benchmark_filter={chosen}"]
    result = subprocess.run(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    return len(result.stdout.splitlines())


def await_end(process, what, seconds):
    """The results come at the end only, so the clock tells how far it is."""
    started = time.monotonic()
    while True:
        try:
            if process.wait(timeout=10) != 0:
                sys.exit(f"{what} ended with status {process.returncode}")
            return
        except subprocess.TimeoutExpired:
            print(f"  {what}: {time.monotonic() - started:.0f} s of about {seconds}", flush=True)


def run_part(program, plan, merged):
    """Adds the results to `merged`."""
    for chosen, repetitions, seconds in plan:
        count = count_of(program, chosen)
        if count == 0:
            continue
        out = PROGRAMS.parent / f"{program.name}.json"
        out.unlink(missing_ok=True)
        # Half of the time goes to finding out how often to run each.
        each = seconds / (count * repetitions) / 2
        command = [program, f"--benchmark_filter={chosen or '.'}", f"--benchmark_out={out}",
                   "--benchmark_out_format=json", f"--benchmark_repetitions={repetitions}",
                   "--benchmark_report_aggregates_only=false",
                   f"--benchmark_min_time={min(max(each, 0.0005), 0.2):.4f}",
                   "--benchmark_enable_random_interleaving=true"]
        # Two threads need two processors.
        pinned = {} if program.name == "pool_bench" else one_processor()
        await_end(subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                   **pinned), program.name, seconds)
        document = json.loads(out.read_text())
        merged.setdefault("context", document["context"])
        merged.setdefault("benchmarks", []).extend(document["benchmarks"])


def first_line(command):
    try:
        result = subprocess.run(command, text=True, stdout=subprocess.PIPE, check=True,
                                stderr=subprocess.DEVNULL)
        return result.stdout.splitlines()[0]
    except (OSError, subprocess.CalledProcessError):
        return None


def versions():
    found = {name: first_line(command) for name, command in VERSIONS.items()}
    for package in PACKAGES:
        version = first_line(["dpkg-query", "-W", "-f=${Version}\\n", package])
        found[package] = version
    return {name: version for name, version in found.items() if version}


def processor_description():
    """Family, model, clock and vector width of the first processor."""
    with open("/proc/cpuinfo", encoding="ascii") as lines:
        told = {}
        for name, colon, value in (line.partition(":") for line in lines):
            if colon:
                told.setdefault(name.strip(), value.strip())
    flags = told["flags"].split()
    bits = 512 if "avx512f" in flags else 256 if "avx" in flags else 128
    return (f"family {told['cpu family']}, model {told['model']}, "
            f"{float(told['cpu MHz']) / 1000:.2f} GHz, {bits}-bit vectors")


def run_all(chosen, plan, rounds, command):
    results = {"processor": processor_description(), "processors": os.cpu_count(),
               "rounds": rounds, "date": datetime.date.today().isoformat(), "command": command,
               "versions": versions(), "load": os.getloadavg()[0], "parts": {}}
    started = time.monotonic()
    plans = {part: plan.get(part, plan[""]) for part in chosen}
    left = rounds * sum(seconds for runs in plans.values() for _, _, seconds in runs)
    for done in range(rounds):
        for part, program in chosen.items():
            print(f"{part}, round {done + 1} of {rounds}: about {left:.0f} s left in all", flush=True)
            run_part(program, plans[part], results["parts"].setdefault(part, {}))
            left -= sum(seconds for _, _, seconds in plans[part])
    print(f"{time.monotonic() - started:.0f} s")
    return results


# ---- the page -----------------------------------------------------------------------------------

def family_of(one):
    """The heading that a benchmark stands under: the first rule that fits, else its case's start."""
    for rule, title in FAMILIES.get(one.part, []):
        match = re.match(rule, one.key.case)
        if match:
            return match.expand(title)
    return one.key.case.split("/")[0]


def families(series):
    """{(part, family): [series]}"""
    found = {}
    for one in series.values():
        found.setdefault((one.part, family_of(one)), []).append(one)
    return found


def limits_of(series, part, case):
    """What the processor does in a bare loop of the case's arithmetic, for each vector width."""
    real = case.split("_")[0].replace("c", "r")
    return sorted((s for s in series.values()
                   if (s.part, s.key.case, s.key.contestant) == (part, "ceiling", real)),
                  key=lambda s: s.key.size)


def order(contestants):
    return sorted(contestants, key=lambda c: (c != OURS, bool(bench_results.CEILING.match(c)), c))


def style(contestant):
    if bench_results.CEILING.match(contestant):
        return {"linestyle": "--", "color": "0.6"}
    return {"linewidth": 2.2, "color": "C3"} if contestant == OURS else {"linewidth": 1.3}


def plot_lines(pyplot, case, group, limits, path):
    figure, axes = pyplot.subplots(figsize=(6.4, 3.6))
    unit = group[0].rate()[1]
    for contestant in order({s.key.contestant for s in group}):
        line = sorted((s for s in group if s.key.contestant == contestant), key=lambda s: s.key.size)
        axes.plot([s.key.size for s in line], [s.rate()[0] for s in line], marker="o", markersize=3,
                  label=contestant, **style(contestant))
    for number, limit in enumerate(limits):
        axes.axhline(limit.rate()[0], label=f"limit, {limit.key.size} bits", color="0.6",
                     linestyle=("--", ":", "-.")[number % 3])
    axes.set_xscale("log", base=2)
    axes.set_ylim(bottom=0)
    axes.set_xlabel("size")
    axes.set_ylabel(unit)
    axes.set_title(case)
    axes.legend(fontsize=8)
    figure.savefig(path, bbox_inches="tight", metadata={"Date": None})
    pyplot.close(figure)


def label_of(series):
    return series.key.case + (f"/{series.key.size}" if series.key.size is not None else "")


def plot_bars(pyplot, family, group, path):
    labels = sorted({label_of(s) for s in group})
    contestants = order({s.key.contestant for s in group})
    figure, axes = pyplot.subplots(figsize=(6.4, 0.6 + 0.13 * len(labels) * (len(contestants) + 1)))
    height = 0.8 / len(contestants)
    for number, contestant in enumerate(contestants):
        values = {label_of(s): s.median for s in group if s.key.contestant == contestant}
        places = [i + number * height for i, label in enumerate(labels) if label in values]
        axes.barh(places, [values[label] for label in labels if label in values], height,
                  label=contestant, color="C3" if contestant == OURS else None)
    axes.set_yticks([i + 0.4 for i in range(len(labels))], labels, fontsize=7)
    axes.invert_yaxis()
    times = [s.median for s in group]
    if max(times) > 20 * min(times):
        axes.set_xscale("log")
    axes.set_xlabel("ns per operation")
    axes.set_title(family)
    axes.legend(fontsize=8)
    figure.savefig(path, bbox_inches="tight", metadata={"Date": None})
    pyplot.close(figure)


def grid_table(group):
    """Sizes, the median cell of each, and the slowest one with its place."""
    contestants = order({s.key.contestant for s in group})
    yield "| bytes | " + " | ".join(f"{c}, ns | slowest cell" for c in contestants) + " |"
    yield "|---" * (2 * len(contestants) + 1) + "|"
    for size in sorted({s.key.size for s in group}):
        cells = []
        for contestant in contestants:
            one = next(s for s in group if (s.key.size, s.key.contestant) == (size, contestant))
            times, offset, distance = one.slowest_cell
            cells.append(f"{one.median:.3g} | {times:.2f} ({offset}, {distance})")
        yield f"| {size} | " + " | ".join(cells) + " |"


def bare_table(group):
    """Each case against the bare loop of its instructions."""
    yield "| GB/s | ksomd | bare loop | share of it | spread |"
    yield "|---|---|---|---|---|"
    for case in sorted({s.key.case for s in group}):
        ours, bare = (next(s for s in group if (s.key.case, s.key.contestant) == (case, contestant))
                      for contestant in (OURS, "bare"))
        method = case.partition("/")[2]
        yield (f"| {method} | {ours.rate()[0]:.3g} | {bare.rate()[0]:.3g} | "
               f"{100 * bare.median / ours.median:.0f} % | "
               f"{100 * max(ours.spread, bare.spread):.0f} % |")


def table(group):
    contestants = order({s.key.contestant for s in group})
    unit = group[0].rate()[1]
    yield f"| {unit} | " + " | ".join(contestants) + " | times the best peer | spread |"
    yield "|---" * (len(contestants) + 3) + "|"
    for label in dict.fromkeys(label_of(s) for s in group):
        row = {s.key.contestant: s for s in group if label_of(s) == label}
        cells = [f"{row[c].rate()[0]:.3g}" if c in row else "" for c in contestants]
        peers = [row[c].median for c in row if c in bench_results.PEERS]
        speed = f"{min(peers) / row[OURS].median:.2f}" if peers and OURS in row else ""
        spread = max(s.spread for s in row.values())
        yield f"| {label} | " + " | ".join(cells) + f" | {speed} | {100 * spread:.0f} % |"


def write_page(results):
    import matplotlib
    matplotlib.use("svg")
    matplotlib.rcParams["svg.hashsalt"] = "ksomd"
    matplotlib.rcParams["svg.fonttype"] = "none"
    from matplotlib import pyplot

    PLOTS.mkdir(parents=True, exist_ok=True)
    for old in PLOTS.glob("*.svg"):
        old.unlink()
    lines = ["# Benchmarks", "", "Written by `./dev bench`; the raw results are its "
             "`build/bench/results.json`.", "",
             f"- Processor: {results['processor']}; {results['processors']} visible",
             f"- Date: {results['date']}", f"- Command: `{results['command']}`",
             f"- Load when it began: {results['load']:.1f}",
             "- Versions: " + "; ".join(f"{n}: {v}" for n, v in results["versions"].items()), "",
             f"Medians of interleaved repetitions, in {results['rounds']} rounds; the spread is "
             "half the distance between the quartiles, the largest of a row. \"Times the best peer\" is how many times as fast "
             "as the fastest peer the library is. Dashed: what the processor itself can do in a "
             "bare loop.", ""]
    part_before = None
    series = bench_results.read(results)
    for (part, family), group in sorted(families(series).items()):
        if part != part_before:
            lines += [f"## {TITLES.get(part, part)}", ""]
            told = results["parts"][part]["context"]
            kernels = [f"- {name}: {told[name]}" for name in KERNELS if name in told]
            lines += [LEGENDS.get(part, ""), "", *kernels, *([""] if kernels else [])]
            part_before = part
        lines += [f"### {family}", ""]
        if group[0].slowest_cells:
            lines += ["Destinations at 12 offsets in a page; sources above and, negative, below at "
                      "distances around powers of two, but for whole pages. In brackets the "
                      "slowest cell's offset and distance; before them, how many times as long as "
                      "the median cell of its size it takes. Cells beyond twice the median are "
                      "short ranges that end a few bytes into a page, where a store takes tens of "
                      "cycles; comparisons near the end of a page, which go by 16 bytes so as to "
                      "read nothing behind a difference; and string instructions whose destination "
                      "lies less than a line above the source, but for whole pages.", ""]
            for case in sorted({s.key.case for s in group}):
                of_case = [s for s in group if s.key.case == case]
                lines += [f"#### {case.split('/')[1]}", "", *grid_table(of_case), ""]
            continue
        if {s.key.contestant for s in group} == {OURS, "bare"}:
            lines += ["Each bulk method against a bare loop of its instructions on whole blocks: "
                      "12 KiB in the cache, 1 MiB streamed.", "", *bare_table(group), ""]
            continue
        cases = {}
        for one in group:
            cases.setdefault(one.key.case, []).append(one)
        by_size = {c: g for c, g in cases.items() if len({s.key.size for s in g}) >= 3}
        for case, of_case in sorted(by_size.items()):
            path = PLOTS / f"{part}_{case.replace('/', '_').replace(' ', '_')}.svg"
            plot_lines(pyplot, case, of_case, limits_of(series, part, case), path)
            lines += [f"![{case}](benchmarks/{path.name})", ""]
        rest = [s for c, g in cases.items() if c not in by_size for s in g]
        if rest:
            path = PLOTS / f"{part}_{family.replace(' ', '_')}_by_case.svg"
            plot_bars(pyplot, family, rest, path)
            lines += [f"![{family}](benchmarks/{path.name})", ""]
        group.sort(key=lambda s: (s.key.case, s.key.size or 0))
        units = dict.fromkeys(s.rate()[1] for s in group)
        for unit in units:
            lines += [*table([s for s in group if s.rate()[1] == unit]), ""]
    PAGE.write_text("\n".join(lines))
    print(f"{PAGE} and {len(list(PLOTS.glob('*.svg')))} plots")


# ---- comparing ----------------------------------------------------------------------------------

def tell_changes(old, new):
    slower, faster, unchanged = bench_results.compare(bench_results.read(old),
                                                      bench_results.read(new))
    for title, changes in (("slower", slower), ("faster", faster)):
        for change, before, after in changes:
            print(f"{title}: {after.part} {after.name}: {before.median:.3g} -> {after.median:.3g} ns "
                  f"({100 * change:+.0f} %, spreads {100 * before.spread:.0f} % and "
                  f"{100 * after.spread:.0f} %)")
    if old["processor"] != new["processor"]:
        print(f"Not the same processor: {old['processor']}; {new['processor']}")
    print(f"{len(slower)} slower, {len(faster)} faster, {unchanged} as before")
    return 1 if slower else 0


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--compare", metavar="OLD.json", type=pathlib.Path)
    parser.add_argument("--report", metavar="RESULTS.json", type=pathlib.Path)
    parser.add_argument("--out", type=pathlib.Path, default=RESULTS)
    parser.add_argument("parts", nargs="*")
    arguments = parser.parse_args()
    if arguments.report:
        results = json.loads(arguments.report.read_text())
        if arguments.compare:
            return tell_changes(json.loads(arguments.compare.read_text()), results)
        write_page(results)
        return 0
    available = parts()
    unknown = set(arguments.parts) - available.keys()
    if unknown:
        parser.error(f"no such part: {', '.join(unknown)}; there are {', '.join(available)}")
    chosen = {p: path for p, path in available.items() if not arguments.parts or p in arguments.parts}
    old = json.loads(arguments.compare.read_text()) if arguments.compare else None
    command = " ".join(["./dev bench", *sys.argv[1:]])
    plan, rounds = (QUICK, 1) if arguments.quick else (FULL, ROUNDS)
    results = run_all(chosen, plan, rounds, command)
    arguments.out.parent.mkdir(parents=True, exist_ok=True)
    arguments.out.write_text(json.dumps(results))
    print(f"Raw results: {arguments.out}")
    if old:
        return tell_changes(old, results)
    if not arguments.quick:
        if arguments.parts:
            print("Only some parts ran: the page keeps its figures.")
        else:
            write_page(results)
    return 0


if __name__ == "__main__":
    sys.exit(main())
