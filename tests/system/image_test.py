"""`get` and `set` on a memory image: what they find and leave is what the simulated ECU holds."""
import json
import unittest
from pathlib import Path

from ecu_model import Memory
from harness import SystemTest, value_line

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"
# Behind them lies the word that the ECU changes on its own.
BASE, ROOM = 0x10000, 0x410
TYPES = [f"cal_{kind}_{order}" for kind in ("ubyte", "sbyte", "uword", "sword", "ulong", "slong", "uint64", "int64", "float16",
                                            "float32", "float64") for order in ("lsb", "msb")]
# Of each kind of object one that is written whole, by part, as text; some share bytes, on some others depend, one is refused.
ASSIGNMENTS = (*(f"{name}={5 + i}" for i, name in enumerate(TYPES)), "cal_gain=2.5", "cal_injector=test mode", "cal_lambda=0.85",
               "cal_mode_low=5", "cal_mode_middle=3", "cal_mode_signed=-1", "cal_flag_on=1", "cal_temp_limit=50", "cal_voltage=12",
               "cal_ignition_map[2][3]=20.5", "cal_ignition_map[1]=[8,7,6,5,4,3,2,1]", "cal_torque_curve.x[1]=12",
               "cal_speed_axis[7]=7000", "cal_gains[*]=0.5", "cal_offsets=[[1,2,3],[4,5,6],[7,8,9],[0xA,0xB,0xC]]",
               "cal_features[2]=on", "cal_knock_cube[0][1][1]=1", "cal_accel_curve[2]=30", "cal_boost_curve[0]=321",
               "cal_time_axis[2]=5", "cal_rescale_axis[2]=50", "cal_vin=WDB 1", "cal_driver_name=J\u00f6rg",
               "cal_limits[1].boost.curve[3]=42", "cal_spare_limit.hysteresis=7", "cal_speed_limit=6500", "cal_limited=7")
# Of the parameters, those that lie elsewhere.
AWAY = ["cal_protected", "cal_read_only", *(f"cal_control_{part}" for part in ("word", "pump", "fan", "level"))]
REFUSED = ("cal_gain=99", "cal_read_only=1", "engine_speed=1", "nothing=1", "cal_gains=[1]")

# What is typed around --hex, and what is told of it.
LINES = (
    (["get", "cal_gain", "--hex", "none.hex"], "image: cannot open none.hex: No such file or directory"),
    (["get", "cal_gain", "--hex", "ecu.a2l"], "image: ecu.a2l: neither Intel HEX nor S-records"),
    (["get", "cal_gain", "--hex", "cut.hex"], "image: cut.hex: line 66: the end record is missing behind it"),
    (["get", "cal_gain", "--hex", "odd.hex"], "image: odd.hex: line 2: the sum is 0x80, that of its bytes 0xB9"),
    (["get", "cal_gain", "--hex", "/dev/zero"], "image: /dev/zero is larger than 256 MiB"),
    (["get", "cal_gain", "--hex", "cal.hex", "--udp", "localhost"], "image: --udp is for an ECU, and --hex asks none"),
    (["set", "cal_gain=1", "--hex", "cal.hex"], "set: --hex leaves its file as it is: --output FILE names the new one"),
    (["set", "cal_gain=1", "-o", "new.hex"], "set: --output is the new image of --hex IMAGE, which was not given"),
    (["set", "cal_gain=1", "--hex", "cal.hex", "-o", "cal.hex"], "set: cal.hex already exists"),
    (["set", "cal_gain=1", "--hex", "cal.hex", "-o", "new.bin"], "set: new.bin does not end in .hex, .s19 or the like"),
    (["set", "cal_gain=1", "--hex", "cal.hex", "-o", "no/new.hex"], "set: cannot create no/new.hex: No such file or directory"),
)
NO_BYTES = "the image holds no bytes"


def hex_record(kind, address, data):
    record = bytes([len(data), address >> 8 & 255, address & 255, kind]) + data
    return f":{(record + bytes([-sum(record) & 255])).hex().upper()}\r\n"


def intel_hex(base, data):
    """By this file alone: the tool's own forms are held against it."""
    rows = "".join(hex_record(0, base + at & 0xFFFF, data[at:at + 16]) for at in range(0, len(data), 16))
    return hex_record(4, 0, (base >> 16).to_bytes(2, "big")) + rows + hex_record(1, 0, b"")


