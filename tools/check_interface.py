#!/usr/bin/env python3
"""Compares the exported interface with the one that was agreed on, tests/abi/libksomd.abi: the names
that both products export, and the prototypes and types behind them, as the debug information of the
Linux library gives them. abidiff tells what changed.

usage: check_interface.py [--update] ABI_BUILD_DIRECTORY [PRODUCT...]

ABI_BUILD_DIRECTORY holds a libksomd.so with debug information; the PRODUCTs are shared objects of
either target. With --update the file is written anew from that library: what the change means
for programs that are linked already is for the one who commits it to judge.
"""

import pathlib
import re
import subprocess
import sys
import tempfile

from check_exports import elf_exports, pe_exports

PROTOTYPES = pathlib.Path("tests/abi/libksomd.abi")
# Nothing that depends on the machine or on where in a file a thing stands.
ABIDW = ["abidw", "--headers-dir", "include/ksomd", "--drop-private-types",
         "--exported-interfaces-only", "--drop-undefined-syms", "--no-show-locs",
         "--no-corpus-path", "--no-comp-dir-path", "--no-elf-needed", "--no-architecture",
         "--no-parameter-names", "--type-id-style", "hash"]


def name_lines(product):
    exports = (pe_exports if product.suffix == ".dll" else elf_exports)(str(product))
    return {name + (" DATA" if is_data else "") for name, (_, is_data) in exports.items()}


def agreed_lines():
    symbols = re.findall(r"<elf-symbol name='([^']+)'(.*)/>", PROTOTYPES.read_text())
    return {name + (" DATA" if "type='object-type'" in rest else "") for name, rest in symbols}


def dump(library):
    """The interface of a library, with paths that start at the top of the sources."""
    text = subprocess.check_output([*ABIDW, str(library)], text=True)
    return re.sub(r" path='[^']*?((?:src|include)/[^']*)'", r" path='\1'", text)


def check_names(product):
    agreed, found = agreed_lines(), name_lines(product)
    for line in sorted(agreed - found):
        yield f"{product}: not exported as agreed: {line}"
    for line in sorted(found - agreed):
        yield f"{product}: exported, but not agreed: {line}"


def check_prototypes(library):
    with tempfile.NamedTemporaryFile("w", suffix=".abi") as current:
        current.write(dump(library))
        current.flush()
        result = subprocess.run(["abidiff", str(PROTOTYPES), current.name],
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if result.returncode != 0:
        yield f"{library}: the interface is not the agreed one:\n{result.stdout}"
    elif PROTOTYPES.read_text().count("<function-decl") < 100:
        yield f"{PROTOTYPES} hardly holds any function"


def update(library):
    PROTOTYPES.write_text(dump(library))


def main():
    arguments = sys.argv[1:]
    updating = "--update" in arguments
    if updating:
        arguments.remove("--update")
    library, *products = (pathlib.Path(argument) for argument in arguments)
    library /= "libksomd.so"
    if updating:
        update(library)
    problems = list(check_prototypes(library))
    for product in [library, *products]:
        problems += check_names(product)
    print("\n".join(problems) or f"{len(agreed_lines())} names and their prototypes as agreed")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
