#!/usr/bin/env python3
"""Installs a build, or unpacks an archive, into a scratch prefix and builds outside projects against it.

usage: install_test.py BUILD_DIRECTORY|ARCHIVE SCRATCH_DIRECTORY [TOOLCHAIN_FILE EMULATOR]
       install_test.py --sources SCRATCH_DIRECTORY

With a toolchain file the clients are Windows programs, run by the emulator. Without one there are
clients in Fortran, too. With --sources the builds are made first, as somebody does who has only
CMake and a compiler: from a copy of the sources, without a preset, by each compiler in turn.
Directories have blanks in their names.
"""

import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys

TOP = pathlib.Path(__file__).resolve().parent.parent
SOURCES = TOP / "tests" / "install"
LARGEST_SUM = 64 * 1024  # what a program may grow by that adds two quads
GCC = ("gcc", "g++")
CLANG = tuple(shutil.which(f"{name}-22") or name for name in ("clang", "clang++"))
MINGW = ("x86_64-w64-mingw32-gcc-posix", "x86_64-w64-mingw32-g++-posix")


def run(*command, **options):
    result = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL, text=True,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **options)
    if result.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))}\n{result.stdout}")
    return result.stdout


def chosen(c, cpp):
    return [f"-DCMAKE_C_COMPILER={c}", f"-DCMAKE_CXX_COMPILER={cpp}"]


def build(sources, directory, *options):
    run("cmake", "-S", sources, "-B", directory, *options)
    run("cmake", "--build", directory, "--parallel", os.cpu_count())
    return directory


