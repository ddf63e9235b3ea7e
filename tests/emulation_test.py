#!/usr/bin/env python3
"""Runs a report of the library's findings on emulated processors and compares it with what the
emulator was told to be.

usage: emulation_test.py REPORT_PROGRAM
"""

import subprocess
import sys

YMM = {"AVX", "MPX", "F16C", "FMA", "AVX2", "AVX_VNNI", "VAES", "VPCLMULQDQ"}

# What each switched-off emulator flag takes away, of what the full processor has.
REMOVED = {
    "-sse3": {"SSE3"},
    "-ssse3": {"SSSE3"},
    "-sse4.1": {"SSE4_1"},
    "-sse4.2": {"SSE4_2"},
    "-movbe": {"MOVBE"},
    "-popcnt": {"POPCNT"},
    "-pclmulqdq": {"PCLMULQDQ"},
    "-aes": {"AES"},
    "-f16c": {"F16C"},
    "-fma": {"FMA"},
    "-avx2": {"AVX2"},
    "-bmi1": {"BMI"},
    "-bmi2": {"BMI"},
    "-abm": {"LZCNT"},
    "-adx": {"ADX"},
    "-rdrand": {"RDRND"},
    "-rdseed": {"RDSEED"},
    "-erms": {"ERMSB"},
    "-vaes": {"VAES"},
    "-pku": {"PKU"},
    "-clwb": {"CLWB"},
    "-clflushopt": {"CLFLUSHOPT"},
    "-lahf-lm": {"LAHFSAHF64"},
    "-monitor": {"MWAIT"},
    "-mmx": {"MMX"},
    # without FXSAVE nothing of SSE counts
    "-fxsr": {"FXSAVE", "SSE", "SSE2", "SSE3", "SSSE3", "SSE4_1", "SSE4_2", "MOVBE", "POPCNT",
              "PCLMULQDQ", "AES", "SHA"},
    "-avx": YMM,    # the emulator then offers no YMM state
    "-xsave": YMM,  # nor any XCR0 at all
}
BASELINE = {"GENERIC_QX32", "X87", "CMOV", "MMX", "FXSAVE", "SSE", "SSE2"}


def report(program, cpu, **environment):
    output = subprocess.run(["qemu-x86_64", "-cpu", cpu, program], env=environment, check=True,
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True).stdout
    lines = dict(line.split(":", 1) for line in output.splitlines())
    return (set(lines["general"].split()), set(lines["gated"].split()),
            lines["general filled by the gated entry"].strip() == "1")


def problems(program):
    full, gated, filled = report(program, "max,vendor=GenuineOrvex")
    if not BASELINE | {"SSE4_2", "AVX", "AVX2", "FMA", "BMI", "LZCNT", "ERMSB"} <= full:
        yield f"the full processor has only {sorted(full)}"
    if gated != full or not filled:
        yield "genuine vendor: the two sets differ"

    general, gated, filled = report(program, "max,vendor=OtherVendor!")
    if general != full or gated != {"GENERIC_QX32"} or filled:
        yield f"other vendor: general {sorted(general)}, gated {sorted(gated)}"

    for flag, names in REMOVED.items():
        general, gated, _ = report(program, f"max,vendor=GenuineOrvex,{flag}")
        if general != full - names or gated != general:
            yield f"{flag}: lost {sorted(full - general)}, gained {sorted(general - full)}"

    general, gated, _ = report(program, "max,vendor=GenuineOrvex", ORVEX_ISA_DISABLE="avx,,sse4")
    if general != full - {"AVX", "SSE4_2"} or gated != general:
        yield f"variable: lost {sorted(full - general)}"

    general, _, _ = report(program, "qemu64")
    if not BASELINE <= general or general & YMM:
        yield f"baseline processor: {sorted(general)}"


def main():
    found = list(problems(sys.argv[1]))
    for problem in found:
        print(problem)
    print(f"{len(REMOVED) + 4} emulated processors")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
