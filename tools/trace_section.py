#!/usr/bin/env python3
"""Writes the trace section of a linked program, from the program's own line table.

usage: trace_section.py [--prefix DIR] PROGRAM OUTPUT.s
       trace_section.py [--prefix DIR] --link COMMAND...

PROGRAM is an ELF or PE image with a DWARF line table and a symbol table. OUTPUT.s is an assembler
source: linked into the same program once more, it gives the program its ".trace" section, and the
code stays where it was. Addresses are written relative to a symbol, so that the loader moves them
with the image. DIR is left out of source-file names.

With --link, COMMAND is a compiler's command that links a program; it runs twice, the second time
with the trace section that the first program's line table gives.

Every routine that the line table covers gets one block. A line ends where the next begins, with one
exception: the first byte after a call still belongs to the call's line, because that is where a
return address points. Code that belongs to no line gets line 0, as in the line table.

A routine may end in a call that does not return. Its block then covers one byte more, so that the
return address is its own, and stands before the block of the neighbour that has this byte, too: of
several blocks the first one counts.
"""

import argparse
import bisect
import collections
import re
import subprocess
import sys

BLOCK_HEADER = 26
BLOCK_TAG = 0x0000020A  # tag 10, version 2, zero
SELECT_FILE, LINE_8, LINE_16, LINE_32, ADDRESS_8, ADDRESS_16, ADDRESS_32 = range(3, 10)
ROUTINE_64, MATCH = 0x0C, 0x0D
SHORT_LINE_1, SHORT = 0x80, 0xC0  # address distances 1 to 64

Row = collections.namedtuple("Row", "address file line")
Routine = collections.namedtuple("Routine", "name start end rows")


def run(*command, **more):
    return subprocess.run(command, check=True, text=True, capture_output=True, **more).stdout


# ---- what the program says about itself ---------------------------------------------------------

def line_sequences(program):
    """Yields, for each sequence of the line table, its rows and its end address."""
    directories, files, rows, entry, end = {}, {}, [], None, None
    row = re.compile(r"0x([0-9a-f]{16})\s+(\d+)\s+\d+\s+(\d+)\s.*?(end_sequence)?$")
    for text in run("llvm-dwarfdump-22", "--debug-line", program).splitlines():
        if found := row.match(text):
            address, line, file = int(found[1], 16), int(found[2]), int(found[3])
            if found[4]:
                if rows and rows[0].address != 0:  # 0: the linker dropped the code
                    yield rows, address
                rows = []
            else:
                rows.append(Row(address, files.get(file, ""), line))
        elif text.startswith("Line table prologue"):
            directories, files = {}, {}
        elif found := re.match(r'include_directories\[\s*(\d+)\] = "(.*)"', text):
            directories[int(found[1])] = found[2]
        elif found := re.match(r"file_names\[\s*(\d+)\]:", text):
            entry = int(found[1])
        elif found := re.match(r'\s+name: "(.*)"', text):
            files[entry] = found[1]
        elif found := re.match(r"\s+dir_index: (\d+)", text):
            directory = directories.get(int(found[1]), "")
            if directory and not re.match(r"/|[A-Za-z]:", files[entry]):
                files[entry] = directory.rstrip("/") + "/" + files[entry]


def routines(program):
    """Start addresses and names of the routines; of several names of one, the first global one."""
    names = {}
    # All symbols: some assemblers mark an object's first static function as they mark its section.
    for text in run("llvm-nm-22", "--debug-syms", "--format=posix", program).splitlines():
        name, kind, address = text.split(" ")[:3]
        if kind in "TtWw" and not name.startswith("."):  # sections do
            rank = "TWtw".index(kind)
            names[int(address, 16)] = min(names.get(int(address, 16), (9, "")), (rank, name))
    readable = run("llvm-cxxfilt-22", "--no-params",
                   input="\n".join(name for _, name in names.values()))
    # A dump has little room for a name: what says nothing goes.
    readable = readable.replace("(anonymous namespace)::", "")
    return dict(zip(names, readable.splitlines()))


