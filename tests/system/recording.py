"""A reader of recordings, written from docs/recording-format.md and nothing else.

It is slow and plain on purpose: the rules of that page stand here and in value_coding.py once (formulas as far as the
tests have them), so that a fault of the tool's own writer cannot hide in code that both share.
"""
import json
import math
import struct
from pathlib import Path

from value_coding import Conversion, Field


class Signal:
    def __init__(self, meta):
        self.meta = meta
        self.name = meta["name"]
        self.field = Field(meta["type"], meta["byteOrder"], meta["bitMask"])
        self.offset = meta["recordOffset"]
        self.conversion = Conversion(meta["conversion"])

    def raw(self, record):
        """The raw value as it is, an integer of any size or a float."""
        data = record[self.offset:self.offset + self.field.size]
        if len(data) != self.field.size:
            raise ValueError(f"{self.name} lies outside the record")
        return self.field.decoded(data)


def entries(path, magic, fields, layout):
    """The entries of a binary file after a check of its header; None when there is no file."""
    if not path.exists():
        return None
    data = path.read_bytes()
    if data[:8] != magic + b"\0\0\0":
        raise ValueError(f"{path}: magic {data[:8]}")
    header = struct.unpack(f"<{len(fields)}I", data[8:8 + 4 * len(fields)])
    if header != fields:
        raise ValueError(f"{path}: header {header} is not {fields}")
    if any(data[8 + 4 * len(fields):32]):
        raise ValueError(f"{path}: reserved bytes")
    size = struct.calcsize(layout)
    whole = (len(data) - 32) // size * size
    return list(struct.iter_unpack(layout, data[32:32 + whole]))


class Group:
    def __init__(self, directory, number, meta):
        self.meta = meta
        self.name = meta["name"]
        self.signals = [Signal(s) for s in meta["signals"]]
        size = meta["recordSize"]
        stem = f"g{number:04}"
        rows = entries(directory / f"{stem}.rec", b"LMREC", (2, size, size + 8), f"<q{size}s")
        if rows is None:
            raise ValueError(f"{stem}.rec is missing")
        self.timestamps = [row[0] for row in rows]
        self.records = [row[1] for row in rows]
        self.index = entries(directory / f"{stem}.tix", b"LMTIX", (2, 16, 16), "<qq")
        self.levels = []
        count = len(self.signals)
        while count:
            level = len(self.levels) + 1
            read = entries(directory / f"{stem}_L{level}.pyr", b"LMPYR", (2, level, 8 * count, count), f"<{2 * count}f")
            if read is None:
                break
            self.levels.append(read)

    def counters(self):
        """All values of the first signal."""
        return [self.signals[0].raw(record) for record in self.records]


class Recording:
    def __init__(self, directory):
        directory = Path(directory)
        self.meta = json.loads((directory / "meta.json").read_text(encoding="utf-8"))
        if self.meta["formatVersion"] != 2:
            raise ValueError(f"format version {self.meta['formatVersion']}")
        self.groups = [Group(directory, number, meta) for number, meta in enumerate(self.meta["groups"])]


def rounded_down(value):
    """The largest float that is not above a double."""
    try:
        near = struct.unpack("<f", struct.pack("<f", value))[0]
    except OverflowError:
        near = math.copysign(math.inf, value)
    if not near > value:
        return near
    bits = struct.unpack("<i", struct.pack("<f", near))[0]
    below = -0x7FFFFFFF if near == 0 else bits + 1 if near < 0 else bits - 1
    return struct.unpack("<f", struct.pack("<i", below))[0]


def rounded_up(value):
    return -rounded_down(-value)
