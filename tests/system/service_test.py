"""What runs without anyone who looks: what a service manager is told, the line each minute, the example for CI."""
import contextlib
import os
import re
import shutil
import signal
import socket
import subprocess
import time
import unittest
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import harness

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"


class ServiceTest(harness.SystemTest):
    def listen(self, name):
        """A socket as a service manager has it; the tool finds it through its environment."""
        manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(manager.close)
        manager.bind(name.replace("@", "\0", 1))
        manager.settimeout(harness.PATIENCE)
        self.env["NOTIFY_SOCKET"] = name
        return manager

    def told_until(self, manager, wanted):
        """All that is told up to the wanted line."""
        told, deadline = [], time.monotonic() + harness.PATIENCE
        while wanted not in told:
            self.assertLess(time.monotonic(), deadline, told[-5:])
            told += manager.recv(4096).decode().split("\n")
        return told

    def drain(self, manager):
        """What has been told so far is passed over."""
        manager.setblocking(False)
        with contextlib.suppress(BlockingIOError):
            while manager.recv(4096):
                pass
        manager.settimeout(harness.PATIENCE)

    def start_measure(self, sim, *options):
        return self.start_cli(sim, "-c", self.quick_config(), "--reconnect", "retry_forever",
                              *harness.record(self.dir / "night", ["counter_1ms@0"]), "--split", "1s", *options)

    def test_a_service_manager_is_told(self):
        """Ready with the first record, alive while it measures and while it reconnects."""
        self.env["WATCHDOG_USEC"] = "200000"
        for name in (str(self.dir / "notify"), f"@xcplumo-{os.getpid()}"):
            with self.subTest(name):
                sim = self.start_sim()
                manager = self.listen(name)
                measure = self.start_measure(sim)
                self.assertEqual(self.told_until(manager, "READY=1"), ["STATUS=waiting for the ECU", "READY=1"])
                self.assertRegex(self.told_until(manager, "WATCHDOG=1")[0], r"STATUS=0:00:0\d \d+ records, no losses, recorded \d+, .* free on the disk")
                sim.kill()
                measure.wait_for_err("reconnect attempt 2")
                self.drain(manager)
                self.told_until(manager, "WATCHDOG=1")
                measure.signal(signal.SIGINT)
                self.told_until(manager, "STOPPING=1")
                measure.finish()
                shutil.rmtree(self.dir / "night")

    def test_whom_the_watchdog_is_not_for_gives_no_sign(self):
        self.env.update(WATCHDOG_USEC="1000", WATCHDOG_PID="1")
        manager = self.listen(f"@xcplumo-other-{os.getpid()}")
        done = self.run_cli(self.start_sim(), "measure", "-p", 0, "-t", 1, "-s", "counter_1ms@0")
        self.assertEqual(done.returncode, 0, done.stderr)
        told = self.told_until(manager, "STOPPING=1")
        self.assertNotIn("WATCHDOG=1", told)

    def test_a_manager_that_is_not_there_is_told_of_once(self):
        for name, reason in (("vsock:1", "NOTIFY_SOCKET='vsock:1': neither a path nor an abstract name (@NAME)"),
                             ("/none/x", "cannot tell the service manager: No such file or directory")):
            self.env["NOTIFY_SOCKET"] = name
            done = self.run_cli(self.start_sim(), "measure", "-p", 0, "-t", "0.3", "-s", "counter_1ms@0")
            self.assertEqual((done.returncode, done.stderr.count(reason)), (0, 1), done.stderr)

    def test_a_line_each_second(self):
        measure = self.start_measure(self.start_sim(), "--log-every", "1s")
        measure.wait_for_err("0:00:03 ")
        measure.signal(signal.SIGINT)
        self.assertEqual(measure.finish(), 0, measure.err)
        lines = re.findall(r"(?m)^0:00:0(\d) (\d+) new of (\d+) records, no losses, recorded \d+, \d.* free on the disk$", measure.err)
        self.assertEqual([int(second) for second, _, _ in lines[:3]], [1, 2, 3])
        self.assertEqual(sum(int(new) for _, new, _ in lines[:3]), int(lines[2][2]))

    def test_the_example_for_ci(self):
        """As it is, and with something that is not as wanted; it leaves report and MF4 both times."""
        examples = self.dir / "examples"
        shutil.copytree(EXAMPLES, examples)
        for program in (harness.CLI, harness.SIM):
            (self.dir / Path(program).name).symlink_to(program)
        environment = dict(self.env, PATH=f"{self.dir}:{os.environ['PATH']}")
        golden = examples / "ci" / "golden.json"
        for value, code in (("900", 0), ("901", 3)):
            golden.write_text(golden.read_text(encoding="utf-8").replace('"value": 900', f'"value": {value}'), encoding="utf-8")
            done = subprocess.run([examples / "ci" / "run", self.dir / value], env=environment, capture_output=True, text=True,
                                  timeout=harness.PATIENCE, check=False)
            self.assertEqual(done.returncode, code, done.stdout + done.stderr)
            cases = {case.get("name"): len(list(case)) for case in ElementTree.parse(self.dir / value / "idle.xml").getroot().iter("testcase")}
            self.assertEqual(len(cases), 5)
            self.assertIn("idle speed", cases)
            self.assertTrue((self.dir / value / "idle.mf4").exists())
            self.assertEqual("cal_idle_speed" in done.stdout.partition("== diff")[2].partition("\nA ")[2], code == 3, done.stdout)


if __name__ == "__main__":
    unittest.main()
