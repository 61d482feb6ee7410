#!/usr/bin/env python3
"""Looks into a running simulation. One file, the standard library only.

    import zelremote

    with zelremote.connect("http://localhost:40000/#control=40001&token=...") as remote:
        print(remote.info()["version"], [clock["path"] for clock in remote.clocks()])
        print(remote.describe("Simulation")["children"])
        remote.set("Simulation.sun.mass", 2.0)             # where the simulation is writable
        positions = remote.read("Simulation.bodies.position")
        print(positions.rows[0], len(positions))
        with remote.watch(["Simulation.sun.mass"], interval=0.1) as watch:
            for update in watch:
                print(update.clock, update.values)
        remote.control("Simulation.clock", "step", count=10)

Recordings that the program offers, as `zel serve run.journal` does, are tracks:

        track = remote.tracks()[0]
        remote.track(track["id"], "seekTime", time=12.5)   # all below track["path"] is then as it was
        [height] = remote.series(track["id"], [track["path"] + ".height"])
        print(list(zip(height.times, height.rows)))        # over the whole run
        with remote.frames(track["id"]) as frames:         # each frame that the track comes to
            print(next(frames).nodes["height"].rows)

The address is the one that the simulation prints, with its token; connect(port=..., token=...) does as well. What a
simulation refuses is a RemoteError with its words; a connection that cannot be made, or that ends, is a
ConnectionError, which leaving a `with` block does not raise. All calls wait for their answer, for `timeout` seconds at
most, and raise TimeoutError then. Not for several threads at once.

    python -m zelremote ADDRESS                    what runs there
    python -m zelremote ADDRESS tree [PATH]        the objects below the path
    python -m zelremote ADDRESS get PATH           a value, or the elements of a buffer
    python -m zelremote ADDRESS set PATH VALUE
    python -m zelremote ADDRESS watch PATH...      as lines of JSON, until Ctrl-C
    python -m zelremote ADDRESS log [LEVEL]
    python -m zelremote ADDRESS tracks             the recordings, and the live run
    python -m zelremote ADDRESS series TRACK PATH...  what stood there over the whole run, as CSV
"""

from __future__ import annotations

import argparse
import array
import base64
import collections
import errno
import hashlib
import json
import os
import re
import socket
import struct
import sys
import threading
import time
import urllib.parse
import weakref
from types import TracebackType
from typing import Any, Deque, Dict, Iterator, List, NamedTuple, Optional, Sequence, Tuple, Type, Union

NONE = 0xFFFFFFFF
PROTOCOL = "zel_stream"
MAX_MESSAGE = 256 << 20
SIGN_OF_LIFE = 10.0  # seconds from one to the next
NO_TOKEN = "Error: not authenticated!"
WITHOUT_TOKEN = " Connect to the whole address that the simulation prints, '...#control=PORT&token=TOKEN', or with connect(..., token=TOKEN)."
ENDED = "The simulation has ended the connection"
SILENT = "The simulation does not answer"

_PRE_HEADER = struct.Struct("<IIIIII")
_CODES = {"f32": "f", "f64": "d", "i8": "b", "u8": "B", "i16": "h", "u16": "H", "i32": "i", "u32": "I", "i64": "q", "u64": "Q"}

Json = Dict[str, Any]
Value = Union[None, bool, int, float, str]


class RemoteError(Exception):
    """What the simulation refuses, in its words."""


class Message(NamedTuple):
    uri: str
    id: int
    response: int
    header: Json
    payload: bytes


