#!/usr/bin/env python3
"""Turns the plain comments of a public header into Doxygen's, for the reference.

usage: doxygen_filter.py HEADER

The headers stay plain C for people who read them in an editor; this knows how they are written:
  - the first comment is the file's;
  - a comment describes every declaration up to the next comment;
  - within a comment, lines indented by two or more spaces are tables or formulas;
  - X-macro declarations are expanded by the table at the top of their header.
C++ headers (.hpp) use Doxygen's own comments and pass as they are, but for their first comment.
"""

import re
import sys

BLOCK = re.compile(r"^/\*(.*?)\*/[ ]*\n", re.S | re.M)
DECLARATION = re.compile(
    r"^(?=(?:KSOMD_API|KSOMD_NORETURN|typedef|struct|enum|__extension__ typedef|#define) ?)", re.M)
ENTITIES = {"<": "&lt;", ">": "&gt;", "&": "&amp;", "*": "&lowast;", "|": "&#124;", "[": "&#91;",
            "]": "&#93;", "\\": "\\\\", "@": "\\@", "#": "\\#", "%": "\\%", "~": "\\~", "`": "",
            "::": "\\::"}


def escape(text):
    """Plain words: Doxygen's commands, markup and links mean nothing in them."""
    return re.sub(r"::|[<>&*|\[\]\\@#%~`]", lambda match: ENTITIES[match[0]], text)


def reflow(lines):
    """Paragraphs as text, indented runs verbatim."""
    out, table = [], []

    def close():
        while table and not table[-1].strip():
            table.pop()
        if table:
            out.extend(["@verbatim", *table, "@endverbatim"])
            table.clear()

    for line in lines:
        if line.startswith("  ") or (table and not line.strip()):
            table.append(line)
        else:
            close()
            out.append(escape(line))
    close()
    return "\n".join(out)


def body(comment):
    """The lines of a comment, without its stars and its title."""
    lines = [re.sub(r"^[ \t]*\* ?", "", line).rstrip() for line in comment.split("\n")]
    lines[0] = lines[0].strip()
    return lines[1:] if re.match(r"-{4}.*-{4}$", lines[0]) else lines


def file_comment(name, lines):
    return f"/** @file {name}\n{reflow(lines)}\n*/\n"


def expand(text, table):
    """The declarations of an X-macro in the place of its definition and its use."""
    macro = re.search(r"#define KSOMD_MATMUL_DECLARE\(.*?\)((?:.*\\\n)+.*\n)", text)
    if not macro:
        return text
    use = re.search(r"^KSOMD_MATMUL_EACH(_R8)?\(KSOMD_MATMUL_DECLARE\)\n#undef .*\n", text, re.M)
    template = " ".join(macro[1].replace("\\\n", "\n").split())
    out = ""
    for code, element, a, b in table:
        if use[1] is None or code == "r8":
            line = template.replace("##", "").replace("_code_a_b", f"_{code}_{a}_{b}")
            out += re.sub(r"\belement\b", element, line) + "\n"
    return text[:macro.start()] + out + text[use.end():]


def filter_c(name, text):
    table = re.findall(r"X\((\w\d), (\w+), (\w), (\w)\)", text)
    blocks = list(BLOCK.finditer(text))
    out = []
    lines = []
    for block, following in zip(blocks, [*blocks[1:], None]):
        rest = expand(text[block.end():following.start() if following else len(text)], table)
        new = body(block[1])
        lines = new if any(new) else lines
        if block is blocks[0]:
            out.append(file_comment(name, lines))
        guard = re.compile(r"^#define KSOMD_\w+_H$", re.M)
        comment = f"/** {reflow(lines)}\n*/\n".replace("\\", "\\\\")
        out.append(DECLARATION.sub(comment, guard.sub("", rest)))
    return "".join(out)


def trailing(text):
    """Comments behind members and enumerators."""
    return re.sub(r"(?<=[;,\w{\]])([ ]+)/\* (.*?) ?\*/",
                  lambda match: f"{match[1]}/**< {escape(match[2])} */", text, flags=re.S)


def filter_cpp(name, text):
    head = re.match(r"(?://.*\n)+", text)
    return file_comment(name, [line[3:] for line in head[0].splitlines()]) + text[head.end():]


def main():
    path = sys.argv[1]
    with open(path, encoding="utf-8") as file:
        text = file.read()
    name = path.rsplit("/", 1)[-1]
    if name.endswith(".hpp"):
        sys.stdout.write(filter_cpp(name, text))
    else:
        sys.stdout.write(trailing(filter_c(name, text)))


if __name__ == "__main__":
    main()
