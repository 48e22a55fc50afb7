"""Random conversions, parameters and measurements as A2L text, with random texts to type for them."""
import math

from value_coding import TYPES, Conversion, Field

BASE, SLOTS = 0x200000, 512  # of eight bytes, some shared by several objects, some untouched
JUNK = ("", "nan", "-nan", "NaN", "inf", "-Infinity", "1e999", "-1e999", "1e-999", "0x", "-0x", "0x1g", "0x1.8", "1,5",
        " 5", "5 ", "--5", "+-1", "1e", ".", "+", "1_0", "0b1", "5V", "1.5.5", "'5'", "5=5", "-0", "-0.0", "007", "+.5", "5.")
FORMATS = ("", "%8.3", "%6.0", "%5", "%4.15", "%4.16", "%.1f", "%12.6")
FACTORS = (0, 1, -1, 2, 0.5, 0.1, -0.01, 1e-3, 3, 1e10, 7.25)
FORMULAS = (("X1 * $(K) + 1", "(X1 - 1) / $(K)"), ("X1 * X1", "sqrt(X1)"), ("sqrt(X1)", "X1 * X1"),
            ("log(X1) * 16", "exp(X1 / 16)"), ("X1 / 4", ""))


class Total(Conversion):
    """Formulas that have a value everywhere, as in C."""

    def calculated(self, key, x):
        functions = {"sqrt": lambda v: math.sqrt(v) if v >= 0 else math.nan,
                     "log": lambda v: math.nan if v < 0 or v != v else math.log(v) if v else -math.inf,
                     "exp": lambda v: math.exp(v) if v < 709 else math.inf}
        return float(eval(self.meta[key], functions, {"X1": x}))  # pylint: disable=eval-used


def parameter(chance):
    """A coefficient or an output."""
    return chance.choice((*FACTORS, chance.randint(-300, 300), round(chance.uniform(-50, 50), 3)))


def table(chance, name, kind):
    """A COMPU_TAB, COMPU_VTAB or COMPU_VTAB_RANGE."""
    rows = []
    for low in (chance.randint(-40, 40) for _ in range(chance.randint(1, 6))):
        text = '"' + chance.choice(("off", "on", "7", "0x10", "a=b")) + '"'
        high = low + chance.randint(0, 9)
        rows.append({"TAB_VERB": f"{low} {text}", "RANGE": f"{low} {high} {text}"}.get(kind, f"{8 * low} {parameter(chance)}"))
    block, head, default = {"TAB_VERB": ("COMPU_VTAB", " TAB_VERB", 'DEFAULT_VALUE "other"'),
                            "RANGE": ("COMPU_VTAB_RANGE", "", 'DEFAULT_VALUE "other"')}.get(
                                kind, ("COMPU_TAB", f" {kind}", f"DEFAULT_VALUE_NUMERIC {parameter(chance)}"))
    return (f'/begin {block} {name} ""{head} {len(rows)} {" ".join(rows)} {default if chance.random() < 0.3 else ""} '
            f"/end {block}\n")


def method(chance, number):
    """A COMPU_METHOD with its table."""
    kind = chance.choice(("IDENTICAL", "LINEAR", "RAT_FUNC", "TAB_INTP", "TAB_NOINTP", "TAB_VERB", "RANGE", "FORM"))
    body, behind = "", ""
    if kind == "LINEAR":
        body = f"COEFFS_LINEAR {parameter(chance)} {parameter(chance)}"
    elif kind == "RAT_FUNC":
        shape = chance.choice(("0bc00f", "0bc0ef", "a0000f", "abcdef", "0b000f"))
        body = "COEFFS " + " ".join("0" if place == "0" else str(parameter(chance)) for place in shape)
    elif kind == "FORM":
        forward, inverse = chance.choice(FORMULAS)
        body = f'/begin FORMULA "{forward}" ' + (f'FORMULA_INV "{inverse}" ' if inverse else "") + "/end FORMULA"
    elif kind != "IDENTICAL":
        body, behind = f"COMPU_TAB_REF T{number}", table(chance, f"T{number}", kind)
    return (f'/begin COMPU_METHOD M{number} "" {kind.replace("RANGE", "TAB_VERB")} "{chance.choice(FORMATS)}" "u" {body} '
            f"/end COMPU_METHOD\n{behind}")


