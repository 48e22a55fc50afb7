"""The ECU ends, restarts, changes or falls silent while measuring: what each reconnect policy makes of it."""
import re
import signal
import unittest

import harness
import recording
from relay import STOP_ALL

NO_DATA = f"connection lost: no DAQ data for {harness.HEARTBEAT_MS} ms"
NO_CONNECT = "CONNECT: no response from slave after 1 attempt(s)"


class ReconnectTest(harness.SystemTest):
    def measure(self, sim, *arguments, **config):
        """Starts a recording measurement of two lists and waits for its first records."""
        names = ["counter_1ms@0", "counter_10ms@1"]
        program = self.start_cli(sim, "-c", self.quick_config(**config), *arguments,
                                 *harness.record(self.dir / "rec", names, every=20))
        program.wait_for_out("counter_10ms")
        return program

    def check_end(self, program, code, states, reconnects):
        """Compares how it ended; returns the groups of the recording."""
        self.assertEqual(program.finish(), code, program.err)
        shown = re.findall(r"(?m)^\*\* .*$", program.err)
        self.assertEqual([re.sub(r"(reconnected after) \d+ attempt\(s\)$", r"\1 N", line) for line in shown], states)
        told, groups = self.statistics(program.err, self.dir / "rec")
        self.assertEqual(told["reconnects"], reconnects)
        self.check_outages(shown)
        self.assertTrue(all(group.records for group in groups))
        return groups

    def check_outages(self, shown):
        """The recording tells each change of state that began or ended an outage."""
        expected = []
        for state, message in (line[3:].split(": ", 1) for line in shown):
            if not expected or len(expected[-1]) == 3:
                expected.append((message,))
            else:
                expected[-1] += (state == "measuring", message)
        if expected and len(expected[-1]) == 1:
            expected[-1] += (False, "the measurement ended")
        told = [e for e in recording.events(self.dir / "rec") if e["event"].startswith("outage")]
        self.assertEqual([(b["reason"], e["recovered"], e["outcome"]) for b, e in zip(told[::2], told[1::2])], expected)
        self.assertEqual(told, sorted(told, key=lambda event: event["timeNs"]))

    def attempts(self, program):
        return re.findall(r"reconnect attempt (\d+): (.*)", program.err)

    def test_abort_ends_with_what_was_recorded(self):
        sim = self.start_sim()
        program = self.measure(sim)
        sim.kill()
        for group in self.check_end(program, 2, ["** failed: " + NO_DATA], 0):
            self.check_gapless(group)

    def test_what_the_watch_sees(self):
        """With a heartbeat below four periods of the fastest list, GET_STATUS is asked."""
        rows = [
            (150, 2, [], lambda relay: relay.hide(), "GET_STATUS: SYNCH: no response from slave"),
            (150, 2, [], lambda relay: relay.inject(STOP_ALL), "DAQ no longer running in the ECU"),
            (150, 2, ["--fault", "terminate:DAQ:3"], None, "XCP slave not connected"),
            (harness.HEARTBEAT_MS, 0, ["--fault", "terminate:DAQ:3"], None, NO_DATA[len("connection lost: "):]),
        ]
        for heartbeat, event, faults, act, reason in rows:
            with self.subTest(reason):
                relay = self.start_relay(*faults)
                config = self.quick_config(reconnect={"heartbeatMs": heartbeat})
                program = self.start_cli(relay, "-c", config, "measure", "-s", f"gear@{event}", "-p", "1")
                program.wait_for_out("gear")
                if act:
                    act(relay)
                self.assertEqual(program.finish(), 2, program.err)
                self.assertEqual(re.findall(r"(?m)^\*\* .*", program.err), [f"** failed: connection lost: {reason}"])
                cause = "itself ended the session" if faults else "is off or out of reach"
                self.assertRegex(program.err, rf"(?m)^hint: the ECU {cause}")
                records = self.statistics(program.err)[0]["records"]
                self.assertTrue(records == 3 if faults else records >= 1, program.err)

    def test_an_outage_to_the_end_is_told(self):
        for what, code in (("losses,outage", 3), ("empty", 0)):
            with self.subTest(what):
                relay = self.start_relay()
                config = self.quick_config(reconnect={"policy": "retry_forever", "heartbeatMs": 300})
                program = self.start_cli(relay, "-c", config, "measure", "-p", "1", "-s", "counter_1ms@0", "--fail-on", what)
                program.wait_for_out("counter_1ms")
                relay.hide()
                program.wait_for_err("reconnect attempt 1:")
                program.signal(signal.SIGINT)
                self.assertEqual(program.finish(), code, program.err)
                self.assertEqual(self.statistics(program.err)[0]["reconnects"], 1)
                found = re.search(r"1 of 1 reconnects failed, (\d+\.\d) s without samples up to the end\n", program.err)
                self.assertGreaterEqual(float(found[1]), 0.7)

    def test_lists_without_a_record_are_told(self):
        for what, code in ((["empty"], 3), (["outage"], 0), ([], 0)):
            with self.subTest(what):
                done = self.run_cli(self.start_sim("--fault", "lose-odt:1"), "measure", "-t", "0.2", "-s", "counter_1ms@0",
                                    "-s", "gear@1", *(["--fail-on", *what] if what else []))
                self.assertEqual(done.returncode, code, done.stderr)
                self.assertEqual(re.findall(r"no record came of event .*", done.stderr),
                                 ["no record came of event 0 (cyclic_1ms, 1 ms)", "no record came of event 1 (cyclic_10ms, 10 ms)"])

    def test_old_lists_that_run_again_do_not_hide_an_outage(self):
        relay = self.start_relay()
        config = self.quick_config(reconnect={"policy": "retry", "attempts": 1000, "heartbeatMs": 300, "intervalMs": 1500})
        program = self.start_cli(relay, "-c", config, "measure", "-p", "100", "-s", "counter_1ms@0")
        program.wait_for_out("counter_1ms", 3)
        relay.change = lambda datagram: b""
        program.wait_for_err("** reconnecting")
        relay.change = lambda datagram: datagram
        program.wait_for_err("** measuring")
        program.signal(signal.SIGINT)
        self.assertEqual(program.finish(), 0, program.err)
        silent = float(re.search(r"(\d+\.\d) s without samples before 1 reconnection", program.err)[1])
        self.assertGreaterEqual(silent, 0.3)

    def test_retry_goes_on_with_an_ecu_that_was_replaced(self):
        relay = self.start_relay()
        program = self.measure(relay, xcp={"connectAttempts": 1}, reconnect={"policy": "retry", "attempts": 1000})
        begun = relay.names()
        relay.hide()
        program.wait_for_err("reconnect attempt 2:")
        relay.aim(self.start_sim())
        program.wait_for_err("** measuring: reconnected after")
        program.wait_for_out("\n", program.out.count("\n") + 10)
        program.signal(signal.SIGINT)
        groups = self.check_end(program, 0, ["** reconnecting: " + NO_DATA, "** measuring: reconnected after N"], 1)
        count = int(re.search(r"reconnected after (\d+) attempt\(s\)\n", program.err).group(1))
        self.assertEqual(self.attempts(program), [(str(n), NO_CONNECT) for n in range(1, count)])
        # The same commands as at the start, from the last CONNECT on; a stop and a DISCONNECT at the end. SYNCHs apart: the
        # CONNECTs before may be answered yet.
        names = relay.names()
        again = names[len(names) - 1 - names[::-1].index("CONNECT"):]
        self.assertEqual([name for name in again if name != "0xfc"],
                         [*(name for name in begun if name != "0xfc"), "START_STOP_SYNCH", "DISCONNECT"])
        for group in groups:
            # The counter of the new ECU may happen to go on where the other's ended: the pause alone tells them apart.
            values, times = group.counters(), group.timestamps
            pauses = [i for i in range(1, len(times)) if times[i] - times[i - 1] > 300_000_000]
            self.assertEqual(len(pauses), 1)
            jumps = {i for i in range(1, len(values)) if values[i] != values[i - 1] + 1}
            self.assertLessEqual(jumps, set(pauses))

    def test_ended_in_an_outage(self):
        """By Ctrl-C the outage ends, by kill -9 it has no end; what no cycle tells is said."""
        for number, last in ((signal.SIGINT, ["outageBegin", "outageEnd", "clock"]), (signal.SIGKILL, ["outageBegin"])):
            directory = self.dir / f"rec{number}"
            sim = self.start_sim()
            program = self.start_cli(sim, "-c", self.quick_config(), "--reconnect", "retry_forever",
                                     *harness.record(directory, ["counter_1ms@0", "counter_async@3"], every=20))
            program.wait_for_out("counter_async")
            sim.kill()
            program.wait_for_err("reconnect attempt 1:")
            program.signal(number)
            program.finish()
            told = "missed cycles cannot be checked in crank_tooth: no cycle is known\n" in program.err
            lines = [line for line in recording.events(directory) if line["event"] != "ecuClock"]  # takes a second to know
            self.assertEqual(([line["event"] for line in lines], told), (last, number == signal.SIGINT))
            latest = max(group.timestamps[-1] for group in recording.Recording(directory).groups)
            self.assertLess(abs(lines[0]["timeNs"] - latest), 300_000_000)
            self.assertNotIn("events.jsonl", self.run_plain("recording", "check", directory).stdout)
            info = self.run_plain("recording", "info", directory).stdout
            end = r"\d+\.\d{3} s: .*; the measurement ended" if number == signal.SIGINT else "the end: connection lost: .*"
            length = r"\d+\.\d{3} s in all" if number == signal.SIGINT else r"(at least \d+\.\d{3} s in all|length not known)"
            self.assertRegex(info, rf"(?m)^outages        1, {length}\n  from \d+\.\d{{3}} s to {end}$")
            self.assertIn("gaps         not known, no cycle says when the next record is due\n", info)
            shown = self.run_plain("recording", "show", directory, "-s", "counter_async").stdout
            self.assertRegex(shown.splitlines()[-1], f"^outage from .* to {end}$")

    def test_a_silence_at_the_end_is_told_though_nothing_noticed_it(self):
        for name, fault, heartbeat in (("counter_async@3", "silence:DAQ:20:1:0", 300), ("counter_1ms@0", "silence:DAQ:200:1:0", 3000)):
            with self.subTest(name):
                config = self.quick_config(xcp={"timeoutsMs": [700] * 7}, reconnect={"heartbeatMs": heartbeat})
                directory = self.dir / name
                done = self.run_cli(self.start_sim("--fault", fault), "-c", config, *harness.record(directory, [name]), "-t", "1.5")
                silent = float(re.search(r"(\d+\.\d) s without samples up to the end\n", done.stderr)[1])
                info = self.run_plain("recording", "info", directory).stdout
                told = re.search(r"(?m)^outages        1, (.*) s in all\n.*: no samples up to the end; the measurement ended$", info)
                self.assertAlmostEqual(float(told[1]), silent, delta=0.06)
                self.assertGreater(silent, 0.3)

    def test_retry_gives_up(self):
        sim = self.start_sim()
        program = self.measure(sim, "--reconnect", "retry", xcp={"connectAttempts": 0}, reconnect={"attempts": 3})
        sim.kill()  # its port refuses from now on
        self.check_end(program, 2, ["** reconnecting: " + NO_DATA, "** failed: reconnect failed after 3 attempt(s)"], 1)
        self.assertEqual(self.attempts(program), [(str(n), NO_CONNECT) for n in (1, 2, 3)])

    def test_ecu_that_comes_back_otherwise(self):
        """It goes on measuring, has another shape or restarts: each attempt fails with its reason until one succeeds."""
        relay = self.start_relay("--fault", "error:FREE_DAQ:2:1:0x11")
        program = self.measure(relay, "--reconnect", "retry_forever", reconnect={"attempts": 1})
        first, begun = relay.back, len(relay.commands)
        relay.hide()
        program.wait_for_err("** reconnecting: ")
        relay.resume(first)
        program.wait_for_err(": DAQ: FREE_DAQ: ERR_DAQ_ACTIVE (0x11)\n")
        program.wait_for_err("** measuring: reconnected after")
        refused = relay.names().index("FREE_DAQ", begun)
        self.assertEqual(relay.commands[refused + 1], b"\xfc")  # SYNCH: was it really the answer to that?
        self.assertEqual((relay.commands[refused + 2], relay.names()[refused + 3]), (STOP_ALL, "CONNECT"))
        for options, reason in ((["--timestamp-size", "2"], "the ECU came back with another timestamp size"),
                                (["--no-daq"], "slave does not offer the DAQ resource"),
                                (["--daq-entries", "1"], "ALLOC_ODT_ENTRY: ERR_MEMORY_OVERFLOW (0x30)")):
            relay.aim(self.start_sim(*options))
            program.wait_for_err(f": DAQ: {reason}\n")
        relay.aim(self.start_sim())
        program.wait_for(lambda: program.err.count("** measuring: reconnected after") == 2, "the second time")
        relay.sim.signal(signal.SIGUSR1)
        relay.aim(relay.sim)
        program.wait_for(lambda: program.err.count("** measuring: reconnected after") == 3, "the third time")
        program.signal(signal.SIGTERM)
        self.check_end(program, 0, ["** reconnecting: " + NO_DATA, "** measuring: reconnected after N"] * 3, 3)

    def test_an_ecu_that_was_reset(self):
        """What it lost is told and noted; `stop` ends the measurement; without a reconnection to come nothing is asked."""
        lost = "the ECU lost parameters while it was away, by a reset most likely; not as before: segment 0 (parameters_0)\n"
        epk = ("--epk", "PUMP 3.1", "--pages", 2)
        for options, after, config, told, what, code, sums in (
                (epk, None, {}, lost, ["parameters"], 0, 8), (epk, None, {"calibration": {"onReset": "stop"}}, lost, ["parameters"], 2, 6),
                (epk, None, {"calibration": {"onReset": "reapply"}}, "this session wrote nothing that", ["parameters", "writtenAgain"], 0, 8),
                (epk, (*epk, "--page-faults", "wrong-epk"), {}, 'came back with another software: the ECU runs "PUMP 3.?"', ["software", "parameters"], 0, 8),
                (epk, (*epk, "--page-faults", "wrong-epk"), {"identity": {"check": "refuse"}}, 'the ECU runs "PUMP 3.?"', ["software"], 2, 4),
                ((*epk, "--fault", "error:BUILD_CHECKSUM:3:0"), None, {}, "is not known: segment 0 (parameters_0): BUILD_CHECKSUM", ["parameters"], 0, 6),
                ((*epk, "--without", "BUILD_CHECKSUM"), None, {}, None, [], 0, 6), ((), None, {}, None, [], 0, 0),
                (epk, None, {"reconnect": {"policy": "abort", "heartbeatMs": 300}}, None, [], 2, 2)):
            with self.subTest(options=options, after=after, config=config):
                relay = self.start_relay(*options)
                other = after and self.start_sim(*after)
                self.assertEqual(self.run_cli(relay.sim, "set", "cal_gain=2").returncode, 0)
                quick = {"reconnect": {"policy": "retry_forever", "heartbeatMs": 300}} | config
                directory = self.dir / f"rec{len(list(self.dir.iterdir()))}"
                program = self.start_cli(relay, "-c", self.quick_config(**quick), *harness.record(directory, ["counter_1ms@0"], every=20))
                program.wait_for_out("counter_1ms")
                if other:
                    relay.hide()
                    relay.aim(other)
                else:
                    relay.sim.signal(signal.SIGUSR1)
                if code == 0:
                    program.wait_for_err("** measuring: reconnected after")
                    program.signal(signal.SIGINT)
                self.assertEqual(program.finish(), code, program.err)
                if told:
                    self.assertEqual(program.err.count(told), 1 + (code == 2 and what == ["software"]), program.err)
                noted = [event for event in recording.events(directory) if event["event"] == "ecuChanged"]
                self.assertEqual([event["what"] for event in noted], what)
                asked = relay.names().count("0xf3")  # BUILD_CHECKSUM: the recording notes them, too, unless it ends before
                self.assertTrue(asked <= sums and (asked > 0) == (sums > 0), asked)
                info = self.run_plain("recording", "info", directory).stdout
                self.assertTrue(all(event["text"] in info for event in noted), info)


if __name__ == "__main__":
    unittest.main()
