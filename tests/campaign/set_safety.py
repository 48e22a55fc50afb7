"""`set` and `get` against a calculation of its own: random objects over random memory, one random text typed for each.

A case is one A2L file and one `set` with 500 assignments, carried out here too, bit by bit: every line printed and, at
the end, every byte of memory must be the same. What is refused must be refused for the reason calculated here.
"""
import math
import random
import re
from fractions import Fraction

import campaign
import a2l_text
import harness
from ecu_model import Memory
from random_objects import BASE, SLOTS, TYPES, Object, method

OBJECTS, METHODS = 500, 40


def number(text, otherwise):
    """The number that a text is: decimal, or an integer in hexadecimal digits."""
    whole = re.fullmatch(r"([+-]?)0[xX]([0-9a-fA-F]+)", text)
    if whole:
        value = int(whole[2], 16)
        return Fraction(-value if whole[1] == "-" else value) if value else float(whole[1] + "0")
    if not re.fullmatch(r"(?i)[+-]?(([0-9]+\.?[0-9]*|\.[0-9]+)(e[+-]?[0-9]+)?|inf|infinity|nan)", text):
        raise ValueError(f"'{text}' {otherwise}")
    return Fraction(text) if math.isfinite(float(text)) and float(text) else float(text)


def inverse(conversion, value):
    """The raw value of a physical one, or the reason why there is none."""
    if conversion.kind == "formula" and "formulaInv" not in conversion.meta:
        raise ValueError("FORM conversion without FORMULA_INV cannot be inverted")
    try:
        return conversion.to_raw(value)
    except ZeroDivisionError:
        raise ValueError("LINEAR conversion with factor 0 cannot be inverted" if conversion.kind == "linear"
                         else "RAT_FUNC denominator is 0") from None
    except StopIteration:
        raise ValueError("value not contained in the conversion table") from None
    except ValueError:
        raise ValueError("value outside the conversion table") from None


def line_of(one):
    """Factor and offset of an integer of 64 bits that keeps all of them; None where numbers are doubles."""
    return one.conversion.line() if one.field.whole and one.field.size == 8 else None


def typed(one):
    """The number typed; None for a verbal text."""
    if any(text == one.text for _, _, text in one.conversion.ranges):
        return None
    value = number(one.text, "is not a valid value" if one.conversion.kind == "verbal" else "is not a number")
    return value if line_of(one) else float(value)


def held(one):
    """What is typed as the field will hold it; ValueError tells why it must be refused."""
    conversion, field = one.conversion, one.field
    value = typed(one)
    if value is None:
        value = next(low for low, _, text in conversion.ranges if text == one.text)
    if math.isinf(value):
        raise ValueError("value is not finite")
    low, high = one.limits
    slack = 1e-9 * max(abs(limit) for limit in (1.0, low, high) if math.isfinite(limit))
    if not low - slack <= value <= high + slack:
        raise ValueError(f"{float(value):g} outside the limits [{low:g}, {high:g}]")
    line = line_of(one)
    raw = (Fraction(value) - line[1]) / line[0] if line else inverse(conversion, value)
    if line and max(abs(value), abs(raw)) >= 2 ** 120:
        raw = inverse(conversion, float(value))  # nothing holds it, and only a double tells it
    if raw != raw and field.whole:
        raise ValueError("value is not a number")
    try:
        return field.stored(raw)
    except (ValueError, OverflowError):
        shown = f"{raw:g}" if not field.whole else (
            f"{field.rounded(raw)}.000000" if math.isfinite(raw) else f"{raw:.6f}")
        raise ValueError(f"raw value {shown} outside the range of {field.type}") from None


def deviates(one, raw):
    """Whether what is held is by more than half a displayed step not what was typed."""
    value = typed(one)
    if value is None:
        return False
    line = line_of(one)
    after = raw * line[0] + line[1] if line else one.conversion.physical(raw)
    if not math.isfinite(after):
        return True
    decimals = a2l_text.decimals(one.conversion)
    general = 10 ** (math.floor(math.log10(abs(value))) - 5) if value else 0
    step = general if decimals is None else 10 ** -decimals
    rounding = 0 if line else 1e-12 * abs(value)
    return abs(Fraction(after) - Fraction(value)) > Fraction(step) / 2 + Fraction(rounding)


