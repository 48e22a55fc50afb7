"""Random curves, maps, blocks, axes, strings, arrays and structures: their A2L text, their bytes, and what is typed for them."""
from layouts import AXES, BORDERS, POINTERS, Layout, differences, fixed_points, in_memory_order, place, rescaled
from value_coding import TYPES, Field

BASE, ROOM = 0x200000, 0x40000
DIMENSIONS = {"CURVE": 1, "MAP": 2, "CUBOID": 3, "CUBE_4": 4, "CUBE_5": 5}
MOST = {1: 9, 2: 6, 3: 4, 4: 3, 5: 3}  # points on an axis, by how many axes there are
METHODS = {"NO_COMPU_METHOD": 1, "half": 0.5, "tenth": 0.1, "turned": -2}
METHOD_TEXT = "".join(f'/begin COMPU_METHOD {name} "" LINEAR "%9.2" "V" COEFFS_LINEAR {factor} 3 /end COMPU_METHOD\n'
                      for name, factor in METHODS.items() if name != "NO_COMPU_METHOD")
FILLERS = (("RESERVED", ("BYTE", "WORD", "LONG")), ("IDENTIFICATION", ("UWORD", "ULONG", "UBYTE")),
           ("RIP_ADDR_W", ("UWORD", "ULONG")), ("SRC_ADDR_X", ("UWORD", "ULONG")), ("RIP_ADDR_X", ("FLOAT32_IEEE", "ULONG")))
CODECS = {"UTF8": ("utf-8", "utf-8"), "UTF16": ("utf-16-le", "utf-16-be"), "UTF32": ("utf-32-le", "utf-32-be")}
MONOTONIES = {"up": ("", "STRICT_INCREASE", "MON_INCREASE", "STRICT_MON", "MONOTONOUS"),
              "down": ("", "STRICT_DECREASE", "MON_DECREASE", "STRICT_MON"), "any": ("", "NOT_MON")}


def is_monotonous(points, word):
    steps = [b - a for a, b in zip(points, points[1:])]
    up, down = all(s >= 0 for s in steps), all(s <= 0 for s in steps)
    if "STRICT" in word and 0 in steps:
        return False
    return {"INCREASE": up, "DECREASE": down, "": True}.get(word.rpartition("_")[2], up or down) or word in ("", "NOT_MON")


class World:
    """What the objects of one file have in common, and the memory they share."""

    def __init__(self, chance):
        self.chance, self.memory = chance, bytearray(pow(48271, n + 1, 2 ** 31 - 1) >> 8 & 255 for n in range(ROOM))
        self.version, self.order = chance.choice(("1 61", "1 71")), chance.choice(("MSB_LAST", "MSB_FIRST"))
        self.deposit = chance.choice(("", "ABSOLUTE", "DIFFERENCE"))
        self.borders = {word: chance.choice((1, 2, size, 2 * size)) for word, size in set(BORDERS.values()) if chance.random() < 0.3}
        self.near = BASE if chance.random() < 0.5 else 0
        self.small, self.next, self.crowded = 16, 0x100, False
        self.blocks, self.things, self.axes, self.rescales, self.curves = [], [], [], [], []

    def text(self, frame):
        common = (f"BYTE_ORDER {self.order} " + (f"DEPOSIT {self.deposit} " if self.deposit else "")
                  + " ".join(f"ALIGNMENT_{word} {border}" for word, border in self.borders.items()))
        frame = frame.replace("BYTE_ORDER MSB_LAST /end MOD_COMMON", common + " /end MOD_COMMON").replace("1 71", self.version, 1)
        return frame.replace("SYSTEM_CONSTANT", f"ECU_CALIBRATION_OFFSET {self.near:#x} SYSTEM_CONSTANT" if self.near else "SYSTEM_CONSTANT")

    def take(self, size, aligned=False):
        """A free place for so many bytes, at any address, or at one where every type may lie."""
        begin = self.next + self.chance.randrange(9)
        begin += -begin % 16 if aligned else 0
        self.next = begin + size
        if self.next > ROOM:
            raise AssertionError("the memory is too small")
        return BASE + begin

    def target(self, pointer, size):
        self.small += size if pointer == "PBYTE" else 0
        return BASE + self.small - size if pointer == "PBYTE" else self.take(size)

    def pointer(self, size):
        """A kind of pointer that can lead to so many bytes; near ones only where the module says what they count from."""
        if self.crowded:
            return self.chance.choice(("PLONG", "PLONGLONG"))
        if self.near and size <= 24 and self.small + size < 0xB0 and self.chance.random() < 0.5:
            return "PBYTE"
        return self.chance.choice(("PWORD", "PLONG") if self.near and self.next + size < 0xF000 else ("PLONG", "PLONGLONG"))

    def pointer_value(self, kind, target):
        return target - self.near if kind in ("PBYTE", "PWORD") else target


