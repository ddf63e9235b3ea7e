#!/usr/bin/env python3
"""Runs the random tests of every subsystem over and over, each round with another seed, and fuzzes
the reader of trace sections in between.

usage: soak.py [--full] [--seed N] [MINUTES]

--full runs every test at its full length, so that a round takes long. A failure prints what repeats
it: KSOMD_TEST_SEED=N PROGRAM.
"""

import argparse
import collections
import os
import pathlib
import random
import re
import subprocess
import time

TESTS = pathlib.Path("build/host/tests")
LOGS = pathlib.Path("build/soak")

PROGRAMS = "cpu_test matmul_test mem_test pool_test quad_test traceback_test vec_test".split()
FUZZING = "fuzz_traceback"
FUZZ_SECONDS = 20


def run_program(program, seed, full, deadline):
    """(outcome, number of test cases) of one run; the deadline ends it without a verdict."""
    environment = {**os.environ, "KSOMD_TEST_SEED": str(seed)}
    if full:
        environment["KSOMD_TEST_LENGTH"] = "full"
    log = LOGS / f"{program}.log"
    with log.open("w") as output:
        process = subprocess.Popen([f"./{program}"], cwd=TESTS, env=environment, stdout=output,
                                   stdin=subprocess.DEVNULL, stderr=subprocess.STDOUT)
        try:
            status = process.wait(timeout=max(1, deadline - time.monotonic()))
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
            return "unfinished", 0
    passed = re.search(r"\[  PASSED  \] (\d+) test", log.read_text(errors="replace"))
    cases = int(passed[1]) if passed else 0
    if status != 0:
        log.rename(LOGS / f"{program}.{seed}.failed.log")
    return ("passed" if status == 0 else "failed"), cases


def fuzz(_seed, _full, deadline):
    seconds = int(min(FUZZ_SECONDS, deadline - time.monotonic()))
    if seconds < 2:
        return "unfinished", 0
    result = subprocess.run(["tools/fuzz_traceback", str(seconds)], text=True,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    executed = re.search(r"number_of_executed_units: *(\d+)", result.stdout)
    return ("passed" if result.returncode == 0 else "failed"), int(executed[1]) if executed else 0


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("--full", action="store_true")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(10**9))
    parser.add_argument("minutes", type=float, nargs="?", default=10)
    arguments = parser.parse_args()
    LOGS.mkdir(parents=True, exist_ok=True)
    started = time.monotonic()
    deadline = started + 60 * arguments.minutes
    runs, cases, failures = collections.Counter(), collections.Counter(), []
    work = {name: (lambda s, f, d, name=name: run_program(name, s, f, d)) for name in PROGRAMS}
    work[FUZZING] = fuzz
    seed = arguments.seed
    while time.monotonic() < deadline:
        left = (deadline - time.monotonic()) / 60
        print(f"seed {seed}, {left:.1f} of {arguments.minutes:g} minutes left", flush=True)
        for name, call in work.items():
            if time.monotonic() >= deadline:
                break
            outcome, count = call(seed, arguments.full, deadline)
            runs[name, outcome] += 1
            cases[name] += count
            if outcome == "failed":
                failures.append(f"KSOMD_TEST_SEED={seed} {name}")
                print(f"  failed: {failures[-1]}", flush=True)
        seed += 1
    print(f"{seed - arguments.seed} rounds, seeds {arguments.seed} to {seed - 1}, "
          f"{(time.monotonic() - started) / 60:.1f} minutes")
    for name in work:
        what = "inputs" if name == FUZZING else "test cases"
        print(f"  {name:20} {runs[name, 'passed']:5} runs passed, {runs[name, 'failed']} failed, "
              f"{runs[name, 'unfinished']} unfinished, {cases[name]} {what}")
    print(f"{sum(runs.values())} runs, {len(failures)} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    raise SystemExit(main())
