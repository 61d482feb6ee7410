#!/usr/bin/env python3
"""Runs the tool as a user would: tool.py ZEL WRITER SOURCES BUILD CASE"""
import ast
import json
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

ZEL, WRITER, SOURCES, BUILD = sys.argv[1:5]
COMMANDS = ["run", "tree", "journal info", "journal frames", "journal show", "journal verify", "journal record",
            "journal recover", "journal cut", "journal export", "journal diff", "archive info", "archive show", "archive convert"]
CREW = os.path.join(BUILD, "tests", "crew")


def zel(*words, code=0, errors=""):
    """Runs a command, whose exit code and whose words on the standard error stream must be these."""
    result = subprocess.run([ZEL, *words], capture_output=True, text=True, timeout=300)
    assert result.returncode == code, (words, result.returncode, result.stdout, result.stderr)
    if errors is not None:
        assert result.stderr == errors, (words, result.stderr)
    return result.stdout


def same(told, expected):
    assert told == expected, f"\n{told}\n-- instead of\n{expected}"


def write(path, *options):
    subprocess.run([WRITER, path, *options], check=True, timeout=60)
    return path


def damaged(path, offset, value=0x55):
    content = bytearray(pathlib.Path(path).read_bytes())
    content[offset] ^= value
    pathlib.Path("damaged").write_bytes(content)
    return "damaged"


def frames_of(path):
    return json.loads(zel("journal", "frames", path, "--json"))["frames"]


def help_is_there_for_each_command():
    overview = zel("--help")
    page = pathlib.Path(ZEL).with_name("zel.1").read_text()
    script = pathlib.Path(ZEL).with_name("zel.bash").read_text()
    for command in COMMANDS:
        assert f"\n  {command} " in overview, command
        text = zel(*command.split(), "--help")
        assert text.startswith(f"usage: zel {command} "), text
        assert f"\n.SS zel {command} ".replace("-", "\\-") in page, command
        for option in re.findall(r"^  (--[a-z]+)", text, re.M):
            assert re.search(rf'"{command}"\) options="[^"]*{option}\b', script), (command, option)
        summary = text.split("\n\n")[1].split(".")[0].replace("\n", " ")
        assert summary in page, summary
    subprocess.run(["bash", "-n", str(pathlib.Path(ZEL).with_name("zel.bash"))], check=True)
    completed = subprocess.run(
        ["bash", "-c", 'source "$1"; COMP_WORDS=(zel journal reco); COMP_CWORD=2; _zel; echo "${COMPREPLY[@]}"', "bash",
         str(pathlib.Path(ZEL).with_name("zel.bash"))], capture_output=True, text=True, check=True)
    assert completed.stdout.split() == ["record", "recover"], completed.stdout
    assert re.fullmatch(r"zel \d+\.\d+\.\d+\.\d+\n", zel("--version"))


def wrong_usage_is_told_with_the_usage():
    info = "usage: zel journal info FILE [--json]\n"
    for words, errors in (
            (["fly"], "zel: there is no command 'fly'; see zel --help\n"),
            (["journal"], "zel: the command 'journal' needs a second word; see zel --help\n"),
            (["archive"], "zel: the command 'archive' needs a second word; see zel --help\n"),
            (["journal", "fly"], "zel: there is no command 'journal fly'; see zel --help\n"),
            (["journal", "info"], "zel journal info: an argument lacks\n" + info),
            (["journal", "info", "a", "b"], "zel journal info: 'b' is one argument too many\n" + info),
            (["journal", "info", "--fly", "a"], "zel journal info: unknown option --fly\n" + info),
            (["journal", "info", "--json=1", "a"], "zel journal info: --json takes no value\n" + info),
            (["journal", "cut", "a", "b", "--from"],
             "zel journal cut: --from needs a value\nusage: zel journal cut FILE NEW [--from A] [--to B]\n"),
            (["journal", "cut", "a", "b", "--from", "-1"],
             "zel journal cut: --from: '-1' is no whole number from 0 on\n"
             "usage: zel journal cut FILE NEW [--from A] [--to B]\n"),
            (["journal", "diff", "a", "b", "--tolerance=nan"],
             "zel journal diff: --tolerance: 'nan' is no number from 0 on\n"
             "usage: zel journal diff FILE OTHER [--tolerance T]\n"),
            (["run", "m", "--frames", "1", "--time", "1"],
             "zel run: --frames and --time are two ways to tell the end\n"
             "usage: zel run MODEL [--frames N | --time T] [OPTION]...\n")):
        assert zel(*words, code=2, errors=errors) == ""
    assert "usage: zel COMMAND" in subprocess.run([ZEL], capture_output=True, text=True, timeout=60).stderr


