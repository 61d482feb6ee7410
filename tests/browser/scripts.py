"""Checks that each script of the page is what the compiler makes of its source: scripts.py TSC FOLDER"""
import filecmp
import pathlib
import subprocess
import sys
import tempfile

tsc, folder = sys.argv[1], pathlib.Path(sys.argv[2])
with tempfile.TemporaryDirectory() as made:
    subprocess.run([tsc, "-p", str(folder), "--outDir", made], check=True)
    names = sorted(path.name for path in pathlib.Path(made).iterdir())
    sources = sorted(path.with_suffix(".js").name for path in folder.glob("*.ts") if not path.name.endswith(".d.ts"))
    if names != sources:
        sys.exit(f"compiled were {names}, not {sources}: are all in tsconfig.json?")
    _, other, missing = filecmp.cmpfiles(made, folder, names, shallow=False)
    if other + missing:
        sys.exit(f"not what the compiler makes of their sources: {', '.join(other + missing)}; run tsc -p {folder.name}")
    page = (folder / "index.html").read_text()
    if forgotten := [name for name in names if f'<script src="{name}"></script>' not in page]:
        sys.exit(f"not loaded by the page: {', '.join(forgotten)}")
