"""`apply`, its undo and `set` from what is held: everything is checked before the first write, and what is told is so."""
import json
import re
import shlex
import signal
import unittest
from pathlib import Path

from harness import EVERY, SystemTest, counters, without_hints
from identity_test import EPK, UNREADABLE, WITH_EPK, WRONG
from raw_master import RawMaster

# What of a parameter in a snapshot is changed, and why nothing of the file is written then.
REFUSED = (
    ("cal_gain", {"value": 11}, "cal_gain: 11 outside the limits [0, 10]"),
    ("cal_gain", {"value": None}, "cal_gain: the file has no finite number"),
    ("cal_gain", {"value": 2, "raw": 3}, "cal_gain: its raw value means 3, the value beside it is 2"),
    ("cal_gain", {"value": 11, "raw": 11}, "cal_gain: 11 outside the limits [0, 10]"),
    ("cal_gain", {"value": None, "raw": "0x7FC00000"}, None),  # as a snapshot of such a number has it
    ("cal_gain", {"value": None, "raw": "0xFF800000"}, "cal_gain: -inf outside the limits [0, 10]"),
    ("cal_gain", {"value": None, "raw": "0x3F800000"}, "cal_gain: the file has no finite number"),
    ("cal_time_axis", {"values": [0, 5, 10, 20, 30, 40, 50, 300], "raws": [0, 5, 10, 20, 30, 40, 50, 300]}, "outside the limits [0, 255]"),
    ("cal_gain", {"unit": "bar"}, None),  # the A2L has none, so nothing contradicts it
    ("cal_idle_speed", {"unit": "1/s"}, "cal_idle_speed: unit 'rpm' in the ECU, '1/s' in the file"),
    ("cal_gain", {"shape": "text", "value": "x"}, "cal_gain: scalar in the ECU, text in the file"),
    ("cal_gains", {"dimensions": [2], "values": [1, 2]}, "cal_gains: 6 values in the ECU, 2 values in the file"),
    ("cal_injector", {"value": "nix"}, "cal_injector: 'nix' is not a valid value"),
    ("cal_vin", {"value": "W" * 99}, "cal_vin: the text takes 99 bytes, there is room for 20"),
    ("cal_read_only", {"value": 3}, "cal_read_only is not writable"),
    ("cal_gain", {"name": "cal_none"}, "'cal_none' is neither a MEASUREMENT nor a CHARACTERISTIC"),
    ("cal_gain", {"name": "engine_speed"}, "engine_speed is no parameter"),
    ("cal_gain", {"name": "cal_virtual"}, "cal_virtual is computed from others and has no place in the ECU"),
)
CHANGES = ("cal_gain=1.5", "cal_ignition_map[2][3]=20", "cal_torque_curve.x[1]=12", "cal_injector=test mode", "cal_vin=X")
NAMES = ("cal_gain", "cal_ignition_map", "cal_torque_curve", "cal_injector", "cal_vin")
# What is set before a snapshot and after it: one physical value, other bytes. Then what must be back.
SAME_TO_SEE = (("cal_temp_class=0", "cal_temp_class=5"), ("cal_gain=-0", "cal_gain=0"), ("cal_gain=0", "cal_gain=-0"))
# What is typed after `set`, and what is printed or told as an error.
RELATIVE = (
    ("cal_gain*=1.5", "1 -> 1.5  (+0.5)"), ("cal_idle_speed-=0.5", "800 -> 799.5  (-0.5) rpm"),
    ("cal_offsets[*]+=2", "12 of 12 differ, most [0][0] by +2"), ("cal_ignition_map[2]-=1", "8 of 64 differ, most [2][0] by -1 deg"),
    ("cal_time_axis[2]+=1", "1 of 8 differ, most [2] by +1"), ("cal_uint64_lsb+=9007199254740993", "0 -> 9007199254740993  (+9.0072e+15)"),
    ("cal_uint64_lsb*=1", "9.0072e+15"), ("cal_uint64_lsb*=1.5", "9007199254740993 -> 13510798882111490  (+4.5036e+15)"),
    ("cal_uint64_lsb*=1e0", "ERROR cal_uint64_lsb: 13510798882111490 times 1e0 is not known to the last digit"),
    ("cal_gain*=100", "ERROR cal_gain: 150 outside the limits [0, 10]"), ("cal_injector+=1", "ERROR cal_injector: is 'on' now, which is no number"),
    ("cal_vin+=1", "ERROR cal_vin: is a text, no number"), ("cal_offsets+=1", "ERROR cal_offsets: has 12 values"),
    ("cal_gain+=x", "ERROR cal_gain: 'x' is not a number"), ("cal_*=5", "ERROR 'cal_*' is a pattern: name one object to be written"))