def info_tells_what_is_in_a_journal():
    path = write("a.journal")
    size = os.path.getsize(path)
    same(zel("journal", "info", path), f"""file: a.journal
size: {size} bytes ({size / 1000:.1f} kB)
session: drive
recorded: 1970-01-01 00:00:00, by version {zel("--version").split()[1]}
computation time: 0 s
frames: 10, 3 of them key frames
indices: 0 to 9
time: 0 to 4.5
headers of frames: 3723 bytes
data of frames: 616 bytes
time step: 0.5
frame stride: 1
scene: 7 bytes
extra data:
    seed: 42
""")
    content = pathlib.Path(path).read_bytes()
    pathlib.Path("loud").write_bytes(content.replace(b">drive<", b">\x1b[2J\x07<").replace(b">42<", b">\x1b2<"))
    told = zel("journal", "info", "loud")
    assert "session: ?[2J?\n" in told and "\n    seed: ?2\n" in told, told
    told = json.loads(zel("journal", "info", path, "--json"))
    assert told["numFrames"] == 10 and told["numKeyFrames"] == 3 and told["closed"] is True, told
    assert told["extraData"] == {"seed": "42"} and "faults" not in told, told
    # One that was torn is told of as far as it can be read.
    torn = frames_of(path)[9]["offset"]
    pathlib.Path("torn").write_bytes(pathlib.Path(path).read_bytes()[:torn + 100])
    fault = f"zel: torn, at offset {torn}: the file is cut off within the frame\n"
    assert "frames: 9, 3 of them key frames\n" in zel("journal", "info", "torn", code=1, errors=None)
    told = json.loads(zel("journal", "info", "torn", "--json", code=1, errors=None))
    assert told["numFrames"] == 9 and told["faults"][-1] == {"offset": torn,
                                                              "text": "the file is cut off within the frame"}, told
    assert fault in subprocess.run([ZEL, "journal", "frames", "torn"], capture_output=True, text=True).stderr


def frames_are_listed():
    path = write("a.journal")
    lines = zel("journal", "frames", path).splitlines()
    assert len(lines) == 11 and lines[1].split() == ["0", "0", "0.5", "key", "10281", "552", "112"], lines
    assert lines[2].split()[:3] == ["1", "0.5", "0.5"] and "key" not in lines[2], lines
    frames = frames_of(path)
    assert [frame["index"] for frame in frames] == list(range(10))
    assert [frame["isKeyFrame"] for frame in frames] == [i % 4 == 0 for i in range(10)]


def frames_are_shown_complete():
    path = write("a.journal")
    assert zel("journal", "show", path, "6") == """frame 6, time 3, step 0.5, 0 events
car  component
  speed  Real:64bit = 13
  driver  String:default[1] = (Ann, "A")
  wheels  Real:64bit[4] = 1; 2; 3; 3
stones  storage of 2 instances, room for 3
  mass  Real:64bit[2] = 8; 10
  _idToIndex  UInt:64bit[3] = 4294967295; 1; 0
  _indexToId  UInt:64bit[2] = 2; 1
"""
    assert "wheels  Real:64bit[1] of 4\n" in zel("journal", "show", path, "6", "--raw")
    assert zel("journal", "show", path, "first", "car.wheels", "--elements", "2") == (
        "frame 0, time 0, step 0.5, a key frame, 0 events\nwheels  Real:64bit[4] = 1; 2; ...\n")
    zel("journal", "show", path, "last")
    zel("journal", "show", path, "77", code=3, errors="zel: 'a.journal' has no frame 77, but those from 0 to 9\n")
    zel("journal", "show", path, "1", "car.x", code=3, errors="zel: frame 1 has no node 'car.x'\n")
    zel("journal", "show", path, "x", code=2, errors="zel journal show: FRAME: 'x' is no whole number from 0 on\n"
        "usage: zel journal show FILE FRAME [PATH] [OPTION]...\n")


def files_that_are_no_journals_end_with_a_sentence():
    pathlib.Path("text").write_text("text")
    for command in ("info", "frames"):
        zel("journal", command, "none", code=3, errors="zel: There is no file 'none'.\n")
        zel("journal", command, "text", code=3, errors="zel: 'text' is no journal.\n")
    zel("journal", "verify", "none", code=3, errors="zel: There is no file 'none'.\n")
    assert "  at offset 0: the file does not begin as a journal\n" in zel("journal", "verify", "text", code=1)
    zel("journal", "recover", "text", "new", code=3, errors="zel: No frame of 'text' can be read.\n")
    zel("journal", "diff", "text", "text", code=3, errors="zel: 'text' is no journal.\n")
    assert not os.path.exists("new")
    path = write("a.journal")
    zel("journal", "recover", path, "text", code=3, errors="zel: There is a file 'text' already.\n")
    with open("/dev/full", "w") as full:
        result = subprocess.run([ZEL, "journal", "info", path], stdout=full, stderr=subprocess.PIPE, text=True)
    assert result.returncode == 3 and result.stderr == "zel: could not write to the standard output\n", result


