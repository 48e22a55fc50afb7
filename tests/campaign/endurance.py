"""An hour beside an engine: two measurements and a console, while their ECUs restart, fall silent, end, are unplugged.

    endurance.py [MINUTES]

Memory, descriptors and threads stay flat, every record lost is told, and no line of the console is lost or doubled.
"""
import collections
import itertools
import json
import os
import re
import signal
import struct
import subprocess
import sys
import time
from pathlib import Path

import campaign
import harness

BETWEEN_DISTURBANCES_S = 180
BETWEEN_SAMPLES_S = 10
WARM_S = 300
GROWTH_KB = 1024  # of memory after the warm-up
CUT_BY_A_PULL = 64  # frames: what a pseudo-terminal holds
PAUSE_NS = 500_000_000
LOSSES = ("--fault", "lose-datagram:4999", "--fault", "overload:9973")
AWAY = {"restart": (signal.SIGUSR1, None), "silence": (signal.SIGUSR2, signal.SIGUSR2),
        "pulled": (signal.SIGRTMIN, signal.SIGRTMIN), "gone": (None, None)}
Sample = collections.namedtuple("Sample", "at memory threads descriptors")


class Watched:
    """A running tool and its ECU. What it tells from `mark` on can be waited for."""
    lost, back = "** reconnecting: ", "** measuring: reconnected after "
    recording = None

    def __init__(self, test, sim, *arguments, stdin=subprocess.DEVNULL):
        self.test, self.sim, self.samples = test, sim, []
        self.away, self.made = collections.Counter(), collections.Counter()
        self.program = test.start(test.arguments(sim, *arguments), stdin=stdin)
        self.told = self.program.err_path
        self.mark = 0

    def wait_for(self, text):
        def come():
            with open(self.told, "rb") as file:
                file.seek(self.mark)
                return text.encode() in file.read()
        self.program.wait_for(come, repr(text))

    def disturb(self, kind):
        self.mark = self.told.stat().st_size
        self.away[kind] += 1
        if kind == "gone":
            self.count()
        else:
            self.sim.signal(AWAY[kind][0])
        self.wait_for(self.lost)

    def undo(self, kind):
        if kind == "gone":
            self.sim = self.test.start_sim(*LOSSES, port=self.sim.port)
        elif AWAY[kind][1]:
            self.sim.signal(AWAY[kind][1])
        self.wait_for(self.back)

    def count(self):
        """Ends the ECU; returns the counters of all that there were."""
        self.made.update(harness.counters(self.sim))
        return self.made

    def sample(self, at):
        pid = self.program.process.pid
        status = dict(line.split(":", 1) for line in Path(f"/proc/{pid}/status").read_text("ascii").splitlines())
        open_files = [os.readlink(entry) for entry in Path(f"/proc/{pid}/fd").iterdir()]
        # A recording opens a file for each summary level as it grows; those are all there have to be.
        inside = [name for name in open_files if self.recording and name.startswith(f"{self.recording}/")]
        self.test.assertEqual(len(set(inside)), len(inside))
        self.samples.append(Sample(at, int(status["VmRSS"].split()[0]), int(status["Threads"]),
                                   len(open_files) - len(inside)))

    def judge(self, total):
        """Returns what is told of it."""
        test, warm_s = self.test, min(WARM_S, total / 3)
        warm = [sample.memory for sample in self.samples if sample.at <= warm_s]
        rest = [sample.memory for sample in self.samples if sample.at > warm_s]
        test.assertTrue(warm and rest, self.samples)
        flat = {(sample.threads, sample.descriptors) for sample in self.samples}
        test.assertEqual(len(flat), 1, self.samples)
        test.assertLess(max(rest) - max(warm), GROWTH_KB, self.samples)
        test.assertEqual(harness.stop(self.program)[0], 0, self.program.err[-2000:])
        threads, descriptors = flat.pop()
        return (f"{sum(self.away.values())} disturbances, {len(self.samples)} samples, {max(warm)} kB "
                f"to {warm_s:.0f} s, {max(rest)} kB after, {threads} threads, {descriptors} descriptors")


