"""A stream of samples that an ECU and a network disturb: every loss is told."""
import re
import unittest

import harness


def faults(*rules):
    return [argument for rule in rules for argument in ("--fault", rule)]


class StreamTest(harness.SystemTest):
    """Each fault of the stream, with what the statistics, the warning and the recording must make of it."""

    def measure(self, options, names, *arguments):
        """Returns what was told, the kinds of loss in it, the ECU's counters and the recorded groups."""
        sim = self.start_sim(*options)
        directory = self.dir / f"rec{len(list(self.dir.iterdir()))}"
        done = self.run_cli(sim, *arguments, *harness.record(directory, names, 0.6))
        self.expect(done, err=done.stderr)
        told, groups = self.statistics(done.stderr, directory)
        for warning in re.findall(r"\[warning\] measure: (.*)", done.stderr):
            told.update({name: int(count) for name, count in re.findall(r"([A-Za-z ]+?) (\d+)(?:, |$)", warning)})
        kinds = {name for name, count in told.items() if count != 0 and name not in ("records", "recorded")}
        return told, kinds, harness.counters(sim), groups

    def near(self, told, happened):
        """What happened behind the last record cannot be known."""
        self.assertIn(happened - told, (0, 1))

    def test_nothing_lost_means_nothing_told(self):
        rows = [["--pack", "20"], ["--pad", "9"], *map(faults, ("double:*:1:0", "stray:*:9", "stall:DAQ:100:1:300",
                                                                "late:*:1:0:20", "ctr-gap:10"))]
        for options in rows:
            with self.subTest(options):
                _, kinds, happened, groups = self.measure(options, ["counter_1ms@0", "counter_10ms@1"])
                gaps = {"UDP counter gaps", "UDP packets missing"} if "ctr-gap:10" in options else set()
                self.assertEqual(kinds, gaps)
                self.assertEqual(sum(len(group.records) for group in groups), happened["samples"])
                self.assertEqual(happened["datagrams-sent"] < happened["packets-sent"] / 2, "--pack" in options)
                for group in groups:
                    self.check_gapless(group)

    def test_whole_samples_lost(self):
        packets = {"UDP counter gaps", "UDP packets missing"}
        no_time = ["--timestamp-size", "0"]
        rows = [
            (["lose-odt:7"], "dtos-lost", {"missed cycles"}),
            (["overload:7", "--overload", "pid"], "samples-lost", {"missed cycles", "overloads"}),
            (["overload:7", "--overload", "none"], "samples-lost", {"missed cycles"}),
            (["overload:7", "--overload", "event"], "samples-lost", {"missed cycles", "overloads"}),
            (["overload:7", "--overload", "event", *no_time], "samples-lost", {"overloads"}),
            (["overload:7", "--overload", "pid", *no_time], "samples-lost", {"overloads"}),
            (["lose-datagram:7"], "packets-lost", {"missed cycles"} | packets),
            (["lose-datagram:7", *no_time], "packets-lost", packets),
            (["malformed:7"], "packets-malformed", {"missed cycles", "malformed UDP datagrams"} | packets),
        ]
        for options, counter, kinds in rows:
            with self.subTest(options):
                told, seen, happened, _ = self.measure(["--fault", *options], ["counter_1ms@0"])
                self.assertEqual(seen, kinds)
                self.assertGreater(happened[counter], 20)
                self.assertEqual(told["recorded"] + happened[counter], happened["samples"])
                for kind in kinds:
                    self.near(told[kind], happened[counter])

    def test_parts_of_samples_lost(self):
        names = [f"load_{n:04}" for n in range(400)]  # two ODTs
        told, kinds, happened, groups = self.measure(["--load-signals", "400", *faults("lose-odt:7")], names)
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
        names = ["counter_1ms@0", "wave@0", "counter_10ms@1", "gear@1"]
        for kind in ("lose", "ignore"):
            with self.subTest(kind):
                told, kinds, happened, groups = self.measure(
                    faults(*(f"{kind}:{name}" for name in commands)), names, "-c", config)
                self.assertEqual(kinds, set())
                self.assertTrue(0 < told["recorded"] <= happened["samples"])
                for group in groups:
                    self.check_gapless(group)


if __name__ == "__main__":
    unittest.main()
