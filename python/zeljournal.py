#!/usr/bin/env python3
"""Reads journals: the files with the frames of a simulation. One file, the standard library and numpy.

    import zeljournal

    with zeljournal.open("run.journal") as journal:
        print(journal.session.name, len(journal), "frames")
        frame = journal.frame(500)  # all that there was at this frame
        speeds = frame.data["sun"]["planets"]["speed"]  # an array
        times, speed = journal.series("sun.planets.speed", 3)  # of the instance with the id 3

Data are nested dicts by name. What stands in them:

    value, buffer           a read-only array on the mapped file, without a copy; a value is one of 0 dimensions
                            (float(frame.data["car"]["speed"])), a column has a row for each element
    component               a dict
    storage                 Storage, a dict with the columns and the ids of the instances
    texts                   a list of str
    handles                 an array with the fields "id" and "storage"
    arrays of arrays        Ragged
    some elements           Partial; only where a frame is read as it stands in the file, see Journal.read

Elements of a format that is not known here are opaque bytes (dtype "V<size>").

    python -m zeljournal FILE                      what is in it
    python -m zeljournal FILE INDEX [PATH]         a frame, or what lies below the path
    python -m zeljournal FILE --series PATH [ID]   a time series, as comma separated values

What is wrong in a file is a JournalError that names file and offset. A journal that is still written, or whose
writer has died, is read up to its last whole frame. Not for several threads at once.
"""

from __future__ import annotations

import argparse
import builtins
import dataclasses
import json
import mmap
import re
import struct
import sys
import xml.etree.ElementTree as ElementTree
from typing import Any, Dict, Iterator, List, NamedTuple, Optional, Sequence, Tuple, Union

import numpy as np

Array = np.ndarray[Any, Any]

NONE = 0xFFFFFFFF
NONE64 = 0xFFFFFFFFFFFFFFFF
MAX_DEPTH = 512

_JOURNAL = struct.Struct("<10sQQQ")
_RECORD = struct.Struct("<QddIB3sQQII")
_U32 = struct.Struct("<I")

VALUE, BUFFER, COMPONENT, PARTS, PARTIAL, STORAGE = range(6)
# Numbers behind type, id and name.
_FIELDS = {VALUE: 3, BUFFER: 4, COMPONENT: 1, PARTS: 3, PARTIAL: 4, STORAGE: 4}


class JournalError(Exception):
    """A file that is no journal, or is damaged."""


class Storage(Dict[str, Any]):
    """The columns of a storage by name. Row i of each belongs to the instance with the id ids[i]; a column with n elements for
    each instance has n rows for it."""

    def __init__(self, ident: int, entity: str, size: int, capacity: int) -> None:
        super().__init__()
        self.ident = ident  # of the storage, to which handles lead
        self.entity = entity
        self.size = size
        self.capacity = capacity
        # The id of each live instance; and the place of each id there is, that of free ones behind the live ones.
        self.index_to_id: Array = np.zeros(0, np.uint64)
        self.id_to_index: Array = np.zeros(0, np.uint64)

    @property
    def ids(self) -> Array:
        """The ids of the live instances, in the order of the rows."""
        return self.index_to_id

    def row(self, ident: int) -> int:
        """The row of the instance. Raises KeyError if it is not alive."""
        table = self.id_to_index
        if not 0 <= ident < len(table) or table[ident] >= self.size:
            raise KeyError(ident)
        return int(table[ident])


class Partial(NamedTuple):
    """Some elements of a column of full_size elements: data[i] stands at the place indices[i]."""

    indices: Array
    data: Any
    full_size: int


class Ragged(NamedTuple):
    """Arrays of arrays: the i-th one is elements[ranges[i, 0]:ranges[i, 1]]. Where the elements are not in the frame they are
    None, and buffer tells the ids of the buffers that hold them."""

    ranges: Array
    elements: Any
    buffer: Optional[Array]


