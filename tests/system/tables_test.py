"""Curves, maps, arrays and structures of the simulated ECU, seen from outside: bytes are written where its A2L file says they
lie, single elements are measured at addresses calculated from it, and all values are those of docs/simulator.md."""
import re
import struct
import unittest

import ecu_model
from a2l_text import A2l
from harness import record
from recording import Recording
from recording_check import ModelCase
from value_coding import TYPES

ALL = ({}, 1)
WIDE = ({"--byte-order": "motorola", "--granularity": 4, "--max-dto": 1400}, 4)


def place_of(a2l, path):
    """The address of a leaf of an instance, or of a whole measurement."""
    name, *parts = path.split(".")
    if not parts:
        return int(A2l.option(a2l.words("MEASUREMENT", name), "ECU_ADDRESS"), 16)
    kind, address = a2l.words("INSTANCE", name)[1:3]
    address = int(address, 16)
    for part in parts:
        component, index = re.fullmatch(r"(\w+)(?:\[(\d+)\])?", part).groups()
        words = a2l.words("TYPEDEF_STRUCTURE", kind)
        at = next(i for i, word in enumerate(words) if word == "STRUCTURE_COMPONENT" and words[i + 1] == component)
        kind, address = words[at + 2], address + int(words[at + 3])
        address += int(index) * int(a2l.words("TYPEDEF_STRUCTURE", kind)[1]) if index else 0
    return address


# What A2L 1.61 does not know.
NEWER = ("TYPEDEF_", "STRUCTURE", "INSTANCE", "THIS.", "BLOB", "ENCODING", "ADDRESS_TYPE", "FLOAT16_IEEE", "MATRIX_DIM 4\n")


class TablesTest(ModelCase):
    def test_each_version_of_the_description_is_whole(self):
        for version, newer in (("1.71", NEWER), ("1.61", ())):
            text = self.write_a2l("--a2l-version", version).read_text(encoding="utf-8")
            self.assertTrue(text.startswith(f"ASAP2_VERSION {version.replace('.', ' ')}\n"))
            self.assertEqual(tuple(word for word in NEWER if word in text), newer)
            known = set(re.findall(r"/begin (?!AXIS_DESCR|STRUCTURE_COMPONENT)[A-Z_]+ ([\w.\[\]]+)", text))
            lists = re.findall(r"(?s)/begin ((?:SUB|REF|DEF|IN|OUT|LOC)_\w+)\s+(.*?)\s+/end", text)
            for _, names in lists:
                self.assertEqual([name for name in names.split() if {name, name.partition(".")[0]}.isdisjoint(known)], [])
            grouped = [name for kind, names in lists if kind.startswith("REF_") for name in names.split()]
            objects = re.findall(r"/begin (?:MEASUREMENT|CHARACTERISTIC|AXIS_PTS|BLOB|INSTANCE) (\S+)", text)
            self.assertEqual(set(objects) - set(grouped), set())
            used = re.findall(r"\b((?:RL|CM)\.\w+) [-\w]", text) + re.findall(r"_REF (\w\S+)", text)
            self.assertEqual({name for name in used if not name.startswith("THIS.")} - known, set())

    def test_what_is_calibrated_is_measured(self):
        """Fewer points than before, so that values move in memory, and other numbers."""
        torque = ecu_model.Table([10, 40, 90, 150, 199], [5.5, -3.25, 80, 20, 120])
        ignition = ecu_model.Table([3300, 3600, 4100, 4300, 4900, 5100], [(37 * k) % 101 - 50 for k in range(48)],
                                   ecu_model.tables()["cal_ignition_map"].y)
        for options, granularity in (ALL, WIDE):
            with self.subTest(granularity=granularity):
                sim = self.start_sim(*(word for pair in options.items() for word in pair))
                prefix = ">" if options else "<"
                a2l = A2l(sim.a2l.read_text(encoding="utf-8"))
                self.poke(sim, {
                    a2l.words("CHARACTERISTIC", "cal_torque_curve")[2]: struct.pack(prefix + "B5B2x5f", 5, *torque.x, *torque.w),
                    a2l.words("AXIS_PTS", "cal_speed_axis")[1]: struct.pack(prefix + "HH6H", 6, 0, *ignition.x),
                    a2l.words("CHARACTERISTIC", "cal_ignition_map")[2]: struct.pack("48b", *ignition.w)})
                parameters = self.type_parameters(sim, granularity)
                parameters.cal_torque_curve, parameters.cal_ignition_map = torque, ignition
                self.check_elements(sim, a2l, parameters, granularity)

    def add(self, sim, blocks):
        text = sim.a2l.read_text(encoding="utf-8")
        sim.a2l.write_text(text.replace("  /end MODULE", "\n".join(blocks) + "\n  /end MODULE"), encoding="utf-8")

    def poke(self, sim, contents):
        """Writes bytes, four at a time, each four as a parameter of its own."""
        blocks, assignments = [], []
        for address, data in contents.items():
            for at in range(0, len(data), 4):
                name = f"poke_{len(blocks)}"
                blocks.append(f'/begin CHARACTERISTIC {name} "" VALUE {int(address, 16) + at:#x} RL.ULONG 0 NO_COMPU_METHOD '
                              "0 4294967295 BYTE_ORDER MSB_LAST /end CHARACTERISTIC")
                assignments.append(f"{name}={int.from_bytes(data[at:at + 4], 'little')}")
        self.add(sim, blocks)
        done = self.run_cli(sim, "set", *assignments)
        self.expect(done, done.stdout)

    def check_elements(self, sim, a2l, parameters, granularity):
        """Measures them as measurements of their own, beside those that the map and the curve drive."""
        rows = ecu_model.measurements()
        measured = {name: (rows[name], 0) for name in
                    ("counter_10ms", "counter_100ms", "engine_speed", "rel_load", "ignition_advance", "torque_request")
                    if rows[name].field.size % granularity == 0}
        blocks = []
        for path, first, last, row in ecu_model.elements():
            for i in range(first, last + 1):
                if row.field.size % granularity:
                    continue
                name, size = f"element_{len(blocks)}", TYPES[row.field.type][0]
                blocks.append(f'/begin MEASUREMENT {name} "{path}" {row.field.type} NO_COMPU_METHOD 0 0 -1e9 1e9 '
                              f"ECU_ADDRESS {place_of(a2l, path) + (i - first) * size:#x} /end MEASUREMENT")
                measured[name] = row, i
        self.assertGreater(len(blocks), 12)
        self.add(sim, blocks)
        directory = self.dir / f"recording{granularity}"
        done = self.run_cli(sim, *record(directory, [f"{name}@{row.event}" for name, (row, _) in measured.items()], 2))
        self.assertEqual(done.returncode, 0, done.stderr)
        for group in Recording(directory).groups:
            counts = group.counters()
            self.assertTrue(counts, group.name)
            for signal in group.signals:
                row, i = measured[signal.name]
                self.assertEqual([signal.raw(data) for data in group.records], [row.raw(n, parameters, i) for n in counts],
                                 signal.meta)


if __name__ == "__main__":
    unittest.main()
