"""Objects that make no sense, and files that would grow without end: each is one error, and harms no other object."""
import json
import re
import resource
import unittest

from a2l_text import module
from harness import SystemTest
from raw_master import RawMaster

BASE = 0x200000
LAYOUTS = "".join(f"/begin RECORD_LAYOUT {name} {rows} /end RECORD_LAYOUT\n" for name, rows in {
    "W": "FNC_VALUES 1 UBYTE ROW_DIR DIRECT", "WIDE": "FNC_VALUES 1 ULONG ROW_DIR DIRECT", "EMPTY": "RESERVED 1 LONG",
    "STD": "NO_AXIS_PTS_X 1 UBYTE AXIS_PTS_X 2 UBYTE INDEX_INCR DIRECT FNC_VALUES 3 UBYTE ROW_DIR DIRECT",
    "LATE": "AXIS_PTS_X 1 UBYTE INDEX_INCR DIRECT NO_AXIS_PTS_X 2 UBYTE FNC_VALUES 3 UBYTE ROW_DIR DIRECT",
    "POINTED": "FNC_VALUES 1 UBYTE ROW_DIR PLONG", "CURVES": "FNC_VALUES 1 UBYTE ALTERNATE_CURVES DIRECT",
    "BENT": "NO_AXIS_PTS_X 1 UBYTE AXIS_PTS_X 2 UBYTE INDEX_INCR DIRECT",
    "PAIRS": "NO_RESCALE_X 1 UBYTE AXIS_RESCALE_X 2 UBYTE 5 INDEX_INCR DIRECT"}.items())
STD = "/begin AXIS_DESCR STD_AXIS NO_INPUT_QUANTITY NO_COMPU_METHOD 4 0 255 /end AXIS_DESCR "
FIX = STD.replace("STD", "FIX").replace("/end", "{} /end")
BLOCK = '/begin CHARACTERISTIC {0} "" {1} 0 NO_COMPU_METHOD 0 1e9 {2} /end CHARACTERISTIC\n'


def axis(kind, options):
    return f"/begin AXIS_DESCR {kind} NO_INPUT_QUANTITY NO_COMPU_METHOD 4 0 255 {options} /end AXIS_DESCR "


