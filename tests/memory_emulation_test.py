#!/usr/bin/env python3
"""Runs the memory routines on emulated processors: which variants they choose, from which tuning
values, and what the debug variable's check reports while the program is loaded.

usage: memory_emulation_test.py REPORT_PROGRAM
"""

import subprocess
import sys

# Emulator flags by the tier that is left without them.
TIER = {
    2: ["-sse3", "-ssse3", "-sse4.1", "-sse4.2", "-movbe", "-popcnt", "-f16c", "-avx", "-fma",
        "-bmi1", "-abm", "-avx2"],
    # without FXSAVE neither SSE nor SSE2 counts
    3: ["-mmx", "-fpu", "-fxsr"],
    # what the choice does not depend on
    1: ["-aes", "-pclmulqdq", "-rdrand", "-adx", "-erms"],
}
DEFAULTS = [131072, 65536, 16384, 8192, 4096, 8192, 65536, 16384]
MESSAGE = ("\nCache size is incorrectly reported as 0. Please engage your hardware and/or OS "
           "support to address the problem.\n\n")


def run(program, cpu, **environment):
    return subprocess.run(["qemu-x86_64", "-cpu", cpu, program], env=environment,
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)


def report(program, cpu, **environment):
    finished = run(program, cpu, **environment)
    finished.check_returncode()
    lines = dict(line.split(":", 1) for line in finished.stdout.splitlines())
    return {name: [int(word) for word in value.split()] for name, value in lines.items()}


def genuine_tuning(caches):
    largest, level_1 = max(caches), caches[0]
    return [largest * 1024, largest * 512, level_1 * 1024, level_1 * 512, level_1 * 256, 8192,
            6 * level_1 * 1024, 2048, 2]


def problems(program):
    full = report(program, "max,vendor=GenuineOrvex")
    if full["right"] != [1] or full["copy tier"] != [1] or full["move tier"] != [1]:
        yield f"the full processor: {full}"
    if 0 in full["caches"] or full["tuning"] != genuine_tuning(full["caches"]):
        yield f"the full processor's tuning values: {full}"

    for tier, flags in TIER.items():
        for flag in flags:
            found = report(program, f"max,vendor=GenuineOrvex,{flag}")
            streaming = 256 if tier == 1 else 0
            if (found["right"], found["copy tier"], found["move tier"], found["streaming"]) != (
                    [1], [tier], [tier], [streaming]):
                yield f"{flag}: tier {tier} expected: {found}"

    found = report(program, "qemu64")
    if found["right"] != [1] or found["copy tier"] != [2]:
        yield f"baseline processor: {found}"

    # leaf 2 in place of leaf 4, then neither; with as few leaves the emulator has no wide vectors
    found = report(program, "qemu64,vendor=GenuineOrvex,level=2")
    if found["caches"][0] == 0 or found["tuning"] != genuine_tuning(found["caches"]):
        yield f"leaf 2: {found}"
    found = report(program, "qemu64,vendor=GenuineOrvex,level=1")
    if found["caches"] != [0, 0, 0] or found["tuning"] != DEFAULTS + [2]:
        yield f"no cache leaves: {found}"

    # the processor's level-2 size, from its extended leaf
    found = report(program, "max,vendor=AuthenticAMD")
    values = found["tuning"]
    if (found["caches"] != [0, 0, 0] or values[2:8] != DEFAULTS[2:] or values[8] != 1
            or values[0] != 2 * values[1] or values[0] % 65536 != 0):
        yield f"AuthenticAMD: {found}"
    found = report(program, "max,vendor=OtherVendor!")
    if found["tuning"] != DEFAULTS + [0]:
        yield f"other vendor: {found}"

    # while the program is loaded
    for cpu, value, status in [("GenuineOrvex,level=1", "1", 1), ("GenuineOrvex,level=1", "", 0),
                               ("GenuineOrvex,level=2", "1", 0), ("OtherVendor!,level=1", "1", 0)]:
        finished = run(program, f"qemu64,vendor={cpu}", __ORVEX_LIBKSO_DEBUG=value)
        if finished.returncode != status or (finished.stdout == MESSAGE) != (status == 1):
            yield f"debug variable {value!r} on {cpu}: {finished}"


def main():
    found = list(problems(sys.argv[1]))
    for problem in found:
        print(problem)
    print(f"{sum(map(len, TIER.values())) + 10} emulated processors")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