def verify_finds_faults():
    path = write("a.journal", "--sums")
    size = os.path.getsize(path)
    looked = f"Looked at {size} bytes ({size / 1000:.1f} kB): "
    assert zel("journal", "verify", path) == (
        looked + "10 frames, 3 key frames, 89 nodes, 0 events, 616 bytes of elements, 10 frames with a checksum.\n"
        "No fault was found.\n")
    frame = frames_of(path)[5]
    data = (frame["offset"] + frame["headerSize"] + 31) // 32 * 32
    os.rename(path + ".sums", "damaged.sums")
    told = zel("journal", "verify", damaged(path, data), code=1)
    assert told.startswith(looked + "7 frames, 3 key frames"), told
    assert told.endswith(f"1 fault:\n  at offset {frame['offset']}: the checksum of the data differs\n"), told
    os.remove("damaged.sums")
    assert "No fault was found." in zel("journal", "verify", "damaged")


def recover_tells_what_came_back():
    path = write("a.journal")
    frames = frames_of(path)
    offset = frames[5]["offset"]
    told = zel("journal", "recover", damaged(path, offset + 48), "new", code=1)
    same(told, (
        "7 frames came back: 0 to 4, 8 to 9.\n"
        "2 frames missing of which a record was found:\n"
        f"  6, at offset {frames[6]['offset']}: it builds on frames that are gone\n"
        f"  7, at offset {frames[7]['offset']}: it builds on frames that are gone\n"
        "Bytes that were left out:\n"
        f"  {offset} to {frames[6]['offset']}: the file is no record of a frame\n"
        f"  {frames[6]['offset']} to {frames[8]['offset']}: it builds on frames that are gone\n"
        "1 fault of damaged:\n"
        f"  at offset {offset}: the file is no record of a frame\n"
        "new:\n"
        f"Looked at {os.path.getsize('new')} bytes ({os.path.getsize('new') / 1000:.1f} kB): "
        "7 frames, 3 key frames, 65 nodes, 0 events, 496 bytes of elements, 0 frames with a checksum.\n"
        "No fault was found.\n"))
    assert [frame["index"] for frame in frames_of("new")] == [0, 1, 2, 3, 4, 8, 9]
    assert zel("journal", "recover", path, "again").startswith("10 frames came back: 0 to 9.\nagain:\n")
    assert pathlib.Path("again").read_bytes() == pathlib.Path(path).read_bytes()


def cut_begins_with_a_key_frame():
    path = write("a.journal")
    assert zel("journal", "cut", path, "part", "--from", "5", "--to", "9") == "Wrote 5 frames to part.\n"
    assert [(frame["index"], frame["isKeyFrame"]) for frame in frames_of("part")] == [
        (5, True), (6, False), (7, False), (8, True), (9, False)]
    shown = zel("journal", "show", path, "7")
    assert zel("journal", "show", "part", "7") == shown
    zel("journal", "cut", path, "part", code=3, errors="zel: There is a file 'part' already.\n")
    zel("journal", "cut", path, "none", "--from", "50", code=3,
        errors="zel: 'a.journal' has no frame from 50 to 18446744073709551615.\n")
    zel("journal", "cut", path, "none", "--from", "5", "--to", "4", code=2, errors=None)


def series_are_exported_as_text():
    path = write("a.journal")
    lines = zel("journal", "export", path, "car.speed", "car.driver", "stones.mass@2", "--csv").splitlines()
    assert lines[0] == "frame,time,car.speed,car.driver,stones.mass@2", lines
    assert lines[1:] == [f'{i},{i / 2:g},{10 + i / 2:g},"Ann, ""A""",{5 + i / 2:g}' for i in range(10)], lines
    assert zel("journal", "export", path, "car.speed", "--output", "x.csv") == "Wrote 10 rows to x.csv.\n"
    assert pathlib.Path("x.csv").read_text().splitlines()[10] == "9,4.5,14.5"
    for word, message in (("stones.mass@0", "'stones' has no instance 0 in frame 0"),
                          ("stones.mass@3", "'stones' has no instance 3 in frame 0"),
                          ("stones.size@1", "'stones' has no attribute 'size' in frame 0"),
                          ("car.speed@1", "'car' is no storage in frame 0"),
                          ("car.wheels", "'car.wheels' is no single value in frame 0"),
                          ("stones.mass",
                           "'stones.mass' is a column: 'stones.mass@ID' is that of the instance with the id"),
                          ("car.horn", "nothing stands at 'car.horn' in frame 0")):
        zel("journal", "export", path, word, code=3, errors=f"zel: {message}\n")
    zel("journal", "export", path, "stones@1", code=2, errors=None)


