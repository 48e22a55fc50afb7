"""A reader of MDF 4.1 files that trusts nothing, written from the layout of the format and apart from the exporter.

File(path) walks every block from the header on and fails with a ValueError on the first thing that is wrong: an unknown
kind, a link to no block, blocks that overlap or stand outside the file, places that are no multiple of 8, lengths that do
not add up, bytes between blocks that are not zero. Values are read record by record, slowly.
"""
import math
import struct
import xml.etree.ElementTree as ET
import zlib
from bisect import bisect_left
from pathlib import Path

# Number of links (None: any), size of the data section (None: any), of the kinds that may occur.
KINDS = {"HD": (6, 32), "FH": (2, 16), "TX": (0, None), "MD": (0, None), "DG": (4, 8), "CG": (6, 32), "SI": (3, 8),
         "CN": (8, 72), "CC": (None, None), "EV": (None, 32), "DT": (0, None), "DZ": (0, None), "DL": (None, None),
         "HL": (1, 8)}
SPACE = "{http://www.asam.net/mdf/v4}"


def need(condition, what):
    if not condition:
        raise ValueError(what)


class Block:
    def __init__(self, file, place, kinds):
        need(place % 8 == 0 and 64 <= place <= file.size - 24, f"link to {place:#x}")
        head = file.read(place, 24)
        self.place, self.kind = place, head[2:4].decode()
        need(head[:2] == b"##" and self.kind in kinds and head[4:8] == bytes(4), f"{head} instead of {kinds}")
        self.length, links = struct.unpack("<QQ", head[8:])
        need(24 + 8 * links <= self.length <= file.size - place, f"{self.kind} of {self.length} bytes, {links} links")
        count, size = KINDS[self.kind]
        need(count in (None, links), f"{self.kind} with {links} links")
        self.links = struct.unpack(f"<{links}Q", file.read(place + 24, 8 * links))
        self.start = place + 24 + 8 * links
        self.size = place + self.length - self.start
        need(size in (None, self.size), f"{self.kind} with {self.size} bytes of data")
        self.file = file

    def unpack(self, layout, at=0):
        return struct.unpack(layout, self.file.read(self.start + at, struct.calcsize(layout)))


class File:
    def __init__(self, path):
        self.stream = open(path, "rb")
        self.size = Path(path).stat().st_size
        self.blocks = {}
        ident = self.read(0, 64)
        need(ident[:16] == b"MDF     4.10    " and struct.unpack("<H", ident[28:30]) == (410,), f"identification {ident}")
        need(ident[24:28] + ident[30:] == bytes(38), "not final")
        header = self.block(64, "HD")
        group, history, hierarchy, attachment, event, comment = header.links
        need(hierarchy == attachment == 0, "links of the header")
        self.start_ns, self.utc_offset = self.time(header)
        need(not any(header.unpack("<3B2d", 13)), "flags of the header")
        self.comment = self.xml(comment, "HDcomment")
        history = self.block(history, "FH")
        self.history, self.history_offset = self.xml(history.links[1], "FHcomment"), self.time(history)[1]
        self.groups = [Group(self, block) for block in self.chain(group, "DG")]
        masters = {g.channels[0].name for g in self.groups}
        need(not masters & {c.name for g in self.groups for c in g.channels[1:]}, f"a channel called like a master: {masters}")
        self.events = [self.event(block) for block in self.chain(event, "EV")]
        self.check_cover()

    def close(self):
        self.stream.close()

    def read(self, place, size):
        self.stream.seek(place)
        data = self.stream.read(size)
        need(len(data) == size, f"{place + size:#x} is behind the end")
        return data

    def block(self, place, *kinds):
        if place not in self.blocks:
            self.blocks[place] = Block(self, place, kinds)
        need(self.blocks[place].kind in kinds, f"{self.blocks[place].kind} instead of {kinds}")
        return self.blocks[place]

    def chain(self, place, kind):
        seen = set()
        while place:
            need(place not in seen, f"{kind} in a circle")
            seen.add(place)
            block = self.block(place, kind)
            yield block
            place = block.links[0]

    def text(self, place):
        if not place:
            return None
        block = self.block(place, "TX", "MD")
        data = self.read(block.start, block.size)
        text = data.rstrip(b"\0")
        need(len(text) < len(data) and b"\0" not in text and len(data) % 8 == 0, f"end of the text {data}")
        return text.decode("utf-8")

    def xml(self, place, root):
        """The texts of an MD block by element or by the name of the property."""
        if not place:
            return {}
        tree = ET.fromstring(self.text(place))
        need(tree.tag == SPACE + root, f"{tree.tag} instead of {root}")
        return {e.get("name", e.tag.removeprefix(SPACE)): e.text for e in tree.iter() if len(e) == 0}

    @staticmethod
    def time(block):
        """Nanoseconds of UTC and the minutes of the local time, None when they are not told."""
        start, zone, summer, flags = block.unpack("<QhhB")
        need(flags == 2 and summer == 0 or (zone, summer, flags) == (0, 0, 0), "time offsets")
        return start, zone if flags else None

    def event(self, block):
        kind, sync, mode, cause, *zero, scopes, attachments, _, base, factor = block.unpack("<8BIHHqd")
        need((sync, any(zero), attachments) == (1, False, 0) and len(block.links) == 5 + scopes, "event")
        need((kind, cause) == (2, 0) or (kind, cause, mode, scopes) == (6, 4, 0, 0), "interrupt or marker")
        need(kind == 6 or scopes == (not self.text(block.links[3]).startswith("outage")), "scope")
        scope = next((g.name for g in self.groups if scopes and g.place == block.links[5]), None)
        need((mode == 2) == (block.links[2] != 0), "an end without a begin")
        if mode == 2:
            need(self.block(block.links[2], "EV").unpack("<BBB")[2] == 1, "an end of no begin")
        return self.text(block.links[3]), scope, mode, base * factor

    def check_cover(self):
        """Every byte belongs to one block that was reached, or is zero and stands before an 8 byte or page border."""
        end = 64
        for place in sorted(self.blocks):
            need(end <= place < end + 4096 + 8, f"{end:#x} to {place:#x}")
            need(not any(self.read(end, place - end)), f"bytes between blocks at {end:#x}")
            end = place + self.blocks[place].length
        need(end <= self.size < end + 8, "bytes behind the last block")