class Event(NamedTuple):
    """What happened to a storage: its kind, the id of the storage, and the further numbers as they stand in the file."""

    kind: str
    storage: int
    numbers: Sequence[int]


Node = Union[Dict[str, Any], Storage, Array, List[str], Ragged, Partial]


@dataclasses.dataclass
class Frame:
    index: int
    time: float
    step: float
    is_key_frame: bool
    data: Dict[str, Any]
    events: List[Event]

    def __getitem__(self, path: str) -> Any:
        """What stands at a path such as "sun.planets.speed"."""
        return find(self.data, path)


@dataclasses.dataclass
class Session:
    """What the header tells of the run. A session that was not closed has the numbers that were known when it began."""

    name: str = ""
    version: str = ""
    date: str = ""
    epoch: float = 0.0
    time_step: float = 0.0
    frame_stride: int = 1
    start_time: float = 0.0
    end_time: float = 0.0
    computation_time: float = 0.0
    is_closed: bool = False
    extra_data: Dict[str, str] = dataclasses.field(default_factory=dict)
    simulation: Dict[str, Any] = dataclasses.field(default_factory=dict)


class Plot(NamedTuple):
    header: Dict[str, Any]
    data: bytes


@dataclasses.dataclass(frozen=True)
class FrameInfo:
    """Where a frame lies in the file."""

    index: int
    time: float
    step: float
    is_key_frame: bool
    header_offset: int
    header_size: int
    data_offset: int
    data_size: int


def find(data: Any, path: str) -> Any:
    """What stands at the path. Raises KeyError."""
    if path:
        for name in path.split("."):
            if not isinstance(data, dict):
                raise KeyError(path)
            data = data[name]
    return data


# Formats


class _Layout(NamedTuple):
    dtype: np.dtype[Any]
    shape: Tuple[int, ...]  # of an element as it lies in the file
    used: Tuple[slice, ...]  # what of it counts


_WHOLE = slice(None)


def _layouts() -> Dict[str, _Layout]:
    result: Dict[str, _Layout] = {}

    def add(name: str, dtype: str, *shape: int, padded: bool = False) -> None:
        used = tuple(_WHOLE for _ in shape)
        if padded:  # the fourth number of three
            used = used[:-1] + (slice(3),)
        result[name] = _Layout(np.dtype(dtype), shape, used)

    for width in (32, 64):
        real, signed, unsigned = (f"<{kind}{width // 8}" for kind in "fiu")
        bits = f":{width}bit"
        add("Real" + bits, real)
        for number, kind in (("", real), ("i", signed), ("u", unsigned)):
            add("Bound1" + number + bits, kind, 2)
            add("Bound2" + number + bits, kind, 2, 2)
        add("Bound3" + bits, real, 2, 4, padded=True)
        add("Bound3i" + bits, signed, 2, 3)
        add("Bound3u" + bits, unsigned, 2, 3)
        add("Vec2" + bits, real, 2)
        add("Vec3" + bits, real, 4, padded=True)
        add("Vec4" + bits, real, 4)
        add("Quat" + bits, real, 4)
        add("Line" + bits, real, 2, 4, padded=True)
        add("Plane" + bits, real, 5)
        add("Matrix3x3" + bits, real, 3, 3)
        add("Matrix4x4" + bits, real, 4, 4)
        add("AffineMatrix4x4" + bits, real, 4, 4)
        add("Range6" + bits, real, 6)
        add("IndexRange" + bits, unsigned, 2)
    for width in (8, 16, 32, 64):
        for kind, name in (("i", "Int"), ("u", "UInt")):
            add(f"{name}:{width}bit", f"<{kind}{width // 8}")
            for n in (2, 3, 4):
                add(f"Vec{n}{kind}:{width}bit", f"<{kind}{width // 8}", n)
    add("Bool:8bit", "?")
    add("AtomicValue:default", "<u4")
    add("SPDMatrix3x3:default", "<f8", 3, 3)
    return result


_LAYOUTS = _layouts()


def _elements(layout: _Layout) -> int:
    return int(np.prod(layout.shape, dtype=np.int64))


