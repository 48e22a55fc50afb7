"""`snapshot` and `diff`: what the file says is what the ECU holds, byte by byte; what differs is told, and by how much."""
import json
import signal
import struct
import unittest

import parameter_load
from harness import SystemTest, Terminal, counters, stop
from identity_test import EPK, WITH_EPK
from raw_master import RawMaster

DIGITS = 2 ** 53 + 1
# What is typed into `set` after the snapshot, and the lines of `diff` about it.
CHANGES = (
    (["cal_gain=2.5"], ["cal_gain                                           1 -> 2.5  (+1.5)"]),
    (["cal_idle_speed=801"], ["cal_idle_speed                                     800 -> 801  (+1) rpm"]),
    (["cal_injector=test mode"], ["cal_injector                                       on -> test mode"]),
    ([f"cal_uint64_lsb={DIGITS}"], [f"cal_uint64_lsb                                     0 -> {DIGITS}  (+9.0072e+15)"]),
    (["cal_driver_name=J\u00f6rg"], ["cal_driver_name                                    Zo\u00eb -> J\u00f6rg"]),
    (["cal_torque_curve.x[1]=12", "cal_torque_curve[2]=61"],
     ["cal_torque_curve                                   2 of 16 differ, most .x[1] by +1.96078",
      "  [2]    60 -> 61  (+1)", "  .x[1]  10.196078431372548 -> 12.156862745098039  (+1.96078)"]),
    (["cal_ignition_map[2][3]=20", "cal_ignition_map[7][0]=0"],
     ["cal_ignition_map                                   2 of 64 differ, most [7][0] by -29.5 deg",
      "  [7][0]  29.5 -> 0  (-29.5)", "  [2][3]  12.5 -> 20  (+7.5)"]),
    (["cal_ignition_map[*]=0"], None),
    (["cal_time_axis[2]=11"], ["cal_time_axis                                      1 of 8 differ, most [2] by +1",
                               "  [2]  10 -> 11  (+1)"]),
)
HEAD = '{"format": "xcplumo parameter set", "schema": 1, "parameters": [\n'
ONE = '{"name": "cal_gain", "shape": "scalar", "value": 1}'
# A file, and what is told of it.
BROKEN = (
    ("", "line 1: a '{' is missing"),
    ("[]", "line 1: a '{' is missing"),
    ("{}", 'line 1: this is no parameter set: "format": "xcplumo parameter set" is missing'),
    ('{"format": "other"}', 'line 1: this is no parameter set: "format" is not "xcplumo parameter set"'),
    (HEAD.replace("1,", "2,"), "line 1: schema version 2, this version reads 1: use the version that wrote it"),
    (HEAD + ONE, "line 2: a ',' or ']' is missing"),
    (HEAD + ONE + "]", "line 2: a ',' or '}' is missing"),
    (HEAD + ONE + "]} x", "line 2: something stands behind the end"),
    (HEAD + ONE + ",\n" + ONE + "]}", "line 3: 'cal_gain' is there twice, first in line 2: remove one"),
    (HEAD + '\n{"shape": "scalar", "value": 1}]}', 'line 3: a parameter has no "name"'),
    (HEAD + '{"name": "a", "value": 1}]}', 'line 2: a: "shape" is missing'),
    (HEAD + '{"name": "a", "shape": "ball"}]}', "line 2: 'ball' is no shape of a parameter"),
    (HEAD + '{"name": "a", "shape": "block", "dimensions": [3], "values": [1, 2]}]}',
     "line 2: a: 2 value(s), which are fewer than its dimensions want"),
    (HEAD + '{"name": "a", "shape": "block", "dimensions": [99999999999], "values": []}]}',
     "line 2: a dimension is a whole number from 0 to 4294967295"),
    (HEAD + '{"name": "a", "shape": "scalar", "value": [1]}]}', "line 2: a number, a text or null is missing"),
    (HEAD + '{"name": "a", "shape": "scalar", "value": 01}]}', "line 2: a number begins with 0"),
    (HEAD + '{"name": "a", "shape": "scalar", "value": 1e999}]}', "line 2: 1e999 is beyond what a number can be"),
    (HEAD + '{"name": "a", "unit": "m", "unit": "m"}]}', 'line 2: "unit" is there twice'),
    (HEAD + '{"name": "a\nb"}]}', "line 2: a text is not closed by a quotation mark on its line"),
    (HEAD + '{"x": ' + "[" * 50, "line 2: nested more than 32 times"),
    (HEAD.encode() + b'{"name": "\xff"}]}', "line 2: a character that is not UTF-8: save the file as UTF-8"),
)
# The same parameter in two files, and what is told of it.
PAIRS = (
    ({"value": 1}, {"value": 1.0}, None),
    ({"value": DIGITS}, {"value": DIGITS + 1}, f"{DIGITS} -> {DIGITS + 1}  (+1)"),
    ({"value": -0.0}, {"value": 0}, None),
    ({"value": None, "raw": "0x7FC00000"}, {"value": None, "raw": "0x7FC00001"}, "raw 0x7FC00000 -> raw 0x7FC00001"),
    ({"value": None, "raw": "0xFF800000"}, {"value": None, "raw": "0xFF800000"}, None),
    ({"value": "hot", "raw": 3}, {"value": "hot", "raw": 4}, "raw 3 -> raw 4  (+1)"),
    ({"value": "hot", "raw": 3, "digest": "a"}, {"value": "hot", "digest": "b"},
     "the physical values are the same, the bytes in the ECU are not"),
    ({"value": 1, "digest": "a"}, {"value": 1, "digest": "b"}, None),
    ({"value": 1, "unit": "bar"}, {"value": 1, "unit": "kPa"}, "not comparable: unit 'bar' in A, 'kPa' in B"),
    ({"value": 1, "unit": "bar"}, {"value": 2}, "1 -> 2  (+1) bar"),
    ({"value": "x", "shape": "text"}, {"value": "x"}, "not comparable: text in A, scalar in B"),
    ({"shape": "block", "dimensions": [2, 1], "values": [1, 2]}, {"shape": "block", "dimensions": [2], "values": [1, 2]}, None),
    ({"shape": "block", "dimensions": [2], "values": [1, 2]}, {"shape": "block", "dimensions": [3], "values": [1, 2, 3]},
     "not comparable: 2 values in A, 3 values in B"),
)


