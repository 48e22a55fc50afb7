"""Every file of a recording meets its end at every size: the measurement goes on or tells, and the files stay readable.

A limit on the size of files stands for the full disk; it grows byte by byte over the heads and the first entries, then
in larger steps.
"""
import json
import resource

import campaign
import harness
from recording import Recording

SIGNALS = ["counter_1ms@0", "wave@0", "counter_10ms@1"]


class FullDisk(campaign.Campaign):
    def run_case(self, size):
        size = int(size)
        directory = self.dir / "recording"
        # The limit binds the tool alone; its output goes to pipes.
        done = self.run_cli(self.start_sim(), *harness.record(directory, SIGNALS, 0.4),
                            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (size, size)))
        self.assertIn(done.returncode, (0, 1), done.stderr)
        dropped = self.check_failed_recording(directory, done.stderr)
        if dropped is not None:
            lines = (directory / "events.jsonl").read_bytes()
            self.assertTrue(lines.endswith(b"\n") and all(json.loads(line) for line in lines.splitlines()), lines)
            for number, group in enumerate(Recording(directory).groups):
                whole = 32 + len(group.records) * (8 + group.meta["recordSize"])
                self.assertEqual((directory / f"g{number:04}.rec").stat().st_size, whole, "a torn record")
        if dropped != 0:
            self.assertEqual(done.returncode, 1)
        if dropped:
            self.assertIn(f"stop: write error in {directory}\n", done.stderr)
            self.assertEqual(done.stderr.count("recording: write error in"), 1, done.stderr)


def cases():
    yield from ((size,) for size in [*range(1, 200), *range(200, 6000, 97), *range(6000, 20000, 997)])


if __name__ == "__main__":
    campaign.main("full disk", FullDisk, cases)
