#!/usr/bin/env python3
"""Puts small defects into a private copy of the sources, one at a time, and sees whether a test
notices each.

usage: mutate.py [--jobs N] [--keep] [--quick] [--group NAME] [REGEX]
       mutate.py --verify

REGEX chooses rows of tools/mutations.txt by "source: text -> replacement", --group those of one
group, --quick those that are marked so. --verify only tells whether each row fits its source.

The copy and its build stay in build/mutate*, so that a later run builds only what a defect touches;
--keep takes the copy as it is, so that sources under work disturb nothing. A test is built, and
tried without a defect, when the first row wants it.
"""

import argparse
import collections
import concurrent.futures
import hashlib
import json
import os
import pathlib
import queue
import re
import resource
import shutil
import signal
import subprocess
import sys
import time

TOP = pathlib.Path(__file__).resolve().parent.parent
TABLE = TOP / "tools/mutations.txt"
PARTS = ["bench", "CMakeLists.txt", "CMakePresets.json", "cmake", "examples", "include", "src", "tests",
         "tools", "LICENSE", "README.md", "CONTRIBUTING.md"]
# What a defect is tried with, whatever the defaults are. A defect may well leave a name unused.
OPTIONS = ["-DCMAKE_BUILD_TYPE=Release", "-DKSOMD_OPTIMIZE=1", "-DKSOMD_TESTS=ON",
           "-DKSOMD_SANITIZE=", "-DKSOMD_BENCH=OFF", "-DCMAKE_C_FLAGS=-w", "-DCMAKE_CXX_FLAGS=-w"]
# A defect may make a test run forever: it may take this many times as long as without, in seconds.
PATIENCE, LEAST_PATIENCE = 5, 60
FIRST_LIMIT = 1800


class Mutation:
    def __init__(self, source, group, marks):
        self.source, self.group = source, group
        self.find, self.replacement = "\n".join(marks["-"]), "\n".join(marks["+"])
        self.equivalent = " ".join(marks["="])
        self.judges = " ".join(marks["@"]).split()
        self.quick = "quick" in marks["!"]

    def __str__(self):
        find, replacement = (" ".join(text.split()) for text in (self.find, self.replacement))
        return f"{self.source}: {find!r} -> {replacement!r}"

    def misfit(self):
        """What is wrong with the row, or None."""
        path = TOP / self.source
        count = path.read_text().count(self.find) if path.is_file() else 0
        if count != 1 or not self.find:
            return f"the text stands there {count} times"
        if self.find == self.replacement:
            return "nothing changes"
        return None if self.judges else "no test judges it"


def read_table():
    """The rows, each with its judges."""
    judges, mutations = {}, []
    group = source = None
    for block in re.split(r"\n(?:[ \t]*\n)+", TABLE.read_text()):
        marks = collections.defaultdict(list)
        for line in block.splitlines():
            word, _, rest = line.partition(" ")
            if len(word) == 1 and word in "-+=@!":
                marks[word].append(rest)
            elif word == "judge":
                beginning, *programs = rest.split()
                judges[beginning] = programs
            elif word == "group":
                group = rest
            elif word and not word.startswith("#"):
                source = line
        if marks:
            mutations.append(Mutation(source, group, marks))
    for mutation in mutations:
        fitting = [beginning for beginning in judges if mutation.source.startswith(beginning)]
        if fitting and not mutation.judges:
            mutation.judges = judges[max(fitting, key=len)]
    return mutations


def verify(mutations):
    misfits = [f"{TABLE.name}: {m}: {m.misfit()}" for m in mutations if m.misfit()]
    print("\n".join(misfits) if misfits else f"{len(mutations)} defects fit their sources")
    return 1 if misfits else 0


def run(command, directory, log, limit=None):
    """The exit status of the command, or "timeout"; it leaves no process behind."""
    with open(log, "wb") as output:
        process = subprocess.Popen(
            command, cwd=directory, stdin=subprocess.DEVNULL, stdout=output,
            stderr=subprocess.STDOUT, start_new_session=True,
            env=os.environ | {"GTEST_FAIL_FAST": "1", "GTEST_BRIEF": "1"})
    try:
        return process.wait(limit)
    except subprocess.TimeoutExpired:
        return "timeout"
    finally:
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        process.wait()


def copy_if_changed(source, target):
    if not target.exists() or source.read_bytes() != target.read_bytes():
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(source, target)
        target.touch()


