"""ECUs whose DAQ lists are there from the start, and prescalers."""
import json
import unittest

import harness
from recording import Recording
from recording_check import EVENTS, ModelCase, forty_signals

SLOWER = [(name, 8 * cycle) for name, cycle in EVENTS]
FEW = ["counter_1ms@0", "wave@0", "counter_10ms@1", "engine_speed@1"]


class StaticDaqTest(ModelCase):
    def test_values_and_times(self):
        """Whatever the lists look like, all values are the model's and no cycle is missed."""
        absolute = ("--identification", 0, "--max-dto", 16, "--timestamp-size", 2)
        rows = [
            (("--static-lists", "20x7,20x7,20x7", *absolute), ""),
            (("--static-lists", "20x7@2,9x1,20x7@0,20x7@1", "--identification", 1, "--max-dto", 16), ""),
            (("--static-lists", "3x60,3x60,3x60", "--byte-order", "motorola", "--identification", 2), ""),
            (("--static-lists", "20x7,20x7,20x7", *absolute, "--list-first-pid", "90,10,150"), "/8"),
            (("--static-lists", "9x9,9x9,9x9", "--offer", "WRITE_DAQ_MULTIPLE", "--timestamp-fixed"), ""),
            (("--max-dto", 16, "--offer", "WRITE_DAQ_MULTIPLE"), "/8"),
        ]
        for shape, prescaler in rows:
            with self.subTest(shape):
                program = self.start_measured(self.start_sim(*shape), forty_signals(), 1, prescaler=prescaler)
                self.check_measured(program, SLOWER if prescaler else EVENTS, 8 if prescaler else 1)
                self.assertIn("measuring 40 signal(s) in 3 DAQ list(s), ", program.err)

    def measure(self, sim, *names):
        """Records half a second; returns name and signals of each group, all of whose counters are gapless."""
        directory = self.dir / f"recording{len(list(self.dir.iterdir()))}"
        done = self.run_cli(sim, *harness.record(directory, names, 0.5))
        self.assertEqual(done.returncode, 0, done.stderr)
        told, groups = self.statistics(done.stderr, directory)
        self.assertEqual([told[key] for key in ("lost ODTs", "missed cycles", "overloads")], [0, 0, 0])
        self.assertNotIn("unknown DTOs", done.stderr)
        for group in groups:
            if group.signals[0].name.startswith("counter_"):
                self.check_gapless(group)
        return [(group.name, [s.name for s in group.signals]) for group in groups]

    def test_predefined_and_several_lists(self):
        sim = self.start_sim("--predefined", "gear,counter_10ms,engine_speed@1", "--predefined", "wave,counter_1ms")
        self.assertEqual(self.measure(sim, *FEW), [("cyclic_1ms", ["counter_1ms", "wave"]),
                                                   ("cyclic_10ms", ["counter_10ms", "engine_speed"])])
        sim = self.start_sim("--static-lists", "1x1,1x2,1x1", "--predefined", "engine_speed@1")
        self.assertEqual(self.measure(sim, *FEW), [("cyclic_1ms", ["counter_1ms", "wave"]),
                                                   ("cyclic_10ms (list 1)", ["counter_10ms"]),
                                                   ("cyclic_10ms (list 3)", ["engine_speed"])])

    def test_predefined_lists_that_the_ecu_does_not_read_out(self):
        """The A2L tells what they hold; the question is left without an answer, or refused, once."""
        for options in (["--fault", "ignore:READ_DAQ:1:0"], ["--without", "READ_DAQ"]):
            with self.subTest(options):
                sim = self.start_sim("--predefined", "counter_10ms,engine_speed@1", "--predefined", "counter_1ms,wave", *options)
                sim.reach += ["-c", self.quick_config()]
                self.assertEqual(self.measure(sim, *FEW), [("cyclic_1ms", ["counter_1ms", "wave"]),
                                                           ("cyclic_10ms", ["counter_10ms", "engine_speed"])])

    def test_what_does_not_fit(self):
        lists = "lists 0 to 1 (1 ODT(s) x 1 entries, any event), list 2 (1 ODT(s) x 1 entries, event 2)"
        rows = [
            (["--static-lists", "1x1,1x1,1x1@2"], FEW, "2 of 4 signal(s) fit into the ECU's static DAQ lists (event 1: 0 of 2): "
             + lists + "; 1398 byte(s) an ODT, 1394 the first\nhint: measure fewer signals, or some at an event whose lists have room; "
             "there is no room for counter_10ms@1, engine_speed@1\n"),
            (["--max-dto", "8"], ["wave@0"], "first ODT of event 0 is empty (signals too large next to the timestamp)\n"
             "hint: add a signal of at most 2 byte(s) to event 0, or measure without timestamps (\"useTimestamps\": false"),
            (["--static-lists", "1x1@2"], ["wave@0"], "wave: no DAQ list of the ECU can be given event 0"),
            (["--predefined", "gear@1"], ["throttle@1"],
             r"throttle: no DAQ list that can be given event 1 carries 1 byte(s) at 0x"),
        ]
        for options, names, message in rows:
            with self.subTest(options):
                done = self.run_cli(self.start_sim(*options), "measure", *harness.signals(names))
                self.assertEqual(done.returncode, 1)
                self.assertIn(f"measure: {message}", done.stderr)

    def test_many_entries_at_once_without_an_answer(self):
        sim = self.start_sim("--max-dto", 16, "--offer", "WRITE_DAQ_MULTIPLE", "--fault", "ignore:WRITE_DAQ_MULTIPLE:1:0")
        done = self.run_cli(sim, "-c", self.quick_config(), "measure", "-t", 0.3, "-p", 0, *harness.signals(forty_signals()))
        self.assertEqual((done.returncode, done.stderr.count("WRITE_DAQ_MULTIPLE: timeout")), (0, 1), done.stderr)

    def test_reconnection(self):
        """The lists are set up again as they were; an ECU that came back with others is not measured wrongly."""
        shape = ("--static-lists", "2x7,2x7", "--predefined", "gear@1")
        for back, code in ((shape, 0), (("--static-lists", "1x1,1x1", "--predefined", "gear@1"), 2)):
            with self.subTest(back):
                sim = self.start_sim(*shape)
                policy = {"policy": "retry", "attempts": 5}
                directory = self.dir / f"recording{code}"
                program = self.start_cli(sim, "-c", self.quick_config(reconnect=policy),
                                         *harness.record(directory, ["counter_1ms@0", "wave@0", "gear@1"], every=20))
                program.wait_for_out("gear")
                sim.kill()
                self.start_sim(*back, port=sim.port)
                if code == 0:
                    program.wait_for_err("measuring: reconnected")
                    shown = program.out.count("\n")
                    harness.wait_until(lambda: program.out.count("\n") > shown + 5, "records after it")
                    harness.stop(program)
                    self.assertEqual([len(g.records) > 0 for g in Recording(directory).groups], [True, True])
                else:
                    self.assertIn("the ECU came back with another set of DAQ lists", program.err if program.finish() else "")
                self.assertEqual(program.finish(), code, program.err)

    def test_prescalers(self):
        sim = self.start_sim()
        rows = [
            ("wave@0/0", "'wave@0/0': a prescaler is a number from 1 to 255"),
            ("wave@0/256", "'wave@0/256': a prescaler is a number from 1 to 255"),
            ("wave@cyclic_1ms/x", "'wave@cyclic_1ms/x': a prescaler is a number from 1 to 255"),
            ("wave/0", "'wave/0': a prescaler is a number from 1 to 255"),
            ("wave@nine/8", "stoul: 'nine' is not a number"),
            ("wave@/8", "'wave@/8': no event between '@' and '/'"),
            ("wave@1/8/8", "'wave@1/8/8': '1/8' is no event; one prescaler is possible"),
            ("gear@0", "wave@0/8 and gear@0/1: signals of one event have one prescaler"),
            ("c*_1ms@0/2", "wave@0/8 and counter_1ms@0/2: signals of one event have one prescaler"),
        ]
        for name, message in rows:
            with self.subTest(name):
                done = self.run_cli(sim, "measure", "-s", "wave/8", "-s", name)
                self.assertEqual((done.returncode, done.stderr.startswith(f"measure: {message}")), (1, True), done.stderr)
        done = self.run_cli(self.start_sim("--no-prescaler"), "measure", "-s", "wave@0/8")
        self.expect(done, err="measure: 'wave@0/8': the ECU offers no prescalers\n", code=1)
        done = self.run_cli(sim, "measure", "--json", "-s", "wave@cyclic_1ms/8", "-s", "counter_1ms/8", "-t", 0.3)
        lines = [json.loads(line) for line in done.stdout.splitlines()]
        self.assertEqual([(g["cycleNs"], g["prescaler"]) for g in lines[0]["groups"]], [(8000000, 8)])
        counts = [line["values"]["counter_1ms"]["raw"] for line in lines if line["type"] == "record"]
        self.assertGreater(len(counts), 10)
        self.assertEqual(counts, list(range(counts[0], counts[-1] + 1, 8)))
        self.assertEqual(lines[-1]["statistics"]["missedCycles"], 0)


if __name__ == "__main__":
    unittest.main()
