#!/usr/bin/env python3
"""Checks of the object code that no source shows.

  - VEX and EVEX instructions stand only in the objects of the processor-specific variants.
  - No object holds a fused multiply-add.
  - Each product runs the load-time constructors that it should, and no more.
  - The DLL imports KERNEL32, the C run-time and imagehlp, nothing else.
"""

import pathlib
import re
import subprocess
import sys

# Sources that may hold VEX or EVEX instructions: the variants for processors that have them.
VARIANTS = re.compile(r"/mem/(avx|avx512)[^/]*\.cpp\.o|/matmul/[^/]*_(avx|avx512)\.cpp\.o")
CONSTRUCTORS = 1
IMPORTS = {"kernel32.dll", "msvcrt.dll", "imagehlp.dll"}

# Bytes of a VEX (C4, C5) or EVEX (62) prefix, which mean nothing else in 64-bit code.
WIDE = re.compile(r"^\s*[0-9a-f]+:\s+(?:[0-9a-f]{2} )*?(?:c4|c5|62) [0-9a-f ]*\s+(\S+)")
FUSED = re.compile(r"\s(vfn?m(add|sub)\S*)")


def run(*command):
    return subprocess.check_output(command, text=True)


def objects(preset):
    root = pathlib.Path("build") / preset / "src" / "CMakeFiles" / "ksomd_objects.dir"
    return sorted(root.rglob("*.o*"))


def check_instructions(preset):
    for path in objects(preset):
        listing = run("llvm-objdump-22", "-d", str(path))
        for line in listing.splitlines():
            fused = FUSED.search(line)
            if fused:
                yield f"{path}: fused multiply-add {fused[1]}"
            mnemonic = line.split("\t")[1].split()[0] if line.count("\t") >= 1 and ":" in line else ""
            if mnemonic.startswith("v") and not mnemonic.startswith(("verr", "verw", "vm")) \
                    and not VARIANTS.search(str(path)):
                yield f"{path}: wide instruction {mnemonic} outside the variants"


def check_constructors(preset):
    count = 0
    for path in objects(preset):
        sections = run("llvm-readobj-22", "--sections", str(path))
        count += len(re.findall(r"Name: \.(?:init_array|ctors)\S*", sections))
    if count != CONSTRUCTORS:
        yield f"{preset}: {count} load-time constructors instead of {CONSTRUCTORS}"


def check_imports():
    listing = run("llvm-readobj-22", "--coff-imports", "build/windows/libksomd.dll")
    found = {name.lower() for name in re.findall(r"^  Name: (\S+)$", listing, re.M)}
    for name in sorted(found - IMPORTS):
        yield f"libksomd.dll imports {name}"


def check_needed_libraries():
    listing = run("llvm-readobj-22", "--needed-libs", "build/host/libksomd.so")
    if "stdc++" in listing or "libc++" in listing:
        yield "libksomd.so needs a C++ run-time library"


def main():
    problems = [*check_imports(), *check_needed_libraries()]
    for preset in ("host", "windows"):
        problems += [*check_instructions(preset), *check_constructors(preset)]
    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
