"""A recording in parts of a second: killed at the n-th call that changes a file, and on a disk that takes nothing at that call.

    splits.py night MINUTES     so many minutes of parts of one second, of which few are kept

No record that is in a file is lost, and none is missing between two parts.
"""
import errno
import re

import campaign
from file_calls import FileCalls
from recording import Recording

CALLS = 260  # more than are made
KILLED = -9
SECONDS = {"kill": "2.4", "full": "2.4"}


class Splits(FileCalls):
    def run_case(self, mode, at):
        if mode == "night":
            return self.night(float(at))
        folder = self.dir / "below" / "night"
        arguments = [*self.measurement(folder, SECONDS[mode]), "--split", "1s"]
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
        return None

    def check_killed(self, folder, calls):
        parts = sorted(folder.glob("*/meta.json")) if folder.exists() else []
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
        done = self.run_plain(*arguments, timeout=60 * minutes + 60)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn("(dropped 0)", done.stderr)
        groups = self.joined(folder)
        self.check_whole(groups)
        self.succeed("recording", "check", folder)
        parts = int(re.search(r"(\d+) part\(s\)", done.stderr)[1])
        kept = len(list(folder.iterdir()))
        self.assertEqual(done.stderr.count("removed: more than 300.0 kB are kept"), parts - kept, done.stderr)
        print(f"{minutes:g} min: {parts} parts, {kept} kept, {sum(map(len, groups))} records in them, none missing")


def cases():
    for at in range(1, CALLS):
        yield "kill", at
        yield "full", at


if __name__ == "__main__":
    campaign.main("splits", Splits, cases)
