"""Recordings of 40 signals in three events: nothing is lost, every value is the one of the ECU's model."""
import math
import os
import struct
import time

import ecu_model
import recording_check
from a2l_text import characteristic, module, record_layouts
from harness import SystemTest, main
from recording import Recording

SECONDS = float(os.environ.get("XCPLUMO_LONG_SECONDS", "4"))
# The model's inputs: what is typed, and the raw value that it means.
TYPED = {"cal_gain": ("2.5", 2.5), "cal_wave_period": ("370", 370), "cal_wave_offset": ("-7.75", -7.75),
         "cal_ignition_trim": ("3.5", 7), "cal_pressure_offset": ("-123", -123), "cal_idle_speed": ("750", 3000),
         "setpoint_rw": ("12.25", 12.25)}


def forty_signals():
    """The counter and the last rows of each cyclic event: all conversions, all masks, most types."""
    rows = [row for row in ecu_model.measurements().values() if row.name not in ecu_model.COUNTERS]
    names = []
    for event, count in ((0, 13), (1, 12), (2, 12)):
        names += [ecu_model.COUNTERS[event]] + [row.name for row in rows if row.event == event][-count:]
    return names


class RecordingTest(SystemTest):
    def record(self, sim, names, seconds):
        """Measures the signals with a recording to the end; returns the finished command."""
        rows = ecu_model.measurements()
        signals = [argument for name in names for argument in ("-s", f"{name}@{rows[name].event}")]
        done = self.run_cli(sim, "measure", "-t", seconds, "-r", self.dir / "recording", "-p", "0", *signals,
                            timeout=seconds + 60)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done

    def test_forty_signals_hold_the_values_of_the_model(self):
        names = forty_signals()
        self.assertEqual(len(names), 40)
        sim = self.start_sim()
        done = self.run_cli(sim, "set", *(f"{name}={text}" for name, (text, _) in TYPED.items()))
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        before = time.monotonic_ns(), time.time_ns()
        done = self.record(sim, names, SECONDS)
        after = time.monotonic_ns(), time.time_ns()
        parameters = ecu_model.Parameters(**{name: raw for name, (_, raw) in TYPED.items()})
        recording = recording_check.check(self, self.dir / "recording", sim.a2l, names, parameters)
        told = recording_check.records_without_loss(self, done.stderr)
        self.assertEqual(told, sum(len(group.records) for group in recording.groups))
        self.assertIn("measuring 40 signal(s) in 3 DAQ list(s), estimated bus load 0.0 %, recording to ", done.stderr)
        self.check_head(recording.meta, sim, before, after)
        for group in recording.groups:
            self.check_times(group, recording.meta["startHostNs"], after[0])
        if "XCPLUMO_LONG_SECONDS" in os.environ:
            print("\n" + "\n".join([*map(recording_check.figures, recording.groups), done.stderr.strip()]))

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
        deviations = recording_check.spacing(group)
        self.assertLess(deviations[int(len(deviations) * 0.9)], cycle / 100, recording_check.figures(group))
        drift = abs((times[-1] - times[0]) - cycle * (len(times) - 1))
        self.assertLess(drift, 50e6, recording_check.figures(group))

    def test_levels_of_values_that_no_float_holds(self):
        """Constant signals; NaN and infinity reach the memory byte by byte."""
        values = (1e300, -1e300, math.nan, math.inf, -math.inf, 0.1, -0.1, 1e-320, -5e-324, 16777217.0, 3.4028235e38,
                  -0.0)
        data = struct.pack(f"<{len(values)}d", *values)
        text = record_layouts(["UBYTE"])
        for i in range(len(data)):
            text += characteristic(f"b{i}", 0x10000 + i, "UBYTE", "MSB_LAST", 0, "NO_COMPU_METHOD", ("0", "255"))
        for i in range(len(values)):
            text += (f'/begin MEASUREMENT m{i} "" FLOAT64_IEEE NO_COMPU_METHOD 0 0 0 0\n'
                     f"ECU_ADDRESS {0x10000 + 8 * i:#x}\n/end MEASUREMENT\n")
        sim = self.start_sim()
        sim.a2l.write_text(module(text), encoding="utf-8")
        self.assertEqual(self.run_cli(sim, "set", *(f"b{i}={byte}" for i, byte in enumerate(data))).returncode, 0)
        signals = [argument for i in range(len(values)) for argument in ("-s", f"m{i}@0")]
        done = self.run_cli(sim, "measure", "-t", "0.5", "-r", self.dir / "recording", "-p", "100000", *signals)
        self.assertEqual(done.returncode, 0, done.stderr)
        shown = " ".join(done.stdout.split()[1:])
        self.assertEqual(shown, " ".join(f"m{i}={value:g}" for i, value in enumerate(values)))
        group, = Recording(self.dir / "recording").groups
        self.assertGreater(len(group.levels), 1)
        for signal, value in zip(group.signals, values):
            self.assertEqual({repr(signal.raw(record)) for record in group.records}, {repr(value)})
        recording_check.check_levels(self, group)


if __name__ == "__main__":
    main()
