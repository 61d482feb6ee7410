#!/usr/bin/env python3
"""Runs the solar example as a user would: solar.py PROGRAM CASE"""
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import time

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


EXAMPLE = pathlib.Path(__file__).parents[2] / "examples/solar/Components/solar/Solar.zelComponent"


def load_model(program, changes, *arguments):
    """Runs a copy of the example's model with the changes."""
    content = EXAMPLE.read_text().replace('name="Solar"', 'name="Mine"')
    for old, new in changes:
        assert old in content, old
        content = content.replace(old, new)
    path = pathlib.Path("Components/mine/Mine.zelComponent")
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(content)
    return run(program, "--model", "mine.Mine", "--threads", "1", "--days", "10", *arguments,
               environment={"ZEL_PLUGIN_PATH": os.getcwd()})


def changed_models_run_without_a_compiler(program):
    def output(*changes):
        result = load_model(program, [('value="500"', 'value="100"'), *changes])
        assert result.returncode == 0, result.stderr
        return result.stdout

    assert state_hash(output()) == GOLDEN_HASH
    assert "100 particles over 10 days in 1440 steps" in output()
    assert "7 particles" in output(('value="100"', 'value="7"'))
    assert "over 10 days in 720 steps" in output(('timeModulation="36000"', 'timeModulation="72000"'))

    def drift_of_energy(text):
        return abs(float(re.search(r"drift of energy +(\S+)", text).group(1)))

    # Both kicks ahead of the drift make the symplectic Euler method, which is of first order.
    first_order = output(('<TaskGroup name="step" sequential="true"', '<TaskGroup name="step"'),
                         ('    </TaskGroup>\n</Component>',
                          '<dependency parent="firstKick" child="secondKick"/>'
                          '<dependency parent="secondKick" child="drift"/>'
                          '<dependency parent="drift" child="forces"/>    </TaskGroup>\n</Component>'))
    assert drift_of_energy(first_order) > 100 * drift_of_energy(output()), first_order


def real_time_makes_the_same_steps(program):
    arguments = ("--days", "0.1", "--particles", "100")
    assert state_hash(output_of(program, *arguments, "--real-time")) == state_hash(output_of(program, *arguments))


def prints_what_the_tasks_took(program):
    output = output_of(program, "--days", "1", "--statistics")
    assert "particlesForces" in output, output


def bad_models_are_refused(program):
    for old, new, message in (
            ('value="500"', 'value="many"', "many"),
            ('value="500"', 'value="10000001"', "10000001 particles are too many: at most 10000000"),
            ('value="366"', 'value="ten"', "Error at row 7"),
            ("<Clock ", "<Solar.Unknown ", "Unknown tag 'Solar.Unknown'. Error at row"),
            ('<Clock name="clock"', '<Clock name="watch"', "the model has no Clock named 'clock'"),
            ('name="particles" entity', 'name="others" entity', "the model has no Entity.Storage named 'particles'"),
            ('entity="solar.Body"', 'entity="solar.Particle"', "which has entity type"),
            ('entity="solar.Body"', 'entity="solar.None"', "Unable to load entity 'solar.None': looked for 'solar/None.zelEntity'"),
            ("data/solar-bodies.csv", "none.csv", "could not find 'none.csv'"),
            ("</Component>", "", "error on row")):
        result = load_model(program, [(old, new)])
        assert result.returncode != 0, (new, result.stdout)
        assert message in result.stderr, (message, result.stderr)


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
        result = load_model(program, [("data/solar-bodies.csv", os.path.abspath("table.csv"))])
        assert result.returncode == 1 and message in result.stderr, (message, result.stderr)


def slips_in_a_model_are_told_with_their_row(program):
    for old, new, place, messages in (
            ('<TaskGroup name="step" sequential="true" trigger', '<TaskGroup name="step" sequential="true" tigger',
             '<TaskGroup name="step"', ["nothing reads the attribute 'tigger' of 'TaskGroup' (did you mean 'trigger'?)"]),
            ('source="solar.Drift"', 'source="solar.Drifft"', '<Task name="bodiesDrift"',
             ["has no implementation 'solar.Drifft' (did you mean 'solar.Drift'?)\nLooked for 'libsolar.Drifft.so'"]),
            ('<Storage instance="sources" bind="bodies"/>', '<Storage instance="source" bind="bodies"/>',
             '<Task name="bodiesForces"', ["'sources' (ENTITY_DATA) of type EntityInstance, format default: is not given", "and no 'source', which is given"])):
        result = load_model(program, [(old, new)], "--days", "0.01")
        content = EXAMPLE.read_text()
        row = content[:content.index(place)].count("\n") + 1
        for message in [*messages, os.path.abspath("Components/mine/Mine.zelComponent") + f"', row {row}"]:
            assert message in result.stderr, (message, result.stderr)
        assert result.returncode == 0, result.stderr  # the run goes on without what is missing


def dependency_loops_end_the_run(program):
    result = load_model(program, [('    </TaskGroup>\n</Component>',
                                   '<dependency parent="forces" child="drift"/>    </TaskGroup>\n</Component>')])
    assert result.returncode not in (0, 1, 2), result.returncode
    assert "Detected dependency loop between step.forces and step.drift" in result.stderr, result.stderr


