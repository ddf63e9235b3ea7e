#!/usr/bin/env python3
"""Runs the library on many processors: the tiers must be those that the features call for, and every
result the same to the bit.

usage: matrix.py [--short] DIGEST_PROGRAM

The processors are emulated (qemu-x86_64), with features taken away one by one; and this machine's
own, with features switched off by the environment. --short takes a few of them and computes less.
"""

import argparse
import concurrent.futures
import os
import subprocess
import sys
import time

GENUINE, LEVEL_2, OTHER = "GenuineOrvex", "AuthenticAMD", "OtherVendor!"
VENDORS = (GENUINE, LEVEL_2, OTHER)

# What each start-up level needs beyond the level named first.
LEVELS = {
    "B": ("", "x87 cmov mmx sse sse2"),
    "N": ("", "x87 cmov mmx sse sse2"),
    "P": ("B", "sse3"),
    "T": ("P", "ssse3"),
    "L": ("T", "movbe"),
    "S": ("T", "sse4.1"),
    "H": ("S", "sse4.2 popcnt"),
    "G": ("H", "avx"),
    "I": ("G", "f16c"),
    "E": ("I", "movbe fma bmi1 bmi2 abm avx2"),
}
# Without the first, the others are gone too.
IMPLIED = {
    "fxsr": "sse sse2 sse3 ssse3 sse4.1 sse4.2 movbe popcnt",
    "avx": "avx2 fma f16c",
    "xsave": "avx avx2 fma f16c",
}


def needs(level):
    below, own = LEVELS[level]
    return (needs(below) if below else set()) | set(own.split())


class Processor:
    def __init__(self, name, lost, vendor=GENUINE, short=False, model="max"):
        self.name, self.vendor, self.short = name, vendor, short
        self.lost = set(lost.split())
        flags = [f"-{flag}" for flag in lost.split()]
        self.cpu = ",".join([model, f"vendor={vendor}", *flags])
        for flag in list(self.lost):
            self.lost |= set(IMPLIED.get(flag, "").split())

    def command(self, program):
        return ["qemu-x86_64", "-cpu", self.cpu, program]

    environment = {}

    def levels(self):
        return {level for level in LEVELS if not needs(level) & self.lost}

    def tiers(self):
        levels = self.levels()
        tier = "avx" if "E" in levels else "generic" if "B" in levels else "platform"
        stream = "avx" if "E" in levels else "platform"
        return {"memcpy": tier, "memmove": tier, "memset": tier, "stream": stream}


class Native(Processor):
    """This machine's own processor; the environment switches features off."""

    def __init__(self, name, lost="", features=frozenset()):
        super().__init__(name, lost)
        spelled = {"sse4.2": "sse4", "bmi1": "bmi", "abm": "lzcnt"}
        self.environment = {"ORVEX_ISA_DISABLE": ",".join(spelled.get(f, f) for f in lost.split())}
        self.features = features
        # The variable takes single features away, and leaves what rests on them.
        self.lost = set(lost.split()) | {f for level in LEVELS for f in needs(level)} - features
        self.wide = features >= {"avx512f", "avx512dq", "avx512cd", "avx512bw", "avx512vl", "adx"}

    def command(self, program):
        return [program]

    def tiers(self):
        wide = self.wide and not self.lost & {"avx512f", "avx512dq", "avx512cd", "avx512bw",
                                              "avx512vl", "adx"}
        tiers = super().tiers()
        if wide and tiers["stream"] == "avx":
            tiers["stream"] = "avx512"
        return tiers


def machine_features():
    """This machine's features, in the spelling of the table above."""
    with open("/proc/cpuinfo", encoding="ascii") as lines:
        flags = next(line for line in lines if line.startswith("flags")).split(":")[1].split()
    spelled = {"fpu": "x87", "pni": "sse3", "sse4_1": "sse4.1", "sse4_2": "sse4.2"}
    return frozenset(spelled.get(flag, flag) for flag in flags)


