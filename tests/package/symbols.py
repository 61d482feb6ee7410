#!/usr/bin/env python3
"""Checks that a shared library exports the symbols of our namespaces and nothing else: symbols.py LIBRARY"""
import re
import subprocess
import sys

OURS = r"(zel|zelIO|zelCore|zelData|zelNet|zelCFG|zelGL|zelStream|zelFormat)::"
# What the compiler makes for a class or a function of ours, before the name itself.
PREFIX = (r"(vtable for |typeinfo for |typeinfo name for |VTT for |guard variable for |construction vtable for "
          r"|virtual thunk to |non-virtual thunk to |TLS init function for |TLS wrapper function for )?")
PLAIN = {"zelFlushThreadLogs"}
# A function template prints its result type first.
ALLOWED = re.compile(rf"^{PREFIX}([A-Za-z_][\w:<>,*& ]* )?{OURS}")


def main(library):
    output = subprocess.run(["nm", "-D", "--defined-only", "-C", library], check=True, capture_output=True, text=True)
    symbols = [line.split(" ", 2)[2] for line in output.stdout.splitlines() if len(line.split(" ", 2)) == 3]
    foreign = [s for s in symbols if s not in PLAIN and not ALLOWED.match(s)]
    for symbol in foreign:
        print("exported, but not ours:", symbol)
    print(f"{len(symbols)} exported symbols, {len(foreign)} of them foreign")
    return 1 if foreign or len(symbols) < 100 else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
