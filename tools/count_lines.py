#!/usr/bin/env python3
"""Counts lines of code by folder, and how many the tests have for a hundred of what they test.

usage: count_lines.py [LIMIT]

A line counts if something stands on it that is neither space nor comment; a docstring is comment.
Languages are C, C++, assembler, Fortran and Python. Data counts on neither side: the catalogues, the
export list, the agreed interface, and the tables of tools/*.txt. Exit status 1: the tests' share
exceeds LIMIT per cent.
"""

import ast
import collections
import pathlib
import re
import subprocess
import sys

TOP = pathlib.Path(__file__).resolve().parent.parent
TESTED = ["src", "include", "tools", "examples", "bench"]
TESTS = ["tests"]

# What a comment may hide in goes first: a text or a character that contains a comment's mark. A
# digit's separator is no character's quote.
C_PIECES = re.compile(r"""
    R"(?P<end>[^(\s]*)\(.*?\)(?P=end)" | "(?:\\.|[^"\\\n])*" | (?<![0-9A-Fa-f])'(?:\\.|[^'\\\n])*'
    | (?P<comment>//(?:\\\n|[^\n])*|/\*.*?\*/)""", re.VERBOSE | re.DOTALL)
FORTRAN_PIECES = re.compile(r"""
    "[^"\n]*" | '[^'\n]*' | (?P<comment>![^\n]*)""", re.VERBOSE)
PYTHON_PIECES = re.compile(r'''
    (?:"{3}|\'{3})(?s:\\.|.)*?(?:"{3}|\'{3}) | "(?:\\.|[^"\\\n])*" | '(?:\\.|[^'\\\n])*'
    | (?P<comment>\#[^\n]*)''', re.VERBOSE)


def without_comments(pieces, text):
    def replaced(piece):
        if piece["comment"] is None:
            return piece[0]
        return "\n" * piece[0].count("\n")
    return pieces.sub(replaced, text)


def without_docstrings(text):
    lines = text.split("\n")
    for node in ast.walk(ast.parse(text)):
        if isinstance(node, (ast.Module, ast.ClassDef, ast.FunctionDef)) and ast.get_docstring(node):
            first = node.body[0]
            lines[first.lineno - 1:first.end_lineno] = [""] * (first.end_lineno - first.lineno + 1)
    return "\n".join(lines)


def code_of(path):
    """The text of a source file without its comments; None for any other file."""
    if path.suffix in (".c", ".cpp", ".h", ".hpp", ".S"):
        return without_comments(C_PIECES, path.read_text())
    if path.suffix.lower() == ".f90" or path.match("tests/matmul/*.inc"):
        return without_comments(FORTRAN_PIECES, path.read_text())
    if path.suffix == ".py":
        return without_comments(PYTHON_PIECES, without_docstrings(path.read_text()))
    return None


def lines_by_folder(top_folders):
    listing = subprocess.check_output(
        ["git", "ls-files", "--cached", "--others", "--exclude-standard", *top_folders],
        cwd=TOP, text=True)
    lines = collections.Counter()
    for name in map(pathlib.PurePath, listing.splitlines()):
        code = code_of(TOP / name) if (TOP / name).is_file() else None
        if code is not None:
            lines["/".join(name.parent.parts[:2])] += sum(1 for line in code.split("\n")
                                                          if line.strip())
    return lines


def print_table(lines):
    for folder, count in sorted(lines.items()):
        print(f"  {folder:22}{count:7}")
    print(f"  {'':22}{lines.total():7}")


def main():
    limit = float(sys.argv[1]) if len(sys.argv) > 1 else None
    tested, tests = lines_by_folder(TESTED), lines_by_folder(TESTS)
    print_table(tested)
    print_table(tests)
    share = 100 * tests.total() / tested.total()
    print(f"The tests have {share:.1f} lines of code for 100 of what they test"
          f"{f'; {limit:g} are allowed' if limit is not None else ''}")
    return 1 if limit is not None and share > limit else 0


if __name__ == "__main__":
    sys.exit(main())
