"""`set` and `get`: texts, limits and errors, and the bytes in the ECU's memory."""
import itertools
import random
import unittest

from a2l_text import A2l, characteristic, display_text, module, record_layouts
from ecu_model import Memory
from harness import SystemTest, value_line
from value_coding import TYPES, Conversion, Field

# The part of the parameters' memory that generated descriptions use.
BASE, ROOM = 0x10000, 0x90

METHODS = """
/begin COMPU_METHOD IDENT "" IDENTICAL "%8.3" ""
/end COMPU_METHOD
/begin COMPU_METHOD LIN "" LINEAR "%6.1" "deg" COEFFS_LINEAR 0.5 -10
/end COMPU_METHOD
/begin COMPU_METHOD LIN_FALLING "" LINEAR "%12.6" "" COEFFS_LINEAR -0.1 20
/end COMPU_METHOD
/begin COMPU_METHOD RAT "" RAT_FUNC "%9.4" "" COEFFS 0 4 -3 0 0 2
/end COMPU_METHOD
/begin COMPU_METHOD RAT_BELOW "" RAT_FUNC "%8.3" "" COEFFS 0 200 0 0 1 100
/end COMPU_METHOD
/begin COMPU_METHOD RAT_SQUARE "" RAT_FUNC "%8.20" "" COEFFS 1 0 0 0 0 16
/end COMPU_METHOD
/begin COMPU_METHOD INTP "" TAB_INTP "%5.2" "" COMPU_TAB_REF T_INTP
/end COMPU_METHOD
/begin COMPU_METHOD NOINTP "" TAB_NOINTP "%5.2" "" COMPU_TAB_REF T_NOINTP
/end COMPU_METHOD
/begin COMPU_METHOD VERB "" TAB_VERB "%4.0" "" COMPU_TAB_REF V_VERB
/end COMPU_METHOD
/begin COMPU_METHOD RANGE "" TAB_VERB "%4.0" "" COMPU_TAB_REF R_RANGE
/end COMPU_METHOD
/begin COMPU_METHOD FORMULA_PAIR "" FORM "" "V" /begin FORMULA "sysc(K) * X1 + 1"
FORMULA_INV "(X1 - 1) / $(K)" /end FORMULA /end COMPU_METHOD
/begin COMPU_TAB T_INTP "" TAB_INTP 5  20 7  -2 500  1 60.5  -100 1000  5 20 /end COMPU_TAB
/begin COMPU_TAB T_NOINTP "" TAB_NOINTP 5  0 3.5  1 2.125  3 -1  -1 99  100 0.75
DEFAULT_VALUE_NUMERIC 0.5 /end COMPU_TAB
/begin COMPU_VTAB V_VERB "" TAB_VERB 4  0 "off"  1 "on"  3 "three and more"  -1 "minus" /end COMPU_VTAB
/begin COMPU_VTAB_RANGE R_RANGE "" 3  0 0 "zero"  1 7 "small"  -8 -1 "negative" DEFAULT_VALUE "other"
/end COMPU_VTAB_RANGE
"""
CONVERSIONS = ("NO_COMPU_METHOD", "IDENT", "LIN", "LIN_FALLING", "RAT", "RAT_BELOW", "RAT_SQUARE", "INTP", "NOINTP",
               "VERB", "RANGE", "FORMULA_PAIR")
RAW_FLOATS = (-60000.0, -2.25, -1.0, 0.0, 1.0, 0.1, 3.0, 5.5e-7, 1 / 3, 100.0, 65504.0)
RAW_WIDE = {"FLOAT16_IEEE": (), "FLOAT32_IEEE": (3.4e38, -1.5e-45), "FLOAT64_IEEE": (1e299, -1e299, 5e-324)}