def series_are_exported_as_arrays():
    path = write("a.journal")
    zel("journal", "export", path, "car.speed", "stones.mass@1", "--npy", "--output", "x.npy", errors="")
    content = pathlib.Path("x.npy").read_bytes()
    assert content[:8] == b"\x93NUMPY\x01\x00"
    length = struct.unpack("<H", content[8:10])[0]
    assert (10 + length) % 64 == 0
    header = ast.literal_eval(content[10:10 + length].decode())
    assert header == {"descr": [("frame", "<u8"), ("time", "<f8"), ("car.speed", "<f8"), ("stones.mass@1", "<f8")],
                      "fortran_order": False, "shape": (10,)}, header
    rows = list(struct.iter_unpack("<Qddd", content[10 + length:]))
    assert rows == [(i, i / 2, 10 + i / 2, 7 + i / 2) for i in range(10)], rows
    zel("journal", "export", path, "car.driver", "--npy", "--output", "y.npy", code=3,
        errors="zel: 'car.driver' is no number; --csv writes texts\n")


def differences_are_told():
    path = write("a.journal")
    write("same", "--other-keys")
    assert zel("journal", "diff", path, "same") == "No difference in 10 frames.\n"
    write("more", "--change")
    assert zel("journal", "diff", path, "more", code=1) == (
        "The first difference is in frame 6, at car.more:\n  a.journal: nothing\n  more: a value of Real:64bit\n")
    frame = frames_of(path)[0]
    data = (frame["offset"] + frame["headerSize"] + 31) // 32 * 32
    wheels = pathlib.Path(path).read_bytes().index(struct.pack("<dd", 1, 2), data)
    assert zel("journal", "diff", path, damaged(path, wheels + 8 + 6, 0x08), code=1) == (
        "The first difference is in frame 0, at car.wheels, element 1:\n  a.journal: 2\n  damaged: 3\n")
    assert zel("journal", "diff", path, "damaged", "--tolerance", "1") == "No difference in 10 frames.\n"


def foreign_formats_are_shown_as_bytes():
    content = pathlib.Path(write("a.journal")).read_bytes()
    pathlib.Path("foreign").write_bytes(content.replace(b"Real:64bit", b"Rxal:64bit"))
    assert ("  speed  Rxal:64bit = 0x0000000000002440  (a format that is not known, 8 bytes each)\n"
            in zel("journal", "show", "foreign", "0"))
    assert "No fault was found." in zel("journal", "verify", "foreign")
    # Those that are not asked for do no harm.
    assert zel("journal", "export", "foreign", "car.driver").splitlines()[1] == '0,0,"Ann, ""A"""'


MODEL = """<Component name="Counter">
    <Value name="start" type="Real" value="1"/>
    <Clock name="clock" frequency="4"/>
</Component>
"""


def models_run_and_end_on_signals():
    pathlib.Path("Counter.zelComponent").write_text(MODEL)
    ran = r"%d frames, up to time %s, in \d+\.\d\d s on %d threads\n"
    assert re.fullmatch(ran % (10, "2.5", 2), zel("run", "Counter.zelComponent", "--frames", "10", "--threads", "2"))
    assert re.fullmatch(ran % (12, "3", 1), zel("run", "Counter.zelComponent", "--time", "3", "--threads", "1"))
    assert re.fullmatch(ran % (0, "0", 1), zel("run", "Counter.zelComponent", "--frames", "0", "--threads", "1"))
    pathlib.Path("Other.zelComponent").write_text(MODEL)
    zel("run", "./Other.zelComponent", "--frames", "1", code=3,
        errors=f"Unable to find plugin for resource: '{os.getcwd()}/./Other.zelComponent'\n"
               "zel: no component of './Other.zelComponent' is named like the file\n")
    for words, message in ((["./none"], "there is no file './none'"),
                           (["Counter.zelComponent", "--set", "end=1"], "the model has nothing at 'end'"),
                           (["Counter.zelComponent", "--set", "Counter.start=1"],
                            "the model has nothing at 'Counter.start': paths begin below it, as in 'start'"),
                           (["Counter.zelComponent", "--set", "clock=1"], "'clock' is no value of the model"),
                           (["Counter.zelComponent", "--set", "start=3,5"],
                            "--set start: '3,5' is not wholly a value of type 'Real:64bit': ',5' stands behind the number"),
                           (["Counter.zelComponent", "--clock", "start"], "'start' is no clock"),
                           (["Counter.zelComponent", "--path", "none"], "there is no folder 'none'")):
        zel("run", *words, "--frames", "1", code=3, errors=f"zel: {message}\n")
    for number in (signal.SIGINT, signal.SIGTERM):
        process = subprocess.Popen([ZEL, "run", "Counter.zelComponent"], stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True)
        # Asked again until it is heard: the handlers stand once the command has begun.
        status = pathlib.Path(f"/proc/{process.pid}/status")
        while int(re.search(r"SigCgt:\s*(\S+)", status.read_text()).group(1), 16) >> (number - 1) & 1 == 0:
            time.sleep(0.01)
        process.send_signal(number)
        output, errors = process.communicate(timeout=60)
        assert process.returncode == 128 + number and output.startswith("Ended by a signal.\n"), (output, errors)


