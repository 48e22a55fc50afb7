"""Where the values, axis points and counts of an A2L object lie in memory, found by walking through memory element by
element; and the points of the axes that are computed. It shares nothing with the tool.

Run alone, it compares itself with memory that was laid out by hand.
"""
import copy
import itertools
from typing import NamedTuple

AXES = "XYZ45"
# The border of each type, by the word of ALIGNMENT_*, and its size.
BORDERS = {"UBYTE": ("BYTE", 1), "SBYTE": ("BYTE", 1), "UWORD": ("WORD", 2), "SWORD": ("WORD", 2), "ULONG": ("LONG", 4),
           "SLONG": ("LONG", 4), "A_UINT64": ("INT64", 8), "A_INT64": ("INT64", 8), "FLOAT16_IEEE": ("FLOAT16_IEEE", 2),
           "FLOAT32_IEEE": ("FLOAT32_IEEE", 4), "FLOAT64_IEEE": ("FLOAT64_IEEE", 8), "BYTE": ("BYTE", 1),
           "WORD": ("WORD", 2), "LONG": ("LONG", 4)}
POINTERS = {"PBYTE": "UBYTE", "PWORD": "UWORD", "PLONG": "ULONG", "PLONGLONG": "A_UINT64"}


class Row(NamedTuple):
    """One element of a RECORD_LAYOUT; `mode` is how its values follow each other."""
    keyword: str
    pos: int
    type: str
    mode: str = ""
    address: str = "DIRECT"


class Layout:
    """A RECORD_LAYOUT from its text; `borders` are the alignments of the module."""

    def __init__(self, text, borders=()):
        self.text, self.rows, self.fixed, self.borders, self.static = text, [], {}, dict(borders), ""
        words = text.split()
        while words:
            keyword = words.pop(0)
            if keyword.startswith("STATIC_"):
                self.static = keyword
            elif keyword.startswith("ALIGNMENT_"):
                self.borders[keyword.removeprefix("ALIGNMENT_")] = int(words.pop(0))
            elif keyword.startswith("FIX_NO_AXIS_PTS_"):
                self.fixed[keyword[-1]] = int(words.pop(0))
            else:
                pos, type_name = int(words.pop(0)), words.pop(0)
                if keyword.startswith("AXIS_RESCALE"):
                    words.pop(0)  # the greatest number of pairs reserves nothing
                long = keyword.startswith(("FNC_VALUES", "AXIS_"))
                self.rows.append(Row(keyword, pos, type_name, *((words.pop(0), words.pop(0)) if long else ())))
        self.rows.sort(key=lambda row: row.pos)

    def row(self, keyword):
        return next((row for row in self.rows if row.keyword == keyword), None)

    def falling(self):
        """The axes whose first point has the highest address."""
        return {row.keyword[-1] for row in self.rows if row.mode == "INDEX_DECR"}


class Cursor:
    """A place in memory that moves on; the first element stays where it is put."""

    def __init__(self, at, borders):
        self.at, self.borders, self.begun = at, borders, False

    def take(self, type_name, aligned=True):
        word, size = BORDERS[type_name]
        if self.begun and aligned:
            self.at += -self.at % self.borders.get(word, size)
        self.begun = True
        self.at += size
        return self.at - size


def in_memory_order(sizes, mode):
    """The indices of a table, X first, from the lowest address to the highest."""
    fastest = list(range(len(sizes)))
    if mode == "COLUMN_DIR":
        fastest[:2] = reversed(fastest[:2])
    for place in itertools.product(*(range(sizes[axis]) for axis in reversed(fastest))):
        by_axis = dict(zip(reversed(fastest), place))
        yield tuple(by_axis[axis] for axis in range(len(sizes)))


def interleaved(sizes, axis, axis_first):
    """The points of an axis, each with the values that belong to it."""
    for i in range(sizes[axis]):
        values = [("W", index) for index in in_memory_order(sizes, "ROW_DIR") if index[axis] == i]
        point = [(AXES[axis], (i,))]
        yield from point + values if axis_first else values + point


def blocks(layout, sizes):
    """Each part of the record: its row, and the elements in it as (what, index) in the order of memory."""
    values = layout.row("FNC_VALUES")
    partner = None
    if values and values.mode.startswith("ALTERNATE_WITH_"):
        partner = layout.row("AXIS_PTS_" + values.mode[-1])
    for row in layout.rows:
        if partner and row in (values, partner):
            if row.pos == min(values.pos, partner.pos):
                yield row, list(interleaved(sizes, AXES.index(values.mode[-1]), row is partner))
        elif row is values:
            yield row, [("W", index) for index in in_memory_order(sizes, row.mode)]
        elif row.keyword.startswith("AXIS_PTS_"):
            yield row, [(row.keyword[-1], (i,)) for i in range(sizes[AXES.index(row.keyword[-1])])]
        elif row.keyword.startswith("AXIS_RESCALE_"):
            yield row, [("pairs", (i,)) for i in range(2 * sizes[0])]
        else:
            yield row, [(row.keyword, row.pos)]


