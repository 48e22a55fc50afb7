"""XCP on a serial line, a pseudo-terminal of the simulated ECU, beside the text that the ECU prints on it."""
import os
import re
import select
import signal
import subprocess
import termios
import time
import unittest

import harness
import recording_check
from recording import Recording
from recording_test import forty_signals

# The kernel hands the bytes of a pseudo-terminal on at its leisure when the machine is busy: no test is to depend on
# answers or data within less than this.
PATIENT_MS = 3000
LINE = re.compile(r"^(\d\d):(\d\d):(\d\d)\.(\d{3})  (.*)$")
DIAGNOSTICS = re.compile(r"(?m)ECU: diag (\d+): ((?:idle|connected|measuring), \d+ samples, \d+ writes)$")


class Terminal:
    """The tool on a terminal of its own, whose keys are pressed and whose screen is read here."""

    def __init__(self, arguments, env):
        self.master, slave = os.openpty()
        self.before = termios.tcgetattr(slave)
        self.process = subprocess.Popen(arguments, env=env, preexec_fn=lambda: os.login_tty(slave))
        self.slave = slave
        self.screen = ""

    def type(self, keys):
        os.write(self.master, keys)

    def wait_for(self, text):
        def look():
            while select.select([self.master], [], [], 0)[0]:
                self.screen += os.read(self.master, 65536).decode()
            return text in self.screen
        harness.wait_until(look, f"{text!r} on the screen {self.screen!r}")

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        os.close(self.master)
        os.close(self.slave)


