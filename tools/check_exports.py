#!/usr/bin/env python3
"""Compares what a shared object exports with the module-definition file."""

import re
import subprocess
import sys


def defined_names(path):
    """Every exported name of the definition file, with whether it is data."""
    names = {}
    for line in open(path, encoding="ascii"):
        line = line.split(";")[0].strip()
        if not line or line.startswith(("LIBRARY", "EXPORTS")):
            continue
        names[line.split()[0]] = line.endswith(" DATA")
    return names


def elf_exports(path):
    output = subprocess.check_output(
        ["llvm-nm-22", "--dynamic", "--defined-only", "--format=posix", path], text=True)
    return {line.split()[0].split("@")[0] for line in output.splitlines()}


def pe_exports(path):
    output = subprocess.check_output(["llvm-readobj-22", "--coff-exports", path], text=True)
    return set(re.findall(r"^\s+Name: (\S+)$", output, re.M))


def main():
    definition, shared_object = sys.argv[1:]
    expected = set(defined_names(definition))
    actual = pe_exports(shared_object) if shared_object.endswith(".dll") else elf_exports(shared_object)
    for name in sorted(expected - actual):
        print(f"missing from {shared_object}: {name}")
    for name in sorted(actual - expected):
        print(f"exported but not in the definition file: {name}")
    print(f"{len(actual)} exported names, {len(expected)} in the definition file")
    return 0 if actual == expected else 1


if __name__ == "__main__":
    sys.exit(main())
