"""`get` and `set` of curves, maps, blocks, texts, axes and parts of structures; what the ECU holds is that of docs/simulator.md."""
import json
import unittest

from harness import SystemTest, Terminal, counters, value_line

SPEEDS = [500, 750, 1000, 1250, 1500, 2500, 4000, 6000]
MAP = [[(24 + 5 * x - 3 * y) / 2 for y in range(8)] for x in range(8)]
TORQUE = [-20, 15, 60, 130, 190, 230, 245, 250]

# What is typed, the name that is looked at, its physical values after it.
WRITES = (
    ("cal_ignition_map[2][3]=20.5", "cal_ignition_map", [*MAP[:2], [*MAP[2][:3], 20.5, *MAP[2][4:]], *MAP[3:]]),
    (f"cal_ignition_map={MAP}", "cal_ignition_map", MAP),
    ("cal_ignition_map[1][*]=[1,2,3,4,5,6,7,8]", "cal_ignition_map", [MAP[0], [*range(1, 9)], *MAP[2:]]),
    ("cal_ignition_map[1]=[8,7,6,5,4,3,2,1]", "cal_ignition_map", [MAP[0], [*range(8, 0, -1)], *MAP[2:]]),
    ("cal_ignition_map=@map.csv", "cal_ignition_map", [[x + y for y in range(8)] for x in range(8)]),
    ("cal_torque_curve.x[1]=12", "cal_torque_curve[*]", TORQUE),
    ("cal_speed_axis[7]=7000", "cal_speed_axis", [*SPEEDS[:7], 7000]),
    ("cal_time_axis[2]=5", "cal_time_axis", None),
    ("cal_gains[*]=0.5", "cal_gains", [0.5] * 6),
    ("cal_gains=@gains.csv", "cal_gains", [1, 2, 3, 4, 5, 6]),
    ("cal_offsets=[[1,2,3],[4,5,6],[7,8,9],[0xA,0xB,0xC]]", "cal_offsets", [[1, 2, 3], [4, 5, 6], [7, 8, 9], [10, 11, 12]]),
    ('cal_features=["on",off,1,0,on,on,off,on]', "cal_features", [1, 0, 1, 0, 1, 1, 0, 1]),
    ("cal_vin=@WDB 1", "cal_vin", "@WDB 1"),
    ("cal_driver_name=J\u00f6rg", "cal_driver_name", "J\u00f6rg"),
    ("cal_limits[1].boost.hysteresis=7", "cal_limits[1].boost.hysteresis", 7),
    ("cal_limits[1].boost.curve[3]=42", "cal_limits[1].boost.curve[3]", 42),
    ("cal_boost_curve[0]=321", "cal_boost_curve[0]", 321),
)

# What is refused, and with which words.
REFUSED = (
    ("cal_ignition_map=1", "cal_ignition_map: '1' is no list of its 64 values"),
    ("cal_ignition_map[1]=5", "cal_ignition_map[1]: '5' is no list of its 8 values"),
    ("cal_*=0", "'cal_*' is a pattern: name one object to be written"),
    ("cal_gain[0]=1", "cal_gain[0]: is a single value and has no index"),
    ("cal_ignition_map[0]=[1 2 3 4 5 6 7 8]", "cal_ignition_map[0]: 8 values are needed, there are 1 (commas separate them)"),
    ("cal_ignition_map=[[1,2],[3]]", "cal_ignition_map[0]: 8 values are needed, there are 2"),
    ("cal_ignition_map=[1,2]", "cal_ignition_map[0]: a list of 8 values is needed"),
    ("cal_gains=[1,2,3,4,5,6,7]", "cal_gains: 6 values are needed, there are more"),
    ("cal_gains=[1,2,3,4,5,[6]]", "cal_gains[5]: a value is needed, not a list"),
    ("cal_gains=[1,2,3,4,5,6] 7", "cal_gains: '7' stands behind the end of the list"),
    ("cal_gains=[1,2,3,4,5,60]", "cal_gains[5]: 60 outside the limits [-10, 10]"),
    ("cal_gains=[1,2,,4,5,6]", "cal_gains[2]: a value is missing"),
    ("cal_gains=@none.csv", "cannot open none.csv: No such file or directory"),
    ("cal_gains=@map.csv", "map.csv line 1: 6 values are needed, there are 8"),
    ("cal_offsets=@gains.csv", "gains.csv line 1: 4 values are needed, there are 1"),
    ("cal_gains[6]=1", "cal_gains[6]: index 6 is beyond the last one, 5"),
    ("cal_gains[1][1]=1", "cal_gains[1][1]: has 1 dimension, not 2"),
    ("cal_gains[0]=x", "cal_gains[0]: 'x' is not a number"),
    ("cal_features[0]=maybe", "cal_features[0]: 'maybe' is not a valid value"),
    ("cal_torque_curve.x[1]=90", "cal_torque_curve.x[2]: 20 after 90.19607843137256 breaks STRICT_INCREASE"),
    ("cal_ignition_map.x[1]=1", "cal_ignition_map.x: its points are those of AXIS_PTS 'cal_speed_axis': set them there"),
    ("cal_fan_curve.x[1]=1", "cal_fan_curve.x: its points are computed and cannot be set"),
    ("cal_fan_curve.y[1]=1", "cal_fan_curve.y[1]: cal_fan_curve has 1 axis"),
    ("cal_vin=123456789012345678901", "cal_vin: the text takes 21 bytes, there is room for 20"),
    ("program_version=x", "program_version is not writable"),
    ("cylinder_torque[0]=1", "cylinder_torque is a measurement without READ_WRITE"),
    ("cal_virtual=1", "cal_virtual is computed from others and has no place in the ECU"),
)