# Files


class _Cursor:
    """Numbers and bytes of a part of the file, none beyond its end."""

    def __init__(self, journal: "Journal", offset: int, size: int) -> None:
        self.journal = journal
        self.data = journal._map
        self.offset = offset
        self.end = offset + size

    def need(self, size: int) -> int:
        offset = self.offset
        if size > self.end - offset:
            raise self.fault("ends within a number or text")
        self.offset = offset + size
        return offset

    def u32(self) -> int:
        return _U32.unpack_from(self.data, self.need(4))[0]  # type: ignore[no-any-return]

    def numbers(self, count: int, kind: str = "I") -> Tuple[int, ...]:
        return struct.unpack_from(f"<{count}{kind}", self.data, self.need(count * (4 if kind == "I" else 8)))

    def text(self) -> str:
        size = self.u32()
        offset = self.need(size)
        return self.data[offset : offset + size].decode("utf-8", "replace")

    def end_tag(self, what: str) -> None:
        if self.u32() != NONE:
            raise self.fault(f"the end of the {what} is missing")

    def fault(self, text: str) -> JournalError:
        return self.journal._fault(self.offset, text)


class _Raw(NamedTuple):
    """A node as it stands in the header of a frame."""

    kind: int
    ident: int
    name: str
    numbers: Tuple[int, ...]
    children: List["_Raw"]