# Name, kind with address and layout, options; what the error must speak of. Memory begins with MEMORY.
MEMORY = bytes((9, 1, 2, 3)) + bytes((0, 1, 2, 3)) + bytes.fromhex("f0ffffff") + bytes((0, 3, 5, 3, 9))
PARAMETERS = (
    ("more_points", f"CURVE {BASE} STD", STD, r"\b9\b.*\b4\b"),
    ("no_points", f"CURVE {BASE + 4} STD", STD, r"\b0\b"),
    ("late_count", f"CURVE {BASE} LATE", STD, "points"),
    ("missing_axis", f"CURVE {BASE} W", axis("COM_AXIS", "AXIS_PTS_REF nowhere"), "nowhere"),
    ("wrong_axis", f"CURVE {BASE} W", axis("COM_AXIS", "AXIS_PTS_REF good"), "good"),
    ("no_reference", f"CURVE {BASE} W", axis("COM_AXIS", ""), "AXIS_PTS"),
    ("no_pairs", f"CURVE {BASE} W", axis("RES_AXIS", "AXIS_PTS_REF pair"), "pair"),
    ("own_curve", f"CURVE {BASE} W", axis("CURVE_AXIS", "CURVE_AXIS_REF own_curve"), "own_curve"),
    ("no_parameters", f"CURVE {BASE} W", FIX.format(""), "FIX_AXIS"),
    ("many_points", f"CURVE {BASE} W", FIX.format("FIX_AXIS_PAR 0 0 1000000000"), ""),
    ("one_axis", f"MAP {BASE} W", STD, "AXIS_DESCR"),
    ("empty", f"CURVE {BASE} EMPTY", STD, "EMPTY|FNC_VALUES"),
    ("no_layout", f"CURVE {BASE} NOWHERE", STD, "NOWHERE"),
    ("no_axis_row", f"CURVE {BASE} W", STD, "STD_AXIS"),
    ("beyond", "VAL_BLK 0xFFFFFFFC WIDE", "NUMBER 2", ""),
    ("pointed_beyond", f"VAL_BLK {BASE + 8} POINTED", "NUMBER 100", ""),
    ("billion", f"VAL_BLK {BASE} WIDE", "MATRIX_DIM 1000 1000 1000", ""),
    ("overflow", f"VAL_BLK {BASE} WIDE", "MATRIX_DIM 65536 65536 65536 65536", ""),
    ("negative", f"VAL_BLK {BASE} W", "MATRIX_DIM -3", ""),
    ("long_text", f"ASCII {BASE} W", "NUMBER 4000000000", ""),
    ("curves", f"CURVE {BASE} CURVES", axis("FIX_AXIS", "FIX_AXIS_PAR 0 0 2"), "ALTERNATE_CURVES"),
    ("swapped", f"VAL_BLK {BASE} WIDE", "NUMBER 2 BYTE_ORDER MSB_FIRST_MSW_LAST", "BYTE_ORDER"),
)
STRUCTURES = '/begin TYPEDEF_MEASUREMENT u "" ULONG NO_COMPU_METHOD 0 0 0 1e9 /end TYPEDEF_MEASUREMENT\n' + "".join(
    f'/begin TYPEDEF_STRUCTURE {name} "" {size} {parts} /end TYPEDEF_STRUCTURE\n' for name, size, parts in (
        ("ring", 8, "/begin STRUCTURE_COMPONENT next ring 4 /end STRUCTURE_COMPONENT"
                    "/begin STRUCTURE_COMPONENT u u 0 /end STRUCTURE_COMPONENT"),
        ("ping", 4, "/begin STRUCTURE_COMPONENT c pong 0 /end STRUCTURE_COMPONENT"),
        ("pong", 4, "/begin STRUCTURE_COMPONENT c ping 0 /end STRUCTURE_COMPONENT"),
        ("hole", 4, "/begin STRUCTURE_COMPONENT c nowhere 0 /end STRUCTURE_COMPONENT"),
        *((f"deep{i}", 4, f"/begin STRUCTURE_COMPONENT c {f'deep{i + 1}' if i < 999 else 'u'} 0 MATRIX_DIM 9 /end STRUCTURE_COMPONENT")
          for i in range(1000)))) + "".join(
    f'/begin INSTANCE {name} "" {kind} {BASE} {dims} /end INSTANCE\n' for name, kind, dims in (
        ("chain", "ring", ""), ("table", "ping", ""), ("leak", "hole", ""), ("tower", "deep0", ""),
        ("crowd", "ring", "MATRIX_DIM 65536 65536 65536"), ("ghost", "nowhere", "")))
LEAVES = ("chain.next.next.next.u", "table.c.c.c", "leak.c", "tower" + ".c[0]" * 1000, "crowd[65535][65535][65535].u",
          "ghost.u", "chain", "chain.", "chain..u", "chain.u[0]")
GOOD = ('/begin AXIS_PTS pair "" {0} NO_INPUT_QUANTITY PAIRS 0 NO_COMPU_METHOD 4 0 255 /end AXIS_PTS\n'
        '/begin AXIS_PTS bent "" {1} NO_INPUT_QUANTITY BENT 0 NO_COMPU_METHOD 4 0 255 MONOTONY STRICT_INCREASE /end AXIS_PTS\n'
        '/begin CHARACTERISTIC good "" ASCII {2} W 0 NO_COMPU_METHOD 0 255 NUMBER 4 /end CHARACTERISTIC\n'
        ).format(BASE + 12, BASE + 13, BASE + 0x100)


