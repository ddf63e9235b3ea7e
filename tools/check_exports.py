#!/usr/bin/env python3
"""Compares what a shared object exports with the module-definition file: the names, which of them
are data, and which of them are one routine. In the static archive each name is an ordinary symbol
of the object that defines its routine: linkers agree on nothing else.

usage: check_exports.py DEFINITION_FILE SHARED_OBJECT ARCHIVE
"""

import collections
import re
import subprocess
import sys


def defined_names(path):
    """Every exported name of the definition file, with its target and whether it is data."""
    names = {}
    for line in open(path, encoding="ascii"):
        words = line.split(";")[0].replace('"', "").split()
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


# A line of llvm-objdump --syms that defines an ordinary external symbol, of ELF and of COFF.
ELF_SYMBOL = re.compile(r"(\w{16}) g.{5}[FO] (\S+)\t\w{16} (?:\.hidden )?(\S+)$")
COFF_SYMBOL = re.compile(r"\[ *\d+\]\(sec +(\d+)\)\(fl 0x00\)\(ty +\w+\)\(scl   2\) \(nx 0\) "
                         r"0x(\w{8}) (\S+)$")


def archive_symbols(path):
    """The places of every ordinary external symbol: member, section and offset."""
    places, member = collections.defaultdict(list), None
    for line in subprocess.check_output(["llvm-objdump-22", "--syms", path], text=True).splitlines():
        if "\tfile format " in line:
            member = line
        elif found := ELF_SYMBOL.match(line) or COFF_SYMBOL.match(line):
            *place, name = found.groups()
            if place[0] != "0":
                places[name].append((member, *place))
    return places


def archive_problems(expected, places):
    for name, (target, _) in sorted(expected.items()):
        if len(places[name]) != 1:
            yield f"{name} is defined {len(places[name])} times in the archive"
        elif places[name] != places[target]:
            yield f"{name} is not {target} in the archive"


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
    definition, shared_object, archive = sys.argv[1:]
    expected = defined_names(definition)
    actual = pe_exports(shared_object) if shared_object.endswith(".dll") else elf_exports(shared_object)
    found = [*problems(expected, actual), *archive_problems(expected, archive_symbols(archive))]
    for problem in found:
        print(f"{shared_object}: {problem}")
    print(f"{len(actual)} exported names, {len(expected)} in the definition file")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
