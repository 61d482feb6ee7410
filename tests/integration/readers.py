"""The reader in Python against the tool, on a journal of the demonstration: each column as a series, bit for bit.

usage: readers.py ZEL SOURCES PLUGINS"""
import csv
import pathlib
import subprocess
import sys
import tempfile

import numpy as np

ZEL, SOURCES, PLUGINS = sys.argv[1:]
sys.path.insert(0, str(pathlib.Path(SOURCES) / "python"))
import zeljournal  # noqa: E402


def run(*words):
    return subprocess.run([ZEL, *words], check=True, capture_output=True, text=True, timeout=300).stdout


def compare(journal, file, path, ident=None):
    name = path if ident is None else f"{path}@{ident}"
    times, values = journal.series(path, ident)
    rows = list(csv.reader(run("journal", "export", str(file), name, "--csv").splitlines()))[1:]
    assert len(rows) == len(journal) == len(times), (name, len(rows))
    for i, row in enumerate(rows):
        told = [values[i]] if values.dtype.kind == "U" else np.ravel(values[i]).tolist()
        read = row[2:] if values.dtype.kind == "U" else [float(text) for text in row[2:]]
        assert int(row[0]) == journal.indices[i] and float(row[1]) == times[i], (name, row)
        assert read == told, (name, row, told)


def main():
    with tempfile.TemporaryDirectory() as folder:
        file = pathlib.Path(folder) / "solar.journal"
        run("run", f"{SOURCES}/examples/solar/Components/solar/Solar.zelComponent", "--path", PLUGINS, "--frames", "250",
            "--set", "numParticles=20", "--record", str(file))
        with zeljournal.open(str(file)) as journal:
            assert len(journal) == 251 and journal.session.is_closed
            compared = 0
            last = journal.frame(250)
            for name, node in last.data.items():
                if isinstance(node, zeljournal.Storage):
                    for column in node:
                        compare(journal, file, f"{name}.{column}", int(node.ids[len(node.ids) // 2]))
                        compared += 1
                elif isinstance(node, np.ndarray) and node.ndim == 0:
                    compare(journal, file, name)
                    compared += 1
            assert compared > 8, compared


main()
