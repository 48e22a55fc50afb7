"""A reader of recordings, written from docs/recording-format.md and nothing else.

It is slow and plain on purpose: every rule of that page stands here once, so that a fault of the tool's own writer
cannot hide in code that both share.
"""
import json
import math
import re
import struct
from pathlib import Path

TYPES = {"UBYTE": (1, "unsigned"), "UWORD": (2, "unsigned"), "ULONG": (4, "unsigned"), "A_UINT64": (8, "unsigned"),
         "SBYTE": (1, "signed"), "SWORD": (2, "signed"), "SLONG": (4, "signed"), "A_INT64": (8, "signed"),
         "FLOAT16_IEEE": (2, "e"), "FLOAT32_IEEE": (4, "f"), "FLOAT64_IEEE": (8, "d")}
ORDERS = {"MSB_LAST": ("little", "<"), "MSB_FIRST": ("big", ">")}


def real(value):
    """A number of kind real: a JSON number or one of three words."""
    if isinstance(value, str):
        if value not in ("nan", "inf", "-inf"):
            raise ValueError(f"no real: {value!r}")
        return float(value)
    return float(value)


def divide(a, b):
    """IEEE 754 division."""
    if b != 0:
        return a / b
    if a == 0 or math.isnan(a):
        return math.nan
    return math.copysign(math.inf, a) * math.copysign(1.0, b)


class Formula:
    """The formula language of the recordings."""

    TOKEN = re.compile(r"0[xX][0-9a-fA-F]+|(?:\d+\.?\d*|\.\d+)(?:[eE][+-]?\d+)?|[A-Za-z_]\w*"
                       r"|\|\||&&|==|!=|<=|>=|<<|>>|[-+*/%&|^<>!~(),]")
    LEVELS = (("||",), ("&&",), ("|",), ("^",), ("&",), ("==", "!="), ("<", "<=", ">", ">="), ("<<", ">>"),
              ("+", "-"), ("*", "/", "%"))
    FUNCTIONS = {name: getattr(math, name) for name in
                 ("sin", "cos", "tan", "asin", "acos", "atan", "sinh", "cosh", "tanh", "exp", "log10", "sqrt", "pow")}
    FUNCTIONS.update(log=math.log, abs=abs)

    def __init__(self, text):
        squeezed = "".join(text.split())
        self.tokens = self.TOKEN.findall(squeezed)
        if "".join(self.tokens) != squeezed:
            raise ValueError(f"no formula: {text!r}")

    def __call__(self, x):
        self.x = x
        self.at = 0
        value = self.level(0)
        if self.at != len(self.tokens):
            raise ValueError(f"left over: {self.tokens[self.at:]}")
        return value

    def take(self):
        self.at += 1
        return self.tokens[self.at - 1]

    def level(self, depth):
        if depth == len(self.LEVELS):
            return self.primary()
        value = self.level(depth + 1)
        while self.at < len(self.tokens) and self.tokens[self.at] in self.LEVELS[depth]:
            value = self.binary(self.take(), value, self.level(depth + 1))
        return value

    @staticmethod
    def binary(operator, a, b):
        def wrapped(number):
            return float((number + (1 << 63)) % (1 << 64) - (1 << 63))
        return float({
            "||": lambda: a != 0 or b != 0, "&&": lambda: a != 0 and b != 0, "==": lambda: a == b, "!=": lambda: a != b,
            "<": lambda: a < b, "<=": lambda: a <= b, ">": lambda: a > b, ">=": lambda: a >= b,
            "|": lambda: int(a) | int(b), "^": lambda: int(a) ^ int(b), "&": lambda: int(a) & int(b),
            "<<": lambda: wrapped(int(a) << (int(b) % 64)), ">>": lambda: int(a) >> (int(b) % 64),
            "+": lambda: a + b, "-": lambda: a - b, "*": lambda: a * b, "/": lambda: divide(a, b),
            "%": lambda: math.fmod(a, b) if b != 0 else math.nan}[operator]())

    def primary(self):
        token = self.take()
        if token == "(":
            value = self.level(0)
            self.expect(")")
            return value
        if token in "-!~":
            value = self.primary()
            return {"-": lambda: -value, "!": lambda: float(value == 0), "~": lambda: float(~int(value))}[token]()
        if token in self.FUNCTIONS:
            return self.call(self.FUNCTIONS[token])
        if re.fullmatch(r"[xX][1-9]?", token):
            return self.x if token in ("X", "x", "X1", "x1") else 0.0
        return float(int(token, 16)) if token[:2].lower() == "0x" else float(token)

    def call(self, function):
        self.expect("(")
        arguments = [self.level(0)]
        while self.tokens[self.at] == ",":
            self.take()
            arguments.append(self.level(0))
        self.expect(")")
        try:
            return function(*arguments)
        except OverflowError:
            return math.inf
        except ValueError:
            return -math.inf if function in (math.log, math.log10) and arguments[0] == 0 else math.nan

    def expect(self, mark):
        if self.take() != mark:
            raise ValueError(f"{mark} expected in {self.tokens}")


