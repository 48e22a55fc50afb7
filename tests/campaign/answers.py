"""Every answer of whole sessions goes wrong once: lost, doubled, late, cut short, replaced by an error, one at a time.

Each case is one session against one simulated ECU with one fault at the command of one number. Whatever happens, the
session must end by itself, show no value that is not the ECU's, claim no write that is not in its memory, lose no
sample without telling, and give its reason when it fails.
"""
import re

import campaign
import harness
from misbehaviour_test import VALUES

T1 = 120  # milliseconds
TYPED = {"cal_limited": "9.000", "cal_wave_period": "77", "cal_injector": "off", "cal_idle_speed": "650.00"}
BEFORE = {"cal_limited": "7.000", "cal_wave_period": "1000", "cal_injector": "on", "cal_idle_speed": "800.00"}
SESSIONS = {
    "info": ["info"],
    "get": ["get", *VALUES],
    "get by UPLOAD": ["--no-short-upload", "get", *VALUES],
    "set": ["set", *(f"{name}={text}" for name, text in TYPED.items())],
    "measure": harness.record("recording", ["counter_1ms@0", "wave@0", "counter_10ms@1"], 0.15),
}
FAULTS = [
    "lose:*:{}", "lose:*:{}:2", "double:*:{}", "double:*:{}:0", "ignore:*:{}", "stray:*:{}", "short:*:{}",
    "short:*:{}:1:3", "error:*:{}:1:0x22", "error:*:{}:1:0x33", "busy:*:{}:3", "pending:*:{}:1:" + str(2 * T1),
    "terminate:*:{}", "restart:*:{}", "silence:*:{}:1:" + str(2 * T1), "silence:*:{}:1:0",
    *(f"late:*:{{}}:{count}:{int(T1 * times)}" for times in (0.6, 1.2, 1.6, 1.9, 2.5, 3.5) for count in (1, 2)),
]


class Answers(campaign.Campaign):
    """One case: `session` is a name of SESSIONS, `fault` a rule."""

    def run_case(self, session, fault):
        self.session, self.fault = session, fault
        sim = self.start_sim(*(["--fault", fault] if fault else []))
        config = self.quick_config(xcp={"timeoutsMs": [T1] * 6 + [20]}, reconnect={"heartbeatMs": 60000})
        done = self.run_cli(sim, "-c", config, *SESSIONS[session], cwd=self.dir)
        self.check_ended(done.returncode, done.stderr)
        if done.returncode:
            self.assertNotEqual(done.stdout + done.stderr, "")
        judge = {"info": self.judge_info, "set": self.judge_set, "measure": self.judge_measure}
        judge.get(session, self.judge_get)(sim, done)
        return harness.counters(sim)["commands"] if not fault else 0

    def judge_get(self, _, done):
        self.check_shown(VALUES, VALUES, done.stdout, done.stderr, done.returncode)

    def judge_set(self, sim, done):
        shown = self.shown(TYPED, done.stdout, done.stderr, done.returncode)
        if "silence" in self.fault or "restart" in self.fault:
            return
        held = dict(re.findall(r"(?m)^(\w+): the ECU now holds (.*)$", done.stderr))
        held |= {name: text for name, text in shown if not text.startswith("ERROR ")}
        for name, text in held.items():
            if not text.startswith("ERROR "):
                self.assertIn(text, (TYPED[name], BEFORE[name]))
        sim.a2l = self.write_a2l()
        after = self.run_cli(sim, "get", *held)
        if after.returncode == 0 and held:
            self.assertEqual(dict(line.split(None, 1) for line in after.stdout.splitlines()), held)

    reference = None  # what `info` tells when nothing goes wrong

    def judge_info(self, _, done):
        if self.fault and not Answers.reference:
            campaign.run(Answers, "info", "")
        told = done.stdout.splitlines()[1:]  # the first line names the port
        if not self.fault:
            Answers.reference = told
        elif told != Answers.reference:
            self.assertNotEqual(done.stderr, "", done.stdout)
            self.assertLessEqual(set(told), set(Answers.reference) | {line for line in told if "DAQ  " in line})

    def judge_measure(self, sim, done):
        recording = self.dir / "recording"
        if not recording.exists():
            self.assertNotEqual(done.returncode, 0)
            return
        if not harness.STATISTICS.search(done.stderr):
            self.assertEqual(done.returncode, 1, done.stderr)
            return
        told, groups = self.statistics(done.stderr, recording)
        if done.returncode == 0 and told["reconnects"] == 0 and not self.fault.startswith(("restart", "terminate")):
            for group in groups:
                if told["missed cycles"] == 0 and len(group.records) > 1:
                    self.check_gapless(group)
            happened = harness.counters(sim)
            # What was sent before START_STOP_SYNCH was answered and what follows the stop cannot be recorded.
            self.assertLessEqual(told["recorded"], happened["samples"])


def cases():
    """Every fault at every command of every session; the number of commands is that of a session without faults."""
    for session in SESSIONS:
        commands = campaign.run(Answers, session, "")
        for fault in FAULTS:
            for number in range(1, commands + 1):
                yield session, fault.format(number)


if __name__ == "__main__":
    campaign.main("answers", Answers, cases)