def runs_are_recorded():
    pathlib.Path("Counter.zelComponent").write_text(MODEL)
    told = zel("run", "Counter.zelComponent", "--frames", "5", "--record", "run.journal")
    assert told.endswith("Recorded 6 frames in run.journal\n"), told
    assert [frame["index"] for frame in frames_of("run.journal")] == list(range(6))
    assert "start  Real:64bit = 1\n" in zel("journal", "show", "run.journal", "last")
    assert "No fault was found." in zel("journal", "verify", "run.journal")
    zel("run", "Counter.zelComponent", "--frames", "5", "--record", "run.journal", code=3, errors=None)
    # Ended by a signal, the journal is closed.
    process = subprocess.Popen([ZEL, "run", "Counter.zelComponent", "--record", "long.journal"],
                               stdout=subprocess.PIPE, text=True)
    while not os.path.exists("long.journal") or os.path.getsize("long.journal") < 20000:
        time.sleep(0.01)
    process.send_signal(signal.SIGINT)
    process.communicate(timeout=60)
    assert process.returncode == 130
    assert json.loads(zel("journal", "info", "long.journal", "--json"))["closed"] is True


class Stream:
    """A run that sends its frames until it is told to end."""

    runs = []

    def __init__(self, *words):
        self.runs.append(self)
        pathlib.Path("Counter.zelComponent").write_text(MODEL)
        self.process = subprocess.Popen([ZEL, "run", "Counter.zelComponent", *words], stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True)
        self.ports = []
        for kind in re.findall(r"--stream (\w+):", " ".join(words)):
            line = self.process.stdout.readline()
            assert re.fullmatch(rf"Streaming to {kind}:\d+\n", line), (line, self.process.stderr.read())
            self.ports.append(line[len("Streaming to "):-1].replace(":", ":127.0.0.1:"))

    def end(self):
        self.process.send_signal(signal.SIGINT)
        output, errors = self.process.communicate(timeout=300)
        assert self.process.returncode == 130 and errors == "", (output, errors)
        return output

    def give_up(self):
        """The test has failed. Who reads from a run that has gone tells nothing of why, and nobody ends one that has not."""
        self.process.kill()
        if not self.process.stdout.closed:
            told = self.process.communicate()
            if self.process.returncode != -signal.SIGKILL:
                print(f"A run ended with {self.process.returncode}:", *told, file=sys.stderr)


def size_of(path):
    """Of a file that may not be there, and may come and go while it is made."""
    try:
        return os.path.getsize(path)
    except FileNotFoundError:
        return 0


def recorder(port, path):
    """Records what comes from the port; some of it is there."""
    process = subprocess.Popen([ZEL, "journal", "record", "--from", port, path], stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, text=True)
    end = time.monotonic() + 60
    while size_of(path) < 50000:
        assert process.poll() is None and time.monotonic() < end, process.communicate()
        time.sleep(0.01)
    return process


def end_of(process, code=0):
    output, errors = process.communicate(timeout=300)
    assert process.returncode == code, (process.returncode, output, errors)
    return output, errors


def is_whole(path):
    assert "No fault was found." in zel("journal", "verify", path)
    assert json.loads(zel("journal", "info", path, "--json"))["closed"] is True
    return [frame["index"] for frame in frames_of(path)]


def streams_are_recorded_in_another_process():
    for kind in ("tcp", "ws"):
        run = Stream("--stream", f"{kind}:0", "--record", f"{kind}.sent")
        process = recorder(run.ports[0], f"{kind}.journal")
        assert f"to {kind}:" in run.end()
        output, errors = end_of(process)
        indices = is_whole(f"{kind}.journal")
        assert output == f"Recorded {len(indices)} frames in {kind}.journal\n" and errors == "", (output, errors)
        assert indices == list(range(indices[0], indices[-1] + 1))
        zel("journal", "cut", f"{kind}.sent", f"{kind}.part", "--from", str(indices[0]), "--to", str(indices[-1]))
        assert (zel("journal", "diff", f"{kind}.part", f"{kind}.journal")
                == f"No difference in {len(indices)} frames.\n")
        zel("journal", "record", "--from", "tcp:127.0.0.1:1", f"{kind}.journal", code=3,
            errors=f"zel: There is a file '{kind}.journal' already.\n")


