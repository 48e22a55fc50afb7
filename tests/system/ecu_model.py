"""The world of the simulated ECU, recomputed from its page: docs/simulator.md is read and its table evaluated."""
import re
import struct
from pathlib import Path

from recording import TYPES

PAGE = Path(__file__).resolve().parents[2] / "docs" / "simulator.md"
HELPERS = {"tri": lambda n, period: min(n % period, period - n % period) if period > 0 else 0,
           "div": lambda a, b: a // b, "real": float}
# Raw values at the start, of what drives the model.
PARAMETERS = {"cal_injector": 1, "cal_idle_speed": 3200, "cal_gain": 1.0, "cal_wave_period": 1000,
              "cal_wave_offset": 0.0, "cal_ignition_trim": 0, "cal_pressure_offset": 0, "setpoint_rw": 1.5}
COUNTERS = ("counter_1ms", "counter_10ms", "counter_100ms", "counter_async")


class Parameters:
    def __init__(self, **raw):
        self.__dict__.update(PARAMETERS, **raw)


class Measurement:
    """One row of the table."""

    def __init__(self, name, type_name, order, mask, event, expression):
        self.name = name
        self.type = type_name
        self.order = order
        self.event = int(event)
        self.mask = 0 if mask == "-" else int(mask, 16)
        self.size, self.coding = TYPES[type_name]
        self.value = eval(f"lambda n, p: {expression.strip('`')}", dict(HELPERS))  # pylint: disable=eval-used

    def raw(self, n, parameters):
        """The raw value at sample n, as a field of its type and mask holds it."""
        value = self.value(n, parameters)
        if self.coding in "efd":
            return struct.unpack(self.coding, struct.pack(self.coding, value))[0]
        shift = (self.mask & -self.mask).bit_length() - 1 if self.mask else 0
        width = (self.mask >> shift).bit_length() if self.mask else 8 * self.size
        value = int(value) % (1 << width)
        return value - (1 << width) if self.coding == "signed" and value >> (width - 1) else value


def measurements():
    """All rows of the table, by name."""
    rows = re.findall(r"^\| (\S+) \| (\S+) \| (module|MSB_\w+) \| (\S+) \| (\d) \| (`.*`) \|$",
                      PAGE.read_text(encoding="utf-8"), re.MULTILINE)
    return {row[0]: Measurement(*row) for row in rows}


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
