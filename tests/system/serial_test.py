"""XCP on a serial line, a pseudo-terminal of the simulated ECU, beside the text that the ECU prints on it."""
import re
import signal
import subprocess
import termios
import time
import unittest

import harness
from harness import signals, value_line
from recording import Recording
from recording_check import ModelCase, forty_signals

# The kernel hands the bytes of a pseudo-terminal on at its leisure when the machine is busy: no test is to depend on
# answers or data within less than this.
PATIENT_MS = 3000
LINE = re.compile(r"^(\d\d):(\d\d):(\d\d)\.(\d{3})  (.*)$")
DIAGNOSTICS = re.compile(r"(?m)ECU: diag (\d+): ((?:idle|connected|measuring), \d+ samples, \d+ writes)$")


class SerialTest(ModelCase):
    def plug(self, sim):
        """Pulls the plug, or puts it in again."""
        was = sim.line.is_symlink()
        sim.signal(signal.SIGRTMIN)
        harness.wait_until(lambda: sim.line.is_symlink() != was, "the plug")

    def console(self, sim, text="", *arguments, **settings):
        """Runs the console to its end; returns it and its lines without their times."""
        done = subprocess.run(self.arguments(sim, *arguments, "console", "-t", "1.5"), input=text, text=True,
                              capture_output=True, timeout=harness.PATIENCE, check=False,
                              env=dict(self.env, **settings))
        lines = [LINE.match(line) for line in done.stdout.splitlines()]
        self.assertTrue(all(lines), done.stdout)
        return done, [line[5] for line in lines]

    def test_values_and_information(self):
        sim = self.start_serial_sim("--baud", "57600")
        done = self.run_cli(sim, "info")
        self.expect(done, done.stdout)
        self.assertEqual(done.stdout.splitlines()[0],
                         f"ECU            SimulatedEcu (XCP on serial, {sim.line}, 57600 baud)")
        self.assertIn("\nstatus         session 0x00\n", done.stdout)
        sim.reach[1] = f"{sim.line}:250000"
        self.assertIn(f", {sim.line}, 250000 baud)\n", self.run_cli(sim, "info").stdout)
        self.expect(self.run_cli(sim, "set", "cal_gain=2.5"), value_line("cal_gain", "2.500"))
        self.expect(self.run_cli(sim, "get", "cal_gain", "no_such_name"), code=1, out=value_line("cal_gain", "2.500")
                    + value_line("no_such_name", "ERROR 'no_such_name' is neither a MEASUREMENT nor a CHARACTERISTIC"))

    def test_measurement_and_text_on_one_line(self):
        sim = self.start_serial_sim("--baud", "4000000", "--chatter-ms", "10")
        # A stalled machine answers late behind so much text; the default t1 is not what is tested here.
        config = self.quick_config(xcp={"timeoutsMs": [5000] * 7})
        program = self.start_measured(sim, forty_signals(), 3, "-v", "-c", config)
        recording = self.check_measured(program)
        self.assertEqual(recording.meta["source"], f"XCP on serial {sim.line}")
        seen = harness.counters(sim)
        self.assertEqual(sum(len(group.records) for group in recording.groups), seen["samples"])
        # Text and frames were cut into each other: every line is whole and in its place all the same.
        numbers = [int(number) for number, _ in DIAGNOSTICS.findall(program.err)]
        self.assertGreater(len(numbers), 50)
        self.assertEqual(numbers, list(range(numbers[0], numbers[0] + len(numbers))))
        whole = sum(line.endswith(" writes") for line in re.findall(r"(?m)ECU: (.*)$", program.err))
        self.assertEqual(whole, len(numbers))

    def test_invalid_frames_are_told(self):
        sim = self.start_serial_sim("--fault", "malformed:10", "--chatter-ms", "0")
        done = self.run_cli(sim, "measure", "-t", "1", "-s", "counter_10ms@1")
        self.assertEqual(done.returncode, 0, done.stderr)
        bad = harness.counters(sim)["packets-malformed"]
        self.assertGreater(bad, 5)
        self.assertIn(f"measure: serial invalid frames {bad}\n", done.stderr)

    def test_load_of_the_line(self):
        sim = self.start_serial_sim()
        measure = ["measure", *signals(["counter_10ms@1", "engine_speed@1"])]
        done = self.run_cli(sim, *measure, "-t", "0.3", "-s", "counter_async@3")
        self.assertIn(" 14.8 % - Ctrl-C to stop\nthe estimated bus load leaves out crank_tooth: no cycle is known\n", done.stderr)
        done = self.run_cli(sim, *measure, "-t", "0.3")
        self.assertIn("measuring 2 signal(s) in 1 DAQ list(s), estimated bus load 14.8 % - Ctrl-C to stop\n", done.stderr)
        sim.reach[1] = f"{sim.line}:9600"
        self.expect(self.run_cli(sim, *measure), code=1,
                    err="measure: estimated load of the serial line 177 % at 9600 baud exceeds the limit of 80 % "
                    "(fewer signals, slower events or a higher baud rate)\n")

    def test_pulled_and_plugged_while_measuring(self):
        for options in ([], ["--reset-on-open", "0"]):
            with self.subTest(options):
                sim = self.start_serial_sim(*options)
                config = self.quick_config(xcp={"timeoutsMs": [PATIENT_MS] * 7}, reconnect={"heartbeatMs": PATIENT_MS})
                directory = self.dir / f"rec{len(options)}"
                program = self.start_cli(sim, "-c", config, "--reconnect", "retry_forever",
                                         *harness.record(directory, ["counter_10ms@1"], every=5))
                program.wait_for_out("\n", 3)
                self.plug(sim)
                program.wait_for_err("reconnect attempt 2: XCP on serial: cannot open "
                                     f"{sim.line}: No such file or directory\n")
                self.plug(sim)
                program.wait_for_err("** measuring: reconnected after ")
                program.wait_for_out("\n", program.out.count("\n") + 3)
                self.assertEqual(harness.stop(program)[0], 0, program.err)
                self.assertIn(f"** reconnecting: connection lost: no DAQ data for {PATIENT_MS} ms\n", program.err)
                self.assertIn(", reconnects 1, ", program.err)
                self.check_pause(Recording(directory).groups[0], bool(options))

    def check_pause(self, group, restarted):
        """One pause of the ECU's data: its counter went on meanwhile, or began anew."""
        values = group.counters()
        steps = [(b - a) / 1e9 for a, b in zip(group.timestamps, group.timestamps[1:])]
        pause = steps.index(max(steps))
        self.assertGreater(steps[pause], PATIENT_MS / 1000)
        self.assertEqual(values[:pause + 1], list(range(values[0], values[0] + pause + 1)))
        counted = (values[pause + 1] - values[pause]) * 0.01
        if restarted:
            self.assertLess(counted, steps[pause] - 0.5)
        else:
            self.assertAlmostEqual(counted, steps[pause], delta=0.4)
        # Before the lists are written anew, an ECU that ran on sends what it was told before.
        after = values[pause + 1:]
        self.assertLess(sum(b != a + 1 for a, b in zip(after, after[1:])), 1 if restarted else 2)

    def test_reset_delay(self):
        config = self.quick_config(xcp={"connectAttempts": 1})
        deaf = self.start_serial_sim("--reset-on-open", "60000")
        self.expect(self.run_cli(deaf, "-c", config, "info"), code=1,
                    err="connect: CONNECT: no response from slave after 1 attempt(s)\n")
        booting = self.start_serial_sim("--reset-on-open", "200", "--chatter-ms", "0")
        booting.reach[-1] = 1500
        config = self.quick_config(xcp={"connectAttempts": 1, "timeoutsMs": [PATIENT_MS] * 7})
        done = self.run_cli(booting, "-v", "-c", config, "info")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertRegex(done.stderr, r"ECU: boot 2: .*\n.*ECU: ready\n")  # heard during the delay

    def test_stop_during_the_reset_delay(self):
        for command, code, told in (("info", 1, ["connect: XCP on serial: stopped"]), ("console", 0, [])):
            with self.subTest(command):
                sim = self.start_serial_sim("--reset-on-open", "0")
                sim.reach[-1] = 60000
                program = self.start_cli(sim, "-v", command)
                program.wait_for_err("ECU: ready")
                self.assertEqual(harness.stop(program)[0], code)
                self.assertEqual([line for line in program.err.splitlines() if not line.startswith("[")], told)

    def test_console_on_a_terminal(self):
        sim = self.start_serial_sim()
        terminal = harness.Terminal(self.arguments(sim, "console"), self.env)
        self.addCleanup(terminal.close)
        terminal.wait_for("  diag ")
        # A terminal would turn red, clear its screen or answer to these.
        terminal.type(b"hello \x1b[31m\x1b[2J\xc2\x9b5n\n")
        shown = "hello \\x1B[31m\\x1B[2J\\xC2\\x9B5n\r\n"
        terminal.wait_for("  > " + shown)
        terminal.wait_for("  you said: " + shown)
        output = "".join(line for line in terminal.screen.splitlines(True) if LINE.match(line.rstrip()))
        self.assertNotRegex(output, "[\x00-\x08\x0b\x0c\x0e-\x1f\x7f-\x9f]")
        terminal.type(b"\x03")
        self.assertEqual(terminal.process.wait(harness.PATIENCE), 0)
        self.assertEqual(termios.tcgetattr(terminal.slave), terminal.before)

    def test_console_sends_standard_input(self):
        sim = self.start_serial_sim("--chatter-ms", "0")
        before = int(time.time() * 1000)
        done, lines = self.console(sim, "first\nsecond\n" + "x" * 70000 + "\n\nlast", TZ="XYZ-5:45")
        after = int(time.time() * 1000)
        self.assertEqual((done.returncode, done.stderr), (0, "send: a line beyond 65536 bytes is not sent\n"))
        typed = ["first", "second", "", "last"]
        for mark in ("> ", "you said: "):
            self.assertEqual([line for line in lines if line.startswith(mark)], [mark + line for line in typed])
        for line in done.stdout.splitlines():
            hours, minutes, seconds, ms = (int(part) for part in LINE.match(line).groups()[:4])
            shown = (((hours - 5) * 60 + minutes - 45) * 60 + seconds) * 1000 + ms
            self.assertLessEqual((shown - before) % (86400 * 1000), after - before, line)

    def test_console_ends(self):
        sim = self.start_serial_sim("--chatter-ms", "20")
        done = subprocess.run(self.arguments(sim, "console"), input="hello\n", text=True, capture_output=True, env=self.env,
                              timeout=harness.PATIENCE, check=False)
        self.expect(done, done.stdout)
        self.assertRegex(done.stdout, r"(?m)^[\d:.]{12}  > hello$")
        program, reader = self.start_piped(sim, "console", "-t", "60")
        self.assertTrue(reader.readline())
        reader.close()
        self.assertEqual((program.finish(), program.err), (0, ""))

    def test_console_without_xcp(self):
        sim = self.start_serial_sim("--fault", "ignore:CONNECT:1:0", "--chatter-ms", "50")
        done, lines = self.console(sim, "hello\n", "-c", self.quick_config(xcp={"connectAttempts": 1}))
        self.expect(done, done.stdout,
                    "connect: CONNECT: no response from slave after 1 attempt(s) (showing the text only)\n")
        self.assertIn("you said: hello", lines)

    def test_console_waits_for_the_line(self):
        sim = self.start_serial_sim("--chatter-ms", "50")
        self.plug(sim)
        program = self.start_cli(sim, "console", "-t", "60")
        missing = f"XCP on serial: cannot open {sim.line}: No such file or directory"
        program.wait_for_err(f"connect: {missing} (showing the text only)\n")
        for _ in range(2):
            seen = len(program.out)
            self.plug(sim)
            harness.wait_until(lambda: re.search(r"  -- connected\n(.*\n)*.*  diag ", program.out[seen:]), "the line")
            self.plug(sim)
            harness.wait_until(lambda: f"  -- connection lost: {sim.line}: port gone\n" in program.out[seen:], "the loss")
        self.assertIn("  -- no line yet, trying again each second\n", program.out)
        self.assertEqual(harness.stop(program)[0], 0, program.err)


if __name__ == "__main__":
    unittest.main()
