"""A recording in parts of a second: killed at the n-th call that changes a file, on a disk that takes nothing at that call,
and while the system's clock is set back.

    splits.py night MINUTES     so many minutes of parts of one second, of which few are kept

No record that is in a file is lost, and none is missing between two parts.
"""
import collections
import errno
import json
import os
import re
import subprocess
from pathlib import Path

import campaign
import harness
from file_calls import FileCalls
from recording import Recording, events

CALLS = 260  # more than are made
KILLED = -9
SECONDS = {"kill": "2.4", "full": "2.4", "clock": "3.4"}
BETWEEN_SAMPLES_S = 10
GROWTH_KB = 1024
Sample = collections.namedtuple("Sample", "memory threads descriptors")
endings = []  # of the cases


class Splits(FileCalls):
    def run_case(self, mode, at):
        if mode == "night":
            return self.night(float(at))
        folder = self.dir / "below" / "night"
        arguments = [*self.measurement(folder, SECONDS[mode]), "--split", "1s"]
        if mode == "clock":
            return self.set_clock(folder, arguments, int(at))
        strike = f"{at}:0:kill" if mode == "kill" else f"{at}:{errno.ENOSPC}:once"
        done, calls = self.run_noted(arguments, strike)
        self.assertLess(max((call.number for call in calls), default=0), CALLS, "more calls than cases")
        if done.returncode == KILLED:
            self.assertEqual(mode, "kill")
            return self.check_killed(folder, calls)
        self.assertEqual(done.returncode == 0 or "cannot" in done.stderr or "write error" in done.stderr, True, done.stderr)
        told = re.search(r"recorded (\d+) \(dropped (\d+)\)", done.stderr)
        if mode == "full" and any(call.result < 0 for call in calls):
            self.assertRegex(done.stderr, "cannot (create|write|open|begin)|write error in ")
        if told:
            groups = self.joined(folder)
            self.assertEqual(sum(map(len, groups)), int(told[1]), done.stderr)
            if told[2] == "0":
                self.check_whole(groups)
        struck = "a disk that is full at one call" if any(call.result < 0 for call in calls) else "no such call"
        endings.append(f"{struck}, {'exit code 0' if done.returncode == 0 else 'told, exit code 1'}")
        return None

    def set_clock(self, folder, arguments, hours):
        """Names and start times may go back; what belongs together stays so."""
        done, _ = self.run_noted(arguments, clock=f"1300:{3600 * hours}")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.check_whole(self.joined(folder))
        self.succeed("recording", "check", folder)
        told = json.loads(self.run_plain("recording", "info", folder, "--json").stdout)
        self.assertGreaterEqual(len(told["recordings"]), 3)
        self.assertEqual((told["breaks"], [round(step["byNs"] / 1e9) for step in told["clockSteps"]]), ([], [3600 * hours]))
        endings.append("clock set, parts continue each other")

    def check_killed(self, folder, calls):
        parts = sorted(folder.glob("*/meta.json")) if folder.exists() else []
        endings.append("killed, " + (f"{len(parts)} part(s) left, sound after repair" if parts else "before there was a part"))
        if not parts:
            return
        self.succeed("recording", "repair", folder)
        self.succeed("recording", "check", folder)
        groups = self.joined(folder)
        self.check_whole(groups)
        for number, values in enumerate(groups):
            size = Recording(parts[0].parent).groups[number].meta["recordSize"] + 8
            written = sum(call.result // size for call in calls if call.name == "write" and call.offset and
                          call.path.endswith(f"g{number:04}.rec"))
            self.assertGreaterEqual(len(values), written)

    @staticmethod
    def joined(folder):
        """The counters of each group, part after part."""
        parts = [Recording(meta.parent) for meta in folder.glob("*/meta.json")]
        parts.sort(key=lambda part: part.meta["part"]["number"])
        return [[value for part in parts for value in part.groups[g].counters()] for g in range(len(parts[0].groups) if parts else 0)]

    def check_whole(self, groups):
        for values in groups:
            self.assertEqual(values, list(range(values[0], values[0] + len(values))) if values else [])

    def night(self, minutes):
        folder = self.dir / "night"
        arguments = [*self.measurement(folder, 60 * minutes), "--split", "1s", "--keep", "300kB"]
        tool = self.start([harness.CLI, *arguments])
        samples = self.sampled(tool.process)
        self.assertEqual(tool.process.returncode, 0, tool.err)
        recorded, = map(int, re.findall(r"lost ODTs 0, missed cycles 0, .* recorded (\d+) \(dropped 0\)", tool.err))
        groups = self.joined(folder)
        self.check_whole(groups)
        self.succeed("recording", "check", folder)
        parts = int(re.search(r"(\d+) part\(s\)", tool.err)[1])
        kept = len(list(folder.iterdir()))
        self.assertEqual(tool.err.count("removed: more than 300.0 kB are kept"), parts - kept, tool.err)
        # What went before is counted by the first part that is left.
        first = min(folder.iterdir(), key=lambda part: Recording(part).meta["part"]["number"])
        gone, = (event["records"] for event in events(first) if event["event"] == "partBegin")
        self.assertEqual(sum(gone) + sum(map(len, groups)), recorded)
        warm, late = samples[:len(samples) // 3], samples[len(samples) // 3:]
        memory = [max(sample.memory for sample in some) for some in (warm, late)]
        self.assertLess(memory[1] - memory[0], GROWTH_KB, samples)
        flat = [sorted({(sample.threads, sample.descriptors) for sample in some}) for some in (warm, late)]
        self.assertLessEqual(max(max(pair) for pair in flat[1]), max(max(pair) for pair in flat[0]), samples)
        print(f"{minutes:g} min: {parts} parts, {recorded} records, none lost or missing; {kept} parts kept\n"
              f"memory at most {memory[0]} kB in the first third, {memory[1]} kB after it; threads and descriptors "
              f"{flat[0][0]} to {flat[0][-1]}, then {flat[1][0]} to {flat[1][-1]}, in {len(samples)} samples")

    @staticmethod
    def sampled(process):
        """Looks at a program until it ends."""
        samples = []
        while True:
            try:
                process.wait(BETWEEN_SAMPLES_S)
                return samples
            except subprocess.TimeoutExpired:
                about = Path(f"/proc/{process.pid}")
                status = dict(line.split(":", 1) for line in (about / "status").read_text("ascii").splitlines())
                samples.append(Sample(int(status["VmRSS"].split()[0]), int(status["Threads"]), len(os.listdir(about / "fd"))))


def summary():
    return [f"{count:5} {what}" for what, count in sorted(collections.Counter(endings).items())]


def cases():
    yield "clock", -1
    yield "clock", 1
    for at in range(1, CALLS):
        yield "kill", at
        yield "full", at


if __name__ == "__main__":
    campaign.main("splits", Splits, cases, summary=summary)
