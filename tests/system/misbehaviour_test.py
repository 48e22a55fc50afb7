"""An ECU and a network that misbehave: values are right or errors, and every loss is told."""
import re
import unittest

import harness
from recording import Recording
from relay import Relay

STATISTICS = re.compile(
    r"(?m)^\d+\.\d s: (\d+) records, lost ODTs (\d+), missed cycles (\d+), overloads (\d+), reconnects 0, CAN dropped 0, "
    r"error frames 0, recorded (\d+) \(dropped 0\)$")
# Parameters of two bytes, all different: an answer for another one fits each command.
NAMES = ["cal_stubborn", "cal_read_only", "cal_read_only_ram", "cal_wave_period", "cal_limited"]


class AnswersTest(harness.SystemTest):
    def get(self, sim, timeout_ms, *arguments):
        config = self.quick_config(xcp={"timeoutsMs": [timeout_ms] * 6 + [20]})
        return self.run_cli(sim, "-c", config, *arguments, "get", *NAMES)

    def expected(self):
        done = self.get(self.start_sim(), 1000)
        self.assertEqual((done.returncode, len(set(line.split()[1] for line in done.stdout.splitlines()))), (0, len(NAMES)))
        return done.stdout

    def relay(self, *options):
        relay = Relay(self.start_sim(*options))
        self.addCleanup(relay.close)
        return relay

    def test_recovers_and_reads_the_right_values(self):
        expected = self.expected()
        rows = [
            ["--fault", "lose:SHORT_UPLOAD:2:2"],
            ["--fault", "ignore:SHORT_UPLOAD:3:2"],
            ["--fault", "ignore:SHORT_UPLOAD:2", "--fault", "lose:SYNCH:1:2"],
            ["--fault", "busy:SHORT_UPLOAD:1:20"],
            ["--fault", "double:*:1:0"],
            ["--fault", "stray:*:1:0"],
            ["--fault", "late:*:1:0:40"],
            ["--fault", "pending:SHORT_UPLOAD:2:1:900"],
            ["--without", "SHORT_UPLOAD", "--fault", "lose:UPLOAD:9:1", "--fault", "ignore:SET_MTA:4:1"],
            ["--fault", "lose:CONNECT:1:2"],
        ]
        for options in rows:
            with self.subTest(options):
                done = self.get(self.start_sim(*options), 400)
                self.assertEqual((done.stdout, done.returncode), (expected, 0), done.stderr)

    def check_values(self, command, *extra):
        """Answers come late and more than once, in steps around t1 (150 ms)."""
        right = dict(line.split() for line in self.expected().splitlines())
        rows = [["late:COMMAND:1:1:135"], ["late:COMMAND:2:2:165"], ["late:COMMAND:1:0:165"], ["late:COMMAND:1:0:285"],
                ["late:COMMAND:1:0:480"], ["late:*:1:0:165"], ["double:*:1:0"], ["double:COMMAND:1:0", "lose:SYNCH:1:0"],
                ["late:COMMAND:2:1:225", "double:COMMAND:3:0", "late:SYNCH:1:1:450"],
                ["stray:COMMAND:1:0", "late:SYNCH:1:0:135"], ["lose:COMMAND:1:3", "late:SYNCH:1:0:315"],
                ["short:COMMAND:2:0:1"]]
        values = 0
        for row in rows:
            faults = [rule.replace("COMMAND", command) for rule in row]
            with self.subTest(faults):
                done = self.get(self.start_sim(*[a for f in faults for a in ("--fault", f)]), 150, *extra)
                if done.stdout == "":
                    self.assertRegex(done.stderr, "^connect: ")
                    continue
                shown = [line.split(None, 1) for line in done.stdout.splitlines()]
                self.assertEqual([name for name, _ in shown], NAMES)
                wrong = [line for line in shown if not line[1].startswith("ERROR ") and line[1] != right[line[0]]]
                self.assertEqual(wrong, [])
                values += sum(right[name] == text for name, text in shown)
                self.assertEqual(done.returncode, int("ERROR " in done.stdout))
        self.assertGreater(values, len(rows))

    def test_no_answer_becomes_the_value_of_another_command(self):
        self.check_values("SHORT_UPLOAD")

    def test_no_answer_becomes_the_value_of_another_block(self):
        self.check_values("UPLOAD", "--no-short-upload")

    def test_gives_up_after_the_repeats(self):
        rows = [
            (["--fault", "ignore:SHORT_UPLOAD:1:0"], "SHORT_UPLOAD: no response from slave (t1)",
             ["SHORT_UPLOAD", "SYNCH"] * 2 + ["SHORT_UPLOAD"]),
            (["--fault", "ignore:SHORT_UPLOAD:1:0", "--fault", "ignore:SYNCH:1:0"],
             "SHORT_UPLOAD: SYNCH: no response from slave", ["SHORT_UPLOAD"] + ["SYNCH"] * 3),
            (["--fault", "busy:SHORT_UPLOAD:1:0"], "SHORT_UPLOAD: ERR_CMD_BUSY (0x10)", ["SHORT_UPLOAD"] * 21),
            (["--fault", "error:SHORT_UPLOAD:1:0:0x11"], "SHORT_UPLOAD: ERR_DAQ_ACTIVE (0x11)", ["SHORT_UPLOAD"]),
            (["--fault", "terminate:SHORT_UPLOAD:1"], "SHORT_UPLOAD: SYNCH: no response from slave",
             ["SHORT_UPLOAD"] + ["SYNCH"] * 3),
        ]
        for options, message, sent in rows:
            with self.subTest(message):
                relay = self.relay(*options)
                config = self.quick_config(xcp={"timeoutsMs": [200] * 6 + [5]})
                done = self.run_cli(relay, "-c", config, "get", "cal_limited")
                self.assertEqual((done.stdout, done.returncode), (f"{'cal_limited':<50} ERROR {message}\n", 1))
                names = relay.names()
                first = names.index("SHORT_UPLOAD")
                self.assertEqual([n for n in names[first:] if n != "DISCONNECT"], sent)

    def test_a_lost_answer_to_a_write_writes_again(self):
        for fault in ("lose:DOWNLOAD:1", "ignore:DOWNLOAD:1"):
            with self.subTest(fault):
                sim = self.start_sim("--fault", fault)
                done = self.run_cli(sim, "-c", self.quick_config(), "set", "cal_limited=9", "cal_wave_period=77")
                self.assertEqual([line.split()[1] for line in done.stdout.splitlines()], ["9.000", "77"])
                self.assertEqual(harness.counters(sim)["writes"], 3 if "lose" in fault else 2)


