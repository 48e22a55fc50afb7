"""Recordings of 40 signals in three events: nothing is lost, every value is the one of the ECU's model."""
import hashlib
import time
import unittest

from harness import stop
from recording import Recording
from recording_check import ModelCase, forty_signals


class RecordingTest(ModelCase):
    def test_forty_signals_hold_the_values_of_the_model(self):
        names = forty_signals()
        self.assertEqual(len(names), 40)
        sim = self.start_sim()
        self.env["TZ"] = "HERE-5:30"
        before = time.monotonic_ns(), time.time_ns()
        program = self.start_measured(sim, names, 4)
        program.finish()
        after = time.monotonic_ns(), time.time_ns()
        recording = self.check_measured(program)
        self.assertEqual(program.out, "")
        self.assertIn("measuring 40 signal(s) in 3 DAQ list(s), estimated bus load 0.0 %, recording to ", program.err)
        meta = recording.meta
        self.assertEqual([meta[key] for key in ("formatVersion", "source", "name", "ecu")],
                         [2, f"XCP on UDP 127.0.0.1:{sim.port}", "recording", "SimulatedEcu"])
        self.assertEqual([meta[key] for key in ("utcOffsetMin", "a2lName", "a2lSha256")],
                         [330, sim.a2l.name, hashlib.sha256(sim.a2l.read_bytes()).hexdigest()])
        for key, earliest, latest in zip(("startHostNs", "startUtcNs"), before, after):
            self.assertTrue(earliest <= meta[key] <= latest, meta)
        for group in recording.groups:
            self.check_times(group, meta["startHostNs"], after[0])

    def test_what_is_told_beside_the_records(self):
        sim, here = self.start_sim(), self.dir / "here"
        here.mkdir()
        measure = ["measure", "-t", 0.2, "-s", "counter_1ms@0", "-r"]
        done = self.run_cli(sim, *measure, ".", cwd=here)
        recording = Recording(here)
        self.assertEqual(recording.meta["name"], "here")
        zero = (recording.groups[0].timestamps[0] - recording.meta["startHostNs"]) / 1e9
        self.assertIn(f"printed times count from the first record, {abs(zero):.3f} s {'before' if zero < 0 else 'after'} "
                      "the start of the recording\n", done.stderr)
        self.assertIn("measure: -r names no directory", self.run_cli(sim, *measure, "").stderr)
        program = self.start_cli(sim, "measure", "-p", 0, "-t", 1e13, "-s", "counter_1ms@0", "-r", self.dir / "long")
        program.wait_for_err("measuring 1 signal(s)")
        self.assertEqual(stop(program)[0], 0)
        self.assertRegex(program.err, f"recording: the disk of {self.dir}/long will not hold the measurement: it is full in about ")

    def check_times(self, group, start, end):
        """The times lie in the measurement and follow the ECU's clock, not the jitter of the reception."""
        cycle = group.meta["cycleNs"]
        times = group.timestamps
        self.assertTrue(start - 2 * cycle <= times[0] and times[-1] <= end, (start, times[0], times[-1], end))
        deviations = sorted(abs(b - a - cycle) for a, b in zip(times, times[1:]))
        self.assertLess(deviations[int(len(deviations) * 0.9)], cycle / 100, group.name)
        drift = abs((times[-1] - times[0]) - cycle * (len(times) - 1))
        self.assertLess(drift, 50e6, group.name)


if __name__ == "__main__":
    unittest.main()