def streams_go_on_when_a_reader_is_killed():
    for kind in ("tcp", "ws"):
        run = Stream("--stream", f"{kind}:0", "--budget", "1000000")
        first = recorder(run.ports[0], f"{kind}.first")
        first.kill()
        first.communicate(timeout=60)
        second = recorder(run.ports[0], f"{kind}.second")
        second.send_signal(signal.SIGINT)
        assert end_of(second, 130)[0].startswith("Ended by a signal.\nRecorded ")
        assert is_whole(f"{kind}.second")
        third = recorder(run.ports[0], f"{kind}.third")
        run.end()
        end_of(third)
        assert is_whole(f"{kind}.third")[0] > is_whole(f"{kind}.second")[-1]


def give_signals(process, *numbers):
    """Each is taken ahead of the next one, which would else be the same."""
    status = pathlib.Path(f"/proc/{process.pid}/status")
    for number in numbers:
        process.send_signal(number)
        while process.poll() is None and int(re.search(r"ShdPnd:\s*(\S+)", status.read_text()).group(1), 16):
            time.sleep(0)


def the_third_signal_ends_a_command_at_once():
    with socket.create_server(("127.0.0.1", 0)) as server:
        process = subprocess.Popen([ZEL, "journal", "record", "--from", f"ws:127.0.0.1:{server.getsockname()[1]}", "x"])
        with server.accept()[0]:  # which says nothing
            give_signals(process, signal.SIGINT, signal.SIGTERM)
            assert process.poll() is None
            give_signals(process, signal.SIGINT)
            assert process.wait(60) == -signal.SIGINT
    assert not os.path.exists("x")


def journals_are_closed_when_a_signal_comes_twice():
    run = Stream("--stream", "ws:0", "--stream", "tcp:0", "--budget", "1000000")
    for number in (signal.SIGINT, signal.SIGTERM):
        for port in run.ports:
            path = f"{port[:3].strip(':')}.{number}"
            process = recorder(port, path)
            give_signals(process, number, number)  # as `timeout` does, to the process and to its group
            assert end_of(process, 128 + number)[0].startswith("Ended by a signal.\nRecorded ")
            assert is_whole(path)
    run.end()


def journals_are_closed_when_the_sender_is_killed():
    for kind, code, told in (("tcp", 1, "The connection was lost.\nRecorded "), ("ws", 0, "Recorded ")):
        run = Stream("--stream", f"{kind}:0")
        process = recorder(run.ports[0], f"{kind}.journal")
        run.process.kill()
        run.process.communicate(timeout=60)
        output, errors = end_of(process, code)
        assert output.startswith(told) and errors == "", (output, errors)
        assert is_whole(f"{kind}.journal")


def two_readers_get_the_same_frames():
    run = Stream("--stream", "tcp:0", "--stream", "ws:0")
    processes = [recorder(port, path) for port, path in zip(run.ports * 2, ("a", "b", "c", "d"))]
    assert len(re.findall("^Streamed ", run.end(), re.M)) == 2
    for process in processes:
        end_of(process)
    for one, other in (("a", "c"), ("b", "d")):
        begin = max(is_whole(one)[0], is_whole(other)[0])
        end = min(is_whole(one)[-1], is_whole(other)[-1])
        for path in (one, other):
            zel("journal", "cut", path, path + ".part", "--from", str(begin), "--to", str(end))
        assert zel("journal", "diff", one + ".part", other + ".part").startswith("No difference in ")


def readers_that_are_slow_lose_frames_and_not_their_connection():
    run = Stream("--stream", "ws:0", "--budget", "1")
    process = recorder(run.ports[0], "few")
    output = run.end()
    assert re.search(r"Streamed \d+ frames to ws:\d+; \d+ were left out, since readers were too slow\n", output), output
    end_of(process)
    indices = is_whole("few")
    assert indices == sorted(indices) and len(indices) < indices[-1] - indices[0] + 1