class ImageTest(SystemTest):
    def start_with_image(self, *options):
        """The ECU, the path of what it holds, and cal.hex with its parameters."""
        memory = self.dir / "memory"
        sim = self.start_sim("--memory-file", memory, *options)
        self.assertEqual(self.run_cli(sim, "set", "cal_gain=1").returncode, 0)
        (self.dir / "cal.hex").write_bytes(intel_hex(BASE, self.parameters(memory)).encode())
        (self.dir / "ecu.a2l").write_bytes(sim.a2l.read_bytes())
        return sim, memory

    @staticmethod
    def parameters(memory):
        return Memory(memory).bytes(BASE, ROOM)

    def run_image(self, *arguments):
        return self.run_plain("--a2l", "ecu.a2l", *arguments, cwd=self.dir)

    def test_set_leaves_what_the_ecu_holds_after_the_same(self):
        """Through S-records and back; the test's own record of the ECU's memory tells each byte."""
        for order in ("intel", "motorola"):
            with self.subTest(order):
                sim, memory = self.start_with_image("--byte-order", order)
                wanted = self.run_cli(sim, "set", *ASSIGNMENTS)
                new, turned = f"{order}.s19", f"{order}.hex"
                done = self.run_image("set", "--hex", "cal.hex", "-o", new, *ASSIGNMENTS)
                self.expect(done, f"{wanted.stdout}{new} written\n", wanted.stderr, wanted.returncode)
                self.expect(self.run_image("set", "--hex", new, "-o", turned, "cal_gain=2.5"),
                            value_line("cal_gain", "2.500") + f"{turned} written\n")
                self.assertEqual((self.dir / turned).read_bytes().decode(), intel_hex(BASE, self.parameters(memory)))
                ours, theirs = (json.loads(done.stdout)["values"] for done in (
                    self.run_image("get", "--hex", new, "cal_*", "--json"), self.run_cli(sim, "get", "cal_*", "--json")))
                away = [value["name"] for value in theirs if value not in ours]
                self.assertEqual((ours, away), ([v for v in theirs if v["name"] not in away], AWAY))

    def test_an_image_beside_the_ecu_and_files(self):
        sim, memory = self.start_with_image()
        self.assertEqual(self.run_image("set", "--hex", "cal.hex", "-o", "new.s19", "cal_gain=2").returncode, 0)
        self.assertEqual(self.run_image("snapshot", "held.json", "cal_*", "--hex", "cal.hex").returncode, 0)
        self.assertEqual(self.run_cli(sim, "snapshot", self.dir / "ecu.json", "cal_*").returncode, 0)
        gain, held = value_line("cal_gain", "1 -> 2  (+1)"), "cal_control_word"  # the ECU itself changes bits of this one
        names = [name for name in self.names("held.json") if name != held]
        self.assertGreater(len(names), 80)
        for a, b, told in (("held.json", "ecu.json", ""), ("held.json", "cal.hex", ""), ("cal.hex", "ecu.json", ""),
                           ("cal.hex", "new.s19", gain), ("ecu.json", "new.s19", gain)):
            with self.subTest(a=a, b=b):
                done = self.run_image("diff", a, b, *names)
                self.assertEqual((done.returncode, "".join(done.stdout.splitlines(True)[2:-1])), (3 if told else 0, told), done.stderr)
        live = self.run_cli(sim, "diff", self.dir / "new.s19", "ecu", "cal_gain")
        self.assertEqual((live.returncode, live.stdout.splitlines()[2]), (3, value_line("cal_gain", "2 -> 1  (-1)")[:-1]))
        stands = self.run_image("diff", "held.json", "ecu", "--hex", "new.s19", "cal_gain")
        self.assertEqual((stands.returncode, stands.stdout.splitlines()[2]), (3, gain[:-1]))
        # The segments whole, and back into the ECU.
        before = self.parameters(memory)
        self.assertEqual(self.run_cli(sim, "snapshot", self.dir / "all.s19").returncode, 0)
        self.assertEqual(self.run_cli(sim, "set", "cal_gain=3", "cal_label=X", "cal_ignition_map[2][3]=9").returncode, 0)
        back = self.run_cli(sim, "apply", self.dir / "all.s19", "cal_gain", "cal_label", "cal_ig*")
        self.assertEqual((back.returncode, self.parameters(memory)), (0, before), back.stderr)
        again = self.run_cli(sim, "snapshot", self.dir / "all.s19")
        self.assertEqual((again.returncode, again.stderr.splitlines()[-1]), (1, f"snapshot: {self.dir / 'all.s19'} already exists (--force overwrites it)"))
        # What lies elsewhere is told, and no difference.
        whole = self.run_image("diff", "held.json", "cal.hex", "--complete")
        self.assertIn(" parameter(s) lie where the image has no bytes and are left out: ", whole.stderr)
        self.assertEqual(whole.returncode, 0, whole.stdout)
        self.assertEqual(self.run_image("snapshot", "no.json", "cal_gain", "program_id", "--hex", "cal.hex").returncode, 1)
        for words, told in ((("diff", "held.json", "ecu.json", "--hex", "cal.hex"), "diff: --hex stands for the ecu, which is neither of the two"),
                            (("diff", "held.json", "none.hex"), "image: cannot open none.hex: No such file or directory"),
                            (("snapshot", "x.json", "--hex", "cal.hex", "--udp", "127.0.0.1:1"), "image: --udp is for an ECU, and --hex asks none")):
            done = self.run_image(*words)
            self.assertEqual((done.stderr.splitlines()[0], done.returncode), (told, 1))

    def names(self, file):
        return [one["name"] for one in json.loads((self.dir / file).read_text(encoding="utf-8"))["parameters"]]

    def test_an_image_of_another_software(self):
        """As with an ECU: reading warns, writing refuses, and who wants to know gets 3."""
        sim, memory = self.start_with_image("--epk", "PUMP 3.1")
        cal, epk = self.parameters(memory), Memory(memory).bytes(0x90000, 8)
        for name, held in (("same.hex", epk), ("other.hex", b"PUMP 2.9"), ("cal.hex", b"")):
            lines = intel_hex(BASE, cal)
            end = lines.index(":00000001")
            (self.dir / name).write_text(lines[:end] + (hex_record(4, 0, b"\0\x09") + hex_record(0, 0, held) if held else "") + lines[end:], encoding="ascii")
        rows = {"format": "xcplumo parameter set", "schema": 1, "parameters": [{"name": "cal_gain", "shape": "scalar", "value": 3}]}
        for name, origin in (("none.json", {}), ("foreign.json", {"epk": "PUMP 9"}), ("older.json", {"a2lSha256": "0"})):
            (self.dir / name).write_text(json.dumps(rows | {"origin": origin}), encoding="utf-8")
        fail, other = ("--fail-on", "identity"), 'the image is of "PUMP 2.9", the A2L is for "PUMP 3.1"'
        unknown = "the image's EPK cannot be read"
        for name, words, code, told in (
                ("same.hex", ("get", "cal_gain", *fail), 0, None), ("other.hex", ("get", "cal_gain"), 0, f"{other}: values may be wrong"),
                ("other.hex", ("get", "cal_gain", *fail), 3, other), ("cal.hex", ("get", "cal_gain", *fail), 0, None),
                ("other.hex", ("set", "cal_gain=2", "-o", "a.hex"), 1, f"image: {other}"),
                ("other.hex", ("set", "cal_gain=2", "-o", "b.hex", "--ignore-identity", *fail), 3, other),
                ("cal.hex", ("set", "cal_gain=2", "-o", "c.hex", *fail), 3, unknown),
                ("same.hex", ("set", "cal_gain=2", "-o", "d.hex", *fail), 0, None), ("other.hex", ("snapshot", "o.json", "cal_gain"), 0, other),
                ("other.hex", ("apply", "none.json", "-o", "e.hex"), 1, f"image: {other}"), ("same.hex", ("apply", "none.json", "-o", "e.hex"), 0, None),
                ("same.hex", ("apply", "foreign.json", "-o", "f.hex"), 1, 'apply: the file is for "PUMP 9", the image is of "PUMP 3.1"'),
                ("same.hex", ("apply", "foreign.json", "-o", "f.hex", "--ignore-identity"), 0, None),
                ("cal.hex", ("apply", "older.json", "-o", "g.hex"), 1, "apply: the file is for another A2L, and no EPK tells")):
            with self.subTest(name=name, words=words):
                done = self.run_image(*words, "--hex", name)
                self.assertEqual(done.returncode, code, done.stderr)
                self.assertIn(told or "", done.stderr)
                self.assertEqual("EPK" in done.stderr or "PUMP" in done.stderr, told is not None)
        self.assertEqual(self.run_cli(sim, "get", "cal_gain").returncode, 0)

    def test_segments_beside_an_image(self):
        for checksum, options in (("crc-32", ()), ("add-11", ("--checksum-block", 64)), ("user", ())):
            sim, memory = self.start_with_image("--pages", 1, "--checksum", checksum, *options)
            size = json.loads(self.run_cli(sim, "page", "--json").stdout)
            whole = Memory(memory).bytes(BASE, sum(segment["size"] for segment in size["segments"]))
            (self.dir / "whole.hex").write_text(intel_hex(BASE, whole), encoding="ascii")
            (self.dir / "changed.hex").write_text(intel_hex(BASE, bytes((whole[0] ^ 1,)) + whole[1:]), encoding="ascii")
            (self.dir / "cut.hex").write_text(intel_hex(BASE, whole[:-1]), encoding="ascii")
            codes = [self.run_cli(sim, "check", "--hex", self.dir / f"{name}.hex") for name in ("whole", "changed", "cut")]
            self.assertEqual([done.returncode for done in codes], [1, 1, 1] if checksum == "user" else [0, 3, 1], codes[0].stdout)
            if checksum == "crc-32":
                self.assertIn("DIFFERENT: CRC_32 0x", codes[1].stdout)
                self.assertIn("the image has no bytes at 0x", codes[2].stdout)
        plain = self.run_cli(self.start_sim(), "check", "--hex", self.dir / "whole.hex")
        self.assertEqual(plain.returncode, 1)
        self.assertIn("not known: the ECU tells no checksums of segments", plain.stdout)

    def test_what_is_refused_leaves_no_file(self):
        sim, _ = self.start_with_image()
        before = {path.name: path.stat().st_size for path in self.dir.iterdir()}
        wanted = self.run_cli(sim, "set", *REFUSED)
        done = self.run_image("set", "--hex", "cal.hex", "-o", "new.hex", *REFUSED, "cal_gain=2")
        told = [line for line in done.stdout.splitlines() if "engine_speed" not in line]
        self.assertEqual(told, [*(line for line in wanted.stdout.splitlines() if "engine_speed" not in line), value_line("cal_gain", "2.000")[:-1]])
        self.assertIn("set: new.hex is not written: 5 of 6 assignment(s) failed\n", done.stderr)
        self.assertEqual({path.name: path.stat().st_size for path in self.dir.iterdir()}, before)

    def test_what_an_image_does_not_hold_is_told(self):
        _, memory = self.start_with_image()
        self.assertEqual((EXAMPLES / "demo.hex").read_text(encoding="ascii"), intel_hex(BASE, self.parameters(memory)).replace("\r", ""))
        rows = (("engine_speed", f"{NO_BYTES} at 0x00012080"), ("program_id", f"{NO_BYTES} of address extension 1"),
                ("cylinder_torque", f"{NO_BYTES} at 0x000120E8"))
        done = self.run_image("get", "--hex", "cal.hex", *(name for name, _ in rows), "c*_gain", "engine_*")
        self.assertEqual(done.stdout, value_line("engine_*", "ERROR 'engine_*' matches 1 object(s), none of which the image holds") +
                         "".join(value_line(name, f"ERROR {name}: {error}") for name, error in rows) + value_line("cal_gain", "1.000"))
        self.assertIn("hint: the image holds 0x00010000 to 0x0001040F\n", done.stderr)

    def test_bad_lines_and_files_are_one_error(self):
        self.start_with_image()
        image = (self.dir / "cal.hex").read_text(encoding="ascii")
        (self.dir / "cut.hex").write_text(image[:image.index(":00000001")], encoding="ascii")
        (self.dir / "odd.hex").write_text(image.replace("B9\n", "80\n", 1), encoding="ascii")
        for words, told in LINES:
            with self.subTest(told):
                done = self.run_image(*words)
                self.assertEqual((done.stderr.splitlines()[0], done.returncode), (told, 1))
        text = self.a2l_without_order()
        done = self.run_plain("--a2l", text, "get", "--hex", "cal.hex", "cal_gain", cwd=self.dir)
        self.assertIn("the A2L tells no byte order: Intel (little-endian) is assumed", done.stderr)

    def a2l_without_order(self):
        text = (self.dir / "ecu.a2l").read_text(encoding="utf-8")
        plain = text.replace("BYTE_ORDER MSB_LAST", "").replace("BYTE_ORDER_MSB_LAST", "")
        self.assertNotEqual(plain, text)
        (self.dir / "plain.a2l").write_text(plain, encoding="utf-8")
        return "plain.a2l"


if __name__ == "__main__":
    unittest.main()