# Assignments that must fail: what is typed, the error behind the name.
REFUSED = (
    ("cal_limited=-100.001", "cal_limited: -100.001 outside the limits [-100, 100]"),
    ("cal_limited=nan", "cal_limited: nan outside the limits [-100, 100]"),
    ("cal_float64_lsb=-inf", "cal_float64_lsb: value is not finite"),
    ("cal_limited=1,5", "cal_limited: '1,5' is not a number"),
    ("cal_limited=", "cal_limited: '' is not a number"),
    ("cal_limited==5", "cal_limited: '=5' is not a number"),
    ("cal_mode_signed=8", "cal_mode_signed: 8 outside the limits [-8, 7]"),
    ("cal_injector=On", "cal_injector: 'On' is not a valid value"),
    ("cal_root=2", "cal_root: FORM conversion without FORMULA_INV cannot be inverted"),
    ("cal_int64_msb=9007199254740993", "cal_int64_msb: '9007199254740993' cannot be held exactly as a 64-bit float"),
    ("cal_read_only=1", "cal_read_only is not writable"),
    ("cal_protected=1", "DOWNLOAD: ERR_WRITE_PROTECTED (0x23)"),
    ("cal_stubborn=1", "cal_stubborn: read back value differs from the written value"),
    ("odometer=1", "odometer is a measurement without READ_WRITE"),
    ("nothing=1", "'nothing' is neither a MEASUREMENT nor a CHARACTERISTIC"),
)
REFUSED_WITH_M = (
    ("cylinder_pressure=1", "cylinder_pressure: arrays are not supported yet"),
    ("bad_address=1", "SHORT_UPLOAD: ERR_OUT_OF_RANGE (0x22)"),
    ("program_id=1", "DOWNLOAD: ERR_WRITE_PROTECTED (0x23)"),
)
# Of those, the ones that were sent to the ECU, and what it holds afterwards.
SENT = {"cal_protected": "815.000", "cal_stubborn": "4711.000", "program_id": "541463041"}
# Assignments that succeed: what is typed, the text read back, address and bytes in memory.
WRITTEN = (
    ("cal_limited=100.00000005", "100.000", 0x1008C, "6400"),
    ("cal_limited=-0x10", "-16.000", 0x1008C, "f0ff"),
    ("cal_limited=-2.5", "-3.000", 0x1008C, "fdff"),
    ("cal_limited=+2.4999", "2.000", 0x1008C, "0200"),
    ("cal_temp_class=111", "overheated", 0x10081, "6f"),
)