class ApplyTest(SystemTest):
    def snapshot(self, sim, *names, name="set.json"):
        path = self.dir / name
        done = self.run_cli(sim, "snapshot", path, *names, "--force")
        self.assertEqual(done.returncode, 0, done.stderr)
        return path

    def values(self, sim, *names):
        done = self.run_cli(sim, "get", "--exact", *names, "--json")
        return json.loads(done.stdout)["values"]

    def log(self):
        lines = (self.dir / "state/xcplumo").glob("changes-*.jsonl")
        return [json.loads(line) for path in lines for line in path.read_text(encoding="utf-8").splitlines()]

    def test_the_way_there_and_back(self):
        sim = self.start_sim()
        set_file, held = self.snapshot(sim, *NAMES), self.values(sim, *NAMES)
        self.assertEqual(self.run_cli(sim, "set", *CHANGES).returncode, 0)
        changed = self.values(sim, *NAMES)
        dry = self.run_cli(sim, "apply", set_file, "--dry-run")
        self.assertEqual((dry.returncode, self.values(sim, *NAMES)), (0, changed))
        undo = self.dir / "undo.json"
        done = self.run_cli(sim, "apply", set_file, "--undo-file", undo)
        self.assertEqual((done.returncode, done.stderr, self.values(sim, *NAMES)), (0, f"undo file: {undo}\n", held))
        self.assertEqual(done.stdout.splitlines()[:-1], dry.stdout.splitlines()[2:-1])
        self.assertEqual(done.stdout.splitlines()[-1], "5 parameter(s) written, 0 equal")
        self.assertIn("cal_gain 1.5 1", [f"{line['object']} {line['old']:g} {line['new']:g}"
                                         for line in self.log() if line["command"] == f"apply {set_file}" and line["object"] == "cal_gain"])
        again = self.run_cli(sim, "apply", set_file, "--undo-file", undo)  # nothing to do needs no undo file
        self.expect(again, "0 parameter(s) written, 5 equal\n")
        self.assertEqual(self.run_cli(sim, "set", "cal_gain=3").returncode, 0)
        back = self.run_cli(sim, "apply", "--undo", undo)
        self.assertIn(f"{'cal_gain':<50} left: it holds another value than the one written\n", back.stdout)
        self.assertEqual((without_hints(back.stderr), back.returncode), ("undo: 1 of 5 parameter(s) are not put back\n", 1))
        self.assertEqual(self.values(sim, *NAMES[1:]), changed[1:])
        self.assertEqual(self.run_cli(sim, "set", "cal_gain=1.5").returncode, 0)
        self.assertEqual(self.run_cli(sim, "apply", "--undo", undo).stdout.count("as before already"), 5)

    def test_bytes_that_look_the_same_are_put_back(self):
        sim = self.start_sim()
        for wanted, other in SAME_TO_SEE:
            with self.subTest(wanted):
                name = wanted.split("=")[0]
                self.assertEqual(self.run_cli(sim, "set", wanted).returncode, 0)
                held, set_file = self.values(sim, name), self.snapshot(sim, name)
                self.assertEqual(self.run_cli(sim, "set", other).returncode, 0)
                self.assertEqual(self.run_cli(sim, "diff", set_file, "ecu", name).returncode, 3)
                done = self.run_cli(sim, "apply", set_file)
                self.assertIn("the physical values are the same, the bytes in the ECU are not", done.stdout)
                self.assertEqual(str(self.values(sim, name)), str(held))

    def test_values_over_another_axis_are_refused(self):
        sim = self.start_sim()
        set_file = self.snapshot(sim, "cal_ignition_map", "cal_speed_axis")
        self.assertEqual(self.run_cli(sim, "set", "cal_speed_axis[1]=900", "cal_ignition_map[0][0]=33").returncode, 0)
        told = "its axis cal_speed_axis differs: [1] 9"
        for words, code, found in ((("apply", set_file, "cal_ignition_map"), 1, told), (("diff", set_file, "ecu", "cal_ignition_map"), 3, told[:-1]),
                                   (("diff", set_file, "ecu", "*axis", "*n_map"), 3, None), (("apply", set_file), 0, None)):
            done = self.run_cli(sim, *words)
            self.assertEqual((done.returncode, told[:-4] in done.stdout + done.stderr), (code, bool(found)), done.stdout + done.stderr)

    def test_what_does_not_fit_is_refused_before_the_first_write(self):
        sim = self.start_sim()
        held = self.values(sim, "cal_gains")
        for name, change, told in REFUSED:
            rows = json.loads(self.snapshot(sim, name).read_text(encoding="utf-8"))
            rows["parameters"][0].update(change)
            rows["parameters"].append({"name": "cal_gains", "shape": "block", "dimensions": [6], "values": [9] * 6})
            rows["parameters"] = list({row["name"]: row for row in reversed(rows["parameters"])}.values()) if name != "cal_gains" \
                else rows["parameters"][:1]
            (self.dir / "bad.json").write_text(json.dumps(rows), encoding="utf-8")
            done = self.run_cli(sim, "apply", self.dir / "bad.json", "--dry-run" if told is None else "--keep-going")
            with self.subTest(name=name, change=change):
                self.assertEqual(done.returncode, 0 if told is None else 1, done.stderr)
                self.assertEqual((self.values(sim, "cal_gains"), list(self.dir.glob("state/xcplumo/undo*"))), (held, []))
                if told is not None:
                    self.assertIn(told, done.stderr)
                    self.assertIn("nothing is written: 1 of ", done.stderr)

    def test_a_write_that_fails_is_taken_back(self):
        for arguments, wanted in (((), ["put back", "as before already"]), (("--keep-going",), None)):
            sim = self.start_sim("--fault", "positive:DOWNLOAD:6")  # after those of `set`
            set_file, names = self.snapshot(sim, *NAMES), NAMES
            self.assertEqual(self.run_cli(sim, "set", *CHANGES).returncode, 0)
            changed = self.values(sim, *names)
            done = self.run_cli(sim, "apply", set_file, *arguments)
            self.assertEqual(done.returncode, 1, done.stderr)
            self.assertIn("read back value differs from the written value", done.stderr)
            now = self.values(sim, *names)
            self.assertEqual(sum(a == b for a, b in zip(now, changed)), 5 if wanted else 1)
            self.assertIn("0 parameter(s) written" if wanted else "4 parameter(s) written", done.stdout)

    def test_an_ecu_that_ends_the_session_is_put_back(self):
        config = self.quick_config(xcp={"timeoutsMs": [100] * 7})
        for fault in ("terminate:DOWNLOAD:8:1", "silence:DOWNLOAD:8:1:450"):  # the third of the apply
            with self.subTest(fault=fault):
                sim = self.start_sim("--fault", fault)
                set_file = self.snapshot(sim, *NAMES)
                self.assertEqual(self.run_cli(sim, "set", *CHANGES).returncode, 0)
                held = self.values(sim, *NAMES)
                done = self.run_cli(sim, "-c", config, "apply", set_file)
                self.assertEqual((done.returncode, self.values(sim, *NAMES)), (1, held), done.stdout + done.stderr)
                self.assertIn("0 parameter(s) written, 0 equal\n", done.stdout)

    def test_long_objects_are_written_in_blocks(self):
        names, blocks = ("cal_ignition_map", "cal_gains", "cal_offsets"), ("--max-cto", 8, "--master-blocks", 4, "--min-st", 40)
        wrong = "ERR_SEQUENCE (0x29) in a block of 4 packets: written packet by packet from now on"
        for options, told, isBlocked in (
                (blocks, "", True), (("--max-cto", 8), "", False), ((*blocks, "--without", "GET_COMM_MODE_INFO"), "", True),
                ((*blocks, "--granularity", 2), "", True), ((*blocks, "--fault", "ignore:DOWNLOAD_NEXT:2"), wrong, True),
                ((*blocks, "--fault", "error:DOWNLOAD_NEXT:3:1:0x20"), "DOWNLOAD: ERR_CMD_UNKNOWN", True),
                ((*blocks, "--fault", "lose:DOWNLOAD_NEXT:3"), "DOWNLOAD_NEXT: no response from slave in a block", True)):
            with self.subTest(options=options):
                sim = self.start_sim(*options)
                config = self.quick_config(xcp={"timeoutsMs": [200] * 6 + [50]})
                set_file, held = self.snapshot(sim, *names), self.values(sim, *names)
                plain = self.run_cli(sim, "set", "cal_ignition_map[*]=3", "cal_gains[*]=4", "cal_offsets[*]=5")
                self.assertEqual(plain.returncode, 0, plain.stderr)
                changed, undo = self.values(sim, *names), self.dir / "undo.json"
                undo.unlink(missing_ok=True)
                done = self.run_cli(sim, "-c", config, "apply", set_file, "--undo-file", undo)
                self.assertEqual((done.returncode, self.values(sim, *names)), (0, held), done.stderr)
                self.assertIn(told, done.stderr)
                self.assertEqual(self.run_cli(sim, "-c", config, "apply", "--undo", undo).returncode, 0)
                self.assertEqual(self.values(sim, *names), changed)
                self.assertEqual(counters(sim).get("command-DOWNLOAD_NEXT", 0) > 0, isBlocked)

    def test_an_ecu_of_another_software(self):
        sim = self.start_sim(*WITH_EPK)
        set_file = self.snapshot(sim, *NAMES)
        self.assertEqual(json.loads(set_file.read_text(encoding="utf-8"))["origin"]["epk"], EPK)
        self.assertEqual(self.run_cli(sim, "set", "cal_gain=2").returncode, 0)
        undo = self.dir / "undo.json"
        self.assertEqual(self.run_cli(sim, "apply", set_file, "--undo-file", undo).returncode, 0)
        foreign = self.dir / "foreign.json"
        foreign.write_text(set_file.read_text(encoding="utf-8").replace(EPK, "PUMP 4.0"), encoding="utf-8")
        self.expect(self.run_cli(sim, "apply", foreign), err=f'apply: the file is for "PUMP 4.0", the ECU runs "{EPK}"\n', code=1)
        foreign.write_text(undo.read_text(encoding="utf-8").replace('"ecuText": "Simulated ECU"', '"ecuText": "Pump 7"'), encoding="utf-8")
        self.expect(self.run_cli(sim, "apply", "--undo", foreign), code=1,
                    err='undo: the file is of an ECU that calls itself "Pump 7", this one is "Simulated ECU"\n')
        for options, told in ((WRONG, 'the ECU runs "PUMP 3.?"'), (UNREADABLE, "the ECU's EPK cannot be read")):
            other = self.start_sim(*options)
            for arguments in ((set_file,), ("--undo", undo)):
                done = self.run_cli(other, "apply", *arguments)
                self.assertIn(told, done.stderr)
                self.assertEqual(done.returncode, 1)
                self.assertNotIn("put back", done.stdout)
                self.assertEqual(self.run_cli(other, "--ignore-identity", "apply", *arguments).returncode, 0)

    def test_dependents_and_silence(self):
        sim = self.start_sim()
        set_file = self.snapshot(sim, "cal_speed_limit")
        self.assertEqual(self.run_cli(sim, "set", "cal_speed_limit=4000").returncode, 0)
        done = self.run_cli(sim, "apply", set_file)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn("no longer fit what they depend on: cal_speed_resume", done.stderr)
        sim.process.send_signal(signal.SIGUSR2)
        self.assertEqual(self.run_cli(sim, "--connect-timeout", 0.3, "apply", set_file).returncode, 4)

    def test_set_from_what_is_held(self):
        sim = self.start_sim()
        for typed, told in RELATIVE:
            done = self.run_cli(sim, "set", typed)
            self.assertTrue(done.stdout.splitlines()[0].endswith(f" {told}"), (typed, done.stdout))
            self.assertEqual(done.returncode, 1 if told.startswith("ERROR") else 0)
        self.assertEqual(self.run_cli(sim, "apply", "--undo", "last").stdout, f"{'cal_ignition_map':<50} put back\n")

    def test_set_is_undone_as_a_whole(self):
        """Each row: what the simulated ECU does, what is typed, exit code, how many objects come back; a lone number keeps no file."""
        words = ("cal_label=NEW", "cal_offsets[*]=1", "cal_gain=3", "cal_gain+=1", "cal_gains[2]=7", "cal_speed_limit=4000")
        names = ("cal_label", "cal_offsets", "cal_gain", "cal_gains", "cal_speed_limit", "cal_speed_resume")
        for options, typed, code, count in (
                ((), words, 0, 8), (("--fault", "error:DOWNLOAD:3:1:0x31"), words, 1, 8), (("--pages", 2), words, 0, 8),
                ((), ("cal_gain=3", "cal_gain=3"), 0, 1), ((), ("cal_gain=3",), 0, None), ((), ("cal_gains[2]=7",), 0, None),
                (("--fault", "error:DOWNLOAD:1:2:0x31"), words[1:3], 1, None)):
            with self.subTest(options=options, typed=typed):
                sim = self.start_sim(*options)
                before = self.values(sim, *names)
                self.assertEqual(self.run_cli(sim, "set", *typed).returncode, code)
                if "--pages" in options:
                    self.assertEqual(self.run_cli(sim, "page", "set", "0", "--xcp").returncode, 0)
                self.assertLessEqual(len(list(self.dir.glob(f"state/xcplumo/undo-*_{sim.port}-*"))), 1)
                sim.reach = [str(word).replace("127.0.0.1", "localhost") for word in sim.reach]
                back = self.run_cli(sim, "apply", "--undo", "last")
                told = "there is no undo file" if count is None else f'it takes back "set {shlex.join(typed)}" of 2'
                self.assertIn(told, back.stderr)
                if count is not None:
                    self.assertIn(f": {count} object(s)", back.stderr)
                    self.assertEqual(back.stdout.count("put back") + back.stdout.count("as before"), count, back.stdout)
                    if "--pages" in options:
                        self.run_cli(sim, "page", "set", "1", "--xcp")
                    self.assertEqual(self.values(sim, *names), before)

    def test_bits_that_the_ecu_changes_itself(self):
        sim = self.start_sim()
        done = self.run_cli(sim, "set", *(f"cal_control_level={number % 4}" for number in range(60)))
        self.assertEqual((done.returncode, done.stdout.count("ERROR")), (0, 0))

    def test_an_ecu_that_is_away_in_an_undo(self):
        """Each row: what happens, exit code of the undo; one that comes back is connected again."""
        config = self.quick_config(xcp={"timeoutsMs": [100] * 7})
        for fault, code in (("terminate:DOWNLOAD:12:1", 0), ("silence:DOWNLOAD:12:1:450", 0), ("silence:DOWNLOAD:12:1:0", 1)):
            sim = self.start_sim("--fault", fault)
            held, undo = self.values(sim, *NAMES), self.dir / "undo.json"
            set_file = self.snapshot(sim, *NAMES)
            undo.unlink(missing_ok=True)
            self.assertEqual(self.run_cli(sim, "set", *CHANGES).returncode, 0)
            changed = self.values(sim, *NAMES)
            self.assertEqual(self.run_cli(sim, "apply", set_file, "--undo-file", undo).returncode, 0)
            self.assertEqual(self.values(sim, *NAMES), held)
            with self.subTest(fault=fault):
                done = self.run_cli(sim, "-c", config, "apply", "--undo", undo)
                self.assertEqual(done.returncode, code, done.stdout + done.stderr)
                if code == 0:
                    self.assertEqual(self.values(sim, *NAMES), changed)
                else:
                    self.assertIn("NOT PUT BACK: ", done.stdout)

    def test_what_a_cut_off_write_leaves(self):
        """New bytes in front, or taken back from the front again: all else is another value, that stays."""
        sim = self.start_sim()
        set_file, address = self.snapshot(sim, "cal_gains"), 0x102D0
        with RawMaster(sim.port) as master:
            old = master.read(address, 24)
        rows = json.loads(set_file.read_text(encoding="utf-8"))
        rows["parameters"][0]["values"] = [3.3, 4.4, 5.7, 6.6, 7.7, 8.8]
        set_file.write_text(json.dumps(rows), encoding="utf-8")
        undo = self.dir / "undo.json"
        self.assertEqual(self.run_cli(sim, "apply", set_file, "--undo-file", undo).returncode, 0)
        with RawMaster(sim.port) as master:
            new = master.read(address, 24)
        for pattern, is_back in (("NNNNOO", True), ("OONNNN", True), ("ONNNOO", True), ("NNNNNN", True), ("NNONNN", False), ("NOOOON", False)):
            with self.subTest(pattern=pattern), RawMaster(sim.port) as master:
                mixed = b"".join((new if side == "N" else old)[4 * i:4 * i + 4] for i, side in enumerate(pattern))
                master.write(address, mixed)
                done = self.run_cli(sim, "apply", "--undo", undo)
                self.assertEqual((done.returncode, "put back" in done.stdout), (0, True) if is_back else (1, False), done.stdout)
                with RawMaster(sim.port) as again:
                    self.assertEqual(again.read(address, 24), old if is_back else mixed)

    def test_two_ecus_that_look_alike(self):
        """Neither takes nor deletes the undo files of the other, whatever their names are."""
        for names in (("inverter", "inverter-2"), ("a.b", "a_b"), ("same", "same")):
            sims = [self.start_sim(), self.start_sim()]
            for sim, name, gain in zip(sims[::-1], names[::-1], (5, 3)):  # the one of 5 is the older
                (self.dir / f"{sim.port}.json").write_text(json.dumps({"name": name}), encoding="utf-8")
                sim.reach = ["-c", self.dir / f"{sim.port}.json", *sim.reach]
                set_file = self.snapshot(sim, "cal_gain")
                self.assertEqual(self.run_cli(sim, "set", f"cal_gain={gain}").returncode, 0)
                self.assertEqual(self.run_cli(sim, "apply", set_file).returncode, 0)
            other = next(self.dir.glob(f"state/xcplumo/undo-*_{sims[0].port}-*"))
            stem = re.split("-20[0-9][0-9]-", other.name)[0]
            old = [other.parent / f"{stem}-2020-01-01T000000000Z-1-{number:04}{end}"
                   for end in (".json", "-set.json") for number in range(100)]
            young = [other.parent / f"{other.name[:-11]}9{number:04}-set.json" for number in range(100)]
            for path in (*old, *young):
                path.write_bytes(other.read_bytes())
            self.assertEqual(self.run_cli(sims[0], "set", "cal_offsets[*]=1").returncode, 0)
            with self.subTest(names=names):  # more than a hundred of `set`; neither the young nor those of `apply`
                self.assertEqual([path.exists() for path in (*old, *young)], [True] * 100 + [False] * 100 + [True] * 100)
                foreign = self.run_cli(sims[1], "apply", "--undo", other)
                self.assertIn(f"the file is of an ECU at udp:127.0.0.1:{sims[0].port}, ", foreign.stderr)
                self.assertEqual((foreign.returncode, self.run_cli(sims[1], "apply", "--undo", "last").returncode), (1, 0))
                self.assertEqual(self.values(sims[1], "cal_gain")[0]["value"]["physical"], 5)
                self.assertEqual(self.run_cli(sims[1], "--ignore-identity", "apply", "--undo", other).returncode, 1)  # it holds 5

    def test_parameters_that_share_bits(self):
        """A word and its fields are restored together; what the ECU changes beside them is no fault."""
        sim = self.start_sim()
        config = self.quick_config(xcp={"modifyBits": True})
        names = ("cal_mode*", "cal_flag*", "cal_control_fan", "cal_control_level", "cal_control_pump")
        before = self.snapshot(sim, *names)
        self.assertEqual(self.run_cli(sim, "set", "cal_mode_low=5", "cal_flag_count=7", "cal_control_level=1").returncode, 0)
        after = self.snapshot(sim, *names, name="after.json")
        for _ in range(10):
            for arguments in ((before,), ("--undo", "last"), (before, "--keep-going"), (after,)):
                done = self.run_cli(sim, "-c", config, "apply", *arguments)
                self.assertEqual((done.returncode, "left" in done.stdout), (0, False), done.stdout + done.stderr)
            self.assertEqual(self.run_cli(sim, "diff", after, "ecu", *names).returncode, 0)

    def test_the_last_that_was_not_used(self):
        """What is put back, or had not to be, is not put back again; each row: what is typed, and what `last` then does."""
        sim = self.start_sim("--max-cto", 8, "--fault", "error:DOWNLOAD:5:1:0x31")
        gain, speed = self.snapshot(sim, "cal_gain"), self.snapshot(sim, "cal_ignition_map", name="map.json")
        held = self.values(sim, "cal_ignition_map")
        rows = json.loads(speed.read_text(encoding="utf-8"))
        rows["parameters"][0]["values"] = [3] * 64
        speed.write_text(json.dumps(rows), encoding="utf-8")
        none = "there is no undo file of "
        for typed, told in (
                (["apply", gain], none), (["set", "cal_gain=3"], none), (["apply", speed, "--keep-going"], none),
                (["apply", gain, "--undo-file", self.dir / "undo.json"], f'it takes back "apply {gain}" of 20'),
                (["apply", "--undo", self.dir / "undo.json"], none)):
            with self.subTest(typed=typed):
                done = self.run_cli(sim, *typed)
                self.assertEqual(done.returncode, 1 if "--keep-going" in typed else 0, done.stderr)
                self.assertEqual(self.values(sim, "cal_ignition_map"), held)  # no half of it
                last = self.run_cli(sim, "apply", "--undo", "last", "--json")
                self.assertIn(told, last.stderr)
                self.assertEqual("undoFile" in last.stdout, told != none)
                if told != none:
                    self.assertEqual(self.run_cli(sim, "set", "cal_gain=1").returncode, 0)
        self.assertEqual(self.log()[-1]["object"], "cal_gain")  # and nothing of the map that was put back

    def test_what_is_neither_old_nor_new(self):
        sim = self.start_sim()
        self.assertEqual(self.run_cli(sim, "set", "cal_wave_period=256").returncode, 0)
        set_file = self.snapshot(sim, "cal_wave_period")
        self.assertEqual(self.run_cli(sim, "set", "cal_wave_period=2").returncode, 0)
        self.assertEqual(self.run_cli(sim, "apply", set_file).returncode, 0)
        self.assertEqual(self.run_cli(sim, "set", "cal_wave_period=258").returncode, 0)  # a byte of each
        self.assertIn(" left: ", self.run_cli(sim, "apply", "--undo", "last").stdout)
        changes = next(self.dir.glob("state/xcplumo/changes-*"))
        changes.write_text(changes.read_text(encoding="utf-8") + '{"half', encoding="utf-8")  # as a full disk leaves it
        self.assertEqual(self.run_cli(sim, "set", "cal_gain=2").returncode, 0)
        self.assertEqual(json.loads(changes.read_text(encoding="utf-8").splitlines()[-1])["object"], "cal_gain")
    def pages(self, sim):
        told = json.loads(self.run_cli(sim, "page", "--json").stdout)
        return [(segment["ecuPage"], segment["xcpPage"]) for segment in told["segments"]]

    def changed_set(self, sim):
        """A file that changes two parameters of the first segment; nothing is written for it."""
        path = self.snapshot(sim, "cal_gain", "cal_idle_speed")
        rows = json.loads(path.read_text(encoding="utf-8"))
        for row in rows["parameters"]:
            row["value"] = {"cal_gain": 7.5, "cal_idle_speed": 1234}[row["name"]]
        path.write_text(json.dumps(rows), encoding="utf-8")
        return path

    def test_pages(self):
        """What is typed, what the simulated ECU is and was told before; then exit code, what is told, pages, cal_gain."""
        two, three, gain = ("--pages", 2), ("--pages", 3), ["set", "cal_gain=3"]
        on_0, yes, to_2 = ["page", "set", "0", "--yes"], ["--yes"], ["--page", "2", "--yes"]
        apart = [["page", "set", "2", "--xcp"]]
        question = "nothing was changed: The set is written on page 1 of segment 0 (parameters_0), and the ECU goes there: 2 parameter(s) change"
        other = "; what it holds there otherwise (1 parameter(s)) is overwritten with the page of the ECU. Go on?"
        for options, before, words, code, told, pages, held in (
                (two, [on_0], [], 1, question + ". Go on?", (0, 0), 1), (two, [gain, on_0], [], 1, question + other, (0, 0), 1),
                (two, [gain, on_0], yes, 0, "written on page 1 of segment 0 (parameters_0), which the ECU uses now", (1, 1), 7.5),
                (two, [gain], [], 0, "", (1, 1), 7.5), (two, [["page", "set", "0", "--ecu", "--yes"]], [], 0, "", (0, 1), 7.5),
                (two, [], ["--page", "0"], 1, "page 0 of segment 0 (parameters_0) cannot be written", (1, 1), 1),
                (two, [gain], ["--page", "1"], 0, "", (1, 1), 7.5), (two, [], ["--page", "2"], 1, "there is no page 2", (1, 1), 1),
                (two, [], ["--page", "256"], 1, "page 256: 0 to 255 are possible", (1, 1), 1),
                ((), [], ["--page", "1"], 1, "neither the ECU nor the A2L knows calibration pages", None, 1),
                (three, [gain], [], 0, "", (1, 1), 7.5), (three, [gain], to_2, 0, "written on page 2 of segment 0", (2, 2), 7.5),
                (three, [gain, ["page", "copy", "1", "2"], *apart], to_2, 0, "written on page 2 of segment 0", (2, 2), 7.5),
                (three, apart, ["--page", "1"], 0, "", (1, 2), 1),
                ((*three, "--without", "COPY_CAL_PAGE"), [], to_2, 0, "written on page 2", (2, 2), 7.5),
                ((*three, "--without", "COPY_CAL_PAGE"), [gain], to_2, 1, "the ECU copies no pages (COPY_CAL_PAGE)", (1, 1), 3),
                ((*three, "--page-faults", "switched"), [], to_2, 1, "ERR_WRITE_PROTECTED", (1, 1), 1),
                ((*three, "--page-faults", "stuck"), [], to_2, 1, "XCP is on page 1 of segment 0 all the same", (1, 1), 1),
                ((*three, "--fault", "positive:DOWNLOAD:2"), [], to_2, 1, "read back value differs", (1, 1), 1),
                # SET_CAL_PAGE by which the ECU is switched, after those for XCP that compare the pages and go to page 2.
                ((*three, "--fault", "error:SET_CAL_PAGE:4:1:0x26"), [], to_2, 1, "ERR_PAGE_NOT_VALID", (1, 1), 1)):
            with self.subTest(options=options, before=before, words=words):
                sim = self.start_sim(*options)
                set_file = self.changed_set(sim)
                for typed in before:
                    self.assertEqual(self.run_cli(sim, *typed).returncode, 0)
                was = self.pages(sim) if pages else None
                seen = self.values(sim, "cal_gain")
                done = self.run_cli(sim, "apply", set_file, *words)
                self.assertEqual(done.returncode, code, done.stdout + done.stderr)
                self.assertIn(told, done.stderr)
                if pages:
                    self.assertEqual(self.pages(sim), [pages, was[1]], done.stderr)  # the other segment stays
                self.assertEqual(self.values(sim, "cal_gain")[0]["value"]["physical"], held)
                if code == 0:  # back on the page, and to the values, from before
                    done = self.run_cli(sim, "apply", "--undo", "last")
                    self.assertEqual((done.returncode, self.pages(sim), self.values(sim, "cal_gain")), (0, was, seen), done.stderr)

    def test_struck_at_each_step_between_pages(self):
        """After kill -9 at each step an undo leaves the ECU what it saw before; Ctrl-C leaves all of the set or nothing of it."""
        for number in (signal.SIGKILL, signal.SIGINT):
            for step in range(1, 100, EVERY):
                image = self.dir / "memory"
                relay = self.start_relay("--pages", 3, "--memory-file", image)
                sim = relay.sim
                self.assertEqual(self.run_cli(sim, "set", "cal_gain=3").returncode, 0)
                set_file = self.changed_set(sim)

                def held():
                    sim.signal(signal.SIGHUP)
                    return self.values(sim, "cal_gain", "cal_idle_speed"), self.pages(sim)
                before, programs = held(), []

                def strike(datagram, step=step, programs=programs, relay=relay):
                    if sum(command[0] in (0xF0, 0xEB, 0xE4) for command in relay.commands) == step and programs:
                        programs.pop().signal(number)
                    return datagram
                relay.change = strike
                programs.append(self.start_cli(relay, "apply", set_file, "--page", 2, "--yes"))
                program = programs[0]
                code = program.finish()
                if number == signal.SIGKILL and list(self.dir.glob("state/xcplumo/undo-*")):
                    relay.change = lambda datagram: datagram
                    done = self.run_cli(relay, "apply", "--undo", "last")
                    self.assertEqual(done.returncode, 0, (step, done.stdout, done.stderr))
                after = held()
                sim.kill()
                if programs:  # it came to its end
                    break
                with self.subTest(number=number, step=step):
                    whole = number == signal.SIGINT and code == 0
                    self.assertEqual(after[1][0], (2, 2) if whole else (1, 1), program.err)
                    self.assertEqual(after[0] == before[0], not whole, program.err)
                    for path in self.dir.glob("state/xcplumo/undo-*"):
                        path.unlink()
            self.assertGreater(step, 8)

    def test_without_a_state_folder(self):
        sim = self.start_sim()
        self.env |= {"HOME": "", "XDG_STATE_HOME": ""}
        done = self.run_cli(sim, "set", "cal_gain=1.5", "cal_offsets[*]=1", "cal_gains[*]=1")
        self.assertEqual((done.returncode, done.stderr.count("is not kept for an undo"), done.stderr.count("file of changes is not written")),
                         (0, 1, 1), done.stderr)
        set_file = self.snapshot(sim, *NAMES)
        self.assertEqual(self.run_cli(sim, "set", "cal_gain=2").returncode, 0)
        done = self.run_cli(sim, "apply", set_file)
        self.assertEqual((done.returncode, "--undo-file" in done.stderr), (1, True), done.stderr)

    def test_an_image(self):
        demo = Path(__file__).resolve().parents[2] / "examples"
        tool = ("--a2l", demo / "demo.a2l")
        name, new = "cal_gain", self.dir / "new.hex"
        rows = {"format": "xcplumo parameter set", "schema": 1, "parameters": [{"name": name, "shape": "scalar", "value": 7.5}]}
        (self.dir / "set.json").write_text(json.dumps(rows), encoding="utf-8")
        done = self.run_plain(*tool, "apply", "--hex", demo / "demo.hex", "-o", new, self.dir / "set.json")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.expect(self.run_plain(*tool, "get", "--hex", new, name), f"{name:<50} 7.500\n")


if __name__ == "__main__":
    unittest.main()
