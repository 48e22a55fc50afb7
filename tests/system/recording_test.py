"""Recordings of 40 signals in three events: nothing is lost, every value is the one of the ECU's model."""
import os
import time
import unittest

import ecu_model
import recording_check
from harness import SystemTest, signals

SECONDS = float(os.environ.get("XCPLUMO_LONG_SECONDS", "4"))


def forty_signals():
    """The counter and the last rows of each cyclic event: all conversions, all masks, most types."""
    rows = [row for row in ecu_model.measurements().values() if row.name not in ecu_model.COUNTERS]
    names = []
    for event, count in ((0, 13), (1, 12), (2, 12)):
        names += [ecu_model.COUNTERS[event]] + [row.name for row in rows if row.event == event][-count:]
    return names


class RecordingTest(SystemTest):
    def test_forty_signals_hold_the_values_of_the_model(self):
        names = forty_signals()
        self.assertEqual(len(names), 40)
        sim = self.start_sim()
        parameters = self.type_parameters(sim)
        rows, directory = ecu_model.measurements(), self.dir / "recording"
        before = time.monotonic_ns(), time.time_ns()
        done = self.run_cli(sim, "measure", "-t", SECONDS, "-r", directory, "-p", "0",
                            *signals(f"{name}@{rows[name].event}" for name in names), timeout=SECONDS + 60)
        after = time.monotonic_ns(), time.time_ns()
        self.expect(done, err=done.stderr)
        recording = recording_check.check(self, done.stderr, directory, sim.a2l, names, parameters)
        self.assertIn("measuring 40 signal(s) in 3 DAQ list(s), estimated bus load 0.0 %, recording to ", done.stderr)
        self.check_head(recording.meta, sim, before, after)
        for group in recording.groups:
            self.check_times(group, recording.meta["startHostNs"], after[0])

    def check_head(self, meta, sim, before, after):
        self.assertEqual([meta[key] for key in ("formatVersion", "source", "name", "ecu")],
                         [2, f"XCP on UDP 127.0.0.1:{sim.port}", "recording", "SimulatedEcu"])
        self.assertTrue(before[0] <= meta["startHostNs"] <= after[0], meta["startHostNs"])
        self.assertTrue(before[1] <= meta["startUtcNs"] <= after[1], meta["startUtcNs"])

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
