"""Every failure ends in bounded time with its message, its exit code, and what was recorded until then."""
import os
import resource
import unittest

import harness
from harness import signals, value_line
from recording import Recording
from relay import udp_socket


class FailuresTest(harness.SystemTest):
    def check_rows(self, prefix, rows):
        """One situation after the other: nothing on standard output, one line on standard error, an exit code."""
        for arguments, message in rows:
            with self.subTest(arguments):
                self.expect(self.run_plain(*arguments), err=f"{prefix}{message}\n", code=1)

    def test_configuration_load_fails(self):
        missing, broken = self.dir / "missing.json", self.config('{\n  "name": "x",\n  "a2l" 5\n}')
        rows = [(["-c", missing, "info"], f"cannot open configuration {missing}")]
        for number, (text, message) in enumerate([
                ('{"reconnect": {"policy": "Retry"}}', "unknown reconnect policy 'Retry'"),
                ('{"udp": {"port": 65536}}', "configuration: udp.port: 65536 is not a whole number from 0 to 65535"),
                ('{"a2l": 5}', "configuration: a2l: must be text, but is number")]):
            path = self.config(text, f"{number}.json")
            rows.append((["-c", path, "info"], f"{path}: {message}"))
        self.check_rows("configuration: ", rows)
        done = self.run_plain("-c", broken, "info")
        self.assertRegex(done.stderr, rf"^configuration: {broken}: configuration: .*line 3, column .*\n$")
        self.expect(done, err=done.stderr, code=1)

    def test_session_construction_fails(self):
        a2l = self.write_a2l()
        missing, broken, tcp, huge = (self.dir / f"{name}.a2l" for name in ("missing", "broken", "tcp", "huge"))
        huge.touch()
        os.truncate(huge, (2 << 30) + 1)
        lines = a2l.read_text().splitlines(keepends=True)
        at = next(i for i, line in enumerate(lines) if "/begin MEASUREMENT" in line)
        broken.write_text("".join(lines[:at + 2]))
        tcp.write_text(a2l.read_text().replace("XCP_ON_UDP_IP", "XCP_ON_TCP_IP"))
        damage = f"A2L line {at + 3}: missing /end MEASUREMENT for block at line {at + 1}"
        self.check_rows("session: ", [
            (["info"], "no A2L file configured"),
            (["list"], "no A2L file configured"),
            (["--a2l", missing, "--udp", "h", "info"], f"cannot open A2L file {missing}"),
            (["--a2l", missing, "list"], f"cannot open A2L file {missing}"),
            (["--a2l", huge, "list"], f"A2L file {huge} is larger than 2 GiB"),
            (["--a2l", broken, "info"], damage),
            (["--a2l", broken, "list"], damage),
            (["--a2l", a2l, "info"], "neither a CAN interface, a serial port nor a UDP host is configured"),
            (["--a2l", tcp, "--udp", "127.0.0.1", "get", "gear"], "XCP on TCP/IP is not supported yet (use UDP)")])

    def test_connect_fails(self):
        deaf, gone = udp_socket(), udp_socket()
        self.addCleanup(deaf.close)
        refused = f"127.0.0.1:{gone.getsockname()[1]}"
        gone.close()
        quick = ["-c", self.quick_config(xcp={"timeoutsMs": [20] * 7}), "--a2l", self.write_a2l(), "--udp"]
        silent = [*quick, f"127.0.0.1:{deaf.getsockname()[1]}"]
        commands = (["info"], ["get", "gear"], ["set", "cal_gain=1"], ["measure", "-s", "gear"], [])
        no_answer = "CONNECT: no response from slave after 3 attempt(s)"
        self.check_rows("connect: ", [([*silent, *command], no_answer) for command in commands]
                        + [([*quick, refused, "info"], no_answer)])
        unresolved = self.run_plain(*quick, "no-such-host.invalid:1", "info")
        self.assertRegex(unresolved.stderr, r"^connect: XCP on UDP: cannot resolve no-such-host\.invalid: [^\n]+\n$")
        self.expect(unresolved, err=unresolved.stderr, code=1)
        for fault, message in (("error:CONNECT:1:0:0x25", "CONNECT: ERR_ACCESS_LOCKED (0x25)"),
                               ("short:CONNECT:1:0:7", "XCP response to CONNECT too short")):
            done = self.run_cli(self.start_sim("--fault", fault), "-c", self.quick_config(), "info")
            self.expect(done, err=f"connect: {message}\n", code=1)

    def test_options_and_files(self):
        nowhere = self.dir / "none" / "x.json"
        self.check_rows("", [
            (["--reconnect", "Retry", "save-config", "/dev/stdout"], "unknown reconnect policy Retry"),
            (["--cmd-id", "7E0", "info"], "stoul: '7E0' is not a number from 0 to 4294967295"),
            (["--udp", "h:65536", "info"], "stoul: '65536' is not a number from 0 to 65535"),
            (["save-config", nowhere], f"save: cannot write {nowhere}"),
            (["save-config", "/dev/full"], "save: cannot write /dev/full"),
            (["--a2l", self.write_a2l(), "--udp", "h:1", "console"], "console: needs a serial line (--serial)")])

    def test_items_of_get_and_set(self):
        """Each item has its line; the others go on."""
        sim = self.start_sim("--fault", "error:DOWNLOAD:2:1:0x24", "--fault", "short:SHORT_UPLOAD:2:1:2")
        rows = [
            ("cal_limited", "7.000"),
            ("cal_idle_speed", "ERROR UPLOAD response shorter than requested"),
            ("nope", "ERROR 'nope' is neither a MEASUREMENT nor a CHARACTERISTIC"),
            ("bad_address", "ERROR SHORT_UPLOAD: ERR_OUT_OF_RANGE (0x22)"),
            ("virtual_power", "ERROR virtual_power: measurement has no ECU_ADDRESS"),
            ("cal_virtual", "14.000"),
            ("cal_no_values", "ERROR cal_no_values: RECORD_LAYOUT 'RL.EMPTY' without FNC_VALUES"),
            ("cylinder_torque[4]", "ERROR cylinder_torque[4]: index 4 is beyond the last one, 3"),
            ("cal_injector", "on"),
        ]
        done = self.run_cli(sim, "-c", self.quick_config(), "get", *[name for name, _ in rows])
        self.expect(done, "".join(value_line(*row) for row in rows), code=1)
        done = self.run_cli(sim, "set", "cal_gain=1.5", "B", "cal_wave_period=77", "=3", "cal_limited=2")
        self.expect(done, value_line("cal_gain", "1.500") +
                    value_line("cal_wave_period", "ERROR DOWNLOAD: ERR_ACCESS_DENIED (0x24)") +
                    value_line("cal_limited", "2.000"), "B: expected NAME=VALUE\n"
                    "cal_wave_period: the ECU now holds 1000\n=3: expected NAME=VALUE\n", 1)

    def test_measurement_start_fails(self):
        """No list runs then, and nothing is left of a recording but what was there before."""
        sim = self.start_sim("--daq-entries", "2", "--fault", "error:START_STOP_SYNCH:1:0:0x24")
        file, given, made, there = (self.dir / name for name in ("file", "given", "made", "there"))
        file.touch()
        mine = {given: "notes.txt", there: "meta.json"}
        for directory, name in mine.items():
            directory.mkdir()
            (directory / name).write_text("mine")
        rows = [
            ([], "no signals to measure"),
            (["-s", "nope"], "'nope' is neither a MEASUREMENT nor a CHARACTERISTIC"),
            (["-s", "gear@9"], "event channel 9 does not exist"),
            (["-s", "gear@"], "stoul: '' is not a number from 0 to 65535"),
            (["-s", "gear@1@2"], "stoul: '1@2' is not a number from 0 to 65535"),
            (["-s", "gear@65536"], "stoul: '65536' is not a number from 0 to 65535"),
            (signals(["counter_1ms", "wave", "lambda"]), "ALLOC_ODT_ENTRY: ERR_MEMORY_OVERFLOW (0x30)"),
            (["-s", "bad_address@1"], "WRITE_DAQ: ERR_OUT_OF_RANGE (0x22)"),
            (["-s", "wave", "-r", file], f"cannot create {file}"),
            (["-s", "wave", "-r", file / "below"], f"cannot create {file / 'below'}"),
            (["-s", "wave", "-r", given], "START_STOP_SYNCH: ERR_ACCESS_DENIED (0x24)"),
            (["-s", "wave", "-r", made / "below"], "START_STOP_SYNCH: ERR_ACCESS_DENIED (0x24)"),
            (["-s", "wave", "-r", there], f"{there} already contains a recording"),
        ]
        for arguments, message in rows:
            with self.subTest(arguments):
                done = self.run_cli(sim, "measure", *arguments)
                self.expect(done, err=done.stderr, code=1)
                self.assertEqual(done.stderr.splitlines()[0], f"measure: {message}")
        self.assertEqual(harness.counters(sim)["samples"], 0)
        for directory, name in mine.items():
            self.assertEqual([(path.name, path.read_text()) for path in directory.iterdir()], [(name, "mine")])
        self.assertFalse((made / "below").exists())
        for options, message in ((["--no-daq"], "the slave offers no DAQ"),
                                 (["--static-daq", "--without", "GET_DAQ_LIST_INFO"], "the ECU does not tell its static DAQ lists (GET_DAQ_LIST_INFO)")):
            done = self.run_cli(self.start_sim(*options), "measure", "-s", "wave")
            self.expect(done, err=f"measure: {message}\n", code=1)

    def test_causes_and_mends_are_told(self):
        """The line of the error stays as it is, its hint follows."""
        file, closed = self.dir / "file", udp_socket()
        file.touch()
        nowhere, gone = file / "x.json", closed.getsockname()[1]
        closed.close()
        sim = self.start_sim("--fault", "error:SET_DAQ_LIST_MODE:2:1:0x22")
        quick = ["-c", self.quick_config(), "--a2l", sim.a2l]
        ecu = [*quick, *sim.reach]
        rows = [
            (["--udp", f"127.0.0.1:{gone}", "info"], f"no one answers at host 127.0.0.1, port {gone}: the ECU is off, "),
            (["info"], "-i INTERFACE, --serial PORT[:BAUD] or --udp HOST[:PORT] names one"),
            (["save-config", nowhere], "Not a directory"),
            ([*ecu, "measure", "-s", "wave", "-r", nowhere], "Not a directory"),
            ([*ecu, "measure", "-s", "gear@1", "-s", "bad_address@1"],
             "the ECU refused bad_address (4 byte(s) at 0xDEAD0000) in event 1 (cyclic_10ms): "),
            ([*ecu, "measure", "-s", "wave@0", "-s", "gear@2", "-s", "throttle@2"],
             "the ECU refused event 2 (cyclic_100ms), which gear and 1 more signal(s) should be measured in"),
            ([*ecu, "set", "gear=1"], "gear: `set -m` overwrites measurements, too"),
            ([*ecu, "set", "cal_injector=of"], "cal_injector takes 'off', 'on', 'test mode', or a raw number"),
            ([*ecu, "get", "Engine_Speed"], "Engine_Speed: did you mean 'engine_speed'?"),
            ([*ecu, "get", "cal_limted"], "cal_limted: did you mean 'cal_limited'?"),
            ([*ecu, "set", "temp_class=1"], "temp_class: did you mean 'oil_temp_class' or 'cal_temp_class'?"),
            (["describe", "egnine_speed"], "egnine_speed: did you mean 'engine_speed'?"),
            ([*ecu, "measure", "-s", "gaer@1"], "gaer: did you mean 'gear'?"),
            ([*ecu, "measure", "-s", "Gea?"], "names differ in case: gear"),
            ([*ecu, "measure", "-s", "gear@cyclic"], "events are 0 cyclic_1ms, 1 cyclic_10ms, "),
        ]
        for arguments, hint in rows:
            with self.subTest(arguments):
                done = self.run_plain(*(arguments if sim.reach[0] in arguments else [*quick, *arguments]))
                self.assertEqual(done.returncode, 1)
                hints = [line for line in done.stderr.splitlines() if line.startswith("hint: ")]
                self.assertEqual([line[:len(hint) + 6] for line in hints], [f"hint: {hint}"], done.stderr)
        done = self.run_cli(sim, "get", "nothing_like_it", "gear@1")
        self.assertEqual(done.stderr, "hint: gear@1: did you mean 'gear'?\n")
        done = self.run_cli(sim, "get", *(f"engine_speed{i}" for i in range(12)))
        self.assertEqual(done.stderr.count("hint: "), 10)
        for code, hint in ((0x11, "lists were running in the ECU when it came to event 1 "),
                           (0x25, r"the ECU refused event 1 .*: DAQ is locked \(seed and key\): \"security\" in the configuration "),
                           (0x29, "the ECU refused event 1 .* in$")):
            sim = self.start_sim("--fault", f"error:SET_DAQ_LIST_MODE:1:1:0x{code:x}")
            done = self.run_cli(sim, "measure", "-s", "gear@1")
            self.assertRegex(done.stderr, rf"(?m)^hint: {hint}")
        silent = self.start_sim("--fault", "silence:SHORT_UPLOAD:2")
        done = self.run_cli(silent, "-c", self.quick_config(), "get", "gear", "cal_limited", "cal_gain")
        self.assertEqual(done.stderr.count("hint: "), 1)
        self.assertIn(f"\nhint: the ECU (XCP on UDP/IP, 127.0.0.1:{silent.port}) answered CONNECT: it went away ", done.stderr)

    def test_no_thread_to_be_had(self):
        """Memory for so many threads only: whichever one is missing, the start fails as a whole."""
        sim = self.start_sim()
        directory = self.dir / "rec"

        def limit(threads):
            return lambda: [resource.setrlimit(what, (size << 30, size << 30)) for what, size in
                            ((resource.RLIMIT_STACK, 1), (resource.RLIMIT_AS, threads + 1))]

        # A sanitizer ends here with a report of its own, which must not lie among those of faults.
        self.env = {name: value for name, value in self.env.items() if not name.endswith("SAN_OPTIONS")}
        if self.run_plain("--version", preexec_fn=limit(0)).returncode != 0:
            self.skipTest("the sanitizers need more memory than is left for threads")
        missing = ["session: cannot start the printer of messages", "session: cannot watch for signals",
                   "connect: XCP on UDP: cannot start the receive thread", "measure: cannot start the printer",
                   "measure: cannot start the flushing thread", "measure: cannot start the recording thread",
                   "measure: cannot start the watch of the disk", "measure: cannot start the supervision"]
        measure = harness.record(directory, ["counter_1ms"], 0.1, every=1)
        for threads, what in enumerate(missing):
            reason = "Resource temporarily unavailable (limits of threads and memory: `ulimit -a`)"
            done = self.run_cli(sim, *measure, preexec_fn=limit(threads))
            self.expect(done, out=done.stdout, err=f"{what}: {reason}\n", code=1)
            self.assertFalse(directory.exists())
        self.statistics(self.run_cli(sim, *measure, preexec_fn=limit(len(missing))).stderr, directory)

    def test_a_limit_on_file_sizes_is_a_full_disk(self):
        directory = self.dir / "rec"
        done = self.run_cli(self.start_sim(), *harness.record(directory, ["counter_1ms@0"], 0.4),
                            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (3000, 3000)))
        self.assertIn(f"stop: write error in {directory}\n", done.stderr)
        self.assertEqual(done.returncode, 1)

    def test_standard_output_is_full(self):
        sim = self.start_sim()
        for arguments in (["--help"], ["list"], ["info"], ["info", "--json"], ["get", "gear", "cal_gain"],
                          ["measure", "--json", "-s", "wave"],
                          ["set", "cal_gain=3", "cal_limited=4"], ["save-config", self.dir / "saved.json"],
                          harness.record(self.dir / "rec", ["counter_1ms"], every=1)):
            with self.subTest(arguments[0]), open("/dev/full", "wb") as full:
                program = self.start_cli(sim, *arguments, stdout=full)
                self.assertEqual(program.finish(), 1)
                self.assertRegex(program.err, r"(?m)^output: No space left on device$")
        self.expect(self.run_cli(sim, "get", "cal_gain", "cal_limited"),
                    value_line("cal_gain", "3.000") + value_line("cal_limited", "4.000"))
        self.assertTrue((self.dir / "saved.json").read_text().endswith("}\n"))
        self.assertGreaterEqual(len(Recording(self.dir / "rec").groups[0].records), 1)


if __name__ == "__main__":
    unittest.main()