class Workshop:
    """A private copy of the tree and its build."""

    def __init__(self, directory):
        self.top = directory
        self.build = directory / "build"
        self.commands, self.limits = {}, {}
        self.record = directory / "sound.json"
        self.passed = json.loads(self.record.read_text()) if self.record.exists() else {}

    def prepare(self, keep):
        # An interrupted run leaves its defect behind, and the sound source beside it.
        for sound in self.top.glob("**/*.sound"):
            sound.rename(sound.with_suffix("")).touch()
        if not keep or not (self.build / "build.ninja").exists():
            listing = subprocess.check_output(["git", "ls-files", *PARTS], cwd=TOP, text=True)
            for name in listing.splitlines():
                copy_if_changed(TOP / name, self.top / name)
            log = self.top / "configure.log"
            toolchain = [] if (self.build / "build.ninja").exists() else [
                f"-DCMAKE_TOOLCHAIN_FILE={self.top / 'cmake/host.cmake'}"]
            if run(["cmake", "-G", "Ninja", "-B", str(self.build), *OPTIONS, *toolchain],
                   self.top, log):
                sys.exit(f"The copy does not configure: {log}")
        # CTest itself tells the command of a test only once its program has been built.
        lines = (line for listing in self.build.glob("tests/**/CTestTestfile.cmake")
                 for line in listing.read_text().splitlines())
        for line in lines:
            if line.startswith("add_test("):
                name, *command = (
                    bracketed or quoted
                    for bracketed, quoted in re.findall(r'\[=\[(.*?)\]=\]|"([^"]*)"', line))
                self.commands[name] = command

    def is_sound(self, test):
        """Whether the test passes without a defect; a program that did so before is not asked again.
        """
        if test not in self.limits:
            log = self.top / f"{test}.log"
            self.limits[test] = None
            if self.compile(test, log):
                return False
            digest = hashlib.sha256()
            for word in self.commands[test]:
                digest.update(pathlib.Path(word).read_bytes() if os.path.isfile(word) else b"")
            name = digest.hexdigest()
            if name not in self.passed:
                started = time.monotonic()
                if self.test(test, log, FIRST_LIMIT):
                    return False
                self.passed[name] = time.monotonic() - started
                self.record.write_text(json.dumps(self.passed))
            self.limits[test] = max(LEAST_PATIENCE, PATIENCE * self.passed[name])
        return self.limits[test] is not None

    def compile(self, test, log):
        """Builds what the test's command names in the build directory."""
        beginning = f"{self.build}/"
        built = [word.removeprefix(beginning) for word in self.commands[test]
                 if word.startswith(beginning)]
        return run(["ninja", "-C", str(self.build), "-j2", *built], self.top, log)

    def test(self, test, log, limit):
        return run(self.commands[test], self.build / "tests", log, limit)

    def examine(self, mutation):
        """What became of the defect, and the test that told."""
        path = self.top / mutation.source
        text = path.read_text()
        if text.count(mutation.find) != 1:
            return "not applicable: its text is not in the copy", ""
        sound = path.with_name(path.name + ".sound")
        shutil.copy(path, sound)
        try:
            for test in mutation.judges:
                if test not in self.commands:
                    return f"not applicable: there is no {test}", ""
                if test not in self.limits and path.read_text() != text:
                    path.write_text(text)
                if not self.is_sound(test):
                    return f"not applicable: {test} fails without it", ""
                if path.read_text() == text:
                    path.write_text(text.replace(mutation.find, mutation.replacement))
                log = self.top / "mutation.log"
                if self.compile(test, log):
                    return "not applicable: does not compile", ""
                status = self.test(test, log, self.limits[test])
                if status != 0:
                    return "caught", f"{test}{', which never ends' if status == 'timeout' else ''}"
            return "survived", ""
        finally:
            path.write_text(text)
            sound.unlink()


def examine_all(mutations, jobs, keep):
    """Yields each defect with its outcome, the test that told, and the seconds that it took."""
    workshops = queue.Queue()
    for number in range(jobs):
        workshop = Workshop(TOP / "build" / f"mutate{number or ''}")
        workshop.prepare(keep)
        workshops.put(workshop)

    def examine(mutation):
        workshop = workshops.get()
        started = time.monotonic()
        try:
            outcome, test = workshop.examine(mutation)
            return mutation, outcome, test, time.monotonic() - started
        finally:
            workshops.put(workshop)

    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        yield from pool.map(examine, mutations)


def report(mutations, outcomes):
    """Prints what becomes of the defects as it becomes known; whether all that count are caught."""
    started, counts, remarks = time.monotonic(), collections.Counter(), []
    for done, (mutation, outcome, test, seconds) in enumerate(outcomes, 1):
        left = (time.monotonic() - started) / done * (len(mutations) - done)
        note = f" by {test}" if test else ""
        print(f"[{done}/{len(mutations)}, {left:.0f} s left] {outcome}{note} in {seconds:.1f} s: "
              f"{mutation}", flush=True)
        kind = outcome.split(":")[0]
        if kind == "survived" and mutation.equivalent:
            kind = "equivalent"
            remarks.append(f"equivalent: {mutation}: {mutation.equivalent}")
        elif outcome != "caught":
            remarks.append(f"{outcome} ({mutation.group}): {mutation}")
        counts[kind] += 1
    judged = counts["caught"] + counts["survived"]
    print("\n".join(remarks))
    share = 100 * counts["caught"] / judged if judged else 0
    print(f"{len(mutations)} defects in {time.monotonic() - started:.0f} s: "
          f"{counts['caught']} caught, {counts['survived']} survived, "
          f"{counts['equivalent']} equivalent, {counts['not applicable']} not applicable "
          f"({share:.1f} % of those that count caught)")
    return not counts["survived"] and not counts["not applicable"]


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("--keep", action="store_true")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--verify", action="store_true")
    parser.add_argument("--group", default="")
    parser.add_argument("regex", nargs="?", default="")
    arguments = parser.parse_args()
    mutations = read_table()
    if arguments.verify:
        return verify(mutations)
    chosen = [m for m in mutations
              if re.search(arguments.regex, str(m)) and arguments.group in ("", m.group)
              and (m.quick or not arguments.quick)]
    print(f"{len(chosen)} defects", flush=True)
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    return 0 if report(chosen, examine_all(chosen, arguments.jobs, arguments.keep)) else 1


if __name__ == "__main__":
    sys.exit(main())