# Objects in the spare memory, of which some share bytes, and which depend on others.
U1 = "U1 0 NO_COMPU_METHOD 0 255"
SPARE = "/begin RECORD_LAYOUT U1 FNC_VALUES 1 UBYTE ROW_DIR DIRECT /end RECORD_LAYOUT " \
    "/begin RECORD_LAYOUT CV NO_AXIS_PTS_X 1 UBYTE AXIS_PTS_X 2 UBYTE INDEX_INCR DIRECT FNC_VALUES 3 UBYTE ROW_DIR DIRECT /end RECORD_LAYOUT " \
    f'/begin TYPEDEF_CHARACTERISTIC tv "" VALUE {U1} /end TYPEDEF_CHARACTERISTIC ' \
    '/begin TYPEDEF_STRUCTURE S "" 8 /begin STRUCTURE_COMPONENT b tv 0 MATRIX_DIM 3 /end STRUCTURE_COMPONENT /end TYPEDEF_STRUCTURE ' \
    '/begin INSTANCE st "" S 0x200080 /end INSTANCE /begin INSTANCE huge "" S 0x200000 MATRIX_DIM 1000000 1000000 /end INSTANCE ' + "".join(
        f'/begin CHARACTERISTIC {name} "" {place} {options} ' + (
            f'/begin DEPENDENT_CHARACTERISTIC "{depends[0]}" {depends[1]} /end DEPENDENT_CHARACTERISTIC ' if depends else "") +
        "/end CHARACTERISTIC " for name, place, options, *depends in (
            ("lo", f"VALUE 0x200000 {U1}", "BIT_MASK 0x0F"), ("hi", f"VALUE 0x200000 {U1}", "BIT_MASK 0xF0", "15-X1", "lo"),
            ("n", f"VALUE 0x200010 {U1}", ""), ("dc", f"CURVE 0x200010 {U1.replace('U1', 'CV')}", "/begin AXIS_DESCR STD_AXIS "
             "NO_INPUT_QUANTITY NO_COMPU_METHOD 10 0 255 /end AXIS_DESCR", "X1", "n"),
            ("ds", f"VAL_BLK 0x200090 {U1}", "MATRIX_DIM 3", "X1", "st.b"), ("ds1", f"VALUE 0x200098 {U1}", "", "X1", "st.b[1]"),
            ("m0", f"VALUE 0x200211 {U1}", ""), ("t", f"VALUE 0x200210 {U1}", "BIT_MASK 0x0", "X1", "m0"),
            ("cal", f"VAL_BLK 0x2001C0 {U1}", "MATRIX_DIM 3", "X1", "cal_2"), ("cal_2", f"VAL_BLK 0x2001D0 {U1}", "MATRIX_DIM 3"),
            ("bl", f"VAL_BLK 0x200070 {U1}", "MATRIX_DIM 12"))) + \
    f'/begin CHARACTERISTIC vs "" VAL_BLK 0 {U1} MATRIX_DIM 3 /begin VIRTUAL_CHARACTERISTIC "X1*2" cal_2 /end VIRTUAL_CHARACTERISTIC ' \
    "/end CHARACTERISTIC"

