#!/usr/bin/env python3
"""Compiles every public header alone, as C11 and as C++20, with each compiler and for both targets,
under whatever warnings a user may turn on; and a use of the templates; and what must not compile."""

import itertools
import pathlib
import subprocess
import sys

WARNINGS = ["-Wall", "-Wextra", "-Wpedantic", "-Wconversion", "-Wsign-conversion", "-Wshadow",
            "-Wundef", "-Wcast-align", "-Wcast-qual", "-Wdouble-promotion", "-Wfloat-equal",
            "-Wredundant-decls", "-Wmissing-declarations", "-Werror"]
# All but those about reserved names, which the exported ones are, and about C itself.
CLANG = ["-Weverything", "-Wno-reserved-identifier", "-Wno-unsafe-buffer-usage", "-Wno-padded",
         "-Wno-nrvo", "-Wno-declaration-after-statement", "-Wno-pre-c11-compat"]
C = ["-x", "c", "-std=c11", "-Wstrict-prototypes"]
CPP = ["-x", "c++", "-std=c++20", "-Wold-style-cast", "-Wextra-semi",
       "-Wzero-as-null-pointer-constant"]
GPP = [*CPP, "-Wuseless-cast", "-Wlogical-op", "-Wduplicated-branches", "-Wduplicated-cond"]
CLANGPP = [*CPP, *CLANG, "-Wno-c++98-compat", "-Wno-c++98-compat-pedantic",
           "-Wno-pre-c++20-compat-pedantic"]
WINDOWS = ["--target=x86_64-w64-windows-gnu"]
COMPILERS = [
    (["gcc", *C], ".h"),
    (["g++", *GPP], ".h .hpp"),
    (["clang-22", *C, *CLANG], ".h"),
    (["clang++-22", *CLANGPP], ".h .hpp"),
    (["x86_64-w64-mingw32-gcc-posix", *C], ".h"),
    (["x86_64-w64-mingw32-g++-posix", *GPP], ".h .hpp"),
    (["clang-22", *WINDOWS, *C, *CLANG], ".h"),
    (["clang++-22", *WINDOWS, *CLANGPP], ".h .hpp"),
]

# Compiled after the header: templates warn where they are used.
USES = {
    "quad.hpp": """
        #include <sstream>
        template <class... T> static ksomd::Quad sum(T... x) { return (ksomd::Quad(x) + ...); }
        template <class... T> static bool all(ksomd::Quad a) { return ((static_cast<T>(a) > T{0}) && ...); }
        int main() {
          using namespace ksomd::literals;
          using SignedChar = signed char;
          std::ostringstream out;
          const ksomd::Quad a = sum(SignedChar{1}, '1', short{1}, 1, 1U, 1L, 1UL, 1LL, 1ULL, 1.F, 1.,
                                    1'000.5e-1'0_q, 0_q, 1.L);
          out << a << std::hash<ksomd::Quad>()(a);
          return all<SignedChar, unsigned short, int, unsigned, long, unsigned long, long long,
                     unsigned long long, float, double, long double>(a) ? 0 : 1;
        }
        """,
    "matmul.hpp": """
        template <class T> static bool products() {
          T a[4] = {}, b[4] = {}, p[4] = {};
          const ksomd::MatrixView<const T> x(a, 2, 2);
          const ksomd::MatrixView<T> y(b, 2, 2), z(p, 2, 2);
          return ksomd::multiply(x, y, z) && ksomd::multiply(ksomd::transposed(x), y, z) &&
                 ksomd::multiply(x, ksomd::transposed(y), z.block(0, 0, 2, 2));
        }
        int main() {
          return products<float>() && products<double>() && products<std::complex<float>>() &&
                 products<ksomd_c8>() ? 0 : 1;
        }
        """,
}

# Sources that must not compile, and a word of the compiler's message.
REFUSED = [("#include <ksomd/quad.hpp>\nusing namespace ksomd::literals;\n"
            f"auto a = {literal};\n", "q_literal_is_hexadecimal_binary_or_octal_not_decimal")
           for literal in ("0x1F_q", "0x1p3_q", "0b1_q", "010_q")]


def compile_source(command, source):
    """The compiler's status and messages."""
    result = subprocess.run([*command, *WARNINGS, "-Iinclude", "-fsyntax-only", "-"], input=source,
                            text=True, stderr=subprocess.PIPE)
    return result.returncode, result.stderr


def main():
    headers = sorted(pathlib.Path("include/ksomd").glob("*.h*"))
    failed = compiled = 0
    for header, (command, suffixes) in itertools.product(headers, COMPILERS):
        if header.suffix not in suffixes.split():
            continue
        source = f"#include <ksomd/{header.name}>\n"
        for use in ["", USES[header.name]] if header.name in USES else [""]:
            status, messages = compile_source(command, f"{source}{use}\n")
            compiled += 1
            if status != 0:
                failed += 1
                print(f"{header.name} {'used' if use else 'alone'} with {' '.join(command)}:\n"
                      f"{messages}")
    print(f"{compiled} compilations of {len(headers)} headers, {failed} failed")
    for (source, word), command in itertools.product(REFUSED, (["g++", *GPP],
                                                               ["clang++-22", *CLANGPP])):
        status, messages = compile_source(command, source)
        if status == 0 or word not in messages:
            failed += 1
            print(f"{command[0]} should say {word} of\n{source}{messages}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
