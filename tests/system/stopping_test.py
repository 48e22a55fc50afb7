"""Ctrl-C, SIGTERM and closed pipes: every end is clean on the wire, in the files and for the shell."""
import os
import re
import signal
import tempfile
import unittest
from pathlib import Path

import harness
from recording import Recording
from relay import STOP_ALL, Relay

# How much slower than an ordinary build the programs may be (sanitizers).
SLOWNESS = float(os.environ.get("XCPLUMO_SLOWNESS", "1"))
STATISTICS = re.compile(r"(?m)^\d+\.\d s: (\d+) records, lost ODTs 0, missed cycles 0, overloads 0, reconnects (\d+), "
                        r"CAN dropped 0, error frames 0(?:, recorded (\d+) \(dropped (\d+)\))?$")


class StoppingTest(harness.SystemTest):
    def relay(self, sim):
        relay = Relay(sim)
        self.addCleanup(relay.close)
        return relay

    def measure(self, sim, *arguments, config=None, stdout=None):
        self.recording = Path(tempfile.mkdtemp(dir=self.dir))
        return self.start_cli(sim, "-c", config or self.quick_config(), "measure", "-s", "counter_1ms", "-r",
                              self.recording, *arguments, stdout=stdout)

    def recorded(self, program):
        """Number of records; statistics line, recording and counters of the ECU agree on it."""
        found = STATISTICS.findall(program.err)
        self.assertEqual(len(found), 1, program.err)
        records, _, recorded, dropped = map(int, found[0])
        self.assertEqual((recorded, dropped), (records, 0))
        group = Recording(self.recording).groups[0]
        values = [group.signals[0].raw(record) for record in group.records]
        self.assertEqual(values, list(range(values[0], values[0] + recorded)))
        return recorded

    def stop_in_time(self, program, number=signal.SIGINT):
        code, seconds = harness.stop(program, number)
        self.assertLess(seconds, 2 * SLOWNESS)
        return code

    def test_measurement_ends_cleanly_whatever_ends_it(self):
        ends = {
            "SIGINT": lambda program, _: program.signal(signal.SIGINT),
            "SIGTERM": lambda program, _: program.signal(signal.SIGTERM),
            "closed pipe": lambda _, reader: reader.close(),
            "duration": lambda _, __: None,
        }
        for name, end in ends.items():
            with self.subTest(name):
                sim = self.start_sim()
                relay = self.relay(sim)
                reading, writing = os.pipe()
                reader = os.fdopen(reading, "rb")
                duration = ["-t", "0.5"] if name == "duration" else []
                program = self.measure(relay, "-p", "10", *duration, stdout=writing)
                os.close(writing)
                self.assertIn(b"counter_1ms=", reader.readline())
                end(program, reader)
                self.assertEqual(program.finish(), 0, program.err)
                self.assertEqual(relay.commands[-2:], [STOP_ALL, b"\xFE"])
                recorded = self.recorded(program)
                seen = harness.counters(sim)
                self.assertEqual((seen["samples"], seen["commands"]), (recorded, len(relay.commands)))
                reader.close()

    def measure_until_silent(self, *arguments, **config):
        """A measurement whose ECU falls silent after some records; returns it and the relay."""
        relay = self.relay(self.start_sim())
        program = self.measure(relay, "-p", "10", *arguments, config=self.quick_config(**config))
        harness.wait_until(lambda: program.out.count("\n") > 3 or program.process.poll() is not None, "records")
        relay.hide()
        return program, relay

    def test_silent_ecu_while_measuring(self):
        program, relay = self.measure_until_silent(reconnect={"heartbeatMs": 60000})
        self.assertEqual(self.stop_in_time(program), 1)
        self.assertIn("\nstop: START_STOP_SYNCH: no response from slave (t1)\n", program.err)
        self.assertNotRegex(program.err, STATISTICS)
        self.assertEqual(relay.commands[-2:], [STOP_ALL, b"\xFE"])
        group = Recording(self.recording).groups[0]
        values = [group.signals[0].raw(record) for record in group.records]
        self.assertEqual(values, list(range(values[0], values[0] + len(values))))
        self.assertGreater(len(values), 30)

    def test_while_reconnecting(self):
        for name, interval in (("in the pause", 60000), ("in an attempt", 1)):
            with self.subTest(name):
                program, relay = self.measure_until_silent(
                    xcp={"timeoutsMs": [30000] * 7}, reconnect={"policy": "retry_forever", "intervalMs": interval})
                program.wait_for_err("** reconnecting: ")
                if name == "in an attempt":
                    harness.wait_until(lambda: relay.count("CONNECT") == 2, "the second CONNECT")
                self.assertEqual(self.stop_in_time(program), 0, program.err)
                self.assertGreater(self.recorded(program), 30)
                self.assertEqual(STATISTICS.findall(program.err)[0][1], "1")

    def test_failed_session_does_not_wait_for_the_ecu(self):
        program, relay = self.measure_until_silent(xcp={"timeoutsMs": [65000] * 7})
        self.assertEqual(program.finish(), 2, program.err)
        self.assertIn("** failed: connection lost: ", program.err)
        self.assertEqual(relay.commands[-2:], [STOP_ALL, b"\xFE"])
        self.recorded(program)

    def test_connecting_without_limit(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(number):
                sim = self.start_sim("--fault", "ignore:CONNECT:1:0")
                relay = self.relay(sim)
                config = self.quick_config(xcp={"timeoutsMs": [50] * 7, "connectAttempts": 0})
                program = self.start_cli(relay, "-c", config, "info")
                harness.wait_until(lambda: relay.count("CONNECT") > 3, "some attempts")
                self.assertEqual(self.stop_in_time(program, number), 1)
                self.assertEqual((program.out, program.err), ("", "connect: CONNECT: stopped\n"))

    def test_while_starting_leaves_no_list_running(self):
        relay = self.relay(self.start_sim("--fault", "late:START_STOP_SYNCH:1:1:60000"))
        program = self.measure(relay, config=self.quick_config(xcp={"timeoutsMs": [900] * 7}))
        harness.wait_until(lambda: relay.count("START_STOP_SYNCH") == 1, "the start")
        self.assertEqual(self.stop_in_time(program), 1)
        self.assertEqual(program.err, "measure: START_STOP_SYNCH: stopped\n")
        self.assertEqual(relay.commands[-2:], [STOP_ALL, b"\xFE"])

    def test_while_the_ecu_is_asked_for_its_status(self):
        for attempt in range(5):  # the stop reaches two threads
            with self.subTest(attempt):
                relay = self.relay(self.start_sim("--fault", "late:GET_STATUS:1:0:60000"))
                config = self.quick_config(xcp={"timeoutsMs": [900] * 7}, reconnect={"heartbeatMs": 150})
                program = self.start_cli(relay, "-c", config, "measure", "-s", "counter_100ms@2")
                harness.wait_until(lambda: relay.count("GET_STATUS") == 1, "the question")
                self.assertEqual(self.stop_in_time(program), 0, program.err)
                self.assertNotIn("** ", program.err)
                self.assertRegex(program.err, STATISTICS)

    def test_get_ends_at_the_next_value(self):
        sim = self.start_sim("--fault", "late:SHORT_UPLOAD:5:0:60000")
        relay = self.relay(sim)
        config = self.quick_config(xcp={"timeoutsMs": [900] * 7})
        program = self.start_cli(relay, "-c", config, "get", *["cal_limited"] * 30)
        harness.wait_until(lambda: relay.count("SHORT_UPLOAD") == 5, "the fifth value")
        self.assertEqual(self.stop_in_time(program), 1)
        lines = program.out.splitlines()
        self.assertEqual([line.split(None, 1)[1] for line in lines], ["7.000"] * 4 + ["ERROR SHORT_UPLOAD: stopped"])
        self.assertEqual((relay.names()[-1], program.err), ("DISCONNECT", ""))

    def test_set_reads_back_what_it_has_begun_to_write(self):
        sim = self.start_sim("--fault", "pending:DOWNLOAD:2:1:600")
        relay = self.relay(sim)
        assignments = [f"cal_limited={n}" for n in range(1, 9)]
        program = self.start_cli(relay, "set", *assignments)
        harness.wait_until(lambda: relay.count("DOWNLOAD") == 2, "the second write")
        self.assertEqual(harness.stop(program)[0], 1)
        begun = relay.names()[-1 - relay.names()[::-1].index("DOWNLOAD"):]
        self.assertEqual(begun[1], "SHORT_UPLOAD")
        self.assertEqual((begun[-1], program.err), ("DISCONNECT", ""))
        self.assertEqual([line.split(None, 1)[1] for line in program.out.splitlines()], ["1.000", "2.000"])
        self.assertEqual(self.run_cli(sim, "get", "cal_limited").stdout.split()[1], "2.000")
        self.assertEqual(harness.counters(sim)["writes"], 2)

    def test_second_signal_kills(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(number):
                program, relay = self.measure_until_silent(xcp={"timeoutsMs": [65000] * 7},
                                                           reconnect={"heartbeatMs": 60000})
                program.signal(signal.SIGINT)
                harness.wait_until(lambda: relay.commands[-1] == STOP_ALL, "the stop")

                def killed():
                    program.signal(number)
                    return program.process.poll() is not None

                harness.wait_until(killed, "the end")
                self.assertEqual(program.finish(), -number)

    def test_signals_that_come_together_are_one(self):
        # As timeout(1) sends them: to its command and to the command's group.
        program, relay = self.measure_until_silent(reconnect={"heartbeatMs": 60000})
        program.signal(signal.SIGTERM)
        harness.wait_until(lambda: relay.commands[-1] == STOP_ALL, "the stop")
        program.signal(signal.SIGTERM)
        self.assertEqual(program.finish(), 1, program.err)
        self.assertEqual(relay.commands[-2:], [STOP_ALL, b"\xFE"])
        self.assertIn("\nstop: START_STOP_SYNCH: no response from slave (t1)\n", program.err)

    def test_reader_that_pauses_costs_lines_not_records(self):
        sim = self.start_sim("--load-signals", "300", "--load-bytes", "8")
        names = [argument for n in range(300) for argument in ("-s", f"load_{n:04}")]
        reading, writing = os.pipe()
        program = self.measure(sim, "-p", "1", *names, stdout=writing)
        os.close(writing)
        file = self.recording / "g0000.rec"
        enough = 6 << 20  # more than pipe and queue hold
        harness.wait_until(lambda: file.exists() and file.stat().st_size > enough or
                           program.process.poll() is not None, "a recording that grows without a reader")
        program.signal(signal.SIGINT)
        with os.fdopen(reading, "rb") as reader:
            lines = reader.read().count(b"\n")
        self.assertEqual(program.finish(), 0, program.err)
        recorded = self.recorded(program)
        self.assertEqual(harness.counters(sim)["samples"], recorded)
        skipped = re.search(r"measure: (\d+) line\(s\) not printed, standard output did not take them", program.err)
        self.assertIsNotNone(skipped, program.err)
        self.assertEqual(lines + int(skipped.group(1)), recorded)
        self.assertGreater(int(skipped.group(1)), 0)


if __name__ == "__main__":
    unittest.main()
