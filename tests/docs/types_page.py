#!/usr/bin/env python3
"""Keeps the table of types in the documentation: types_page.py --check|--write PAGE PROGRAM

Between its two markers the page holds what the program prints. --check fails if it does not; --write makes it so.
"""
import pathlib
import subprocess
import sys

BEGIN = "<!-- The table is written by script/docs. -->\n"
END = "<!-- End of the table. -->\n"


def main(mode, page, program):
    page = pathlib.Path(page)
    old = page.read_text()
    head, begin, rest = old.partition(BEGIN)
    _, end, tail = rest.partition(END)
    if not begin or not end:
        sys.exit(f"{page}: the markers of the table are missing")
    table = subprocess.run([program], check=True, capture_output=True, text=True).stdout
    new = head + BEGIN + table + END + tail
    if mode == "--write":
        page.write_text(new)
    elif new != old:
        sys.exit(f"{page} does not list the types as they are: run script/docs")


if __name__ == "__main__":
    main(*sys.argv[1:])
