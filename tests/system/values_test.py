"""`set` and `get`: texts, limits and errors, and the bytes in the ECU's memory."""
import itertools
import random

from a2l_text import A2l, characteristic, display_text, module, record_layouts
from ecu_model import Memory
from harness import SystemTest, main
from recording import TYPES, Conversion
from value_coding import Field, to_raw

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

# Assignments that must fail: what is typed, the error.
REFUSED = (
    ("cal_limited=101", "cal_limited: 101 outside the limits [-100, 100]"),
    ("cal_limited=-100.001", "cal_limited: -100.001 outside the limits [-100, 100]"),
    ("cal_limited=nan", "cal_limited: nan outside the limits [-100, 100]"),
    ("cal_limited=inf", "cal_limited: value is not finite"),
    ("cal_float64_lsb=-inf", "cal_float64_lsb: value is not finite"),
    ("cal_float32_lsb=nan", "cal_float32_lsb: nan outside the limits [-3.4e+38, 3.4e+38]"),
    ("cal_float16_msb=65505", "cal_float16_msb: 65505 outside the limits [-65504, 65504]"),
    ("cal_limited=1,5", "cal_limited: '1,5' is not a number"),
    ("cal_limited=", "cal_limited: '' is not a number"),
    ("cal_limited=1 ", "cal_limited: '1 ' is not a number"),
    ("cal_limited=0x1G", "cal_limited: '0x1G' is not a number"),
    ("cal_limited=0x1p3", "cal_limited: '0x1p3' is not a number"),
    ("cal_limited==5", "cal_limited: '=5' is not a number"),
    ("cal_extended=101", "cal_extended: 101 outside the limits [0, 100]"),
    ("cal_mode_signed=8", "cal_mode_signed: 8 outside the limits [-8, 7]"),
    ("cal_injector=3", "cal_injector: 3 outside the limits [0, 2]"),
    ("cal_injector=On", "cal_injector: 'On' is not a valid value"),
    ("cal_gear_preset=no gear", "cal_gear_preset: 'no gear' is not a valid value"),
    ("cal_gear_ratio=2", "cal_gear_ratio: value not contained in the conversion table"),
    ("cal_root=2", "cal_root: FORM conversion without FORMULA_INV cannot be inverted"),
    ("cal_uint64_lsb=18446744073709551615",
     "cal_uint64_lsb: '18446744073709551615' cannot be held exactly as a 64-bit float"),
    ("cal_int64_msb=9007199254740993", "cal_int64_msb: '9007199254740993' cannot be held exactly as a 64-bit float"),
    ("cal_uint64_msb=0xFFFFFFFFFFFFFFFF",
     "cal_uint64_msb: '0xFFFFFFFFFFFFFFFF' cannot be held exactly as a 64-bit float"),
    ("cal_int64_lsb=9223372036854775808",
     "cal_int64_lsb: raw value 9223372036854775808.000000 outside the range of A_INT64"),
    ("cal_read_only=1", "cal_read_only is not writable"),
    ("cal_read_only_ram=1", "cal_read_only_ram is not writable"),
    ("cal_protected=1", "DOWNLOAD: ERR_WRITE_PROTECTED (0x23)"),
    ("cal_stubborn=1", "cal_stubborn: read back value differs from the written value"),
    ("odometer=1", "odometer is a measurement without READ_WRITE"),
    ("bad_address=1", "bad_address is a measurement without READ_WRITE"),
    ("cal_curve=1", "cal_curve: only scalar (VALUE) parameters are supported yet"),
    ("cal_label=1", "cal_label: only scalar (VALUE) parameters are supported yet"),
    ("cal_virtual=1", "cal_virtual: virtual characteristic has no ECU address"),
    ("cal_no_values=1", "cal_no_values: RECORD_LAYOUT 'RL.EMPTY' without FNC_VALUES"),
    ("nothing=1", "'nothing' is neither a MEASUREMENT nor a CHARACTERISTIC"),
)
REFUSED_WITH_M = (
    ("virtual_power=1", "virtual_power: measurement has no ECU_ADDRESS"),
    ("cylinder_pressure=1", "cylinder_pressure: arrays are not supported yet"),
    ("bad_address=1", "SHORT_UPLOAD: ERR_OUT_OF_RANGE (0x22)"),
    ("program_id=1", "DOWNLOAD: ERR_WRITE_PROTECTED (0x23)"),
)
# Assignments that succeed: what is typed, the text read back, address and bytes in memory.
WRITTEN = (
    ("cal_limited=100.00000005", "100.000", 0x1008C, "6400"),
    ("cal_limited=-0x10", "-16.000", 0x1008C, "f0ff"),
    ("cal_limited=2.5", "3.000", 0x1008C, "0300"),
    ("cal_limited=-2.5", "-3.000", 0x1008C, "fdff"),
    ("cal_limited=+2.4999", "2.000", 0x1008C, "0200"),
    ("cal_injector=test mode", "test mode", 0x10000, "02"),
    ("cal_injector=1", "on", 0x10000, "01"),
    ("cal_temp_class=warm", "warm", 0x10081, "32"),
    ("cal_temp_class=111", "overheated", 0x10081, "6f"),
    ("cal_flag_on=on", "on", 0x1007C, "92345678"),
    ("cal_flag_count=0xABCD", "43981.000", 0x1007C, "92abcd78"),
    ("cal_flag_on=off", "off", 0x1007C, "12abcd78"),
    ("cal_mode_signed=-8", "-8.000", 0x10078, "c385"),
    ("cal_mode_middle=1", "1.000", 0x10078, "1380"),
    ("cal_mode_low=15", "15.000", 0x10078, "1f80"),
    ("cal_uword_lsb=0xBEEF", "48879", 0x10020, "efbe"),
    ("cal_uword_msb=0xBEEF", "48879", 0x10022, "beef"),
    ("cal_uint64_lsb=18446744073709549568", "1.84467e+19", 0x10038, "00f8ffffffffffff"),
    ("cal_int64_msb=-9223372036854775808", "-9.22337e+18", 0x10050, "8000000000000000"),
    ("cal_float16_lsb=65504", "65504", 0x10058, "ff7b"),
    ("cal_voltage=13.8", "13.800", 0x10088, "9605"),
    ("cal_temp_limit=-40", "-40.0", 0x10086, "ff"),
    ("setpoint_rw=-3.5", "-3.500", 0x120CC, "000060c0"),
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
                yield text, self.field.stored(to_raw(self.conversion, value))
            except (StopIteration, ValueError, OverflowError, ZeroDivisionError):
                continue  # Not in the table, or not in the field.

    @staticmethod
    def spelled(number, value):
        """Some whole numbers in decimal or hexadecimal digits, all others as floating-point numbers."""
        if value == int(value) and abs(value) < 2 ** 63 and number % 3:
            return str(int(value)) if value < 0 or number % 3 == 1 else hex(int(value))
        return repr(value)

    def text_of(self, stored):
        return display_text(self.conversion, stored)


class ValuesTest(SystemTest):
    def start_with(self, text=None):
        """A simulated ECU with a memory image, described by this text if one is given."""
        image = self.dir / "memory"
        sim = self.start_sim("--memory-file", image)
        sim.image = image
        self.assertEqual(self.run_cli(sim, "set", "cal_limited=-7").returncode, 0)  # Writes the image.
        if text is not None:
            sim.a2l = self.dir / "generated.a2l"
            sim.a2l.write_text(text, encoding="utf-8")
        return sim

    @staticmethod
    def matrix():
        """Every type, byte order, mask and conversion, shuffled so that neighbours differ."""
        a2l = A2l(module(METHODS, [("K", "0.25")]))
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
        return batches, module(text, [("K", "0.25")])

    def test_every_type_order_mask_and_conversion(self):
        batches, text = self.placed(self.matrix())
        sim = self.start_with(text)
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
        lines = done.stdout.splitlines()
        self.assertEqual(len(lines), len(assignments), done.stderr)
        for line, (one, text, stored) in zip(lines, assignments):
            expected = f"{one.name:<50} {one.text_of(stored)}"
            self.assertEqual(line, expected, f"{text} for {one.name}, mask {one.field.mask:#x}, {one.field.order}")
        self.assertEqual((done.stderr, done.returncode), ("", 0))

    def check_refusals(self, sim, rows, *options):
        done = self.run_cli(sim, "set", *options, *(text for text, _ in rows))
        lines = [f"{text.partition('=')[0]:<50} ERROR {error}" for text, error in rows]
        self.assertEqual(done.stdout.splitlines(), lines)
        self.assertEqual((done.stderr, done.returncode), ("", 1))

    def test_refused_assignments_change_nothing(self):
        sim = self.start_with()
        size = 0xC0
        before = Memory(sim.image).bytes(BASE, size)
        self.check_refusals(sim, REFUSED)
        self.check_refusals(sim, REFUSED_WITH_M, "-m")
        done = self.run_cli(sim, "set", "cal_gain=1.5", "cal_limited", "=5", "cal_gain=1")
        self.assertEqual((done.stdout, done.returncode), (f"{'cal_gain':<50} 1.500\n{'cal_gain':<50} 1.000\n", 1))
        self.assertEqual(done.stderr, "cal_limited: expected NAME=VALUE\n=5: expected NAME=VALUE\n")
        self.assertEqual(Memory(sim.image).bytes(BASE, size).hex(), before.hex())

    def test_written_values_lie_in_memory(self):
        sim = self.start_with()
        for text, shown, address, expected in WRITTEN:
            done = self.run_cli(sim, "set", text)
            line = f"{text.partition('=')[0]:<50} {shown}\n"
            self.assertEqual((done.stdout, done.stderr, done.returncode), (line, "", 0))
            self.assertEqual(Memory(sim.image).bytes(address, len(expected) // 2).hex(), expected, text)

    def test_other_byte_orders_and_granularities(self):
        """Objects without a byte order of their own follow the ECU's; no object is smaller than the granularity."""
        rows = (("cal_idle_speed", "UWORD", None, "750", 3000), ("cal_gain", "FLOAT32_IEEE", None, "2.5", 2.5),
                ("cal_wave_offset", "FLOAT64_IEEE", None, "-0.1", -0.1),
                ("cal_ignition_trim", "SBYTE", None, "-1.5", -3),
                ("cal_uword_msb", "UWORD", "MSB_FIRST", "0x1234", 0x1234),
                ("cal_float16_lsb", "FLOAT16_IEEE", "MSB_LAST", "-1.5", -1.5),
                ("cal_ulong_lsb", "ULONG", "MSB_LAST", "305419896", 0x12345678),
                ("cal_slong_msb", "SLONG", "MSB_FIRST", "-2", -2), ("cal_int64_lsb", "A_INT64", "MSB_LAST", "-2", -2),
                ("cal_uint64_msb", "A_UINT64", "MSB_FIRST", "0x102030405060", 0x102030405060))
        for (order, module_order), granularity in itertools.product(
                (("intel", "MSB_LAST"), ("motorola", "MSB_FIRST")), (1, 2, 4)):
            image = self.dir / f"{order}{granularity}"
            sim = self.start_sim("--memory-file", image, "--byte-order", order, "--granularity", granularity)
            a2l = A2l(sim.a2l.read_text(encoding="utf-8"))
            whole = [row for row in rows if TYPES[row[1]][0] % granularity == 0]
            done = self.run_cli(sim, "set", *(f"{name}={text}" for name, _, _, text, _ in whole))
            self.assertEqual((done.stderr, done.returncode), ("", 0), done.stdout)
            for name, type_name, own_order, _, raw in whole:
                field = Field(type_name, own_order or module_order)
                stored = Memory(image).bytes(int(a2l.words("CHARACTERISTIC", name)[2], 16), field.size)
                self.assertEqual(stored.hex(), field.encoded(field.stored(raw), stored).hex(), f"{name}, {order}")

    def test_out_of_raw_range_and_measurements(self):
        """The limits of these objects are wider than their types; the measurement has no READ_WRITE."""
        text = record_layouts(TYPES) + METHODS
        text += '/begin MEASUREMENT plain_measurement "" UWORD LIN 0 0 -1e300 1e300\n'
        text += f"ECU_ADDRESS {BASE + 32:#x}\n/end MEASUREMENT\n"
        text += characteristic("lowest", BASE + 12, "SLONG", "MSB_FIRST", 0, "RAT")
        rows = [("plain_measurement=2", "plain_measurement is a measurement without READ_WRITE")]
        for offset, type_name, mask, method, typed, raw in (
                (0, "UBYTE", 0, "IDENT", "255.5", "256.000000"), (1, "SBYTE", 0, "IDENT", "-128.5", "-129.000000"),
                (2, "UWORD", 0xFF0, "IDENT", "256", "256.000000"), (4, "SWORD", 0xF000, "IDENT", "-9", "-9.000000"),
                (8, "ULONG", 0, "LIN", "2147483637.75", "4294967296.000000")):
            name = f"{type_name}.{mask:x}"
            text += characteristic(name, BASE + offset, type_name, "MSB_FIRST", mask, method)
            rows.append((f"{name}={typed}", f"{name}: raw value {raw} outside the range of {type_name}"))
        sim = self.start_with(module(text, [("K", "2")]))
        before = Memory(sim.image).bytes(BASE, ROOM)
        self.check_refusals(sim, rows)
        self.assertEqual(Memory(sim.image).bytes(BASE, ROOM).hex(), before.hex())
        done = self.run_cli(sim, "set", "-m", "plain_measurement=2", "lowest=-0x3FFFFFFF")
        self.assertEqual((done.stdout.splitlines(), done.stderr, done.returncode),
                         ([f"{'plain_measurement':<50} 2.0", f"{'lowest':<50} -1073741823.2500"], "", 0))
        self.assertEqual(Memory(sim.image).bytes(BASE + 32, 2).hex(), "1800")


if __name__ == "__main__":
    main()
