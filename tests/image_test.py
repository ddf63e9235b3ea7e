#!/usr/bin/env python3
"""Checks the DLL's image, and that the check sees each fault in an image that was tampered with.

usage: image_test.py TOOLS_DIRECTORY DLL IMPORT_LIBRARY VERSION
"""

import pathlib
import struct
import subprocess
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, sys.argv[1])
import check_image  # noqa: E402


def patched(data, offset, layout, change):
    """The image with one number changed."""
    copy = bytearray(data)
    number, = struct.unpack_from(layout, copy, offset)
    struct.pack_into(layout, copy, offset, change(number))
    return bytes(copy)


def faults(data):
    """Tampered images, and what the check has to say about each."""
    image = check_image.Image(data)
    for flag, meaning in check_image.CHARACTERISTICS.items():
        yield patched(data, image.optional + 70, "<H", lambda flags, f=flag: flags & ~f), meaning
    directory = image.optional + 112
    yield patched(data, directory + 8 * 5 + 4, "<I", lambda _: 0), "no relocations"
    yield patched(data, directory + 8 * 2 + 4, "<I", lambda _: 0), "no resources"
    yield patched(data, image.header + 8, "<I", lambda _: 1), "time of linking"
    yield patched(data, image.optional + 24, "<Q", lambda base: base + 0x10000), "preferred base"
    exports = image.offset(image.directory(check_image.EXPORT)[0])
    yield patched(data, exports + 20, "<I", lambda count: count + 1), "with a name"
    flags = image.optional + 240 + 36  # of the first section, which holds code
    yield patched(data, flags, "<I", lambda bits: bits | check_image.WRITE), "written and executed"
    text = data.replace("FileVersion\0".encode("utf-16-le"), "FileVersiom\0".encode("utf-16-le"))
    yield text, "FileVersion is not"


def main():
    _, dll, library, version = sys.argv[1:]
    data = pathlib.Path(dll).read_bytes()
    listing = subprocess.check_output(["llvm-readobj-22", library], text=True)
    failed = [f"{dll}: {problem}" for problem in check_image.problems(data, listing, version)]
    tampered = list(faults(data))
    for image, complaint in tampered:
        found = list(check_image.problems(image, listing, version))
        if not any(complaint in problem for problem in found):
            failed.append(f"an image with a fault passed; expected '{complaint}', found {found}")
    by_ordinal = listing.replace("Name type: name", "Name type: ordinal", 1)
    if not list(check_image.problems(data, by_ordinal, version)):
        failed.append("an import library that binds by ordinal passed")
    if not list(check_image.problems(data, listing, "9.9.9")):
        failed.append("a version that is not the project's passed")
    print("\n".join(failed) or f"{len(tampered) + 2} faults seen")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