# What is set one after the other, what is held of it and of what depends on it.
DEPENDENTS = (
    ("lo=3", {"lo": 3, "hi": 12}),
    ("n=5", {"n": 5, "dc": [5] * 5}),
    ("st.b[1]=7", {"st.b": [1, 7, 3], "ds": [1, 7, 3], "ds1": 7}),
    ("st.b=[9,8,6]", {"st.b": [9, 8, 6], "ds": [9, 8, 6], "ds1": 8}),
    ("m0=5", {"m0": 0}),
)

# The fault, what is set, what is told of what the ECU holds after it; in JSON the first values of it, and what depends on it and is held.
HALF_WAY = (
    ("error:DOWNLOAD:2:0", "cal_2=[1,2,3]", "cal_2: the ECU now holds the new values of cal_2[0], cal_2[1], cal_2[2]\n", [1, 2, 3], []),
    ("error:DOWNLOAD:2:1", f"bl={[*range(1, 13)]}", "bl: the ECU now holds the new values of bl[0], bl[1], bl[2], bl[3] and 2 more; "
     "the former values of bl[6], bl[7], bl[8], bl[9] and 2 more\n", [1, 2, 3, 4, 5, 6], []),
    ("silence:DOWNLOAD:2", "cal_2=[1,2,3]", "cal: what the ECU now holds is not known", None, ["cal"]),
)


# What is asked of folders, the exit code, names of the values or the error.
FOLDERS = (
    (["--group", "Axes"], 0, ["cal_speed_axis", "cal_load_axis", "cal_time_axis", "cal_rescale_axis"]),
    (["--group", "Axes", "*_time_*", "gear"], 0, ["cal_time_axis", "gear"]),
    (["--function", "Limits", "cal_spare*"], 0, ["cal_spare_limit.curve"]),
    (["--group", "Axes", "cal_g*"], 1, "'cal_g*' matches no name in the groups and functions that were named"),
    (["--group", "Nope"], 1, "get: the A2L has no GROUP 'Nope'\n"),
    ([], 106, "names is required\n"),
)


