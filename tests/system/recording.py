"""A reader of recordings, written from docs/recording-format.md and nothing else.

It is slow and plain on purpose: the rules of that page stand here and in value_coding.py once (formulas as far as the
tests have them), so that a fault of the tool's own writer cannot hide in code that both share.
"""
import json
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


def head(size):
    """The head of a file with records of this size."""
    return struct.pack("<8s3I12x", b"LMREC", 2, size, size + 8)


class Group:
    def __init__(self, directory, number, meta):
        self.meta = meta
        self.name = meta["name"]
        self.signals = [Signal(s) for s in meta["signals"]]
        size = meta["recordSize"]
        path = directory / f"g{number:04}.rec"
        data = path.read_bytes()
        if data[:32] != head(size):
            raise ValueError(f"{path}: {data[:32]}")
        whole = (len(data) - 32) // (8 + size) * (8 + size)
        rows = list(struct.iter_unpack(f"<q{size}s", data[32:32 + whole]))
        self.timestamps = [row[0] for row in rows]
        self.records = [row[1] for row in rows]

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


def events(directory):
    """The lines of "events.jsonl" behind the first, which belongs to "meta.json"."""
    first, *lines = map(json.loads, (Path(directory) / "events.jsonl").read_text(encoding="utf-8").splitlines())
    meta = json.loads((Path(directory) / "meta.json").read_text(encoding="utf-8"))
    if first != {"event": "start", "timeNs": meta["startHostNs"], "utcNs": meta["startUtcNs"], "version": 1}:
        raise ValueError(f"events of another recording: {first}")
    return lines
