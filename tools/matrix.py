#!/usr/bin/env python3
"""Runs the library on many processors: it must find the features that they have, choose the tiers
that those call for, and give the same results to the bit.

usage: matrix.py [--short] REPORT_PROGRAM SWEEPS_PROGRAM

The processors are emulated (qemu-x86_64), with features taken away one by one; and this machine's
own, with features switched off by the environment. The sweeps compare their digests themselves;
the report program tells what the library found, and tries the start-up checks. --short takes a few
processors.
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
BASELINE = "x87 cmov mmx fxsr sse sse2".split()
ABOVE = "sse3 ssse3 sse4.1 sse4.2 popcnt movbe avx f16c fma bmi1 bmi2 abm avx2".split()
WIDE = {"avx512f", "avx512dq", "avx512cd", "avx512bw", "avx512vl", "adx"}
# Without the first, the others do not count either.
YMM = "avx f16c fma avx2 vaes vpclmulqdq mpx avxvnni"
IMPLIED = {
    "fxsr": "sse sse2 sse3 ssse3 sse4.1 sse4.2 movbe popcnt pclmulqdq aes sha-ni",
    "avx": YMM,
    "xsave": YMM,
    "fpu": "x87",
}
# Flags whose feature the library calls otherwise; others' are the same in capitals.
NAMES = {"fxsr": "FXSAVE", "sse4.1": "SSE4_1", "sse4.2": "SSE4_2", "abm": "LZCNT", "bmi1": "BMI",
         "bmi2": "BMI", "rdrand": "RDRND", "erms": "ERMSB", "lahf-lm": "LAHFSAHF64",
         "monitor": "MWAIT", "sha-ni": "SHA", "avxvnni": "AVX_VNNI", "3dnowprefetch": "PREFETCHW"}
# Flags that stand for no feature of the library, and what the variable calls some of the others.
NO_FEATURE = {"xsave", "fpu"}
SPELLED = {"sse4.2": "sse4", "bmi1": "bmi", "abm": "lzcnt"}
# Single features that no tier depends on.
OTHERS = ("pclmulqdq aes adx rdrand rdseed erms vaes pku clwb clflushopt lahf-lm monitor sha-ni "
          "3dnowprefetch").split()

DEFAULTS = [131072, 65536, 16384, 8192, 4096, 8192, 65536, 16384]
MESSAGE = ("\nCache size is incorrectly reported as 0. Please engage your hardware and/or OS "
           "support to address the problem.\n\n")


def feature_names(flags):
    return {NAMES.get(flag, flag.upper()) for flag in flags if flag not in NO_FEATURE}


def needs(level):
    below, own = LEVELS[level]
    return (needs(below) if below else set()) | set(own.split())


class Processor:
    """An emulated processor."""

    environment, native = {}, False

    def __init__(self, name, lost="", vendor=GENUINE, short=False, sweeps=False, model="max"):
        self.name, self.vendor, self.short, self.sweeps = name, vendor, short, sweeps
        self.lost = set(lost.split())
        self.cpu = ",".join([model, f"vendor={vendor}", *(f"-{flag}" for flag in lost.split())])
        for flag in list(self.lost):
            self.lost |= set(IMPLIED.get(flag, "").split())

    def command(self, program):
        return ["qemu-x86_64", "-cpu", self.cpu, program]

    def levels(self):
        return {level for level in LEVELS if not needs(level) & self.lost}

    def has_wide_vectors(self):
        return False

    def tiers(self):
        levels = self.levels()
        tier = "avx" if "E" in levels else "generic" if "B" in levels else "platform"
        stream = "platform" if tier != "avx" else "avx512" if self.has_wide_vectors() else "avx"
        return {"memcpy": tier, "memmove": tier, "memset": tier, "stream": stream}


class Native(Processor):
    """This machine's own processor; the environment switches single features off."""

    native = True

    def __init__(self, lost, features, short):
        super().__init__(f"this one without {lost or 'nothing'}", short=short, sweeps=True)
        self.environment = {"ORVEX_ISA_DISABLE": ",".join(SPELLED.get(f, f) for f in lost.split())}
        self.features, self.switched_off = features, set(lost.split())
        self.lost = self.switched_off | {f for level in LEVELS for f in needs(level)} - features

    def command(self, program):
        return [program]

    def has_wide_vectors(self):
        return WIDE <= self.features - self.lost


