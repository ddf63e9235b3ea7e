#!/usr/bin/env python3
"""Installs a build, or unpacks an archive, into a scratch prefix and builds outside projects against it.

usage: install_test.py BUILD_DIRECTORY|ARCHIVE SCRATCH_DIRECTORY [TOOLCHAIN_FILE EMULATOR]
       install_test.py --sources SCRATCH_DIRECTORY

With a toolchain file the clients are Windows programs, run by the emulator. Without one there are
clients in Fortran, too. With --sources the builds are made first, as somebody does who has only
CMake and a compiler: from a copy of the sources, without a preset, by each compiler in turn.
Directories have blanks in their names.
"""

import itertools
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
CLANG = [shutil.which(f"{name}-22") or name for name in ("clang", "clang++")]


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
        self.suffix = ".exe" if toolchain else ""
        self.fortran = None if toolchain else "gfortran"
        shutil.rmtree(self.scratch, ignore_errors=True)
        if pathlib.Path(build).is_dir():
            run("cmake", "--install", build, "--prefix", self.prefix)
        else:
            self.unpack(pathlib.Path(build))
        # Nothing may depend on where it was installed first.
        moved = self.scratch / "moved prefix"
        self.prefix.rename(moved)
        self.prefix = moved
        package, = self.prefix.rglob("ksomd.pc")
        self.libraries = package.parent.parent
        # The system's own compilers, then others; the first are those that CMake takes.
        self.compilers = [("gcc", "g++"), CLANG]
        if toolchain:
            self.compilers = [("x86_64-w64-mingw32-gcc-posix", "x86_64-w64-mingw32-g++-posix")]
        # Where Windows programs find the library, and the C++ run-time that Windows does not bring.
        self.windows_path = [self.prefix / "bin"]
        for library in ("libstdc++-6.dll", "libwinpthread-1.dll") if toolchain else ():
            found = run(self.compilers[0][1], f"-print-file-name={library}")
            self.windows_path.append(pathlib.Path(found).parent)

    def unpack(self, archive):
        self.scratch.mkdir(parents=True)
        if archive.suffix == ".zip":
            shutil.unpack_archive(archive, self.scratch)
        else:
            run("tar", "--zstd", "-xf", archive, "-C", self.scratch)
        top, = self.scratch.iterdir()
        top.rename(self.prefix)

    def execute(self, program):
        environment = dict(os.environ, LD_LIBRARY_PATH=str(self.libraries),
                           WINEPATH=";".join(map(str, self.windows_path)))
        command = [self.emulator, program] if self.emulator else [program]
        output = run(*command, env=environment)
        if "client ran" not in output:
            sys.exit(f"{program} printed:\n{output}")
        print(f"{pathlib.Path(program).name} ran")

    def check_layout(self):
        """What people need beside the library itself."""
        documents = self.prefix / "share" / "doc" / "ksomd"
        for path in (documents / "LICENSE",
                     self.prefix / "include" / "ksomd" / "matmul.f90",
                     self.prefix / "include" / "ksomd" / "libksomd.def",
                     self.prefix / "share" / "man" / "man1" / "ksomd-info.1"):
            if path.stat().st_size == 0:
                sys.exit(f"{path} is empty")
        for page in [pathlib.Path("README.md"), *pathlib.Path("docs").rglob("*.md")]:
            if (TOP / page).exists() and not (documents / page).exists():
                sys.exit(f"not installed: {page}")
        for page in documents.rglob("*.md"):
            for link in re.findall(r"\]\(([^):#]+)[)#]", page.read_text()):
                if not (page.parent / link).exists():
                    sys.exit(f"{page}: no {link}")
        for path in self.prefix.rglob("*"):
            if path.suffix in (".cmake", ".pc") and str(TOP) in path.read_text():
                sys.exit(f"{path} names the directory that it was built in")

    def run_info(self):
        program = [self.prefix / "bin" / f"ksomd-info{self.suffix}", "--require", "sse2"]
        run(*([self.emulator] if self.emulator else []), *program)
        print("ksomd-info ran")

    def package_clients(self):
        build = self.scratch / "package clients"
        options = [f"-DCMAKE_TOOLCHAIN_FILE={self.toolchain}"] if self.toolchain else []
        languages = ["c", "cpp", "names", "quad"]
        if self.fortran:
            options.append("-DCONSUMER_FORTRAN=ON")
            languages.append("f90")
        run("cmake", "-S", SOURCES, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
            f"-Dksomd_DIR={self.libraries}/cmake/ksomd", *options)
        run("cmake", "--build", build)
        clients = [*itertools.product(languages, ("shared", "static")), ("cpp", "standalone")]
        for language, kind in clients:
            self.execute(build / f"package_{language}_{kind}{self.suffix}")

    def pkg_config(self, *options):
        here = {"PKG_CONFIG_PATH": str(self.libraries / "pkgconfig")}
        return shlex.split(run("pkg-config", *options, "ksomd", env=dict(os.environ, **here)))

    def plain_clients(self):
        """With -lksomd alone, with what pkg-config says, and with nothing shared."""
        include = f"-I{self.prefix}/include"
        archive = [include], [self.libraries / "libksomd.a"]
        roads = {
            "linked": ([include], [f"-L{self.libraries}", "-lksomd"]),
            "pkgconfig": (self.pkg_config("--cflags"), self.pkg_config("--libs")),
            "standalone": (["-static", *self.pkg_config("--static", "--cflags")],
                           self.pkg_config("--static", "--libs")),
        }
        clients = [*itertools.product(roads.items(), ("client.c", "client.cpp")),
                   (("archive", archive), "names.c")]
        for (c, cpp), ((road, (flags, libraries)), source) in itertools.product(
                self.compilers, clients):
            compiler = cpp if source.endswith("cpp") else c
            client = self.scratch / f"{road}_{source}_{pathlib.Path(compiler).name}.exe"
            run(compiler, *flags, SOURCES / source, *libraries, "-o", client)
            self.execute(client)
        if self.fortran:
            module = {"linked": [self.prefix / "include" / "ksomd" / "matmul.f90"],
                      "pkgconfig": self.pkg_config("--variable=fortran_sources")}
            for road, sources in module.items():
                client = self.scratch / f"{road}_f90.exe"
                run(self.fortran, f"-J{self.scratch}", *sources, SOURCES / "client.f90",
                    *roads[road][1], "-o", client)
                self.execute(client)

    def small_client(self):
        """Who adds two quads gets what that takes, and no more."""
        sizes = []
        for options in ([], ["-DWITH_SUM", self.libraries / "libksomd.a"]):
            client = self.scratch / f"sum{len(options)}.exe"
            run(self.compilers[0][0], "-s", f"-I{self.prefix}/include", SOURCES / "sum.c", *options,
                "-o", client)
            sizes.append(client.stat().st_size)
        self.execute(client)
        growth = sizes[1] - sizes[0]
        print(f"a sum of two quads: {growth} bytes")
        if not 0 < growth < LARGEST_SUM:
            sys.exit("too many, or none")

    def import_library(self):
        """The export list is for whoever makes an import library of his own."""
        definition = self.prefix / "include" / "ksomd" / "libksomd.def"
        run("x86_64-w64-mingw32-dlltool", "-d", definition, "-l", self.scratch / "own.dll.a")

    def traced_client(self, tree):
        """A debug build keeps its variables when it gets a trace section."""
        build = self.scratch / "traced client"
        run("cmake", "-S", SOURCES / "traced", "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
            f"-DKSOMD_TREE={tree}")
        run("cmake", "--build", build)
        listing = run("objdump", "-h", "--dwarf=info", build / "traced")
        for part in (".trace ", "DW_TAG_variable"):
            if part not in listing:
                sys.exit(f"{build}/traced has no {part}")