def files_that_can_not_be_opened_end_the_run(program):
    result = run(program, "--log", "/proc/none/solar.log")
    assert result.returncode == 1 and "could not open the log '/proc/none/solar.log'" in result.stderr, result.stderr
    result = run(program, "--model", "mine.None", environment={"ZEL_PLUGIN_PATH": "/none"})
    assert result.returncode == 1, result.returncode
    for message in ("Looked for 'mine/None.zelComponent'", "\n  /none (no such directory)\n", "there is no model 'mine.None'"):
        assert message in result.stderr, (message, result.stderr)


def bad_options_show_the_usage(program):
    for arguments, message in ((["--days", "x"], "--days: 'x' is no number"),
                               (["--days", "-1"], "--days must be above 0"),
                               (["--step", "0"], "--step must be above 0"),
                               (["--particles", "-5"], "--particles: '-5' is no whole number from 0 on"),
                               (["--nonsense", "1"], "unknown option --nonsense"),
                               (["--bogus"], "unknown option --bogus"),
                               (["-x"], "unknown option -x"),
                               (["word"], "'word' belongs to no option"),
                               (["--days"], "--days needs a value")):
        result = run(program, *arguments)
        assert result.returncode == 2 and message in result.stderr and "usage:" in result.stderr, result.stderr


def help_is_no_failure(program):
    for option in ("-h", "--help"):
        result = run(program, option)
        assert result.returncode == 0 and result.stdout.startswith("usage:") and not result.stderr, result


def a_recorded_run_is_replayed_and_goes_on(program):
    short = ("--days", "6.95", "--particles", "100")  # 1,001 steps
    output = output_of(program, *short, "--record", "run.journal")
    assert "Recorded 1002 frames, " in output, output
    assert "Replayed 1002 frames in " in output and "the state at the end is that of the run" in output, output
    assert state_hash(output) == state_hash(output_of(program, *short))
    # A process of its own goes on, from a key frame, from one in between, and on other threads.
    for frame, threads in ((500, 1), (555, 2), (0, 1)):
        resumed = output_of(program, *short, "--from", f"run.journal:{frame}", "--threads", str(threads))
        assert state_hash(resumed) == state_hash(output), (frame, resumed)
    # Each 7th step, with steps behind the last frame.
    output = output_of(program, *short, "--record", "run.journal", "--every", "7")
    assert "Recorded 144 frames, " in output and "is that of the run" in output, output
    for place, message in (("run.journal", "is not of the form FILE:N"), ("run.journal:1", "there is no frame 1 in 'run.journal'"),
                           ("none:0", "There is no journal 'none'.")):
        result = run(program, *short, "--from", place)
        assert result.returncode == 1 and message in result.stderr, result.stderr


def equal_runs_have_equal_journals(program):
    def frames():
        output_of(program, "--days", "1", "--particles", "50", "--record", "run.journal")
        content = pathlib.Path("run.journal").read_bytes()
        return content[34 + 10240:]  # behind the header, which holds the date

    assert frames() == frames()


def slow_steps_keep_pace_too(program):
    # Ten frames a second: fewer than a real-time clock ticks by itself.
    arguments = ("--days", "0.25", "--step", "3600", "--particles", "100")
    output = output_of(program, *arguments, "--real-time")
    assert "in 6 steps" in output, output
    assert state_hash(output) == state_hash(output_of(program, *arguments))


def full_disk_is_a_failure(program):
    for arguments in (["--days", "0.1", "--particles", "0"], ["--help"]):
        with open("/dev/full", "w") as full:
            result = subprocess.run([program, "--log", "solar.log", *arguments], stdout=full, stderr=subprocess.PIPE, text=True, timeout=500)
        assert result.returncode == 1, result
        assert "could not write to the standard output" in result.stderr, result.stderr


def interrupts_end_with_the_summary(program):
    # A run of a million years: it ends by the signal alone. What is in the log says when it has begun.
    for number in (signal.SIGINT, signal.SIGTERM):
        with open("output", "w+") as output:
            process = subprocess.Popen([program, "--log", "solar.log", "--days", "365000000", "--particles", "100"],
                                       stdout=output, stderr=subprocess.PIPE, text=True)
            while not any("Steps of" in path.read_text() for path in pathlib.Path().glob("solar-*.log")):
                assert process.poll() is None, process.stderr.read()
                time.sleep(0.01)
            process.send_signal(number)
            _, errors = process.communicate(timeout=500)
            output.seek(0)
            text = output.read()
        assert process.returncode == 128 + number, (process.returncode, errors)
        assert text.startswith("Interrupted on the way"), text
        assert "State hash 0x" in text and "drift of energy" in text, text
        for path in pathlib.Path().glob("solar-*.log"):
            path.unlink()


if __name__ == "__main__":
    solar, case = os.path.abspath(sys.argv[1]), sys.argv[2]
    with tempfile.TemporaryDirectory() as directory:
        os.chdir(directory)
        globals()[case](solar)
