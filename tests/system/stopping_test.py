"""Ctrl-C, SIGTERM and closed pipes: every end is clean on the wire, in the files and for the shell."""
import fcntl
import os
import re
import signal
import tempfile
import unittest
from pathlib import Path

import harness
from harness import value_line
from recording import Recording
from relay import STOP_ALL

# How much slower than an ordinary build the programs may be (sanitizers).
SLOWNESS = float(os.environ.get("XCPLUMO_SLOWNESS", "1"))
CLEAN_END = [STOP_ALL, b"\xFE"]
LONG = {"timeoutsMs": [65000] * 7}


class StoppingTest(harness.SystemTest):
    def measuring(self, every, *names, **config):
        """The arguments of a measurement with a recording of its own."""
        self.recording = Path(tempfile.mkdtemp(dir=self.dir))
        return ["-c", self.quick_config(**config), *harness.record(self.recording, ["counter_1ms", *names], every=every)]

    def check_recorded(self, program, reconnects=0):
        """Statistics line and recording agree, and nothing is missing; returns the number of records."""
        told, groups = self.statistics(program.err, self.recording)
        lossless = dict.fromkeys(told, 0) | {"reconnects": reconnects}
        self.assertEqual(told, lossless | {"records": told["records"], "recorded": told["records"]})
        self.check_gapless(groups[0])
        return told["records"]

    def stop_in_time(self, program, number=signal.SIGINT):
        code, seconds = harness.stop(program, number)
        self.assertLess(seconds, 2 * SLOWNESS)
        return code

    def test_measurement_ends_cleanly_whatever_ends_it(self):
        for end in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, "closed pipe", "duration"):
            with self.subTest(end):
                relay = self.start_relay()
                duration = ["-t", "0.5"] if end == "duration" else []
                program, reader = self.start_piped(relay, *self.measuring(10), *duration)
                self.assertIn(b"counter_1ms=", reader.readline())
                if end == "closed pipe":
                    reader.close()
                elif end != "duration":
                    program.signal(end)
                self.assertEqual(program.finish(), 0, program.err)
                self.assertEqual(relay.commands[-2:], CLEAN_END)
                seen = harness.counters(relay.sim)
                self.assertEqual(seen["samples"], self.check_recorded(program))
                self.assertEqual(seen["commands"], len(relay.commands))

    def measure_until_silent(self, **config):
        """A measurement whose ECU falls silent after some records; returns it and the relay."""
        relay = self.start_relay()
        program = self.start_cli(relay, *self.measuring(10, **config))
        program.wait_for_out("\n", 4)
        relay.hide()
        return program, relay

    def test_silent_ecu_while_measuring(self):
        # timeout(1) signals its command and the command's group: two signals close together are one stop.
        for number, again in ((signal.SIGINT, False), (signal.SIGTERM, True)):
            with self.subTest(number):
                program, relay = self.measure_until_silent(reconnect={"heartbeatMs": 60000})
                if again:
                    program.signal(number)
                    program.wait_for(lambda relay=relay: relay.commands[-1] == STOP_ALL, "the stop")
                self.assertEqual(self.stop_in_time(program, number), 1)
                self.assertIn("\nstop: START_STOP_SYNCH: no response from slave (t1)\n", program.err)
                self.assertNotRegex(program.err, harness.STATISTICS)
                self.assertEqual(relay.commands[-2:], CLEAN_END)
                group = Recording(self.recording).groups[0]
                self.check_gapless(group)
                self.assertGreater(len(group.records), 30)

    def test_while_reconnecting(self):
        for name, interval in (("in the pause", 60000), ("in an attempt", 1)):
            with self.subTest(name):
                program, relay = self.measure_until_silent(
                    xcp=LONG, reconnect={"policy": "retry_forever", "intervalMs": interval})
                program.wait_for_err("** reconnecting: ")
                if name == "in an attempt":
                    program.wait_for(lambda relay=relay: relay.names().count("CONNECT") == 2, "the second CONNECT")
                self.assertEqual(self.stop_in_time(program), 0, program.err)
                self.assertGreater(self.check_recorded(program, reconnects=1), 30)

    def test_failed_session_does_not_wait_for_the_ecu(self):
        program, relay = self.measure_until_silent(xcp=LONG)
        self.assertEqual(program.finish(), 2, program.err)
        self.assertEqual(relay.commands[-2:], CLEAN_END)
        self.check_recorded(program)

    def test_unanswered_command_is_given_up(self):
        """Each row: the fault, the command, what is waited for and how often; exit code, output and error."""
        status = ["-s", "counter_100ms@2"]
        values = value_line("cal_limited", "7.000") * 4 + value_line("cal_limited", "ERROR SHORT_UPLOAD: stopped")
        rows = [
            ("ignore:CONNECT:1:0", ["info"], "CONNECT", 4, 1, "", "connect: CONNECT: stopped\n"),
            ("overtaken:START_STOP_SYNCH:1:1:60000", ["measure", "-s", "wave", "-p", "0"], "START_STOP_SYNCH", 1, 1, "",
             "measure: START_STOP_SYNCH: stopped\n"),
            ("overtaken:SHORT_UPLOAD:5:0:60000", ["get", *["cal_limited"] * 30], "SHORT_UPLOAD", 5, 1, values, ""),
        ] + [("overtaken:GET_STATUS:1:0:60000", ["measure", *status], "GET_STATUS", 1, 0, None, None)] * 5
        for number, (fault, arguments, command, count, code, out, err) in enumerate(rows):
            with self.subTest(fault):  # the stop of GET_STATUS reaches two threads
                relay = self.start_relay("--fault", fault)
                timeout = 50 if command == "CONNECT" else 700
                config = self.quick_config(xcp={"timeoutsMs": [timeout] * 7, "connectAttempts": 0},
                                           reconnect={"heartbeatMs": 150})
                program = self.start_cli(relay, "-c", config, *arguments)
                program.wait_for(lambda: relay.names().count(command) >= count, command)  # pylint: disable=cell-var-from-loop
                signals = (signal.SIGINT, signal.SIGTERM)
                self.assertEqual(self.stop_in_time(program, signals[number % 2]), code, program.err)
                if err is None:
                    self.assertNotIn("** ", program.err)
                    self.statistics(program.err)
                else:
                    self.assertEqual((program.out, program.err), (out, err))
                if arguments[0] == "measure":
                    self.assertEqual(relay.commands[-2:], CLEAN_END)
                elif arguments[0] == "get":
                    self.assertEqual(relay.names()[-1], "DISCONNECT")

    def test_set_reads_back_what_it_has_begun_to_write(self):
        relay = self.start_relay("--fault", "pending:DOWNLOAD:2:1:600")
        program = self.start_cli(relay, "set", *(f"cal_limited={n}" for n in range(1, 9)))
        program.wait_for(lambda: relay.names().count("DOWNLOAD") == 2, "the second write")
        self.assertEqual(harness.stop(program)[0], 1)
        self.assertEqual((program.out, program.err),
                         (value_line("cal_limited", "1.000") + value_line("cal_limited", "2.000"),
                          "".join(f"cal_limited={n}: not written, stopped\n" for n in range(3, 9))))
        self.assertEqual(relay.names()[-1], "DISCONNECT")
        self.expect(self.run_cli(relay.sim, "get", "cal_limited"), value_line("cal_limited", "2.000"))
        self.assertEqual(harness.counters(relay.sim)["writes"], 2)

    def test_a_pipe_that_nobody_writes_to_is_not_waited_for_any_longer(self):
        pipe = self.dir / "pipe"
        os.mkfifo(pipe)
        for option, message in (("--a2l", f"session: cannot read A2L file {pipe}: Operation canceled\n"),
                                ("-c", f"configuration: cannot read configuration {pipe}\n")):
            program = self.start([harness.CLI, option, pipe, "list"])
            opened = Path(f"/proc/{program.process.pid}/fd")
            program.wait_for(lambda: any(entry.is_fifo() for entry in opened.iterdir()), "the pipe to be opened")
            self.assertEqual(self.stop_in_time(program), 1)
            self.assertEqual(harness.without_hints(program.err), message)

    def test_reader_that_pauses_costs_lines_not_records(self):
        sim = self.start_sim("--load-signals", "300", "--load-bytes", "8")
        program, reader = self.start_piped(sim, *self.measuring(1, *(f"load_{n:04}" for n in range(300))))
        file = self.recording / "g0000.rec"
        enough = 6 << 20  # more than pipe and queue hold
        program.wait_for(lambda: file.exists() and file.stat().st_size > enough, "a recording that grows")
        program.signal(signal.SIGINT)
        lines = reader.read().count(b"\n")
        self.assertEqual(program.finish(), 0, program.err)
        recorded = self.check_recorded(program)
        self.assertEqual(harness.counters(sim)["samples"], recorded)
        skipped = re.findall(r"measure: (\d+) line\(s\) not printed, standard output did not take them", program.err)
        self.assertEqual([int(count) for count in skipped], [recorded - lines], program.err)

    def test_standard_error_that_nobody_reads_holds_up_nothing(self):
        sim = self.start_sim()
        reading, writing = os.pipe()
        self.addCleanup(os.close, reading)
        fcntl.fcntl(writing, fcntl.F_SETPIPE_SZ, 4096)
        os.write(writing, b"z" * 4096)
        config = self.quick_config(xcp=LONG, reconnect={"policy": "retry_forever"})
        file = self.dir / "rec" / "g0000.rec"
        program = self.start(self.arguments(sim, "-c", config, "measure", "-s", "counter_1ms", "-r", file.parent),
                             stderr=writing)
        os.close(writing)
        program.wait_for(lambda: file.exists() and file.stat().st_size > 100, "records")
        sim.signal(signal.SIGUSR1)
        enough = 36000 + file.stat().st_size  # more than was under way at the restart
        program.wait_for(lambda: file.stat().st_size > enough, "records after the restart")
        self.assertEqual(harness.stop(program)[0], 0)


if __name__ == "__main__":
    unittest.main()