class Measurement(Watched):
    def __init__(self, test, sim, *events, options=()):
        self.recording = test.dir / f"recording{len(list(test.dir.iterdir()))}"
        super().__init__(test, sim, "--reconnect", "retry_forever", *options, *harness.record(self.recording, events))
        self.wait_for("measuring ")

    def rows(self):
        """Timestamp and counter of each record, list by list."""
        groups = json.loads((self.recording / "meta.json").read_text("utf-8"))["groups"]
        for number, group in enumerate(groups):
            self.test.assertEqual(group["recordSize"], 4)
            with open(self.recording / f"g{number:04}.rec", "rb") as file:
                file.seek(32)
                parts = iter(lambda f=file: f.read(12 << 16), b"")
                yield itertools.chain.from_iterable(struct.iter_unpack("<qI", part) for part in parts)

    def judge(self, total):
        text = super().judge(total)
        test, told, err = self.test, collections.Counter(), self.program.err
        statistics = re.findall(r"(?m)^\d+\.\d s: (\d+) records, (.*)$", err)
        test.assertEqual(len(statistics), 1, err[-2000:])
        told["records"] = int(statistics[0][0])
        for line in [statistics[0][1], *re.findall(r"(?m)measure: (.*)$", err)]:
            told.update({name: int(number) for name, number in re.findall(r"([A-Za-z][A-Za-z ]*) (\d+)", line)})
        made = self.count()
        test.assertGreaterEqual(told["reconnects"], sum(self.away.values()))
        test.assertEqual((told["records"], told["dropped"]), (told["recorded"], 0))
        breaks = recorded = 0
        for rows in self.rows():
            recorded += 1
            pauses = 0
            for (before, was), (now, value) in itertools.pairwise(rows):
                recorded += 1
                test.assertGreaterEqual(now, before)
                pauses += now - before > PAUSE_NS
                breaks += value != was + 1
            test.assertGreaterEqual(pauses, sum(self.away.values()))
        lost = told["UDP packets missing"] + told["overloads"]
        # An ECU that is back with its old lists is cut off once more by the reconnection itself.
        test.assertLessEqual(breaks, lost + 2 * 2 * told["reconnects"])
        test.assertEqual(recorded, told["recorded"])
        unseen = made["samples"] - recorded - lost - made["send-failures"]
        # The last packets before an end are missed by nobody; what lies in an unplugged line is gone.
        test.assertTrue(0 <= unseen <= self.away["gone"] + CUT_BY_A_PULL * self.away["pulled"], (unseen, made, told))
        return (f"{text}; {made['samples']} samples = {recorded} recorded + {told['UDP packets missing']} told missing "
                f"+ {told['overloads']} overloads + {made['send-failures']} into an unplugged line + {unseen} cut at its "
                f"end, {told['reconnects']} reconnects")


class Console(Watched):
    lost, back = "", ""

    def __init__(self, test, sim):
        self.keys_out, self.keys = os.pipe()
        super().__init__(test, sim, "console", stdin=self.keys_out)
        self.typed = 0
        self.told = self.program.out_path
        self.wait_for("  diag ")

    def disturb(self, kind):
        self.lost, self.back = {"pulled": ("  -- connection lost: ", "  -- connected"),
                                "restart": ("  boot ", "  ready")}.get(kind, ("", ""))
        super().disturb(kind)

    def sample(self, at):
        super().sample(at)
        self.mark = self.told.stat().st_size
        self.typed += 1
        os.write(self.keys, f"line {self.typed}\n".encode())
        answer = f"you said: line {self.typed}"
        self.program.wait_for(lambda: answer in self.text(self.mark), answer)

    def text(self, begin=0):
        """What the ECU printed, without line ends: a line that pauses for long is shown in pieces."""
        with open(self.told, encoding="utf-8") as file:
            file.seek(begin)
            return "".join(re.findall(r"(?m)^[\d:.]{12}  (?!> |-- )(.*)$", file.read()))

    def judge(self, total):
        text = super().judge(total)
        for line in (self.keys, self.keys_out):
            os.close(line)
        expected = [str(number) for number in range(1, self.typed + 1)]
        self.test.assertEqual(re.findall(r"(?m)^[\d:.]{12}  > line (\d+)$", self.program.out), expected)
        self.test.assertEqual(re.findall(r"you said: line (\d+)", self.text()), expected)
        diagnostics = [int(number) for number in re.findall(r"diag (\d+):", self.text())]
        steps = [after - before for before, after in itertools.pairwise(diagnostics)]
        self.test.assertGreater(min(steps), 0)
        self.test.assertLessEqual(sum(step != 1 for step in steps), self.away["pulled"])
        self.count()
        return f"{text}; {self.typed} lines typed and answered, {len(diagnostics)} lines of diagnostics"


class Endurance(campaign.Campaign):
    def run_case(self, minutes):
        total, begin = float(minutes) * 60, time.monotonic()
        lines = [self.start_serial_sim("--baud", "4000000", "--chatter-ms", "20") for _ in range(2)]
        watched = {"udp": Measurement(self, self.start_sim(*LOSSES), "counter_1ms@0", "counter_10ms@1"),
                   "serial": Measurement(self, lines[0], "counter_10ms@1", "counter_100ms@2", options=("-v",)),
                   "console": Console(self, lines[1])}
        self.live(list(watched.values()), begin, total)
        for name, each in watched.items():
            print(f"{name}: {each.judge(total)}", flush=True)

    def live(self, watched, begin, total):
        between = min(BETWEEN_DISTURBANCES_S, total / 6)
        disturbances = itertools.cycle([("restart", "pulled", "silence"), ("silence", "restart", "pulled"),
                                        ("gone", "silence", "restart")])
        rounds = 1
        while (at := time.monotonic() - begin) < total:
            if at > rounds * between and at < total - between:
                self.disturb(list(zip(watched, next(disturbances))), between / 30)
                rounds += 1
            # Also what follows the last disturbance is measured and sampled.
            time.sleep(min(BETWEEN_SAMPLES_S, between / 4))
            for each in watched:
                each.sample(time.monotonic() - begin)

    def disturb(self, kinds, away_s):
        for each, kind in kinds:
            each.disturb(kind)
        time.sleep(away_s)
        for each, kind in kinds:
            each.undo(kind)


if __name__ == "__main__":
    minutes_asked = sys.argv[1] if len(sys.argv) > 1 else "60"
    started = time.monotonic()
    campaign.run(Endurance, minutes_asked)
    print(f"endurance: {minutes_asked} minutes, 0 failed, {time.monotonic() - started:.0f} s")
