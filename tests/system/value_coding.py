"""Between bytes, raw and physical values, computed without the tool."""
import math
import struct
from fractions import Fraction

TYPES = {"UBYTE": (1, "unsigned"), "UWORD": (2, "unsigned"), "ULONG": (4, "unsigned"), "A_UINT64": (8, "unsigned"),
         "SBYTE": (1, "signed"), "SWORD": (2, "signed"), "SLONG": (4, "signed"), "A_INT64": (8, "signed"),
         "FLOAT16_IEEE": (2, "e"), "FLOAT32_IEEE": (4, "f"), "FLOAT64_IEEE": (8, "d")}
ORDERS = {"MSB_LAST": ("little", "<"), "MSB_FIRST": ("big", ">")}


class Field:
    """A data type with its byte order and mask."""

    def __init__(self, type_name, order, mask=0):
        self.type, self.order, self.mask = type_name, order, mask
        self.size, self.coding = TYPES[type_name]
        self.whole = self.coding not in "efd"
        self.shift = (mask & -mask).bit_length() - 1 if mask else 0
        self.width = (mask >> self.shift).bit_length() if mask else 8 * self.size

    def bounds(self):
        """The least and the greatest integer of the field."""
        return ((0, (1 << self.width) - 1) if self.coding == "unsigned"
                else (-(1 << (self.width - 1)), (1 << (self.width - 1)) - 1))

    def wrapped(self, value):
        """A number as the field holds it and it will be read again, cut off to its bits."""
        if not self.whole:
            return struct.unpack(self.coding, struct.pack(self.coding, value))[0]
        value &= self.mask >> self.shift if self.mask else (1 << self.width) - 1
        return value - (1 << self.width) if self.coding == "signed" and value >> (self.width - 1) else value

    @staticmethod
    def rounded(raw):
        """To the nearest integer, halves away from zero."""
        whole = math.floor(abs(raw))
        whole += abs(raw) - whole >= 0.5
        return whole if raw >= 0 else -whole

    def stored(self, raw):
        """The same of a typed number: integers are rounded, and what the type cannot hold is no value."""
        if not self.whole:
            # A half is made of the single that is next to the double; without a prefix the codes overflow to infinity.
            value = self.wrapped(struct.unpack("f", struct.pack("f", raw))[0] if self.coding == "e" else raw)
            if not math.isfinite(value):
                raise ValueError(f"{raw} does not fit into {self.type}")
            return value
        rounded = self.rounded(raw)
        low, high = self.bounds()
        if not low <= rounded <= high:
            raise ValueError(f"{rounded} does not fit into {self.type} {self.mask:#x}")
        return self.wrapped(rounded)

    def encoded(self, stored, before):
        """The bytes of memory that held `before`, once they hold the value."""
        order, prefix = ORDERS[self.order]
        if not self.whole:
            return struct.pack(prefix + self.coding, stored)
        mask = self.mask or (1 << (8 * self.size)) - 1
        old = int.from_bytes(before, order)
        return ((old & ~mask) | ((stored << self.shift) & mask)).to_bytes(self.size, order)

    def decoded(self, data):
        order, prefix = ORDERS[self.order]
        if not self.whole:
            return struct.unpack(prefix + self.coding, data)[0]
        return self.wrapped(int.from_bytes(data, order) >> self.shift)


def between(pairs, x):
    """Linear interpolation in pairs in ascending order."""
    i = next(i for i, pair in enumerate(pairs) if not pair[0] < x)
    (low, low_out), (high, high_out) = pairs[i - 1], pairs[i]
    return low_out if low == high else low_out + (high_out - low_out) * (x - low) / (high - low)


class Conversion:
    """Between raw and physical value, by the words of a recording's meta.json."""

    def __init__(self, meta):
        self.meta = meta
        self.kind = meta["type"]
        self.unit = meta.get("unit", "")
        self.format = meta.get("format", "")
        self.ranges = [(float(r["min"]), float(r["max"]), r["text"]) for r in meta.get("verbal", [])]
        self.pairs = [(float(a), float(b)) for a, b in meta.get("table", [])]

    def line(self):
        """Factor and offset where integers are converted without rounding; None where they are not."""
        a, b, c, d, e, f = self.meta["ratFunc"] if self.kind == "ratFunc" else (0, 1, 0, 0, 0, 1)
        if self.kind == "linear":
            f, c = self.meta["linear"][0], -self.meta["linear"][1]
        if self.kind in ("table", "formula") or a or d or e or not b or not f:
            return None
        factor, offset = Fraction(f) / Fraction(b), -Fraction(c) / Fraction(b)
        top, below = abs(factor.numerator), factor.denominator
        exact = below == 1 or (top == 1 and below & (below - 1) == 0)
        return (factor, offset) if exact and (offset * below).denominator == 1 and top < 1 << 56 else None

    def calculated(self, key, x):
        """The formulas of the tests are Python too."""
        return float(eval(self.meta[key], dict(vars(math), X1=x)))  # pylint: disable=eval-used

    def physical(self, raw):
        """One method for each type that a recording may name."""
        return getattr(self, self.kind)(float(raw))

    def identical(self, x):
        return x

    verbal = identical

    def linear(self, x):
        return self.meta["linear"][0] * x + self.meta["linear"][1]

    def ratFunc(self, x):
        a, b, c, d, e, f = self.meta["ratFunc"]
        first, second, third = a - x * d, b - x * e, c - x * f
        if abs(first) < 1e-15:
            return math.nan if second == 0 else -third / second + 0.0
        root = second * second - 4 * first * third
        return math.nan if root < 0 else (math.sqrt(root) - second) / (2 * first) + 0.0

    def table(self, x):
        if math.isnan(x):
            return x if self.meta["interpolate"] else self.meta.get("defaultNumeric", x)
        if not self.meta["interpolate"]:
            nearest = min(self.pairs, key=lambda pair: abs(pair[0] - x))
            return nearest[1] if nearest[0] == x else self.meta.get("defaultNumeric", nearest[1])
        (least, first), (greatest, last) = self.pairs[0], self.pairs[-1]
        return first if x <= least else last if x >= greatest else between(self.pairs, x)

    def formula(self, x):
        return self.calculated("formula", x)

    def to_raw(self, value):
        """The raw value of a physical one, before it is rounded to its type."""
        if self.kind == "linear":
            return (value - self.meta["linear"][1]) / self.meta["linear"][0]
        if self.kind == "ratFunc":
            a, b, c, d, e, f = self.meta["ratFunc"]
            return (a * value * value + b * value + c) / (d * value * value + e * value + f)
        if self.kind == "formula":
            return self.calculated("formulaInv", value)
        if self.kind != "table":
            return value
        turned = [(output, raw) for raw, output in self.pairs]
        if not self.meta["interpolate"]:
            return next(raw for output, raw in turned if output == value)
        turned.sort(key=lambda pair: pair[0])
        if not turned[0][0] <= value <= turned[-1][0]:
            raise ValueError(f"{value} is outside the table")
        ends = {turned[-1][0]: turned[-1][1], turned[0][0]: turned[0][1]}
        return ends[value] if value in ends else between(turned, value)

    def text(self, raw):
        """The verbal text, None when there is none."""
        if self.kind != "verbal":
            return None
        return next((t for low, high, t in self.ranges if low <= raw <= high), self.meta.get("defaultText"))
