#!/usr/bin/env python3
"""Checks the tree against cmake/storeys.txt: every public header stands on one storey, includes only its own storey or
lower ones, and the includes form no circle; every source, private header and test lies in the folder of its storey;
sources include what lies above them only where the table says so.

usage: check_storeys.py [--where FILE...]   also: prints the folder that each file belongs to"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
MAP = ROOT / "cmake/storeys.txt"
INCLUDE = re.compile(r'^\s*#\s*include\s*[<"]([A-Za-z_/]+\.(?:h|inl))[>"]', re.M)
ERRORS = []


class House:
    """What the map says."""

    def __init__(self):
        self.names = []    # the storeys, lowest first
        self.storeys = {}  # of public headers ("zel/Path.h") and private files ("Zip.cpp")
        self.reach = {}    # "ground/Verify.cpp" -> the headers above it
        table = False
        for number, line in enumerate(MAP.read_text().splitlines(), 1):
            line = line.split("#")[0].rstrip()
            if not line:
                continue
            where = f"storeys.txt:{number}"
            if line == "reaching up":
                table = True
            elif not line.startswith(" "):
                level, _, name = line.partition(" ")
                if level != str(len(self.names)):
                    ERRORS.append(f"{where}: storey {level} stands after {len(self.names) - 1}; each stands once, in ascending order")
                self.names.append(name)
            elif table:
                source, _, rest = line.strip().partition(":")
                files, _, reason = rest.partition("(")
                if not files.split() or not reason:
                    ERRORS.append(f"{where}: wants a source, the headers above it, and the reason in brackets")
                self.reach[source] = {pathlib.Path(f).name for f in files.split()}
            else:
                for file in line.partition(":")[2].split():
                    if file in self.storeys:
                        ERRORS.append(f"{where}: {file} stands twice")
                    self.storeys[file] = len(self.names) - 1
        stems = {pathlib.Path(f).stem: s for f, s in self.storeys.items()}
        # ref_ptr is tested by RefPtrTest.
        self.classes = stems | {"".join(w.title() for w in stem.split("_")): s for stem, s in stems.items() if "_" in stem}

    def storey(self, stem):
        """That of the listed class whose name a file's name begins with, the longest such."""
        words = re.findall(r"[A-Z]?[a-z0-9]+|[A-Z]+(?![a-z])|_[a-z]+", stem)
        for n in range(len(words), 0, -1):
            if "".join(words[:n]) in self.classes:
                return self.classes["".join(words[:n])]
        return None


def check_headers(house):
    headers = {str(p.relative_to(ROOT / "include")): p for p in (ROOT / "include").rglob("*") if p.is_file()}
    listed = {f for f in house.storeys if "/" in f}
    for name in sorted(set(headers) - listed):
        ERRORS.append(f"{name}: stands on no storey; say in cmake/storeys.txt where it lives")
    for name in sorted(listed - set(headers)):
        ERRORS.append(f"storeys.txt: {name} does not exist")
    includes = {}
    for name, path in headers.items():
        includes[name] = [i for i in INCLUDE.findall(path.read_text()) if i in headers]
        for other in includes[name]:
            if house.storeys.get(other, 0) > house.storeys.get(name, 99):
                ERRORS.append(f"{name} (storey {house.storeys[name]}) includes {other} (storey {house.storeys[other]})")
    done, path = set(), []

    def visit(name):
        if name in path:
            ERRORS.append("circle: " + " -> ".join(path[path.index(name):] + [name]))
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


def check_folder(house, folder):
    """Files of src or tests lie in the folder of their storey."""
    places = {}
    for path in sorted((ROOT / folder).glob("*/*")):
        if path.suffix not in (".h", ".cpp", ".inl") or (folder == "tests" and path.parent.name not in house.names):
            continue
        name = str(path.relative_to(ROOT / folder))
        storey = house.storeys.get(path.name, house.storey(path.stem))
        if storey is None:
            if folder == "tests" and path.suffix == ".h":
                continue  # a helper of the tests beside it
            ERRORS.append(f"{folder}/{name}: belongs to no class of cmake/storeys.txt; enter it there")
        elif house.names[storey] != path.parent.name:
            ERRORS.append(f"{folder}/{name}: belongs into {folder}/{house.names[storey]}")
        places[name] = path
    return places


def check_reach(house, sources):
    private = {p.name: name for name, p in sources.items() if p.suffix == ".h"}
    for name, path in sources.items():
        own = house.names.index(path.parent.name) if path.parent.name in house.names else 99
        above = set()
        for other in INCLUDE.findall(path.read_text()):
            storey = house.storeys.get(other)
            if storey is None and pathlib.Path(other).name in private:
                storey = house.names.index(private[pathlib.Path(other).name].split("/")[0])
            if storey is not None and storey > own:
                above.add(pathlib.Path(other).name)
        told = house.reach.pop(name, set())
        for other in sorted(above - told):
            ERRORS.append(f"src/{name} includes {other}, which lies above it; the table in cmake/storeys.txt does not say why")
        for other in sorted(told - above):
            ERRORS.append(f"storeys.txt: {name} does not include {other} any more")
    for name in house.reach:
        ERRORS.append(f"storeys.txt: {name} does not exist")


def main():
    house = House()
    if sys.argv[1:2] == ["--where"]:
        for file in map(pathlib.Path, sys.argv[2:]):
            storey = house.storeys.get(file.name, house.storey(file.stem))
            print(file, "-" if storey is None else house.names[storey])
        return 0
    check_headers(house)
    sources = check_folder(house, "src")
    check_folder(house, "tests")
    check_reach(house, sources)
    for error in ERRORS:
        print(error)
    return 1 if ERRORS else 0


if __name__ == "__main__":
    sys.exit(main())
