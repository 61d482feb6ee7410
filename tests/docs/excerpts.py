#!/usr/bin/env python3
"""Looks whether excerpts of the examples are as the examples are: excerpts.py SOURCE_DIRECTORY

A block of a page whose first line is a comment with a path below examples/ is an excerpt of that file: its parts between
lines "..." stand in the file in that order. White space does not count.
"""
import pathlib
import re
import sys

sys.dont_write_bytecode = True  # nothing is to be left in the sources
from extract import BLOCK, FILE  # noqa: E402


def squeeze(text):
    return re.sub(r"\s+", "", text)


def main(directory):
    root = pathlib.Path(directory)
    problems = []
    count = 0
    for page in sorted(root.glob("docs/*.md")):
        for _, text in BLOCK.findall(page.read_text()):
            named = FILE.match(text)
            if not named or not named[1].startswith("examples/"):
                continue
            count += 1
            content = squeeze((root / named[1]).read_text())
            position = 0
            for part in re.split(r"^\s*\.\.\.\s*$", text[named.end():], flags=re.M):
                found = content.find(squeeze(part), position)
                if found < 0:
                    problems.append(f"{page.name}: {named[1]} does not go on with\n{part}")
                    break
                position = found + len(squeeze(part))
    sys.exit("\n".join(problems) or (0 if count > 0 else "no excerpt has been found"))


if __name__ == "__main__":
    main(*sys.argv[1:])
