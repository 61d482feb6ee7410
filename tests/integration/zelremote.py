#!/usr/bin/env python3
"""The Python client against a running simulation, and against peers that lie.

zelremote.py TOOL SOURCES SOLAR_DIRECTORY CASE
"""
import gc
import json
import pathlib
import queue
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading

TOOL, SOURCES, SOLAR = sys.argv[1:4]
sys.path.insert(0, str(pathlib.Path(SOURCES) / "python"))
import zelremote  # noqa: E402

MODEL = f"{SOURCES}/examples/solar/Components/solar/Solar.zelComponent"


class Served:
    """A command of the tool with a control channel, until the end of the block."""

    def __init__(self, *command, code=128 + signal.SIGINT):
        self.command, self.code = command, code

    def __enter__(self):
        self.process = subprocess.Popen([TOOL, *self.command], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        for line in self.process.stdout:
            if match := re.match(r"Control: (\S+)$", line):
                self.address = match.group(1)
                threading.Thread(target=self.process.stdout.read, daemon=True).start()
                return self
        raise AssertionError("the command has told no address")

    def __exit__(self, *_):
        self.process.send_signal(signal.SIGINT)
        assert self.process.wait(60) == self.code


def Simulation(*options):
    return Served("run", MODEL, "--path", SOLAR, "--control", "0", *options)


def record(folder, name, *options):
    path = f"{folder}/{name}.journal"
    subprocess.run([TOOL, "run", MODEL, "--path", SOLAR, "--record", path, *options], check=True, stdout=subprocess.DEVNULL)
    return path


def refusal(call, *arguments, **named):
    try:
        call(*arguments, **named)
    except (zelremote.RemoteError, ConnectionError, TimeoutError, ValueError) as error:
        return f"{type(error).__name__}: {error}"
    raise AssertionError(f"{call} is not refused")


def a_simulation_is_read_and_watched():
    with Simulation() as simulation, zelremote.connect(simulation.address) as remote:
        assert remote.info()["protocol"] == 1
        assert [child["name"] for child in remote.children()].count("Solar") == 1
        names = [entry["name"] for entry in remote.children("Solar")]
        assert {"clock", "bodies", "particles"} <= set(names), names
        assert remote.describe("Solar.bodies", depth=0)["numElements"] == 18
        positions = remote.read("Solar.bodies.position")
        assert (len(positions), positions.type, positions.components) == (18, "Vec3:64bit", 3)
        assert all(len(row) == 3 for row in positions.rows)
        some = remote.read("Solar.bodies.position", begin=3, count=2, stride=5)
        assert len(some) == 2 and some.size == 18
        assert "Earth" in [name for name in remote.read("Solar.bodies.name").rows]
        masses = remote.read("Solar.bodies.gm")
        assert list(masses.column) == masses.rows
        with remote.watch(["Solar.clock.time", "Solar.bodies.position", "Solar.nobody"], interval=0.02) as watch:
            assert [item["kind"] for item in watch.items] == ["value", "buffer", "none"]
            first, second = watch.next(30), watch.next(30)
            assert first.values["Solar.nobody"] is None and len(first.values["Solar.bodies.position"]) == 18
            assert second.values["Solar.clock.time"] > first.values["Solar.clock.time"]
            assert second.clock["path"] == "Solar.clock" and second.sequence == 2
        assert refusal(remote.set, "Solar.duration", 1) == "RemoteError: The simulation takes no changes from here"
        assert refusal(remote.get, "Solar.nobody") == "RemoteError: There is no object 'Solar.nobody'"
        assert refusal(remote.get, "Solar.bodies") == "RemoteError: 'Solar.bodies' is no value"
        assert refusal(remote.request, "No.Such") == (
            "RemoteError: ControlChannel: No message handler registered for uri: No.Such")


def a_simulation_is_steered_where_it_may_be():
    with Simulation("--writable", "--token", "a b&c") as simulation:
        with zelremote.connect(simulation.address) as remote:
            assert remote.control("Solar.clock", "pause")["enabled"] is False
            frame = remote.clocks()[0]["frame"]
            remote.control("Solar.clock", "step", count=5)
            while remote.clocks()[0]["pending"]:
                pass
            assert remote.clocks()[0]["frame"] == frame + 5
            assert remote.set("Solar.clock.timeModulation", 300) == 300
            clock = remote.clocks()[0]
            assert clock["timeStep"] == 300 / clock["frequency"]
            assert remote.set("Solar.clock.timeModulation", "2 ") == 2
            assert "twice" in refusal(remote.set, "Solar.clock.timeModulation", "twice")
            lines = remote.log("warning", timeout=30)
            assert refusal(remote.control, "Solar.clock", "frequency", value=-1) == (
                "RemoteError: The clock refuses the value")
            assert "frequency" in next(lines)["text"]
            remote.set("Solar.clock.timeModulation", 1e308)
            remote.control("Solar.clock", "run")
            with remote.watch(["Solar.clock.time"]) as watch:
                while watch.next(30).values["Solar.clock.time"] != "inf":
                    pass
            assert remote.clocks()[0]["time"] == "inf"  # and the run goes on
        assert refusal(zelremote.connect, simulation.address.split("&")[0] + "&token=wrong") == (
            "RemoteError: The simulation does not take the token")
        with zelremote.connect(simulation.address.split("&")[0]) as remote:
            assert refusal(remote.info) == (
                "RemoteError: Error: not authenticated! Connect to the whole address that the simulation prints, "
                "'...#control=PORT&token=TOKEN', or with connect(..., token=TOKEN).")
        port = int(re.search(r"control=(\d+)", simulation.address).group(1))
        with zelremote.connect(port=port, token="a b&c") as remote:
            assert remote.info()["writable"] is True


def lines_on_the_terminal_tell_the_same():
    def client(*words, code=0):
        result = subprocess.run([sys.executable, f"{SOURCES}/python/zelremote.py", simulation.address, *words],
                                capture_output=True, text=True, timeout=120)
        assert result.returncode == code, result
        return result.stdout if code == 0 else result.stderr
    with Simulation("--open", "--writable") as simulation:
        assert "token" not in simulation.address
        assert json.loads(client())["clocks"][0]["path"] == "Solar.clock"
        assert "bodies: storage [18]" in client("tree", "Solar")
        assert json.loads(client("set", "Solar.duration", "400")) == 400
        assert json.loads(client("get", "Solar.duration")) == 400
        assert len(json.loads(client("get", "Solar.bodies.gm"))) == 18
        assert client("get", "nobody", code=1) == "zelremote: There is no object 'nobody'\n"
        assert "wants 2 arguments" in client("set", "nobody", code=2)


def recordings_are_played_and_plotted():
    with tempfile.TemporaryDirectory() as folder:
        files = [record(folder, "one", "--frames", "50"), record(folder, "one.two", "--frames", "20")]
        with Served("serve", *files, "--path", SOLAR, code=0) as serving, zelremote.connect(serving.address) as remote:
            tracks = remote.tracks()
            assert [track["name"] for track in tracks] == ["one", "one-two"]
            first, second = tracks
            assert (first["id"], first["live"], first["open"], first["closed"], first["numFrames"]) == (0, False, True, True, 51)
            assert (first["file"], first["position"]["frame"], second["numFrames"]) == ("one.journal", 0, 21)
            position = first["path"] + ".bodies.position"
            start = remote.read(position).rows
            assert remote.track(0, "seek", frame=30)["position"]["frame"] == 30
            then = remote.read(position).rows
            assert then != start and len(then) == 18
            assert remote.track(0, "step", count=-30)["position"]["frame"] == 0
            assert remote.read(position).rows == start
            with remote.watch([position], interval=0.016) as watch:
                assert watch.next(30).values[position].rows == start
                remote.track(0, "seek", frame=30)
                assert watch.next(30).values[position].rows == then
            [earth, nothing] = remote.series(0, [(position, 3), "one.nothing"])
            assert (len(earth), earth.components, earth.error) == (51, 3, "") and nothing.error != ""
            assert earth.rows[30] == then[3] and earth.rows[0] == start[3] and list(earth.times) == sorted(earth.times)
            assert refusal(remote.series, 0, ["one.nothing"]) == f"RemoteError: {nothing.error}"
            assert refusal(remote.series, 0, ["one.nothing", "two", "one.nothing"]) == (
                f"RemoteError: {nothing.error}; There is no object 'two'")
            some = remote.series(0, [(position, 3)], start=earth.times[10], end=earth.times[20])[0]
            assert some.rows == earth.rows[10:21] and some.times == earth.times[10:21]
            assert remote.track(1, "seekTime", time=earth.times[10])["position"]["frame"] == 10
            # The runs are of one model, so they are the same.
            assert remote.read(second["path"] + ".bodies.position").rows[3] == earth.rows[10]
            with remote.frames(0, ["bodies"]) as frames:
                frame = frames.next(30)
                assert frame.index == 30 and frame.nodes["bodies.position"].rows == then
                assert all(path.startswith("bodies.") for path in frame.nodes), frame.nodes
                remote.track(0, "seek", frame=7)
                assert frames.next(30).index == 7
            remote.track(0, "loop", loop=True)
            remote.track(0, "play", rate=1e6)
            with remote.watch([position], interval=0.016) as watch:
                for _ in range(3):
                    watch.next(30)
            assert remote.track(0, "pause")["playing"] is False
            assert refusal(remote.track, 0, "seek", frame=-1).startswith("RemoteError: ")
            assert refusal(remote.track, 7, "play").startswith("RemoteError: ")
            table = subprocess.run([sys.executable, f"{SOURCES}/python/zelremote.py", serving.address, "series", "1",
                                    second["path"] + ".numParticles"], check=True, capture_output=True, text=True).stdout
            assert table.splitlines()[0] == "time,one-two.numParticles" and len(table.splitlines()) == 22


def a_run_offers_its_recording():
    with tempfile.TemporaryDirectory() as folder:
        path = f"{folder}/past.journal"
        with Simulation("--record", path, "--writable", "--statistics") as simulation:
            with zelremote.connect(simulation.address) as remote:
                remote.control("Solar.clock", "pause")
                remote.control("Solar.clock", "step", count=5)
                while remote.clocks()[0]["pending"]:
                    pass
                last = remote.clocks()[0]["frame"]
                [journal] = [track for track in remote.tracks() if not track["live"]]
                assert journal["open"] is False
                # What is recorded is written by a thread of its own.
                while (entry := remote.track(journal["id"], "open"))["lastFrame"] != last:
                    pass
                assert entry["open"] is True and entry["closed"] is False and entry["name"] == "past"
                remote.track(journal["id"], "seek", frame=last)
                assert remote.read("past.bodies.position").rows == remote.read("Solar.bodies.position").rows
                remote.control("Solar.clock", "step", count=1)
                while remote.clocks()[0]["pending"]:
                    pass
                assert remote.read("past.bodies.position").rows != remote.read("Solar.bodies.position").rows
                statistics = remote.statistics()
                assert statistics["enabled"] is True
                [forces] = [each for each in statistics["providers"] if each["name"] == "bodiesForces"]
                times = {data["name"]: data for data in forces["data"]}
                assert times["WallTime"]["count"] >= 6 and times["WallTime"]["accumulated"] > 0
                [live] = [track for track in remote.tracks() if track["live"]]
                with remote.frames(live["id"], ["bodies"]) as frames:
                    frame = frames.next(30)
                    assert frame.index == last + 1 and len(frame.nodes["bodies.position"]) == 18


class Liar:
    """A peer that shakes hands and answers the first request with what it is given."""

    def __init__(self, answer, handshake=None):
        self.server = socket.create_server(("127.0.0.1", 0))
        self.port = self.server.getsockname()[1]
        self.answer, self.handshake = answer, handshake
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        peer, _ = self.server.accept()
        with peer, self.server:
            request = b""
            while b"\r\n\r\n" not in request:
                request += peer.recv(65536)
            if self.handshake is not None:
                peer.sendall(self.handshake)
                return
            key = re.search(rb"Sec-WebSocket-Key: (\S+)", request).group(1)
            accept = zelremote.base64.b64encode(
                zelremote.hashlib.sha1(key + b"258EAFA5-E914-47DA-95CA-C5AB0DC85B11").digest())
            peer.sendall(b"HTTP/1.1 101 Yes\r\nSec-WebSocket-Accept: " + accept + b"\r\n\r\n")
            self.reply(peer)

    def reply(self, peer):
        peer.recv(65536)
        peer.sendall(self.answer)
        peer.shutdown(socket.SHUT_WR)
        while peer.recv(65536):
            pass


class Talker(Liar):
    """Answers as the function does that gets its connection, once hands are shaken."""

    def __init__(self, talk):
        self.talk = talk
        super().__init__(b"")

    def reply(self, peer):
        try:
            self.talk(peer)
        except OSError:
            pass  # the client has gone


def framed(data, opcode=2):
    return struct.pack(">BBQ", 0x80 | opcode, 127, len(data)) + data


def message(number, response, uri, header, offset=0, size=0, tail=b""):
    return struct.pack("<IIIIII", number, response, len(uri), len(header), offset, size) + uri + header + tail


def peers_that_lie_are_refused():
    good = message(1, 1, b"System.Info", b'{"success":true,"version":"1"}')
    elements = (b'{"success":true,"type":"Real:64bit","begin":0,"stride":1,"numElements":9,"revision":1,"count":9,'
                b'"elementSize":8,"component":"f64","components":1,"byteOffset":0,"numBytes":72}')
    for answer, handshake in [
            (b"", None), (framed(b""), None), (framed(good[:23]), None), (framed(good[:40]), None),
            (framed(message(1, 1, b"u", b"{}", 64, 10)), None), (framed(message(1, 1, b"u", b"{}", 4, 0xFFFFFFFF)), None),
            (framed(message(1, 1, b"u", b"{")), None), (framed(b"no", 1), None), (framed(b"", 8), None),
            (struct.pack(">BBQ", 0x82, 127, 1 << 40), None), (b"\x82\x85abcd", None),
            (b"", b"HTTP/1.1 403 Forbidden\r\n\r\n"), (b"", b"x" * 70000), (b"", b"")]:
        def ask():
            with zelremote.connect(port=Liar(answer, handshake).port, timeout=30) as remote:
                remote.info()
        assert refusal(ask), answer
    with zelremote.connect(port=Liar(framed(good)).port) as remote:
        assert remote.info()["version"] == "1"
    halves = struct.pack(">BB", 0x02, 30) + good[:30] + framed(b"are you there", 9) + framed(good[30:], 0)
    with zelremote.connect(port=Liar(halves).port) as remote:
        assert remote.info()["version"] == "1"
    with zelremote.connect(port=Liar(framed(message(1, 1, b"Buffer.Read", elements))).port) as remote:
        assert refusal(remote.read, "x") == "ConnectionError: The message is shorter than it tells"
    points = (b'{"series":1,"first":0,"count":1,"done":true,"times":{"byteOffset":0,"numBytes":8},'
              b'"items":[{"item":0,"components":2,"byteOffset":0,"numBytes":8}]}')
    series = framed(message(1, 1, b"Track.Series", b'{"success":true}'))
    for size in (8, 0):
        push = framed(message(9, 0xFFFFFFFF, b"Track.Points", points, 24 + 12 + len(points), size, bytes(size)))
        with zelremote.connect(port=Liar(series + push).port) as remote:
            assert refusal(remote.series, 0, ["x"]).startswith("ConnectionError: ")


def peers_that_only_ping_are_not_waited_for():
    def ping(peer):
        while True:
            peer.sendall(framed(b"are you there", 9))
            peer.recv(65536)

    with zelremote.connect(port=Talker(ping).port) as remote:
        remote.timeout = 0.3
        assert refusal(remote.info) == "TimeoutError: The simulation does not answer"


def who_is_not_there_is_told_by_host_and_port():
    with socket.create_server(("127.0.0.1", 0)) as server:
        port = server.getsockname()[1]
    assert refusal(zelremote.connect, port=port) == f"ConnectionRefusedError: No connection to 127.0.0.1:{port}: Connection refused"
    result = subprocess.run([sys.executable, f"{SOURCES}/python/zelremote.py", f"http://localhost:1/#control={port}"],
                            capture_output=True, text=True, timeout=120)
    assert (result.returncode, result.stderr) == (1, f"zelremote: No connection to 127.0.0.1:{port}: Connection refused\n"), result
    assert refusal(zelremote.connect, host="no.such.host.invalid", port=port).startswith(
        f"ConnectionError: No connection to no.such.host.invalid:{port}: ")
    port = Liar(b"", b"HTTP/1.1 403 Forbidden\r\n\r\n").port
    assert refusal(zelremote.connect, port=port) == (
        f"ConnectionError: No connection to 127.0.0.1:{port}: The peer refuses the connection: HTTP/1.1 403 Forbidden")
    with socket.create_server(("127.0.0.1", 0)) as silent:
        port = silent.getsockname()[1]
        assert refusal(zelremote.connect, port=port, timeout=0.3) == (
            f"TimeoutError: No connection to 127.0.0.1:{port}: The simulation does not answer")


def a_simulation_that_goes_away_is_one_exception():
    ended = "ConnectionError: The simulation has ended the connection"
    with Served("run", MODEL, "--path", SOLAR, "--control", "0", code=-signal.SIGKILL) as simulation:
        remote = zelremote.connect(simulation.address)
        others = [zelremote.connect(simulation.address) for _ in range(2)]
        with remote, others[0] as watching, others[1] as framing:
            with watching.watch(["Solar.clock.time"]) as watch, framing.frames(framing.tracks()[0]["id"]) as frames:
                watch.next(30)
                frames.next(30)
                simulation.process.kill()
                simulation.process.wait(60)
                for _ in range(3):
                    assert refusal(remote.info) == ended
            # Both have been left without an exception, though nobody heard of it.
            def follow(updates):
                with updates:
                    while True:
                        next(iter(updates))

            assert refusal(follow, watch) == ended
            assert refusal(follow, frames) == ended
        assert refusal(remote.info) == "ConnectionError: The connection is closed"
        remote.close()


def what_a_timeout_interrupts_goes_on():
    answer = message(1, 1, b"System.Info", b'{"success":true,"version":"1"}')
    other = message(2, 2, b"System.Info", b'{"success":true,"version":"2"}')

    def talk(peer):
        peer.recv(65536)
        peer.sendall(struct.pack(">BB", 0x02, 30) + answer[:30] + framed(answer[30:], 0)[:12])
        while b"\x82" not in peer.recv(65536):
            pass
        peer.sendall(framed(answer[30:], 0)[12:] + framed(other))
        while peer.recv(65536):
            pass

    with zelremote.connect(port=Talker(talk).port) as remote:
        remote.timeout = 0.3
        assert refusal(remote.info).startswith("TimeoutError")
        remote.timeout = 30
        assert remote.info()["version"] == "2"


def who_is_not_called_shows_that_it_lives():
    signs = queue.Queue()

    def talk(peer):
        received = b""
        while len(received) < 12:
            received += peer.recv(65536)
        signs.put(received)
        while peer.recv(65536):
            pass

    zelremote.SIGN_OF_LIFE = 0.01
    with zelremote.connect(port=Talker(talk).port):
        assert signs.get(timeout=60)[:12] == b"\x8a\x80\0\0\0\0" * 2
    remote = zelremote.connect(port=Talker(talk).port)
    closed = remote._socket._closed
    del remote
    gc.collect()
    assert closed.wait(60), "who is forgotten ends"


globals()[sys.argv[4]]()
