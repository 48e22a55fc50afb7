"""Every answer of whole sessions goes wrong: lost, doubled, late, cut short, the ECU halted, its pointers gone, and so on.

Each case is one session against one simulated ECU with its fault at the command of one number; answer_classes.py has
the classes. Whatever happens, the session must end by itself, show and record no value that is not the ECU's, change no
bit beside its targets, lose no sample without telling, and give its reason when it fails. At the end, a line for each
class tells its cases, the values shown or recorded, those of them that were wrong, and the bits that changed beside the
targets. `answers.py CLASS [EVERY]` runs one class.
"""
import collections
import re
import shutil
import sys
import tempfile
import threading
import types
from pathlib import Path

import campaign
import harness
import answer_classes
from answer_classes import CLASSES, REPORTED, T1
from ecu_model import Memory, PARAMETERS, measurements
from recording import Recording
from value_coding import Field

PARALLEL = 6 * campaign.PARALLEL  # most of the time they wait
# Two bytes each, all different: an answer for another one fits each command.
VALUES = {"cal_stubborn": "4711.000", "cal_read_only": "42.000", "cal_read_only_ram": "43.000", "cal_wave_period": "1000",
          "cal_limited": "7.000", "cal_idle_speed": "800.00"}
# Of a parameter: its address, its field, what it holds and what is typed, its format.
TARGETS = {"cal_mode_middle": (0x10078, Field("UWORD", "MSB_LAST", 0x0FF0), 0x5C, 0xAA, "{}.000"),
           "cal_wave_period": (0x10008, Field("UWORD", "MSB_LAST", 0), 1000, 77, "{}"),
           "cal_limited": (0x1008C, Field("SWORD", "MSB_LAST", 0), 7, 9, "{}.000")}
SESSIONS = {
    "info": ["info"],
    "get": ["get", *VALUES],
    "get by UPLOAD": ["--no-short-upload", "get", *VALUES],
    "set": ["set", *(f"{name}={typed}" for name, (_, _, _, typed, _) in TARGETS.items())],
    "measure": harness.record("recording", ["counter_1ms@0", "wave@0", "counter_10ms@1", "setpoint_echo@1"], 0.15),
}
MODEL = measurements()
START = types.SimpleNamespace(**{name: raw for name, (_, raw, _, _) in PARAMETERS.items()})
SIGNALS = 0x12000  # memory that the model changes all the time
ALIVE = (0x10413, 0x80)  # and a bit among the parameters: control_alive


def changed(before, after):
    """How many bits differ between two stretches of memory."""
    return (int.from_bytes(before, "big") ^ int.from_bytes(after, "big")).bit_count()