class Axis:
    """One axis of a table, or the one of an AXIS_PTS object."""

    def __init__(self, world, kind, most):
        chance = world.chance
        self.kind, self.most, self.told, self.shared, self.stored, self.own_order = kind, most, most, None, kind in ("STD_AXIS", "AXIS_PTS"), ""
        self.method = chance.choice((*METHODS, "NO_COMPU_METHOD")) if kind != "CURVE_AXIS" else "NO_COMPU_METHOD"
        self.trend = chance.choice(("up", "up", "down", "any")) if self.stored else "up"
        self.monotony = chance.choice(MONOTONIES[self.trend]) if self.stored and METHODS[self.method] > 0 else ""
        self.deposit, self.count, self.form, self.numbers, self.options = "", "most", "", (), ""
        self.type = chance.choice(list(TYPES))
        if self.stored:
            self.deposit = chance.choice(("", "ABSOLUTE", "DIFFERENCE"))
            self.count = chance.choice(("memory", "memory", "fixed", "most"))
        if kind == "CURVE_AXIS":
            self.options = f"CURVE_AXIS_REF {chance.choice(world.curves).name}"
        elif kind in ("COM_AXIS", "RES_AXIS"):
            self.shared = chance.choice(world.axes if kind == "COM_AXIS" else world.rescales)
            self.options = f"AXIS_PTS_REF {self.shared.name}"
            if kind == "COM_AXIS":
                self.most, self.told = self.shared.axes[0].most, chance.choice((self.shared.axes[0].most, 77))
                self.type = self.shared.axes[0].type
        elif kind == "FIX_AXIS":
            self.fix(chance)
        if self.method != "NO_COMPU_METHOD" and TYPES[self.type][0] == 8:
            self.method = "NO_COMPU_METHOD"
        if kind == "RESCALE":
            self.type, self.method = chance.choice(("UBYTE", "UWORD", "SLONG")), "NO_COMPU_METHOD"
        self.difference = kind != "RESCALE" and (self.deposit or world.deposit) == "DIFFERENCE"
        if self.difference and TYPES[self.type][1] == "unsigned" and self.trend != "up":
            self.trend, self.monotony = "up", ""

    def fix(self, chance):
        offset, n = chance.randint(-20, 50), self.most
        forms = {"FIX_AXIS_PAR": (offset, chance.randint(0, 6), n), "FIX_AXIS_PAR_DIST": (offset, chance.choice((1, 10, 2.5, -4)), n),
                 "FIX_AXIS_PAR_LIST": tuple(offset + i * i + chance.choice((0, 0.5)) for i in range(n)), "SHIFT_OP": (), "DIST_OP": ()}
        self.form, self.numbers = chance.choice(list(forms.items()))
        words = f"{self.form} {' '.join(map(str, self.numbers))}" if self.numbers else ""
        self.options = f"/begin {words} /end {self.form}" if self.form.endswith("LIST") else words

    def text(self):
        limits = "-1e300 1e300" if self.kind != "CURVE_AXIS" else f"0 {self.most - 1}"
        own = f"BYTE_ORDER {self.own_order} " if self.own_order else ""
        return (f"/begin AXIS_DESCR {self.kind} NO_INPUT_QUANTITY {self.method} {self.told} {limits} {own}"
                + (f"DEPOSIT {self.deposit} " if self.deposit else "") + (f"MONOTONY {self.monotony} " if self.monotony else "")
                + f"{self.options} /end AXIS_DESCR ")

    def random_points(self, chance, count, field):
        """Logical points that the type can hold as they are stored."""
        low, high = field.bounds() if field.whole else (-400, 400)
        if self.difference:  # steps between negative points and positive ones; sums below 2^63
            low, high = (0, min(high, 2 ** 62)) if low == 0 else (low // 2, high // 2)
        if chance.random() < 0.5:
            low, high = max(low, -50), min(high, 50)
        points = [chance.randint(low, high) for _ in range(count)]
        if self.trend != "any":
            points = sorted(chance.sample(range(low, high + 1), count) if high < 1 << 60 else set(points))
            points += [points[-1] + i + 1 for i in range(count - len(points))]
        points = points[::-1] if self.trend == "down" else points
        return points if field.whole else [point / 4 for point in points]


class Shape:
    """A kind of object without a place: a CHARACTERISTIC, an AXIS_PTS or a MEASUREMENT, or the typedef of one."""

    def __init__(self, world, name, kind, axes=()):
        chance = self.chance = world.chance
        self.world, self.name, self.kind, self.axes = world, name, kind, list(axes)
        self.own_order = chance.choice(("", "", "MSB_LAST", "MSB_FIRST"))
        self.order = self.own_order or world.order
        self.type = "UBYTE" if kind == "ASCII" else chance.choice(list(TYPES))
        wide = TYPES[self.type][0] == 8
        self.method = "NO_COMPU_METHOD" if kind == "ASCII" else chance.choice(("NO_COMPU_METHOD", "turned") if wide else list(METHODS))
        self.limits = (-1e300, 1e300) if chance.random() < 0.8 or kind == "ASCII" else (-1000.0, 1000.0)
        whole = TYPES[self.type][1] not in "efd" and kind not in ("ASCII", "AXIS_PTS", "RESCALE")
        width = 8 * TYPES[self.type][0]
        self.mask = (((1 << chance.randint(1, width)) - 1) << chance.randrange(width) & ((1 << width) - 1)
                     if whole and chance.random() < 0.2 else 0)
        self.dims, self.encoding, self.unit, self.pointer, self.layout = (), "", 1, "DIRECT", None
        if kind in ("VAL_BLK", "MEASUREMENT"):
            self.dims = self.random_dims()
        if kind == "ASCII":
            self.encoding = chance.choice(("", "", *CODECS)) if world.version == "1 71" else ""
            self.unit = {"UTF16": 2, "UTF32": 4}.get(self.encoding, 1)
            self.dims = (chance.randint(1, 40),) if self.unit == 1 else (4 * chance.randint(2, 10),)
        self.mode = chance.choice(("ROW_DIR", "COLUMN_DIR"))
        for axis in self.axes:
            if axis.stored or axis.form.endswith("_OP"):
                axis.own_order = chance.choice(("MSB_LAST", "MSB_FIRST") if self.own_order else ("", "MSB_LAST", "MSB_FIRST"))
            axis.order = axis.own_order or world.order
            if kind in ("AXIS_PTS", "RESCALE"):
                axis.own_order, axis.order = self.own_order, self.order
        if kind == "MEASUREMENT":
            size = TYPES[self.type][0] * len(list(in_memory_order(self.dims, "ROW_DIR")))
            self.pointer = world.pointer(size) if world.version == "1 71" and chance.random() < 0.2 else "DIRECT"
            self.layout = Layout(f"FNC_VALUES 1 {self.type} {self.mode} {self.pointer}", world.borders)
        else:
            self.layout = self.random_layout()

    def random_dims(self):
        chance = self.chance
        if self.kind == "MEASUREMENT" and chance.random() < 0.3:
            return ()
        least = 2 if self.kind == "MEASUREMENT" else 1  # an array of one is a scalar
        if self.world.version == "1 61":
            return chance.choice(((chance.randint(2, 30),), (chance.randint(1, 6), chance.randint(2, 6)),
                                  (chance.randint(1, 4), chance.randint(1, 4), chance.randint(2, 4))))
        count = chance.randint(1, 5)
        return (chance.randint(least, 30 if count == 1 else 4), *(chance.randint(1, 4) for _ in range(count - 1)))

    def count_type(self, axis):
        whole = ("UBYTE", "UWORD", "ULONG", "SBYTE", "SWORD", "A_UINT64") if axis.order == self.order else ("UBYTE", "SBYTE")
        return self.chance.choice(whole)

    def random_layout(self):
        """The rows of the record in a random order; without a static layout a count comes before what it counts."""
        chance, rows, counts = self.chance, [], []
        static = chance.choice(("", "", "", "STATIC_RECORD_LAYOUT", "STATIC_ADDRESS_OFFSETS"))
        if self.kind == "RESCALE" or (static.endswith("OFFSETS") and self.world.version == "1 61"):
            static = ""
        mode, tail = self.values_row(rows)
        for name, axis in zip(AXES, self.axes):
            if self.kind == "RESCALE":
                counts.append((("NO_RESCALE_X", self.count_type(axis)), ("AXIS_RESCALE_X",)))
                rows.append(("AXIS_RESCALE_X", f"{axis.type} 9 INDEX_INCR DIRECT"))
                continue
            if axis.stored:
                own = axis.order == self.order and not mode.endswith(name) and chance.random() < 0.1
                pointer = self.world.pointer(8 * axis.most) if own else "DIRECT"
                rows.append((f"AXIS_PTS_{name}", f"{axis.type} {chance.choice(('INDEX_INCR', 'INDEX_INCR', 'INDEX_DECR'))} {pointer}"))
                tail += self.natural_border(pointer)
            if axis.form.endswith("_OP"):
                rows += [(f"OFFSET_{name}", self.count_type(axis)), (f"{axis.form}_{name}", self.count_type(axis))]
                axis.count = chance.choice(("memory", "fixed", "most"))
            if axis.kind == "CURVE_AXIS":
                axis.count = chance.choice(("memory", "fixed", "most"))
            if axis.count == "memory":
                counts.append(((f"NO_AXIS_PTS_{name}", self.count_type(axis)), (f"AXIS_PTS_{name}", "FNC_VALUES", f"AXIS_PTS_{mode[-1:]}")))
            elif axis.count == "fixed":
                axis.fixed = axis.most if static or self.kind == "AXIS_PTS" else chance.randint(1, axis.most)
                tail += f" FIX_NO_AXIS_PTS_{name} {axis.fixed}"
        rows += [(word, chance.choice(types)) for word, types in FILLERS if self.kind != "ASCII" and chance.random() < 0.1]
        chance.shuffle(rows)
        for row, counted in counts:
            first = min([at for at, (word, _) in enumerate(rows) if word in counted], default=len(rows))
            rows.insert(chance.randint(0, len(rows) if static else first), row)
        text, pos = "", 0
        for word, rest in rows:
            pos += chance.choice((1, 1, 1, 2, 5))
            text += f"{word} {pos} {rest} "
        for word, size in sorted(set(BORDERS.values())):
            if chance.random() < 0.08 and f"ALIGNMENT_{word}" not in tail:
                tail += f" ALIGNMENT_{word} {chance.choice((1, 2, size, 2 * size))}"
        return Layout(f"{text}{tail} {static}", self.world.borders)

    def values_row(self, rows):
        """Puts FNC_VALUES there; returns its index mode and the border of its pointer."""
        if self.kind in ("AXIS_PTS", "RESCALE"):
            return "", ""
        chance, modes = self.chance, ["ROW_DIR", "COLUMN_DIR"]
        if self.kind in ("CURVE", "MAP"):
            modes += [f"ALTERNATE_WITH_{name}" for name, axis in zip(AXES, self.axes) if axis.stored]
        self.mode = chance.choice(modes)
        direct = self.mode.startswith("ALTERNATE") or self.kind == "ASCII" or chance.random() < 0.85
        size = TYPES[self.type][0] * len(list(in_memory_order(self.dims or [axis.most for axis in self.axes], "ROW_DIR")))
        pointer = "DIRECT" if direct else self.world.pointer(size)
        rows.append(("FNC_VALUES", f"{self.type} {self.mode} {pointer}"))
        return self.mode, self.natural_border(pointer)

    @staticmethod
    def natural_border(pointer):
        """Pointers are aligned by their size, whatever else integers of that size are aligned by."""
        return "" if pointer == "DIRECT" else " ALIGNMENT_{} {}".format(*BORDERS[POINTERS[pointer]])

    def dimension_words(self):
        if not self.dims:
            return ""
        if len(self.dims) == 1 and self.chance.random() < 0.5:
            return f"{'ARRAY_SIZE' if self.kind == 'MEASUREMENT' else 'NUMBER'} {self.dims[0]} "
        unused = [self.chance.choice((0, 1))] * (3 - len(self.dims)) if self.world.version == "1 61" else []
        return f"MATRIX_DIM {' '.join(map(str, (*self.dims, *unused)))} "

    def text(self, address=None):
        """The block; without an address the typedef."""
        word = {"MEASUREMENT": "MEASUREMENT", "AXIS_PTS": "AXIS_PTS", "RESCALE": "AXIS_PTS"}.get(self.kind, "CHARACTERISTIC")
        place_word = "" if address is None else f"{address:#x} "
        options = (f"BYTE_ORDER {self.own_order} " if self.own_order else "") + (f"BIT_MASK {self.mask:#x} " if self.mask else "")
        options += f"ENCODING {self.encoding} " if self.encoding else ""
        limits = "{:g} {:g}".format(*self.limits)
        layout = f"/begin RECORD_LAYOUT L_{self.name} {self.layout.text} /end RECORD_LAYOUT\n"
        if word == "MEASUREMENT":
            layout = ""
            body = (f"{self.type} {self.method} 0 0 {limits} {f'ECU_ADDRESS {place_word}' if place_word else ''}{options}READ_WRITE "
                    + self.dimension_words() + (f"LAYOUT {self.mode} " if self.mode == "COLUMN_DIR" else "")
                    + (f"ADDRESS_TYPE {self.pointer} " if self.pointer != "DIRECT" else ""))
        elif word == "AXIS_PTS":
            axis, deposit = self.axes[0], "ABSOLUTE" if self.kind == "RESCALE" else self.axes[0].deposit
            body = (f"{place_word}NO_INPUT_QUANTITY L_{self.name} 0 {axis.method} {axis.most} -1e300 1e300 {options}"
                    + (f"DEPOSIT {deposit} " if deposit else "") + (f"MONOTONY {axis.monotony} " if axis.monotony else ""))
        else:
            body = (f"{self.kind} {place_word}L_{self.name} 0 {self.method} {limits} {options}{self.dimension_words()}"
                    + "".join(axis.text() for axis in self.axes))
        if address is None:
            word = "TYPEDEF_AXIS" if word == "AXIS_PTS" else f"TYPEDEF_{word}"
        return f'{layout}/begin {word} {self.name} "" {body} /end {word}\n'


class Thing:
    """A shape at an address, with data: what it must show and what memory must hold."""

    def __init__(self, world, shape, name, address=None, shared=None):
        self.world, self.shape, self.name, self.chance = world, shape, name, world.chance
        self.axes, self.typed = shape.axes, 0
        self.shared = [axis.shared for axis in self.axes] if shared is None else shared
        self.used, self.most = self.counts()
        self.numbers, self.points, self.pairs = {}, {}, []
        falling = shape.layout.falling() | {name for name, other in zip(AXES, self.shared)
                                            if other and other.shape.layout.falling()}
        targets = {row.keyword: world.target(row.address, self.content(row)) for row in shape.layout.rows if row.address != "DIRECT"}
        self.address = world.take(self.room(shape), shape.mode.startswith("ALTERNATE")) if address is None else address
        self.places, end = place(shape.layout, self.address, self.used, self.most, falling, targets)
        assert end <= self.address + self.room(shape)
        self.fill(targets)
        self.write()

    @staticmethod
    def room(shape):
        """Enough for the record wherever it begins."""
        most = shape.dims or tuple(axis.most for axis in shape.axes)
        none = {row.keyword: 0 for row in shape.layout.rows}
        return place(shape.layout, 0, most, most, (), none)[1] + 40

    def content(self, row):
        count = self.most[AXES.index(row.keyword[-1])] if row.keyword.startswith("AXIS_") else len(list(in_memory_order(self.most, "ROW_DIR")))
        return TYPES[row.type][0] * count

    def counts(self):
        used, most = [], []
        for axis, shared in zip(self.axes, self.shared):
            most.append(axis.most)
            if axis.kind == "COM_AXIS":
                used.append(shared.used[0])
            else:
                used.append({"memory": self.chance.randint(1, axis.most)}.get(axis.count, getattr(axis, "fixed", axis.most)))
        if self.shape.kind == "RESCALE":
            used = [self.chance.randint(2, 9)]
        return (tuple(used), tuple(most)) if self.axes else (self.shape.dims, self.shape.dims)

    def field(self, what, type_name):
        shape = self.shape
        if what == "W":
            return Field(type_name, shape.order, shape.mask)
        axis = self.axes[AXES.index(what[-1])] if what[-1] in AXES[:len(self.axes)] and what != "pointer" else None
        return Field(type_name, axis.order if axis else shape.order)

    def fill(self, targets):
        """Random data: `numbers` are raw values by place, `points` the logical points by axis."""
        chance, shape = self.chance, self.shape
        for (what, index), (_, type_name) in self.places.items():
            if what == "W":
                self.numbers[index] = self.random_raw(self.field(what, type_name))
            elif what == "pointer":
                row = shape.layout.row(index)
                self.numbers[what, index] = self.world.pointer_value(row.address, targets[index])
            elif what.startswith(("NO_AXIS", "NO_RESCALE")):
                self.numbers[what, index] = self.used[AXES.index(what[-1])]
            elif what.startswith("OFFSET_"):
                self.numbers[what, index] = chance.randint(0, 100)
            elif what.startswith(("SHIFT_OP_", "DIST_OP_")):
                self.numbers[what, index] = chance.randint(0 if what[0] == "S" else 1, 6)
        for name, axis, count, shared in zip(AXES, self.axes, self.used, self.shared):
            memory = {k[0]: n for k, n in self.numbers.items() if k and isinstance(k[0], str)}
            if axis.kind == "RESCALE":
                indices = sorted(chance.sample(range(1, 120), count - 1))
                self.pairs = list(zip(sorted(chance.sample(range(120), count)), [0, *indices]))
                self.points[name] = []
            elif axis.stored:
                self.points[name] = axis.random_points(chance, count, self.field(name, axis.type))
            elif axis.kind == "RES_AXIS":
                self.points[name] = rescaled(shared.pairs, count)
            elif axis.kind == "CURVE_AXIS":
                self.points[name] = list(range(count))
            elif axis.form.endswith("_OP"):
                numbers = memory["OFFSET_" + name], memory[f"{axis.form}_{name}"], count
                self.points[name] = fixed_points({"SHIFT_OP": "FIX_AXIS_PAR", "DIST_OP": "FIX_AXIS_PAR_DIST"}[axis.form], numbers)
            elif axis.kind == "FIX_AXIS":
                self.points[name] = fixed_points(axis.form, axis.numbers)[:count]
        if shape.kind == "ASCII":
            while not self.put_text(self.random_text(), chance.random() < 0.5):
                pass

    def random_raw(self, field):
        chance = self.chance
        if not field.whole:
            return chance.randint(-2000, 2000) / 4
        low, high = field.bounds()
        return chance.choice((low, high, 0, chance.randint(low, high), chance.randint(max(low, -99), min(high, 99))))

    def random_text(self):
        letters = "abcXYZ0189_-" + "\u00e9\u03a9\u6f22" * bool(self.shape.encoding)
        return "".join(self.chance.choice(letters) for _ in range(self.chance.randint(0, self.shape.dims[0] // self.shape.unit + 2)))

    def put_text(self, text, clean=True):
        """The characters, a zero if there is room, and zeros or what was there behind it; tells whether they fit."""
        shape, size = self.shape, self.shape.dims[0]
        data = text.encode(CODECS[shape.encoding][shape.order == "MSB_FIRST"] if shape.encoding else "latin-1")
        if len(data) > size:
            return False
        self.text = text
        data = (data + bytes(shape.unit))[:size]
        self.numbers |= {(i,): byte for i, byte in enumerate(data.ljust(size, b"\0") if clean else data)}
        return True

    def write(self):
        """Puts everything into memory as it must be there."""
        for (what, index), (at, type_name) in self.places.items():
            if what in AXES:
                axis, points = self.axes[AXES.index(what)], self.points[what]
                number = (differences(points) if axis.difference else points)[index[0]]
            elif what == "pairs":
                number = self.pairs[index[0] // 2][index[0] % 2]
            else:
                number = self.numbers.get(index if what == "W" else (what, index))
            if number is not None:
                field, begin = self.field(what, type_name), at - BASE
                place_in = slice(begin, begin + field.size)
                self.world.memory[place_in] = field.encoded(field.wrapped(number), self.world.memory[place_in])

    def points_of(self, name):
        """Those of the axis, own or shared."""
        shared = self.shared[AXES.index(name)]
        return shared.points["X"] if shared and name not in self.points else self.points[name]
