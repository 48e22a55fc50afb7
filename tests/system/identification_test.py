"""Identification type, timestamp size, byte order and granularity: all shapes of DAQ give the same physical values."""
import itertools
import re
import unittest
from concurrent.futures import ThreadPoolExecutor

import ecu_model
from a2l_text import display_text
from harness import EVERY, signals, value_line
from recording_check import EVENTS, ModelCase

# The largest data packet makes several ODTs of every list.
MAX_DTO = 64
# A counter of one byte that wraps within the measurement, but not twice in any time for which a machine may stall.
SHORT = ("--timestamp-size", 1, "--tick-unit", 7, "--clock-start", 230, "--fast-event-us", 20000)
SHORT_EVENTS = (("cyclic_20ms", 20000000), *EVENTS[1:])


class IdentificationTest(ModelCase):
    def test_granularity_1(self):
        self.run_all(1)

    def test_granularity_2(self):
        self.run_all(2)

    def test_granularity_4(self):
        self.run_all(4)

    def test_other_shapes(self):
        """Whatever else an ECU may do differently."""
        self.run_shapes(1, [
            ("--min-daq", 7, "--pack", 5), ("--identification", 0, "--first-pid", 60), ("--pad", 30),
            ("--identification", 0, "--overload", "pid"), ("--clock-start", 2 ** 32 - 300000),
            (*SHORT, "--timestamp-fixed"), ("--without", "GET_DAQ_RESOLUTION_INFO"),
            ("--without", "SHORT_UPLOAD", "--max-cto", 8), ("--clock-ppm", 300, "--byte-order", "motorola")])

    def run_all(self, granularity):
        """Combinations of identification type, timestamp size and byte order."""
        self.run_shapes(granularity, [
            ("--granularity", granularity, "--identification", i, *stamp, "--byte-order", order)
            for i, stamp, order in itertools.product(
                range(4), [SHORT, *(("--timestamp-size", size) for size in (0, 2, 4))], ("intel", "motorola"))][::EVERY])
        if granularity > 1:
            self.check_refusal(granularity)

    def run_shapes(self, granularity, shapes):
        """Measures each shape of ECU, some at a time, and checks one after the other."""
        names = [row.name for row in ecu_model.measurements().values() if row.field.size % granularity == 0]

        def measure(shape):
            sim = self.start_sim("--max-dto", MAX_DTO, *shape)
            program = self.start_measured(sim, names, 0.5, granularity=granularity, every=1)
            program.finish()
            sim.kill()
            return program

        with ThreadPoolExecutor(max_workers=6) as pool:
            finished = list(pool.map(measure, shapes))
        for shape, program in zip(shapes, finished):
            with self.subTest(shape=shape):
                self.check(names, program, SHORT_EVENTS if set(SHORT) <= set(shape) else EVENTS)

    def check(self, names, program, events):
        self.assertIn(f"measuring {len(names)} signal(s) in 4 DAQ list(s), ", program.err)
        # Each line holds the values of one record, in the order asked for.
        expected = []
        for group in self.check_measured(program, events).groups:
            ordered = sorted(group.signals, key=lambda signal: names.index(signal.name))
            expected += ["".join(f"  {s.name}={self.text(s.conversion, s.raw(record))}" for s in ordered)
                         for record in group.records]
        lines = [re.sub(r"^ *\d+\.\d{3}(?=  )", "", line) for line in program.out.splitlines()]
        self.assertEqual(sorted(lines), sorted(expected))

    @staticmethod
    def text(conversion, raw):
        unit = f" {conversion.unit}" if conversion.unit and conversion.kind != "verbal" else ""
        return display_text(conversion, raw) + unit

    def check_refusal(self, granularity):
        """An object whose size is no multiple of the granularity can be neither measured nor read."""
        sim = self.start_sim("--granularity", granularity, "--max-dto", MAX_DTO)
        limit = (MAX_DTO - 1) // granularity * granularity
        self.expect(self.run_cli(sim, "measure", *signals(["gear@1", "counter_10ms@1"])), code=1,
                    err=f"measure: signal of 1 bytes does not fit into an ODT entry (max {limit})\n")
        self.expect(self.run_cli(sim, "get", "gear", "cal_ulong_lsb"), code=1,
                    out=value_line("gear", "ERROR upload size must be a non-zero multiple of AG")
                    + value_line("cal_ulong_lsb", "0"))


if __name__ == "__main__":
    unittest.main()