class Group:
    """A data group with its only channel group."""

    def __init__(self, file, data_group):
        self.file = file
        need(data_group.unpack("<8B") == (0,) * 8, "an unsorted data group")
        block = file.block(data_group.links[1], "CG")
        self.place = block.place
        self.record_id, self.cycles, *flags, stride, invalidation = block.unpack("<QQHH4BII")
        need(self.record_id == invalidation == 0 and not any(flags) and block.links[0] == 0, "channel group")
        self.name = file.text(block.links[2])
        need(file.block(block.links[5], "TX"), "comment")
        self.comment = file.text(block.links[5])
        self.source = source_of(file, block.links[3])
        self.stride = stride
        self.sections = list(self.data_sections(data_group.links[2]))
        need(sum(s[2] for s in self.sections) == self.cycles * stride, f"{self.name}: {self.cycles} records of {stride}")
        self.channels = [Channel(file, cn, stride) for cn in file.chain(block.links[1], "CN")]
        need([c.type for c in self.channels] == [2] + [0] * (len(self.channels) - 1), "one master, first")

    def data_sections(self, place):
        """(kind, block, bytes when inflated) of each."""
        if not place:
            return
        top = self.file.block(place, "DT", "DZ", "HL")
        places = [place]
        if top.kind == "HL":
            need(top.unpack("<HB5B") == (1, 1, 0, 0, 0, 0, 0), "list header")
            lists = list(self.file.chain(top.links[0], "DL"))
            places = [link for block in lists for link in block.links[1:]]
            for block in lists:
                flags, *_, count, length = block.unpack("<B3BIQ")
                need((flags, count, block.size) == (1, len(block.links) - 1, 16), "data list")
        for number, link in enumerate(places):
            block = self.file.block(link, "DT", "DZ")
            size = block.size
            if block.kind == "DZ":
                original, kind, zero, columns, size, packed = block.unpack("<2sBBIQQ")
                need((original, kind, zero, columns) == (b"DT", 1, 0, self.stride), "deflated block")
                need(packed == block.size - 24 and size <= 1 << 22, "lengths of a deflated block")
            need(size and size % self.stride == 0, "a record cut in two")
            if top.kind == "HL":
                need(size == length or number == len(places) - 1 and size < length, "unequal lengths")
            yield block.kind, block, size

    def section_bytes(self, section):
        kind, block, size = section
        if kind == "DT":
            return self.file.read(block.start, size)
        turned = zlib.decompress(self.file.read(block.start + 24, block.size - 24))
        need(len(turned) == size, "length of a deflated block")
        rows = size // self.stride
        records = bytearray(size)
        for column in range(self.stride):
            records[column::self.stride] = turned[column * rows:(column + 1) * rows]
        return bytes(records)

    def columns(self):
        """The raw values of each channel."""
        data = b"".join(map(self.section_bytes, self.sections))
        records = [data[at:at + self.stride] for at in range(0, len(data), self.stride)]
        return [[channel.raw(record) for record in records] for channel in self.channels]


def source_of(file, place):
    block = file.block(place, "SI")
    return (file.text(block.links[0]), file.text(block.links[1]), *block.unpack("<BB"))