class Object:
    """A parameter or measurement: its place, coding, conversion, limits, and the text that is typed for it."""

    def __init__(self, chance, number, a2l, order, unit):
        self.name, self.chance = f"o{number}", chance
        kind = chance.choice([name for name in TYPES if TYPES[name][0] >= unit or chance.random() < 0.1])
        own = chance.choice(("", "MSB_LAST", "MSB_FIRST"))
        self.field = Field(kind, own or order, self.mask(8 * TYPES[kind][0]) if kind[0] != "F" else 0)
        self.address = BASE + 8 * chance.randrange(SLOTS) + chance.randrange(0, 9 - max(self.field.size, unit), unit)
        self.place = slice(self.address - BASE, self.address - BASE + self.field.size)
        self.method = chance.choice([*a2l.blocks["COMPU_METHOD"], "NO_COMPU_METHOD"])
        form = chance.choice(("", "", *FORMATS))
        self.conversion = Total(a2l.conversion(self.method, "", form))
        self.parameter, self.open = chance.random() < 0.85, chance.random() < 0.93
        ends = sorted(float(f"{self.near():.7g}") for _ in range(2))
        self.limits = chance.choice(((-1e300, 1e300), (-1e300, 1e300), ends, ends, (ends[0], ends[0]), (-math.inf, ends[1]),
                                     (ends[0], math.inf)))
        self.options = ((f"BYTE_ORDER {own} " if own else "") + (f'FORMAT "{form}" ' if form else "")
                        + (f"BIT_MASK {self.field.mask:#x}" if self.field.mask else ""))
        self.text = self.typed()

    def mask(self, width):
        """None, bits in a row, or such with holes."""
        chance = self.chance
        if chance.random() < 0.4:
            return 0
        row = ((1 << chance.randint(1, width)) - 1) << chance.randrange(width) & ((1 << width) - 1)
        return row & chance.choice((row, row, chance.getrandbits(width))) or row

    def near(self):
        """A physical value of the field, or one just outside."""
        chance = self.chance
        low, high = self.field.bounds() if self.field.whole else (-70000, 70000)
        inside = chance.randint(low, high)
        raw = chance.choice((low, high, low - 1, high + 1, inside, chance.randint(-9, 40),
                             inside + chance.choice((0.5, -0.5, 0.4999))))
        value = self.conversion.physical(raw * (1 if self.field.whole else chance.choice((1, 0.37, 1e-5, 1e34))))
        return value if math.isfinite(value) else raw

    def typed(self):
        chance = self.chance
        texts = [text for _, _, text in self.conversion.ranges]
        kind = chance.random()
        if texts and kind < 0.4:
            return chance.choice((*texts, texts[0].upper() + " "))
        if kind < 0.06:
            return chance.choice(JUNK)
        if kind < 0.1:
            return chance.choice((str, hex))(chance.choice((1, -1)) * (2 ** chance.randint(52, 66) + chance.randint(-3, 3)))
        low, high = (min(max(limit, -1e300), 1e300) for limit in self.limits)
        slack = 1e-9 * max(1, abs(low), abs(high)) * chance.choice((-2, -0.5, 0.5, 2))
        inside = min(max(self.near(), low), high)
        value = chance.choice((self.near(), self.near(), inside, inside, inside, low + slack, high + slack,
                               math.nextafter(low, -math.inf), *(output for _, output in self.conversion.pairs)))
        if value == int(value) and abs(value) < 2 ** 53:
            sign = "+" if value >= 0 and chance.random() < 0.3 else ""
            return sign + chance.choice((str, hex, "{:.2e}".format))(int(value))
        return chance.choice((repr, "{:.3f}".format, "{:.17e}".format))(value)

    def block(self):
        limits = " ".join(map(repr, self.limits)).replace("inf", "1e400")
        if self.parameter:
            return (f'/begin CHARACTERISTIC {self.name} "" VALUE {self.address:#x} {self.field.type} 0 {self.method} {limits} '
                    f'{self.options} EXTENDED_LIMITS -1e305 1e305 {"" if self.open else "READ_ONLY"} /end CHARACTERISTIC\n')
        return (f'/begin MEASUREMENT {self.name} "" {self.field.type} {self.method} 0 0 {limits} ECU_ADDRESS {self.address:#x} '
                f'{self.options} {"READ_WRITE" if self.open else ""} /end MEASUREMENT\n')
