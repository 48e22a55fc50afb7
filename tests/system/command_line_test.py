"""Options, overrides, exit codes and output of the commands as a user types them."""
import json
import os
import re
import subprocess
import unittest

import harness


class CommandLineTest(harness.SystemTest):
    def saved(self, *arguments):
        """The effective configuration under these options."""
        done = self.run_plain(*arguments, "save-config", "/dev/stdout")
        self.assertEqual((done.returncode, done.stderr), (0, ""), arguments)
        text, rest = done.stdout.split("\n}\n")
        self.assertEqual(rest, "/dev/stdout written\n")
        return json.loads(text + "}")

    def test_help_and_version(self):
        commands = ("info", "list", "get", "set", "measure", "console", "save-config")
        done = self.run_plain("--help")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertIn("xcplumo-cli - XCP on CAN measurement and calibration", done.stdout)
        for name in commands:
            self.assertRegex(done.stdout, rf"(?m)^  {name} ")
            sub = self.run_plain(name, "--help")
            self.assertEqual((sub.returncode, sub.stderr), (0, ""))
        done = self.run_plain("--version")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertRegex(done.stdout, r"^xcplumo-cli \d+\.\d+\.\d+\n$")

    def test_parse_errors(self):
        rows = [["--no-such-option"], ["no-such-command"], ["get"], ["set"], ["save-config"], ["list", "a", "b"],
                ["info", "x"], ["-b", "fast", "info"], ["-b", "-1", "info"], ["-b", "4294967296", "info"],
                ["measure", "-t", "long"], ["measure", "-p", "-1"], ["--reset-delay", "2147483648", "info"],
                ["info", "list"], ["--udp"]]
        for arguments in rows:
            with self.subTest(arguments):
                done = self.run_plain(*arguments)
                self.assertGreater(done.returncode, 2)
                self.assertEqual(done.stdout, "")
                self.assertTrue(done.stderr.endswith("Run with --help for more information.\n"), done.stderr)

    def test_overrides(self):
        given = {"name": "n", "a2l": "/x/y.a2l", "can": {"interface": "can0", "cmdId": 1, "resId": 2},
                 "udp": {"host": "h", "port": 1}, "serial": {"port": "/dev/ttyS0", "baudrate": 9600, "resetDelayMs": 5}}
        path = self.config(json.dumps(given))
        rows = [
            (["--udp", "10.0.0.2"], {"can.interface": "", "udp.host": "10.0.0.2", "udp.port": 1}),
            (["--udp", "10.0.0.2:5555"], {"can.interface": "", "udp.host": "10.0.0.2", "udp.port": 5555}),
            (["--udp", "[fe80::1]:5555"], {"udp.host": "fe80::1", "udp.port": 5555}),
            (["--udp", "[fe80::1]"], {"udp.host": "fe80::1", "udp.port": 1}),
            (["--udp", "fe80::1"], {"udp.host": "fe80::1", "udp.port": 1}),
            (["--udp", "h:0"], {"udp.host": "h", "udp.port": 0, "serial.port": "/dev/ttyS0"}),
            (["--serial", "/dev/ttyUSB0:115200"], {"can.interface": "", "udp.host": "", "serial.port": "/dev/ttyUSB0",
                                                   "serial.baudrate": 115200, "serial.resetDelayMs": 5}),
            (["--serial", "/dev/by-path/usb:1.0"], {"serial.port": "/dev/by-path/usb:1.0", "serial.baudrate": 9600}),
            (["--serial", "/dev/x:"], {"serial.port": "/dev/x:", "serial.baudrate": 9600}),
            (["--udp", "h", "--serial", "/dev/x"], {"udp.host": "", "serial.port": "/dev/x"}),
            (["-i", "can1"], {"can.interface": "can1", "udp.host": "h"}),
            (["-i", "can1", "--udp", "g"], {"can.interface": "", "udp.host": "g"}),
            (["--reset-delay", "0"], {"serial.resetDelayMs": 0}),
            (["--reset-delay", "-1"], {"serial.resetDelayMs": 5}),
            (["--cmd-id", "0x7E0", "--res-id", "010"], {"can.cmdId": "0x7E0", "can.resId": "0x8"}),
            (["--cmd-id", "2147483649"], {"can.cmdId": "0x80000001", "can.resId": "0x2"}),
            (["-b", "500000"], {"can.bitrate": 500000}),
            (["-b", "0"], {"can.bitrate": None}),
            (["--no-short-upload"], {"xcp.useShortUpload": False}),
            (["--reconnect", "retry_forever"], {"reconnect.policy": "retry_forever"}),
            (["--a2l", "z.a2l"], {"a2l": "z.a2l"}),
            ([], {"a2l": "/x/y.a2l", "name": "n", "udp.port": 1, "reconnect.policy": "abort"}),
        ]
        for arguments, expected in rows:
            with self.subTest(arguments):
                saved = self.saved("-c", path, *arguments)
                for key, value in expected.items():
                    section, _, name = key.rpartition(".")
                    self.assertEqual((saved[section] if section else saved).get(name), value, key)
        behind = self.run_plain("save-config", "/dev/stdout", "-c", path, "--udp", "h:77")
        self.assertIn('"port": 77', behind.stdout)
        self.assertEqual(behind.returncode, 0)

    def test_numbers_that_do_not_convert(self):
        rows = [(option, text, limit) for option, limit in (("--cmd-id", 2 ** 32 - 1), ("--res-id", 2 ** 32 - 1))
                for text in ("", "x", "7E0", "0x", "-1", "+1", " 1", "1 ", "4294967296", "0x1FFFFFFFF")]
        rows += [("--udp", f"h:{text}", 65535) for text in ("", "x", "65536", "-1", "1x", "0x10")]
        rows += [("--udp", "[::1]:x", 65535), ("--serial", "/dev/x:4294967296", 2 ** 32 - 1)]
        for option, text, limit in rows:
            with self.subTest(option=option, text=text):
                given = [f"{option}={text}"] if text else [option, ""]
                done = self.run_plain(*given, "save-config", "/dev/stdout")
                number = text.rpartition(":")[2]
                self.assertEqual(done.stderr, f"stoul: '{number}' is not a number from 0 to {limit}\n")
                self.assertEqual((done.stdout, done.returncode), ("", 1))

    def test_saved_configuration_reads_back_the_same(self):
        a2l = self.write_a2l()
        first, second = self.dir / "first.json", self.dir / "sub" / "second.json"
        second.parent.mkdir()
        options = ["--a2l", a2l, "--udp", "[::1]:99", "--cmd-id", "0x98765432", "--reconnect", "retry", "-b", "250000"]
        done = self.run_plain(*options, "save-config", first)
        self.assertEqual((done.stdout, done.stderr, done.returncode), (f"{first} written\n", "", 0))
        self.assertEqual(self.run_plain("-c", first, "save-config", second).returncode, 0)
        self.assertEqual(first.read_text(), second.read_text())
        done = self.run_plain("--a2l", a2l.name, "save-config", "plain.json", cwd=a2l.parent)
        self.assertEqual((done.stderr, done.returncode), ("", 0))
        done = self.run_plain("--a2l", a2l.name, "save-config", second, cwd=a2l.parent)
        self.assertEqual(done.returncode, 0)
        self.assertRegex(done.stderr, rf"^\[.*\[warning\] {second}: the A2L file {a2l.name} is not found from there\n$")

    def test_no_subcommand_connects_and_ends(self):
        sim = self.start_sim()
        done = self.run_cli(sim)
        self.assertEqual((done.stdout, done.stderr, done.returncode), ("", "", 0))
        self.assertGreater(harness.counters(sim)["commands"], 2)

    def test_options_behind_the_subcommand(self):
        sim = self.start_sim()
        expected = self.run_cli(sim, "get", "cal_limited")
        done = self.run_plain("get", "cal_limited", "--udp", f"127.0.0.1:{sim.port}", "--a2l", sim.a2l)
        self.assertEqual((done.stdout, done.returncode), (expected.stdout, 0))
        done = self.run_plain("--a2l", sim.a2l, "get", "--udp", f"[::1]:{sim.port}", "cal_limited")
        self.assertEqual((done.stdout, done.returncode), (expected.stdout, 0))

    def test_list(self):
        a2l = self.write_a2l()

        def listed(*arguments):
            done = self.run_plain("--a2l", a2l, "list", *arguments)
            lines = done.stdout.splitlines()
            self.assertEqual((done.stderr, done.returncode), (f"{len(lines)} object(s)\n", 0))
            return lines

        everything = listed()
        text = a2l.read_text()
        self.assertEqual(sum(line.startswith("M  ") for line in everything), text.count("/begin MEASUREMENT"))
        self.assertEqual(sum(line.startswith("P  ") for line in everything), text.count("/begin CHARACTERISTIC"))
        self.assertEqual([line[0] for line in everything], sorted(line[0] for line in everything))
        self.assertEqual(listed("-p", "-m"), everything)
        self.assertEqual(listed("-m"), [line for line in everything if line[0] == "M"])
        self.assertEqual(listed("-p"), [line for line in everything if line[0] == "P"])
        self.assertEqual(listed("CAL_li"), [line for line in everything if "cal_li" in line])
        self.assertEqual(listed("-m", "cal_"), [])
        self.assertEqual(listed("no such thing"), [])

        def address(name):
            return int(re.search(rf"CHARACTERISTIC {name} .*?(0x[0-9A-Fa-f]+)", text, re.S).group(1), 16)

        rows = {
            "engine_speed": rf"M  {'engine_speed':<50} {'UWORD':<13} {'rpm':<8} 0x[0-9A-F]{{8}}",
            "setpoint_rw": rf"M  {'setpoint_rw':<50} {'FLOAT32_IEEE':<13} {'':<8} 0x[0-9A-F]{{8}}  rw",
            "virtual_power": rf"M  {'virtual_power':<50} {'FLOAT32_IEEE':<13} {'':<8} 0x00000000",
            "cal_gain": rf"P  {'cal_gain':<50} {'VALUE':<13} {'':<8} 0x{address('cal_gain'):08X}",
            "cal_curve": rf"P  {'cal_curve':<50} {'CURVE/MAP...':<13} {'':<8} 0x{address('cal_curve'):08X}",
            "cal_read_only_ram": rf"P  {'cal_read_only_ram':<50} {'VALUE':<13} {'':<8} 0x[0-9A-F]{{8}}  read-only",
        }
        for name, pattern in rows.items():
            self.assertEqual(len([line for line in everything if re.fullmatch(pattern, line)]), 1, name)

    def test_closed_pipes_end_quietly(self):
        sim = self.start_sim()
        rows = [["list"], ["info"], ["get"] + ["gear"] * 50, ["set"] + [f"cal_limited={n}" for n in range(50)]]
        for arguments in rows:
            with self.subTest(arguments[0]):
                reading, writing = os.pipe()
                os.close(reading)
                program = self.start_cli(sim, *arguments, stdout=writing)
                os.close(writing)
                self.assertEqual((program.finish(), program.err), (0, ""))
        self.assertEqual(self.run_cli(sim, "get", "cal_limited").stdout.split(), ["cal_limited", "49.000"])

    def test_list_into_head(self):
        command = " ".join(f"'{a}'" for a in (harness.CLI, "--a2l", self.write_a2l("--load-signals", "20000"), "list"))
        done = subprocess.run(["bash", "-c", f"{command} | head -1; exit ${{PIPESTATUS[0]}}"], capture_output=True,
                              text=True, env=self.env, check=False, timeout=harness.PATIENCE)
        self.assertEqual((done.stdout.count("\n"), done.stderr, done.returncode), (1, "", 0))

    def test_closed_standard_descriptors(self):
        sim = self.start_sim()
        command = " ".join(f"'{a}'" for a in self.arguments(sim, "get", "cal_limited"))
        done = subprocess.run(["bash", "-c", f"{command} >&- <&-"], capture_output=True, text=True, env=self.env,
                              check=False, timeout=harness.PATIENCE)
        self.assertEqual((done.stdout, done.stderr, done.returncode), ("", "output: Bad file descriptor\n", 1))

    def test_verbose_logs_to_standard_error_only(self):
        sim = self.start_sim()
        plain, verbose = self.run_cli(sim, "get", "cal_limited"), self.run_cli(sim, "-v", "get", "cal_limited")
        self.assertEqual((verbose.stdout, verbose.returncode), (plain.stdout, 0))
        self.assertIn("XCP connected: MAX_CTO=248 MAX_DTO=1400 AG=1 Intel", verbose.stderr)
        self.assertEqual(plain.stderr, "")


if __name__ == "__main__":
    unittest.main()