class Channel:
    def __init__(self, file, block, stride):
        _, composition, name, source, conversion, signal_data, unit, comment = block.links
        (self.type, self.sync, self.data_type, self.bit_offset, self.byte_offset, self.bits, flags, _, self.precision,
         _, attached, *ranges) = block.unpack("<BBBBIIIIBBH6d")
        need(composition == signal_data == attached == 0 and self.bit_offset < 8, "channel")
        need(self.sync == (self.type == 2) and flags in (0, 4, 16, 20) and self.data_type <= 5, "channel")
        self.limits = tuple(ranges[2:4]) if flags & 16 else None
        need(not any(ranges) if self.limits is None else self.limits[0] < self.limits[1] and not any(ranges[:2] + ranges[4:]),
             f"limits {ranges}")
        self.source = source_of(file, source)
        need(self.data_type < 4 or self.bit_offset == 0 and self.bits in (32, 64), "a float of MDF 4.1")
        self.bytes = (self.bit_offset + self.bits + 7) // 8
        need(self.bits and self.byte_offset + self.bytes <= stride, "channel outside the record")
        self.name, self.unit = file.text(name), file.text(unit)
        self.comment = file.xml(comment, "CNcomment")
        self.precision = self.precision if flags & 4 else None
        self.conversion = Conversion(file, file.block(conversion, "CC")) if conversion else None
        if self.conversion and self.conversion.type in (7, 8) and self.data_type < 4:
            low, high = (-(1 << self.bits - 1), (1 << self.bits - 1) - 1) if self.data_type >= 2 else (0, (1 << self.bits) - 1)
            need(all(float(low) <= v <= float(high) for v in self.conversion.values), f"{self.name}: keys beyond the type")

    def raw(self, record):
        data = record[self.byte_offset:self.byte_offset + self.bytes]
        if self.data_type >= 4:
            return struct.unpack("<>"[self.data_type % 2] + ("f" if self.bits == 32 else "d"), data)[0]
        number = int.from_bytes(data, ("little", "big")[self.data_type % 2]) >> self.bit_offset & (1 << self.bits) - 1
        return number - (1 << self.bits) if self.data_type >= 2 and number >> self.bits - 1 else number

    def physical(self, raw):
        """The number or text."""
        return self.conversion.of(raw, self.data_type >= 4) if self.conversion else float(raw)


class Conversion:
    def __init__(self, file, block):
        self.type, self.precision, flags, refs, count, low, high = block.unpack("<BBHHHdd")
        need(len(block.links) == 4 + refs and block.size == 24 + 8 * count and block.links[3] == 0, "conversion")
        need(flags in (0, 1) and low == high == 0, "flags of a conversion")
        self.unit = file.text(block.links[1])
        self.values = block.unpack(f"<{count}d", 24)
        self.texts = [file.text(link) for link in block.links[4:]]
        pairs = self.values[::2]
        expected = {1: count == 2, 2: count == 6, 4: count % 2 == 0 and count > 0, 5: count % 2 == 0 and count > 0,
                    7: refs == count + 1, 8: 2 * refs == count + 2}
        need(expected[self.type] and (refs == 0 or self.type > 6), f"conversion {self.type} of {count}, {refs}")
        need(self.type not in (4, 5) or all(a < b for a, b in zip(pairs, pairs[1:])), "keys that do not ascend")
        if self.type == 8:
            need(all(a <= b for a, b in zip(self.values, self.values[1:])), "ranges that overlap")

    def of(self, raw, is_float):
        v, x = self.values, float(raw)
        if self.type == 1:
            return v[0] + v[1] * x
        if self.type == 2:
            return (v[0] * x * x + v[1] * x + v[2]) / (v[3] * x * x + v[4] * x + v[5])
        if self.type in (4, 5):
            return self.table(list(v[::2]), v[1::2], x)
        if self.type == 7:
            found = (i for i, key in enumerate(v) if key == x)
        else:
            found = (i for i, (a, b) in enumerate(zip(v[::2], v[1::2])) if a <= x and (x < b if is_float else x <= b))
        return self.texts[next(found, -1)]

    def beside(self, x):
        """What readers can take for the nearest output: that of the key at or below, and at or above."""
        keys, outputs = self.values[::2], self.values[1::2]
        return ([o for k, o in zip(keys, outputs) if k <= x] or outputs)[-1], next((o for k, o in zip(keys, outputs) if k >= x), outputs[-1])

    def table(self, keys, outputs, x):
        if math.isnan(x):
            return math.nan
        i = bisect_left(keys, x)
        if i == 0 or i == len(keys):
            return outputs[min(i, len(keys) - 1)]
        if self.type == 5:
            return outputs[i] if keys[i] - x < x - keys[i - 1] else outputs[i - 1]
        return outputs[i - 1] + (outputs[i] - outputs[i - 1]) * (x - keys[i - 1]) / (keys[i] - keys[i - 1])