def is_nearest(one, raw):
    """Whether no other value of the field is nearer to what was typed than this one, as far as its neighbours show."""
    value = float(typed(one))
    near = [abs(one.conversion.physical(raw + step) - value) for step in (0, -1, 1)]
    return near[0] == near[0] and (not one.field.whole or near[0] <= min(near) + 1e-11 * abs(value))


def carried_out(one, memory, unit, forced, notes):
    """Writes into our memory what the ECU's must hold; returns what must be told of it."""
    if not (one.open or (forced and not one.parameter)):
        return f"ERROR {one.name} is {'not writable' if one.parameter else 'a measurement without READ_WRITE'}"
    if one.field.size % unit == 0:
        try:
            raw = held(one)
        except ValueError as error:
            return f"ERROR {one.name}: {error}"
        memory[one.place] = one.field.encoded(raw, memory[one.place])
        if deviates(one, raw):
            notes.append((f"{one.name}: {one.text} is not possible, ", told(one, memory, unit), is_nearest(one, raw)))
    return told(one, memory, unit)


def told(one, memory, unit):
    """What must be told of an object, as the memory is."""
    if one.field.size % unit:
        return "ERROR upload size must be a non-zero multiple of AG"
    return a2l_text.display_text(one.conversion, one.field.decoded(memory[one.place]), one.field.size == 8)


class SetSafety(campaign.Campaign):
    def run_case(self, seed):
        chance = random.Random(int(seed))
        order, endian = chance.choice((("intel", "MSB_LAST"), ("motorola", "MSB_FIRST")))
        unit, forced = chance.choice((1, 1, 2, 4)), chance.random() < 0.3
        methods = "".join(method(chance, i) for i in range(METHODS))
        frame = a2l_text.module("@", 0.25).replace("MSB_LAST", endian)
        a2l = a2l_text.A2l(frame.replace("@", methods))
        objects = [Object(chance, i, a2l, endian, unit) for i in range(OBJECTS)]
        image = self.dir / "memory"
        sim = self.start_sim("--memory-file", image, "--spare-bytes", 8 * SLOTS, "--granularity", unit,
                             "--byte-order", order, "--max-cto", chance.choice((8, 12, 248)))
        blocks = "".join(one.block() for one in objects)
        sim.a2l.write_text(frame.replace("@", methods + a2l_text.record_layouts(TYPES) + blocks))
        done = self.run_cli(sim, *chance.choice(([], ["--no-short-upload"])), "set", *(["-m"] if forced else []),
                            *(f"{one.name}={one.text}" for one in objects), timeout=240)
        memory = bytearray(pow(48271, n + 1, 2 ** 31 - 1) >> 8 & 255 for n in range(8 * SLOTS))
        notes = []
        lines = self.check_lines(done, objects, [carried_out(one, memory, unit, forced, notes) for one in objects], methods)
        odd = {line.split(":")[0] for line in lines} ^ {begin.split(":")[0] for begin, _, _ in notes}
        self.assertEqual((odd, len(lines)), (set(), len(notes)), [(o.text, o.block(), lines) for o in objects if o.name in odd])
        for line, (begin, text, nearest) in zip(lines, notes):
            self.assertIn(line, (f"{begin}the ECU now holds {text}", f"{begin}the nearest value is {text}" if nearest else ""))
        done = self.run_cli(sim, "get", *(one.name for one in objects), timeout=240)
        self.assertEqual(self.check_lines(done, objects, [told(one, memory, unit) for one in objects], methods), [])
        harness.counters(sim)
        self.assertEqual(Memory(image).bytes(BASE, 8 * SLOTS).hex(), memory.hex())

    def check_lines(self, done, objects, expected, methods):
        """Returns what standard error tells of the values."""
        lines = done.stdout.splitlines(keepends=True)
        for one, line, text in zip(objects, lines, expected):
            self.assertEqual(line, harness.value_line(one.name, text),
                             f"{one.text!r} for {one.block()}{methods[methods.find(one.method + ' '):][:300]}")
        self.assertEqual(len(lines), len(objects))
        # On a busy machine an answer may be late, which is no reason for any other outcome.
        ours = re.sub(r".*: timeout, SYNCH and repeat\n|.* A2L: .* a limit beyond the range .*\n", "", harness.without_hints(done.stderr))
        return ours.splitlines()


def cases():
    yield from ((seed,) for seed in range(200))


if __name__ == "__main__":
    campaign.main("set safety", SetSafety, cases)
