#!/usr/bin/env python3
"""Turns the C++ examples of the documentation into sources: extract.py OUTPUT_DIR PAGE...
Writes the files that pages show in full: extract.py --files OUTPUT_DIR PAGE...

A fenced block marked "cpp" that defines main() becomes a program PAGE_N.cpp, which the tests compile and run. Any other
such block must be a valid function body after the includes that it begins with, and becomes PAGE_N.cpp with a main()
that does not run it: the tests compile it. Prints the name of each, with "run" or "compile".

A block whose first line is a comment with a path, such as "// rain/main.cpp", is a file. With --files these are written,
and their paths printed; the commands in blocks marked "sh" become the file commands.sh.
"""
import pathlib
import re
import sys

BLOCK = re.compile(r"^```(\w+)\n(.*?)^```", re.M | re.S)
FILE = re.compile(r"(?://|#|<!--) ([\w./-]+/[\w.-]+)(?: -->)?\n")


def blocks(page, language):
    return [text for marked, text in BLOCK.findall(page.read_text()) if marked == language]


def write_if_changed(target, text):
    target.parent.mkdir(parents=True, exist_ok=True)
    if not target.exists() or target.read_text() != text:
        target.write_text(text)


def write_files(output, pages):
    for page in map(pathlib.Path, pages):
        for _, text in BLOCK.findall(page.read_text()):
            if named := FILE.match(text):
                write_if_changed(pathlib.Path(output) / named[1], text)
                print(named[1])
        write_if_changed(pathlib.Path(output) / "commands.sh", "".join(blocks(page, "sh")))


def main(output, pages):
    output = pathlib.Path(output)
    for page in map(pathlib.Path, pages):
        programs = [block for block in blocks(page, "cpp") if not FILE.match(block)]
        for number, block in enumerate(programs, 1):
            name = f"{page.stem.replace('-', '_')}_{number}"
            run = re.search(r"\bint main\(", block) is not None
            if not run:
                lines = block.splitlines()
                includes = [line for line in lines if line.startswith("#include")]
                body = [line for line in lines if not line.startswith("#include")]
                block = "\n".join(includes + ["[[maybe_unused]] static void example() {"] + body + ["}", "int main() {}", ""])
            write_if_changed(output / f"{name}.cpp", block)
            print(name, "run" if run else "compile")


if __name__ == "__main__":
    if sys.argv[1] == "--files":
        write_files(sys.argv[2], sys.argv[3:])
    else:
        main(sys.argv[1], sys.argv[2:])
