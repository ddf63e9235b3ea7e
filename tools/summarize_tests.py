#!/usr/bin/env python3
"""Adds up the test cases of one or more presets; the last line counts them.

usage: summarize_tests.py [--entries LIBRARY.def] PRESET...

A GoogleTest program counts case by case, by its report; any other test counts as one case, by
what CTest says of it. A program that ended without a report counts as one failed case. With
--entries a name of the export list that no test asked for counts as one, too.
"""

import argparse
import pathlib
import sys
import xml.etree.ElementTree as xml


def program_cases(report):
    """(name, outcome, reason) of every case in a GoogleTest report."""
    for case in xml.parse(report).getroot().iter("testcase"):
        name = f'{case.get("classname")}.{case.get("name")}'
        skipped = case.find("skipped")
        if case.find("failure") is not None:
            yield name, "failed", ""
        elif skipped is not None:
            reason = skipped.get("message", "").splitlines()
            yield name, "skipped", reason[-1] if reason else ""
        elif case.get("result") == "completed":
            yield name, "passed", ""


def preset_cases(preset):
    directory = pathlib.Path("build") / preset
    results = directory / "ctest.xml"
    if not results.exists():
        yield preset, "failed", "nothing ran"
        return
    for test in xml.parse(results).getroot().iter("testcase"):
        name, status = test.get("name"), test.get("status")
        outcome = {"run": "passed", "fail": "failed"}.get(status, "skipped")
        report = directory / "tests" / "reports" / f"{name}.xml"
        if not report.exists():
            yield name, outcome, "" if outcome != "skipped" else "left out of this build"
            continue
        cases = [(f"{name}: {case}", *rest) for case, *rest in program_cases(report)]
        yield from cases
        if outcome == "failed" and all(case[1] != "failed" for case in cases):
            yield name, "failed", "ended abnormally"


def entry_cases(preset, definition):
    """A failed case for every exported name that no program of the preset asked for."""
    asked = set()
    for report in (pathlib.Path("build") / preset / "tests/reports").glob("*.entries"):
        asked.update(report.read_text().split())
    for line in definition.read_text().splitlines():
        name = line.split(";")[0].replace('"', "").split()[:1]
        if name and name[0] not in ("LIBRARY", "EXPORTS") and name[0] not in asked:
            yield f"no test asks for {name[0]}", "failed", ""


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("--entries", type=pathlib.Path)
    parser.add_argument("presets", nargs="+")
    arguments = parser.parse_args()
    counts = {"passed": 0, "failed": 0, "skipped": 0}
    for preset in arguments.presets:
        cases = list(preset_cases(preset))
        if arguments.entries:
            cases += entry_cases(preset, arguments.entries)
        for name, outcome, reason in cases:
            counts[outcome] += 1
            if outcome != "passed":
                print(f"{outcome} ({preset}): {name}" + (f": {reason.strip()}" if reason else ""))
    print(", ".join(f"{count} {outcome}" for outcome, count in counts.items()))
    return 1 if counts["failed"] or not counts["passed"] else 0


if __name__ == "__main__":
    sys.exit(main())
