"""`set` where it must refuse, or fails: what is told, and what the ECU's memory holds. Values: the campaign set_safety."""
import unittest

from ecu_model import Memory
from harness import SystemTest, value_line

BASE, ROOM = 0x10000, 0xC0

# What a calculation cannot know of, one of each kind of text: what is typed, the error behind the name.
REFUSED = (
    ("cal_limited=-100.001", "cal_limited: -100.001 outside the limits [-100, 100]"),
    ("cal_limited=1,5", "cal_limited: '1,5' is not a number"),
    ("cal_limited==5", "cal_limited: '=5' is not a number"),
    ("cal_injector=On", "cal_injector: 'On' is not a valid value"),
    ("cal_read_only=1", "cal_read_only is not writable"),
    ("cal_protected=1", "DOWNLOAD: ERR_WRITE_PROTECTED (0x23)"),
    ("cal_stubborn=1", "cal_stubborn: read back value differs from the written value"),
    ("odometer=1", "odometer is a measurement without READ_WRITE"),
    ("nothing=1", "'nothing' is neither a MEASUREMENT nor a CHARACTERISTIC"),
)
REFUSED_WITH_M = (
    ("cylinder_pressure=1", "cylinder_pressure: arrays are not supported yet"),
    ("bad_address=1", "SHORT_UPLOAD: ERR_OUT_OF_RANGE (0x22)"),
    ("program_id=1", "DOWNLOAD: ERR_WRITE_PROTECTED (0x23)"),
)
# Of those, the ones that were sent to the ECU, and what it holds afterwards.
SENT = {"cal_protected": "815.000", "cal_stubborn": "4711.000", "program_id": "541463041"}


class ValuesTest(SystemTest):
    def test_refused_assignments_change_nothing(self):
        image = self.dir / "memory"
        sim = self.start_sim("--memory-file", image)
        # The first write makes the image.
        self.expect(self.run_cli(sim, "set", "cal_limited=-2.5"), value_line("cal_limited", "-3.000"))
        before = Memory(image).bytes(BASE, ROOM)
        self.assertEqual(before[0x8C:0x8E], b"\xfd\xff")
        for rows, options in ((REFUSED, []), (REFUSED_WITH_M, ["-m"])):
            done = self.run_cli(sim, "set", *options, *(text for text, _ in rows))
            lines = [value_line(text.partition("=")[0], f"ERROR {error}") for text, error in rows]
            told = [f"{name}: the ECU now holds {held}\n" for name, held in SENT.items() if f"{name} " in done.stdout]
            self.expect(done, "".join(lines), "".join(told), code=1)
        self.assertEqual(Memory(image).bytes(BASE, ROOM).hex(), before.hex())

    def test_a_write_that_fails_half_way_tells_what_the_ecu_holds(self):
        """The value takes two DOWNLOADs; the second one meets the fault."""
        unknown = "what it now holds is not known"
        rows = (("error:DOWNLOAD:2:0:36", "DOWNLOAD: ERR_ACCESS_DENIED (0x24)", "the ECU now holds 3.3158e+12"),
                ("silence:DOWNLOAD:2", "DOWNLOAD: SYNCH: no response from slave", f"the ECU does not answer, {unknown}"))
        for fault, error, held in rows:
            with self.subTest(fault):
                sim = self.start_sim("--max-cto", 8, "--fault", fault)
                done = self.run_cli(sim, "-c", self.quick_config(), "set", "cal_uint64_lsb=0x0102030405000000")
                self.assertEqual(done.stdout, value_line("cal_uint64_lsb", f"ERROR {error}"))
                self.assertEqual((done.stderr.splitlines()[-1], done.returncode), (f"cal_uint64_lsb: {held}", 1))


if __name__ == "__main__":
    unittest.main()
