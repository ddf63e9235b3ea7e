#!/usr/bin/env python3
"""Compares how many instructions fixed calls execute with a stored table: neither clock nor load
decides, so a few per cent show.

usage: count_instructions.py [--update] [REPORT_PROGRAM]

A call that executes over 2 % more than in the table is an error, as is one that the table does not
have; one that executes over 2 % less is told, for the table to follow (--update). Levels that this
machine's processor does not have keep their figures.
"""

import pathlib
import subprocess
import sys

TABLE = pathlib.Path(__file__).parent / "instructions.txt"
SLACK = 0.02


def parse(text):
    figures, absent = {}, set()
    for line in text.splitlines():
        name, figure = line.rsplit(" ", 1) if " " in line else ("", line)
        if figure == "absent":
            absent.add(name)
        else:
            figures[name] = int(figure)
    return figures, absent


def main():
    arguments = sys.argv[1:]
    update = "--update" in arguments
    programs = [a for a in arguments if not a.startswith("-")]
    program = programs[0] if programs else "build/host/tests/instruction_report"
    output = subprocess.run([program], check=True, text=True, stdout=subprocess.PIPE).stdout
    now, absent = parse(output)
    if "" in absent:
        print("This process cannot be single-stepped: no instruction was counted.")
        return 0
    stored = parse(TABLE.read_text())[0] if TABLE.exists() else {}
    kept = {name: figure for name, figure in stored.items() if name.split("/")[0] in absent}
    if update:
        TABLE.write_text("".join(f"{n} {f}\n" for n, f in sorted((kept | now).items())))
        print(f"{len(now)} figures stored, {len(kept)} of other processors kept")
        return 0
    wrong = 0
    for name in sorted(now.keys() | stored.keys() - kept.keys()):
        new, old = now.get(name), stored.get(name)
        if new is None or old is None:
            print(f"{name}: {'no longer counted' if new is None else 'not in the table'}")
        elif abs(new - old) > SLACK * old:
            print(f"{name}: {old} -> {new} instructions ({(new / old - 1) * 100:+.1f} %)")
            if new < old:
                continue
        else:
            continue
        wrong += 1
    levels = f"; not on this processor: {', '.join(sorted(absent))}" if absent else ""
    print(f"{len(now)} calls counted, {wrong} beyond the table{levels}")
    if wrong:
        print("If that is meant: tools/count_instructions.py --update")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
