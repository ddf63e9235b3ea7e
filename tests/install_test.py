#!/usr/bin/env python3
"""Installs a build into a scratch prefix and builds outside projects against it.

usage: install_test.py BUILD_DIRECTORY SCRATCH_DIRECTORY [TOOLCHAIN_FILE EMULATOR]

With a toolchain file the clients are Windows programs, run by the emulator.
"""

import os
import pathlib
import shutil
import subprocess
import sys

SOURCES = pathlib.Path(__file__).resolve().parent / "install"


def run(*command, **options):
    result = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **options)
    if result.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))}\n{result.stdout}")
    return result.stdout


class Installation:
    def __init__(self, build, scratch, toolchain=None, emulator=None):
        self.scratch = pathlib.Path(scratch)
        self.prefix = self.scratch / "prefix"
        self.toolchain, self.emulator = toolchain, emulator
        shutil.rmtree(self.scratch, ignore_errors=True)
        run("cmake", "--install", build, "--prefix", self.prefix)
        # Nothing may depend on where it was installed first.
        moved = self.scratch / "moved"
        self.prefix.rename(moved)
        self.prefix = moved

    def execute(self, program):
        environment = dict(os.environ, LD_LIBRARY_PATH=str(self.prefix / "lib"),
                           WINEPATH=str(self.prefix / "bin"))
        command = [self.emulator, program] if self.emulator else [program]
        output = run(*command, env=environment)
        if "client ran" not in output:
            sys.exit(f"{program} printed:\n{output}")
        print(f"{pathlib.Path(program).name} ran")

    def package_clients(self):
        build = self.scratch / "package"
        toolchain = [f"-DCMAKE_TOOLCHAIN_FILE={self.toolchain}"] if self.toolchain else []
        run("cmake", "-S", SOURCES, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
            f"-Dksomd_DIR={self.prefix}/lib/cmake/ksomd", *toolchain)
        run("cmake", "--build", build)
        suffix = ".exe" if self.toolchain else ""
        for language in ("c", "cpp", "quad"):
            for kind in ("shared", "static"):
                self.execute(build / f"package_{language}_{kind}{suffix}")

    def plain_clients(self):
        """One with -lksomd alone, one with what pkg-config says; the system's own compilers."""
        here = {"PKG_CONFIG_PATH": str(self.prefix / "lib" / "pkgconfig")}
        flags = run("pkg-config", "--cflags", "--libs", "ksomd", env=dict(os.environ, **here)).split()
        compilers = {"client.c": "gcc", "client.cpp": "g++"}
        if self.toolchain:
            compilers = {"client.c": "x86_64-w64-mingw32-gcc-posix",
                         "client.cpp": "x86_64-w64-mingw32-g++-posix"}
        for source, compiler in compilers.items():
            kind = source.rsplit(".", maxsplit=1)[-1]
            linked = self.scratch / f"linked_{kind}.exe"
            run(compiler, SOURCES / source, f"-I{self.prefix}/include", f"-L{self.prefix}/lib",
                "-lksomd", "-o", linked)
            self.execute(linked)
            configured = self.scratch / f"pkgconfig_{kind}.exe"
            run(compiler, SOURCES / source, *flags, "-o", configured)
            self.execute(configured)


def main():
    installation = Installation(*sys.argv[1:])
    installation.package_clients()
    installation.plain_clients()


if __name__ == "__main__":
    main()
