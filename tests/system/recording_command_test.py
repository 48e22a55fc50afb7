"""`recording` on what a killed measurement left: told while it runs, checked, mended, plotted."""
import re
import unittest

from harness import CLI, SystemTest, Terminal, record
from recording import Recording


class RecordingCommandTest(SystemTest):
    def kill_measurement(self):
        """A recording of some hundred records whose tool was killed; asked about while it was written."""
        directory = self.dir / "killed"
        records = directory / "g0000.rec"
        measure = self.start_cli(self.start_sim(), *record(directory, ["wave@0", "counter_10ms@1"]))
        measure.wait_for(lambda: records.exists() and records.stat().st_size > 8000, "records")
        alive = self.run_plain("recording", "info", directory)
        self.assertIn("recording      killed, still being recorded\n", alive.stdout)
        self.assertNotIn("torn", alive.stdout)
        refused = self.run_plain("recording", "repair", directory)
        self.expect(refused, err=f"recording: {directory} is still being recorded: stop the measurement first\n", code=1)
        live = self.run_plain("recording", "check", directory)
        self.assertEqual((live.returncode, "still being recorded" in live.stderr), (0, True), live.stdout)
        measure.kill()
        return directory

    def test_a_killed_recording_is_checked_and_mended(self):
        directory = self.kill_measurement()
        # What the moment of the kill leaves to chance.
        whole = {}
        for number, group in enumerate(Recording(directory).groups):
            path = directory / f"g{number:04}.rec"
            stride = 8 + group.meta["recordSize"]
            whole[path] = path.read_bytes()[:32 + stride * len(group.records)]
            path.write_bytes(whole[path] + b"torn")
        (directory / "g0000.tix").write_bytes((directory / "g0000.tix").read_bytes()[:40])
        done = self.run_plain("recording", "check", directory)
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stdout, r"g0000\.rec: 4 bytes of a torn record at byte \d+, behind \d+ whole records \(repair cuts them off\)\n")
        self.assertRegex(done.stdout, r"g0000\.tix: 0 entries instead of \d+ \(repair makes it again from the records\)\n")
        self.assertEqual(done.stderr, f"mend it with `xcplumo-cli recording repair {directory}`\n")
        done = self.run_plain("recording", "repair", directory)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertTrue(done.stdout.endswith(f"\n{directory}: repaired\n"), done.stdout)
        for path, content in whole.items():
            self.assertEqual(path.read_bytes(), content)
        count = sum(len(group.records) for group in Recording(directory).groups)
        for action, verdict in (("check", f"2 group(s), {count} record(s), sound"), ("repair", "sound, nothing to repair")):
            self.expect(self.run_plain("recording", action, directory), f"{directory}: {verdict}\n")
        self.check_info(directory)

    def check_info(self, directory):
        """Counts, times and extremes are those of the records."""
        out = self.run_plain("recording", "info", directory).stdout
        recording = Recording(directory)
        for group in recording.groups:
            times = [(t - recording.meta["startHostNs"]) / 1e9 for t in (group.timestamps[0], group.timestamps[-1])]
            self.assertIn(f"  records      {len(group.records)}, ", out)
            self.assertIn(", from {:.3f} s to {:.3f} s\n".format(*times), out)
            for signal in group.signals:
                values = [signal.conversion.physical(signal.raw(record)) for record in group.records]
                line = re.search(rf"(?m)^  {signal.name} +\w+ +(\S+) +(\S+)$", out)
                self.assertEqual([float(text) for text in line.groups()], [round(min(values), 3), round(max(values), 3)])

    def test_show_fills_the_terminal_and_is_plain_elsewhere(self):
        directory = self.kill_measurement()
        arguments = ["recording", "show", str(directory), "-s", "counter*"]
        plain = self.run_plain(*arguments)
        lines = plain.stdout.splitlines()
        self.assertEqual((plain.returncode, len(lines), lines[0]), (0, 15, "counter_10ms, cyclic_10ms"))
        self.assertTrue(plain.stdout.isascii() and max(map(len, lines)) == 80, plain.stdout)
        # A counter goes up from corner to corner.
        self.assertTrue(lines[1].endswith("*") and re.match(r" *\d+ \+\*", lines[12]), plain.stdout)
        terminal = Terminal([CLI, *arguments], self.env, rows=12, columns=50)
        self.addCleanup(terminal.close)
        terminal.wait_for("")
        shown = terminal.screen.splitlines()
        self.assertEqual((terminal.process.returncode, len(shown), max(map(len, shown))), (0, 10, 50))
        self.assertTrue(set(shown[1].split("\u2524")[1].strip()) <= {chr(0x2800 + i) for i in range(256)}, shown)


if __name__ == "__main__":
    unittest.main()
