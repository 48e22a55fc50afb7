"""Identification type, timestamp size, byte order and granularity: all shapes of DAQ give the same physical values."""
import itertools
import re
from concurrent.futures import ThreadPoolExecutor

import ecu_model
import recording_check
from a2l_text import A2l, display_text
from harness import SystemTest, main
from recording import Conversion

SECONDS = 0.5
IDENTIFICATION = (0, 1, 2, 3)
TIMESTAMPS = (0, 1, 2, 4)
ORDERS = ("intel", "motorola")
# The largest data packet makes several ODTs of every list.
MAX_DTO = 64
LINE = re.compile(r"^ *\d+\.\d{3}((?:  \S+=.*?)+)$")


class IdentificationTest(SystemTest):
    def test_granularity_1(self):
        self.run_all(1)

    def test_granularity_2(self):
        self.run_all(2)
        self.check_refusal(2)

    def test_granularity_4(self):
        self.run_all(4)
        self.check_refusal(4)

    def test_other_shapes(self):
        """Whatever else an ECU may do differently."""
        self.run_shapes(1, [
            ("--min-daq", 7, "--pack", 5), ("--identification", 0, "--first-pid", 60), ("--pad", 30),
            ("--identification", 0, "--overload", "pid"), ("--clock-start", 2 ** 32 - 300000),
            ("--timestamp-size", 1, "--timestamp-fixed"), ("--without", "GET_DAQ_RESOLUTION_INFO"),
            ("--without", "SHORT_UPLOAD", "--max-cto", 8), ("--clock-ppm", 300, "--byte-order", "motorola")])

    def run_all(self, granularity):
        """Every combination of the other three."""
        self.run_shapes(granularity, [
            ("--granularity", granularity, "--identification", i, "--timestamp-size", t, "--byte-order", order)
            for i, t, order in itertools.product(IDENTIFICATION, TIMESTAMPS, ORDERS)])

    def run_shapes(self, granularity, shapes):
        """Measures each shape of ECU, some at a time, and checks one after the other."""
        with ThreadPoolExecutor(max_workers=6) as pool:
            finished = list(pool.map(lambda shape: self.measure(granularity, *shape), shapes))
        for shape, run in zip(shapes, finished):
            with self.subTest(shape=shape):
                self.check(*run)

    def measure(self, granularity, *options):
        """Runs the tool once; returns the A2L file, the directory of the recording, the signals and the command."""
        sim = self.start_sim("--max-dto", MAX_DTO, *options)
        rows = ecu_model.measurements().values()
        names = [row.name for row in rows if row.size % granularity == 0]
        directory = sim.a2l.parent / "recording"
        signals = [argument for row in rows if row.name in names for argument in ("-s", f"{row.name}@{row.event}")]
        done = self.run_cli(sim, "measure", "-t", SECONDS, "-p", "1", "-r", directory, *signals)
        sim.kill()
        return sim.a2l, directory, names, done

    def check(self, a2l, directory, names, done):
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn(f"measuring {len(names)} signal(s) in 4 DAQ list(s), ", done.stderr)
        recording = recording_check.check(self, directory, a2l, names)
        told = recording_check.records_without_loss(self, done.stderr)
        self.assertEqual(told, sum(len(group.records) for group in recording.groups))
        lines = done.stdout.splitlines()
        self.assertEqual(len(lines), told)
        self.check_lines(A2l(a2l.read_text(encoding="utf-8")), names, lines)

    def check_lines(self, a2l, names, lines):
        """Each printed line holds the values of one sample of one event, in the order asked for."""
        rows = ecu_model.measurements()
        conversions = {name: Conversion(a2l.signal(name)["conversion"]) for name in names}
        parameters = ecu_model.Parameters()
        for line in lines:
            self.assertRegex(line, LINE)
            texts = re.split(r"  (?=\S+=)", line)[1:]
            counter, n = texts[0].split("=")
            event = ecu_model.COUNTERS.index(counter)
            expected = []
            for name in (name for name in names if rows[name].event == event):
                conversion = conversions[name]
                unit = f" {conversion.unit}" if conversion.unit and conversion.kind != "verbal" else ""
                expected.append(f"{name}={display_text(conversion, rows[name].raw(int(n), parameters))}{unit}")
            self.assertEqual(texts, expected)

    def check_refusal(self, granularity):
        """An object whose size is no multiple of the granularity can be neither measured nor read."""
        sim = self.start_sim("--granularity", granularity, "--max-dto", MAX_DTO)
        for name in ("throttle", "gear"):
            done = self.run_cli(sim, "measure", "-t", "1", "-s", f"{name}@1", "-s", "counter_10ms@1")
            self.assertEqual((done.returncode, done.stdout), (1, ""))
            limit = (MAX_DTO - 1) // granularity * granularity
            self.assertEqual(done.stderr, f"measure: signal of 1 bytes does not fit into an ODT entry (max {limit})\n")
            done = self.run_cli(sim, "get", name, "counter_10ms")
            self.assertEqual(done.returncode, 1)
            self.assertRegex(done.stdout, f"^{name:<50} ERROR upload size must be a non-zero multiple of AG\n"
                                          f"{'counter_10ms':<50} \\d+\n$")


if __name__ == "__main__":
    main()