def check(installation, tree=TOP):
    installation.check_layout()
    installation.run_info()
    installation.package_clients()
    installation.plain_clients()
    installation.small_client()
    if installation.toolchain:
        installation.import_library()
    elif (tree / "tools").is_dir():
        installation.traced_client(tree)


def plain_build(tree, compilers):
    """Configured without a preset, not optimised, for a system with lib64."""
    build = tree / f"build with {pathlib.Path(compilers[0]).name}"
    run("cmake", "-S", tree, "-B", build, "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_INSTALL_LIBDIR=lib64",
        *(f"-DCMAKE_{language}_COMPILER={compiler}"
          for language, compiler in zip(("C", "CXX"), compilers)))
    run("cmake", "--build", build, "--parallel", os.cpu_count())
    return build


def check_sources(scratch):
    scratch = pathlib.Path(scratch).resolve()
    shutil.rmtree(scratch, ignore_errors=True)
    tree = scratch / "tree with blanks"
    shutil.copytree(TOP, tree, ignore=shutil.ignore_patterns("build", ".git", "__pycache__"))
    for compilers in (("gcc", "g++"), CLANG):
        build = plain_build(tree, compilers)
        print(f"{build.name} done", flush=True)
        check(Installation(build, scratch / "installed"), tree)


def main():
    if sys.argv[1] == "--sources":
        check_sources(sys.argv[2])
    else:
        check(Installation(*sys.argv[1:]))


if __name__ == "__main__":
    main()
