"""The ECU's clock drifts, wanders, wraps, jumps and begins anew: recorded times stay in order, near the truth, complete.

The simulated ECU tells when it started, so the true time of each sample follows from its counter. A case is the size of
the timestamp in bytes, the exponent of its tick, the drift in ppm, the seconds after which it turns, what happens to the
clock or the samples half a second on, by how many milliseconds, and the seconds measured.
"""
import itertools
import math
import subprocess
import time

import campaign
import harness

MS = 1_000_000
CYCLES = (MS, 10 * MS)
LAYOUTS = ((4, 3), (4, 0), (2, 5), (2, 4), (2, 3), (1, 6))  # wraps of 71 min, 4.3 s, 6.6 s, 655 ms, 66 ms, 256 ms
# Where a busy host stalls for most of a wrap, nobody can tell how often the counter has wrapped meanwhile.
REAL_TIME = ["chrt", "--rr", "1"]
if subprocess.run([*REAL_TIME, "true"], capture_output=True, check=False).returncode != 0:
    REAL_TIME, LAYOUTS = [], LAYOUTS[:3]
BEFORE, BEHIND = 0.6, 2.0 if REAL_TIME else 500.0  # milliseconds: the guard at the start; delays of the host
START_MS = 200  # until some packets have come quickly
LAG_OF_DRIFT = 9.5  # milliseconds for 1000 ppm
SET_BACK = 100  # from so many on, the clock counts as a new one


def wrap_ms(size, unit):
    return 256 ** size * 10 ** unit / MS


def waited_for(jump, wrap):
    """Milliseconds by which a counter that jumped stands behind and is waited for, at the most."""
    most = min(SET_BACK, wrap / 2)
    if jump == 0:  # to 0, from where it was after some 600 ms and more
        return most if wrap < 2000 else 0
    back = wrap - jump % wrap
    return back if back < most else 0


def host_time(ecu_ns, ppm, turn_ns):
    """Nanoseconds since the start, on the host's clock, when the ECU's shows so many."""
    drift = ppm / 1e6
    if not turn_ns:
        return ecu_ns / (1 + drift)
    phase = ecu_ns % (2 * turn_ns)
    return ecu_ns - drift * min(phase / (1 + drift), (2 * turn_ns - phase) / (1 - drift))


class Clocks(campaign.Campaign):
    def start(self, arguments, **streams):
        return super().start([*REAL_TIME, *arguments], **streams)

    def run_case(self, size, unit, ppm, turn, kind, milliseconds, seconds):
        size, unit, ppm, turn, milliseconds = int(size), int(unit), int(ppm), float(turn), int(milliseconds)
        sim = self.start_sim("--timestamp-size", size, "--tick-unit", unit, "--clock-ppm", ppm,
                             *(["--clock-wander", turn] if turn else []),
                             *(["--fault", f"{kind}:DAQ:550:1:{milliseconds}"] if kind != "steady" else []))
        directory = self.dir / "recording"
        config = self.quick_config(reconnect={"heartbeatMs": 60000})
        tool = self.start_cli(sim, "-c", config, *harness.record(directory, ["counter_1ms@0", "counter_10ms@1"], seconds))
        self.assertEqual(tool.finish(), 0, tool.err)
        ended = time.monotonic_ns()
        told, groups = self.statistics(tool.err, directory)
        happened = harness.counters(sim)
        self.assertEqual(told["recorded"], happened["samples"])
        earliest = BEFORE + LAG_OF_DRIFT * abs(ppm) / 1000 + 10 ** unit / MS
        earliest += waited_for(milliseconds, wrap_ms(size, unit)) if kind == "jump" else 0
        missed = 0
        for group, cycle in zip(groups, CYCLES):
            counts = group.counters()
            missed += counts[-1] - counts[0] + 1 - len(counts)
            lags = [(stamp - happened["start-ns"] - host_time(n * cycle, ppm, turn * 1e9)) / MS
                    for stamp, n in zip(group.timestamps, counts)]
            self.assertGreaterEqual(min(lags), -earliest)
            self.assertLessEqual(max(lags[START_MS * MS // cycle:]), BEHIND)
            self.assertLessEqual(group.timestamps[-1], ended)
        self.assertEqual(missed > 0, kind == "silence")
        # Cycles are counted on the host's clock, whose difference shows in a pause. A clock set forward cannot be told
        # from packets that were late before: the guard for these may pass for cycles.
        unsure = round(BEFORE + 10 ** unit / MS) if kind == "jump" else math.ceil(missed * abs(ppm) * 1.1e-6)
        self.assertAlmostEqual(told["missed cycles"], missed, delta=unsure)
        self.assertEqual([told["lost ODTs"], told["overloads"], told["reconnects"]], [0, 0, 0])


def cases():
    for ppm, turn, layout in itertools.product((100, -100, 1000, -1000), (0, 3), LAYOUTS):
        yield *layout, ppm, turn, "steady", 0, 12
    for pause, ppm, layout in itertools.product((30, 70, 270, 700, 5000), (0, 1000), LAYOUTS):
        yield *layout, ppm, 0, "silence", pause, 3 + pause / 1000
    for late, layout in itertools.product((30, 130, 400, 3000), LAYOUTS):
        if late < 0.7 * wrap_ms(*layout):
            yield *layout, 0, 0, "stall", late, 3 + late / 1000
    for jump, layout in itertools.product((0, 1, -1, 5, -5, 20, -20, 120, -120, 400, -400, 2000, -2000, 20000, -20000), LAYOUTS):
        yield *layout, 0, 0, "jump", jump, 6


if __name__ == "__main__":
    campaign.main("clocks", Clocks, cases)