class Installation:
    def __init__(self, product, scratch, toolchain=None, emulator=None):
        self.scratch = pathlib.Path(scratch).resolve()
        self.toolchain, self.wrapper = toolchain, [emulator] if emulator else []
        self.compilers = [MINGW] if toolchain else [GCC, CLANG]
        product = pathlib.Path(product).resolve()
        shutil.rmtree(self.scratch, ignore_errors=True)
        self.scratch.mkdir(parents=True)
        if product.is_dir():
            run("cmake", "--install", product, "--prefix", self.scratch / "prefix")
        else:
            run("cmake", "-E", "tar", "xf", product, cwd=self.scratch)
        # Nothing may depend on where it was installed first.
        first, = self.scratch.iterdir()
        self.prefix = first.rename(self.scratch / "moved prefix")
        package, = self.prefix.rglob("ksomd.pc")
        self.libraries = package.parent.parent
        # Where Windows programs find the library, and the C++ run-time that Windows does not bring.
        path = [self.prefix / "bin"]
        for library in ("libstdc++-6.dll", "libwinpthread-1.dll") if toolchain else ():
            path.append(pathlib.Path(run(MINGW[1], f"-print-file-name={library}")).parent)
        self.environment = dict(os.environ, LD_LIBRARY_PATH=str(self.libraries),
                                WINEPATH=";".join(map(str, path)),
                                PKG_CONFIG_PATH=str(self.libraries / "pkgconfig"))

    def client(self, name, *command):
        program = self.scratch / f"{name}.exe"
        run(*command, "-o", program)
        run(*self.wrapper, program, env=self.environment)
        return program

    def check_layout(self):
        """What people need beside the library itself."""
        documents = self.prefix / "share" / "doc" / "ksomd"
        for name in ("share/doc/ksomd/LICENSE", "include/ksomd/matmul.f90",
                     "include/ksomd/libksomd.def", "share/man/man1/ksomd-info.1"):
            if not (self.prefix / name).read_bytes():
                sys.exit(f"{name} is empty")
        for page in (TOP / "README.md", *(TOP / "docs").rglob("*.md")):
            if page.exists() and not (documents / page.relative_to(TOP)).exists():
                sys.exit(f"not installed: {page}")
        for page in documents.rglob("*.md"):
            for link in re.findall(r"\]\(([^):#]+)[)#]", page.read_text()):
                if not (page.parent / link).exists():
                    sys.exit(f"{page}: no {link}")
        for path in self.prefix.rglob("*"):
            if path.suffix in (".cmake", ".pc") and str(TOP) in path.read_text():
                sys.exit(f"{path} names the directory that it was built in")
        info, = (self.prefix / "bin").glob("ksomd-info*")
        run(*self.wrapper, info, "--require", "sse2")

    def package_clients(self):
        for c, cpp in self.compilers:
            options = ([f"-DCMAKE_TOOLCHAIN_FILE={self.toolchain}"] if self.toolchain
                       else [*chosen(c, cpp), "-DCONSUMER_FORTRAN=ON"])
            clients = build(SOURCES, self.scratch / f"package clients {pathlib.Path(c).name}",
                            "-DCMAKE_BUILD_TYPE=Release",
                            f"-Dksomd_DIR={self.libraries}/cmake/ksomd", *options)
            run("ctest", "--test-dir", clients, "--output-on-failure", "--no-tests=error",
                env=self.environment)

    def pkg_config(self, *options):
        return shlex.split(run("pkg-config", *options, "ksomd", env=self.environment))

    def plain_clients(self):
        """With -lksomd alone, with what pkg-config says, with nothing shared, with the archive."""
        include, linked = f"-I{self.prefix}/include", [f"-L{self.libraries}", "-lksomd"]
        static, with_package = self.pkg_config("--static", "--libs"), self.pkg_config("--libs")
        roads = {"linked": ([include], linked),
                 "pkgconfig": (self.pkg_config("--cflags"), with_package),
                 "standalone": (["-static", *self.pkg_config("--static", "--cflags")], static),
                 "archive": ([include], [self.libraries / "libksomd.a"])}
        for road, (flags, libraries) in roads.items():
            for c, cpp in self.compilers:
                self.client(f"{road}_{pathlib.Path(c).name}", c, *flags, SOURCES / "client.c",
                            *libraries)
                if road != "archive":
                    self.client(f"{road}_{pathlib.Path(cpp).name}", cpp, "-std=c++20", *flags,
                                SOURCES / "client.cpp", *libraries)
        modules = ([self.prefix / "include/ksomd/matmul.f90"], linked), (
            self.pkg_config("--variable=fortran_sources"), with_package)
        for sources, libraries in () if self.toolchain else modules:
            self.client("fortran", "gfortran", f"-J{self.scratch}", *sources,
                        SOURCES / "client.f90", *libraries)

    def small_client(self):
        """Who adds two quads gets what that takes, and no more."""
        without, with_sum = (
            self.client(f"sum{len(options)}", self.compilers[0][0], "-s",
                        f"-I{self.prefix}/include", SOURCES / "sum.c", *options).stat().st_size
            for options in ([], ["-DWITH_SUM", self.libraries / "libksomd.a"]))
        if not 0 < with_sum - without < LARGEST_SUM:
            sys.exit(f"a sum of two quads has {with_sum - without} bytes")

    def traced_client(self, tree):
        """A debug build keeps its variables when it gets a trace section."""
        traced = build(SOURCES / "traced", self.scratch / "traced client",
                       "-DCMAKE_BUILD_TYPE=Debug", f"-DKSOMD_TREE={tree}") / "traced"
        listing = run("objdump", "-h", "--dwarf=info", traced)
        if ".trace " not in listing or "DW_TAG_variable" not in listing:
            sys.exit(f"{traced} has no trace section, or no variable")


def check(installation, tree=TOP):
    installation.check_layout()
    installation.package_clients()
    installation.plain_clients()
    installation.small_client()
    if installation.toolchain:
        # The export list is for whoever makes an import library of his own.
        run("x86_64-w64-mingw32-dlltool", "-d", installation.prefix / "include/ksomd/libksomd.def",
            "-l", installation.scratch / "own.dll.a")
    elif (tree / "tools").is_dir():
        installation.traced_client(tree)


def check_sources(scratch):
    """Configured without a preset, not optimised, for a system with lib64."""
    scratch = pathlib.Path(scratch).resolve()
    shutil.rmtree(scratch, ignore_errors=True)
    tree = scratch / "tree with blanks"
    shutil.copytree(TOP, tree, ignore=shutil.ignore_patterns("build", ".git", "__pycache__"))
    for compilers in (GCC, CLANG):
        product = build(tree, tree / f"build with {pathlib.Path(compilers[0]).name}", *chosen(*compilers),
                        "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_INSTALL_LIBDIR=lib64")
        print(f"{product.name} done", flush=True)
        check(Installation(product, scratch / "installed"), tree)


if __name__ == "__main__":
    if sys.argv[1] == "--sources":
        check_sources(sys.argv[2])
    else:
        check(Installation(*sys.argv[1:]))