class StreamTest(harness.SystemTest):
    """Each fault of the stream, with what the statistics, the warning and the recording must make of it."""

    def measure(self, options, signals, *arguments):
        sim = self.start_sim(*options)
        directory = self.dir / f"rec{len(list(self.dir.iterdir()))}"
        done = self.run_cli(sim, *arguments, "measure", "-t", "0.6", "-p", "0", "-r", directory,
                            *[a for s in signals for a in ("-s", s)])
        self.assertEqual((done.stdout, done.returncode), ("", 0), done.stderr)
        found = STATISTICS.findall(done.stderr)
        self.assertEqual(len(found), 1, done.stderr)
        told = dict(zip(("records", "lost ODTs", "missed cycles", "overloads", "recorded"), map(int, found[0])))
        for warning in re.findall(r"\[warning\] measure: (.*)", done.stderr):
            told.update({name: int(count) for name, count in re.findall(r"([A-Za-z ]+?) (\d+)(?:, |$)", warning)})
        groups = Recording(directory).groups
        self.assertEqual((told["records"], sum(len(g.records) for g in groups)), (told["recorded"],) * 2)
        for group in groups:
            self.assertEqual(group.timestamps, sorted(group.timestamps))
        quiet = {name for name, count in told.items() if count == 0 or name in ("records", "recorded")}
        return told, set(told) - quiet, harness.counters(sim), groups

    def near(self, told, happened):
        """What happened behind the last record cannot be known."""
        self.assertIn(happened - told, (0, 1))

    def test_nothing_lost_means_nothing_told(self):
        rows = [["--pack", "20"], ["--pad", "9"], ["--fault", "double:*:1:0"], ["--fault", "stray:*:1:0"],
                ["--fault", "stall:DAQ:100:1:300"], ["--fault", "late:*:1:0:20"]]
        for options in rows:
            with self.subTest(options):
                told, kinds, happened, groups = self.measure(options, ["counter_1ms@0", "counter_10ms@1"])
                self.assertEqual(kinds, set())
                self.assertEqual(told["recorded"], happened["samples"])
                for group in groups:
                    values = [group.signals[0].raw(record) for record in group.records]
                    self.assertEqual(values, list(range(values[0], values[0] + len(values))))

    def test_whole_samples_lost(self):
        packets = {"UDP counter gaps", "UDP packets missing"}
        rows = [
            (["--fault", "lose-odt:7"], "dtos-lost", {"missed cycles"}),
            (["--fault", "overload:7", "--overload", "pid"], "samples-lost", {"missed cycles", "overloads"}),
            (["--fault", "overload:7", "--overload", "none"], "samples-lost", {"missed cycles"}),
            (["--fault", "overload:7", "--overload", "event"], "samples-lost", {"missed cycles", "overloads"}),
            (["--fault", "overload:7", "--overload", "event", "--timestamp-size", "0"], "samples-lost", {"overloads"}),
            (["--fault", "overload:7", "--overload", "pid", "--timestamp-size", "0"], "samples-lost", {"overloads"}),
            (["--fault", "lose-datagram:7"], "packets-lost", {"missed cycles"} | packets),
            (["--fault", "lose-datagram:7", "--timestamp-size", "0"], "packets-lost", packets),
            (["--fault", "malformed:7"], "packets-malformed", {"missed cycles", "malformed UDP datagrams"} | packets),
        ]
        for options, counter, kinds in rows:
            with self.subTest(options):
                told, seen, happened, _ = self.measure(options, ["counter_1ms@0"])
                self.assertEqual(seen, kinds)
                self.assertGreater(happened[counter], 20)
                self.assertEqual(told["recorded"] + happened[counter], happened["samples"])
                for kind in kinds:
                    with self.subTest(kind):
                        self.near(told[kind], happened[counter])

    def test_counter_gaps_without_a_loss(self):
        told, kinds, happened, _ = self.measure(["--fault", "ctr-gap:10"], ["counter_1ms@0"])
        self.assertEqual(kinds, {"UDP counter gaps", "UDP packets missing"})
        self.assertEqual(told["recorded"], happened["samples"])

    def test_parts_of_samples_lost(self):
        wide = ["--load-signals", "400"]  # two ODTs
        names = [f"load_{n:04}" for n in range(400)]
        told, kinds, happened, groups = self.measure([*wide, "--fault", "lose-odt:7"], names)
        self.assertEqual(kinds, {"lost ODTs", "missed cycles", "incomplete records"})
        self.near(told["lost ODTs"], happened["dtos-lost"])
        self.near(told["recorded"] + told["incomplete records"], happened["samples"])
        # No record is put together from two samples.
        first, last = groups[0].signals[0], groups[0].signals[-1]
        steps = {last.raw(record) - first.raw(record) for record in groups[0].records}
        self.assertEqual(len(steps), 1)

    def test_lost_answers_while_measuring_starts_and_stops(self):
        commands = ["GET_DAQ_PROCESSOR_INFO", "GET_DAQ_RESOLUTION_INFO", "GET_DAQ_EVENT_INFO", "UPLOAD", "FREE_DAQ",
                    "ALLOC_DAQ", "ALLOC_ODT", "ALLOC_ODT_ENTRY", "SET_DAQ_PTR", "WRITE_DAQ", "SET_DAQ_LIST_MODE",
                    "START_STOP_DAQ_LIST", "START_STOP_SYNCH"]
        config = self.quick_config(xcp={"timeoutsMs": [150] * 7}, reconnect={"heartbeatMs": 60000})
        signals = ["counter_1ms@0", "wave@0", "gear@1", "counter_10ms@1"]
        for kind in ("lose", "ignore"):
            with self.subTest(kind):
                options = [a for name in commands for a in ("--fault", f"{kind}:{name}")]
                told, kinds, happened, groups = self.measure(options, signals, "-c", config)
                self.assertEqual((kinds, told["recorded"] <= happened["samples"]), (set(), True))
                self.assertGreater(told["recorded"], 0)
                for group, name in zip(groups, ("counter_1ms", "counter_10ms")):
                    values = [group.signal(name).raw(record) for record in group.records]
                    self.assertEqual(values, list(range(values[0], values[0] + len(values))))


if __name__ == "__main__":
    unittest.main()
