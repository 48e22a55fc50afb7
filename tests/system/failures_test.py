"""Every failure ends in bounded time with its message, its exit code, and what was recorded until then."""
import resource
import subprocess
import unittest

import harness
from recording import Recording
from relay import udp_socket


def value_line(name, text):
    return f"{name:<50} {text}\n"


class FailureTableTest(harness.SystemTest):
    """One situation after the other: nothing on standard output, one line on standard error, an exit code."""

    def check(self, done, err, code=1, out=""):
        self.assertEqual((done.stderr, done.stdout, done.returncode), (err, out, code))

    def test_configuration_load_fails(self):
        missing = self.dir / "missing.json"
        self.check(self.run_plain("-c", missing, "info"), f"configuration: cannot open configuration {missing}\n")
        rows = [
            ('{"reconnect": {"policy": "Retry"}}', "unknown reconnect policy 'Retry'"),
            ('{"xcp": {"timeoutsMs": [25, 25, 25, 25, 25, 25]}}',
             "configuration: xcp.timeoutsMs: needs 7 numbers, but has 6"),
            ('{"udp": {"port": 65536}}', "configuration: udp.port: 65536 is not a whole number from 0 to 65535"),
            ('{"reconnect": {"heartbeatMs": 0}}',
             "configuration: reconnect.heartbeatMs: 0 is not a whole number from 1 to 4294967295"),
            ('{"can": {"cmdId": "zero"}}', "configuration: can.cmdId: stoul: 'zero' is not a number from 0 to 4294967295"),
            ('{"a2l": 5}', "configuration: a2l: must be text, but is number"),
        ]
        for text, message in rows:
            with self.subTest(text):
                path = self.config(text)
                self.check(self.run_plain("-c", path, "info"), f"configuration: {path}: {message}\n")
        path = self.config('{\n  "name": "x",\n  "a2l" 5\n}')
        broken = self.run_plain("-c", path, "info")
        self.assertRegex(broken.stderr, rf"^configuration: {path}: configuration: .*line 3, column .*\n$")
        self.assertEqual((broken.stdout, broken.returncode), ("", 1))

    def test_session_construction_fails(self):
        a2l = self.write_a2l()
        missing = self.dir / "missing.a2l"
        broken = self.dir / "broken.a2l"
        lines = a2l.read_text().splitlines(keepends=True)
        at = next(i for i, line in enumerate(lines) if "/begin MEASUREMENT" in line)
        broken.write_text("".join(lines[:at + 2]))
        tcp = self.dir / "tcp.a2l"
        tcp.write_text(a2l.read_text().replace("XCP_ON_UDP_IP", "XCP_ON_TCP_IP"))
        rows = [
            (["info"], "no A2L file configured"),
            (["list"], "no A2L file configured"),
            (["--a2l", missing, "--udp", "h", "info"], f"cannot open A2L file {missing}"),
            (["--a2l", missing, "list"], f"cannot open A2L file {missing}"),
            (["--a2l", broken, "info"],
             f"A2L line {at + 3}: missing /end MEASUREMENT for block at line {at + 1}"),
            (["--a2l", broken, "list"],
             f"A2L line {at + 3}: missing /end MEASUREMENT for block at line {at + 1}"),
            (["--a2l", a2l, "info"], "neither a CAN interface, a serial port nor a UDP host is configured"),
            (["--a2l", tcp, "--udp", "127.0.0.1", "get", "gear"], "XCP on TCP/IP is not supported yet (use UDP)"),
        ]
        for arguments, message in rows:
            with self.subTest(arguments):
                self.check(self.run_plain(*arguments), f"session: {message}\n")

    def test_connect_fails(self):
        a2l = self.write_a2l()
        deaf = udp_socket()
        self.addCleanup(deaf.close)
        quick = self.quick_config(xcp={"timeoutsMs": [20] * 7})
        silent = ["-c", quick, "--a2l", a2l, "--udp", f"127.0.0.1:{deaf.getsockname()[1]}"]
        gone = udp_socket()
        refused = silent[:-1] + [f"127.0.0.1:{gone.getsockname()[1]}"]
        gone.close()
        nobody = silent[:-1] + ["no-such-host.invalid:1"]
        no_answer = "CONNECT: no response from slave after 3 attempt(s)"
        for commands in (["info"], ["get", "gear"], ["set", "cal_gain=1"], ["measure", "-s", "gear"], []):
            with self.subTest(commands):
                self.check(self.run_plain(*silent, *commands), f"connect: {no_answer}\n")
        self.check(self.run_plain(*refused, "info"), f"connect: {no_answer}\n")
        unresolved = self.run_plain(*nobody, "info")
        self.assertRegex(unresolved.stderr, r"^connect: XCP on UDP: cannot resolve no-such-host\.invalid: [^\n]+\n$")
        self.assertEqual((unresolved.stdout, unresolved.returncode), ("", 1))

    def test_connect_answer_is_damaged(self):
        rows = [
            (["--fault", "error:CONNECT:1:0:0x25"], "CONNECT: ERR_ACCESS_LOCKED (0x25)"),
            (["--fault", "short:CONNECT:1:0:7"], "XCP response to CONNECT too short"),
        ]
        for options, message in rows:
            with self.subTest(options):
                sim = self.start_sim(*options)
                self.check(self.run_cli(sim, "-c", self.quick_config(), "info"), f"connect: {message}\n")

    def test_options_and_files(self):
        a2l = self.write_a2l()
        nowhere = self.dir / "none" / "x.json"
        rows = [
            (["--reconnect", "Retry", "save-config", "/dev/stdout"], "unknown reconnect policy Retry\n"),
            (["--reconnect", "", "info"], "unknown reconnect policy \n"),
            (["save-config", nowhere], f"save: cannot write {nowhere}\n"),
            (["save-config", "/dev/full"], "save: cannot write /dev/full\n"),
            (["--a2l", a2l, "--udp", "127.0.0.1:1", "console"], "console: needs a serial line (--serial)\n"),
        ]
        for arguments, err in rows:
            with self.subTest(arguments):
                self.check(self.run_plain(*arguments), err)

    def test_items_of_get_and_set(self):
        sim = self.start_sim("--fault", "error:DOWNLOAD:4:1:0x24", "--fault", "short:SHORT_UPLOAD:2:1:2")
        rows = [
            ("cal_limited", "7.000"),
            ("cal_idle_speed", "ERROR UPLOAD response shorter than requested"),
            ("nope", "ERROR 'nope' is neither a MEASUREMENT nor a CHARACTERISTIC"),
            ("bad_address", "ERROR SHORT_UPLOAD: ERR_OUT_OF_RANGE (0x22)"),
            ("virtual_power", "ERROR virtual_power: measurement has no ECU_ADDRESS"),
            ("cal_virtual", "ERROR cal_virtual: virtual characteristic has no ECU address"),
            ("cal_no_values", "ERROR cal_no_values: RECORD_LAYOUT 'RL.EMPTY' without FNC_VALUES"),
            ("cylinder_pressure", "ERROR cylinder_pressure: arrays are not supported yet"),
            ("cal_curve", "ERROR cal_curve: only scalar (VALUE) parameters are supported yet"),
            ("cal_injector", "on"),
        ]
        expected = "".join(value_line(*row) for row in rows)
        done = self.run_cli(sim, "-c", self.quick_config(), "get", *[name for name, _ in rows])
        self.check(done, "", out=done.stdout)
        shown = done.stdout.splitlines(keepends=True)
        self.assertEqual("".join(shown[:-1]), "".join(expected.splitlines(keepends=True)[:-1]))
        self.assertNotIn("ERROR", shown[-1])
        rows = [
            ("cal_limited=101", "cal_limited: 101 outside the limits [-100, 100]"),
            ("cal_gain=2", None),
            ("cal_stubborn=1", "cal_stubborn: read back value differs from the written value"),
            ("cal_protected=1", "DOWNLOAD: ERR_WRITE_PROTECTED (0x23)"),
            ("cal_wave_period=77", "DOWNLOAD: ERR_ACCESS_DENIED (0x24)"),
            ("cal_read_only=2", "cal_read_only is not writable"),
            ("engine_speed=3", "engine_speed is a measurement without READ_WRITE"),
            ("cal_limited=1,5", "cal_limited: '1,5' is not a number"),
            ("cal_injector=nope", "cal_injector: 'nope' is not a valid value"),
            ("unknown=1", "'unknown' is neither a MEASUREMENT nor a CHARACTERISTIC"),
            ("cal_limited=5", None),
        ]
        done = self.run_cli(sim, "set", *[row[0] for row in rows])
        expected = "".join(value_line(text.split("=")[0], "2.000" if "gain" in text else "5.000") if error is None
                           else value_line(text.split("=")[0], "ERROR " + error) for text, error in rows)
        self.check(done, "", out=expected)

    def test_assignments_without_a_name_or_a_value(self):
        sim = self.start_sim()
        done = self.run_cli(sim, "set", "cal_gain=1.5", "B", "=3", "cal_limited=2")
        self.check(done, "B: expected NAME=VALUE\n=3: expected NAME=VALUE\n",
                   out=value_line("cal_gain", "1.500") + value_line("cal_limited", "2.000"))

    def test_measurement_start_fails(self):
        sim = self.start_sim("--daq-entries", "2")
        a_file = self.dir / "file"
        a_file.touch()
        rows = [
            ([], "no signals to measure"),
            (["-s", "nope"], "'nope' is neither a MEASUREMENT nor a CHARACTERISTIC"),
            (["-s", "gear@9"], "event channel 9 does not exist"),
            (["-s", "gear@x"], "stoul: 'x' is not a number from 0 to 65535"),
            (["-s", "gear@"], "stoul: '' is not a number from 0 to 65535"),
            (["-s", "gear@1@2"], "stoul: '1@2' is not a number from 0 to 65535"),
            (["-s", "gear@65536"], "stoul: '65536' is not a number from 0 to 65535"),
            (["-s", "counter_1ms", "-s", "wave", "-s", "lambda"], "ALLOC_ODT_ENTRY: ERR_MEMORY_OVERFLOW (0x30)"),
            (["-s", "bad_address@1"], "WRITE_DAQ: ERR_OUT_OF_RANGE (0x22)"),
            (["-s", "wave", "-r", a_file], f"cannot create {a_file}"),
            (["-s", "wave", "-r", a_file / "below"], f"cannot create {a_file / 'below'}"),
        ]
        for arguments, message in rows:
            with self.subTest(arguments):
                done = self.run_cli(sim, "measure", *arguments)
                self.assertEqual(done.stderr.splitlines()[0], f"measure: {message}")
                self.assertEqual((done.stdout, done.returncode), ("", 1))
        self.assertEqual(harness.counters(sim)["samples"], 0)
        for options, message in ((["--no-daq"], "the slave offers no DAQ"),
                                 (["--static-daq"], "static DAQ configuration is not supported")):
            with self.subTest(options):
                self.check(self.run_cli(self.start_sim(*options), "measure", "-s", "wave"), f"measure: {message}\n")

    def test_failed_start_leaves_no_recording(self):
        sim = self.start_sim("--fault", "error:START_STOP_SYNCH:1:1:0x24")
        made, given = self.dir / "a" / "made", self.dir / "given"
        given.mkdir()
        (given / "notes.txt").write_text("mine")
        done = self.run_cli(sim, "measure", "-s", "wave", "-r", made)
        self.check(done, "measure: START_STOP_SYNCH: ERR_ACCESS_DENIED (0x24)\n")
        self.assertFalse(made.exists())
        sim = self.start_sim("--fault", "error:START_STOP_SYNCH:1:1:0x24")
        self.assertEqual(self.run_cli(sim, "measure", "-s", "wave", "-r", given).returncode, 1)
        self.assertEqual([p.name for p in given.iterdir()], ["notes.txt"])

    def test_existing_recording_stays_as_it_is(self):
        sim = self.start_sim()
        directory = self.dir / "rec"
        arguments = ["measure", "-s", "counter_1ms", "-p", "0", "-t", "0.3", "-r", directory]
        self.assertEqual(self.run_cli(sim, *arguments).returncode, 0)
        before = {p.name: p.read_bytes() for p in directory.iterdir()}
        self.check(self.run_cli(sim, *arguments), f"measure: {directory} already contains a recording\n")
        self.assertEqual({p.name: p.read_bytes() for p in directory.iterdir()}, before)


