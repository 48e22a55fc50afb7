"""A2L text for the tests: what the simulated ECU writes of itself, and the frame of descriptions of our own."""
import re
from decimal import Decimal, localcontext

TOKEN = re.compile(r'"(?:[^"\\]|\\.|"")*"|\S+')


def plain(token):
    return token[1:-1] if token.startswith('"') else token


class A2l:
    """The blocks of a file, by keyword and name, as lists of their words; nested blocks are part of them."""

    def __init__(self, text):
        tokens = TOKEN.findall(text)
        self.blocks = {}
        for at, token in enumerate(tokens):
            if token == "/begin":
                keyword, name = tokens[at + 1], tokens[at + 2]
                end = next(i for i in range(at, len(tokens) - 1) if tokens[i] == "/end" and tokens[i + 1] == keyword)
                self.blocks.setdefault(keyword, {}).setdefault(name, tokens[at + 3:end])
        constants = self.words("MOD_PAR", '""')
        self.constants = {plain(constants[i + 1]): plain(constants[i + 2])
                          for i, word in enumerate(constants) if word == "SYSTEM_CONSTANT"}

    def words(self, keyword, name):
        return self.blocks[keyword][name]

    @staticmethod
    def option(words, keyword, default=""):
        return plain(words[words.index(keyword) + 1]) if keyword in words else default

    def signal(self, name):
        """What meta.json must tell of a measurement, but for its place in the record."""
        words = self.words("MEASUREMENT", name)
        common = self.option(self.words("MOD_COMMON", '""'), "BYTE_ORDER", "MSB_LAST")
        return {"name": name, "description": plain(words[0]), "type": words[1],
                "displayName": self.option(words, "DISPLAY_IDENTIFIER"),
                "byteOrder": self.option(words, "BYTE_ORDER", common),
                "bitMask": int(self.option(words, "BIT_MASK", "0"), 0),
                "limits": [float(limit) for limit in words[5:7]],
                "conversion": self.conversion(words[2], self.option(words, "PHYS_UNIT"), self.option(words, "FORMAT"))}

    def conversion(self, method, unit="", display=""):
        """A COMPU_METHOD in the words of meta.json."""
        if method == "NO_COMPU_METHOD":
            result = {"type": "identical"}
        else:
            words = self.words("COMPU_METHOD", method)
            result = getattr(self, words[1].lower())(words)
            unit, display = unit or plain(words[3]), display or plain(words[2])
        return result | ({"unit": unit} if unit else {}) | ({"format": display} if display else {})

    @staticmethod
    def numbers(words, keyword, count):
        at = words.index(keyword)
        return [float(word) for word in words[at + 1:at + 1 + count]]

    def identical(self, _):
        return {"type": "identical"}

    def linear(self, words):
        return {"type": "linear", "linear": self.numbers(words, "COEFFS_LINEAR", 2)}

    def rat_func(self, words):
        return {"type": "ratFunc", "ratFunc": self.numbers(words, "COEFFS", 6)}

    def tab_intp(self, words):
        table = self.words("COMPU_TAB", self.option(words, "COMPU_TAB_REF"))
        count = int(table[2])
        pairs = [[float(table[3 + 2 * i]), float(table[4 + 2 * i])] for i in range(count)]
        result = {"type": "table", "interpolate": words[1] == "TAB_INTP", "table": sorted(pairs, key=lambda p: p[0])}
        default = self.option(table, "DEFAULT_VALUE_NUMERIC")
        return result | ({"defaultNumeric": float(default)} if default else {})

    tab_nointp = tab_intp

    def tab_verb(self, words):
        reference = self.option(words, "COMPU_TAB_REF")
        if reference in self.blocks.get("COMPU_VTAB", {}):
            table = self.words("COMPU_VTAB", reference)
            ranges = [(table[3 + 2 * i], table[3 + 2 * i], table[4 + 2 * i]) for i in range(int(table[2]))]
        else:
            table = self.words("COMPU_VTAB_RANGE", reference)
            ranges = [tuple(table[2 + 3 * i:5 + 3 * i]) for i in range(int(table[1]))]
        listed = [{"min": float(a), "max": float(b), "text": plain(text)} for a, b, text in ranges]
        result = {"type": "verbal", "verbal": listed}
        default = self.option(table, "DEFAULT_VALUE")
        return result | ({"defaultText": default} if default else {})

    def form(self, words):
        forward = plain(words[words.index("FORMULA") + 1])
        inverse = self.option(words, "FORMULA_INV")
        result = {"type": "formula", "formula": self.expanded(forward)}
        return result | ({"formulaInv": self.expanded(inverse)} if inverse else {})

    def expanded(self, formula):
        pattern = re.compile(r"(?:sysc|\$)\(([^)]*)\)")
        while pattern.search(formula):
            formula = pattern.sub(lambda match: f"({self.constants[match[1]]})", formula)
        return formula


def decimals(conversion):
    """Those that the format asks for; None without."""
    digits = re.match(r"\d+", conversion.format.partition(".")[2])
    count = int(digits[0]) if digits else 0
    return count if "." in conversion.format and count < 16 else None


def display_text(conversion, raw, wide=False):
    """What the tool prints for a raw value, of a wide type (64 bits) or another: the verbal text, else the number in its format."""
    text = conversion.text(raw)
    if text:
        return text
    digits, line = decimals(conversion), conversion.line()
    if isinstance(raw, int) and (wide or abs(raw) >> 32) and line and digits is not None:
        with localcontext() as context:
            context.prec = 100
            exact = raw * line[0] + line[1]
            return f"{Decimal(exact.numerator) / exact.denominator:.{digits}f}"[:63]
    value = conversion.physical(raw)
    if value != value:
        return "nan"
    shown = "%g" % value if digits is None else f"%.{digits}f" % value
    return shown[:63]


def module(body, constant):
    """A whole file around these blocks; formulas may use the system constant K."""
    return f"""ASAP2_VERSION 1 71 /begin PROJECT p "" /begin MODULE generated ""
/begin MOD_COMMON "" BYTE_ORDER MSB_LAST /end MOD_COMMON
/begin MOD_PAR "" SYSTEM_CONSTANT "K" "{constant}" /end MOD_PAR
/begin IF_DATA XCP /begin PROTOCOL_LAYER 0x0101 5000 5000 5000 5000 5000 5000 200 248 1400
BYTE_ORDER_MSB_LAST ADDRESS_GRANULARITY_BYTE /end PROTOCOL_LAYER /end IF_DATA
{body}
/end MODULE /end PROJECT
"""


def record_layouts(types):
    return "".join(f"/begin RECORD_LAYOUT {t}\nFNC_VALUES 1 {t} COLUMN_DIR DIRECT\n/end RECORD_LAYOUT\n" for t in types)