class Answers(campaign.Campaign):
    """One case: its class, a name of SESSIONS, then rules and options of the simulated ECU."""

    lock = threading.Lock()
    a2l = identity_a2l = memory = info = None  # of every case: the description, the memory at the start, what `info` tells
    heard = {}  # how often each command is heard in a session without faults
    figures = collections.defaultdict(collections.Counter)
    reported = collections.defaultdict(list)  # by place of the fault, of each case whether something was wrong

    def write_a2l(self, *options):
        return Answers.identity_a2l if self.kind == "identity" else Answers.a2l

    def count(self, **figures):
        with Answers.lock:
            Answers.figures[self.kind].update(figures)

    def security(self):
        key = self.dir / "demo_key.py"
        shutil.copyfile(Path(__file__).with_name(key.name), key)
        key.chmod(0o600)
        return {"command": [sys.executable, str(key)]}

    def judge_value(self, right, what):
        self.count(values=1)
        if not right:
            self.note_wrong(what)

    def note_wrong(self, what):
        self.count(wrong=1)
        self.wrong.append(what)

    def run_case(self, kind, session, *faults):
        self.kind, self.session, self.faults, self.wrong = kind, session, faults, []
        self.image = self.dir / "memory"
        options = [word for fault in faults for word in ([fault] if fault.startswith("--") else ["--fault", fault])]
        sim = self.start_sim("--memory-file", self.image, *options)
        self.must_succeed = kind in ("synch odd", "start") or (kind == "lost" and len(faults) == 1 and faults[0].endswith(":1"))
        t1 = 5 * T1 if self.must_succeed else T1  # a busy machine must not look like one fault more
        config = self.quick_config(xcp={"timeoutsMs": [t1] * 6 + [20]}, reconnect={"heartbeatMs": 60000},
                                   **({"security": self.security()} if kind == "locked" else {}))
        done = self.run_cli(sim, "-c", config, *SESSIONS[session], cwd=self.dir)
        self.counters = harness.counters(sim)
        self.count(cases=1)
        self.check_ended(done.returncode, done.stderr)
        if done.returncode:
            self.assertNotEqual(done.stdout + done.stderr, "")
        if kind not in REPORTED:
            self.judge(done)
            return
        try:
            self.judge(done)
            bad = False
        except AssertionError:
            bad = True
        with Answers.lock:
            Answers.reported[kind, session, faults[kind == "synch never"].split(":")[1]].append(bad)

    def judge(self, done):
        judge = {"info": self.judge_info, "set": self.judge_set, "measure": self.judge_measure}
        judge.get(self.session, self.judge_get)(done)
        self.assertNotIn("the ECU runs", done.stderr)  # no answer is taken for the EPK
        self.assertNotIn("XCP is on page 0", done.stderr)
        self.judge_memory(TARGETS if self.session == "set" else {})
        self.assertEqual(self.wrong, [], done.stderr)
        if self.must_succeed:
            self.judge_success(done)

    def commands(self):
        return {name: count for name, count in self.counters.items() if name.startswith("command-")}

    def judge_success(self, done):
        """One lost answer is no reason to fail, nor is an ECU that is only different, which is told once."""
        if "--same-first-pid" in str(self.faults):
            self.assertEqual(done.returncode, 1, done.stderr)
            return
        # The stop is asked for once only, and its answer is not made up.
        self.assertEqual(done.returncode, int("stop: START_STOP_SYNCH: no response" in done.stderr), done.stderr)
        if self.kind == "synch odd":
            known = Answers.heard[self.session]
            self.assertEqual({name: count for name, count in self.commands().items() if not name.endswith(("SYNCH", "GET_STATUS"))},
                             {name: count for name, count in known.items() if not name.endswith(("SYNCH", "GET_STATUS"))})
            self.assertEqual(done.stderr.count("SYNCH"), 1, done.stderr)
        if "ignore:DISCONNECT" in self.faults:
            self.assertEqual(self.counters["command-DISCONNECT"], 2)

    def judge_get(self, done):
        for name, text in self.shown(VALUES, done.stdout, done.stderr, done.returncode):
            if not text.startswith("ERROR "):
                self.judge_value(text == VALUES[name], f"{name} {text}")

    def judge_set(self, done):
        shown = self.shown(TARGETS, done.stdout, done.stderr, done.returncode)
        shown += re.findall(r"(?m)^(\w+): the ECU now holds (.*)$", done.stderr)
        for name, text in shown:
            if not text.startswith("ERROR "):
                address, field, before, typed, form = TARGETS[name]
                held = {field.decoded(Memory(self.image).bytes(address, field.size))}
                if "restart" in str(self.faults):
                    held = {before, typed}
                self.judge_value(text in map(form.format, held), f"{name} {text}, but the ECU holds {held}")

    def judge_memory(self, targets):
        """Targets hold what they held or what was typed; nothing else has changed."""
        outside = 0
        for (extension, base, before), (_, _, after) in zip(Answers.memory, Memory(self.image).regions):
            before, after = bytearray(before), bytearray(after)
            for data in before, after:
                if extension == 0 and 0 <= ALIVE[0] - base < len(data):
                    data[ALIVE[0] - base] &= ~ALIVE[1]
            for address, field, start, typed, _ in targets.values():
                place = slice(address - base, address - base + field.size)
                if extension != 0 or not 0 <= address - base < len(before):
                    continue
                held = field.decoded(after[place])
                if held not in (start, typed):
                    self.note_wrong(f"{held:#x} written at {address:#x}")
                before[place], after[place] = (field.encoded(0, memory[place]) for memory in (before, after))
            outside += 0 if base == SIGNALS else changed(before, after)
        self.count(outside=outside)
        self.assertEqual(outside, 0, "bits changed beside the targets")

    def judge_info(self, done):
        told = done.stdout.splitlines()[1:]  # the first line names the port
        for line in told:
            self.judge_value(line in Answers.info or (line.startswith("DAQ  ") and done.stderr), line)
        if told != Answers.info:
            self.assertNotEqual(done.stderr, "", done.stdout)

    def judge_measure(self, done):
        recording = self.dir / "recording"
        if not (recording / "meta.json").exists():
            self.assertNotEqual(done.returncode, 0)
            return
        for group in Recording(recording).groups:
            counter = MODEL[group.signals[0].name]
            names = {0: ("cyclic_1ms", "event 0"), 1: ("cyclic_10ms", "event 1")}[counter.event]
            self.judge_value(group.name in names, group.name)
            for record in group.records:
                n = group.signals[0].raw(record)
                self.judge_value(counter.raw(n, START) == n, group.name)
                for signal in group.signals[1:]:
                    self.judge_value(signal.raw(record) == MODEL[signal.name].raw(n, START), f"{signal.name} at {n}")
        if not harness.STATISTICS.search(done.stderr):
            self.assertEqual(done.returncode, 1, done.stderr)
            return
        told, groups = self.statistics(done.stderr, recording)
        if done.returncode == 0 and told["reconnects"] == 0 and not re.search("restart|terminate", str(self.faults)):
            for group in groups:
                if told["missed cycles"] == 0 and len(group.records) > 1:
                    self.check_gapless(group)
            # What was sent before START_STOP_SYNCH was answered and what follows the stop cannot be recorded.
            self.assertLessEqual(told["recorded"], self.counters["samples"])


