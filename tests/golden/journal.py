#!/usr/bin/env python3
"""Prints journal.hex: a journal of two frames and a plot, put together field by field from docs/journal-format.md
and without the library.

usage: journal.py > journal.hex"""
import struct

LINES = []
OFFSET = 0


def put(data, note):
    """Bytes with what they are; long runs of zeros are written as 00*count."""
    global OFFSET
    first = True
    if len(data) > 32 and not any(data):
        LINES.append(f"{'00*' + str(len(data)):48}# {OFFSET:6}  {note}")
    else:
        for i in range(0, len(data), 16):
            text = " ".join(f"{byte:02X}" for byte in data[i:i + 16])
            LINES.append(f"{text:48}# {OFFSET + i:6}  {note if first else ''}".rstrip())
            first = False
    OFFSET += len(data)


def title(text):
    LINES.append(f"# {text}")


def u32(*numbers):
    return struct.pack(f"<{len(numbers)}I", *numbers)


def u64(*numbers):
    return struct.pack(f"<{len(numbers)}Q", *numbers)


def f64(*numbers):
    return struct.pack(f"<{len(numbers)}d", *numbers)


END = 0xFFFFFFFF
PLOT = b'{\n   "id" : 1,\n   "name" : "p"\n}\n'


def frame(index, stamp, step, ident, key, names, first, nodes, data):
    """A frame at the present offset; nodes and data are lists of (bytes, note)."""
    table = u32(len(names), first)
    for name in names:
        table += u32(len(name)) + name.encode()
    table += u32(END)
    tree = b"".join(part for part, _ in nodes)
    segment = b"".join(part for part, _ in data)
    size = 56 + len(table) + 8 + len(tree)
    title(f"Frame {index}: the record")
    put(u64(index), "index")
    put(f64(stamp), "timeStamp")
    put(f64(step), "timeStep")
    put(u32(ident), "id")
    put(bytes([key, 0, 0, 0]), "isKeyFrame, and zeros")
    put(u64(size), f"headerSize {size}")
    put(u64(len(segment)), f"dataSize {len(segment)}")
    put(u32(END, 0), "endTag, and zeros")
    title("  the names that are new")
    put(u32(len(names), first), "count, firstId")
    for i, name in enumerate(names):
        put(u32(len(name)) + name.encode(), f'id {first + i}: length, "{name}"')
    put(u32(END), "end tag")
    title("  the events")
    put(u32(0, END), "none, end tag")
    title("  the nodes")
    for part, note in nodes:
        put(part, note)
    title("  up to a multiple of 32, and the data segment")
    put(bytes(-OFFSET % 32), "padding")
    for part, note in data:
        put(part, note)


def main():
    scene = b"scene"
    block = 34
    frames = block + 10240 + len(scene)
    # Behind two frames, whose sizes follow from what they hold.
    plot = 10624 + 9
    text = f"""<Session>
  <name>golden</name>
  <version>2.40.0.0</version>
  <versionNumber>36175872</versionNumber>
  <is64BitReal>true</is64BitReal>
  <is64BitArchitecture>true</is64BitArchitecture>
  <isLittleEndian>true</isLittleEndian>
  <date>
    <string>2009-02-13 23:31:30</string>
    <epoch>
      <seconds>1234567890</seconds>
      <microSeconds>125</microSeconds>
    </epoch>
  </date>
  <headerFormat>BINARY</headerFormat>
  <timeStep>0.500000</timeStep>
  <numFrames>2</numFrames>
  <frameStride>1</frameStride>
  <startFrame>3</startFrame>
  <endFrame>4</endFrame>
  <startTime>1.500000</startTime>
  <endTime>2.000000</endTime>
  <computationTime>0.250000</computationTime>
  <sceneDataOffset>{block + 10240}</sceneDataOffset>
  <sceneDataSize>{len(scene)}</sceneDataSize>
  <frameDataOffset>{frames}</frameDataOffset>
  <ExtraData>
    <author>me</author>
  </ExtraData>
  <Plots>
    <Plot name="p" offset="{plot}" headerSize="{len(PLOT)}" dataSize="3" />
  </Plots>
</Session>
""".encode()
    title("The journal header")
    put(b"ZelJournal", '"ZelJournal"')
    put(u64(0x02280000), "version 2.40.0.0")
    put(u64(block), "sessionHeaderOffset")
    put(u64(len(text)), f"sessionHeaderSize {len(text)}")
    title("The block of the session header: the text, and zeros up to 10240 bytes")
    for i, line in enumerate(text.splitlines(keepends=True)):
        put(line, line.decode().strip())
    put(bytes(10240 - len(text)), "the rest of the block")
    title("The scene")
    put(scene, '"scene"')
    frame(3, 1.5, 0.5, 7, 1, ["t", "Real:64bit"], 0,
          [(u32(2, END, END, 1), "component, id, the empty name; one child"),
           (u32(0, 10, 0, 1, 8, 0), "value 10 \"t\", Real:64bit; 8 bytes at 0"),
           (u32(END), "end of the children")],
          [(f64(2), "t = 2")])
    frame(4, 2, 0.5, 8, 0, ["b", "UInt:8bit"], 2,
          [(u32(2, END, END, 2), "component, id, the empty name; two children"),
           (u32(0, 10, 0, 1, 8, 0), "value 10 \"t\", Real:64bit; 8 bytes at 0"),
           (u32(1, 11, 2, 3, 1, 8, 1), "buffer 11 \"b\", UInt:8bit; 1 byte at 8, 1 element"),
           (u32(END), "end of the children")],
          [(f64(3), "t = 3"), (bytes([5]), "b = 5")])
    assert OFFSET == plot, OFFSET
    title("The plot: its text, and its bytes")
    for line in PLOT.splitlines(keepends=True):
        put(line, line.decode().strip())
    put(b"xyz", '"xyz"')
    print("\n".join(LINES))


if __name__ == "__main__":
    main()