class BadObjectsTest(SystemTest):
    def ecu(self, body):
        sim = self.start_sim("--spare-bytes", 0x1000)
        sim.a2l.write_text(module(body, 1), encoding="utf-8")
        with RawMaster(sim.port) as master:
            master.write(BASE, MEMORY)
            master.write(BASE + 0x100, b"ABCD")
        return sim

    def answers(self, sim, *arguments):
        """What is told of each value, and the exit code."""
        done = self.run_cli(sim, *arguments, timeout=60)
        return json.loads(done.stdout.splitlines()[-1])["values"], done.returncode

    def check_small(self):
        """No program of this test, sanitizers and all, took much memory."""
        self.assertLess(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss, 1 << 20, "KiB")

    def test_objects_that_make_no_sense(self):
        """A text without an end, in between, is as long as its memory."""
        blocks = "".join(BLOCK.format(*row) for row in PARAMETERS)
        sim = self.ecu(LAYOUTS + blocks + STRUCTURES + GOOD)
        rows = [(name, part) for name, _, _, part in PARAMETERS] + [(name, "") for name in LEAVES] + [("good", None)]
        answers, code = self.answers(sim, "get", "--json", *(name for name, _ in rows))
        self.assertEqual((len(answers), code), (len(rows), 1))
        for (name, part), answer in zip(rows, answers):
            with self.subTest(name[:40]):
                if part is None:
                    self.assertEqual(answer["value"]["physical"], "ABCD")
                else:
                    self.assertRegex(answer.get("error", {}).get("message", str(answer)[:300]), f"{re.escape(name[:30])}.*({part})")
                    self.assertNotIn("value", answer)
        writes, _ = self.answers(sim, "set", "--json", *(f"{name}=1" for name, part in rows if part is not None))
        self.assertEqual([answer["name"] for answer in writes if "error" not in answer], [])
        with RawMaster(sim.port) as master:
            self.assertEqual(master.read(BASE, len(MEMORY)), MEMORY)
        self.check_small()

    def test_an_axis_that_is_not_monotonous(self):
        """It is shown as it is and can be mended, but not made so."""
        sim = self.ecu(LAYOUTS + GOOD)
        for deed, points in (("bent[0]=6", None), ("bent[1]=4", None), ("bent[1]=7", [5, 7, 9]), ("bent[1]=9", None),
                             ("bent=[5,6,6]", None), ("bent[2]=8", [5, 7, 8])):
            with self.subTest(deed):
                (answer,), code = self.answers(sim, "set", "--json", deed)
                self.assertEqual(("error" in answer, code), (points is None, int(points is None)), answer)
                if points:
                    self.assertEqual(self.answers(sim, "get", "--json", "bent")[0][0]["value"]["physical"], points)

    def test_files_that_have_no_end(self):
        """Refused when the file is loaded, or the rest is read."""
        def write(name, text):
            (sim.a2l.parent / name).write_text(text, encoding="utf-8")

        sim = self.ecu(GOOD)
        for i in range(20):
            write(f"twice{i}", f'/include "twice{i + 1}"\n' * 2 if i < 19 else "")
        write("circle", '/include "circle"\n')
        write("wide", "".join('/include "leaf"\n' for _ in range(1500)))
        write("leaf", "")
        for text, told in (('/include "twice0"', "twice"), ('/include "circle"', "circle"), ('/include "wide"', "wide line 1000"),
                           ('/include "nothing"', "nothing"), ("/include .", ""), ('/include "/dev/zero"', "/dev/zero"),
                           ('/begin CHARACTERISTIC x "no end', "")):
            with self.subTest(text):
                sim.a2l.write_text(module(LAYOUTS + GOOD + text, 1), encoding="utf-8")
                done = self.run_cli(sim, "get", "good", timeout=60)
                self.assertEqual((done.returncode, done.stdout), (1, ""), done.stderr)
                self.assertIn(told, done.stderr)
        self.check_small()


if __name__ == "__main__":
    unittest.main()
