#!/usr/bin/env python3
"""Runs ksomd-info as people and scripts do: options, exit statuses, the disable variable.

usage: info_test.py PROGRAM [WRAPPER]

The wrapper runs a program of another system. Without one the program also runs on emulated
processors, where what it has to say is known.
"""

import json
import os
import subprocess
import sys

problems = []
USAGE = ((["--help"], 0), (["--version"], 0), (["--nothing"], 2), (["--json", "more"], 2),
         (["--require"], 2), (["--require", ""], 2), (["--require", "sse2,avx3"], 2),
         (["--require", "sse2", "more"], 2))


def expect(condition, *what):
    if not condition:
        problems.append(" ".join(map(str, what)))


def run(command, *options, disable="", output=subprocess.PIPE):
    result = subprocess.run([*command, *options], stdin=subprocess.DEVNULL, stdout=output,
                            stderr=subprocess.PIPE, text=True,
                            env=dict(os.environ, ORVEX_ISA_DISABLE=disable))
    return result.returncode, result.stdout, result.stderr


def report(command, disable=""):
    status, output, _ = run(command, "--json", disable=disable)
    expect(status == 0, "--json ended with", status)
    told = json.loads(output)
    for kind, key in (("features", "name"), ("levels", "level"), ("dispatch", "entry")):
        told[kind] = {row[key]: row for row in told[kind]}
    told["present"] = {name for name, row in told["features"].items() if row["present"]}
    return told


def check_usage(command):
    for options, expected in USAGE:
        status, output, errors = run(command, *options)
        expect((status, output == "", errors != "") == (expected, expected != 0, expected != 0),
               options, status, output, errors)
    expect("avx3" in run(command, "--require", "sse2,avx3")[2], "the unknown name is not named")
    with open("/dev/full", "w", encoding="ascii") as full:
        for options in ([], ["--json"], ["--version"], ["--require", "plxni"]):
            status, _, errors = run(command, *options, output=full)
            expect(status == 3 and "cannot write" in errors, options, "on a full disk:", status)


def check_agreement(command, told):
    """What the JSON object, the text and --require say about each other."""
    rows, text = told["features"], run(command)[1]
    expect(len(rows) == 106, len(rows), "features")
    for level in told["levels"].values():
        expect(level["passes"] == (not level["missing"]), level)
        expect(not told["present"] & set(level["missing"]), level)
    for word in [*rows, *told["dispatch"], *told["tuning"], "Start-up checks"]:
        expect(word in text, word, "is missing in the text")
    lists = [line for line in text.splitlines() if line.startswith("  ") and "   " not in line]
    expect(max(map(len, lists)) <= 96, "a list is wider than 96 columns")
    for name, row in rows.items():
        expect(row["present"] == (row["reason"] is None), row)
        if name in ("SSE2", "AVX2", "AMX-FP8", "PLXNI"):
            status, output, _ = run(command, "--require", f"sse2,{name.lower()}")
            expect((status, output) == ((0, "") if row["present"] else (1, f"{name}: {row['reason']}\n")),
                   status, output)


def check_variable(command, before, odd):
    after = report(command, f"sse2,{odd},,avx2")
    expect(after["disable_variable"]["unknown"] == [odd.encode().decode("latin-1")],
           after["disable_variable"])
    expect(f'"{odd}" there names no feature' in run(command, disable=odd)[1], "no misspelt name")
    lost = before["present"] - after["present"]
    expect(lost == {"SSE2", "AVX2"} & before["present"], "switched off:", lost)
    level, lowest = after["levels"]["B"], after["levels"][""]
    expect(level["missing"] == ["SSE2"] and level["message"]["number"] == 44, level)
    expect(lowest["passes"] and lowest["message"] is None, lowest)
    expect(after["dispatch"]["__divq"]["variant"] == ".A", after["dispatch"])
    status, output, _ = run(command, "--require", "SSE,SSE2", disable="sse2")
    expect((status, output) == (1, "SSE2: switched off by ORVEX_ISA_DISABLE\n"), status, output)


def main():
    program, *wrapper = sys.argv[1:]
    commands = [[*wrapper, program]]
    if not wrapper:
        commands += [["qemu-x86_64", "-cpu", cpu, program]
                     for cpu in ("EPYC", "max,vendor=GenuineOrvex")]
    check_usage(commands[0])
    for command in commands:
        told = report(command)
        check_agreement(command, told)
        check_variable(command, told, "nonsense" if wrapper else 'n\u00f6n"\\\tsense')
    if not wrapper:  # the last one's answers are known
        sizes, tuning = [cache["size_kib"] * 1024 for cache in told["caches"]], told["tuning"]
        expect(told["processor"]["genuine"], told["processor"])
        expect(tuning["l1_size"] == sizes[0] > 0, sizes, tuning)
        expect(tuning["largest_cache_size"] == max(sizes), sizes, tuning)
    print("\n".join(problems) or "ksomd-info tells what it should")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