class Elements:
    """The elements of a buffer, or some of them.

    `type` is their format, `begin` and `stride` tell which ones they are, `size` how many the buffer has.
    """

    def __init__(self, header: Json, payload: bytes) -> None:
        self.type: str = header["type"]
        self.begin: int = header["begin"]
        self.stride: int = header["stride"]
        self.size: int = header["numElements"]
        self.revision: int = header["revision"]
        self.element_size: int = header["elementSize"]
        self.components: int = header["components"]
        self.texts: Optional[List[str]] = header.get("texts")
        self._code = _CODES.get(header["component"], "")
        self._count: int = header["count"]
        begin, size = header["byteOffset"], header["numBytes"]
        if begin + size > len(payload) or size not in (0, self._count * self.element_size):
            raise ConnectionError("The message is shorter than it tells")
        self.bytes = payload[begin : begin + size]

    def __len__(self) -> int:
        return self._count

    @property
    def rows(self) -> Sequence[Any]:
        """A number, a tuple of numbers, a text or bytes for each element."""
        if self.texts is not None:
            return self.texts
        if not self._code:
            size = self.element_size
            return [self.bytes[i * size : (i + 1) * size] for i in range(self._count)]
        padding = self.element_size - self.components * struct.calcsize("<" + self._code)
        rows = struct.iter_unpack(f"<{self.components}{self._code}{padding}x", self.bytes)
        return [row[0] for row in rows] if self.components == 1 else list(rows)

    @property
    def column(self) -> "array.array[Any]":
        """The numbers of elements without padding, one after another."""
        if not self._code or self.components * struct.calcsize("<" + self._code) != self.element_size:
            raise TypeError(f"Elements of {self.type} are more than numbers in a row; see rows")
        numbers = array.array(self._code, self.bytes)
        if sys.byteorder == "big":
            numbers.byteswap()
        return numbers


class Update(NamedTuple):
    """What has changed. A path that leads nowhere any more has the value None."""

    sequence: int
    clock: Optional[Json]
    values: Dict[str, Union[Value, Elements]]


class Series:
    """A quantity over the time of a track.

    `times` in seconds, and for each of them a number in `rows`, or a tuple of `components` numbers. Where the run has more frames
    than points were asked for, two rows stand for several frames: the least and the greatest of them. `error` tells why the end
    lacks, or all of it, or is empty.
    """

    def __init__(self, path: str) -> None:
        self.path = path
        self.components = 0
        self.error = ""
        self.times: "array.array[float]" = array.array("d")
        self._numbers: "array.array[float]" = array.array("d")

    def __len__(self) -> int:
        return len(self.times)

    @property
    def columns(self) -> "List[array.array[float]]":
        return [self._numbers[i :: self.components] for i in range(self.components)]

    @property
    def rows(self) -> Sequence[Any]:
        if self.components == 1:
            return self._numbers
        return list(zip(*self.columns))

    def _append(self, times: "array.array[float]", components: int, numbers: "array.array[float]") -> None:
        if self.components not in (0, components) or len(numbers) != components * len(times):
            raise ConnectionError("The points do not fit together")
        self.components = components
        self.times.extend(times)
        self._numbers.extend(numbers)


def _doubles(place: Json, payload: bytes) -> "array.array[float]":
    begin, size = place["byteOffset"], place["numBytes"]
    if begin < 0 or size < 0 or begin + size > len(payload) or size % 8:
        raise ConnectionError("The message is shorter than it tells")
    numbers = array.array("d", payload[begin : begin + size])
    if sys.byteorder == "big":
        numbers.byteswap()
    return numbers


_FORMAT = re.compile(r"(Real|Int|UInt|Bool|Vec2|Vec3|Vec4|Quat|Matrix44):(8|16|32|64)bit$")
_NUMBERS = {"Vec2": 2, "Vec3": 3, "Vec4": 4, "Quat": 4, "Matrix44": 16}
_FORMAT_CODES = {("Int", 8): "b", ("Int", 16): "h", ("Int", 32): "i", ("Int", 64): "q", ("UInt", 8): "B", ("UInt", 16): "H",
                 ("UInt", 32): "I", ("UInt", 64): "Q", ("Bool", 8): "?"}


