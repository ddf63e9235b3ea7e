#!/usr/bin/env python3
"""Checks of the DLL's image that no source shows.

usage: check_image.py DLL IMPORT_LIBRARY VERSION

  - Data cannot be executed, the image can be loaded anywhere in a 64-bit address space, and it has
    the relocations for that; no section is both written and executed.
  - No time of linking: the same sources give the same bytes.
  - Every export has a name, and the import library binds by name: no ordinal means anything.
  - The preferred base is the linker's usual one for a DLL, so it does not move between releases.
  - The version resource gives the project's version, in numbers and in text.
"""

import pathlib
import re
import struct
import subprocess
import sys

CHARACTERISTICS = {0x20: "high-entropy addresses", 0x40: "a dynamic base", 0x100: "DEP"}
RELOCATIONS_STRIPPED = 0x1
EXECUTE, WRITE = 0x20000000, 0x80000000
IMAGE_BASE = 0x180000000
EXPORT, RESOURCE, RELOCATION = 0, 2, 5  # indices of data directories


class Image:
    """The headers of a 64-bit PE file."""

    def __init__(self, data):
        self.data = data
        self.header = self.word(0x3C)
        if data[self.header:self.header + 4] != b"PE\0\0":
            raise ValueError("not a PE image")
        sections, self.time, _, _, optional_size, self.file_flags = struct.unpack_from(
            "<HIIIHH", data, self.header + 6)
        self.optional = self.header + 24
        self.base, = struct.unpack_from("<Q", data, self.optional + 24)
        self.flags, = struct.unpack_from("<H", data, self.optional + 70)
        table = self.optional + optional_size
        self.sections = [struct.unpack_from("<8sIIIIIIHHI", data, table + 40 * i)
                         for i in range(sections)]

    def word(self, offset):
        return struct.unpack_from("<I", self.data, offset)[0]

    def directory(self, index):
        """Address and size of a data directory."""
        return struct.unpack_from("<II", self.data, self.optional + 112 + 8 * index)

    def offset(self, address):
        for _, size, start, raw_size, raw, *_ in self.sections:
            if start <= address < start + max(size, raw_size):
                return address - start + raw
        raise ValueError(f"no section holds address {address:#x}")


def check_header(image):
    for flag, meaning in CHARACTERISTICS.items():
        if not image.flags & flag:
            yield f"the header does not ask for {meaning}"
    if image.file_flags & RELOCATIONS_STRIPPED or image.directory(RELOCATION)[1] == 0:
        yield "no relocations: the image cannot be loaded elsewhere"
    if image.time != 0:
        yield f"time of linking {image.time:#x}"
    if image.base != IMAGE_BASE:
        yield f"preferred base {image.base:#x}"
    for name, *_, flags in image.sections:
        if flags & EXECUTE and flags & WRITE:
            yield f"section {name.decode().strip(chr(0))} is written and executed"


def check_exports(image):
    table = image.offset(image.directory(EXPORT)[0])
    functions, names = image.word(table + 20), image.word(table + 24)
    if functions != names or names == 0:
        yield f"{functions} exports, {names} with a name"


def check_import_library(listing):
    bindings = re.findall(r"^Name type: (\S+)$", listing, re.M)
    if not bindings or set(bindings) != {"name"}:
        yield f"the import library binds by {sorted(set(bindings))}"


def check_version(image, version):
    address, size = image.directory(RESOURCE)
    if size == 0:
        yield "no resources"
        return
    start = image.offset(address)
    resources = image.data[start:start + size]
    fixed = resources.find(struct.pack("<I", 0xFEEF04BD))
    numbers = tuple(int(part) for part in version.split(".")) + (0,)
    if fixed < 0:
        yield "no version resource"
        return
    for field, place in (("file", fixed + 8), ("product", fixed + 16)):
        minor, major, build, patch = struct.unpack_from("<HHHH", resources, place)
        if (major, minor, patch, build) != numbers:
            yield f"{field} version {major}.{minor}.{patch}.{build} instead of {version}.0"
    for key, value in (("FileVersion", version), ("ProductVersion", version),
                       ("OriginalFilename", "libksomd.dll")):
        # A key ends in a null character and is padded to four bytes; its value follows.
        name, text = (re.escape(word.encode("utf-16-le")) for word in (key, value))
        if not re.search(name + rb"(?:\0\0){1,2}" + text + rb"\0\0", resources):
            yield f"{key} is not {value}"


def problems(data, import_listing, version):
    image = Image(data)
    yield from check_header(image)
    yield from check_exports(image)
    yield from check_import_library(import_listing)
    yield from check_version(image, version)


def main():
    dll, import_library, version = sys.argv[1:]
    listing = subprocess.check_output(["llvm-readobj-22", import_library], text=True)
    found = list(problems(pathlib.Path(dll).read_bytes(), listing, version))
    for problem in found:
        print(f"{dll}: {problem}")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
