#!/usr/bin/env python3
"""Installs a build, or unpacks an archive, into a scratch prefix and builds outside projects against it.

usage: install_test.py BUILD_DIRECTORY|ARCHIVE SCRATCH_DIRECTORY [TOOLCHAIN_FILE EMULATOR]

With a toolchain file the clients are Windows programs, run by the emulator. Without one there are
clients in Fortran, too.
"""

import itertools
import os
import pathlib
import shutil
import subprocess
import sys

TOP = pathlib.Path(__file__).resolve().parent.parent
SOURCES = TOP / "tests" / "install"


def run(*command, **options):
    result = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **options)
    if result.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))}\n{result.stdout}")
    return result.stdout


class Installation:
    def __init__(self, build, scratch, toolchain=None, emulator=None):
        self.scratch = pathlib.Path(scratch).resolve()
        self.prefix = self.scratch / "prefix"
        self.toolchain, self.emulator = toolchain, emulator
        self.fortran = None if toolchain else "gfortran"
        shutil.rmtree(self.scratch, ignore_errors=True)
        if pathlib.Path(build).is_dir():
            run("cmake", "--install", build, "--prefix", self.prefix)
        else:
            self.unpack(pathlib.Path(build))
        # Nothing may depend on where it was installed first.
        moved = self.scratch / "moved"
        self.prefix.rename(moved)
        self.prefix = moved

    def unpack(self, archive):
        self.scratch.mkdir(parents=True)
        if archive.suffix == ".zip":
            shutil.unpack_archive(archive, self.scratch)
        else:
            run("tar", "--zstd", "-xf", archive, "-C", self.scratch)
        top, = self.scratch.iterdir()
        top.rename(self.prefix)

    def execute(self, program):
        environment = dict(os.environ, LD_LIBRARY_PATH=str(self.prefix / "lib"),
                           WINEPATH=str(self.prefix / "bin"))
        command = [self.emulator, program] if self.emulator else [program]
        output = run(*command, env=environment)
        if "client ran" not in output:
            sys.exit(f"{program} printed:\n{output}")
        print(f"{pathlib.Path(program).name} ran")

    def check_layout(self):
        """What people need beside the library itself."""
        documents = self.prefix / "share" / "doc" / "ksomd"
        for path in (documents / "LICENSE", documents / "README.md",
                     self.prefix / "include" / "ksomd" / "matmul.f90",
                     self.prefix / "include" / "ksomd" / "libksomd.def",
                     self.prefix / "share" / "man" / "man1" / "ksomd-info.1"):
            if path.stat().st_size == 0:
                sys.exit(f"{path} is empty")
        if (TOP / "docs").is_dir():
            installed = {page.name for page in documents.rglob("*.md")}
            missing = {page.name for page in (TOP / "docs").rglob("*.md")} - installed
            if missing:
                sys.exit(f"not installed: {sorted(missing)}")
        for path in self.prefix.rglob("*"):
            if path.suffix in (".cmake", ".pc") and str(TOP) in path.read_text():
                sys.exit(f"{path} names the directory that it was built in")

    def run_info(self):
        suffix = ".exe" if self.toolchain else ""
        program = [self.prefix / "bin" / f"ksomd-info{suffix}", "--require", "sse2"]
        run(*([self.emulator] if self.emulator else []), *program)
        print("ksomd-info ran")

    def package_clients(self):
        build = self.scratch / "package"
        options = [f"-DCMAKE_TOOLCHAIN_FILE={self.toolchain}"] if self.toolchain else []
        languages = ["c", "cpp", "quad"]
        if self.fortran:
            options.append("-DCONSUMER_FORTRAN=ON")
            languages.append("f90")
        run("cmake", "-S", SOURCES, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
            f"-Dksomd_DIR={self.prefix}/lib/cmake/ksomd", *options)
        run("cmake", "--build", build)
        suffix = ".exe" if self.toolchain else ""
        for language, kind in itertools.product(languages, ("shared", "static")):
            self.execute(build / f"package_{language}_{kind}{suffix}")

    def pkg_config(self, *options):
        here = {"PKG_CONFIG_PATH": str(self.prefix / "lib" / "pkgconfig")}
        return run("pkg-config", *options, "ksomd", env=dict(os.environ, **here)).split()

    def plain_clients(self):
        """One with -lksomd alone, one with what pkg-config says; the system's own compilers."""
        roads = {
            "linked": ([f"-I{self.prefix}/include"], [f"-L{self.prefix}/lib", "-lksomd"]),
            "pkgconfig": (self.pkg_config("--cflags"), self.pkg_config("--libs")),
        }
        compilers = {"c": "gcc", "cpp": "g++"}
        if self.toolchain:
            compilers = {"c": "x86_64-w64-mingw32-gcc-posix",
                         "cpp": "x86_64-w64-mingw32-g++-posix"}
        for (road, (flags, libraries)), (language, compiler) in itertools.product(
                roads.items(), compilers.items()):
            client = self.scratch / f"{road}_{language}.exe"
            run(compiler, *flags, SOURCES / f"client.{language}", *libraries, "-o", client)
            self.execute(client)
        if self.fortran:
            module = {"linked": [self.prefix / "include" / "ksomd" / "matmul.f90"],
                      "pkgconfig": self.pkg_config("--variable=fortran_sources")}
            for road, (_, libraries) in roads.items():
                client = self.scratch / f"{road}_f90.exe"
                run(self.fortran, f"-J{self.scratch}", *module[road], SOURCES / "client.f90",
                    *libraries, "-o", client)
                self.execute(client)


def main():
    installation = Installation(*sys.argv[1:])
    installation.check_layout()
    installation.run_info()
    installation.package_clients()
    installation.plain_clients()


if __name__ == "__main__":
    main()
