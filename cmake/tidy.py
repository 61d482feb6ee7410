#!/usr/bin/env python3
"""Runs clang-tidy over the sources, sparing those that were clean before and have not changed since.

What was clean stands in cmake/clang-tidy.clean: a hash of each source, of the headers of ours that it includes by any
way, and of .clang-tidy. The list is written anew where it can be, and committed with the change that it belongs to.

usage: tidy.py [--all] BUILD_DIR    --all: looks at every source, and lets clang's analyzer walk through it as well,
which takes more than half of the time"""
import concurrent.futures
import functools
import hashlib
import os
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
CLEAN = ROOT / "cmake/clang-tidy.clean"
INCLUDE = re.compile(rb'^\s*#\s*include\s*[<"]([\w/.]+)[>"]', re.M)


@functools.cache
def closure(path):
    """The file and all of ours that it includes."""
    found, open_files = {path}, [path]
    while open_files:
        file = open_files.pop()
        for name in INCLUDE.findall(file.read_bytes()):
            name = name.decode()
            for folder in (file.parent, ROOT / "include", ROOT / "Components", ROOT / "src"):
                other = folder / name
                if other.is_file() and other not in found:
                    found.add(other)
                    open_files.append(other)
                    break
    return found


def digest(source):
    total = hashlib.sha256((ROOT / ".clang-tidy").read_bytes())
    for file in sorted(closure(source)):
        total.update(str(file.relative_to(ROOT)).encode() + b"\0" + file.read_bytes())
    return total.hexdigest()[:16]


def tidy(build, source, everything):
    # One source a process: clang 14's analyzer misreads va_copy in every source but the first. The database holds
    # g++'s warning flags with -Werror, which are g++'s to judge. stderr holds only counts of what is suppressed.
    checks = [] if everything else ["--checks=-clang-analyzer-*"]
    run = subprocess.run(["clang-tidy", "--quiet", *checks, "-p", build, "--extra-arg=-w", source],
                         cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    return run.returncode, run.stdout


def main():
    everything = "--all" in sys.argv
    build = sys.argv[-1]
    hashes = {str(s.relative_to(ROOT)): digest(s) for d in ("src", "Components", "tool") for s in sorted((ROOT / d).rglob("*.cpp"))}
    known = dict(reversed(line.split()) for line in CLEAN.read_text().splitlines()) if CLEAN.exists() else {}
    clean = {s: h for s, h in hashes.items() if known.get(s) == h}
    wanted = [s for s in hashes if everything or s not in clean]
    print(f"lint: clang-tidy on {len(wanted)} of {len(hashes)} sources", flush=True)
    failed = False
    with concurrent.futures.ThreadPoolExecutor(int(os.environ.get("ZEL_JOBS", os.cpu_count()))) as pool:
        for source, (code, output) in zip(wanted, pool.map(lambda s: tidy(build, s, everything), wanted)):
            if output:
                print(output, flush=True)
            if code:
                failed = True
                clean.pop(source, None)
            else:
                clean[source] = hashes[source]
    text = "".join(f"{h} {s}\n" for s, h in sorted(clean.items()))
    if not CLEAN.exists() or CLEAN.read_text() != text:
        CLEAN.write_text(text)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
