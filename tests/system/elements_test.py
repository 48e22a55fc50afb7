"""Elements of arrays, curves, maps and structures as signals, and what `list` and `describe` tell of them."""
import csv
import re
import unittest

from harness import SystemTest, record
from mf4_walker import File

GAINS = ("cal_gains", [1, 1.25, 1.5, 1.75, 2, -0.5])
TORQUE = ("cal_torque_curve", [-20, 15, 60, 130, 190, 230, 245, 250])
# How to ask for signals, how many there are, the first and the last.
CHOSEN = [(["-s", "cal_gains[2]", "-s", "cal_gains[*]"], 7, "cal_gains[2]", "cal_gains[5]"),
          (["-s", "engine.cyl[1].*"], 7, "engine.cyl[1].temp", "engine.cyl[1].firing"),
          (["-s", "engine.cyl[1].pressure"], 4, "engine.cyl[1].pressure[0]", "engine.cyl[1].pressure[3]"),
          (["-s", "cal_ignition_map"], 64, "cal_ignition_map[0][0]", "cal_ignition_map[7][7]"),
          (["-s", "engine.cyl[*].pressure[1]"], 4, "engine.cyl[0].pressure[1]", "engine.cyl[3].pressure[1]"),
          (["-s", "cal_gain?[2]"], 1, "cal_gains[2]", "cal_gains[2]"),
          (["-s", "knock_spectrum[3][*]"], 3, "knock_spectrum[3][0]", "knock_spectrum[3][2]"),
          (["-s", "load_by_pointer"], 1, "load_by_pointer", "load_by_pointer"),
          (["--function", "Ignition", "-s", "cal_*"], 81, "cal_ignition_trim", "cal_load_axis[7]"),
          (["--group", "Event_3"], 3, "counter_async", "tooth_gap")]
REFUSED = [(["-s", "engine"], "engine: is a structure: name one of its parts"),
           (["-s", "engine.cyl[4].temp"], "engine.cyl: index 4 is above the largest, 3"),
           (["-s", "cal_gains[6]"], "cal_gains[6]: index 6 is beyond the last one, 5"),
           (["-s", "cal_gains[0][0]"], "cal_gains[0][0]: has 1 dimension, not 2"),
           (["-s", "cal_ignition_map.x"], "cal_ignition_map.x: the points are those of cal_speed_axis, measure that"),
           (["-s", "cal_time_axis"],
            "cal_time_axis: its points are stored as steps from one to the next, which are no signals"),
           (["-s", "shaft_power"], "shaft_power: measurement has no ECU_ADDRESS\n"
                                   "hint: it is computed from torque_request, engine_speed: measure them instead"),
           (["--group", "Event_3", "-s", "cal_*"],
            "'cal_*' matches names of the A2L, none of them in the groups and functions that were named"),
           (["--group", "nothing"], "the A2L has no GROUP 'nothing'")]
LISTED = [(["engine.cyl*"], 18, "M  engine.cyl[0].temp "), (["cal_limits"], 1, "I  cal_limits  "),
          (["--leaves", "-m", "*.firing"], 4, "M  engine.cyl[0].firing "), (["--axes", "cal_speed*"], 1, "A  cal_speed_axis "),
          (["cal_blob"], 1, "B  cal_blob "), (["--group", "Axes", "--axes", "speed"], 1, "A  cal_speed_axis "),
          (["eng*.cyl*"], 18, "M  engine.cyl[0].temp "), (["--group", "Axes"], 4, "A  cal_speed_axis "),
          (["--function", "Limits"], 5, "P  cal_spare_limit.curve "),
          (["-l", "cal_limits[0].torque.c"], 1, "COM_AXIS cal_limits[0].torque.speed"),
          (["-l", "cal_ignition_map"], 1, "8 x 8 element(s), COM_AXIS cal_speed_axis over engine_speed, COM_AXIS")]
DESCRIBED = [("engine.cyl[1].pressure", "defined as     pressure_t", "part of        engine", "0x00012140, 8 byte(s): values"),
             ("cal_ignition_map", "elements       8 x 8", "depends on what the ECU's memory holds", "FUNCTION Ignition (defined)"),
             ("cal_ignition_map[7][1]", "cal_ignition_map (parameter)"), ("cal_pressure_map.x", "cal_pressure_map (parameter)"),
             ("cal_limits", "elements       "), ("cal_limits[0].torque.curve", "points in cal_limits[0].torque.speed"),
             ("cal_gains", "6", "values FLOAT"), ("shaft_power", "computed from  torque_request, engine_speed"),
             ("cal_speed_axis", "points of axis 1 of cal_ignition_map"), ("cal_limited", "dependents     cal_virtual")]


class ElementsTest(SystemTest):
    def test_names_and_patterns_stand_for_elements(self):
        sim = self.start_sim()
        for asked, count, first, last in CHOSEN:
            with self.subTest(asked=asked):
                done = self.run_cli(sim, "measure", "--json", "-p", 0, "-t", 0.1, "--event", "auto", *asked)
                self.assertEqual(done.returncode, 0, done.stderr)
                names = re.findall(r'"name":"([^"]+)","type"', done.stdout.splitlines()[0])
                self.assertEqual((len(names), names[0], names[-1]), (count, first, last))
        for asked, reason in REFUSED:
            with self.subTest(asked=asked):
                done = self.run_cli(sim, "measure", "-t", 1, *asked)
                self.assertEqual((done.returncode, done.stdout), (1, ""))
                self.assertIn(f"measure: {reason}\n", done.stderr)

    def test_recordings_and_exports_hold_them(self):
        sim, recording = self.start_sim(), self.dir / "recording"
        done = self.run_cli(sim, *record(recording, [GAINS[0], TORQUE[0]], 0.3))
        self.assertEqual(done.returncode, 0, done.stderr)
        self.statistics(done.stderr, recording)
        values = {f"{name}[{i}]": value for name, column in (GAINS, TORQUE) for i, value in enumerate(column)}
        for form in ("csv", "mf4"):
            done = self.run_plain("export", recording, "-o", self.dir / f"out.{form}", "-s", GAINS[0], TORQUE[0])
            self.assertEqual(done.returncode, 0, done.stderr)
        heading, first = list(csv.reader((self.dir / "out.csv").read_text(encoding="utf-8").splitlines()))[:2]
        self.assertEqual({name.partition(" ")[0]: float(cell) for name, cell in zip(heading[1:], first[1:])}, values)
        file = File(self.dir / "out.mf4")
        self.addCleanup(file.close)
        group = file.groups[0]
        first = {channel.name: channel.physical(raw[0]) for channel, raw in zip(group.channels, group.columns())}
        self.assertEqual({name: first[name] for name in values}, values)

    def test_list_and_describe_know_them(self):
        a2l = self.write_a2l()
        for asked, count, told in LISTED:
            with self.subTest(asked=asked):
                done = self.run_plain("--a2l", a2l, "list", *asked)
                self.assertEqual((done.stderr, done.returncode), (f"{count} object(s)\n", 0))
                self.assertIn(told, done.stdout)
        for name, *told in DESCRIBED:
            with self.subTest(name=name):
                done = self.run_plain("--a2l", a2l, "describe", name)
                self.assertEqual((done.stderr, done.returncode), ("", 0))
                self.assertNotIn("not supported yet", done.stdout)
                for text in told:
                    self.assertIn(text, done.stdout)


if __name__ == "__main__":
    unittest.main()
