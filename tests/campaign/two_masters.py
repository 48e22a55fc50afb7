"""Two or three tools use one ECU at the same time: nothing wrong is shown or written, what fails or is lost is told.

The tools start within 0.4 s of each other. The ECU belongs to who sent CONNECT last ("last"), answers late besides
("late"), or obeys everybody in one session ("any"), where nobody may write: there is one memory pointer for all.
"""
import random
import re
import time

import campaign
import harness
from ecu_model import Memory
from recording import Recording

T1 = 80  # milliseconds
SECONDS = 1.5
# Two bytes each, all different: what one tool asks for fits the other's command, and shows.
VALUES = {"cal_stubborn": "4711.000", "cal_read_only": "42.000", "cal_read_only_ram": "43.000", "cal_idle_speed": "800.00"}
WRITTEN = {"cal_limited": (0x1008C, "7.000"), "cal_uword_lsb": (0x10020, "0"), "cal_wave_period": (0x10008, "1000")}
MODES = {"last": [], "late": ["--fault", "late:*:1:0:15"], "any": ["--any-master"]}
LOSSES = ("lost ODTs", "missed cycles", "overloads", "reconnects")
PARAMETERS, SIZE = 0x10000, 0xC0


class TwoMasters(campaign.Campaign):
    def run_case(self, tools, mode, seed):
        chance = random.Random(int(seed))
        image = self.dir / "memory"
        sim = self.start_sim("--memory-file", image, *MODES[mode])
        config = self.quick_config(xcp={"timeoutsMs": [T1] * 6 + [20]}, reconnect={"heartbeatMs": 400, "intervalMs": 150})
        self.assertEqual(self.run_cli(sim, "set", "cal_limited=7").returncode, 0)
        before = bytearray(Memory(image).bytes(PARAMETERS, SIZE))
        started = []
        for number, tool in enumerate(tools.split("+")):
            names = [*VALUES][number % 2::2]
            self.typed = [f"{name}={number + 10 * turn}" for turn in range(2, 7) for name in WRITTEN]
            directory = self.dir / f"recording{number}"
            measure = harness.record(directory, ["counter_1ms@0", "counter_10ms@1"], SECONDS)
            arguments = {"get": ["get", *names * 10], "set": ["set", *self.typed], "measure": measure,
                         "retry": ["--reconnect", "retry_forever", *measure]}[tool]
            started.append((tool, self.start_cli(sim, "-c", config, "--direct", *arguments), names * 10, directory))
            time.sleep(chance.choice((0.005, 0.03, 0.4)) * chance.random())  # a moment is what is tried here
        for tool, program, names, directory in started:
            code = program.finish()
            self.check_ended(code, program.err)
            judge = {"get": self.judge_get, "set": self.judge_set}.get(tool, self.judge_measure)
            judge(program, code, names if tool == "get" else directory)
        self.judge_memory(sim, image, before, started)
        recordings = [Recording(directory) for *_, directory in started if directory.exists()]
        codes = [program.process.returncode for tool, program, *_ in started if tool in ("measure", "retry")]
        if mode != "any" and codes and not any(codes):
            recorded = sum(len(group.records) for recording in recordings for group in recording.groups)
            self.assertEqual(recorded, harness.counters(sim)["samples"])

    def judge_get(self, program, code, names):
        self.check_shown(VALUES, names, program.out, program.err, code)

    def judge_set(self, program, code, _):
        lines = self.shown([text.partition("=")[0] for text in self.typed], program.out, program.err, code)
        held = re.findall(r"(?m)^(\w+): the ECU now holds (.*)$", program.err)
        self.assertLessEqual(len(re.findall(r"the ECU (?:now holds|does not answer)", program.err)), len(lines))
        self.confirmed = {name: text for name, text in lines + held if not text.startswith("ERROR ")}

    def judge_measure(self, program, code, directory):
        gaps = 0
        for group in Recording(directory).groups if directory.exists() else []:
            counts = self.check_rising(group)
            gaps += counts[-1] - counts[0] + 1 - len(counts) if counts else 0
        if code == 1:
            self.assertRegex(program.err, "(?m)^(connect|measure|stop): ")
            return
        told, _ = self.statistics(program.err, directory)
        if gaps:
            self.assertTrue(any(told[loss] for loss in LOSSES) or "UDP packets missing" in program.err, program.err)
        if code == 2:
            self.assertIn("** failed: connection lost", program.err)

    def judge_memory(self, sim, image, before, started):
        """Every parameter holds what it held, or what a tool typed for it; the only writer knows what."""
        setters = [program for tool, program, _, _ in started if tool == "set"]
        done = self.run_cli(sim, "get", *WRITTEN)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        now = dict(line.split(None, 1) for line in done.stdout.splitlines())
        after = bytearray(Memory(image).bytes(PARAMETERS, SIZE))
        for name, (address, start) in WRITTEN.items():
            typed = [float(start)] + [float(n + 10 * turn) for n in range(len(started)) for turn in range(2, 7)]
            self.assertIn(float(now[name]), typed if setters else typed[:1])
            for memory in (before, after):
                memory[address - PARAMETERS:address - PARAMETERS + 2] = b"\0\0"
        self.assertEqual(after.hex(), before.hex())
        if len(setters) == 1 and not re.search("does not answer|not known|no response|not connected", setters[0].err + setters[0].out):
            self.assertEqual(now | self.confirmed, now)


def cases():
    for mode in MODES:
        for tools in ("get+get", "set+get", "set+set", "measure+get", "measure+set", "measure+measure", "retry+retry",
                      "retry+get", "get+set+measure"):
            if mode != "any" or "set" not in tools:
                yield from ((tools, mode, seed) for seed in range(12))


if __name__ == "__main__":
    campaign.main("two masters", TwoMasters, cases)
