"""Calibration pages: shown, switched, copied and stored, with a look at what came of it."""
import json
import unittest

import harness
from harness import CLI, SystemTest, Terminal, value_line

TWO = ("--pages", 2)
ON_0 = "XCP is on page 0 of segment 0 (parameters_0), which cannot be written"
APART = "; the ECU uses page 1: what is read here is not what it works with"


class PagesTest(SystemTest):
    def state(self, sim):
        """Pages of the ECU and of XCP, segment by segment."""
        told = json.loads(self.run_cli(sim, "page", "--json").stdout)
        return [(segment["ecuPage"], segment["xcpPage"]) for segment in told["segments"]]

    def test_a_tour(self):
        """Each step: what is typed, exit code, what is told, the pages and cal_gain as XCP sees it afterwards."""
        sim = self.start_sim(*TWO)
        for words, code, told, pages, gain in (
                (["page"], 0, "  page 1  ECU and XCP   ECU always, XCP reads always, writes always", [(1, 1)] * 2, "1.000"),
                (["set", "cal_gain=2"], 0, value_line("cal_gain", "2.000"), [(1, 1)] * 2, "2.000"),
                (["page", "set", 0], 1, "The ECU goes to page 0: ", [(1, 1)] * 2, "2.000"),
                (["page", "set", 0, "--xcp"], 0, "  page 0  XCP", [(1, 0)] * 2, "1.000"),
                (["set", "cal_gain=3"], 1, ON_0 + APART, [(1, 0)] * 2, "1.000"),
                (["snapshot", self.dir / "0.json", "cal_gain"], 0, ON_0 + APART, [(1, 0)] * 2, "1.000"),
                (["diff", self.dir / "0.json", "ecu", "cal_gain"], 0, ON_0 + APART, [(1, 0)] * 2, "1.000"),
                (["apply", self.dir / "0.json"], 0, ON_0 + APART, [(1, 0)] * 2, "1.000"),
                (["page", "set", 1, "--xcp", "--segment", 1], 0, "", [(1, 0), (1, 1)], "1.000"),
                (["page", "set", 0, "--yes"], 0, "  page 0  ECU and XCP", [(0, 0)] * 2, "1.000"),
                (["set", "cal_gain=3"], 1, "the cause, most likely: " + ON_0, [(0, 0)] * 2, "1.000"),
                (["page", "copy", 1, 0, "--yes"], 1, "COPY_CAL_PAGE: ERR_WRITE_PROTECTED", [(0, 0)] * 2, "1.000"),
                (["page", "set", 1, "--yes"], 0, "", [(1, 1)] * 2, "2.000"),
                (["page", "store", "--yes"], 0, "", [(1, 1)] * 2, "2.000"),
                (["set", "cal_gain=4"], 0, "", [(1, 1)] * 2, "4.000"),
                (["page", "copy", 0, 1], 1, "The ECU uses page 1: ", [(1, 1)] * 2, "4.000"),
                (["page", "copy", 0, 1, "--yes"], 0, "", [(1, 1)] * 2, "2.000"),
                (["page", "set", 2, "--yes"], 1, "segment 0 has no page 2", [(1, 1)] * 2, "2.000"),
                (["page", "set", 1, "--segment", 5], 1, "there is no segment 5", [(1, 1)] * 2, "2.000"),
                (["page", "copy", 0, 300], 1, "page 300: 0 to 255 are possible", [(1, 1)] * 2, "2.000")):
            with self.subTest(words=words):
                done = self.run_cli(sim, *words)
                self.assertEqual(done.returncode, code, done.stderr)
                self.assertIn(told, done.stdout + done.stderr)
                self.assertEqual(self.state(sim), pages)
                self.assertEqual(self.run_cli(sim, "get", "cal_gain").stdout, value_line("cal_gain", gain))
        self.assertEqual(self.run_cli(sim, "page", "set", 0, "--xcp").returncode, 0)
        for words in (["get", "cal_gain"], ["diff", self.dir / "0.json", "ecu"], ["apply", self.dir / "0.json", "--dry-run"]):
            self.assertIn(ON_0 + APART, json.loads(self.run_cli(sim, *words, "--json").stdout)["remarks"][0], words)
        self.assertEqual(self.run_cli(sim, "page", "set", 1, "--xcp").returncode, 0)
        kept = json.loads((self.dir / "0.json").read_text(encoding="utf-8"))["origin"]["pages"]
        self.assertEqual(kept, "parameters_0: page 0, the ECU used page 1; parameters_1: page 0, the ECU used page 1")
        told = json.loads(self.run_cli(sim, "diff", self.dir / "0.json", "ecu", "--json").stdout)
        self.assertEqual((told["a"]["pages"], told["b"]["pages"]), (kept, "parameters_0: page 1; parameters_1: page 1"))
        sim.signal(harness.signal.SIGUSR1)  # what was stored is there after a restart
        self.assertEqual(self.run_cli(sim, "get", "cal_gain").stdout, value_line("cal_gain", "2.000"))

    def test_a_question_at_the_terminal(self):
        sim = self.start_sim(*TWO)
        self.assertEqual(self.run_cli(sim, "set", "cal_gain=2", "cal_ignition_map[1][1]=3", "cal_ignition_map[1][2]=3").returncode, 0)
        for key, pages in ((b"n\n", [(1, 1)] * 2), (b"\n", [(1, 1)] * 2), (b"y\n", [(0, 0)] * 2)):
            terminal = Terminal(self.arguments(sim, "page", "set", "0"), self.env)
            self.addCleanup(terminal.close)
            terminal.wait_for("2 parameter(s) change. Go on? [y/N]")
            terminal.type(key)
            terminal.wait_for("")
            self.assertEqual(self.state(sim), pages)

    def test_ecus_that_do_not_do_as_they_say(self):
        for faults, words, code, told in (
                (["--page-faults", "apart"], ["get", "cal_gain"], 0, ON_0 + APART),
                (["--page-faults", "apart"], ["set", "cal_gain=2"], 1, "the cause, most likely: " + ON_0 + APART),
                (["--page-faults", "switched"], ["set", "cal_gain=2"], 1, "the cause, most likely: " + ON_0),
                (["--page-faults", "stuck"], ["page", "set", 0, "--yes"], 1, "is on page 1 of segment 0 all the same"),
                (["--no-freeze"], ["page", "store", "--yes"], 1, "the ECU cannot store pages"),
                (["--fault", "positive:COPY_CAL_PAGE"], ["page", "copy", 0, 1, "--yes"], 1, "1 byte(s) differ all the same"),
                (["--fault", "positive:SET_REQUEST"], ["page", "store", "--yes"], 1, "page 0 of segment 0 differs in 1 byte(s)"),
                (["--fault", "positive:SET_SEGMENT_MODE"], ["page", "store", "--yes"], 1, "nothing is stored")):
            with self.subTest(faults=faults, words=words):
                sim = self.start_sim(*TWO, *faults)
                if "positive" in faults[-1]:
                    self.assertEqual(self.run_cli(sim, "set", "cal_gain=1.5").returncode, 0)
                done = self.run_cli(sim, *words)
                self.assertEqual(done.returncode, code, done.stderr)
                self.assertEqual(done.stderr.count(told), 1, done.stderr)

    def test_answers_that_are_lost_late_or_doubled(self):
        """What was asked for is done, or refused; the order to store is not given twice."""
        for command, words in (("SET_CAL_PAGE", ["page", "set", 0, "--yes"]), ("GET_CAL_PAGE", ["page", "set", 0, "--yes"]),
                               ("COPY_CAL_PAGE", ["page", "copy", 0, 1, "--yes"]), ("BUILD_CHECKSUM", ["check"]),
                               ("GET_ID", ["check"]), ("SET_REQUEST", ["page", "store", "--yes"])):
            for kind in ("lose", "late", "double"):
                sim = self.start_sim(*TWO, "--fault", f"{kind}:{command}:1:1:{600 if kind == 'late' else 0}")
                done = self.run_cli(sim, "-c", self.quick_config(), *words)
                self.assertEqual(done.returncode, 0, (command, kind, done.stderr))
                if "set" in words:
                    self.assertEqual(self.state(sim), [(0, 0)] * 2)
                if command == "SET_REQUEST":
                    self.assertEqual(harness.counters(sim)["command-SET_REQUEST"], 1)

    def test_an_ecu_that_knows_no_pages(self):
        sim = self.start_sim()
        self.assertIn("neither the ECU nor the A2L knows calibration pages", self.run_cli(sim, "page").stderr)
        # The A2L tells what the ECU does not.
        without = [word for name in ("GET_PAG_PROCESSOR_INFO", "GET_SEGMENT_INFO", "GET_PAGE_INFO") for word in ("--without", name)]
        sim = self.start_sim(*TWO, *without)
        self.assertEqual(self.run_cli(sim, "page").stdout, self.run_cli(self.start_sim(*TWO), "page").stdout)


if __name__ == "__main__":
    unittest.main()
