"""Compares the journals of a folder, read with zeljournal, with the texts beside them.

usage: compareJournals.py FOLDER"""
import pathlib
import sys

import numpy as np

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "python"))
import zeljournal  # noqa: E402


def parent(data, name):
    """Names that begin with an s stand below a component."""
    return data.get("below", {}) if name[0] == "s" else data


def handle_text(data, handle):
    for name in ("p0", "p1", "sp2"):
        storage = parent(data, name).get(name)
        if storage is not None and storage.ident == handle["storage"]:
            return f"{name}/{handle['id']}"
    return "null"


def column_text(data, column):
    if isinstance(column, zeljournal.Ragged):
        elements = column.elements if column.elements is not None else []
        texts = ["".join(f",{x:f}" for x in elements[a:b]) for a, b in column.ranges.tolist()]
    elif isinstance(column, list):
        texts = [f"'{text}'" for text in column]
    elif column.dtype.names:
        texts = [handle_text(data, handle) for handle in column]
    elif column.dtype.kind == "f":
        texts = [f"{x:f}" for x in column.tolist()]
    else:
        texts = [str(x) for x in column.tolist()]
    return f"[{len(texts)}]" + "".join(" " + text for text in texts)


def text_of(data, name):
    node = parent(data, name).get(name)
    kind = name[1] if name[0] == "s" else name[0]
    if node is None:  # what is empty vanishes from frames
        return {"t": "", "h": "null", "b": "[0]", "x": "[0]", "p": "0 of 0:"}[kind]
    if kind == "v":
        return f"{float(node):g}"
    if kind == "t":
        return node[0]
    if kind == "h":
        return handle_text(data, node[0])
    if kind != "p":
        return column_text(data, node)
    text = f"{node.size} of {node.capacity}:" + "".join(f" {x}" for x in np.argsort(node.id_to_index).tolist())
    if node.ids.tolist() != np.argsort(node.id_to_index)[: node.size].tolist():
        return "the ids contradict each other"
    for attribute in ("mass", "title", "sun", "triple", "trail", "globalOrder"):
        column = node.get(attribute)
        if column is not None and len(column.ranges if isinstance(column, zeljournal.Ragged) else column):
            text += f"; {attribute}{column_text(data, column)}"
    return text


def main():
    compared = 0
    for expected in sorted(pathlib.Path(sys.argv[1]).glob("*.expected")):
        with zeljournal.open(str(expected.with_suffix(".journal"))) as journal:
            in_order = {frame.index: frame for frame in journal.frames()}
            for line in expected.read_text().split("\n")[:-1]:
                index, name, text = line.split("\t")
                frame = in_order[int(index)]
                for way, data in (("in order", frame.data), ("by itself", journal.frame(int(index)).data)):
                    if text_of(data, name) != text:
                        sys.exit(f"{expected}: {name} of frame {index}, read {way}\n"
                                 f"is    {text_of(data, name)}\nwants {text}")
                    compared += 1
    if compared == 0:
        sys.exit("nothing to compare")


main()