class FaultFree(Answers):
    """A session without faults; keeps what the others are compared with."""

    kind = "none"

    def run_case(self, session):
        image = self.dir / "memory"
        sim = self.start_sim("--memory-file", image)
        done = self.run_cli(sim, "-c", self.quick_config(), *SESSIONS[session], cwd=self.dir)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.counters = harness.counters(sim)
        Answers.heard[session] = self.commands()
        if session == "info":
            Answers.memory, Answers.info = Memory(image).regions, done.stdout.splitlines()[1:]
        return {name.removeprefix("command-"): count for name, count in self.commands().items()}


def positions():
    """How often each session without faults sends each command."""
    directory = tempfile.mkdtemp(prefix="xcplumo-")
    try:
        Answers.a2l = Path(directory) / "ecu.a2l"
        Answers.identity_a2l = Path(directory) / "identity.a2l"
        for path, options in ((Answers.a2l, ()), (Answers.identity_a2l, answer_classes.IDENTITY)):
            harness.subprocess.run([harness.SIM, *options, "--write-a2l", path], check=True)
        yield {session: campaign.run(FaultFree, session) for session in SESSIONS}
    finally:
        shutil.rmtree(directory)


def summary():
    for kind, figures in Answers.figures.items():
        yield (f"{kind}: {figures['cases']} cases, {figures['values']} values, {figures['wrong']} wrong, "
               f"{figures['outside']} bits outside" + (" (reported only)" if kind in REPORTED else ""))
    for (kind, session, command), bad in sorted(Answers.reported.items()):
        if any(bad):
            yield f"    {kind}: {session}, {command}: {sum(bad)} of {len(bad)} cases with something wrong"


def main():
    chosen = CLASSES
    if len(sys.argv) in (2, 3) and sys.argv[1] in CLASSES:
        chosen = [sys.argv.pop(1)]
    for sent in positions():
        campaign.main("answers", Answers, lambda: answer_classes.cases(chosen, sent), PARALLEL, summary)


if __name__ == "__main__":
    main()
