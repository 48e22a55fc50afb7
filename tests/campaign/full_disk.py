"""Every file of a recording meets its end at every size: the measurement goes on or tells, and the files stay readable.

A limit on the size of files stands for the full disk; it grows byte by byte over the heads and the first entries, then
in larger steps.
"""
import re
import resource
import subprocess
import sys
from pathlib import Path

import campaign

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "system"))
import harness  # pylint: disable=wrong-import-position
from recording import Recording  # pylint: disable=wrong-import-position

SIGNALS = harness.signals(["counter_1ms@0", "wave@0", "counter_10ms@1"])


class FullDisk(harness.SystemTest):
    def run_case(self, size):
        size = int(size)
        sim = self.start_sim()
        directory = self.dir / "recording"
        # The limit binds the tool alone; its output goes to pipes.
        done = subprocess.run(
            self.arguments(sim, "measure", "-t", "0.4", "-p", "0", "-r", directory, *SIGNALS), timeout=60,
            stdin=subprocess.DEVNULL, capture_output=True, text=True, env=self.env, check=False,
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (size, size)))
        self.assertIn(done.returncode, (0, 1), done.stderr)
        if not directory.exists():  # not even the head of a file: refused at the start
            self.assertEqual(done.returncode, 1)
            self.assertRegex(done.stderr, "(?m)^measure: cannot (write|create|open)")
            return
        found = re.search(r"(\d+) records, .*recorded (\d+) \(dropped (\d+)\)", done.stderr)
        self.assertIsNotNone(found, done.stderr)
        records, recorded, dropped = map(int, found.groups())
        self.assertEqual(records, recorded + dropped)
        groups = Recording(directory).groups
        self.assertEqual(sum(len(group.records) for group in groups), recorded)
        for group in groups:
            values = group.counters()
            self.assertEqual(values, sorted(set(values)))
        if dropped:
            self.assertEqual(done.returncode, 1)
            self.assertIn(f"stop: write error in {directory}\n", done.stderr)


def cases():
    yield from ((size,) for size in [*range(1, 200), *range(200, 6000, 97), *range(6000, 20000, 997)])


if __name__ == "__main__":
    campaign.main("full disk", FullDisk, cases)
