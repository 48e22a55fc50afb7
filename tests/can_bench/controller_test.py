"""The tool on the guest's controllers: bit timing that it sets itself, faults, plugs that are pulled."""
import re
import shutil
import signal
import unittest
from pathlib import Path

import harness
from can_harness import CanTest, ip

NAMES = ["counter_10ms", "throttle", "counter_100ms", "battery_voltage"]
# The emulated classic controllers have room for five frames, and a guest whose host is busy sleeps for many
# milliseconds: few frames, one per sample, and no bursts.
SPARSE = ("--frame-us", "10000", "--identification", "0", "--timestamp-size", "2")
SPARSE_NAMES = ["counter_100ms", "coolant_temp"]


class ControllerCase(CanTest):
    """The ECU on the second controller of a pair, the tool on the first, which is down at first."""

    timing = "bitrate 500000"

    def setUp(self):
        super().setUp()
        for name in self.interfaces:
            ip("link set", name, "down")
        ip("link set", self.interfaces[1], "up type can", self.timing)

    def link(self):
        return ip("-details link show", self.interfaces[0])

    def start_pair(self, *options, reach=()):
        return self.start_ecu(self.interfaces[1], *options, seen_from=self.interfaces[0], reach=reach)


    def check_no_fd(self, interface, options, message):
        config = self.patient_config(can={"fd": True})
        done = self.run_plain("-c", config, "--a2l", self.write_a2l(), "-i", interface, *options, "info")
        self.assertEqual((done.stdout, done.returncode, done.stderr.count("\n")), ("", 1, 1), done.stderr)
        self.assertTrue(done.stderr.startswith(f"session: {message}"), done.stderr)


class ClassicTest(ControllerCase):
    interfaces = ("can0", "can1")

    def test_bit_rate_set_by_the_tool(self):
        sim = self.start_pair(*SPARSE, reach=["-c", self.patient_config()])
        down = self.run_cli(sim, "info")
        self.expect(down, err="session: can0 is down and no bitrate is configured: set the bitrate in the settings, "
                    "or switch it on in a terminal: `sudo ip link set can0 up type can bitrate 500000`\n", code=1)
        sim.reach += ["-b", "500000"]
        self.check_info(sim, 0x7E0, 0x7E1, 8)
        self.assertRegex(self.link(), r"bitrate 500000 sample-point 0\.875")
        # What the kernel tells of every change of a link: settings, on, off.
        monitor = self.start(["ip", "-o", "monitor", "link"])
        self.check_recording(sim, self.start_measured(sim, SPARSE_NAMES, 2))
        # What matches is left alone, so a user without rights may use it too, and only that.
        # The source tree may be closed to that user, so program and A2L file are copied out of it.
        self.dir.chmod(0o755)
        tool = Path(shutil.copy(harness.CLI, self.dir)).resolve()
        demo = shutil.copyfile(Path(__file__).resolve().parents[2] / "examples/demo.a2l", self.dir / "demo.a2l")
        plain = {"user": 65534, "group": 65534, "extra_groups": [], "executable": tool}
        allowed = self.run_plain("--a2l", demo, "-i", "can0", "-b", "500000", "get", "cal_read_only", **plain)
        self.expect(allowed, harness.value_line("cal_read_only", "42.000"))
        # Told in order: can1, changed now, comes before can0 if that one was left alone.
        ip("link set can1 txqueuelen 11")
        monitor.wait_for_out(": can1:")
        self.assertNotIn(": can0:", monitor.out)
        refused = self.run_plain("--a2l", demo, "-i", "can0", "-b", "250000", "info", **plain)
        self.expect(refused, err="session: can0 down: netlink request: Operation not permitted. Setting the "
                    "bitrate needs the right CAP_NET_ADMIN; grant it once in a terminal, then start the program "
                    "again: `sudo setcap "
                    f"cap_net_admin+ep {tool}`\n", code=1)
        self.run_plain("--a2l", demo, "-i", "can0", "-b", "250000", "info")
        self.assertIn("bitrate 250000", self.link())
        monitor.wait_for_out(": can0:")

    def test_controller_without_can_fd(self):
        self.check_no_fd("can0", ("-b", "500000"), "can0: netlink request: Operation not supported")

    def test_unplugged_and_plugged_again(self):
        device = Path("/sys/class/net/can0/device").resolve()
        self.check_loss(self.start_pair(*SPARSE, reach=["-b", "500000"]), [f"{name}@2" for name in SPARSE_NAMES],
                        lambda: (device / "remove").write_text("1"),
                        lambda: Path("/sys/bus/pci/rescan").write_text("1"), ["Network is down", "No such device"],
                        "CAN interface 'can0' not found: is the adapter connected? `ip -br link` lists the interfaces")


