#!/usr/bin/env python3
"""Checks cmake/storeys.txt: every public header stands on one storey, includes only its own storey or lower ones,
and the includes form no circle."""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
INCLUDE = re.compile(r'^\s*#\s*include\s*[<"](zel[A-Za-z]*/[A-Za-z_]+\.(?:h|inl))[>"]', re.M)


def read_storeys():
    storeys = {}
    for number, line in enumerate((ROOT / "cmake/storeys.txt").read_text().splitlines(), 1):
        line = line.split("#")[0].strip()
        if not line:
            continue
        level, _, headers = line.partition(":")
        for header in headers.split():
            if header in storeys:
                yield_error(f"storeys.txt:{number}: {header} stands twice")
            storeys[header] = int(level.split()[0])
    return storeys


ERRORS = []


def yield_error(text):
    ERRORS.append(text)


def main():
    storeys = read_storeys()
    headers = {str(p.relative_to(ROOT / "include")): p for p in (ROOT / "include").rglob("*") if p.is_file()}
    for name in sorted(set(headers) - set(storeys)):
        yield_error(f"{name}: stands on no storey; say in cmake/storeys.txt where it lives")
    for name in sorted(set(storeys) - set(headers)):
        yield_error(f"storeys.txt: {name} does not exist")
    includes = {}
    for name, path in headers.items():
        includes[name] = [i for i in INCLUDE.findall(path.read_text()) if i in headers]
        for other in includes[name]:
            if storeys.get(other, 0) > storeys.get(name, 99):
                yield_error(f"{name} (storey {storeys[name]}) includes {other} (storey {storeys[other]})")

    done, path = set(), []

    def visit(name):
        if name in path:
            yield_error("circle: " + " -> ".join(path[path.index(name):] + [name]))
            return
        if name in done:
            return
        path.append(name)
        for other in includes[name]:
            visit(other)
        path.pop()
        done.add(name)

    for name in sorted(includes):
        visit(name)
    for error in ERRORS:
        print(error)
    return 1 if ERRORS else 0


if __name__ == "__main__":
    sys.exit(main())