class Node:
    """A value or a buffer of a frame: the name of its format, and its bytes."""

    def __init__(self, type: str, size: int, data: bytes) -> None:
        self.type = type
        self.size = size
        self.bytes = data

    def __len__(self) -> int:
        return self.size

    @property
    def rows(self) -> Sequence[Any]:
        """A number or a tuple of numbers for each element; its bytes for formats that are not made of numbers."""
        each = len(self.bytes) // self.size if self.size else 0
        match = _FORMAT.match(self.type)
        name, bits = (match.group(1), int(match.group(2))) if match else ("", 0)
        count = _NUMBERS.get(name, 1)
        code = _FORMAT_CODES.get((name, bits)) or {32: "f", 64: "d"}.get(bits, "")
        if not code or each < count * bits // 8:
            return [self.bytes[i * each : (i + 1) * each] for i in range(self.size)]
        rows = struct.iter_unpack(f"<{count}{code}{each - count * bits // 8}x", self.bytes)
        return [row[0] for row in rows] if count == 1 else list(rows)


class Frame:
    """All of a track at one time: `index`, `time`, and `nodes`, the values and buffers by their paths."""

    def __init__(self, header: Json, payload: bytes) -> None:
        self.index: int = header["index"]
        self.time: float = header["timeStamp"]
        self.nodes: Dict[str, Node] = {}
        waiting = [("", child) for child in header["children"]]
        while waiting:
            above, child = waiting.pop()
            path = above + child["name"]
            if "numBytes" in child:
                begin, size = child["byteOffset"], child["numBytes"]
                if begin + size > len(payload):
                    raise ConnectionError("The frame is shorter than it tells")
                self.nodes[path] = Node(child["type"], child.get("numElements", 1), payload[begin : begin + size])
            waiting += [(path + ".", each) for each in child.get("children", [])]


def _is_timeout(error: OSError) -> bool:
    """Whether it is ours; one of the system's has a number."""
    return isinstance(error, (TimeoutError, socket.timeout)) and error.errno is None


def _told(error: OSError) -> OSError:
    """What a failure of a connection is called, whatever the system calls it."""
    return TimeoutError(SILENT) if _is_timeout(error) else ConnectionError(ENDED)