def return_addresses(program):
    """The address behind each call instruction."""
    listing = run("llvm-objdump-22", "-d", "--no-leading-headers", program)
    calls = re.finditer(r"^\s*([0-9a-f]+): ((?:[0-9a-f]{2} )+)\s*call", listing, re.MULTILINE)
    return {int(call[1], 16) + len(call[2]) // 3 for call in calls}


def anchor(program):
    """A symbol that moves with the code, and its address: the image's start on PE, a symbol of the
    start-up code on ELF, where the code may move against the image's start."""
    headers = run("llvm-readobj-22", "--file-headers", program)
    if base := re.search(r"ImageBase: (\S+)", headers):
        return "__ImageBase", int(base[1], 0), '.section .trace,"dr"'
    symbols = dict(line.split(" ")[0:3:2] for line in
                   run("llvm-nm-22", "--defined-only", "--format=posix", program).splitlines())
    for wanted in ("_start", "_init"):
        if wanted in symbols:
            return wanted, int(symbols[wanted], 16), '.section .trace,"awR",@progbits'
    sys.exit(f"{program}: no _start and no _init")


# ---- routines and their rows --------------------------------------------------------------------

def split_routines(program, names):
    """Cuts the sequences of the line table at the routines' start addresses."""
    starts = sorted(names)
    for rows, end in line_sequences(program):
        addresses = [row.address for row in rows]
        first = bisect.bisect_right(starts, addresses[0]) - 1
        for i in range(max(first, 0), len(starts)):
            start = max(starts[i], addresses[0])
            if start >= end:
                break
            stop = min(end, starts[i + 1]) if i + 1 < len(starts) else end
            # A routine may start within the row of the one before it.
            inherited = bisect.bisect_right(addresses, start) - 1
            own = rows[inherited:bisect.bisect_left(addresses, stop)]
            own[0] = own[0]._replace(address=start)
            yield Routine(names[starts[i]], start, stop, merged(own))


def merged(rows):
    """Without rows that repeat what the one before says, or that the next one replaces."""
    result = []
    for row in rows:
        if result and result[-1].address == row.address:
            result.pop()
        if not result or result[-1][1:] != row[1:]:
            result.append(row)
    return result


# ---- blocks -------------------------------------------------------------------------------------

def number(value, width):
    return (value & (1 << 8 * width) - 1).to_bytes(width, "little")


def fits(value, width):
    return -(1 << 8 * width - 1) <= value < 1 << 8 * width - 1


def line_item(distance):
    for tag, width in ((LINE_8, 1), (LINE_16, 2), (LINE_32, 4)):
        if fits(distance, width):
            return bytes([tag]) + number(distance, width)
    raise ValueError(f"line distance {distance}")


def address_item(distance):
    for tag, width in ((ADDRESS_8, 1), (ADDRESS_16, 2), (ADDRESS_32, 4)):
        if distance <= 1 << 8 * width:
            return bytes([tag]) + number(distance - 1, width)
    raise ValueError(f"address distance {distance}")


def step(line, address):
    """The shortest items for a distance of lines and a distance of addresses."""
    if address == 0:
        return (line_item(line) if line else b"") + bytes([MATCH]) + bytes(8)
    if address <= 64 and line == 1:
        return bytes([SHORT_LINE_1 | address - 1])
    if address <= 64 and fits(line, 1):
        return bytes([SHORT | address - 1]) + number(line, 1)
    return (line_item(line) if line else b"") + address_item(address)


def items(routine, last, files, behind_calls):
    """The items after the routine item; `last` is the last address of the block."""
    result, file, line, address = b"", 0, 0, routine.start
    for i, row in enumerate(routine.rows):
        if i + 1 < len(routine.rows):
            following = routine.rows[i + 1].address
            end = following if following in behind_calls else following - 1
        else:
            end = last
        if i > 0 and end <= address:
            continue  # the call before took its only byte
        if files.index(row.file) != file:
            file = files.index(row.file)
            result += bytes([SELECT_FILE]) + number(file, 4)
        result += step(row.line - line, end - address)
        line, address = row.line, end
    return result


def block(routine, behind_calls, prefix):
    """The bytes of a block, with the start address left out at two places: their offsets."""
    files = list(dict.fromkeys(row.file for row in routine.rows))
    last = routine.end if routine.end in behind_calls else routine.end - 1
    names = [file.removeprefix(prefix).encode()[:65535] for file in files]
    entries = b"".join(number(len(name), 2) + name for name in names)
    name = routine.name.encode()[:65535]
    body = bytes([ROUTINE_64, 0]) + number(len(name), 2) + bytes(8) + (name or bytes(1)) \
        + items(routine, last, files, behind_calls)
    length = BLOCK_HEADER + len(entries) + len(body)
    header = number(BLOCK_TAG, 4) + number(length, 4) + bytes(8) + number(len(files), 4) \
        + number(last + 1 - routine.start, 4) + bytes(2)
    return header + entries + body, (8, BLOCK_HEADER + len(entries) + 4)


def write_bytes(output, data):
    for i in range(0, len(data), 24):
        print("        .byte", ",".join(map(str, data[i:i + 24])), file=output)


def write_section(program, path, prefix):
    names = routines(program)
    behind_calls = return_addresses(program)
    symbol, base, section = anchor(program)
    with open(path, "w", encoding="ascii") as output:
        print(f"        {section}", file=output)
        for routine in sorted(split_routines(program, names), key=lambda each: each.start):
            data, places = block(routine, behind_calls, prefix)
            at = 0
            for place in places:
                write_bytes(output, data[at:place])
                print(f"        .quad {symbol} + {routine.start - base}", file=output)
                at = place + 8
            write_bytes(output, data[at:])
        if symbol != "__ImageBase":
            print('        .section .note.GNU-stack,"",@progbits', file=output)


def main():
    parser = argparse.ArgumentParser(usage=__doc__.split("\n\n")[1])
    parser.add_argument("--prefix", default="")
    parser.add_argument("--link", action="store_true")
    parser.add_argument("command", nargs=argparse.REMAINDER)
    arguments = parser.parse_args()
    command = arguments.command
    if arguments.link:
        if subprocess.run(command).returncode != 0:
            sys.exit(1)
        program = command[command.index("-o") + 1]
        section = program + ".trace.s"
        write_section(program, section, arguments.prefix)
        # Options of the compiler say nothing to the assembler: no word about those.
        command += ["-Wno-unused-command-line-argument", section]
        sys.exit(subprocess.run(command).returncode)
    write_section(*command, arguments.prefix)


if __name__ == "__main__":
    main()
