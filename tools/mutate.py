#!/usr/bin/env python3
"""Puts small defects into a private copy of the sources, one at a time, and sees whether the test
that should notice does.

usage: mutate.py [--jobs N] [--keep] [REGEX]

REGEX chooses rows of tools/mutations.py by "source: text -> replacement". The copy and its build
stay in build/mutate*, so that a later run builds only what a defect touches; --keep takes the copy
as it is, so that sources under work disturb nothing. A test program is built, and tried without a
defect, when the first row wants it.
"""

import argparse
import collections
import concurrent.futures
import pathlib
import queue
import re
import shutil
import subprocess
import sys
import time

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).parent))
from mutations import MUTATIONS  # noqa: E402  (the table stands beside this file)

TOP = pathlib.Path(__file__).resolve().parent.parent
PARTS = ["CMakeLists.txt", "CMakePresets.json", "cmake", "examples", "include", "src", "tests",
         "tools", "LICENSE", "README.md"]
# A defect may make a test run forever: it may take this many times as long as without, in seconds.
PATIENCE, LEAST_PATIENCE = 10, 60
FIRST_LIMIT = 1800
# Tests that are scripts around a report program.
SCRIPTS = {"memory_emulation_test": "memory_report"}


class Mutation:
    def __init__(self, source, find, replacement, program, equivalent=None):
        self.source, self.find, self.replacement = source, find, replacement
        self.program, self.equivalent = program, equivalent

    def __str__(self):
        return f"{self.source}: {self.find.strip()!r} -> {self.replacement.strip()!r}"


def run(command, directory, log, limit=None):
    with open(log, "wb") as output:
        try:
            return subprocess.run(command, cwd=directory, stdin=subprocess.DEVNULL, stdout=output,
                                  stderr=subprocess.STDOUT, timeout=limit).returncode
        except subprocess.TimeoutExpired:
            return "timeout"


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
        self.sound, self.limit = {}, {}

    def prepare(self, keep):
        # An interrupted run leaves its defect behind, and the sound source beside it.
        for sound in self.top.glob("src/**/*.sound"):
            sound.rename(sound.with_suffix(""))
        if keep and (self.build / "build.ninja").exists():
            return
        files = subprocess.check_output(["git", "ls-files", *PARTS], cwd=TOP, text=True).split("\n")
        for name in filter(None, files):
            copy_if_changed(TOP / name, self.top / name)
        if not (self.build / "build.ninja").exists():
            log = self.top / "configure.log"
            if run(["cmake", "-G", "Ninja", "-B", str(self.build), "-DCMAKE_BUILD_TYPE=Release",
                    "-DKSOMD_TESTS=ON", "-DKSOMD_OPTIMIZE=1",
                    "-DCMAKE_TOOLCHAIN_FILE=" + str(TOP / "cmake/host.cmake")],
                   self.top, log):
                sys.exit(f"The copy does not configure: {log}")

    def is_sound(self, program):
        """Whether the program builds and passes without a defect."""
        if program not in self.sound:
            log = self.top / f"{program}.log"
            built = not self.compile(program, log)
            started = time.monotonic()
            self.sound[program] = built and not self.test(program, log, FIRST_LIMIT)
            self.limit[program] = max(LEAST_PATIENCE, PATIENCE * (time.monotonic() - started))
        return self.sound[program]

    def compile(self, program, log):
        target = SCRIPTS.get(program, program)
        return run(["cmake", "--build", str(self.build), "-j2", "--target", target], self.top, log)

    def test(self, program, log, limit):
        command = [f"./{program}", "--gtest_fail_fast", "--gtest_brief=1"]
        if program in SCRIPTS:
            command = [sys.executable, str(self.top / f"tests/{program}.py"),
                       f"./{SCRIPTS[program]}"]
        return run(command, self.build / "tests", log, limit)

    def examine(self, mutation):
        path = self.top / "src" / mutation.source
        text = path.read_text()
        if text.count(mutation.find) != 1:
            return f"not applicable: the text stands there {text.count(mutation.find)} times"
        if not self.is_sound(mutation.program):
            return f"not applicable: {mutation.program} fails without it"
        log = self.top / "mutation.log"
        sound = path.with_name(path.name + ".sound")
        shutil.copy(path, sound)
        try:
            path.write_text(text.replace(mutation.find, mutation.replacement))
            if self.compile(mutation.program, log):
                return "not applicable: does not compile"
            status = self.test(mutation.program, log, self.limit[mutation.program])
            return {0: "survived", "timeout": "caught: it never ends"}.get(status, "caught")
        finally:
            path.write_text(text)
            sound.unlink()


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("--keep", action="store_true")
    parser.add_argument("regex", nargs="?", default="")
    arguments = parser.parse_args()
    chosen = [m for m in (Mutation(*row) for row in MUTATIONS) if re.search(arguments.regex, str(m))]
    print(f"{len(chosen)} defects", flush=True)
    workshops = queue.Queue()
    for number in range(arguments.jobs):
        workshop = Workshop(TOP / "build" / f"mutate{number or ''}")
        workshop.prepare(arguments.keep)
        workshops.put(workshop)
    started, outcomes, remarks = time.monotonic(), collections.Counter(), []

    def examine(mutation):
        workshop = workshops.get()
        try:
            return mutation, workshop.examine(mutation)
        finally:
            workshops.put(workshop)

    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        for done, (mutation, outcome) in enumerate(pool.map(examine, chosen), 1):
            left = (time.monotonic() - started) / done * (len(chosen) - done)
            print(f"[{done}/{len(chosen)}, {left:.0f} s left] {outcome}: {mutation}", flush=True)
            kind = outcome.split(":")[0]
            if kind == "survived" and mutation.equivalent:
                kind = "equivalent"
                remarks.append(f"equivalent: {mutation}: {mutation.equivalent}")
            elif outcome != "caught":
                remarks.append(f"{outcome}: {mutation}")
            outcomes[kind] += 1
    judged = outcomes["caught"] + outcomes["survived"]
    print("\n".join(remarks))
    share = 100 * outcomes["caught"] / judged if judged else 0
    print(f"{len(chosen)} defects: {outcomes['caught']} caught, {outcomes['survived']} survived, "
          f"{outcomes['equivalent']} equivalent, {outcomes['not applicable']} not applicable "
          f"({share:.1f} % of those that count caught)")
    return 1 if outcomes["survived"] or outcomes["not applicable"] else 0


if __name__ == "__main__":
    sys.exit(main())
