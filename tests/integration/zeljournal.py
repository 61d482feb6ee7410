"""The reader of journals in Python: golden files, damaged ones, one that grows, and what it prints.

usage: zeljournal.py"""
import contextlib
import io
import pathlib
import struct
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "python"))
import zeljournal  # noqa: E402

FIRST_FRAME = 10279
SECOND_FRAME = 10440
PLOT = 10633


def golden():
    """The bytes of tests/golden/journal.hex."""
    result = bytearray()
    for line in (ROOT / "tests/golden/journal.hex").read_text().splitlines():
        for word in line.split("#")[0].split():
            byte, _, count = word.partition("*")
            result += bytes([int(byte, 16)]) * int(count or 1)
    return bytes(result)


def still_open(data):
    """The golden journal as its writer left it ahead of the end: without plots."""
    text = data[34:34 + 10240].rstrip(b"\0").replace(b"<endFrame>4<", b"<endFrame>18446744073709551615<")
    text = text[:text.index(b"  <Plots>")] + b"</Session>\n"
    return data[:26] + struct.pack("<Q", len(text)) + text.ljust(10240, b"\0") + data[10274:PLOT]


def run(*arguments):
    out, err = io.StringIO(), io.StringIO()
    with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err):
        code = zeljournal.main([str(argument) for argument in arguments])
    return code, out.getvalue(), err.getvalue()


class JournalTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.path = pathlib.Path(folder.name) / "x.journal"

    def write(self, data):
        self.path.write_bytes(data)
        return self.path

    def read_all(self, data):
        """The number of frames; a JournalError is the only other answer."""
        with zeljournal.open(self.write(data)) as journal:
            for index in journal.indices.tolist():
                journal.read(index)
            for frame in journal.frames():
                list(zeljournal.describe(frame.data))
            for name in journal.plot_names:
                journal.plot(name)
            return len(journal)

    def test_reads_the_golden_journal(self):
        with zeljournal.open(self.write(golden())) as journal:
            session = journal.session
            self.assertEqual((session.name, session.time_step, session.is_closed), ("golden", 0.5, True))
            self.assertEqual(session.epoch, 1234567890.000125)
            self.assertEqual(session.extra_data, {"author": "me"})
            self.assertEqual(journal.scene, b"scene")
            self.assertEqual(journal.indices.tolist(), [3, 4])
            self.assertEqual(journal.times.tolist(), [1.5, 2.0])
            self.assertEqual(journal.read(3).data, {"t": 2.0})
            last = journal.frame(4)
            self.assertEqual((float(last["t"]), last["b"].tolist(), last.is_key_frame), (3.0, [5], False))
            self.assertEqual(journal.plot("p"), ({"id": 1, "name": "p"}, b"xyz"))
            times, values = journal.series("t")
            self.assertEqual((times.tolist(), values.tolist()), ([1.5, 2.0], [2.0, 3.0]))
            with self.assertRaisesRegex(KeyError, "frame 5"):
                journal.frame(5)
            with self.assertRaisesRegex(KeyError, "nothing"):
                journal.series("nothing")

    def test_arrays_are_the_bytes_of_the_file(self):
        with zeljournal.open(self.write(golden())) as journal:
            column = journal.read(4)["b"]
            self.assertFalse(column.flags.owndata)
            self.assertFalse(column.flags.writeable)

    def test_each_cut_of_an_open_journal_keeps_the_frames_ahead_of_it(self):
        data = still_open(golden())
        for size in range(FIRST_FRAME, len(data) + 1):
            whole = (size >= SECOND_FRAME) + (size >= PLOT)
            self.assertEqual(self.read_all(data[:size]), whole, size)

    def test_cuts_and_flips_are_told(self):
        data = golden()
        places = [i for i in range(len(data)) if i < 1000 or i >= 10274]
        faults = 0
        for place in places:
            for content in {255, data[place] ^ 1}:
                try:
                    self.read_all(data[:place] + bytes([content]) + data[place + 1:])
                except zeljournal.JournalError as error:
                    self.assertTrue(str(error).startswith(f"{self.path}: "), error)
                    faults += 1
            with self.assertRaises(zeljournal.JournalError):
                self.read_all(data[:place])
        self.assertGreater(faults, len(places) // 4)

    def test_takes_in_what_is_written_meanwhile(self):
        data = still_open(golden())
        with zeljournal.open(self.write(data[:SECOND_FRAME + 100])) as journal:
            held = journal.frame(3)["t"]
            self.assertEqual((len(journal), journal.refresh()), (1, 0))
            self.write(data)
            self.assertEqual((journal.refresh(), len(journal)), (1, 2))
            self.assertEqual((float(held), float(journal.frame(4)["t"])), (2.0, 3.0))

    def test_prints(self):
        path = self.write(golden())
        code, out, _ = run(path)
        self.assertEqual(code, 0)
        self.assertIn("2 frames, 1 of them key frames, step 0.5, computed in 0.25 s\n", out)
        self.assertEqual(run(path, 4), (0, "frame 4, time 2, step 0.5\nt = 3.0\nb = [5]\n", ""))
        self.assertEqual(run(path, "--series", "t"), (0, "1.5,2.0\n2.0,3.0\n", ""))
        self.assertEqual(run(path, 9), (1, "", f"zeljournal: {path}: there is no 'frame 9'\n"))
        self.path.write_bytes(b"no journal at all, but long enough for a header")
        self.assertEqual(run(path), (1, "", f"zeljournal: {path}: no journal (at byte 0)\n"))


unittest.main()