def masks(type_name):
    """No mask; low bits, bits in the middle, the top bit, a mask with a hole, all bits."""
    size, coding = TYPES[type_name]
    if coding in "efd":
        return (0,)
    bits = 8 * size
    middle = ((1 << (bits // 2)) - 1) << (bits // 4)
    return (0, 0b111, middle, 1 << (bits - 1), middle ^ (2 << (bits // 4)), (1 << bits) - 1)


def raw_candidates(field):
    """Raw values worth trying, in ascending order; all are doubles."""
    if not field.whole:
        return sorted(RAW_FLOATS + RAW_WIDE[field.type])
    low, high = field.bounds()
    wide = {low, low + 1, -9, -2, -1, 0, 1, 2, 3, 4, 19, 100, 0x5A5A5A5A5A5A, high - 2047, high - 1023, high - 1, high}
    return sorted(v for v in wide if low <= v <= high and int(float(v)) == v)


class Object:
    """One generated parameter with what may be typed for it."""

    def __init__(self, number, a2l, field, method):
        self.field, self.method = field, method
        self.name = f"c{number}.{field.type}.{method}"
        self.conversion = Conversion(a2l.conversion(method))
        self.typed = list(self.inputs())

    def inputs(self):
        """Pairs of a text to type and the raw value that the field then holds."""
        texts = [(text, low) for low, _, text in self.conversion.ranges] if self.conversion.kind == "verbal" else []
        values = [self.conversion.physical(raw) for raw in raw_candidates(self.field)]
        for text, value in texts + [(self.spelled(i, v), v) for i, v in enumerate(values) if v == v]:
            try:
                yield text, self.field.stored(self.conversion.to_raw(value))
            except (StopIteration, ValueError, OverflowError, ZeroDivisionError):
                continue  # Not in the table, or not in the field.

    @staticmethod
    def spelled(number, value):
        """Some whole numbers in decimal or hexadecimal digits, all others as floating-point numbers."""
        if value == int(value) and abs(value) < 2 ** 63 and number % 3:
            return str(int(value)) if value < 0 or number % 3 == 1 else hex(int(value))
        return repr(value)


class ValuesTest(SystemTest):
    def start_with_memory(self):
        """A simulated ECU with a memory image, which its first write makes."""
        image = self.dir / "memory"
        sim = self.start_sim("--memory-file", image)
        sim.image = image
        self.assertEqual(self.run_cli(sim, "set", "cal_limited=-7").returncode, 0)
        return sim

    @staticmethod
    def matrix():
        """Every type, byte order, mask and conversion, shuffled so that neighbours differ."""
        a2l = A2l(module(METHODS, 0.25))
        fields = [Field(t, order, mask) for t in TYPES for order in ("MSB_LAST", "MSB_FIRST") for mask in masks(t)]
        objects = [Object(i, a2l, field, method)
                   for i, (field, method) in enumerate(itertools.product(fields, CONVERSIONS))]
        random.Random(4711).shuffle(objects)
        return objects

    def placed(self, objects):
        """Gives the objects addresses; returns batches that do not overlap in memory, and the description of all."""
        batches, at, text = [[]], BASE, record_layouts(TYPES) + METHODS
        for one in objects:
            if at + one.field.size > BASE + ROOM:
                batches.append([])
                at = BASE
            one.address = at
            at += one.field.size
            batches[-1].append(one)
            text += characteristic(one.name, one.address, one.field.type, one.field.order, one.field.mask, one.method)
        return batches, module(text, 0.25)

    def test_every_type_order_mask_and_conversion(self):
        batches, text = self.placed(self.matrix())
        sim = self.start_with_memory()
        sim.a2l.write_text(text, encoding="utf-8")
        cases = 0
        for batch in batches:
            for turn in (0, -1, 1):
                assignments = [(one, *one.typed[turn % len(one.typed)]) for one in batch if one.typed]
                self.write_and_read(sim, assignments)
                cases += len(assignments)
        self.assertGreater(cases, 3000)

    def write_and_read(self, sim, assignments):
        """Types the values, reads them again and compares texts and memory."""
        expected = bytearray(Memory(sim.image).bytes(BASE, ROOM))
        for one, _, stored in assignments:
            place = slice(one.address - BASE, one.address - BASE + one.field.size)
            expected[place] = one.field.encoded(stored, expected[place])
        done = self.run_cli(sim, "set", *(f"{one.name}={text}" for one, text, _ in assignments))
        self.check_lines(done, assignments)
        self.assertEqual(Memory(sim.image).bytes(BASE, ROOM).hex(), expected.hex())
        done = self.run_cli(sim, "get", *(one.name for one, _, _ in assignments))
        self.check_lines(done, assignments)

    def check_lines(self, done, assignments):
        lines = done.stdout.splitlines(keepends=True)
        self.assertEqual(len(lines), len(assignments), done.stderr)
        for line, (one, text, stored) in zip(lines, assignments):
            self.assertEqual(line, value_line(one.name, display_text(one.conversion, stored)),
                             f"{text} for {one.name}, mask {one.field.mask:#x}, {one.field.order}")
        self.expect(done, done.stdout)

    def test_refused_assignments_change_nothing(self):
        sim = self.start_with_memory()
        before = Memory(sim.image).bytes(BASE, 0xC0)
        for rows, options in ((REFUSED, []), (REFUSED_WITH_M, ["-m"])):
            done = self.run_cli(sim, "set", *options, *(text for text, _ in rows))
            lines = [value_line(text.partition("=")[0], f"ERROR {error}") for text, error in rows]
            told = [f"{name}: the ECU now holds {held}\n" for name, held in SENT.items() if f"{name} " in done.stdout]
            self.expect(done, "".join(lines), "".join(told), code=1)
        self.assertEqual(Memory(sim.image).bytes(BASE, 0xC0).hex(), before.hex())

    def test_a_write_that_fails_half_way_tells_what_the_ecu_holds(self):
        """The value takes two DOWNLOADs; the second one meets the fault."""
        unknown = "what it now holds is not known"
        rows = (("error:DOWNLOAD:2:0:36", "DOWNLOAD: ERR_ACCESS_DENIED (0x24)", "the ECU now holds 3.3158e+12"),
                ("silence:DOWNLOAD:2", "DOWNLOAD: SYNCH: no response from slave", f"the ECU does not answer, {unknown}"))
        for fault, error, held in rows:
            with self.subTest(fault):
                sim = self.start_sim("--max-cto", 8, "--fault", fault)
                done = self.run_cli(sim, "-c", self.quick_config(), "set", "cal_uint64_lsb=0x0102030405000000")
                self.assertEqual(done.stdout, value_line("cal_uint64_lsb", f"ERROR {error}"))
                self.assertEqual((done.stderr.splitlines()[-1], done.returncode), (f"cal_uint64_lsb: {held}", 1))

    def test_written_values_lie_in_memory(self):
        sim = self.start_with_memory()
        for text, shown, address, expected in WRITTEN:
            self.expect(self.run_cli(sim, "set", text), value_line(text.partition("=")[0], shown))
            self.assertEqual(Memory(sim.image).bytes(address, len(expected) // 2).hex(), expected, text)


if __name__ == "__main__":
    unittest.main()
