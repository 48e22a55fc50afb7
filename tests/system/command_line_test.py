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
        done = self.run_plain("--help")
        self.expect(done, done.stdout)
        self.assertIn("xcplumo-cli - XCP on CAN measurement and calibration", done.stdout)
        self.expect(self.run_plain(), "", "session: no A2L file configured\n\n" + done.stdout, 1)
        names = re.findall(r"(?m)^  ([a-z-]+) ", done.stdout.partition("Subcommands:")[2].partition("Examples:")[0])
        self.assertEqual(names[:7], ["info", "list", "get", "set", "measure", "console", "save-config"])
        for name in names:
            sub = self.run_plain(name, "--help")
            self.expect(sub, sub.stdout)
            self.assertRegex(sub.stdout, rf"(?m)^Examples:\n(  xcplumo-cli .*{name}.*\n)+")
        done = self.run_plain("--version")
        self.expect(done, done.stdout)
        self.assertRegex(done.stdout, r"^xcplumo-cli \d+\.\d+\.\d+\n$")

    def test_parse_errors(self):
        rows = [["--no-such-option"], ["no-such-command"], ["get"], ["set"], ["save-config"], ["list", "a", "b"],
                ["info", "x"], ["-b", "-1", "info"], ["-b", "4294967296", "info"], ["measure", "-t", "1s"],
                ["measure", "-p", "-1"], ["info", "list"], ["--udp"]]
        for arguments in rows:
            with self.subTest(arguments):
                done = self.run_plain(*arguments)
                self.assertGreater(done.returncode, 2)
                self.assertRegex(done.stderr, r"(?s)^.*Run with --help for more information\.\n$")
                self.assertEqual(done.stdout, "")

    def test_overrides(self):
        given = {"name": "n", "a2l": "/x/y.a2l", "can": {"interface": "can0", "cmdId": 1, "resId": 2},
                 "udp": {"host": "h", "port": 1}, "serial": {"port": "/dev/ttyS0", "baudrate": 9600, "resetDelayMs": 5}}
        path = self.config(json.dumps(given))
        rows = [
            (["--udp", "10.0.0.2"], {"can.interface": "", "udp.host": "10.0.0.2", "udp.port": 1}),
            (["--udp", "[fe80::1]:5555"], {"udp.host": "fe80::1", "udp.port": 5555, "serial.port": "/dev/ttyS0"}),
            (["--serial", "/dev/ttyUSB0:115200"], {"can.interface": "", "udp.host": "", "serial.port": "/dev/ttyUSB0",
                                                   "serial.baudrate": 115200, "serial.resetDelayMs": 5}),
            (["--serial", "/dev/by-path/usb:1.0"], {"serial.port": "/dev/by-path/usb:1.0", "serial.baudrate": 9600}),
            (["--udp", "h", "--serial", "/dev/x"], {"udp.host": "", "serial.port": "/dev/x"}),
            (["-i", "can1"], {"can.interface": "can1", "udp.host": "h"}),
            (["-i", "can1", "--udp", "g"], {"can.interface": "", "udp.host": "g"}),
            (["--reset-delay", "0"], {"serial.resetDelayMs": 0}),
            (["--reset-delay", "-1"], {"serial.resetDelayMs": 5}),
            (["--cmd-id", "2147483649", "--res-id", "010"], {"can.cmdId": "0x80000001", "can.resId": "0x8"}),
            (["-b", "500000", "--no-short-upload"], {"can.bitrate": 500000, "xcp.useShortUpload": False}),
            (["--reconnect", "retry_forever", "--a2l", "z"], {"reconnect.policy": "retry_forever", "a2l": "z"}),
            (["-b", "0"], {"can.bitrate": None, "a2l": "/x/y.a2l", "name": "n", "reconnect.policy": "abort"}),
        ]
        for arguments, expected in rows:
            with self.subTest(arguments):
                saved = self.saved("-c", path, *arguments)
                for key, value in expected.items():
                    section, _, name = key.rpartition(".")
                    self.assertEqual((saved[section] if section else saved).get(name), value, key)

    def test_saved_configuration_reads_back_the_same(self):
        a2l = self.write_a2l()
        first, second = self.dir / "first.json", self.dir / "sub" / "second.json"
        second.parent.mkdir()
        options = ["--a2l", a2l, "--udp", "[::1]:99", "--cmd-id", "0x98765432", "--reconnect", "retry", "-b", "250000"]
        self.expect(self.run_plain(*options, "save-config", first), f"{first} written\n")
        self.expect(self.run_plain("-c", first, "save-config", second), f"{second} written\n")
        self.assertEqual(first.read_text(), second.read_text())
        self.expect(self.run_plain("--a2l", a2l.name, "save-config", "plain.json", cwd=a2l.parent), "plain.json written\n")
        self.assertEqual(json.loads((a2l.parent / "plain.json").read_text())["a2l"], a2l.name)
        self.expect(self.run_plain("--a2l", a2l.name, "save-config", second, cwd=a2l.parent), f"{second} written\n")
        self.assertEqual(json.loads(second.read_text())["a2l"], str(a2l))
        done = self.run_plain("--a2l", "no.a2l", "save-config", second, cwd=a2l.parent)
        self.assertRegex(done.stderr, rf"^\[.*\[warning\] {second}: the A2L file no.a2l is not found from there\n$")

    def test_list(self):
        a2l = self.write_a2l()

        def listed(*arguments):
            done = self.run_plain("--a2l", a2l, "list", *arguments)
            lines = done.stdout.splitlines()
            self.assertEqual((done.stderr, done.returncode), (f"{len(lines)} object(s)\n", 0))
            return lines

        everything = listed()
        text = a2l.read_text()
        count = text.count("/begin MEASUREMENT")
        plain = count + text.count("/begin CHARACTERISTIC")
        kinds = ["M  "] * count + ["P  "] * (plain - count) + ["B  "] * text.count("/begin BLOB")
        self.assertEqual([line[:3] for line in everything], kinds + ["I  "] * text.count("/begin INSTANCE"))
        for arguments, expected in ((["-p", "-m"], everything[:plain]), (["-m"], everything[:count]), (["-m", "cal_"], []),
                                    (["CAL_li"], [line for line in everything if "cal_li" in line]),
                                    (["-p"], everything[count:plain])):
            self.assertEqual(listed(*arguments), expected)
        # The unit is that of the conversion, not the object's own.
        rows = (("M", "engine_speed", "UWORD", "rpm", ""), ("M", "injection_time", "ULONG", "", ""),
                ("M", "setpoint_rw", "FLOAT32_IEEE", "", "  rw"), ("M", "virtual_power", "FLOAT32_IEEE", "", ""),
                ("P", "cal_gain", "VALUE", "", ""), ("P", "cal_curve", "CURVE/MAP...", "", ""),
                ("P", "cal_read_only_ram", "VALUE", "", "  read-only"))
        for kind, name, type_name, unit, access in rows:
            address = re.search(rf"(?s)/begin \w+ {name} (?:(?!/end).)*?(0x[0-9A-Fa-f]+)", text)
            number = int(address.group(1), 16) if address else 0
            self.assertIn(f"{kind}  {name:<50} {type_name:<13} {unit:<8} 0x{number:08X}{access}", everything)
        for arguments, names in ((["CAL_l?mited"], ["cal_limited"]), (["l?mited"], []), (["*limit?d"], ["cal_limited"]),
                                 (["sample COUNTER of"], []), (["-d", "sample COUNTER of the event"], ["counter_1ms"])):
            self.assertEqual([line.split()[1] for line in listed(*arguments)][:1], names, arguments)
        for name, details in (("engine_speed", 'limits 0 to 16383.75, event 1, Intel, "'),
                              ("cal_curve", "limits 0 to 65535, 4 element(s), STD_AXIS over engine_speed, Intel"),
                              ("cal_block", 'limits -32768 to 32767, 4 x 1 x 1 element(s), Intel, "Block of four values"')):
            done = self.run_plain("--a2l", a2l, "list", "-l", name)
            self.assertEqual((done.stdout.count("\n"), done.stderr), (2, "1 object(s)\n"))
            self.assertIn(f"\n     {details}", done.stdout)
        a2l.write_text(text.replace('"rpm"', '"\x1b[2J°"'), encoding="utf-8")
        self.assertIn(" \\x1B[2J° 0x", listed("engine_speed")[0])

    def test_describe_and_info_without_an_ecu(self):
        """Each row: a command and lines that it prints; more objects are in the file than the simulated ECU has."""
        a2l = self.write_a2l()
        more = """/begin AXIS_PTS ax "Speeds" 0x1000 engine_speed RL.CURVE 0 CM.SPEED 8 0 16000 /end AXIS_PTS
            /begin CHARACTERISTIC shared "On ax" MAP 0x2000 RL.CURVE 0 no_such_method -1 1
              /begin AXIS_DESCR COM_AXIS engine_speed CM.SPEED 8 0 16000 AXIS_PTS_REF ax /end AXIS_DESCR
              /begin AXIS_DESCR STD_AXIS NO_INPUT_QUANTITY CM.IDENTICAL 4 0 3 /end AXIS_DESCR
            /end CHARACTERISTIC
            /begin CHARACTERISTIC constant "Of words" VALUE 0 RL.CURVE 0 CM.IDENTICAL 0 1
              /begin VIRTUAL_CHARACTERISTIC "sysc(words)" /end VIRTUAL_CHARACTERISTIC /end CHARACTERISTIC
            /begin MOD_PAR "" SYSTEM_CONSTANT "words" "Text" /end MOD_PAR
            /begin TRANSFORMER t /end TRANSFORMER /include grammar.aml"""
        a2l.write_text(a2l.read_text().replace("/end MODULE", more + "\n/end MODULE"))
        ccp, tcp = self.dir / "ccp.a2l", self.dir / "tcp.a2l"
        tcp.write_text(a2l.read_text().replace("XCP_ON_UDP_IP", "XCP_ON_TCP_IP")
                       .replace("/begin XCP_ON_CAN", "/begin XCP_ON_USB /end XCP_ON_USB /begin XCP_ON_CAN"))
        ccp.write_text('/begin PROJECT p "" /begin MODULE m "" /begin IF_DATA ASAP1B_CCP /end IF_DATA /end MODULE /end PROJECT')
        rows = [
            (a2l, ["describe", "engine_speed"], ["engine_speed (measurement)", "  limits         0 to 16383.75",
                "  events         1 (cyclic_10ms)", "  conversion     CM.SPEED: LINEAR, unit rpm, format %8.2, \"Quarter turns\"",
                "                 physical = 0.25 * raw + 0", "  used as        input of axis 1 of cal_curve",
                "                 input of axis 1 of shared", "                 input of ax"]),
            (a2l, ["describe", "shared"], ["  type           MAP", "  conversion     no_such_method, which is not in the A2L",
                "  axis 1         COM_AXIS, input engine_speed, 8 points at most, limits 0 to 16000, conversion CM.SPEED, points in ax",
                "  not readable   COMPU_METHOD 'no_such_method' not found"]),
            (a2l, ["describe", "shaft_power"], ["  access         read only, computed when it is read"]),
            (a2l, ["describe", "constant"], ["  not readable   formula '(Text)': unknown identifier 'Text'", "  computed from  sysc(words)"]),
            (a2l, ["describe", "ax"], ["ax (axis)", "  input          engine_speed", "  used as        points of axis 1 of shared"]),
            (a2l, ["describe", "CM.SWITCH"], ["                 2 = \"test mode\"", "                 conversion of cal_injector"]),
            (a2l, ["list", "-l", "shared"], ["     limits -1 to 1, 8 x 4 element(s), COM_AXIS ax over engine_speed, STD_AXIS, Intel, \"On ax\""]),
            (a2l, ["info", "--offline"], ["XCP on CAN     CMD 0x7E0, RES 0x7E1, 500000 bit/s", "  event 3   crank_tooth          not cyclic, "
                "DAQ, priority 0", "XCP on UDP/IP  host 127.0.0.1, port 5555"]),
            (tcp, ["info", "--offline"], ["XCP on TCP/IP  host 127.0.0.1, port 5555 (not supported yet)", "XCP_ON_USB     not supported"]),
            (ccp, ["info", "--offline"], ["protocol       CCP only (ASAP1B_CCP), which this program does not speak"]),
        ]
        for file, arguments, lines in rows:
            with self.subTest(arguments):
                done = self.run_plain("--a2l", file, *arguments)
                self.assertEqual((done.returncode, [line for line in lines if line not in done.stdout.splitlines()]), (0, []))
                self.assertEqual("left out: 1 TRANSFORMER (not read by this version)" in done.stderr, file != ccp)
                self.assertNotIn("grammar.aml", done.stderr)
        told = json.loads(self.run_plain("--a2l", a2l, "describe", "shared", "--json").stdout)["object"]
        self.assertEqual([told["kind"], told["limits"], told["recordLayout"]["type"], told["axes"][0]["axisPoints"]],
                         ["parameter", [-1, 1], "UWORD", "ax"])
        self.assertIn("/include 'grammar.aml'", self.run_plain("--a2l", a2l, "list", "-v").stderr)
        sim = self.start_sim()
        described, alone = self.run_cli(sim, "info").stdout, self.run_plain(*sim.reach, "info")
        self.expect(alone, re.sub(r"^ECU            \w+ ", "ECU            unnamed ", described))

    def test_closed_pipes_end_quietly(self):
        sim = self.start_sim()
        assignments = [f"cal_limited={n}" for n in range(50)]
        for arguments in (["list"], ["list", "--json"], ["info"], ["--help"], ["get", *["gear"] * 50], ["set", *assignments]):
            with self.subTest(arguments[0]):
                reading, writing = os.pipe()
                os.close(reading)
                program = self.start_cli(sim, *arguments, stdout=writing)
                os.close(writing)
                self.assertEqual((program.finish(), program.err), (0, ""))
        self.expect(self.run_cli(sim, "get", "cal_limited"), harness.value_line("cal_limited", "49.000"))

    def test_closed_standard_descriptors(self):
        sim = self.start_sim()
        command = " ".join(f"'{a}'" for a in self.arguments(sim, "get", "cal_limited"))
        done = subprocess.run(["bash", "-c", f"{command} >&- <&-"], capture_output=True, text=True, env=self.env,
                              check=False, timeout=harness.PATIENCE)
        self.expect(done, err="output: Bad file descriptor\n", code=1)

    def test_verbose_logs_to_standard_error_only(self):
        sim = self.start_sim()
        sim.reach = ["--udp", f"[::1]:{sim.port}"]
        done = self.run_cli(sim, "get", "cal_limited", "-v")
        self.expect(done, harness.value_line("cal_limited", "7.000"), done.stderr)
        self.assertIn("XCP connected: MAX_CTO=248 MAX_DTO=1400 AG=1 Intel", done.stderr)


if __name__ == "__main__":
    unittest.main()