class ParameterSetsTest(SystemTest):
    def snapshot(self, sim, name, *arguments, code=0):
        done = self.run_cli(sim, "snapshot", self.dir / name, *arguments)
        self.assertEqual(done.returncode, code, done.stderr)
        return self.dir / name

    def write_set(self, name, *parameters):
        path = self.dir / name
        rows = ({"name": "p", "shape": "scalar"} | parameter for parameter in parameters)
        path.write_text(HEAD + ",\n".join(map(json.dumps, rows)) + "]}", encoding="utf-8")
        return path

    def test_changes_are_told(self):
        sim = self.start_sim()
        # The ECU itself changes bits of this one.
        names = [name for name in self.names(self.snapshot(sim, "all.json")) if name != "cal_control_word"]
        for number, (typed, lines) in enumerate(CHANGES):
            before = self.snapshot(sim, f"{number}.json", *names)
            same = self.run_cli(sim, "diff", before, "ecu", *names)
            self.assertEqual((same.returncode, same.stdout.splitlines()[2:]),
                             (0, [f"0 different, 0 only in A, 0 only in B, 0 not comparable, {len(names)} equal"]))
            self.assertEqual(self.run_cli(sim, "set", "--no-dependents", *typed).returncode, 0)
            done = self.run_cli(sim, "diff", before, "ecu", *names)
            self.assertEqual(done.returncode, 3, done.stderr)
            told = done.stdout.splitlines()[2:-1]
            if lines is None:
                self.assertEqual((len(told), told[-1]), (1 + 8 + 1, "  ... 55 more"))
            else:
                self.assertEqual(told[:len(lines)], lines)
            # Two files tell the same as a file and the ECU.
            after = self.snapshot(sim, f"{number}b.json", *names)
            files = self.run_plain("--a2l", sim.a2l, "diff", before, after)
            self.assertEqual((files.returncode, files.stdout.splitlines()[2:]), (3, done.stdout.splitlines()[2:]))

    @staticmethod
    def names(path):
        return [parameter["name"] for parameter in json.loads(path.read_text(encoding="utf-8"))["parameters"]]

    def test_files_hold_each_byte_in_as_few_packets_as_that_takes(self):
        count, per_block, blocks = 400, 36, ("--max-cto", 8, "--slave-blocks")
        for options, extra in (((), ()), (("--max-cto", 8), ()), ((), ("--no-short-upload",)), (blocks, ()),
                               (blocks, ("--no-short-upload",))):
            with self.subTest(options=options, extra=extra):
                sim = self.start_sim(*options, *parameter_load.spare(count))
                sim.a2l = parameter_load.write_a2l(self.dir / "load.a2l", count)
                parameter_load.fill(sim.port, count)
                needed = self.check_load(sim, self.snapshot(sim, "load.json", "--force", *extra), count)
                told = counters(sim)
                # Four events have names, and this test has read everything.
                uploads = told["command-UPLOAD"] - needed
                if "--slave-blocks" in options:
                    self.assertLess(uploads + told.get("command-SHORT_UPLOAD", 0), needed / per_block * 1.2)
                elif extra:
                    self.assertEqual((uploads - 4) // needed, 1)
                else:
                    self.assertEqual(told["command-SHORT_UPLOAD"], needed)

    def test_what_is_lost_of_a_block_is_read_again(self):
        count, cut = 80, "UPLOAD: 35 of the 36 packets of a block came: read again packet by packet"
        for fault, told, blocks in (
                ("lose-part:UPLOAD:9:1:3", cut, True), ("lose-part:UPLOAD:9:0:36", cut + ", and all else too", False),
                ("lose:UPLOAD:9", "UPLOAD: 0 of the 36", False), ("error:UPLOAD:9:1:0x20", "ERR_CMD_UNKNOWN", False),
                ("error:UPLOAD:9:1:0x29", "ERR_SEQUENCE", False), ("busy:UPLOAD:9", "", True), ("extra-part:UPLOAD:9:1:3", "", False),
                ("short:UPLOAD:9", "UPLOAD: 0 of the 36", False), ("double:UPLOAD:9", "", False), ("late:UPLOAD:9:1:50", "", True)):
            with self.subTest(fault):
                sim = self.start_sim("--max-cto", 8, "--slave-blocks", "--fault", fault, *parameter_load.spare(count))
                sim.a2l = parameter_load.write_a2l(self.dir / "load.a2l", count)
                parameter_load.fill(sim.port, count)
                done = self.run_cli(sim, "-c", self.quick_config(xcp={"timeoutsMs": [200] * 6 + [50]}), "snapshot", self.dir / "load.json", "--force")
                self.assertEqual(done.returncode, 0, done.stderr)
                self.assertIn(told, done.stderr)
                self.check_load(sim, self.dir / "load.json", count)
                self.assertEqual(counters(sim).get("command-SHORT_UPLOAD", 0) < 200, blocks)

    def check_load(self, sim, file, count):
        """The file holds what the ECU does; returns in how many packets that is read."""
        held = {p["name"]: p for p in json.loads(file.read_text(encoding="utf-8"))["parameters"]}
        size = count // parameter_load.PER_UNIT * parameter_load.UNIT_BYTES
        with RawMaster(sim.port) as master:
            memory, per_packet = master.read(parameter_load.BASE, size), master.most - 1
        for name, kind, address in parameter_load.objects(count):
            at = address - parameter_load.BASE
            self.assertEqual(self.bytes_of(held.pop(name), kind), memory[at:at + kind[2]], name)
        self.assertEqual(held, {})
        return -(-size // per_packet)

    @staticmethod
    def bytes_of(parameter, kind):
        """What the ECU must hold for a parameter of a file."""
        def floats(values):
            return b"".join(struct.pack("<I", int(v, 16)) if isinstance(v, str) else struct.pack("<f", v) for v in values)

        if kind[0] == "scalar_f":
            return floats([parameter.get("raw", parameter["value"])])
        if kind[0] == "block":
            return floats(parameter.get("raws", parameter["values"]))
        if kind[0] == "scalar_w":
            return struct.pack("<H", round(parameter["value"] * 10))
        axes = [axis["points"] for axis in parameter["axes"]]
        values = parameter["values"] if kind[0] == "curve" else [round(v * 10) for v in parameter["values"]]
        if kind[0] == "map":  # in memory Y runs fastest
            values = [values[x + parameter_load.SIDE * y] for x in range(parameter_load.SIDE)
                      for y in range(parameter_load.SIDE)]
        numbers = [len(axis) for axis in axes] + sum(axes, [])
        return struct.pack(f"<{len(numbers)}H{len(values)}{'h' if kind[0] == 'curve' else 'H'}", *numbers, *values)

    def test_broken_files_are_refused(self):
        good = self.write_set("good.json", {"value": 1})
        bad = self.dir / "bad.json"
        for text, told in BROKEN:
            bad.write_bytes(text if isinstance(text, bytes) else text.encode())
            self.expect(self.run_plain("diff", good, bad), err=f"diff: {bad}: {told}\n", code=1)
        bad.write_bytes(b"\xef\xbb\xbf" + good.read_bytes())
        self.assertEqual(self.run_plain("diff", good, bad).returncode, 0)
        for arguments, told in (
                ((good, "none.json"), "cannot read none.json: No such file or directory"),
                ((good, "set.xml"), "the name set.xml does not end as a parameter file does: .json, .cdfx, .dcm"),
                (("ecu", "ecu"), "one of the two is a parameter file: the ECU equals itself"),
                ((good, good, "q*"), "'q*' matches no parameter of the two"),
                ((good, good, "--group", "g"), "no A2L file configured")):
            self.expect(self.run_plain("diff", *arguments), err=f"diff: {told}\n", code=1)
        bad.write_text(HEAD.replace("1,", '1, "new": {"a": [1]},') + ONE + "]}")
        self.expect(self.run_plain("diff", bad, bad, "--json").stderr.splitlines(),
                    [f'{bad}: line 1: "new" is not known to this version and passed over'] * 2)

    def expect(self, done, *out, **options):
        if isinstance(done, list):
            return self.assertEqual(done, *out)
        return super().expect(done, *out, **options)

    def test_pairs_of_values(self):
        for a, b, told in PAIRS:
            with self.subTest(a=a, b=b):
                files = self.write_set("a.json", a, {"name": "q", "value": 1}), self.write_set("b.json", b)
                done = self.run_plain("diff", *files)
                lines = [f"{'p':<50} {told}"] if told else []
                shown = [line for line in done.stdout.splitlines()[2:-1] if not line.startswith("  ")]
                self.assertEqual((shown, done.returncode), (lines + [f"{'q':<50} only in A"], 3), done.stderr)

    def test_within_half_a_step_is_equal(self):
        a2l = self.write_a2l()
        # 0.25 a step; a float; a text and its number.
        for name, a, b, equal in (("cal_idle_speed", 800, 800.12, True), ("cal_idle_speed", 800, 800.13, False),
                                  ("cal_gain", 0.1, 0.10000000149011612, True), ("cal_gain", 0.1, 0.1000001, False),
                                  ("cal_injector", "on", 1, True), ("cal_uint64_lsb", DIGITS, DIGITS + 1, False)):
            files = (self.write_set("a.json", {"name": name, "value": a}), self.write_set("b.json", {"name": name, "value": b}))
            self.assertEqual(self.run_plain("--a2l", a2l, "diff", *files).returncode, 0 if equal else 3, (name, a, b))
            self.assertEqual(self.run_plain("diff", *files).returncode, 3, (name, a, b))

    def test_choice(self):
        sim = self.start_sim()
        for arguments, wanted in ((("cal_g*",), None), (("--function", "Ignition"), None),
                                  (("cal_gain", "cal_*_map"), ["cal_gain", "cal_ignition_map", "cal_lambda_map", "cal_pressure_map"])):
            names = self.names(self.snapshot(sim, "some.json", "--force", *arguments))
            self.assertEqual(names, sorted(wanted or names))
            self.assertEqual(self.run_cli(sim, "diff", self.dir / "some.json", "ecu", *arguments).returncode, 0)
        for name, told in (("engine_speed", "engine_speed is no parameter: name a CHARACTERISTIC or AXIS_PTS"),
                           ("none", "'none' is neither a MEASUREMENT nor a CHARACTERISTIC"),
                           ("none*", "'none*' matches no parameter")):
            done = self.run_cli(sim, "snapshot", self.dir / "x.json", name, "cal_gain", "--force")
            self.expect(done, f"{self.dir / 'x.json'} written\n", f"{told}\n1 parameter(s)\n", 1)

    def test_a_file_beside_the_ecu(self):
        """What the file names is compared, and the software; each row: arguments behind `diff`, exit code, what is told."""
        sim = self.start_sim(*WITH_EPK)
        part = self.snapshot(sim, "part.json", "cal_gain", "cal_*_map")
        other = self.dir / "other.json"
        other.write_text(part.read_text(encoding="utf-8").replace(EPK, "PUMP 3.0"), encoding="utf-8")
        differs = f"EPK differs: 'PUMP 3.0' in A, '{EPK}' in B: of different software"
        for arguments, code, told in (
                ((part, "ecu"), 0, "4 equal, 101 not in the file"), (("ecu", part), 0, "4 equal, 101 not in the file"),
                ((part, "ecu", "--complete"), 3, "101 only in B, 0 not comparable, 4 equal\n"), ((part, "ecu", "cal_vin"), 3, "only in B"),
                ((part, "ecu", "cal_v*"), 1, "'cal_v*' matches no parameter of the file"), ((part, "ecu", "cal_v*", "--complete"), 3, "only in B"),
                ((other, "ecu"), 3, differs), ((other, part), 3, differs)):
            with self.subTest(arguments=arguments):
                done = self.run_cli(sim, "diff", *arguments)
                self.assertEqual((done.returncode, told in done.stdout + done.stderr), (code, True), done.stdout + done.stderr)
        self.assertEqual(self.run_cli(sim, "--ignore-identity", "diff", other, "ecu").returncode, 0)
        told = json.loads(self.run_cli(sim, "diff", other, "ecu", "--json").stdout)
        self.assertEqual((told["epkDiffers"], told["notInFile"], told["equal"]), (True, 101, 4))
        dry = json.loads(self.run_cli(sim, "apply", part, "--dry-run", "--json").stdout)
        self.assertEqual((dry["a"]["parameters"], dry["b"]["parameters"], dry["equal"]), (4, 4, 4))

    def test_what_a_file_holds_and_no_one_takes(self):
        """Each row: file, its text, the command, exit code, what is told."""
        sim = self.start_sim()
        cdfx = self.snapshot(sim, "set.cdfx", "cal_gain", "cal_injector").read_text(encoding="utf-8")
        dcm = self.snapshot(sim, "set.dcm", "cal_gain").read_text(encoding="utf-8")
        blob = cdfx.replace("<CATEGORY>VALUE</CATEGORY>", "<CATEGORY>BLOB</CATEGORY>", 1)
        block = dcm + "FESTWERTEBLOCK cal_gains 6\n   WERT 1 1.25 1.5 1.75 2 -0.5\nEND\n"
        truth = dcm + 'FESTWERT cal_switch\n   TEXT "{}"\nEND\n'
        self.assertIn("BLOB", blob)
        text = sim.a2l.read_text(encoding="utf-8")
        sim.a2l.write_text(text.replace("/end MODULE", '/begin CHARACTERISTIC cal_switch "" VALUE 0x10410 RL.ULONG 0 CM.ON_OFF 0 1 '
                                        "BIT_MASK 0x800 /end CHARACTERISTIC\n/end MODULE"), encoding="utf-8")
        for name, text, words, code, told in (
                ("b.cdfx", blob, ("diff", "ecu"), 3, "not comparable: B has nothing of it that can be compared"),
                ("b.cdfx", blob, ("apply",), 1, "the file has nothing that can be written"),
                ("b.dcm", block, ("diff", "ecu"), 0, "2 equal"), ("m.dcm", block.replace("gains 6", "gains 6 @ 1"), ("diff", "ecu"), 0, "2 equal"),
                ("t.dcm", truth.format("true"), ("diff", "ecu"), 3, "off -> true"), ("t.dcm", truth.format("true"), ("apply",), 0, "off -> on"),
                ("t.dcm", truth.format("true"), ("diff", "ecu"), 0, "2 equal"), ("t.dcm", truth.format("false"), ("apply",), 0, "on -> off"),
                ("t.dcm", truth.format("maybe"), ("apply",), 1, "cal_switch: 'maybe' is not a valid value"),
                ("e.json", HEAD + ONE.replace("gain", "extended").replace("1}", "150}") + "]}", ("apply", "--extended-limits"), 0, "150 is outside the limits [0, 100]")):
            with self.subTest(name=name, words=words, told=told):
                (self.dir / name).write_text(text, encoding="utf-8")
                done = self.run_cli(sim, *words, self.dir / name)
                self.assertEqual((done.returncode, told in done.stdout + done.stderr), (code, True), done.stdout + done.stderr)
        left = self.run_cli(sim, "snapshot", self.dir / "all.json")
        self.assertIn("left out: cal_blob: a BLOB has no values\n", left.stderr)

    def test_what_cannot_be_read_is_named(self):
        sim = self.start_sim()
        text = sim.a2l.read_text(encoding="utf-8")
        sim.a2l.write_text(text.replace("/end MODULE", '/begin CHARACTERISTIC away "" VALUE 0xDEAD0000 RL.FLOAT 0 '
                                        'NO_COMPU_METHOD 0 1 /end CHARACTERISTIC\n/begin RECORD_LAYOUT RL.FLOAT FNC_VALUES 1 '
                                        "FLOAT32_IEEE COLUMN_DIR DIRECT /end RECORD_LAYOUT\n/end MODULE"), encoding="utf-8")
        file = self.snapshot(sim, "all.json", code=1)
        self.assertIn("cal_gain", self.names(file))
        self.assertNotIn("away", self.names(file))
        done = self.run_cli(sim, "diff", file, "ecu", "cal_gain", "away", "--json")
        told = json.loads(done.stdout)
        self.assertEqual((done.returncode, told["equal"], told["differences"]), (1, 1, []))
        self.assertEqual([(e["name"], e["message"]) for e in told["errors"]],
                         [("away", "away: SHORT_UPLOAD: ERR_OUT_OF_RANGE (0x22)")])
        # A file is there already, no one answers.
        self.expect(self.run_cli(sim, "snapshot", file),
                    err=f"snapshot: {file} already exists (--force overwrites it)\n", code=1)
        self.expect(self.run_cli(sim, "snapshot", self.dir),
                    err=f"snapshot: the name {self.dir} does not end as a parameter file does: .json, .cdfx, .dcm\n", code=1)
        sim.kill()
        for arguments, code in ((("diff", file, "ecu"), 4), (("snapshot", self.dir / "none.json"), 4)):
            done = self.run_cli(sim, *arguments)
            self.assertEqual(done.returncode, code, done.stderr)
            self.assertIn("connect: CONNECT: no response", done.stderr)
        self.assertFalse((self.dir / "none.json").exists())

    def test_an_end_on_the_way_leaves_no_file(self):
        count = 4000
        for ending in (signal.SIGINT, None):
            sim = self.start_sim("--fault", "late:SHORT_UPLOAD:1:0:5", *parameter_load.spare(count))
            sim.a2l = parameter_load.write_a2l(self.dir / "load.a2l", count)
            file = self.dir / "load.json"
            config = self.quick_config()
            terminal = Terminal(self.arguments(sim, "-c", config, "snapshot", file), self.env)
            self.addCleanup(terminal.close)
            terminal.wait_for("reading")
            if ending:
                terminal.process.send_signal(ending)
            else:
                sim.kill()
            terminal.wait_for("")
            self.assertEqual(terminal.process.wait(), 1, terminal.screen)
            self.assertIn("no response from slave" if ending is None else "reading", terminal.screen)
            self.assertEqual([p.name for p in self.dir.glob("load.json*")], [])
            stop(sim) if ending else None  # pylint: disable=expression-not-assigned


if __name__ == "__main__":
    unittest.main()