class SerialTest(harness.SystemTest):
    """`sim.line` is what the tool opens; it stays the same when the ECU is pulled and plugged."""

    def start_sim(self, *options, port=0):
        line = self.dir / f"line{len(list(self.dir.iterdir()))}"
        sim = self.start([harness.SIM, "--serial-link", line, *options])
        harness.wait_until(lambda: sim.out.count("\n") > 0 or sim.process.poll() is not None, "the line")
        self.assertEqual(sim.out, f"serial {line}\n", sim.err)
        sim.line = line
        sim.a2l = self.write_a2l("--serial", *options)
        return sim

    def arguments(self, sim, *arguments):
        delay = () if "--reset-delay" in arguments else ("--reset-delay", "20")
        return [harness.CLI, "--a2l", str(sim.a2l), "--serial", str(sim.line), *delay, *map(str, arguments)]

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
        sim = self.start_sim("--baud", "57600")
        done = self.run_cli(sim, "info")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertEqual(done.stdout.splitlines()[0],
                         f"ECU            SimulatedEcu (XCP on serial, {sim.line}, 57600 baud)")
        self.assertIn("\nstatus         session 0x00\n", done.stdout)
        done = self.run_plain("--a2l", sim.a2l, "--serial", f"{sim.line}:250000", "--reset-delay", 0, "info")
        self.assertIn(f", {sim.line}, 250000 baud)\n", done.stdout)
        done = self.run_cli(sim, "set", "cal_gain=2.5", "cal_injector=off")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        done = self.run_cli(sim, "get", "cal_gain", "no_such_name")
        self.assertEqual((done.returncode, done.stdout.splitlines()[0].split()), (1, ["cal_gain", "2.500"]))
        self.assertEqual(harness.counters(sim)["writes"], 2)

    def test_measurement_and_text_on_one_line(self):
        names = forty_signals()
        sim = self.start_sim("--baud", "4000000", "--chatter-ms", "10")
        rows = recording_check.ecu_model.measurements()
        parameters = self.type_parameters(sim)
        # A stalled machine answers late behind so much text; the default t1 is not what is tested here.
        config = self.quick_config(xcp={"timeoutsMs": [5000] * 7})
        done = self.run_cli(sim, "-v", "-c", config, "measure", "-t", "3", "-r", self.dir / "rec", "-p", "0",
                            *harness.signals(f"{name}@{rows[name].event}" for name in names))
        self.assertEqual(done.returncode, 0, done.stderr)
        recording = recording_check.check(self, done.stderr, self.dir / "rec", sim.a2l, names, parameters)
        self.assertEqual(recording.meta["source"], f"XCP on serial {sim.line}")
        seen = harness.counters(sim)
        self.assertEqual(sum(len(group.records) for group in recording.groups), seen["samples"])
        # Text and frames were cut into each other: every line is whole and in its place all the same.
        numbers = [int(number) for number, _ in DIAGNOSTICS.findall(done.stderr)]
        self.assertGreater(len(numbers), 50)
        self.assertEqual(numbers, list(range(numbers[0], numbers[0] + len(numbers))))
        whole = sum(line.endswith(" writes") for line in re.findall(r"(?m)ECU: (.*)$", done.stderr))
        self.assertEqual(whole, len(numbers))

    def test_invalid_frames_are_told(self):
        sim = self.start_sim("--fault", "malformed:10", "--chatter-ms", "0")
        done = self.run_cli(sim, "measure", "-t", "1", "-s", "counter_10ms@1")
        self.assertEqual(done.returncode, 0, done.stderr)
        bad = harness.counters(sim)["packets-malformed"]
        self.assertGreater(bad, 5)
        self.assertIn(f"measure: serial invalid frames {bad}\n", done.stderr)

    def test_load_of_the_line(self):
        sim = self.start_sim()
        signals = ("-s", "counter_10ms@1", "-s", "engine_speed@1")
        done = self.run_plain("--a2l", sim.a2l, "--serial", f"{sim.line}:9600", "--reset-delay", 0, "measure", *signals)
        self.assertEqual((done.returncode, done.stderr),
                         (1, "measure: estimated load of the serial line 177 % at 9600 baud exceeds the limit of 80 % "
                             "(fewer signals, slower events or a higher baud rate)\n"))
        done = self.run_cli(sim, "measure", "-t", "0.3", *signals)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn("measuring 2 signal(s) in 1 DAQ list(s), estimated bus load 14.8 % - Ctrl-C to stop\n", done.stderr)

    def test_pulled_and_plugged_while_measuring(self):
        for options in ([], ["--reset-on-open", "0"]):
            with self.subTest(options):
                sim = self.start_sim(*options)
                config = self.quick_config(xcp={"timeoutsMs": [PATIENT_MS] * 7}, reconnect={"heartbeatMs": PATIENT_MS})
                directory = self.dir / f"rec{len(options)}"
                program = self.start_cli(sim, "-c", config, "--reconnect", "retry_forever", "measure", "-p", "5",
                                         "-s", "counter_10ms@1", "-r", directory)
                harness.wait_until(lambda: program.out.count("\n") > 2 or program.process.poll() is not None, "records")
                self.plug(sim)
                program.wait_for_err("reconnect attempt 2: XCP on serial: cannot open "
                                     f"{sim.line}: No such file or directory\n")
                self.plug(sim)
                program.wait_for_err("** measuring: reconnected after ")
                printed = program.out.count("\n")
                harness.wait_until(lambda: program.out.count("\n") > printed + 2, "records after the reconnection")
                self.assertEqual(harness.stop(program)[0], 0, program.err)
                self.assertIn(f"** reconnecting: connection lost: no DAQ data for {PATIENT_MS} ms\n", program.err)
                self.assertIn(", reconnects 1, ", program.err)
                self.check_pause(Recording(directory).groups[0], bool(options))

    def check_pause(self, group, restarted):
        """One pause of the ECU's data: its counter went on meanwhile, or began anew."""
        values = [group.signals[0].raw(record) for record in group.records]
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
        deaf = self.start_sim("--reset-on-open", "60000")
        done = self.run_cli(deaf, "-c", config, "info")
        self.assertEqual((done.returncode, done.stderr),
                         (1, "connect: CONNECT: no response from slave after 1 attempt(s)\n"))
        booting = self.start_sim("--reset-on-open", "200", "--chatter-ms", "0")
        config = self.quick_config(xcp={"connectAttempts": 1, "timeoutsMs": [PATIENT_MS] * 7})
        done = self.run_cli(booting, "-v", "-c", config, "--reset-delay", "1500", "info")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertRegex(done.stderr, r"ECU: boot 2: .*\n.*ECU: ready\n")  # heard during the delay

    def test_stop_during_the_reset_delay(self):
        for command, code in (("info", 1), ("console", 0)):
            with self.subTest(command):
                sim = self.start_sim("--reset-on-open", "0")
                program = self.start_cli(sim, "-v", "--reset-delay", "60000", command)
                program.wait_for_err("ECU: ready")
                self.assertEqual(harness.stop(program)[0], code)
                told = [line for line in program.err.splitlines() if not line.startswith("[")]
                self.assertEqual(told, ["connect: XCP on serial: stopped"] if code else [])

    def test_console_on_a_terminal(self):
        sim = self.start_sim()
        terminal = Terminal(self.arguments(sim, "console"), self.env)
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
        sim = self.start_sim("--chatter-ms", "0")
        before = int(time.time() * 1000)
        done, lines = self.console(sim, "first\nsecond\n" + "x" * 70000 + "\n\nlast", TZ="XYZ-5:45")
        after = int(time.time() * 1000)
        self.assertEqual((done.returncode, done.stderr), (0, "send: a line beyond 65536 bytes is not sent\n"))
        typed = ["first", "second", "", "last"]
        self.assertEqual([line for line in lines if line.startswith("> ")], [f"> {line}" for line in typed])
        self.assertEqual([line for line in lines if line.startswith("you said")], [f"you said: {line}" for line in typed])
        for line in done.stdout.splitlines():
            hours, minutes, seconds, ms = (int(part) for part in LINE.match(line).groups()[:4])
            shown = ((hours * 60 + minutes) * 60 + seconds) * 1000 + ms
            day = 86400 * 1000
            self.assertLessEqual((shown - (before + (5 * 60 + 45) * 60000)) % day, after - before, line)

    def test_console_ends(self):
        sim = self.start_sim("--chatter-ms", "20")
        done = subprocess.run(self.arguments(sim, "console"), input="hello\n", text=True, capture_output=True, env=self.env,
                              timeout=harness.PATIENCE, check=False)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertRegex(done.stdout, r"(?m)^[\d:.]{12}  > hello$")
        reading, writing = os.pipe()
        program = self.start_cli(sim, "console", "-t", "60", stdout=writing)
        os.close(writing)
        self.assertTrue(os.read(reading, 100))
        os.close(reading)
        self.assertEqual((program.finish(), program.err), (0, ""))

    def test_console_without_xcp(self):
        sim = self.start_sim("--fault", "ignore:CONNECT:1:0", "--chatter-ms", "50")
        done, lines = self.console(sim, "hello\n", "-c", self.quick_config(xcp={"connectAttempts": 1}))
        self.assertEqual((done.returncode, done.stderr),
                         (0, "connect: CONNECT: no response from slave after 1 attempt(s) (showing the text only)\n"))
        self.assertIn("you said: hello", lines)

    def test_console_waits_for_the_line(self):
        sim = self.start_sim("--chatter-ms", "50")
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

    def test_console_needs_a_serial_line(self):
        sim = self.start_sim()
        done = self.run_plain("--a2l", sim.a2l, "--udp", "127.0.0.1:9", "console")
        self.assertEqual((done.returncode, done.stdout, done.stderr),
                         (1, "", "console: needs a serial line (--serial)\n"))


if __name__ == "__main__":
    unittest.main()