class Conversion:
    """From raw to physical value."""

    KINDS = ("identical", "linear", "ratFunc", "table", "verbal", "formula")

    def __init__(self, meta):
        self.kind = meta["type"]
        if self.kind not in self.KINDS:
            raise ValueError(f"unknown conversion {self.kind}")
        self.unit = meta.get("unit", "")
        self.format = meta.get("format", "")
        self.meta = meta
        self.numbers = [real(v) for v in meta.get(self.kind, [])] if self.kind in ("linear", "ratFunc") else []
        if self.kind == "table":
            self.pairs = [(real(a), real(b)) for a, b in meta["table"]]
            self.interpolate = meta["interpolate"]
            self.default = real(meta["defaultNumeric"]) if "defaultNumeric" in meta else None
        if self.kind == "verbal":
            self.ranges = [(real(r["min"]), real(r["max"]), r["text"]) for r in meta["verbal"]]
        if self.kind == "formula":
            self.formula = Formula(meta["formula"])

    def physical(self, raw):
        x = float(raw)
        if self.kind == "linear":
            return self.numbers[0] * x + self.numbers[1]
        if self.kind == "ratFunc":
            return self.rational(x)
        if self.kind == "table":
            return self.interpolated(x) if self.interpolate else self.looked_up(x)
        if self.kind == "formula":
            return self.formula(x)
        return x

    def rational(self, x):
        a, b, c, d, e, f = self.numbers
        first, second, third = a - x * d, b - x * e, c - x * f
        if abs(first) < 1e-15:
            return math.nan if second == 0 else -third / second + 0.0
        root = second * second - 4 * first * third
        return math.nan if root < 0 else (math.sqrt(root) - second) / (2 * first) + 0.0

    def looked_up(self, x):
        for value, output in self.pairs:
            if value == x:
                return output
        return self.default if self.default is not None else min(self.pairs, key=lambda pair: abs(pair[0] - x))[1]

    def interpolated(self, x):
        pairs = self.pairs
        if x <= pairs[0][0]:
            return pairs[0][1]
        if x >= pairs[-1][0]:
            return pairs[-1][1]
        i = next(i for i, pair in enumerate(pairs) if not pair[0] < x)
        (low, low_out), (high, high_out) = pairs[i - 1], pairs[i]
        return low_out if low == high else low_out + (high_out - low_out) * (x - low) / (high - low)

    def text(self, raw):
        """The verbal text, None when there is none."""
        if self.kind != "verbal":
            return None
        return next((t for low, high, t in self.ranges if low <= raw <= high), self.meta.get("defaultText"))


class Signal:
    def __init__(self, meta):
        self.meta = meta
        self.name = meta["name"]
        self.size, self.coding = TYPES[meta["type"]]
        self.order, self.prefix = ORDERS[meta["byteOrder"]]
        self.offset = meta["recordOffset"]
        self.mask = meta["bitMask"] & ((1 << (8 * self.size)) - 1)
        self.conversion = Conversion(meta["conversion"])

    def raw(self, record):
        """The raw value as it is, an integer of any size or a float."""
        data = record[self.offset:self.offset + self.size]
        if len(data) != self.size:
            raise ValueError(f"{self.name} lies outside the record")
        if self.coding in "efd":
            return struct.unpack(self.prefix + self.coding, data)[0]
        value, width = int.from_bytes(data, self.order), 8 * self.size
        if self.meta["bitMask"] != 0:
            shift = (self.mask & -self.mask).bit_length() - 1
            value, width = (value & self.mask) >> shift, (self.mask >> shift).bit_length()
        if self.coding == "signed" and value >> (width - 1):
            value -= 1 << width
        return value


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

    def signal(self, name):
        return next(s for s in self.signals if s.name == name)


class Recording:
    def __init__(self, directory):
        directory = Path(directory)
        self.meta = json.loads((directory / "meta.json").read_text(encoding="utf-8"))
        if self.meta["formatVersion"] != 2:
            raise ValueError(f"format version {self.meta['formatVersion']}")
        self.groups = [Group(directory, number, meta) for number, meta in enumerate(self.meta["groups"])]


def rounded_down(value):
    """The largest float that is not above a double."""
    if math.isnan(value) or math.isinf(value):
        return value
    try:
        near = struct.unpack("<f", struct.pack("<f", value))[0]
    except OverflowError:
        near = math.copysign(math.inf, value)
    if near <= value:
        return near
    bits = struct.unpack("<i", struct.pack("<f", near))[0]
    below = 0x80000001 if near == 0 else bits + 1 if near < 0 else bits - 1
    return struct.unpack("<f", struct.pack("<I", below & 0xFFFFFFFF))[0]


def rounded_up(value):
    return -rounded_down(-value)