class Journal:
    """The frames of a run. Arrays that were read keep the file mapped; let go of them ahead of close()."""

    def __init__(self, path: str) -> None:
        self.path = str(path)
        self._file = builtins.open(path, "rb")
        try:
            self._map_file()
            self._read_header()
            self.frames_info: List[FrameInfo] = []
            self._positions: Dict[int, int] = {}
            self._next_offset = self._frame_offset
            self._names_of: Tuple[int, int, Dict[int, str]] = (-1, -1, {})
            self._walk()
        except BaseException:
            self._file.close()
            raise

    def __enter__(self) -> "Journal":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __len__(self) -> int:
        return len(self.frames_info)

    def close(self) -> None:
        self._file.close()

    def _map_file(self) -> None:
        self._file.seek(0, 2)
        self._size = self._file.tell()
        if self._size < _JOURNAL.size:
            raise self._fault(0, "too short for a journal")
        # The mapping goes with the last array on it.
        self._map = mmap.mmap(self._file.fileno(), self._size, access=mmap.ACCESS_READ)

    def _fault(self, offset: int, text: str) -> JournalError:
        return JournalError(f"{self.path}: {text} (at byte {offset})")

    # Header

    def _read_header(self) -> None:
        magic, self.version, offset, size = _JOURNAL.unpack_from(self._map, 0)
        if magic != b"ZelJournal":
            raise self._fault(0, "no journal")
        if offset == NONE64:
            raise self._fault(18, "a journal without a session")
        if offset + size > self._size:
            raise self._fault(18, "the header of the session lies behind the end of the file")
        text = self._map[offset : offset + size].split(b"\0", 1)[0]
        try:
            root = ElementTree.fromstring(text)
        except ElementTree.ParseError as error:
            raise self._fault(offset, f"the header of the session cannot be read: {error}") from None
        if root.tag != "Session":
            raise self._fault(offset, f"the header of the session begins with '{root.tag}'")
        try:
            self._read_session(root)
        except ValueError as error:
            raise self._fault(offset, f"the header of the session cannot be read: {error}") from None

    def _read_session(self, root: ElementTree.Element) -> None:
        def text(tag: str, default: str = "") -> str:
            return (root.findtext(tag) or default).strip()

        def number(tag: str, default: int = NONE64) -> int:
            return int(text(tag, str(default)))

        if text("isLittleEndian", "true") != "true":
            raise ValueError("the numbers are big endian")
        end_frame = number("endFrame")
        if end_frame == NONE and text("is64BitArchitecture", "true") == "false":
            end_frame = NONE64
        session = Session(text("name"), text("version"), text("date/string"))
        session.epoch = int(text("date/epoch/seconds", "0")) + 1e-6 * int(text("date/epoch/microSeconds", "0"))
        session.time_step = float(text("timeStep", "0"))
        session.frame_stride = number("frameStride", 1)
        session.start_time = float(text("startTime", "0"))
        session.end_time = float(text("endTime", "0"))
        session.computation_time = float(text("computationTime", "0"))
        session.is_closed = end_frame != NONE64
        extra = root.find("ExtraData")
        session.extra_data = {} if extra is None else {child.tag: child.text or "" for child in extra}
        simulation = root.find("Simulation")
        session.simulation = {} if simulation is None else _described(simulation)
        self.session = session

        self._max_frames = NONE64
        if session.is_closed:
            self._max_frames = number("numFrames", max(end_frame - number("startFrame", 0) + 1, 0))
        scene, size = number("sceneDataOffset"), number("sceneDataSize", 0)
        if scene != NONE64 and not 0 <= scene <= scene + size <= self._size:
            raise ValueError("the scene lies behind the end of the file")
        self.scene = b"" if scene == NONE64 else self._map[scene : scene + size]
        self._frame_offset = number("frameDataOffset")
        self._plots: Dict[str, Tuple[int, int, int]] = {}
        for plot in root.iterfind("Plots/Plot"):
            place = tuple(int(plot.get(key, "0")) for key in ("offset", "headerSize", "dataSize"))
            self._plots[plot.get("name", "")] = place  # type: ignore[assignment]
        self._limit = min([place[0] for place in self._plots.values()], default=NONE64)

    @property
    def plot_names(self) -> List[str]:
        return list(self._plots)

    def plot(self, name: str) -> Plot:
        """Raises KeyError."""
        offset, header_size, data_size = self._plots[name]
        end = offset + header_size + data_size
        if min(offset, header_size, data_size) < 0 or end > self._size:
            raise self._fault(offset, f"plot '{name}' lies behind the end of the file")
        try:
            header = json.loads(self._map[offset : offset + header_size].decode("utf-8", "replace"))
        except ValueError as error:
            raise self._fault(offset, f"plot '{name}' cannot be read: {error}") from None
        return Plot(header, self._map[offset + header_size : end])

    # Table of frames

    def _walk(self) -> int:
        """Takes in the frames from the next offset on."""
        count = 0
        offset = self._next_offset
        end = min(self._limit, self._size)
        while offset != NONE64 and len(self.frames_info) < self._max_frames and 0 <= offset <= end - _RECORD.size:
            index, time, step, _, key, _, header_size, data_size, tag, _ = _RECORD.unpack_from(self._map, offset)
            data_offset = (offset + header_size + 31) // 32 * 32
            is_whole = data_offset + data_size <= end
            if tag != NONE or key > 1 or header_size < 96 or index in self._positions:
                if self.session.is_closed:
                    raise self._fault(offset, "no frame begins here")
                break
            if not is_whole:
                if self.session.is_closed:
                    raise self._fault(offset, f"frame {index} reaches behind the end of the frames")
                break
            self._positions[index] = len(self.frames_info)
            self.frames_info.append(
                FrameInfo(index, time, step, key == 1, offset, header_size, data_offset, data_size)
            )
            offset = data_offset + data_size
            count += 1
        self._next_offset = offset
        return count

    def refresh(self) -> int:
        """Takes in the frames that have been written since; returns their number. A session that was written anew is to be
        opened again."""
        if self.session.is_closed:
            return 0
        self._map_file()
        self._read_header()
        if self._next_offset == NONE64:
            self._next_offset = self._frame_offset
        return self._walk()

    @property
    def indices(self) -> Array:
        return np.array([info.index for info in self.frames_info], np.uint64)

    @property
    def times(self) -> Array:
        return np.array([info.time for info in self.frames_info], np.float64)

    def _position(self, index: int) -> int:
        if index not in self._positions:
            raise KeyError(f"frame {index}")
        return self._positions[index]

    def _key_frame(self, position: int) -> int:
        while position > 0 and not self.frames_info[position].is_key_frame:
            position -= 1
        return position

    # Frames

    def _cursor(self, position: int) -> _Cursor:
        info = self.frames_info[position]
        return _Cursor(self, info.header_offset + _RECORD.size, info.header_size - _RECORD.size)

    def _read_names(self, position: int, names: Dict[int, str]) -> _Cursor:
        cursor = self._cursor(position)
        count, first = cursor.numbers(2)
        for i in range(count):
            names[first + i] = cursor.text()
        cursor.end_tag("names")
        return cursor

    def _names(self, position: int) -> Tuple[Dict[int, str], _Cursor]:
        """All names that the frame may use, and where its events begin."""
        first = self._key_frame(position)
        start, last, names = self._names_of
        if start != first or last >= position:
            names, last = {}, first - 1
        for i in range(last + 1, position + 1):
            cursor = self._read_names(i, names)
        self._names_of = (first, position, names)
        return names, cursor

    def _raw(self, position: int) -> Tuple[_Raw, List[Event]]:
        names, cursor = self._names(position)

        def name(ident: int) -> str:
            if ident == NONE:
                return ""
            if ident not in names:
                raise cursor.fault(f"name {ident} is not known")
            return names[ident]

        def node(depth: int) -> _Raw:
            if depth > MAX_DEPTH:
                raise cursor.fault("the nodes lie too deep")
            kind, object_id, name_id = cursor.numbers(3)
            if kind not in _FIELDS:
                raise cursor.fault(f"a node of the unknown kind {kind}")
            numbers = cursor.numbers(_FIELDS[kind])
            children: List[_Raw] = []
            if kind not in (VALUE, BUFFER):
                children = [node(depth + 1) for _ in range(numbers[0])]
                cursor.end_tag("children")
            format_at = {VALUE: 0, BUFFER: 0, PARTS: 1, PARTIAL: 1, STORAGE: 1}.get(kind)
            if format_at is not None:  # the name of the format, or the entity, in front
                self._format_names[numbers[format_at]] = name(numbers[format_at])
            return _Raw(kind, object_id, name(name_id), numbers, children)

        self._format_names: Dict[int, str] = {NONE: ""}
        events = self._read_events(cursor, name)
        root = node(0)
        return root, events

    @staticmethod
    def _read_events(cursor: _Cursor, name: Any) -> List[Event]:
        fixed = {
            "EntityStorage.CreateInstanceEvent": 0,
            "EntityStorage.DestroyInstanceEvent": 1,
            "EntityStorage.PermuteEvent": 0,
            "EntityStorage.CreateInstancesEvent": 1,
            "EntityStorage.DestroyInstancesEvent": 2,
        }
        events = []
        for _ in range(cursor.u32()):
            kind = name(cursor.u32())
            if kind in fixed:
                storage = cursor.u32()
                numbers = cursor.numbers(fixed[kind])
            elif kind == "EntityStorage.StorageBatchEvent":
                storage, what, count = cursor.numbers(3)
                numbers = (what,) + cursor.numbers(count, "Q")
            else:
                raise cursor.fault(f"an event of the unknown kind '{kind}'")
            events.append(Event(kind, storage, numbers))
        cursor.end_tag("events")
        return events

    def _array(self, info: FrameInfo, raw: _Raw, is_value: bool) -> Array:
        format_id, num_bytes, offset = raw.numbers[:3]
        count = 1 if is_value else raw.numbers[3]
        name = self._format_names[format_id]
        start = info.data_offset + offset
        if offset + num_bytes > info.data_size:
            raise self._fault(start, f"'{raw.name}' reaches behind the data of frame {info.index}")
        layout = _LAYOUTS.get(name)
        if layout is not None and count * _elements(layout) * layout.dtype.itemsize == num_bytes:
            array = np.frombuffer(self._map, layout.dtype, count * _elements(layout), start)
            array = array.reshape((count,) + layout.shape)[(_WHOLE,) + layout.used]
        else:
            if num_bytes < count or num_bytes % max(count, 1) != 0:
                raise self._fault(start, f"'{raw.name}' has {num_bytes} bytes for {count} elements")
            array = np.frombuffer(self._map, np.dtype(f"V{max(num_bytes // max(count, 1), 1)}"), count, start)
        return array.reshape(array.shape[1:]) if is_value else array

    def _convert(self, info: FrameInfo, raw: _Raw) -> Any:
        if raw.kind in (VALUE, BUFFER):
            return self._array(info, raw, raw.kind == VALUE)
        if raw.kind == STORAGE:
            storage = Storage(raw.ident, self._format_names[raw.numbers[1]], raw.numbers[2], raw.numbers[3])
            for child in raw.children:
                content = self._convert(info, child)
                if child.name == "_idToIndex":
                    storage.id_to_index = content
                elif child.name == "_indexToId":
                    storage.index_to_id = content
                else:
                    storage[child.name] = content
            return storage
        children = {child.name: self._convert(info, child) for child in raw.children}
        if raw.kind == COMPONENT:
            return children
        if raw.kind == PARTIAL:
            index, data = children.get("index"), children.get("data")
            if index is None or data is None:
                index, data = np.zeros(0, np.uint64), np.zeros(0)
            if len(index) != len(data) or (len(index) and int(index.max()) >= raw.numbers[3]):
                raise self._fault(info.header_offset, f"'{raw.name}' has elements outside of itself")
            return Partial(index, data, raw.numbers[3])
        return self._parts(info, raw, children)

    def _parts(self, info: FrameInfo, raw: _Raw, children: Dict[str, Any]) -> Any:
        """Texts, handles or arrays."""
        count = raw.numbers[2]
        if "id" in children or "storage" in children:
            handles = np.empty(count, [("id", "<u8"), ("storage", "<u8")])
            for field in ("id", "storage"):
                part = children.get(field)
                if part is None or len(part) != count:
                    raise self._fault(info.header_offset, f"the handles of '{raw.name}' are not whole")
                handles[field] = part
            return handles
        ranges = children.get("range")
        if ranges is None:
            return []
        format_name = self._format_names[raw.numbers[1]]
        if format_name.startswith("Array<"):
            return Ragged(ranges, children.get("elements"), children.get("buffer"))
        characters = children.get("characters")
        text = b"" if characters is None else characters.tobytes()
        if len(ranges) and int(ranges.max()) > len(text):
            raise self._fault(info.header_offset, f"the texts of '{raw.name}' are not whole")
        return [text[begin:end].decode("utf-8", "replace") for begin, end in ranges.tolist()]

    def _frame(self, position: int, path: Optional[str] = None) -> Frame:
        info = self.frames_info[position]
        raw, events = self._raw(position)
        if path is not None:
            raw = _select(raw, path.split("."))
        return Frame(info.index, info.time, info.step, info.is_key_frame, self._convert(info, raw), events)

    def _merge(self, older: Frame, newer: Frame) -> Frame:
        try:
            # What grows without being told holds zeros: so much of it that only a damaged file asks for more.
            data = _merge_nodes(older.data, newer.data, 16 * self._size)
        except _TooLarge as error:
            raise self._fault(self.frames_info[self._positions[newer.index]].header_offset, str(error)) from None
        return dataclasses.replace(newer, data=data)

    def read(self, index: int) -> Frame:
        """The frame as it stands in the file: but for key frames, what has changed since the frame before."""
        return self._frame(self._position(index))

    def frame(self, index: int) -> Frame:
        """All that there was at this frame: merged from the key frame before."""
        position = self._position(index)
        result = self._frame(self._key_frame(position))
        for i in range(self._key_frame(position) + 1, position + 1):
            result = self._merge(result, self._frame(i))
        return result

    def frames(self, path: Optional[str] = None) -> Iterator[Frame]:
        """All frames in order, each complete; only what the path leads to, if one is given."""
        result: Optional[Frame] = None
        for position in range(len(self.frames_info)):
            frame = self._frame(position, path)
            result = frame if result is None or frame.is_key_frame else self._merge(result, frame)
            yield result

    def series(self, path: str, ident: Optional[int] = None) -> Tuple[Array, Array]:
        """The times and what the value or buffer at the path was then, from the first frame that tells it. Where the path leads
        to a column of a storage, ident is the instance that is meant; frames in which it is not alive are left out."""
        times, rows = [], []
        storage_path, _, column = path.rpartition(".")
        for frame in self.frames(path if ident is None else storage_path):
            try:
                found = find(frame.data, path)
                if ident is not None:
                    storage = find(frame.data, storage_path)
                    if not isinstance(storage, Storage):
                        raise KeyError(f"'{storage_path}' is no storage")
                    row = storage.row(ident)
                    numbers = max(len(found) // storage.size, 1)
                    found = found[row] if numbers == 1 else found[row * numbers : (row + 1) * numbers]
            except KeyError:
                continue
            times.append(frame.time)
            rows.append(found)
        if not rows:
            raise KeyError(path if ident is None else f"{path} of {ident}")
        return np.array(times), np.array(rows)


def _described(element: ElementTree.Element) -> Dict[str, Any]:
    return {child.tag: _described(child) if len(child) else child.text or "" for child in element}


def _select(raw: _Raw, names: List[str]) -> _Raw:
    """The node with what the names lead to, the tables of ids of storages among it."""
    if not names or names == [""]:
        return raw
    children = [_select(child, names[1:]) for child in raw.children if child.name == names[0]]
    if raw.kind == STORAGE:
        children += [child for child in raw.children if child.name in ("_idToIndex", "_indexToId")]
    elif raw.kind != COMPONENT:
        return raw
    return raw._replace(children=children)


# Merging


class _TooLarge(Exception):
    pass


def _merge_nodes(older: Dict[str, Any], newer: Dict[str, Any], limit: int) -> Dict[str, Any]:
    """Neither of the two changes; what is the same is shared."""
    result: Dict[str, Any]
    if isinstance(newer, Storage):
        result = Storage(newer.ident, newer.entity, newer.size, newer.capacity)
        was = older if isinstance(older, Storage) else result
        told = len(newer.id_to_index) != 0 or newer.capacity == 0
        result.id_to_index = (newer if told else was).id_to_index
        result.index_to_id = (newer if told else was).index_to_id
        for name, column in older.items():
            if name not in newer and was.size != newer.size and not isinstance(column, (dict, Partial)):
                count = _length(column)
                column = _resized(column, count // was.size * newer.size if was.size else newer.size, limit)
            result[name] = column
    else:
        result = dict(older)
    for name, node in newer.items():
        held = result.get(name)
        if isinstance(node, Partial):
            result[name] = _scatter(held, node, limit)
        elif isinstance(node, dict):
            result[name] = _merge_nodes(held if isinstance(held, dict) else {}, node, limit)
        else:
            result[name] = node
    return result


def _length(column: Any) -> int:
    return len(column.ranges if isinstance(column, Ragged) else column)


def _resized(column: Any, size: int, limit: int) -> Any:
    """A copy, cut or filled with zeros and empty texts."""
    if isinstance(column, Ragged):
        return column._replace(ranges=_resized(column.ranges, size, limit))
    item_size = 1 if isinstance(column, list) else column.itemsize * int(np.prod(column.shape[1:]))
    if size > len(column) and size * item_size > limit:
        raise _TooLarge(f"a column of {size} elements")
    if isinstance(column, list):
        return (column + [""] * (size - len(column)))[:size]
    result = np.zeros((size,) + column.shape[1:], column.dtype)
    count = min(size, len(column))
    result[:count] = column[:count]
    return result


def _scatter(held: Any, part: Partial, limit: int) -> Any:
    """What is held with the elements of the part. Some elements of a whole that is not there stay what they are."""
    if type(held) is not type(part.data) or not isinstance(held, (np.ndarray, list, Ragged)):
        return part
    if isinstance(held, Ragged):
        if held.elements is None or part.data.elements is None:
            return part
        # The elements of the part behind those that are there.
        ranges = _resized(held.ranges, part.full_size, limit)
        ranges[part.indices] = part.data.ranges + len(held.elements)
        return Ragged(ranges, np.concatenate([held.elements, part.data.elements]), None)
    result = _resized(held, part.full_size, limit)
    if isinstance(result, np.ndarray):
        result[part.indices] = part.data
    else:
        for place, text in zip(part.indices.tolist(), part.data):
            result[place] = text
    return result


def open(path: str) -> Journal:  # noqa: A001, named as what it does
    """Opens a journal."""
    return Journal(path)


# Printing


def describe(data: Any, indent: str = "", rows: int = 6) -> Iterator[str]:
    """Lines that show a node, of columns the first elements."""
    for name, node in data.items():
        if isinstance(node, dict):
            what = f"  ({node.entity}, {node.size} of {node.capacity})" if isinstance(node, Storage) else ""
            yield f"{indent}{name}{what}"
            yield from describe(node, indent + "  ", rows)
        else:
            yield f"{indent}{name} = {_shown(node, rows)}"


def _shown(node: Any, rows: int) -> str:
    if isinstance(node, Partial):
        return f"{len(node.indices)} of {node.full_size}: {_shown(node.data, rows)}"
    if isinstance(node, np.ndarray) and node.ndim == 0:
        return str(node[()])
    if isinstance(node, (np.ndarray, list)):
        more = f" ... ({len(node)})" if len(node) > rows else ""
        return re.sub(r"\s+", " ", str(node[:rows])) + more
    return str(node)


def _print_journal(journal: Journal) -> None:
    session = journal.session
    state = "closed" if session.is_closed else "not closed"
    print(f"session {session.name}, {session.date}, version {session.version}, {state}")
    keys = sum(info.is_key_frame for info in journal.frames_info)
    print(f"{len(journal)} frames, {keys} of them key frames, step {session.time_step:g}, "
          f"computed in {session.computation_time:g} s")
    if len(journal):
        first, last = journal.frames_info[0], journal.frames_info[-1]
        print(f"frames {first.index} to {last.index}, times {first.time:g} to {last.time:g}")
    for key, value in session.extra_data.items():
        print(f"{key}: {value}")
    for name in journal.plot_names:
        print(f"plot {name}")


def main(arguments: Optional[Sequence[str]] = None) -> int:
    parser = argparse.ArgumentParser(prog="zeljournal", description="Shows what is in a journal.")
    parser.add_argument("file")
    parser.add_argument("index", nargs="?", type=int, help="of a frame")
    parser.add_argument("path", nargs="?", default="", help="of what is to be shown of it")
    parser.add_argument("--series", nargs="+", metavar=("PATH", "ID"), help="time and value, a line for each frame")
    options = parser.parse_args(arguments)
    try:
        with open(options.file) as journal:
            if options.series:
                ident = int(options.series[1]) if len(options.series) > 1 else None
                for time, value in zip(*journal.series(options.series[0], ident)):
                    print(",".join(repr(x) for x in [float(time)] + np.ravel(value).tolist()))
            elif options.index is not None:
                frame = journal.frame(options.index)
                found = frame[options.path]
                print(f"frame {frame.index}, time {frame.time:g}, step {frame.step:g}")
                named = found if isinstance(found, dict) else {options.path.rpartition(".")[2]: found}
                print("\n".join(describe(named)))
            else:
                _print_journal(journal)
    except (JournalError, OSError, ValueError) as error:
        print(f"zeljournal: {error}", file=sys.stderr)
        return 1
    except KeyError as error:
        print(f"zeljournal: {options.file}: there is no {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
