#!/usr/bin/env python3
"""Checks of the object code that no source shows.

  - VEX and EVEX instructions stand only in the objects of the processor-specific variants.
  - No object holds a fused multiply-add.
  - Readers of the feature set reach their feature test after one load and one compare.
  - Each product runs the load-time constructors that it should, and no more.
  - The DLL imports KERNEL32, the C run-time and imagehlp, nothing else.
  - No product needs or holds a binary128 routine of the compiler's run-time.
"""

import pathlib
import re
import subprocess
import sys

# Sources that may hold VEX or EVEX instructions: the variants for processors that have them.
VARIANTS = re.compile(r"/mem/(avx|avx512)[^/]*\.cpp\.o|/matmul/kernel/avx(512)?\.cpp\.o")
CONSTRUCTORS = 1
# Routines that read the feature set on every call: object, and a part of the name.
READERS = [("startup.cpp", "::verify(")]
IMPORTS = {"kernel32.dll", "msvcrt.dll", "imagehlp.dll"}

# Mnemonics of instructions with a VEX or EVEX prefix.
WIDE = re.compile(
    r"v(?!err|erw|mcall|mclear|mfunc|mlaunch|mload|mptr|mread|mresume|mrun|msave|mwrite|mx)"
    r"|k(add|and|mov|not|or|shift|test|unpck|xnor|xor)"
    r"|(andn|bextr|blsi|blsmsk|blsr|bzhi|mulx|pdep|pext|rorx|sarx|shlx|shrx)[lq]?$")
# The compiler's own binary128 routines, on Windows also as imported pointers.
BINARY128 = re.compile(
    r"(?:__imp_)?__(?:(?:add|sub|mul|div)tf3|(?:eq|ne|lt|le|gt|ge|cmp|unord|neg|powi)tf2"
    r"|extend\w+tf2?|trunctf\w+|fix(?:uns)?tf\w+|float\w*[sdt]itf|(?:mul|div)tc3)")
PRODUCTS = ["host/libksomd.so", "host/libksomd.a", "windows/libksomd.dll", "windows/libksomd.a"]
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
            columns = line.split("\t")
            if len(columns) > 1 and WIDE.match(columns[1]) and not VARIANTS.search(str(path)):
                yield f"{path}: wide instruction {columns[1]} outside the variants"


def check_reader(preset):
    """A reader loads the feature set in one place, and reaches its test after one compare."""
    for name, symbol in READERS:
        path = next(p for p in objects(preset) if p.name.startswith(name))
        listing = run("llvm-objdump-22", "-dr", "--no-show-raw-insn", "--demangle", str(path))
        body = re.search(rf"<[^>]*{re.escape(symbol)}[^>]*>:\n(.*?)\n\n", listing + "\n\n", re.S)[1]
        before_branch = re.split(r"\tj[a-z]+\t", body)[0]
        loads = body.count("__orvex_cpu_feature_indicator")
        compares = len(re.findall(r"\t(?:test|cmp)[a-z]*\t", before_branch))
        if (loads, compares, before_branch.count("\tcall")) != (1, 1, 0):
            yield f"{path}: {symbol}: {loads} loads, {compares} compares before the first branch"


def check_constructors(preset):
    count = 0
    for path in objects(preset):
        sections = run("llvm-readobj-22", "--sections", str(path))
        for size in re.findall(r"Name: \.(?:init_array|ctors)\S* .*?\b(?:RawData)?Size: (\w+)",
                               sections, re.S):
            count += int(size, 0) // 8
    if count != CONSTRUCTORS:
        yield f"{preset}: {count} load-time constructors instead of {CONSTRUCTORS}"


def check_imports():
    listing = run("llvm-readobj-22", "--coff-imports", "build/windows/libksomd.dll")
    found = {name.lower() for name in re.findall(r"^  Name: (\S+)$", listing, re.M)}
    for name in sorted(found - IMPORTS):
        yield f"libksomd.dll imports {name}"
    if "kernel32.dll" not in found:
        yield "libksomd.dll imports nothing: was the listing understood?"


def check_needed_libraries():
    listing = run("llvm-readobj-22", "--needed-libs", "build/host/libksomd.so")
    if "stdc++" in listing or "libc++" in listing:
        yield "libksomd.so needs a C++ run-time library"


def check_binary128():
    for product in PRODUCTS:
        path = f"build/{product}"
        symbols = run("llvm-nm-22", "--format=just-symbols", path).split()
        for symbol in sorted({s for s in symbols if BINARY128.fullmatch(s)}):
            yield f"{path}: {symbol} of the compiler's run-time"
        if "__addq" not in symbols:
            yield f"{path}: no __addq: was the listing understood?"


def main():
    problems = [*check_imports(), *check_needed_libraries(), *check_binary128()]
    for preset in ("host", "windows"):
        problems += [
            *check_instructions(preset), *check_reader(preset), *check_constructors(preset)]
    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
