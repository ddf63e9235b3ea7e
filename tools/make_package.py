#!/usr/bin/env python3
"""Makes the two archives that people download, and proves that anybody gets the same bytes.

usage: make_package.py JOBS

Everything is built twice, from copies of the sources in directories with different names, without
a compiler cache. The archives of the two builds must be equal to the byte. Then they, with their
checksums, are in build/package:

  ksomd-VERSION-windows-x86_64.zip   ksomd-VERSION-linux-x86_64.tar.zst   SHA256SUMS

What is packed are the files that git knows, as they are in the work tree. Times in the archives
are SOURCE_DATE_EPOCH, or else the last commit's.
"""

import hashlib
import io
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tarfile
import time
import zipfile

PACKAGES = pathlib.Path("build/package")
PLACES = ["here", "at/another/place"]
TARGETS = ["ksomd_shared", "ksomd_static", "ksomd_info"]
EARLIEST_IN_ZIP = 315532800  # 1980


def run(*command, **options):
    result = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **options)
    if result.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))}\n{result.stdout}")
    return result.stdout


def epoch():
    return int(os.environ.get("SOURCE_DATE_EPOCH") or run("git", "log", "-1", "--format=%ct"))


def version():
    return re.search(r"project\(ksomd VERSION (\S+)", pathlib.Path("CMakeLists.txt").read_text())[1]


def copy_sources(place):
    shutil.rmtree(place, ignore_errors=True)
    for name in run("git", "ls-files", "-z").split("\0"):
        if name and os.path.lexists(name):
            (place / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(name, place / name)


def install(place, preset, jobs, when):
    """Builds and installs one target; the prefix that holds it."""
    source = place.resolve()
    build, stage = source / "build" / preset, source / "stage" / preset
    environment = {key: value for key, value in os.environ.items()
                   if not key.endswith("_COMPILER_LAUNCHER")}
    environment.update(CCACHE_DISABLE="1", SOURCE_DATE_EPOCH=str(when))
    flags = f"-ffile-prefix-map={source}/="
    run("cmake", "--preset", preset, "-DKSOMD_TESTS=OFF", "-DCMAKE_INSTALL_LIBDIR=lib",
        *(f"-DCMAKE_{language}_FLAGS={flags}" for language in ("C", "CXX", "ASM")),
        cwd=source, env=environment)
    run("cmake", "--build", build, "--parallel", jobs, "--target", *TARGETS, env=environment)
    run("cmake", "--install", build, "--strip", "--prefix", stage, env=environment)
    return stage


def members(stage, top):
    """Every file of a tree in the order of its names, with the name and mode that it gets."""
    paths = (path for path in stage.rglob("*") if path.is_symlink() or path.is_file())
    for path in sorted(paths, key=lambda path: path.relative_to(stage).as_posix()):
        program = not path.is_symlink() and path.stat().st_mode & 0o100
        yield path, f"{top}/{path.relative_to(stage).as_posix()}", 0o755 if program else 0o644


def write_zip(archive, stage, top, when):
    with zipfile.ZipFile(archive, "w") as output:
        for path, name, mode in members(stage, top):
            entry = zipfile.ZipInfo(name, time.gmtime(max(when, EARLIEST_IN_ZIP))[:6])
            entry.create_system = 3  # the attributes are Unix modes, whatever system packs
            entry.external_attr = (0o100000 | mode) << 16
            entry.compress_type = zipfile.ZIP_DEFLATED
            output.writestr(entry, path.read_bytes(), compresslevel=9)


def write_tar(archive, stage, top, when):
    plain = io.BytesIO()
    with tarfile.open(fileobj=plain, mode="w", format=tarfile.USTAR_FORMAT) as output:
        for path, name, mode in members(stage, top):
            entry = tarfile.TarInfo(name)
            entry.mtime, entry.mode = when, mode
            if path.is_symlink():
                entry.type, entry.linkname = tarfile.SYMTYPE, os.readlink(path)
                output.addfile(entry)
            else:
                data = path.read_bytes()
                entry.size = len(data)
                output.addfile(entry, io.BytesIO(data))
    compressed = subprocess.run(["zstd", "-19", "--quiet", "--stdout"], input=plain.getvalue(),
                                stdout=subprocess.PIPE, check=True).stdout
    archive.write_bytes(compressed)


def make(place, jobs, when):
    """Both archives, made in one place."""
    copy_sources(place)
    archives = []
    for preset, system, suffix, write in (("windows", "windows", "zip", write_zip),
                                          ("host", "linux", "tar.zst", write_tar)):
        stage = install(place, preset, jobs, when)
        top = f"ksomd-{version()}-{system}-x86_64"
        archives.append(place / f"{top}.{suffix}")
        write(archives[-1], stage, top, when)
    return archives


def differences(one, other):
    for directory in (one, other):
        for path in sorted(directory.rglob("*")):
            name = path.relative_to(directory)
            twin = (other if directory == one else one) / name
            if not path.is_file():
                continue
            if not twin.is_file():
                yield f"only in {directory}: {name}"
            elif directory == one and path.read_bytes() != twin.read_bytes():
                yield f"differs: {name}"


def names_build_directory(stage, place):
    """Files that tell where they were built."""
    needle = str(place.resolve()).encode()
    return [path for path in stage.rglob("*") if path.is_file() and needle in path.read_bytes()]


def main():
    jobs = sys.argv[1]
    places = [PACKAGES / name for name in PLACES]
    when = epoch()
    first, second = (make(place, jobs, when) for place in places)
    failed = []
    for one, other in zip(first, second):
        if one.read_bytes() != other.read_bytes():
            failed.append(f"{one.name} is not the same in the two places")
    if failed:
        failed += differences(*(place / "stage" for place in places))
    for place in places:
        failed += [f"names its build directory: {path}"
                   for path in names_build_directory(place / "stage", place)]
    if failed:
        sys.exit("\n".join(failed))
    sums = []
    for archive in first:
        shutil.copyfile(archive, PACKAGES / archive.name)
        sums.append(f"{hashlib.sha256(archive.read_bytes()).hexdigest()}  {archive.name}\n")
        print(f"{archive.name}: {archive.stat().st_size} bytes, the same from both places")
    (PACKAGES / "SHA256SUMS").write_text("".join(sums))


if __name__ == "__main__":
    main()
