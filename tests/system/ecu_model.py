"""The world of the simulated ECU, recomputed from its page: docs/simulator.md is read and its table evaluated."""
import re
import struct
import textwrap
from pathlib import Path

from value_coding import Field

PAGE = Path(__file__).resolve().parents[2] / "docs" / "simulator.md"
HELPERS = {}
exec(textwrap.dedent(re.search(r"(?ms)^    tri = .*?(?=^`n` is)", PAGE.read_text(encoding="utf-8"))[0]), HELPERS)  # pylint: disable=exec-used
# What drives the model: its size, the raw value at the start, what is typed and the raw value that it means.
PARAMETERS = {"cal_injector": (1, 1, "on", 1), "cal_idle_speed": (2, 3200, "750", 3000),
              "cal_gain": (4, 1.0, "2.5", 2.5), "cal_wave_period": (2, 1000, "370", 370),
              "cal_wave_offset": (8, 0.0, "-7.75", -7.75), "cal_ignition_trim": (1, 0, "3.5", 7),
              "cal_pressure_offset": (2, 0, "-123", -123), "setpoint_rw": (4, 1.5, "12.25", 12.25)}
COUNTERS = ("counter_1ms", "counter_10ms", "counter_100ms", "counter_async")


class Table:
    """A curve, or with y a map: raw points in use and raw values."""

    def __init__(self, x, w, y=()):
        self.x, self.y, self.w = x, list(y), w


def tables():
    """What the model uses at the start."""
    points = [2000, 3000, 4000, 5000, 6000, 10000, 16000, 24000], [0, 15, 30, 45, 60, 75, 90, 100]
    return {"cal_torque_curve": Table([0, 26, 51, 102, 153, 204, 230, 255], [-20, 15, 60, 130, 190, 230, 245, 250]),
            "cal_ignition_map": Table(points[0], [24 + 5 * x - 3 * y for y in range(8) for x in range(8)], points[1])}


class Parameters:
    """At the start; a parameter that is no multiple of the granularity stays so, the others are typed."""

    def __init__(self, granularity):
        self.typed = []
        vars(self).update(tables())
        for name, (size, start, text, raw) in PARAMETERS.items():
            setattr(self, name, start if size % granularity else raw)
            self.typed += [] if size % granularity else [f"{name}={text}"]


class Measurement:
    """One row of the table."""

    def __init__(self, name, type_name, order, mask, event, expression):
        self.name = name
        self.event = int(event)
        self.field = Field(type_name, order, 0 if mask == "-" else int(mask, 16))
        self.value = eval(f"lambda n, p, i: {expression.strip('`')}", dict(HELPERS))  # pylint: disable=eval-used

    def raw(self, n, parameters, i=0):
        """The raw value of element i at sample n, as a field of its type and mask holds it."""
        value = self.value(n, parameters, i)
        return self.field.wrapped(int(value) if self.field.whole else value)


def measurements():
    """All rows of the table, by name."""
    rows = re.findall(r"^\| (\S+) \| (\S+) \| (module|MSB_\w+) \| (\S+) \| (\d) \| (`.*`) \|$",
                      PAGE.read_text(encoding="utf-8"), re.MULTILINE)
    return {row[0]: Measurement(*row) for row in rows}


def elements():
    """All rows of the table of arrays and structures: name, number of the first element and of the last, measurement."""
    rows = re.findall(r"^\| (\S+) \| (\d+)(?: to (\d+))? \| (\S+) \| (\d) \| (`.*`) \|$",
                      PAGE.read_text(encoding="utf-8"), re.MULTILINE)
    return [(name, int(first), int(last or first), Measurement(name, type_name, "module", "-", event, expression))
            for name, first, last, type_name, event, expression in rows]


class Memory:
    """A memory image: address extension, base address, size and bytes of each region."""

    def __init__(self, path):
        data = Path(path).read_bytes()
        self.regions = []
        at = 0
        while at < len(data):
            extension, base, size = struct.unpack_from("<III", data, at)
            self.regions.append((extension, base, data[at + 12:at + 12 + size]))
            at += 12 + size

    def bytes(self, address, size, extension=0):
        for region_extension, base, data in self.regions:
            if region_extension == extension and base <= address and address + size <= base + len(data):
                return data[address - base:address - base + size]
        raise AssertionError(f"no memory at {address:#x}")