class FdTest(ControllerCase):
    interfaces = ("can2", "can3")
    timing = "bitrate 500000 dbitrate 2000000 fd on"

    def test_bit_rates_set_by_the_tool(self):
        config = self.patient_config(can={"fd": True, "dataBitrate": 2000000})
        sim = self.start_pair("--can-fd", reach=["-c", config, "-b", "500000"])
        self.check_info(sim, 0x7E0, 0x7E1, 64)
        self.assertRegex(self.link(), r"(?s)<FD>.* bitrate 500000 .*dbitrate 2000000 ")
        self.check_recording(sim, self.start_measured(sim, [*NAMES, "sig_float64_lsb", "torque"], 2))


class FaultTest(ControllerCase):
    interfaces = ("fcan0", "fcan1")

    def test_bus_states_are_told_and_counted(self):
        sim = self.start_pair(reach=["-b", "500000", "-c", self.patient_config()])
        program = self.start_cli(sim, "measure", "-p", "20", *harness.signals(["counter_10ms@1", "throttle@1"]))
        program.wait_for_out("counter_10ms", 2)
        rows = [("bec 100 0", ""), ("bec 130 20", "error passive: check bit rate, wiring and termination"),
                ("bec 10 0", "error active again"),
                ("bec 256 0", "bus off, nothing is sent any more. Restart the controller in a terminal: "
                 "`sudo ip link set fcan0 type can restart`")]
        for order, line in rows:
            Path("/sys/class/net/fcan0/fault").write_text(order)
            program.wait_for_err(line)
        ip("link set fcan0 type can restart")
        program.wait_for(lambda: program.err.count("error active again") == 2, "the restart")
        program.wait_for_out("counter_10ms", program.out.count("counter_10ms") + 2)
        program.signal(signal.SIGINT)
        self.assertEqual(program.finish(), 0, program.err)
        self.assertEqual(re.findall(r"\] fcan0: (.*)", program.err), [line for _, line in rows if line] + [rows[2][1]])
        self.assertIn(" error frames 5\n", program.err)

    def test_bus_off_is_told_after_many_changes_and_its_mend_where_there_is_one(self):
        self.addCleanup(ip, "link set fcan0 type can restart-ms 0")
        self.addCleanup(ip, "link set fcan0 down")
        for restart_ms, line in ((0, "bus off, nothing is sent any more. Restart the controller in a terminal: "
                                  "`sudo ip link set fcan0 type can restart`"),
                                 (200, "bus off, the controller restarts by itself after 200 ms")):
            with self.subTest(restart_ms):
                ip("link set fcan0 down")
                ip("link set fcan0 up type can bitrate 500000 restart-ms", restart_ms)
                sim = self.start_pair(reach=["-c", self.patient_config()])
                program = self.start_cli(sim, "measure", "-p", "20", *harness.signals(["counter_10ms@1", "throttle@1"]))
                program.wait_for_out("counter_10ms", 2)
                for order in ("bec 130 20", "bec 10 0") * 4 + ("bec 256 0",):
                    Path("/sys/class/net/fcan0/fault").write_text(order)
                program.wait_for_err(line + " (2 changes before it not told)")
                program.signal(signal.SIGINT)
                program.finish()
                sim.kill()

    def test_up_without_can_fd(self):
        self.check_no_fd("fcan1", (), "fcan1 is not in CAN FD mode")


if __name__ == "__main__":
    unittest.main()