def readers_that_never_read_do_not_hold_a_run():
    run = Stream("--stream", "tcp:0", "--budget", "20000")
    with socket.socket() as reader:
        reader.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        reader.connect(("127.0.0.1", int(run.ports[0].split(":")[-1])))
        reader.recv(1, socket.MSG_PEEK)  # it is connected; a run with an end meanwhile leaves time to fill its queue
        other = Stream("--stream", "tcp:0", "--frames", "20000", "--budget", "20000")
        with socket.create_connection(("127.0.0.1", int(other.ports[0].split(":")[-1]))):
            other.process.communicate(timeout=300)
            assert other.process.returncode == 0
        told = run.end()
    found = re.search(r"^Streamed (\d+) frames to tcp:\d+; (\d+) were left out, since readers were too slow$", told, re.M)
    assert found and int(found[1]) + int(found[2]) == int(told.split("\n")[1].split()[0]) + 1, told


def streams_that_can_not_be_are_told_of():
    pathlib.Path("Counter.zelComponent").write_text(MODEL)
    with socket.socket() as taken:
        taken.bind(("", 0))
        taken.listen()
        port = taken.getsockname()[1]
        for kind in ("tcp", "ws"):
            result = subprocess.run([ZEL, "run", "Counter.zelComponent", "--frames", "1", "--stream", f"{kind}:{port}"],
                                    capture_output=True, text=True, timeout=60)
            assert result.returncode == 3 and result.stdout == "", result
            assert re.fullmatch(rf"zel: can not listen on {kind}:{port}: .+\n", result.stderr), result.stderr
    for name in ("tcp", "tcp:", "tcp:x", "tcp:-1", "tcp:65536", "udp:1", "tcp:1:2", "ws:1 "):
        errors = subprocess.run([ZEL, "run", "none", "--stream", name], capture_output=True, text=True, timeout=60)
        assert errors.returncode == 2 and errors.stderr.startswith(
            f"zel run: --stream: '{name}' is not of the form tcp:PORT or ws:PORT, with a port up to 65535\n"), errors
    for name in ("tcp:1", "tcp::1", "tcp:host:", "tcp:host:0", "ws:host:70000", "http:host:1"):
        errors = subprocess.run([ZEL, "journal", "record", "--from", name, "x"], capture_output=True, text=True)
        assert errors.returncode == 2 and errors.stderr.startswith(
            f"zel journal record: --from: '{name}' is not of the form tcp:HOST:PORT or ws:HOST:PORT, with a port up "
            "to 65535\n"), errors
    for kind in ("tcp", "ws"):  # nobody listens there any more
        result = subprocess.run([ZEL, "journal", "record", "--from", f"{kind}:127.0.0.1:{port}", "x"],
                                capture_output=True, text=True, timeout=60)
        assert result.returncode == 3 and not os.path.exists("x"), result
        assert result.stderr.startswith(f"zel: no frames come from {kind}:127.0.0.1:{port}: "), result.stderr