class _WebSocket:
    """A connection that sends and takes whole messages.

    It stays while nobody calls it: the simulation, which gives up who is silent for 45 s, gets signs of life.
    """

    def __init__(self, host: str, port: int, timeout: float) -> None:
        self._input = bytearray()
        self._kind, self._whole = 0, bytearray()  # of a message in pieces
        self._sending = threading.Lock()
        self._closed = threading.Event()
        try:
            self._socket = socket.create_connection((host, port), timeout)
            try:
                self._socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                self._shake_hands(host, port)
            except BaseException:
                self._socket.close()
                raise
        except OSError as error:
            kind = TimeoutError if _is_timeout(error) else ConnectionRefusedError if error.errno == errno.ECONNREFUSED else ConnectionError
            raise kind(f"No connection to {host}:{port}: {error.strerror or error}") from error
        threading.Thread(target=_show_life, args=(weakref.ref(self), self._closed), daemon=True).start()
        weakref.finalize(self, self._closed.set)

    def _shake_hands(self, host: str, port: int) -> None:
        key = base64.b64encode(os.urandom(16)).decode()
        request = (
            f"GET / HTTP/1.1\r\nHost: {host}:{port}\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            f"Sec-WebSocket-Key: {key}\r\nSec-WebSocket-Version: 13\r\nSec-WebSocket-Protocol: {PROTOCOL}\r\n\r\n"
        )
        self._send_all(request.encode())
        while b"\r\n\r\n" not in self._input:
            if len(self._input) > 65536:
                raise ConnectionError("The peer does not speak HTTP")
            self._more()
        head, _, rest = bytes(self._input).partition(b"\r\n\r\n")
        self._input = bytearray(rest)
        lines = head.decode("latin-1").split("\r\n")
        fields = {name.strip().lower(): value.strip() for name, _, value in (line.partition(":") for line in lines[1:])}
        accept = base64.b64encode(hashlib.sha1((key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11").encode()).digest()).decode()
        if " 101 " not in lines[0] + " " or fields.get("sec-websocket-accept") != accept:
            raise ConnectionError(f"The peer refuses the connection: {lines[0]}")

    def _more(self) -> None:
        try:
            data = self._socket.recv(1 << 20)
        except OSError as error:
            raise _told(error) from error
        if not data:
            raise ConnectionError(ENDED)
        self._input += data

    def _send_all(self, data: bytes) -> None:
        try:
            self._socket.sendall(data)
        except OSError as error:
            raise _told(error) from error

    def _take(self, size: int) -> bytes:
        while len(self._input) < size:
            self._more()
        data = bytes(self._input[:size])
        del self._input[:size]
        return data

    def wait_until(self, end: Optional[float]) -> None:
        """Lets what is sent and received now raise TimeoutError at that time.monotonic()."""
        left = None if end is None else end - time.monotonic()
        if left is not None and left <= 0:
            raise TimeoutError(SILENT)
        if self._closed.is_set():
            raise ConnectionError("The connection is closed")
        self._socket.settimeout(left)

    def show_life(self) -> None:
        if self._sending.acquire(blocking=False):
            try:
                self._socket.send(b"\x8a\x80\0\0\0\0", socket.MSG_DONTWAIT)  # an empty answer to a ping
            except BlockingIOError:
                pass  # what waits is a sign, too
            finally:
                self._sending.release()

    def send(self, data: bytes, opcode: int = 2) -> None:
        size = len(data)
        head = bytearray([0x80 | opcode])
        if size < 126:
            head.append(0x80 | size)
        elif size < 1 << 16:
            head += struct.pack(">BH", 0x80 | 126, size)
        else:
            head += struct.pack(">BQ", 0x80 | 127, size)
        mask = os.urandom(4)
        masked = int.from_bytes(data, "little") ^ int.from_bytes((mask * (size // 4 + 1))[:size], "little")
        with self._sending:
            self._send_all(bytes(head) + mask + masked.to_bytes(size, "little"))

    def receive(self, end: Optional[float]) -> Tuple[int, bytes]:
        """A message that is text (1) or bytes (2). What a timeout interrupts goes on with the next call."""
        while True:
            self.wait_until(end)
            frame = self._peek_frame()
            while frame is None:
                self._more()
                self.wait_until(end)
                frame = self._peek_frame()
            opcode, final, begin, size = frame
            data = self._take(begin + size)[begin:]
            if opcode == 8:
                raise ConnectionError(ENDED)
            if opcode == 9:
                self.send(data, 10)
            if opcode > 2:
                continue
            self._kind = opcode or self._kind
            self._whole += data
            if len(self._whole) > MAX_MESSAGE:
                raise ConnectionError("The message is too long")
            if final:
                whole, self._whole = self._whole, bytearray()
                return self._kind, bytes(whole)

    def _peek_frame(self) -> Optional[Tuple[int, bool, int, int]]:
        data = self._input
        if len(data) < 2:
            return None
        size, begin = data[1] & 0x7F, 2
        if size > 125:
            begin = 4 if size == 126 else 10
            if len(data) < begin:
                return None
            size = int.from_bytes(data[2:begin], "big")
        if size > MAX_MESSAGE or data[1] & 0x80:
            raise ConnectionError("The message is too long, or masked")
        return (data[0] & 0xF, bool(data[0] & 0x80), begin, size) if len(data) >= begin + size else None

    def close(self) -> None:
        try:
            self.send(struct.pack(">H", 1000), 8)
        except OSError:
            pass
        self._closed.set()
        self._socket.close()


def _show_life(connection: "weakref.ref[_WebSocket]", closed: threading.Event) -> None:
    while not closed.wait(SIGN_OF_LIFE):
        open_one = connection()
        try:
            if open_one is not None:
                open_one.show_life()
        except OSError:
            return  # who sends or receives is told
        del open_one


def _encode(uri: str, number: int, header: Json, payload: bytes) -> bytes:
    name, text = uri.encode(), json.dumps(header).encode()
    offset = (24 + len(name) + len(text) + 31) // 32 * 32 if payload else 0
    head = _PRE_HEADER.pack(number, NONE, len(name), len(text), offset, len(payload)) + name + text
    return head + bytes(offset - len(head)) + payload if payload else head


def _decode(data: bytes) -> Message:
    """A frame packet is a message without URI."""
    if len(data) < 24:
        raise ConnectionError("The message is shorter than it tells")
    number, response, uri_size, header_size, offset, size = _PRE_HEADER.unpack_from(data)
    end = 24 + uri_size + header_size
    if end > len(data) or offset + size > len(data):
        raise ConnectionError("The message is shorter than it tells")
    uri = data[24 : 24 + uri_size].decode(errors="replace")
    header = json.loads(data[24 + uri_size : end].decode(errors="replace") or "null")
    return Message(uri, number, response, header if isinstance(header, dict) else {}, data[offset : offset + size])


class Watch:
    """What `Remote.watch` gives: the updates, one after another. Ends with `close`, or at the end of `with`."""

    def __init__(self, remote: "Remote", number: int, items: List[Json]) -> None:
        self._remote = remote
        self._number = number
        self.items = items

    def __enter__(self) -> "Watch":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]) -> None:
        if isinstance(error, ConnectionError):
            return
        try:
            self.close()
        except ConnectionError:
            pass  # which has ended it, too

    def __iter__(self) -> Iterator[Update]:
        while True:
            yield self.next()

    def next(self, timeout: Optional[float] = None) -> Update:
        """The next update. Nothing comes while nothing changes.

        Raises TimeoutError after that many seconds; without them it waits for ever.
        """
        message = self._remote._await_push("Watch.Update", self._number, timeout)
        header = message.header
        self._remote._send("Watch.Ack", {"watch": self._number, "sequence": header["sequence"]})
        values: Dict[str, Union[Value, Elements]] = {}
        for item in header["items"]:
            path = self.items[item["item"]]["path"]
            values[path] = Elements(item, message.payload) if "elementSize" in item else item.get("value")
        return Update(header["sequence"], header["clock"], values)

    def close(self) -> None:
        self._remote.request("Watch.Remove", {"watch": self._number})
        self._remote._drop_watch(self._number)


class Frames:
    """What `Remote.frames` gives: the frames, one after another. Ends with `close`, or at the end of `with`."""

    def __init__(self, remote: "Remote", track: int) -> None:
        self._remote = remote
        self._track = track

    def __enter__(self) -> "Frames":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]) -> None:
        if isinstance(error, ConnectionError):
            return
        try:
            self.close()
        except ConnectionError:
            pass  # which has ended it, too

    def __iter__(self) -> "Frames":
        return self

    def __next__(self) -> Frame:
        return self.next()

    def next(self, timeout: Optional[float] = None) -> Frame:
        """The next frame. Nothing comes while the track stands; raises TimeoutError after that many seconds."""
        message = self._remote._await_push("", None, timeout)
        frame = Frame(message.header, message.payload)
        self._remote._send("Track.Ack", {"id": self._track, "frame": frame.index})
        return frame

    def close(self) -> None:
        self._remote.request("Track.Unsubscribe", {"id": self._track})
        self._remote._pushes.pop(("", None), None)
        self._remote._subscribed = None


class Remote:
    """A connection to a simulation; see the text of the module. Made by `connect`."""

    def __init__(self, host: str, port: int, token: str, timeout: float) -> None:
        self.timeout = timeout
        self._socket = _WebSocket(host, port, timeout)
        self._number = 0
        self._watches = 0
        self._series = 0
        self._subscribed: Optional[int] = None
        self._pushes: Dict[Tuple[str, Optional[int]], Deque[Message]] = collections.defaultdict(collections.deque)
        if token and not self._request("authenticate", {"token": token}, b"", may_fail=True).header.get("success"):
            self.close()
            raise RemoteError("The simulation does not take the token")

    def __enter__(self) -> "Remote":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        self._socket.close()

    # Requests

    def request(self, uri: str, header: Optional[Json] = None, payload: bytes = b"") -> Json:
        """Any request; its answer. Raises RemoteError where it is refused."""
        return self._request(uri, header or {}, payload).header

    def info(self) -> Json:
        return self.request("System.Info")

    def describe(self, path: str = "", depth: int = 1, begin: int = 0, count: int = 1000) -> Json:
        return self.request("Object.Describe", {"path": path, "depth": depth, "begin": begin, "count": count})

    def children(self, path: str = "") -> Iterator[Json]:
        """The entries of all children, however many they are."""
        begin = 0
        while True:
            entry = self.describe(path, 1, begin)
            yield from entry["children"]
            begin += len(entry["children"])
            if not entry["children"] or begin >= entry["numChildren"]:
                return

    def get(self, path: str) -> Value:
        entry = self.describe(path, 0)
        if "value" not in entry and entry["kind"] not in ("value", "parameter"):
            raise RemoteError(f"'{path}' is no value")
        value: Value = entry.get("value")
        return value

    def set(self, path: str, value: Value) -> Value:
        """Gives the value what a model file would: a text, a number, true or false. Returns what it is then."""
        result: Value = self.request("Value.Set", {"path": path, "value": value})["value"]
        return result

    def read(self, path: str, begin: int = 0, count: Optional[int] = None, stride: int = 1) -> Elements:
        """The elements of a buffer; at most 16 MiB of them come."""
        header: Json = {"path": path, "begin": begin, "stride": stride}
        if count is not None:
            header["count"] = count
        message = self._request("Buffer.Read", header, b"")
        return Elements(message.header, message.payload)

    def clocks(self) -> List[Json]:
        clocks: List[Json] = self.request("Clock.List")["clocks"]
        return clocks

    def control(self, path: str, action: str, **members: Any) -> Json:
        """pause, run, step (count), stepTo (time), frequency (value), modulation (value). The clock's entry."""
        clock: Json = self.request("Clock.Control", {"path": path, "action": action, **members})["clock"]
        return clock

    def call(self, implementation: str, parameters: Sequence[Json] = (), payload: bytes = b"", context: str = "") -> Json:
        header: Json = {"implementation": implementation, "parameters": list(parameters)}
        if context:
            header["context"] = context
        values: Json = self.request("Function.Call", header, payload)["values"]
        return values

    def watch(
        self, paths: Sequence[str], interval: float = 0.1, begin: int = 0, count: Optional[int] = None, stride: int = 1
    ) -> Watch:
        """Follows values and buffers; interval in seconds, at least 0.016."""
        self._watches += 1
        header: Json = {"watch": self._watches, "paths": list(paths), "interval": round(interval * 1000), "begin": begin, "stride": stride}
        if count is not None:
            header["count"] = count
        return Watch(self, self._watches, self.request("Watch.Add", header)["items"])

    def statistics(self) -> Json:
        """What was measured: enabled, providers."""
        return self.request("Statistics.List")

    # Tracks

    def tracks(self) -> List[Json]:
        tracks: List[Json] = self.request("Track.List")["tracks"]
        return tracks

    def track(self, id: int, action: str, **members: Any) -> Json:
        """open, close, play (rate), pause, seek (frame), seekTime (time), step (count), stride (stride), loop (loop),
        range (start, end). The track's entry.
        """
        track: Json = self.request("Track.Control", {"id": id, "action": action, **members})["track"]
        return track

    def series(
        self,
        id: int,
        items: Sequence[Union[str, Tuple[str, int]]],
        start: Optional[float] = None,
        end: Optional[float] = None,
        points: int = 4000,
        timeout: Optional[float] = None,
    ) -> List[Series]:
        """What stood at some paths over the track's time: values, or elements of buffers as (path, index).

        An element of a storage is followed by the id of its instance; NaN where that is not alive. What cannot be followed
        has its `error`; raises RemoteError where there is nothing else. Waits for each piece for `timeout` seconds, or for ever.
        """
        self._series += 1
        pairs = [(item, None) if isinstance(item, str) else item for item in items]
        header: Json = {"id": id, "series": self._series, "points": points}
        header["items"] = [{"path": path} if index is None else {"path": path, "index": index} for path, index in pairs]
        header.update({name: time for name, time in (("start", start), ("end", end)) if time is not None})
        self.request("Track.Series", header)
        series = [Series(path) for path, _ in pairs]
        done = False
        while not done:
            message = self._await_push("Track.Points", self._series, timeout)
            done = message.header["done"]
            times = _doubles(message.header["times"], message.payload)
            for item in message.header["items"]:
                if "error" in item:
                    series[item["item"]].error = item["error"]
                else:
                    series[item["item"]]._append(times, item["components"], _doubles(item, message.payload))
        self._pushes.pop(("Track.Points", self._series), None)
        if all(one.error and not len(one) for one in series):
            raise RemoteError("; ".join(dict.fromkeys(one.error for one in series)))
        return series

    def frames(self, id: int, paths: Sequence[str] = ()) -> Frames:
        """The frames that the track comes to from now on, whole; of one track at a time. Paths are below that of the track."""
        if self._subscribed is not None:
            raise ValueError("The frames of another track are coming; close them first")
        header: Json = {"id": id}
        if paths:
            header["paths"] = list(paths)
        self._pushes.pop(("", None), None)
        self.request("Track.Subscribe", header)
        self._subscribed = id
        return Frames(self, id)

    def log(self, level: str = "info", timeout: Optional[float] = None) -> Iterator[Json]:
        """The log lines from now on: level, time, text. Ends after that many seconds without one."""
        self.request("Log.Subscribe", {"level": level})

        def lines() -> Iterator[Json]:
            while True:
                try:
                    yield self._await_push("Log.Line", None, timeout).header
                except TimeoutError:
                    return

        return lines()

    # Messages

    def _send(self, uri: str, header: Json, payload: bytes = b"") -> int:
        self._number = self._number % (NONE - 1) + 1
        self._socket.wait_until(time.monotonic() + self.timeout)
        self._socket.send(_encode(uri, self._number, header, payload))
        return self._number

    def _request(self, uri: str, header: Json, payload: bytes, may_fail: bool = False) -> Message:
        number = self._send(uri, header, payload)
        end = time.monotonic() + self.timeout
        while True:
            message = self._receive(end)
            if message is None or message.response != number:
                continue
            if message.header.get("success") is False and not may_fail:
                raise RemoteError(message.header.get("error", "The simulation refuses the request"))
            return message

    def _receive(self, end: Optional[float]) -> Optional[Message]:
        """A response; None for what else has come, which is kept."""
        kind, data = self._socket.receive(end)
        if kind == 1:
            text = data.decode(errors="replace")
            raise RemoteError(text + WITHOUT_TOKEN if text == NO_TOKEN else text)
        message = _decode(data)
        if message.response != NONE:
            return message
        name = {"Watch.Update": "watch", "Track.Points": "series"}.get(message.uri)
        number = message.header.get(name) if name else None
        if message.uri == "Track.State":
            return None  # tracks() tells the same
        self._pushes[message.uri, number].append(message)
        return None

    def _await_push(self, uri: str, number: Optional[int], timeout: Optional[float]) -> Message:
        end = None if timeout is None else time.monotonic() + timeout
        while not self._pushes[uri, number]:
            self._receive(end)
        return self._pushes[uri, number].popleft()

    def _drop_watch(self, number: int) -> None:
        self._pushes.pop(("Watch.Update", number), None)


def connect(address: str = "", *, host: str = "127.0.0.1", port: int = 0, token: str = "", timeout: float = 30.0) -> Remote:
    """Connects to the address that a simulation prints, or to a port.

    Raises ConnectionError, with host and port in its text, where nobody listens (ConnectionRefusedError) or something else does,
    TimeoutError where nobody answers, and RemoteError where the token is not the right one. Without the token that a
    simulation wants, the first request raises RemoteError.
    """
    if address:
        parts = urllib.parse.urlsplit(address)
        fields = urllib.parse.parse_qs(parts.fragment)
        if "control" not in fields:
            raise ValueError("The address has no '#control=PORT'")
        port = int(fields["control"][0])
        token = fields.get("token", [token])[0]
        if parts.hostname not in (None, "localhost"):
            host = str(parts.hostname)
    return Remote(host, port, token, timeout)


def _show(value: Union[Value, Elements]) -> Any:
    return list(value.rows) if isinstance(value, Elements) else value


def _tree(remote: Remote, path: str, indentation: int) -> None:
    for entry in remote.children(path):
        value = f" = {entry['value']}" if "value" in entry else f" [{entry['numElements']}]" if "numElements" in entry else ""
        print("  " * indentation + f"{entry['name'] or '(no name)'}: {entry['kind']}{value}")
        if entry["numChildren"]:
            _tree(remote, entry["path"], indentation + 1)


def _print_series(remote: Remote, track: int, paths: Sequence[str]) -> None:
    all_series = remote.series(track, paths)
    columns = [column for series in all_series for column in series.columns]
    names = [series.path + (f".{i}" if series.components > 1 else "") for series in all_series for i in range(series.components)]
    print(",".join(["time"] + names))
    for i, row_time in enumerate(max(all_series, key=len).times):
        print(",".join([repr(row_time)] + [repr(column[i]) if i < len(column) else "" for column in columns]))
    for series in all_series:
        if series.error:
            raise RemoteError(f"{series.path}: {series.error}")


def main() -> int:
    parser = argparse.ArgumentParser(prog="zelremote", description="Looks into a running simulation.")
    parser.add_argument("address", help="as the simulation prints it")
    parser.add_argument("command", nargs="?", default="info", choices=["info", "tree", "get", "set", "watch", "log", "tracks", "series"])
    parser.add_argument("arguments", nargs="*")
    options = parser.parse_args()
    words: List[str] = options.arguments
    needed = {"get": 1, "set": 2, "watch": 1, "series": 2}.get(options.command, 0)
    if len(words) < needed:
        parser.error(f"{options.command} wants {needed} argument{'s' if needed > 1 else ''}")
    try:
        with connect(options.address) as remote:
            if options.command == "info":
                print(json.dumps({**remote.info(), "clocks": remote.clocks()}, indent=2))
            elif options.command == "tree":
                _tree(remote, words[0] if words else "", 0)
            elif options.command == "get":
                is_buffer = remote.describe(words[0], 0)["kind"] == "buffer"
                print(json.dumps(_show(remote.read(words[0]) if is_buffer else remote.get(words[0]))))
            elif options.command == "set":
                print(json.dumps(remote.set(words[0], words[1])))
            elif options.command == "watch":
                with remote.watch(words) as watch:
                    for update in watch:
                        values = {path: _show(value) for path, value in update.values.items()}
                        print(json.dumps({"clock": update.clock, "values": values}), flush=True)
            elif options.command == "tracks":
                print(json.dumps(remote.tracks(), indent=2))
            elif options.command == "series":
                _print_series(remote, int(words[0]), words[1:])
            else:
                for line in remote.log(words[0] if words else "info"):
                    print(line["text"].rstrip("\n"), flush=True)
    except (RemoteError, OSError, ValueError) as error:
        print(f"zelremote: {error}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        pass
    return 0


if __name__ == "__main__":
    sys.exit(main())
