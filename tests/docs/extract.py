#!/usr/bin/env python3
"""Turns the C++ examples of the documentation into sources: extract.py OUTPUT_DIR PAGE...

A fenced block marked "cpp" that defines main() becomes a program PAGE_N.cpp, which the tests compile and run. Any other
such block must be a valid function body after the includes that it begins with, and becomes PAGE_N.cpp with a main()
that does not run it: the tests compile it. Prints the name of each, with "run" or "compile".
"""
import pathlib
import re
import sys

BLOCK = re.compile(r"^```cpp\n(.*?)^```", re.M | re.S)


def main(output, pages):
    output = pathlib.Path(output)
    output.mkdir(parents=True, exist_ok=True)
    for page in map(pathlib.Path, pages):
        for number, block in enumerate(BLOCK.findall(page.read_text()), 1):
            name = f"{page.stem.replace('-', '_')}_{number}"
            run = re.search(r"\bint main\(", block) is not None
            if not run:
                lines = block.splitlines()
                includes = [line for line in lines if line.startswith("#include")]
                body = [line for line in lines if not line.startswith("#include")]
                block = "\n".join(includes + ["[[maybe_unused]] static void example() {"] + body + ["}", "int main() {}", ""])
            target = output / f"{name}.cpp"
            if not target.exists() or target.read_text() != block:
                target.write_text(block)
            print(name, "run" if run else "compile")


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2:])
