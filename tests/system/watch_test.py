"""Conditions over a measurement: assertions and their reports, takes around triggers, `wait`."""
import json
import signal
import unittest
import xml.etree.ElementTree as ElementTree

import harness
import recording
from recording import Recording

SPEED = ["engine_speed@1"]


class WatchTest(harness.SystemTest):
    def measure(self, sim, *arguments, seconds=0.3, names=("counter_10ms@1", *SPEED)):
        return self.run_cli(sim, "measure", "-p", 0, "-t", seconds, *harness.signals(names), *arguments)

    def cases(self, path):
        """Name to (kind, message) of a report in XML, whose counts are those of its cases."""
        root = ElementTree.parse(path).getroot()
        found = {case.get("name"): next(((e.tag, e.get("message")) for e in case if e.tag != "system-out"), ("passed", None))
                 for case in root.iter("testcase")}
        kinds = [kind for kind, _ in found.values()]
        for suite in (root, root[0]):
            self.assertEqual([int(suite.get(n)) for n in ("tests", "failures", "errors")],
                             [len(kinds), kinds.count("failure"), kinds.count("error")])
        return found

    def test_what_is_wrong_with_an_expression(self):
        """One line with the place; nothing is measured, and no older report survives."""
        sim = self.start_sim()
        checks, report = self.dir / "checks.txt", self.dir / "report.xml"
        texts = "neutral, first, second, third, fourth, fifth"
        for text, reason in (
                ("wave>", "column 6: the expression ends too early"),
                ("", "column 1: the expression ends too early"),
                ("(wave>1", "column 8: ')' is missing"),
                ("wave>1)", "column 7: unexpected ')'"),
                ("wave=1", "column 5: unexpected '=' (equality is '==')"),
                ("wave>1 or wave<0", "column 8: unexpected 'or' (write '||')"),
                ("1<wave<3", "column 7: a comparison is compared again: write a<x && x<b, or brackets"),
                ("wave>3x", "column 7: unexpected 'x'"), ("wave>1.2.3", "column 6: '1.2.3' is no number"),
                ("wave>0xg", "column 6: this is no hexadecimal number"),
                ('"wave>1', "column 1: the closing '\"' is missing"),
                ('""==wave', "column 1: there is nothing between the quotation marks"),
                ("3>2", "column 1: no signal is named"), ("pow(wave)>1", "column 9: unexpected ')', ',' belongs here"),
                ("for(wave>1, 2)", "column 13: a time belongs here, as 2s, 500ms, 1.5min or 1h"),
                ("wave>\u00fc", "column 6: unexpected '\u00fc'"), ("\u00fc", "column 1: unexpected '\u00fc'"),
                ("(" * 300 + "wave", "column 201: the expression is nested too deeply"),
                ("wavy>1", "column 1: 'wavy' is neither a MEASUREMENT nor a CHARACTERISTIC"),
                ("cal_gains>1", "column 1: cal_gains has 6 elements: name one of them, as in cal_gains[0]"),
                ("status_gear==sixth", f"column 14: 'sixth' is neither a text of status_gear ({texts}) nor a signal"),
                ("wave>sixth", "column 6: 'sixth' is neither a MEASUREMENT nor a CHARACTERISTIC")):
            with self.subTest(text):
                report.write_text("old", encoding="utf-8")
                done = self.measure(sim, "--assert", text, "--report", report)
                self.expect(done, "", f"measure: --assert '{text}': {reason}\n", 1)
                self.assertEqual(self.cases(report)["measurement"][0], "error")
                checks.write_text(f"\ufeff# checks\n\n  name: {text}  \r\nwave>0", encoding="utf-8")
                done = self.measure(sim, "--assert-file", checks)
                self.expect(done, "", f"measure: {checks} line 3: {reason}\n", 1)
        self.assertIn("hint: wavy: did you mean 'wave'?", self.measure(sim, "--assert", "wavy>1").stderr)

    def test_options_that_do_not_fit(self):
        sim = self.start_sim()
        takes, start = ["-r", self.dir / "takes"], ["--start-when", "wave>1"]
        (self.dir / "empty").write_text("# nothing\n", encoding="utf-8")
        (self.dir / "old").mkdir()
        (self.dir / "old" / "meta.json").write_text("{}", encoding="utf-8")
        for arguments, message in (
                (start, "--start-when needs -r DIRECTORY, below which the takes go"),
                ([*takes, "--pre", "1s"], "--pre needs --start-when"),
                ([*takes, "--post", "1s"], "--post needs --start-when or --stop-when"),
                ([*takes, *start, "--repeat", 2], "--repeat needs --stop-when or --post, which end a take"),
                ([*takes, *start, "--pre", "5"], "--pre: '5' is no time (2s, 500ms, 1.5min or 1h)"),
                ([*takes, *start, "--post", "-5s"], "--post: '-5s' is no time (2s, 500ms, 1.5min or 1h)"),
                *(([*takes, *start, *option], "--start-when and --stop-when record takes: --split, --keep, --name and --export do not "
                   "go with them (`export` does it afterwards)")
                  for option in (["--split", "1h"], ["--keep", "1d"], ["--name", "{n}"], ["--export", "mf4"])),
                (["-r", self.dir / "old", *start], f"{self.dir}/old already contains a recording"),
                (["--assert", ": wave>1"], "--assert ': wave>1': a name belongs in front of the colon"),
                (["--assert-file", self.dir / "none"], f"cannot open {self.dir}/none: No such file or directory"),
                (["--assert-file", self.dir / "empty"], f"{self.dir}/empty holds no assertion (an expression a line)"),
                (["--report", "x.txt"], "--report x.txt: the file must end in .xml (JUnit) or .json"),
                (["--report", "/none/x.xml"], "cannot write /none/x.xml: No such file or directory")):
            with self.subTest(message):
                self.expect(self.measure(sim, *arguments), "", f"measure: {message}\n", 1)
        self.assertFalse((self.dir / "takes").exists())

    def test_verdicts(self):
        """Each line, the exit code, JSON and both reports; what is not measured is measured in addition."""
        sim = self.start_sim()
        report = self.dir / "report"
        rows = (("engine_speed>=0", "held", 0), ("a <&> b's: counter_10ms<0", "violated", 1), ("coolant_temp>-100", "held", 0),
                ("status_gear==neutral || status_gear!=\"neutral\"", "held", 0), ("nan: log(0-1)<engine_speed", "undecided", 1),
                ("counter_async<0 || counter_async>=0", None, None))
        chosen = [part for text, verdict, _ in rows if verdict for part in ("--assert", text)]
        done = self.measure(sim, *chosen, "--report", f"{report}.xml")
        self.assertEqual(done.returncode, 3, done.stderr)
        self.assertIn("also measured, as expressions name them: coolant_temp@2, status_gear", done.stderr)
        self.assertIn("'log(0-1)<engine_speed' could not be decided for a record: a value is not a number (NaN)", done.stderr)
        self.assertRegex(done.stderr, r"(?m)^violated       a <&> b's: counter_10ms<0, 1 time\(s\), (\d+) of \1 record\(s\), from 0.0")
        self.assertTrue(done.stderr.endswith("5 assertion(s), 2 not as wanted\n"), done.stderr)
        cases = self.cases(f"{report}.xml")
        for text, verdict, bad in rows[:-1]:
            name = text.partition(": ")[0]
            self.assertRegex(done.stderr, rf"(?m)^{verdict} +{harness.re.escape(name)}")
            self.assertEqual(cases[name][0], "failure" if bad else "passed")
        done = self.measure(sim, *chosen, "--report", f"{report}.json", "--json")
        end = json.loads(done.stdout.splitlines()[-1])
        told = json.loads((self.dir / "report.json").read_text(encoding="utf-8"))
        self.assertEqual([a["verdict"] for a in end["assertions"]], [row[1] for row in rows[:-1]])
        self.assertEqual((end["exit"], told["asWanted"], [c["result"] for c in told["cases"]]),
                         (3, False, ["passed", "passed", "failed", "passed", "passed", "failed"]))
        # The crank event may not come; then the assertion was never evaluated, which is not as wanted.
        done = self.measure(sim, "--assert", "counter_async@3<0", "--fail-on", "losses", "--report", f"{report}.xml")
        self.assertEqual((done.returncode, self.cases(f"{report}.xml")["counter_async@3<0"][0]), (3, "failure"))
        sim.kill()
        done = self.measure(sim, "--assert", "wave>0", "--report", f"{report}.xml")
        kind, message = self.cases(f"{report}.xml")["measurement"]
        self.assertEqual((done.returncode, kind, message[:16]), (1, "error", "connect: CONNECT"))

    def test_takes(self):
        """Numbers go on behind those that are there; what is open at the end is closed, by Ctrl-C too. Each tells what ran."""
        sim = self.start_sim("--epk", "PUMP 3.1", "--pages", 2)
        takes = self.dir / "takes"
        rising = ["-r", takes, "--start-when", "rises(counter_10ms%20==0)", "--pre", "55ms", "--post", "35ms"]
        done = self.measure(sim, *rising, "--repeat", 3, seconds=harness.PATIENCE)
        self.assertEqual(done.returncode, 0, done.stderr)
        tool = self.start_cli(sim, "measure", "-p", 0, *harness.signals(["counter_10ms@1"]), "-r", takes,
                              "--start-when", "counter_10ms%20==10", "--stop-when", "counter_10ms<0")
        tool.wait_for_err("recording to")
        self.assertEqual(harness.stop(tool)[0], 0, tool.err)
        self.assertIn("the measurement ended, recorded", tool.err)
        shown = self.run_plain("recording", "show", takes / "take004", "-s", "counter_10ms").stdout
        self.assertIn("trigger 'counter_10ms%20==10' at 0.000 s began it\n", shown)
        self.assertEqual(sorted(p.name for p in takes.iterdir()), [f"take{n:03}" for n in range(1, 5)])
        for number in (1, 2, 3):
            told = json.loads(self.run_plain("recording", "info", takes / f"take{number:03}", "--json").stdout)
            stamps = Recording(takes / f"take{number:03}").groups[0].timestamps
            self.assertEqual(told["triggers"], [{"atNs": stamps[-4] - stamps[0], "what": "start", "text": rising[3]}])
            self.assertEqual([(ran["epk"], len(ran["checksums"])) for ran in told["ecuRan"]], [("PUMP 3.1", 2)])
            self.assertEqual((told["commandLine"][-1], len(told["a2lSha256"])), ("3", 64))
            held = Recording(takes / f"take{number:03}").groups[0].counters()
            trigger = held[-4]
            self.assertEqual((trigger % 20, held), (0, list(range(trigger - len(held) + 4, trigger + 4))))
            self.assertTrue(number == 1 or len(held) == 9, held)
            self.expect(self.run_plain("recording", "check", takes / f"take{number:03}"),
                        f"{takes}/take{number:03}: 1 group(s), {len(held)} record(s), sound\n")
        done = self.measure(sim, "-r", self.dir / "never", "--start-when", "engine_speed>1e9")
        self.assertEqual((done.returncode, done.stderr.splitlines()[-1]), (0, "no take: no trigger came"))
        self.assertFalse((self.dir / "never").exists())
        done = self.measure(sim, "-r", takes, "--stop-when", "counter_10ms%5==0", seconds=harness.PATIENCE)
        self.assertEqual((done.returncode, Recording(takes / "take005").groups[0].counters()[-1] % 5), (0, 0), done.stderr)

    def test_a_take_over_an_outage(self):
        """The outage stands in the take; for() begins again behind it."""
        sim = self.start_sim("--epk", "PUMP 3.1")
        config = self.quick_config()
        tool = self.start_cli(sim, "-c", config, "--reconnect", "retry_forever", "measure", "-p", 0,
                              *harness.signals(["counter_10ms@1"]), "-r", self.dir / "takes", "--start-when", "counter_10ms>0",
                              "--stop-when", "for(counter_10ms>=0, 3s)")
        tool.wait_for_err("recording to")
        sim.kill()
        tool.wait_for_err("** reconnecting")
        self.start_sim("--epk", "PUMP 3.1", port=sim.port)
        self.assertEqual(tool.finish(), 0, tool.err)
        told = recording.events(self.dir / "takes" / "take001")
        outage = [event for event in told if event["event"].startswith("outage")]
        self.assertEqual([event["event"] for event in outage], ["outageBegin", "outageEnd"], told)
        behind = [t for t in Recording(self.dir / "takes" / "take001").groups[0].timestamps if t > outage[0]["timeNs"]]
        self.assertGreaterEqual(behind[-1] - behind[0], 3 * 10**9)
        self.assertEqual([event["event"] for event in told].count("ecu"), 2, "at the start and after the reconnection")
        self.assertEqual([(event["what"], event["timeNs"]) for event in told if event["event"] == "trigger"][1], ("stop", behind[-1]))

    def test_wait(self):
        report, waiting = self.dir / "wait.xml", r"^waiting for .*, up to \d+m?s - Ctrl-C to stop\n$"
        for options in ([], ["--no-daq"]):
            sim = self.start_sim(*options)
            for arguments, code, out, err in (
                    (["engine_speed>=0"], 0, r"^engine_speed>=0 held after \d\.\d{3} s: engine_speed=[\d.]+ rpm\n$", waiting),
                    (["engine_speed>=0", "--for", "200ms"], 0, r"held for 200ms after (0\.[2-9]|\d*[1-9]\.)", waiting),
                    (["engine_speed>9999 && status_gear==first", "--timeout", "900ms"], 3, "^$",
                     waiting[:-1] + r"wait: .* did not hold within 900ms: engine_speed=[\d.]+ rpm, status_gear=\w+\n$"),
                    (["engine_speed>>"], 1, "^$", r"^wait 'engine_speed>>': column|^wait: wait 'engine_speed>>': column"),
                    (["engine_spede>1"], 1, "^$", "column 1: 'engine_spede' is neither"),
                    (["engine_speed>1", "--for", "2s", "--timeout", "1s"], 1, "^$", "--for is longer than --timeout")):
                with self.subTest(arguments=arguments, options=options):
                    done = self.run_cli(sim, "wait", *arguments, "--report", report)
                    self.assertEqual(done.returncode, code, done.stderr)
                    self.assertRegex(done.stdout, out)
                    self.assertRegex(done.stderr, err)
                    kinds = {0: "passed", 3: "failure", 1: "error"}
                    self.assertEqual([kind for kind, _ in self.cases(report).values()], [kinds[code]])
            told = json.loads(self.run_cli(sim, "wait", "engine_speed>=0", "--json").stdout)
            self.assertEqual((told["held"], told["exit"], told["values"][0]["name"]), (True, 0, "engine_speed"))
            tool = self.start_cli(sim, "wait", "engine_speed<0", "--timeout", "0s")
            tool.wait_for_err("waiting for engine_speed<0 - Ctrl-C to stop\n")
            self.assertEqual(harness.stop(tool, signal.SIGTERM)[0], 1, tool.err)
        relay, seen = self.start_relay(), []
        relay.change = lambda datagram: seen.append(datagram[4]) or datagram
        lost = self.start_cli(relay, "-c", self.quick_config(), "wait", "engine_speed<0")
        lost.wait_for(lambda: any(first < 0xFC for first in seen), "a DTO")
        relay.hide()
        self.assertEqual(lost.finish(), 1, lost.err)
        self.assertEqual(self.run_cli(relay, "-c", self.quick_config(), "wait", "engine_speed>1", "--report", report).returncode, 4)
        self.assertEqual([kind for kind, _ in self.cases(report).values()], ["error"])


if __name__ == "__main__":
    unittest.main()
