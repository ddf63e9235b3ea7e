#!/usr/bin/env python3
"""Runs clang-tidy over the project's sources, those that changed since they last passed first.

usage: run_tidy.py JOBS

A source that passed is not looked at again until it, a header of the project or the settings
change; the record is kept in build/host/tidy.
"""

import concurrent.futures
import hashlib
import json
import pathlib
import subprocess
import sys

BUILD = pathlib.Path("build/host")


def sources():
    top = pathlib.Path.cwd()
    for entry in json.loads((BUILD / "compile_commands.json").read_text()):
        path = pathlib.Path(entry["file"])
        if path.suffix == ".cpp" and path.is_relative_to(top) and not path.is_relative_to(top / "build"):
            yield path.relative_to(top), entry["command"]


def digest(*parts):
    state = hashlib.sha256()
    for part in parts:
        state.update(part if isinstance(part, bytes) else part.encode())
    return state.hexdigest()


def shared_digest():
    headers = sorted(pathlib.Path(".").glob("[!b]*/**/*.h*"))
    return digest(pathlib.Path(".clang-tidy").read_bytes(), *(h.read_bytes() for h in headers))


def main():
    jobs = int(sys.argv[1])
    passed = BUILD / "tidy"
    passed.mkdir(exist_ok=True)
    shared = shared_digest()
    pending = []
    for path, command in dict(sources()).items():
        mark = passed / digest(shared, command, path.read_bytes())
        if not mark.exists():
            pending.append((path, mark))
    failed = 0

    def tidy(item):
        return item, subprocess.run(
            ["clang-tidy-22", "--quiet", "-p", str(BUILD), str(item[0])],
            capture_output=True, text=True)

    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for done, ((path, mark), result) in enumerate(pool.map(tidy, pending), 1):
            print(f"[{done}/{len(pending)}] {path}", flush=True)
            if result.returncode == 0:
                mark.touch()
            else:
                failed += 1
                print(result.stdout)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