def machine_features():
    """This machine's features as the system tells them, in the spelling of the tables above."""
    with open("/proc/cpuinfo", encoding="ascii") as lines:
        flags = next(line for line in lines if line.startswith("flags")).split(":")[1].split()
    spelled = {"fpu": "x87", "pni": "sse3"}
    return frozenset(spelled.get(flag, flag.replace("_", "." if flag.startswith("sse") else "-"))
                     for flag in flags)


# Each level just below what it needs, each tier just below its mask.
def processors():
    yield Processor("everything", short=True)
    for flag in ABOVE:
        # No processor has AVX without these, and the emulator wants both for some AVX instructions.
        below_avx = flag.startswith(("sse", "ssse"))
        yield Processor(f"without {flag}", f"{flag} avx" if below_avx else flag, sweeps=True,
                        short=flag == "avx2")
        if below_avx:
            yield Processor(f"without {flag} alone", flag)
    yield Processor("without mmx", "mmx", short=True, sweeps=True)
    yield Processor("without fpu", "fpu", sweeps=True)
    yield Processor("without fxsr", "fxsr", short=True, sweeps=True)
    yield Processor("without xsave", "xsave", short=True, sweeps=True)
    for flag in OTHERS:
        yield Processor(f"without {flag}", flag)
    # The ladder, from the baseline upward.
    for kept in range(0, len(ABOVE), 2):
        yield Processor(f"baseline and {' '.join(ABOVE[:kept]) or 'nothing'}",
                        " ".join(ABOVE[kept:]), VENDORS[(kept // 2 + 1) % 3], kept == 0, True)
    for vendor in (LEVEL_2, OTHER):
        yield Processor(f"everything, {vendor}", "", vendor, short=True)
        yield Processor(f"without avx2, {vendor}", "avx2", vendor, sweeps=True)
    features = machine_features()
    for lost in ("", "avx512vl", "avx512f", "adx", "movbe", "avx2", "sse3", "mmx"):
        yield Native(lost, features, lost in ("", "avx512vl", "avx2", "mmx"))


def run(processor, *command, **environment):
    variables = {**os.environ, **processor.environment, **environment}
    return subprocess.run([*processor.command(command[0]), *command[1:]], env=variables, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=1200)


def report(processor, program, **environment):
    result = run(processor, program, "--child=report", **environment)
    return dict(line.split(": ", 1) for line in result.stdout.replace(":\n", ": \n").splitlines()
                if ": " in line)


def expected_tuning(processor, caches, l2_kib):
    if processor.vendor == GENUINE and caches[0]:
        largest, first = max(caches) * 1024, caches[0] * 1024
        return [largest, largest // 2, first, first // 2, first // 4, 8192, 6 * first, 2048, 2]
    if processor.vendor == LEVEL_2:
        return [l2_kib * 1024, l2_kib * 512, *DEFAULTS[2:], int("mmx" not in processor.lost)]
    return DEFAULTS + [2 if processor.vendor == GENUINE else 0]


def feature_problems(processor, found, everything):
    general = set(found["general"].split())
    if processor.native:
        for flag in {*BASELINE, *ABOVE, *OTHERS, *WIDE, "vpclmulqdq", "gfni"} - {"bmi2"}:
            name = feature_names([flag])
            expected = flag in processor.features and flag not in processor.switched_off
            if (name <= general) != expected:
                yield f"{name}, which the system {'has' if expected else 'lacks'}, is found wrong"
        return
    if general != everything - feature_names(processor.lost):
        yield (f"lost {sorted(everything - general)}, gained {sorted(general - everything)}, "
               f"without {sorted(processor.lost)}")
    genuine = processor.vendor == GENUINE
    if set(found["gated"].split()) != (general if genuine else {"GENERIC_QX32"}):
        yield f"the gated set is {found['gated']}"
    if found["filled"] != str(int(genuine)):
        yield "the gated entry filled the general set"
    caches, tuning = ([int(n) for n in found[key].split()] for key in ("caches", "tuning"))
    if (min(caches) > 0) != genuine or tuning != expected_tuning(processor, caches, 512):
        yield f"caches {caches}, tuning values {tuning}"
    if found["core type"] != "0":
        yield f"core type {found['core type']}"


def problems(processor, program, sweeps, everything):
    found = report(processor, program)
    if "tuning" not in found:
        yield f"the report ended early: {found}"
        return
    yield from feature_problems(processor, found, everything)
    tiers = {entry: found[entry] for entry in processor.tiers()}
    if tiers != processor.tiers():
        yield f"tiers {tiers}, expected {processor.tiers()}"
    for level in LEVELS:
        passed = run(processor, program, "--child=level", level).returncode
        if passed != (0 if level in processor.levels() else 1):
            yield f"start-up level {level} ended with status {passed}"
    if not processor.native:
        feature = run(processor, program, "--child=feature").returncode
        if feature != (0 if processor.vendor == GENUINE and "sse2" not in processor.lost else 1):
            yield f"the feature check ended with status {feature}"
    tests = [(program, "*")] + [(sweeps, "*Sweep.*")] * processor.sweeps
    for tested, suites in tests:
        result = run(processor, tested, f"--gtest_filter={suites}", "--gtest_brief=1",
                     KSOMD_TEST_LENGTH="shared",
                     **({} if processor.native else {"KSOMD_TEST_EMULATED": "1"}))
        if result.returncode != 0:
            yield f"{os.path.basename(tested)} ended with status {result.returncode}:"
            yield result.stdout[-2000:]


# Caches by leaf 2 in place of leaf 4, then neither; the debug variable while the program is loaded.
def loading_problems(program):
    for vendor, level, value, status in [(GENUINE, 2, "1", 0), (GENUINE, 1, "1", 1),
                                         (GENUINE, 1, "", 0), (OTHER, 1, "1", 0)]:
        processor = Processor("few leaves", "", vendor, model=f"qemu64,level={level}")
        result = run(processor, program, "--child=report", __ORVEX_LIBKSO_DEBUG=value)
        if (result.returncode, result.stdout == MESSAGE) != (status, status == 1):
            yield f"debug variable {value!r} on {processor.cpu}: {result}"
        elif status == 0:
            found = report(processor, program)
            caches, tuning = ([int(n) for n in found[key].split()] for key in ("caches", "tuning"))
            if (caches[0] > 0) != (level == 2) or tuning != expected_tuning(processor, caches, 0):
                yield f"{processor.cpu}: {found}"
    baseline = set(report(Processor("baseline", model="qemu64"), program)["general"].split())
    if not feature_names(BASELINE) <= baseline or baseline & feature_names(YMM.split()):
        yield f"baseline processor: {sorted(baseline)}"
    result = run(Processor("baseline", model="qemu64"), program, "--gtest_brief=1")
    if result.returncode != 0:
        yield result.stdout[-2000:]


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("--short", action="store_true")
    parser.add_argument("program")
    parser.add_argument("sweeps")
    arguments = parser.parse_args()
    chosen = [p for p in processors() if p.short or not arguments.short]
    everything = set(report(Processor("everything"), arguments.program)["general"].split())
    wanted = feature_names(BASELINE + ABOVE + ["erms"]) | {"GENERIC_QX32"}
    found = [f"the full processor lacks {wanted - everything}"] if wanted - everything else []
    found += loading_problems(arguments.program)
    started, failed = time.monotonic(), len(found)
    print("\n".join(found), end="\n" * bool(found))

    def examine(processor):
        return processor, list(problems(processor, arguments.program, arguments.sweeps, everything))

    with concurrent.futures.ThreadPoolExecutor(1 if arguments.short else os.cpu_count()) as pool:
        for done, (processor, found) in enumerate(pool.map(examine, chosen), 1):
            left = (time.monotonic() - started) / done * (len(chosen) - done)
            levels = "".join(sorted(processor.levels()))
            print(f"[{done}/{len(chosen)}, {left:.0f} s left] {processor.name} ({processor.vendor}): "
                  f"{processor.tiers()['memcpy']}, levels {levels or 'none'}", flush=True)
            for problem in found:
                print(f"  {problem}")
            failed += bool(found)
    print(f"{len(chosen)} processors, {failed} with differences")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
