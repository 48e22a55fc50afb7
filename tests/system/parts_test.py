"""Recordings in parts: `measure --split`, `--keep`, `--name`, `--export`, what a recording says of what ran."""
import json
import unittest

import harness
from harness import SystemTest, record
from recording import Recording

NAMES = ["counter_1ms@0", "counter_10ms@1"]
EPK = "PUMP 3.1"


class PartsTest(SystemTest):
    def parts(self, folder):
        """The recordings in a folder, in the order of their numbers."""
        found = [(meta.parent, Recording(meta.parent)) for meta in folder.glob("*/meta.json")]
        return sorted(found, key=lambda part: part[1].meta["part"]["number"])

    def events(self, directory, kind):
        lines = map(json.loads, (directory / "events.jsonl").read_text(encoding="utf-8").splitlines())
        return [line for line in lines if line["event"] == kind]

    def measure(self, sim, *options, seconds="3.4", names=()):
        return self.run_cli(sim, "-c", self.quick_config(), *record(self.dir / "night", names or NAMES, seconds), *options)

    def test_parts_continue_each_other_and_are_read_as_one(self):
        sim = self.start_sim("--epk", EPK, "--pages", 2)
        folder = self.dir / "night"
        done = self.measure(sim, "--split", "1s", "--export", "csv", "--with-parameters", "--name", "{ecu}-x")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn("(dropped 0)", done.stderr)
        parts = self.parts(folder)
        names = [directory.name for directory, _ in parts]
        self.assertEqual(names, [f"SimulatedEcu-x_{n:04}" for n in range(1, len(parts) + 1)])
        self.assertGreaterEqual(len(parts), 3)
        self.assertEqual([part.meta["part"].get("previous") for _, part in parts], [None, *names[:-1]])
        records = 0
        for group in range(2):
            values = [value for _, part in parts for value in part.groups[group].counters()]
            self.assertEqual(values, list(range(values[0], values[0] + len(values))))
            records += len(values)
        for directory, part in parts:
            (ran,) = self.events(directory, "ecu")
            self.assertEqual((ran["epk"], part.meta["commandLine"][-1]), (EPK, "{ecu}-x"))
            self.assertEqual([one["segment"] for one in ran["checksums"]], [0, 1])
            self.assertEqual(len(list(folder.glob(f"{directory.name}*.csv"))), 2)
            self.assertIn("cal_gain", (directory / "parameters.json").read_text(encoding="utf-8"))
        for shown in ([folder], [directory for directory, _ in reversed(parts)]):
            self.expect(self.run_plain("recording", "check", *shown), f"{shown[0]}: {len(parts)} recordings, 2 group(s), {records} record(s), sound\n")
        info = json.loads(self.run_plain("recording", "info", folder, "--json").stdout)
        self.assertEqual((len(info["recordings"]), info["breaks"], [group["gaps"]["count"] for group in info["groups"]]), (len(parts), [], [0, 0]))
        self.assertEqual(info["ecuRan"][0]["epk"], EPK)
        text = self.run_plain("recording", "info", folder).stdout
        self.assertRegex(text, rf'recordings     {len(parts)}, from SimulatedEcu-x_0001 to {names[-1]}\n(.*\n)+ECU ran        at .* s, EPK "{EPK}", segment 0')
        self.run_plain("export", folder, "-o", self.dir / "all.csv", "--merge")
        lines = (self.dir / "all.csv").read_text(encoding="utf-8").splitlines()
        self.assertGreaterEqual(len(lines) - 1, max(group["records"] for group in info["groups"]))
        self.assertEqual(self.run_plain("recording", "show", folder, "-s", "counter_1ms").returncode, 0)

    def test_the_oldest_parts_go_and_nothing_else(self):
        folder = self.dir / "night"
        (folder / "mine").mkdir(parents=True)
        sim = self.start_sim()
        single = self.run_cli(sim, *record(folder, NAMES, "0.2"), "--name", "keep-{n}")
        self.assertEqual(single.returncode, 0, single.stderr)
        done = self.measure(sim, "--split", "1s", "--keep", "1kB", "--export", "mf4", seconds="4.4")
        self.assertEqual(done.returncode, 0, done.stderr)
        removed = done.stderr.count(" removed: more than 1.0 kB are kept")
        self.assertGreaterEqual(removed, 3, done.stderr)
        left = sorted(path.name for path in folder.iterdir())
        self.assertEqual(left[-2:], ["keep-0001", "mine"])
        self.assertEqual(left[:-2], [left[0], left[0] + ".mf4"], "the last part stays, with its export")
        self.assertEqual(Recording(folder / left[0]).meta["part"]["number"], removed + 1)

    def test_parts_of_earlier_runs_of_the_same_ecu_go_first(self):
        """Those of another ECU stay, also when they are older, and so does what is no part."""
        folder = self.dir / "night"
        sim = self.start_sim()
        for name, limit in (("other", ()), ("engine", ()), ("engine", ("--keep", "1kB"))):
            config = self.config(json.dumps({"name": name}))
            done = self.run_cli(sim, "-c", config, *record(folder, NAMES, "1.4"), "--split", "1s", "--export", "csv", *limit)
            self.assertEqual(done.returncode, 0, done.stderr)
            if not limit:
                (folder / f"{name}-notes.csv").touch()
        self.assertEqual(sorted(part.meta["ecu"] for _, part in self.parts(folder)), ["engine", "other", "other"])
        exports = sorted(path.name for path in folder.glob("*.csv"))
        self.assertEqual(len(exports), 2 * 3 + 2, exports)
        self.assertEqual(done.stderr.count("removed: more than 1.0 kB are kept"), 3, done.stderr)

    def test_an_outage_goes_on_in_the_next_part(self):
        sim = self.start_sim("--epk", EPK)
        folder = self.dir / "night"
        measure = self.start_cli(sim, "-c", self.quick_config(), "--reconnect", "retry_forever", *record(folder, NAMES), "--split", "1s")
        measure.wait_for(lambda: len(list(folder.glob("*/g0000.rec"))) == 2, "a second part")
        sim.signal(harness.signal.SIGUSR1)
        measure.wait_for_err("reconnected after")
        measure.wait_for(lambda: len(list(folder.glob("*/g0000.rec"))) == 4, "a fourth part")
        measure.signal(harness.signal.SIGINT)
        self.assertEqual(measure.finish(), 0, measure.err)
        info = json.loads(self.run_plain("recording", "info", folder, "--json").stdout)
        self.assertEqual([outage["recovered"] for outage in info["outages"]], [True])
        self.assertEqual([note["epk"] for note in info["ecuRan"]], [EPK, EPK], "at the start and after the reconnection")
        self.assertEqual(self.run_plain("recording", "check", folder).returncode, 0)

    def test_what_does_not_go_together_is_refused(self):
        sim = self.start_sim()
        for options, reason in ((["--keep", "1d"], "--keep removes closed parts: give --split"),
                                (["--split", "1h,2h"], "--split: two times are given"),
                                (["--split", "0.1s"], "--split: a part has at least 1s or 100kB"),
                                (["--split", "1"], "--split: '1' is no time and no size (90s, 15min, 1h, 14d, 500MB, 2GB)"),
                                (["--name", "../x"], "--name: the name '../x' begins with a dot, which hides the recording"),
                                (["--name", "{x}"], "--name: the name '{x}' has {x}, known are {time}, {ecu} and {n}")):
            with self.subTest(options=options):
                self.expect(self.measure(sim, *options), err=f"measure: {reason}\n", code=1)
        self.assertFalse((self.dir / "night").exists())


if __name__ == "__main__":
    unittest.main()
