"""The tool is killed at random moments, some in an outage: what its recording held stays, but for the last flush at most."""
import random
import signal
import time

import campaign
import harness
from recording import Recording, events

SIGNALS = ["counter_1ms@0", "wave@0", "counter_10ms@1", "gear@1"]
FLUSH_S = 1.0
SLACK_S = 1.0  # of a busy machine


class Killed(campaign.Campaign):
    def run_case(self, seed):
        chance = random.Random(int(seed))
        sim = self.start_sim()
        directory = self.dir / "recording"
        outage = ["-c", self.quick_config(), "--reconnect", "retry_forever"] if int(seed) % 3 == 1 else []
        program = self.start_cli(sim, *outage, *harness.record(directory, SIGNALS))
        program.wait_for_err("measuring ")
        began = time.monotonic()
        time.sleep(chance.uniform(0, 3))  # a moment is what is tried here
        lasted = time.monotonic() - began
        if outage:
            sim.signal(signal.SIGSTOP)
            program.wait_for_err("** reconnecting")
            program.wait_for(lambda: b"outageBegin" in (directory / "events.jsonl").read_bytes(), "the begin of the outage")
        program.signal(signal.SIGKILL)
        program.finish()  # only when a flush that a slow disk still works on is over
        sim.signal(signal.SIGCONT)
        samples = harness.counters(sim)
        if not (directory / "meta.json").exists():
            return
        self.assertTrue(not outage or events(directory)[-1]["event"] == "outageBegin")
        groups = Recording(directory).groups
        for group, cycle in zip(groups, (0.001, 0.01)):
            self.assertEqual(group.timestamps, sorted(group.timestamps))
            if group.records:
                self.check_gapless(group)
            missing = lasted - len(group.records) * cycle
            self.assertLess(missing, FLUSH_S + SLACK_S, f"{group.name}: {len(group.records)} records in {lasted} s")
        self.assertLessEqual(sum(len(group.records) for group in groups), samples["samples"])


def cases():
    yield from ((seed,) for seed in range(200))


if __name__ == "__main__":
    campaign.main("killed", Killed, cases)