class ObjectsTest(SystemTest):
    def setUp(self):
        super().setUp()
        (self.dir / "map.csv").write_text("\n\n".join(",".join(str(x + y) for x in range(8)) for y in range(8)), encoding="utf-8")
        (self.dir / "gains.csv").write_text("\ufeff1\r\n2\r\n3\r\n4\r\n5\r\n\"6\"\r\n", encoding="utf-8")

    def values(self, sim, *arguments):
        return json.loads(self.run_cli(sim, *arguments, "--json", cwd=self.dir).stdout)["values"]

    def physical(self, sim, name):
        values = [value["value"]["physical"] for value in self.values(sim, "get", name)]
        return values if name.endswith("[*]") else values[0]

    def test_json_of_a_map_and_of_parts(self):
        sim = self.start_sim()
        value = self.values(sim, "get", "cal_pressure_map")[0]["value"]
        self.assertEqual([value[key] for key in ("type", "dimensions", "unit")], ["MAP", [4, 3], "hPa"])
        self.assertEqual([len(value["physical"]), {len(column) for column in value["text"]}], [4, {3}])
        self.assertEqual([[axis[key] for key in ("name", "kind", "inputQuantity", "unit", "shared")] for axis in value["axes"]],
                         [["x", "STD_AXIS", "engine_speed", "rpm", ""], ["y", "STD_AXIS", "throttle", "%", ""]])
        shared = self.values(sim, "get", "cal_ignition_map")[0]["value"]["axes"][0]
        self.assertEqual([shared[key] for key in ("shared", "raw", "physical")],
                         ["cal_speed_axis", [4 * speed for speed in SPEEDS], SPEEDS])
        told = self.values(sim, "get", "cal_spare_limit.*", "cal_torque_curve.x[*]", "shaft_power")
        self.assertEqual([value["name"] for value in told],
                         [f"cal_spare_limit.{part}" for part in ("speed", "curve", "hysteresis", "state")] +
                         [f"cal_torque_curve.x[{i}]" for i in range(8)] + ["shaft_power"])
        self.assertEqual([told[-2]["value"]["raw"], told[-1]["value"]["raw"]], [255, None])

    def test_folders_are_read_whole_or_filtered(self):
        sim = self.start_sim()
        for asked, code, told in FOLDERS:
            with self.subTest(asked=asked):
                done = self.run_cli(sim, "get", *asked)
                self.assertEqual(done.returncode, code, done.stderr)
                if code == 0:
                    self.assertEqual([line.split()[0] for line in done.stdout.splitlines() if not line.startswith(" ")], told)
                else:
                    self.assertIn(told, done.stdout + done.stderr)

    def test_what_is_written_is_held(self):
        sim = self.start_sim()
        for assignment, name, expected in WRITES:
            with self.subTest(assignment):
                told = self.values(sim, "set", assignment)[0]
                self.assertEqual((told.get("error"), told["typed"]), (None, assignment.partition("=")[2]))
                if expected is not None:
                    self.assertEqual(self.physical(sim, name), expected)
        self.assertEqual(self.physical(sim, "cal_time_axis"), [0, 5, 5, 20, 30, 50, 100, 200])

    def test_what_is_refused_changes_nothing(self):
        image = self.dir / "memory"
        sim = self.start_sim("--memory-file", image)
        self.run_cli(sim, "set", "cal_limited=1")  # the first write makes the image
        before = image.read_bytes()
        told = self.values(sim, "set", *(text for text, _ in REFUSED))
        for (text, message), value in zip(REFUSED, told, strict=True):
            with self.subTest(text):
                self.assertEqual(value["error"]["message"], message)
        self.assertEqual(image.read_bytes(), before)

    def test_dependents_are_written_with_it_or_not_at_all(self):
        names = ["cal_speed_limit", "cal_speed_resume", "cal_speed_warning"]
        sim = self.start_sim("--fault", "error:DOWNLOAD:4:1:0x24")
        done = self.run_cli(sim, "set", "cal_speed_limit=5000")
        lines = [value_line(name, f"{value}.000") for name, value in zip(names, (5000, 4800, 4600))]
        self.expect(done, "".join(lines), "cal_speed_limit: what depends on it is computed and written, too: "
                    "cal_speed_resume, cal_speed_warning\n")
        done = self.run_cli(sim, "set", "cal_speed_limit=7000")
        self.assertIn("cal_speed_limit: all that had been written was taken back\n", done.stderr)
        self.expect(self.run_cli(sim, "get", *names), "".join(lines))
        self.expect(self.run_cli(sim, "set", "--no-dependents", "cal_speed_limit=7000"), value_line("cal_speed_limit", "7000.000"))
        self.assertEqual(self.physical(sim, "cal_speed_resume"), 4800)
        described = sim.a2l.read_text(encoding="utf-8")
        for new, message in (('"X1 - 2000" cal_speed_limit', "cal_speed_resume: -1000 outside the limits [0, 8000]"),
                             ('"X1" cal_speed_warning', "cal_speed_resume depends on itself: cal_speed_resume <- "
                              "cal_speed_warning <- cal_speed_resume")):
            sim.a2l.write_text(described.replace('"X1 - 200" cal_speed_limit', new), encoding="utf-8")
            name = "cal_speed_limit" if "2000" in new else "cal_speed_warning"
            self.assertEqual(self.values(sim, "set", name + "=1000")[0]["error"]["message"], message)
        self.expect(self.run_cli(sim, "get", *names), value_line(names[0], "7000.000") + "".join(lines[1:]))

    def start_spare(self, *options):
        sim = self.start_sim("--spare-bytes", 1024, *options)
        text = sim.a2l.read_text(encoding="utf-8")
        sim.a2l.write_text(text.replace("  /end MODULE", SPARE + "\n  /end MODULE"), encoding="utf-8")
        return sim

    def test_dependents_share_bytes_and_counts_with_what_is_set(self):
        sim = self.start_spare()
        self.run_cli(sim, "set", "--no-dependents", "n=3", "m0=0", "st.b=[1,2,3]")
        for assignment, held in DEPENDENTS:
            with self.subTest(assignment):
                told = self.values(sim, "set", assignment)[0]
                refused = assignment == "m0=5" and "t: BIT_MASK 0x0 leaves no bit that may be written"
                self.assertEqual(told.get("error", {}).get("message", False), refused)
                self.assertEqual({name: self.physical(sim, name) for name in held}, held)
        self.run_cli(sim, "set", "--no-dependents", "cal_2=[1,2,3]")
        self.assertEqual([value["value"]["physical"] for value in self.values(sim, "get", "vs[1]", "vs[*]")], [4, 2, 4, 6])
        self.assertEqual(self.values(sim, "get", "huge*")[0]["error"]["message"],
                         "'huge*' reaches into huge, which has 1000000000000 parts: name those to be read")
        for pattern, code, told in (("huge[5][7].*", 0, "1 object(s)\n"), ("huge[5][7].", 0, "1 object(s)\n"), ("*", 0, None),
                                    ("huge[*", 1, "list: 'huge[*' reaches into huge, which has 1000000000000 parts: name those to be listed\n")):
            done = self.run_plain("--a2l", sim.a2l, "list", pattern)
            self.assertEqual((done.returncode, told in (None, done.stderr)), (code, True), done.stderr)

    def test_what_is_held_is_told_element_by_element(self):
        for fault, assignment, text, held, dependents in HALF_WAY:
            with self.subTest(fault=fault, set=assignment):
                arguments = ("-c", self.quick_config(), "set", assignment)
                self.assertIn(text, self.run_cli(self.start_spare("--max-cto", 8, "--fault", fault), *arguments).stderr)
                value = self.values(self.start_spare("--max-cto", 8, "--fault", fault), *arguments)[0]
                self.assertEqual(value["held"] and value["held"]["physical"][:len(held)], held, value)
                self.assertEqual([one["name"] for one in value.get("dependents", [])], dependents)

    def test_a_write_that_fails_half_way_tells_what_is_held(self):
        for fault, held, told in (
                ("error:DOWNLOAD:3:1:0x24", [7, 7], "the new values of cal_pair_curve[0], cal_pair_curve[1]; the former values of"),
                ("silence:DOWNLOAD:2", None, "what the ECU now holds is not known of cal_pair_curve[0], cal_pair_curve[1]")):
            sim = self.start_sim("--fault", fault)
            done = self.run_cli(sim, "-c", self.quick_config(), "set", "cal_pair_curve[*]=7", "--json")
            value = json.loads(done.stdout)["values"][0]
            self.assertEqual((done.returncode, value["held"] and value["held"]["physical"][:2]), (1, held), value)
            if held:
                done = self.run_cli(self.start_sim("--fault", fault), "set", "cal_pair_curve[*]=7")
                self.assertIn(told, done.stderr)

    def test_units_of_several_bytes(self):
        """Parts of a unit are written with the bytes around them."""
        sim = self.start_sim("--granularity", 4, "--byte-order", "motorola")
        self.assertEqual(self.values(sim, "set", "cal_ignition_map[2][3]=3")[0]["value"]["physical"], 3)
        self.assertEqual(self.physical(sim, "cal_ignition_map"), [*MAP[:2], [*MAP[2][:3], 3, *MAP[2][4:]], *MAP[3:]])
        self.assertEqual(self.physical(sim, "cal_torque_curve"), TORQUE)

    def test_a_map_has_colours_on_a_terminal(self):
        sim = self.start_sim()
        terminal = Terminal(self.arguments(sim, "get", "cal_ignition_map", "--plot"), self.env)
        self.addCleanup(terminal.close)
        terminal.wait_for("\x1b[48;5;196;38;5;16m   29.5\x1b[0m")

    def test_a_whole_map_takes_no_more_packets_than_its_bytes(self):
        commands = {}
        for name in ("big[63][63]", "big"):
            sim = self.start_sim("--spare-bytes", 16384)
            text = sim.a2l.read_text(encoding="utf-8")
            sim.a2l.write_text(text.replace("  /end MODULE", '/begin CHARACTERISTIC big "" VAL_BLK 0x200000 RL.ROWS_FLOAT32_IEEE 0 '
                                            "NO_COMPU_METHOD -1e38 1e38 MATRIX_DIM 64 64 /end CHARACTERISTIC\n  /end MODULE"), encoding="utf-8")
            self.assertEqual(self.run_cli(sim, "get", name).returncode, 0)
            commands[name] = counters(sim)["commands"]
        # An element is one SHORT_UPLOAD; a packet has 247 bytes beside its PID.
        self.assertLessEqual(commands["big"] - commands["big[63][63]"] + 1, 1 + -(-16384 // 247))


if __name__ == "__main__":
    unittest.main()