def place(layout, address, used, most, falling=(), targets=None):
    """Where everything lies: {(what, index): (address, type)} by logical index, and the end of the record.

    `used` and `most` are the points in use and at most of each axis, X first; `targets` tells by keyword where
    the pointers lead to.
    """
    found, cursor = {}, Cursor(address, layout.borders)
    types = {"W": layout.row("FNC_VALUES")} | {name: layout.row("AXIS_PTS_" + name) for name in AXES}
    full = list(blocks(layout, most))
    static = layout.static == "STATIC_RECORD_LAYOUT"
    for (row, reserved), (_, elements) in zip(full, full if static else blocks(layout, used)):
        each = len({what for what, _ in elements}) > 1  # of an interleaved block every value is aligned
        inside = cursor
        if row.address != "DIRECT":
            found["pointer", row.keyword] = cursor.take(POINTERS[row.address]), POINTERS[row.address]
            inside = Cursor(targets[row.keyword], layout.borders)
        start = copy.copy(inside)
        for number, (what, index) in enumerate(elements):
            kind = (types.get(what) or row).type
            at = inside.take(kind, each or number == 0)
            if what in AXES or what == "W":
                axes = [AXES.index(what)] if what != "W" else range(len(index))
                if any(i >= used[axis] for axis, i in zip(axes, index)):
                    continue
                index = tuple(used[axis] - 1 - i if AXES[axis] in falling else i for axis, i in zip(axes, index))
            found[what, index] = at, kind
        if layout.static and not static and inside is cursor:
            for number, (what, _) in enumerate(reserved):
                start.take((types.get(what) or row).type, each or number == 0)
            cursor.at = start.at
    return found, cursor.at


def fixed_points(form, numbers):
    """The raw points of a FIX_AXIS_PAR* of all three forms."""
    if form == "FIX_AXIS_PAR_LIST":
        return list(numbers)
    offset, step, count = numbers
    return [offset + i * (2 ** step if form == "FIX_AXIS_PAR" else step) for i in range(int(count))]


def differences(points):
    """What DEPOSIT DIFFERENCE stores of these points."""
    return [point - before for before, point in zip([0, *points], points)]


def rescaled(pairs, count):
    """The points of a rescale axis; `pairs` are (axis value, index)."""
    first, last = pairs[0][1], pairs[-1][1] + 1
    pairs = pairs[:-1] + [(pairs[-1][0], last)]
    points = []
    for i in range(count):
        x = first + i * (last - first) / (count - 1)
        (low, low_at), (high, high_at) = next(pair for pair in zip(pairs, pairs[1:]) if x <= pair[1][1] or pair[1] == pairs[-1])
        points.append(low + (high - low) * (x - low_at) / (high_at - low_at))
    return points