class FullDiskTest(harness.SystemTest):
    def test_recording_beyond_the_file_size_limit_keeps_whole_records(self):
        sim = self.start_sim()
        directory = self.dir / "rec"
        limit = 8 * 1024
        arguments = self.arguments(sim, "measure", "-s", "counter_1ms", "-p", "0", "-t", "1.5", "-r", directory)
        done = subprocess.run(
            arguments, capture_output=True, text=True, timeout=harness.PATIENCE, env=self.env, check=False,
            stdin=subprocess.DEVNULL,
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit)))
        self.assertIn(f"stop: write error in {directory}\n", done.stderr)
        self.assertEqual(done.stderr.count("recording: write error in"), 1, done.stderr)
        self.assertEqual(done.returncode, 1)
        group = Recording(directory).groups[0]
        self.assertEqual((directory / "g0000.rec").stat().st_size, 32 + 12 * len(group.records))
        self.assertGreater(len(group.records), 500)
        values = [group.signals[0].raw(record) for record in group.records]
        self.assertEqual(values, list(range(values[0], values[0] + len(values))))
        names = harness.counters(sim)
        self.assertGreater(names["samples"], len(values))

    def test_directory_that_takes_no_files(self):
        sim = self.start_sim()
        arguments = self.arguments(sim, "measure", "-s", "counter_1ms", "-r", self.dir / "rec")
        done = subprocess.run(
            arguments, capture_output=True, text=True, timeout=harness.PATIENCE, env=self.env, check=False,
            stdin=subprocess.DEVNULL, preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (0, 0)))
        self.assertRegex(done.stderr, r"^measure: cannot write [^\n]+\n$")
        self.assertEqual(done.returncode, 1)
        self.assertEqual(harness.counters(sim)["samples"], 0)

    def test_standard_output_is_full(self):
        sim = self.start_sim()
        rows = [
            ["--help"],
            ["list"],
            ["info"],
            ["get", "gear", "cal_gain"],
            ["set", "cal_gain=3", "cal_limited=4"],
            ["measure", "-s", "counter_1ms", "-p", "1", "-r", self.dir / "rec"],
            ["save-config", self.dir / "saved.json"],
        ]
        for arguments in rows:
            with self.subTest(arguments[0]), open("/dev/full", "wb") as full:
                program = self.start_cli(sim, *arguments, stdout=full)
                self.assertEqual(program.finish(), 1)
                self.assertRegex(program.err, r"(?m)^output: No space left on device$")
        self.assertEqual(self.run_cli(sim, "get", "cal_gain", "cal_limited").stdout,
                         value_line("cal_gain", "3.000") + value_line("cal_limited", "4.000"))
        self.assertTrue((self.dir / "saved.json").read_text().endswith("}\n"))
        err = program.err
        recorded = len(Recording(self.dir / "rec").groups[0].records)
        self.assertGreaterEqual(recorded, 1, err)


if __name__ == "__main__":
    unittest.main()