# Each level just below what it needs, each tier just below its mask.
def processors():
    yield Processor("everything", "", short=True)
    for flag in "sse3 ssse3 sse4.1 sse4.2 popcnt movbe avx f16c fma bmi1 bmi2 abm avx2".split():
        # No processor has AVX without these, and the emulator wants both for some AVX instructions.
        below_avx = flag.startswith(("sse", "ssse"))
        yield Processor(f"without {flag}", f"{flag} avx" if below_avx else flag,
                        short=flag == "avx2")
    yield Processor("without mmx", "mmx", short=True)
    yield Processor("without fxsr", "fxsr")
    yield Processor("without xsave", "xsave")
    yield Processor("without what no tier needs", "aes pclmulqdq rdrand rdseed adx erms")
    # The ladder, from the baseline upward.
    above = "sse3 ssse3 sse4.1 sse4.2 popcnt movbe avx f16c fma bmi1 bmi2 abm avx2".split()
    for kept in range(0, len(above), 2):
        lost = " ".join(above[kept:])
        yield Processor(f"baseline and {' '.join(above[:kept]) or 'nothing'}", lost,
                        VENDORS[(kept // 2 + 1) % 3], short=kept == 0)
    for vendor in (LEVEL_2, OTHER):
        yield Processor(f"everything, {vendor}", "", vendor)
        yield Processor(f"without avx2, {vendor}", "avx2", vendor)
    features = machine_features()
    for lost in ("", "avx512vl", "avx512f", "adx", "movbe", "avx2", "sse3", "mmx"):
        yield Native(f"this one without {lost or 'nothing'}", lost, features)


# The public products of r8 take the packed path, with its own order of sums, above a set of
# features; below it they are the portable ones.
def expected_digests(reference, processor):
    expected = dict(reference)
    if processor.lost & {"x87", "cmov", "mmx", "sse", "sse2"}:
        for name in reference:
            if name.startswith("matmul.r8_") and f"{name}.A" in reference:
                expected[name] = reference[f"{name}.A"]
    return expected


def run(processor, program, *arguments):
    environment = {**os.environ, **processor.environment}
    return subprocess.run([*processor.command(program), *arguments], env=environment, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=1200)


def report(text):
    """(tiers, digests) of a program's output."""
    lines = [line.split() for line in text.splitlines() if line]
    return ({words[1]: words[2] for words in lines if words[0] == "tier"},
            {words[0]: words[1] for words in lines if words[0] != "tier"})


def problems(processor, program, effort, reference):
    result = run(processor, program, effort)
    if result.returncode != 0:
        yield f"ended with status {result.returncode}: {result.stdout[-200:]}"
        return
    tiers, digests = report(result.stdout)
    if tiers != processor.tiers():
        yield f"tiers {tiers}, expected {processor.tiers()}"
    expected = expected_digests(reference, processor)
    for name in sorted(expected.keys() | digests.keys()):
        if expected.get(name) != digests.get(name):
            yield f"{name} is {digests.get(name)}, elsewhere {expected.get(name)}"
    for level in LEVELS:
        passed = run(processor, program, "level", level).returncode
        if passed != (0 if level in processor.levels() else 1):
            yield f"start-up level {level} ended with status {passed}"
    if not isinstance(processor, Native):
        feature = run(processor, program, "feature")
        genuine = processor.vendor == GENUINE and "sse2" not in processor.lost
        if feature.returncode != (0 if genuine else 1):
            yield f"the feature check ended with status {feature.returncode}"


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("--short", action="store_true")
    parser.add_argument("program")
    arguments = parser.parse_args()
    chosen = [p for p in processors() if p.short or not arguments.short]
    effort = "1" if arguments.short else "2"
    native = subprocess.run([arguments.program, effort], check=True, text=True,
                            stdout=subprocess.PIPE).stdout
    reference = report(native)[1]
    started, failed = time.monotonic(), 0

    def examine(processor):
        return processor, list(problems(processor, arguments.program, effort, reference))

    with concurrent.futures.ThreadPoolExecutor(1 if arguments.short else os.cpu_count()) as pool:
        for done, (processor, found) in enumerate(pool.map(examine, chosen), 1):
            left = (time.monotonic() - started) / done * (len(chosen) - done)
            levels = "".join(sorted(processor.levels()))
            print(f"[{done}/{len(chosen)}, {left:.0f} s left] {processor.name} ({processor.vendor}): "
                  f"{processor.tiers()['memcpy']}, levels {levels or 'none'}", flush=True)
            for problem in found:
                print(f"  {problem}")
            failed += bool(found)
    print(f"{len(chosen)} processors, {len(reference)} digests each, {failed} with differences")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