def frames_of_unknown_formats_end_a_recording():
    node = {"nodeType": "Value", "name": "x", "id": 0, "type": "Wind:64bit", "offset": 0, "numBytes": 8}
    header = json.dumps({"index": 1, "timeStamp": 0, "timeStep": 1, "name": "f", "children": [node]}).encode()
    packet = struct.pack("<6I", 0, 0, 0, len(header), 24 + len(header), 8) + header + bytes(8)
    with socket.create_server(("127.0.0.1", 0)) as server:
        process = subprocess.Popen(
            [ZEL, "journal", "record", "--from", f"tcp:127.0.0.1:{server.getsockname()[1]}", "x"],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        client, _ = server.accept()
        with client:
            client.sendall(packet)
            output, errors = end_of(process, 3)
    assert output == "Recorded 0 frames in x\n", output
    assert errors == "zel: FramePacket: Invalid format 'Wind:64bit'\n", errors


def trees_are_printed():
    pathlib.Path("Counter.zelComponent").write_text(MODEL)
    tree = zel("tree", "Counter.zelComponent", "--set", "start=3.5")
    assert tree.startswith("|-Counter\n| |-start type=Real:64bit, value=3.5\n| |-clock\n"), tree
    assert zel("tree", "Counter.zelComponent", "clock").startswith("|-clock\n")
    zel("tree", "Counter.zelComponent", "x.y", code=3, errors="zel: the model has nothing at 'x.y'\n")


def write_archive(path, *options):
    subprocess.run([pathlib.Path(WRITER).with_name("writeArchive"), path, *options], check=True, timeout=60)
    return path


def archives_are_told_of():
    version = zel("--version").split()[1]
    for options, form in (([], "binary, little-endian"), (["--big-endian"], "binary, big-endian")):
        path = write_archive("ship.archive", *options)
        size = os.path.getsize(path)
        told = zel("archive", "info", path)  # without the classes
        begin = (f"file: ship.archive\nsize: {size} bytes\nform: {form}\napplication: harbour\n"
                 f"version: {version}\nserialization version: 90\nwritten: ")
        assert told.startswith(begin), told
        assert "\nbuild flags:\n    USE_SSE: " in told and told.endswith("\nmodifications:\n    0badcafe\n    904156fd\n"), told
    told = json.loads(zel("archive", "info", path, "--json"))
    assert told["application"] == "harbour" and told["modifications"] == ["0badcafe", "904156fd"], told
    assert list(told["buildFlags"]) and told["serializationVersion"] == 90, told
    pathlib.Path("no.archive").write_bytes(b"x" * 100)
    zel("archive", "info", "no.archive", code=3, errors="zel: no.archive: Current scope: 'Archive/Version'. "
        "Invalid archive format (bad magic)\n")
    zel("archive", "info", "none", code=3, errors="zel: none: there is no such file\n")
    os.mkfifo("pipe")
    zel("archive", "info", "pipe", code=3, errors="zel: pipe is no regular file\n")


SHIP = """#1 crew::Ship  00000000-0000-0000-0000-000000000000
    true
    'A'
    [log]
        double[3]: 1, 2.5, -1e+300
    by value  00000000-0000-0000-0000-000000000000
        name = "Ada"
        51
        #2 crew::Sailor  00000000-0000-0000-0000-000000000000
            name = "Bo?"
            -1
            -> #2 crew::Sailor
    -> #2 crew::Sailor
    null
-> #2 crew::Sailor
null
"""
COUNTS = "2 of class crew::Sailor\n1 of class crew::Ship\n"
HINT = ("\nThe objects can only be read with their classes, which are looked for in the libraries of ZEL_PLUGIN_PATH and "
        "of --path, by the first namespace of their names; and they have to stand one after the other, each stored "
        "by reference.\n")


def archives_are_shown():
    for options in ([], ["--big-endian"]):
        path = write_archive("ship.archive", *options)
        same(zel("archive", "show", path, "--path", CREW), SHIP + COUNTS)
    same(zel("archive", "show", path, "--path", CREW, "--counts"), COUNTS)
    zel("archive", "show", path, code=3, errors="zel: ship.archive: Current scope: 'Archive/Object/TypeHeader'. "
        "Unable to get StorageAgent for a referenced object: 'crew::Ship'" + HINT)
    write_archive("value.archive", "--value-first")
    zel("archive", "show", "value.archive", "--path", CREW, code=3,
        errors="zel: value.archive: Current scope: 'Archive/Object'. Invalid archive format (bad class tag)" + HINT)


def archives_are_converted_there_and_back():
    path = write_archive("ship.archive")
    zel("archive", "convert", path, "ship.xml", code=3, errors=None)  # without the classes
    assert not os.path.exists("ship.xml")
    assert zel("archive", "convert", path, "ship.xml", "--path", CREW) == "3 objects written to ship.xml\n"
    same(zel("archive", "show", "ship.xml", "--path", CREW), SHIP + COUNTS)
    told = zel("archive", "info", "ship.xml")
    assert "form: XML\napplication: harbour\n" in told and "\n    0badcafe\n" in told, told
    zel("archive", "convert", "ship.xml", "again.archive", "--path", CREW)
    header = pathlib.Path(path).read_bytes().index(b"904156fd")
    again = pathlib.Path("again.archive").read_bytes()
    assert pathlib.Path(path).read_bytes()[header:] == again[again.index(b"904156fd"):]
    zel("archive", "convert", "ship.xml", "again.archive", "--path", CREW, code=3,
        errors="zel: again.archive exists already\n")


def the_demonstration_runs_without_its_program():
    model = os.path.join(SOURCES, "examples/solar/Components/solar/Solar.zelComponent")
    if not os.path.isdir(os.path.join(BUILD, "examples/solar")):
        return
    words = ["run", model, "--path", os.path.join(BUILD, "examples/solar"), "--frames", "144", "--set",
             "numParticles=20", "--record"]
    told = zel(*words, "a.journal")
    assert told.startswith("144 frames, up to time 86400, in "), told
    zel(*words, "b.journal", "--threads", "1")
    assert zel("journal", "diff", "a.journal", "b.journal") == "No difference in 145 frames.\n"
    rows = zel("journal", "export", "a.journal", "bodies.name@3", "bodies.position@3").splitlines()
    assert len(rows) == 146 and rows[0] == ("frame,time,bodies.name@3,bodies.position@3[0],bodies.position@3[1],"
                                            "bodies.position@3[2]"), rows[:2]
    zel("run", model, "--frames", "1", code=3, errors=None)  # without the plug-in


def main():
    os.environ.pop("ZEL_FILE_PATH", None)
    with tempfile.TemporaryDirectory() as directory:
        os.chdir(directory)
        try:
            globals()[sys.argv[5]]()
        except Exception:
            for run in Stream.runs:
                run.give_up()
            raise


main()
