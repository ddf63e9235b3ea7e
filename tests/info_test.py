#!/usr/bin/env python3
"""Runs ksomd-info as people and scripts do: options, exit statuses, the disable variable, and
processors that differ.

usage: info_test.py PROGRAM [WRAPPER]

The wrapper runs a program of another system. Without one the program also runs on emulated
processors, where what it has to say is known.
"""

import json
import os
import subprocess
import sys

VARIABLE = "ORVEX_ISA_DISABLE"
problems = []


def expect(condition, *what):
    if not condition:
        problems.append(" ".join(map(str, what)))


class Info:
    def __init__(self, *command):
        self.command = command

    def run(self, *options, disable=None, output=subprocess.PIPE):
        environment = {key: value for key, value in os.environ.items() if key != VARIABLE}
        if disable is not None:
            environment[VARIABLE] = disable
        result = subprocess.run([*self.command, *options], env=environment,
                                stdin=subprocess.DEVNULL, stdout=output,
                                stderr=subprocess.PIPE, text=True)
        return result.returncode, result.stdout, result.stderr

    def json(self, disable=None):
        status, output, _ = self.run("--json", disable=disable)
        expect(status == 0, "--json ended with", status)
        return json.loads(output)


def features(report):
    return {row["name"]: row for row in report["features"]}


def present(report):
    return {row["name"] for row in report["features"] if row["present"]}


def variants(report):
    return {row["entry"]: row["variant"] for row in report["dispatch"]}


def levels(report):
    return {row["level"]: row for row in report["levels"]}


def check_usage(info):
    for options in (["--nothing"], ["--json", "more"], ["--require"], ["--require", ""],
                    ["--require", "sse2,avx3"], ["--require", "sse2", "more"]):
        status, output, errors = info.run(*options)
        expect(status == 2 and output == "" and errors != "", options, status, output)
    for option in ("--help", "--version"):
        status, output, errors = info.run(option)
        expect(status == 0 and output != "" and errors == "", option, status, errors)
    expect("avx3" in info.run("--require", "sse2,avx3")[2], "the unknown name is not named")
    with open("/dev/full", "w", encoding="ascii") as full:
        for options in ([], ["--json"], ["--version"], ["--require", "plxni"]):
            status, _, errors = info.run(*options, output=full)
            expect(status == 3 and "cannot write" in errors, options, "on a full disk:", status)


def check_consistency(info, report):
    """What the parts of one report say about each other."""
    there, rows = present(report), features(report)
    expect(len(rows) == 106, len(rows), "features")
    for row in rows.values():
        expect(row["present"] == (row["reason"] is None), "reason of", row)
    for level in report["levels"]:
        expect(level["passes"] == (not level["missing"]), level)
        expect(not there & set(level["missing"]), level)
    text = info.run()[1]
    for word in [*rows, *variants(report), *report["tuning"], "Start-up checks"]:
        expect(word in text, word, "is missing in the text")
    for name, row in rows.items():
        if name in ("SSE2", "AVX2", "AMX-FP8", "PLXNI"):
            status, output, _ = info.run("--require", f"sse2,{name.lower()}")
            expect(status == (0 if row["present"] else 1), "--require", name, status)
            expect(output == ("" if row["present"] else f"{name}: {row['reason']}\n"), output)


def check_variable(info, before):
    misspelt = "sse2,nonsense,,avx2"
    after = info.json(disable=misspelt)
    expect(after["disable_variable"]["unknown"] == ["nonsense"], after["disable_variable"])
    expect('"nonsense" there names no feature' in info.run(disable=misspelt)[1],
           "the text does not mark a misspelt name")
    lost = present(before) - present(after)
    expect(lost == {"SSE2", "AVX2"} & present(before), "switched off:", lost)
    expect(features(after)["SSE2"]["reason"] == f"switched off by {VARIABLE}",
           features(after)["SSE2"])
    expect(not levels(after)["B"]["passes"] and levels(after)["B"]["missing"] == ["SSE2"],
           levels(after)["B"])
    expect(levels(after)["B"]["message"]["number"] == 44, levels(after)["B"])
    expect(levels(after)[""]["passes"] and levels(after)[""]["message"] is None,
           levels(after)[""])
    taken = variants(after)
    expect(taken["_orvex_fast_memcpy"] == "std::memmove", taken["_orvex_fast_memcpy"])
    expect(taken["_MATMUL_r8_n_n"] == "portable" and taken["__divq"] == ".A", taken)
    status, output, _ = info.run("--require", "SSE,SSE2", disable="sse2")
    expect((status, output) == (1, f"SSE2: switched off by {VARIABLE}\n"), status, output)


def emulated(program, cpu):
    return Info("qemu-x86_64", "-cpu", cpu, program)


def check_emulated(program):
    genuine = emulated(program, "max,vendor=GenuineOrvex")
    report = genuine.json()
    check_consistency(genuine, report)
    check_variable(genuine, report)
    expect(report["processor"]["genuine"], report["processor"])
    expect(all(level["passes"] for level in report["levels"]), report["levels"])
    expect(variants(report)["_orvex_fast_memcpy"] == "__orvex_avx_rep_memcpy", variants(report))
    sizes = [cache["size_kib"] for cache in report["caches"]]
    tuning = report["tuning"]
    expect(sizes[0] > 0 and tuning["l1_size"] == sizes[0] * 1024, sizes, tuning)
    expect(tuning["largest_cache_size"] == max(sizes) * 1024, sizes, tuning)
    expect(tuning["mem_class"] == 2, tuning)

    # AVX2 stays reported where the emulator offers no state for it.
    rows = features(emulated(program, "max,vendor=GenuineOrvex,-avx").json())
    expect(rows["AVX2"]["reason"] ==
           "reported, but the system does not preserve the YMM registers", rows["AVX2"])
    rows = features(emulated(program, "max,vendor=GenuineOrvex,-fxsr").json())
    expect(rows["SSE2"]["reason"] ==
           "reported, but the processor does not report FXSAVE", rows["SSE2"])

    report = emulated(program, "qemu64,vendor=GenuineOrvex").json()
    failing = {level["level"] for level in report["levels"] if not level["passes"]}
    expect({"G", "I", "E"} <= failing and not {"", "B", "N", "P"} & failing, failing)
    expect(variants(report)["_orvex_fast_memcpy"] == "__orvex_new_memcpy", variants(report))

    report = emulated(program, "EPYC").json()
    expect(not report["processor"]["genuine"], report["processor"])
    expect(report["tuning"]["mem_class"] == 1, report["tuning"])
    expect(report["tuning"]["largest_cache_size"] == 512 * 1024, report["tuning"])


def main():
    program, *wrapper = sys.argv[1:]
    info = Info(*wrapper, program)
    check_usage(info)
    report = info.json()
    check_consistency(info, report)
    check_variable(info, report)
    if not wrapper:
        check_emulated(program)
    print("\n".join(problems) or "ksomd-info tells what it should")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
