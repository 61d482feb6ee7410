#!/usr/bin/env python3
"""Runs the solar example as a user would: solar.py PROGRAM CASE"""
import os
import pathlib
import re
import subprocess
import sys
import tempfile

# The state after ten days with 100 particles. It may change only when the model of the example changes.
GOLDEN_HASH = "0x195ed0d4f63345b7"


def run(program, *arguments, environment=None):
    return subprocess.run([program, "--log", "solar.log", *arguments], capture_output=True, text=True,
                          env={**os.environ, **(environment or {})}, timeout=500)


def output_of(program, *arguments, **options):
    result = run(program, *arguments, **options)
    assert result.returncode == 0, (result.returncode, result.stdout, result.stderr)
    return result.stdout


def state_hash(output):
    return re.search(r"State hash (0x[0-9a-f]{16})", output).group(1)


def same_bits_on_any_number_of_threads(program):
    hashes = {n: state_hash(output_of(program, "--days", "10", "--particles", "100", "--threads", str(n)))
              for n in (1, 2, 8)}
    assert set(hashes.values()) == {GOLDEN_HASH}, hashes


def a_year_keeps_energy_and_finds_the_periods(program):
    output = output_of(program, "--particles", "0")
    assert abs(float(re.search(r"drift of energy +(\S+)", output).group(1))) < 1e-6, output
    assert abs(float(re.search(r"drift of angular momentum +(\S+)", output).group(1))) < 1e-9, output
    found = {m[1]: (float(m[2]), float(m[3]))
             for m in re.finditer(r"^(\w+) +\w+ +~? *([\d.]+) +([\d.]+) ", output, re.M)}
    assert len(found) == 17, output
    assert abs(found["Earth"][0] - 365.256) < 0.05, output
    for name, (period, known) in found.items():
        # Mean elements and point masses: a percent is what they promise.
        assert abs(period / known - 1) < 0.02, (name, period, known)


def logs_are_numbered(program):
    for _ in range(2):
        output_of(program, "--days", "0.1", "--particles", "0")
    for name in ("solar-0001.log", "solar-0002.log"):
        text = pathlib.Path(name).read_text()
        assert "*** Log file created@" in text and "Loaded 18 bodies" in text, text


MODEL = """<?xml version="1.0"?>
<Component name="Mine">
  {}
</Component>
"""
SETTINGS = ('<Solar.Settings name="settings" step="600" duration="1" particles="10" threads="1"'
            ' data="data/solar-bodies.csv"/>'
            '<Entity.Storage name="bodies" entity="solar.Body"/>'
            '<Entity.Storage name="particles" entity="solar.Particle"/>')


def load_model(program, content, *arguments):
    path = pathlib.Path("Components/mine/Mine.zelComponent")
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(content)
    return run(program, "--model", "mine.Mine", *arguments, environment={"ZEL_PLUGIN_PATH": os.getcwd()})


def models_of_ones_own_load_and_bad_ones_are_refused(program):
    result = load_model(program, MODEL.format(SETTINGS))
    assert result.returncode == 0, result.stderr
    for good, bad, message in (
            (' step="600"', "", "Could not locate attribute 'step'. Error at row 3"),
            ('step="600"', 'step="ten"', "Unable to parse attribute step. Error at row 3"),
            ('step="600"', 'step="nan"', "The step must be above 0 seconds"),
            ('particles="10"', 'particles="-1"', "Unable to parse attribute particles. Error at row 3"),
            ("<Solar.Settings", "<Solar.Unknown", "Unknown tag 'Solar.Unknown'. Error at row 3"),
            ('name="particles"', 'name="others"', "the model has no Entity.Storage named 'particles'"),
            ('entity="solar.Body"', 'entity="solar.Particle"', "has no column 'gm' of Real:64bit"),
            ('entity="solar.Body"', 'entity="solar.None"', "Unable to load entity 'solar.None'. Error at row 3"),
            ('name="settings"', 'name="other"', "the model has no Solar.Settings named 'settings'"),
            ("data/solar-bodies.csv", "none.csv", "could not find 'none.csv'")):
        result = load_model(program, MODEL.format(SETTINGS.replace(good, bad)))
        assert result.returncode == 1, (bad, result.stdout)
        assert message in result.stderr, (message, result.stderr)
    result = load_model(program, "<Component name='Mine'>")
    assert result.returncode == 1 and "error on row" in result.stderr, result.stderr


def bad_tables_are_refused_with_their_line(program):
    head = "# comment\nname,parent,gm,a,e,i,node,argp,m,period\n"
    for rows, message in (
            ("Sun,,1,0,0,0,0,0,0\n", "table.csv:3: a row has 10 columns, not 9"),
            ("Sun,,x,0,0,0,0,0,0,0\n", "table.csv:3: 'x' is no number"),
            ("Sun,,1,0,0,0,0,0,0,0\nA,B,1,1,0,0,0,0,0,1\n", "table.csv:4: no body 'B' above this row"),
            ("Sun,,1,0,0,0,0,0,0,0\nA,Sun,1,1,1.5,0,0,0,0,1\n", "table.csv:4: the orbit must be an ellipse"),
            ("Sun,,1,0,0,0,0,0,0,0\nSun,Sun,1,1,0,0,0,0,0,1\n", "table.csv:4: a second body 'Sun'"),
            ("", "there is no body in the file")):
        pathlib.Path("table.csv").write_text(head + rows)
        result = load_model(program, MODEL.format(
            SETTINGS.replace("data/solar-bodies.csv", os.path.abspath("table.csv"))))
        assert result.returncode == 1 and message in result.stderr, (message, result.stderr)


def bad_options_show_the_usage(program):
    for arguments, message in ((["--days", "x"], "--days: 'x' is no number"),
                               (["--days", "-1"], "--days must be above 0"),
                               (["--nonsense", "1"], "unknown option --nonsense"),
                               (["--days"], "--days needs a value")):
        result = run(program, *arguments)
        assert result.returncode == 2 and message in result.stderr and "usage:" in result.stderr, result.stderr


if __name__ == "__main__":
    solar, case = os.path.abspath(sys.argv[1]), sys.argv[2]
    with tempfile.TemporaryDirectory() as directory:
        os.chdir(directory)
        globals()[case](solar)
