"""From a typed value to the bytes in the ECU, computed without the tool: inverse, rounding, field, byte order."""
import math
import struct

from recording import ORDERS, TYPES, Formula


def to_raw(conversion, value):
    """The raw value of a physical one, before it is rounded to its type."""
    if conversion.kind == "linear":
        a, b = conversion.numbers
        return (value - b) / a
    if conversion.kind == "ratFunc":
        a, b, c, d, e, f = conversion.numbers
        return (a * value * value + b * value + c) / (d * value * value + e * value + f)
    if conversion.kind == "table":
        return between_outputs(conversion.pairs, value) if conversion.interpolate else next(
            raw for raw, output in conversion.pairs if output == value)
    return Formula(conversion.meta["formulaInv"])(value) if conversion.kind == "formula" else value


def between_outputs(pairs, value):
    pairs = sorted(pairs, key=lambda pair: pair[1])
    if not pairs[0][1] <= value <= pairs[-1][1]:
        raise ValueError(f"{value} is outside the table")
    if value in (pairs[0][1], pairs[-1][1]):
        return pairs[0][0] if value == pairs[0][1] else pairs[-1][0]
    i = next(i for i, pair in enumerate(pairs) if not pair[1] < value)
    (low, low_out), (high, high_out) = pairs[i - 1], pairs[i]
    return low if low_out == high_out else low + (high - low) * (value - low_out) / (high_out - low_out)


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

    def stored(self, raw):
        """The raw value as the field holds it and it will be read again; integers round half away from zero."""
        if not self.whole:
            # A half is made of the single that is next to the double.
            narrowed = struct.unpack("f", struct.pack("f", raw))[0] if self.coding != "d" else raw
            return struct.unpack(self.coding, struct.pack(self.coding, narrowed))[0]
        rounded = math.floor(abs(raw))
        rounded = int(math.copysign(rounded + (abs(raw) - rounded >= 0.5), raw))
        low, high = self.bounds()
        if not low <= rounded <= high:
            raise ValueError(f"{rounded} does not fit into {self.type} {self.mask:#x}")
        field = rounded & ((1 << self.width) - 1)
        if self.mask:
            field &= self.mask >> self.shift
        return field - (1 << self.width) if self.coding == "signed" and field >> (self.width - 1) else field

    def encoded(self, stored, before):
        """The bytes of memory that held `before`, once they hold the value."""
        order, prefix = ORDERS[self.order]
        if not self.whole:
            return struct.pack(prefix + self.coding, stored)
        mask = self.mask or (1 << (8 * self.size)) - 1
        old = int.from_bytes(before, order)
        return ((old & ~mask) | ((stored << self.shift) & mask)).to_bytes(self.size, order)