# Layout, address, points in use, points at most, memory (".." belongs to no one), then X, Y and W in the order of memory
# of ROW_DIR, in hexadecimal digits as the little-endian memory has them.
STD = "NO_AXIS_PTS_X 1 UBYTE AXIS_PTS_X 2 UBYTE INDEX_INCR DIRECT FNC_VALUES 3 "
BYTES = "AXIS_PTS_X {} UBYTE INDEX_INCR DIRECT AXIS_PTS_Y {} UBYTE INDEX_INCR DIRECT FNC_VALUES {} UBYTE {} DIRECT"
MAP = ("0A 14 1E", "01 02", "0B 0C 0D 15 16 17")
EXAMPLES = (
    (STD + "SWORD ROW_DIR DIRECT", 0x1000, (3,), (4,), "03 0A 14 1E F6 FF 00 00 0A 00", "0A 14 1E", "", "F6FF 0000 0A00"),
    (STD + "SWORD ROW_DIR DIRECT STATIC_RECORD_LAYOUT", 0x1020, (3,), (4,), "03 0A 14 1E .. .. F6 FF 00 00 0A 00",
     "0A 14 1E", "", "F6FF 0000 0A00"),
    (STD + "FLOAT32_IEEE ROW_DIR DIRECT", 0x3000, (4,), (4,), "04 01 02 03 04 .. .. .. 00 00 00 3F 00 00 80 3F 00 00 C0 3F "
     "00 00 00 C0", "01 02 03 04", "", "0000003F 0000803F 0000C03F 000000C0"),
    (STD + "FLOAT32_IEEE ROW_DIR DIRECT ALIGNMENT_FLOAT32_IEEE 2", 0x3000, (4,), (4,), "04 01 02 03 04 .. 00 00 00 3F "
     "00 00 80 3F 00 00 C0 3F 00 00 00 C0", "01 02 03 04", "", "0000003F 0000803F 0000C03F 000000C0"),
    ("FIX_NO_AXIS_PTS_X 2 AXIS_PTS_X 1 UWORD INDEX_INCR DIRECT FNC_VALUES 2 UWORD ALTERNATE_WITH_X DIRECT", 0x3100, (2,),
     (2,), "0A 00 64 00 14 00 C8 00", "0A00 1400", "", "6400 C800"),
    (STD + "UWORD ROW_DIR PLONG", 0x5000, (3,), (3,), "03 0A 14 1E 00 60 00 00", "0A 14 1E", "", "0700 0800 0900"),
    ("NO_AXIS_PTS_X 1 UBYTE AXIS_PTS_X 2 SBYTE INDEX_INCR DIRECT FNC_VALUES 5 SWORD ROW_DIR DIRECT", 0x1000, (8,), (8,),
     "08 01 02 03 04 05 06 07 08 .. 01 00 02 00 03 00 04 00 05 00 06 00 07 00 08 00", "01 02 03 04 05 06 07 08", "",
     "0100 0200 0300 0400 0500 0600 0700 0800"),
    (BYTES.format(1, 2, 3, "ROW_DIR"), 0, (3, 2), (3, 2), "0A 14 1E 01 02 0B 0C 0D 15 16 17", *MAP),
    (BYTES.format(1, 2, 3, "COLUMN_DIR"), 0, (3, 2), (3, 2), "0A 14 1E 01 02 0B 15 0C 16 0D 17", *MAP),
    (BYTES.format(2, 1, 3, "ALTERNATE_WITH_X"), 0, (3, 2), (3, 2), "01 02 0A 0B 15 14 0C 16 1E 0D 17", *MAP),
    (BYTES.format(3, 1, 2, "ALTERNATE_WITH_X"), 0, (3, 2), (3, 2), "01 02 0B 15 0A 0C 16 14 0D 17 1E", *MAP),
    (BYTES.format(1, 2, 3, "ALTERNATE_WITH_Y"), 0, (3, 2), (3, 2), "0A 14 1E 01 0B 0C 0D 02 15 16 17", *MAP),
    ("FNC_VALUES 1 UBYTE COLUMN_DIR DIRECT", 0, (3, 4), (3, 4), "01 04 07 0A 02 05 08 0B 03 06 09 0C", "", "",
     "01 02 03 04 05 06 07 08 09 0A 0B 0C"),
)


def check():
    """The calculation itself: every example, byte by byte."""
    for text, address, used, most, memory, *numbers in EXAMPLES:
        layout, shown = Layout(text), {}
        found, end = place(layout, address, used, most, (), {"FNC_VALUES": 0x6000})
        keys = ([("X", (i,)) for i in range(used[0])], [("Y", (i,)) for i in range(used[-1])],
                [("W", index) for index in in_memory_order(used, "ROW_DIR")])
        for wanted, line in zip(keys, numbers):
            for key, number in zip(wanted, line.split()):
                shown |= {found[key][0] + i: byte for i, byte in enumerate(bytes.fromhex(number))}
        pointer = found.get(("pointer", "FNC_VALUES"), (0, ""))[0]
        shown |= {pointer + i: byte for i, byte in enumerate(bytes.fromhex("00600000"))} if pointer else {}
        if ("NO_AXIS_PTS_X", 1) in found:
            shown[found["NO_AXIS_PTS_X", 1][0]] = used[0]
        line = " ".join(f"{shown[at]:02X}" if at in shown else ".." for at in range(address, end))
        assert line.rstrip(". ") == memory, (text, line, memory)
        assert not pointer or [shown[at] for at in range(0x6000, 0x6006)] == [7, 0, 8, 0, 9, 0]
    assert differences([10, 15, 20, 40]) == [10, 5, 5, 20] and differences([10, 12, 20, 40]) == [10, 2, 8, 20]
    assert [round(x, 2) for x in rescaled([(0, 0), (100, 192), (216, 255)], 9)] == [0, 16.67, 33.33, 50, 66.67, 83.33, 100, 158, 216]
    assert fixed_points("FIX_AXIS_PAR", (0, 4, 6)) == [0, 16, 32, 48, 64, 80]
    assert fixed_points("FIX_AXIS_PAR_DIST", (1, 10, 5)) == [1, 11, 21, 31, 41]


if __name__ == "__main__":
    check()
