#!/usr/bin/env python3
"""Compiles every public header alone, as C11 and as C++20, with each compiler and for both targets."""

import itertools
import pathlib
import subprocess
import sys

WARNINGS = ["-Wall", "-Wextra", "-Wpedantic", "-Wconversion", "-Wshadow", "-Wundef", "-Werror"]
C = ["-x", "c", "-std=c11", "-Wstrict-prototypes"]
CPP = ["-x", "c++", "-std=c++20"]
WINDOWS = ["--target=x86_64-w64-windows-gnu"]
COMPILERS = [
    (["gcc", *C], ".h"),
    (["g++", *CPP], ".h .hpp"),
    (["clang-22", *C], ".h"),
    (["clang++-22", *CPP], ".h .hpp"),
    (["x86_64-w64-mingw32-gcc-posix", *C], ".h"),
    (["x86_64-w64-mingw32-g++-posix", *CPP], ".h .hpp"),
    (["clang-22", *WINDOWS, *C], ".h"),
    (["clang++-22", *WINDOWS, *CPP], ".h .hpp"),
]


def main():
    headers = sorted(pathlib.Path("include/ksomd").glob("*.h*"))
    failed = compiled = 0
    for header, (command, suffixes) in itertools.product(headers, COMPILERS):
        if header.suffix not in suffixes.split():
            continue
        source = f"#include <ksomd/{header.name}>\n"
        result = subprocess.run([*command, *WARNINGS, "-Iinclude", "-fsyntax-only", "-"],
                                input=source, text=True, stderr=subprocess.PIPE)
        compiled += 1
        if result.returncode != 0:
            failed += 1
            print(f"{header.name} alone with {' '.join(command)}:\n{result.stderr}")
    print(f"{compiled} compilations of {len(headers)} headers, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
