#!/usr/bin/env python3
"""Compares what a shared object exports with the module-definition file: the names, which of them
are data, and which of them are one routine."""

import collections
import re
import subprocess
import sys


def defined_names(path):
    """Every exported name of the definition file, with its target and whether it is data."""
    names = {}
    for line in open(path, encoding="ascii"):
        words = line.split(";")[0].split()
        if words and words[0] not in ("LIBRARY", "EXPORTS"):
            target = words[2] if words[1:2] == ["="] else words[0]
            names[words[0]] = (target, words[-1] == "DATA")
    return names


def elf_exports(path):
    """Every exported name with its address and whether it is data."""
    output = subprocess.check_output(
        ["llvm-nm-22", "--dynamic", "--defined-only", "--format=posix", path], text=True)
    rows = (line.split() for line in output.splitlines())
    return {name.split("@")[0]: (int(address, 16), kind in "BbDdRr")
            for name, kind, address, *_ in rows}


def pe_exports(path):
    code = section_range(path, ".text")
    output = subprocess.check_output(["llvm-readobj-22", "--coff-exports", path], text=True)
    rows = re.findall(r"^\s+Name: (\S+)\n\s+RVA: 0x([0-9A-F]+)$", output, re.M)
    return {name: (int(address, 16), int(address, 16) not in code) for name, address in rows}


def section_range(path, name):
    output = subprocess.check_output(["llvm-readobj-22", "--sections", path], text=True)
    found = re.search(rf"Name: {re.escape(name)} .*?VirtualSize: 0x([0-9A-F]+).*?"
                      r"VirtualAddress: 0x([0-9A-F]+)", output, re.S)
    size, start = (int(number, 16) for number in found.groups())
    return range(start, start + size)


def problems(expected, actual):
    for name in sorted(expected.keys() - actual.keys()):
        yield f"missing: {name}"
    for name in sorted(actual.keys() - expected.keys()):
        yield f"exported but not in the definition file: {name}"
    addresses = collections.defaultdict(set)
    for name in sorted(expected.keys() & actual.keys()):
        (target, is_data), (address, found_data) = expected[name], actual[name]
        addresses[target].add(address)
        if is_data != found_data:
            yield f"{name} is {'data' if found_data else 'code'}"
    for target, found in addresses.items():
        if len(found) != 1:
            yield f"the names of {target} are not one routine"
    if len(set().union(*addresses.values())) != len(addresses):
        yield "names of different routines share an address"


def main():
    definition, shared_object = sys.argv[1:]
    expected = defined_names(definition)
    actual = pe_exports(shared_object) if shared_object.endswith(".dll") else elf_exports(shared_object)
    found = list(problems(expected, actual))
    for problem in found:
        print(f"{shared_object}: {problem}")
    print(f"{len(actual)} exported names, {len(expected)} in the definition file")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
