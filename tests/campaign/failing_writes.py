"""The n-th call that changes a file fails, is cut short or is the last, in recordings, repairs, exports and `save-config`.

Records that did not get into their files are told, an original is never damaged, nothing half-written stays, and what a
killed program left hinders nobody.
"""
import errno
import re
import struct

import campaign
from file_calls import FileCalls, damaged, files_of, mixed, write_files
from recording import Recording

# More calls than each of these makes.
CALLS = {"measure": 90, "repair": 35, "export-csv": 8, "export-mf4": 16, "export-fast": 18, "save": 7, "save-new": 7}
REPEATED = 65  # the records of an export, so that it takes several writes
MODES = [*((mode, number) for mode in ("once", "on", "torn") for number in (errno.ENOSPC, errno.EIO)),
         ("short", 0), ("kill", 0)]
KILLED = -9


class FailingWrites(FileCalls):
    def run_case(self, command, mode, number, at):
        strike = f"{at}:{number}:{mode}"
        done, calls, struck = getattr(self, command.split("-")[0])(command, strike)
        if done.returncode == KILLED:
            self.assertEqual((mode, len(calls)), ("kill", int(at) - 1))
            return
        self.assertLess(max((call.number for call in calls), default=0), CALLS[command], "more calls than cases")
        refused = mode not in ("short", "kill") and len(calls) >= int(at)
        self.assertEqual(struck, refused, calls)
        if not refused:
            self.assertEqual(done.returncode, 0, done.stderr)
        elif "cannot create" not in done.stderr or "the data is complete" not in done.stderr:
            # A level that cannot be made is told and nothing else: the data is complete.
            self.assertEqual(done.returncode, 1, done.stderr)
        if refused:
            self.assertRegex(done.stderr, "cannot (create|write|open)|write error in ")

    def noted(self, arguments, strike):
        done, calls = self.run_noted(arguments, strike)
        calls = [call for call in calls if call.number]
        return done, calls, any(call.result < 0 for call in calls)

    def measure(self, _command, strike):
        directory = self.dir / "below" / "sub" / "recording"
        done, calls, struck = self.noted(self.measurement(directory, "1.2"), strike)
        if done.returncode == KILLED:
            self.check_killed(directory, calls)
            return done, calls, struck
        if self.check_failed_recording(directory, done.stderr) is None:
            return done, calls, struck
        if "the data is complete" not in done.stderr:
            self.assertEqual(f"stop: write error in {directory}\n" in done.stderr, struck, done.stderr)
        self.succeed("recording", "repair", directory)
        self.succeed("recording", "check", directory)
        return done, calls, struck

    def check_killed(self, directory, calls):
        if not (directory / "meta.json").exists():
            self.assertEqual([call for call in calls if call.name == "write" and call.offset], [], "not in a recording")
            return
        self.succeed("recording", "repair", directory)
        self.succeed("recording", "check", directory)
        for number, group in enumerate(Recording(directory).groups):
            written = sum(call.result for call in calls if call.name == "write" and call.offset and
                          call.path.endswith(f"g{number:04}.rec"))
            self.assertGreaterEqual(len(group.records), written // (8 + group.meta["recordSize"]))
            values = group.counters()
            self.assertEqual(values, list(range(values[0], values[0] + len(values))) if values else [])

    def repair(self, _command, strike):
        directory, sound = self.dir / "below" / "recording", mixed(self.recording())
        torn = damaged(sound)
        write_files(directory, torn)
        outcome = self.noted(["recording", "repair", directory], strike)
        for name, data in files_of(directory).items():
            if name.endswith(".tmp") and outcome[0].returncode == KILLED:
                continue
            self.assertTrue(data in (torn.get(name), sound.get(name)), name)
        if outcome[0].returncode == 1 and not outcome[0].stderr:
            self.mend(directory, outcome[0])
            outcome[0].returncode = 0
        self.mend(directory)
        self.assertTrue(files_of(directory) == sound)
        return outcome

    def export(self, command, strike):
        directory = self.dir / "recording"
        sound = self.recording()
        rows = list(struct.iter_unpack("<q8s", sound["g0000.rec"][32:]))
        many = [struct.pack("<q8s", time + turn * 10**9, data) for turn in range(REPEATED) for time, data in rows]
        write_files(directory, {"meta.json": sound["meta.json"], "g0001.rec": sound["g0001.rec"],
                                "g0000.rec": sound["g0000.rec"][:32] + b"".join(many)})
        kind = "csv" if command.endswith("csv") else "mf4"
        options = ["--no-compress"] if command.endswith("fast") else ["--merge"] if kind == "csv" else []
        self.succeed("export", directory, "-o", self.dir / f"good.{kind}", *options)
        return self.replaced(f"out.{kind}", (self.dir / f"good.{kind}").read_bytes(),
                             ["export", directory, "--force", *options, "-o"], strike, b"the old one")

    def save(self, command, strike):
        options = ["--udp", "127.0.0.1:1", "save-config"]
        self.succeed(*options, self.dir / "good.json")
        return self.replaced("out.json", (self.dir / "good.json").read_bytes(), options, strike,
                             None if command.endswith("new") else b"{}\n")

    def replaced(self, name, good, arguments, strike, old):
        """The file holds the old or the new bytes, and stands alone."""
        below = self.dir / "below"
        write_files(below, {name: old} if old is not None else {})
        outcome = self.noted([*arguments, below / name], strike)
        if outcome[0].returncode == KILLED:
            self.assertTrue(timeless(files_of(below).get(name)) in (timeless(good), old), name)
            self.succeed(*arguments, below / name)
        files = files_of(below)
        allowed = (timeless(good),) if outcome[0].returncode in (0, KILLED) else (timeless(good), old)
        self.assertTrue(timeless(files.pop(name, None)) in allowed, name)
        self.assertEqual(list(files), [])
        return outcome


def timeless(data):
    """Without the time of its making, which an MF4 file holds."""
    return data and re.sub(rb"(##FH.{36}).{8}", rb"\1", data, flags=re.DOTALL)


def cases():
    for command, calls in CALLS.items():
        yield from ((command, mode, number, at) for at in range(1, calls + 1) for mode, number in MODES)


if __name__ == "__main__":
    campaign.main("failing writes", FailingWrites, cases)
