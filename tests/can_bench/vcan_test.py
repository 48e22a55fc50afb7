"""The tool and the simulated ECU on virtual CAN interfaces, as a user runs them."""
import re
import signal
import unittest
from pathlib import Path

from can_harness import EXTENDED, REMOTE, Flood, Listener, VcanCase, ip
from harness import record, wait_until
from recording import Recording

# Small enough for classic frames.
FAST = ["counter_1ms", "ignition_angle"]
SLOW = ["counter_10ms", "engine_speed", "throttle", "counter_100ms", "battery_voltage", "counter_async", "tooth_number"]


class VcanCommandsTest(VcanCase):
    def all_commands(self, rows, names, size, **config):
        for options, cmd, res in rows:
            with self.subTest(options):
                sim = self.start_ecu(self.vcan, *options, reach=["-c", self.patient_config(**config)])
                self.check_info(sim, cmd, res, size)
                self.check_recording(sim, self.start_measured(sim, names, 1))
                sim.kill()

    def test_all_commands_on_classic_frames(self):
        """Identifiers of both kinds, full frames, a DAQ identifier of its own."""
        self.all_commands([([], 0x7E0, 0x7E1),
                           (["--cmd-id", "0x98DA00F1", "--res-id", "0x98DAF100"], 0x98DA00F1, 0x98DAF100),
                           (["--max-dlc-required", "--fill-byte", "0x55", "--daq-id", "0x123"], 0x7E0, 0x7E1)],
                          SLOW, 8)

    def test_all_commands_on_fd_frames(self):
        names = [*SLOW, "torque", "sig_float64_lsb"]
        self.all_commands([(["--can-fd", "--cmd-id", "0x80000001", "--daq-id", "0x9FFFFFFF"], 0x80000001, 0x7E1),
                           (["--can-fd", "--max-dlc-required"], 0x7E0, 0x7E1)], names, 64, can={"fd": True})

    def test_frames_on_the_bus(self):
        """The same assignment in the three shapes of a frame, byte by byte."""
        rows = [([], False, False, "F0 04 00 00 20 40"),
                (["--max-dlc-required"], False, False, "F0 04 00 00 20 40 00 00"),
                (["--can-fd"], True, False, "F0 04 00 00 20 40"),
                (["--can-fd"], True, True, "F0 08 00 00 00 00 00 00 1F C0 00 00")]
        for options, fd, wide, frame in rows:
            with self.subTest(frame):
                sim = self.start_ecu(self.vcan, *options, reach=["-c", self.patient_config(can={"fd": fd})])
                listener = Listener(self, self.vcan, 0x7E0)
                done = self.run_cli(sim, "set", "cal_wave_offset=-7.75" if wide else "cal_gain=2.5")
                self.assertEqual(done.returncode, 0, done.stdout)
                expected = (0x7E0, fd, bytes.fromhex(frame))
                wait_until(lambda: expected in listener.frames, f"{expected}, there are {listener.frames}", 5)
                self.assertEqual({fast for _, fast, _ in listener.frames}, {fd})
                listener.end()
                sim.kill()

    def test_two_programs_amid_foreign_frames(self):
        """Identifiers that differ in one bit or in their kind only, and remote frames, are none of their business."""
        fast, reach = ("--fast-event-us", "1000"), ["-c", self.patient_config()]
        ecus = [self.start_ecu(self.vcan, *fast, *ids, reach=reach)
                for ids in ((), ("--cmd-id", "0x7E2", "--res-id", "0x7E3"))]
        foreign = [(identifier, b"\xff" * 8) for identifier in (0x7E5, EXTENDED | 0x7E1, EXTENDED | 0x7E3)]
        flood = Flood(self, self.vcan, *foreign, (REMOTE | 0x7E1, b""), (REMOTE | 0x7E3, b""))
        programs = [self.start_measured(ecu, FAST + SLOW, 3) for ecu in ecus]
        for ecu, program in zip(ecus, programs):
            self.check_recording(ecu, program)
        self.assertGreater(flood.sent, 1000)


class VcanListIdsTest(VcanCase):
    IDS = ["--daq-ids", "0x310,0x311,0x9FFF0312"]
    OWN = {"0": "0x320", "1": "0x321", "2": "0x98FF0322"}

    def test_values_with_an_identifier_for_each_list(self):
        """However the identifiers become known, all values come, with those identifiers and no others."""
        given, own = [0x310, 0x311, 0x9FFF0312], [0x320, 0x321, 0x98FF0322]
        rows = [(self.IDS, {}, given), ([*self.IDS, "--daq-ids-variable"], {}, given),
                ([*self.IDS, "--daq-ids-variable", "--byte-order", "motorola"], self.OWN, own),
                ([*self.IDS, "--daq-ids-variable", "--static-lists", "9x7,9x7,9x7"], self.OWN, own)]
        for options, wanted, ids in rows:
            with self.subTest(options, wanted=wanted):
                sim = self.start_ecu(self.vcan, *options, reach=["-c", self.patient_config(can={"daqIds": wanted})])
                listener = Listener(self, self.vcan, *given, *own)
                self.check_recording(sim, self.start_measured(sim, SLOW, 1))
                listener.end()
                self.assertEqual(sorted({identifier for identifier, _, _ in listener.frames}), ids)
                sim.kill()

    def test_a_lost_ecu_gets_its_identifiers_again(self):
        options = [*self.IDS, "--daq-ids-variable"]
        for wanted in ({}, self.OWN):
            with self.subTest(wanted=wanted):
                config = self.quick_config(can={"daqIds": wanted}, reconnect={"policy": "retry_forever"})
                sim = self.start_ecu(self.vcan, *options, reach=["-c", config])
                program = self.start_cli(sim, *record(self.dir / f"lost{len(wanted)}", ["counter_10ms@1", "throttle@1"], every=1))
                program.wait_for_out("counter_10ms", 3)
                sim.kill()
                program.wait_for_err("** reconnecting: connection lost")
                sim = self.start_ecu(self.vcan, *options)
                program.wait_for_err("** measuring: reconnected")
                program.wait_for_out("counter_10ms", program.out.count("\n") + 3)
                program.signal(signal.SIGINT)
                self.assertEqual(program.finish(), 0, program.err)
                sim.kill()

    def test_identifiers_that_cannot_be(self):
        rows = [(self.IDS, {"1": "0x320"}, "session: can.daqIds: the A2L fixes CAN-ID 0x311 for DAQ list 1\n"),
                ([], {"0": "0x7E0"}, "session: can.daqIds: DAQ list 0: CAN-ID 0x7E0 is that of commands\n"),
                ([], {"0": 2048}, "session: can.daqIds: DAQ list 0: CAN-ID 0x800: CAN identifier out of range"),
                ([], {"first": 1}, "configuration: can.daqIds.first: the key is not the number of a DAQ list"),
                ([], {"0": "0x320"}, "SET_DAQ_ID 0x320 for DAQ list 0: TRANSPORT_LAYER_CMD: ERR_CMD_UNKNOWN (0x20)\n"
                 "hint: without the key \"0\" under \"can.daqIds\"")]
        for options, wanted, message in rows:
            with self.subTest(message):
                sim = self.start_ecu(self.vcan, *options, reach=["-c", self.patient_config(can={"daqIds": wanted})])
                done = self.run_cli(sim, "measure", "-t", 1, "-s", "counter_10ms@1", "-s", "throttle@1")
                self.assertIn(message, done.stderr)
                self.assertEqual((done.stdout, done.returncode), ("", 1))
                sim.kill()

    def test_info_shows_them(self):
        sim = self.start_ecu(self.vcan, *self.IDS, "--daq-ids-variable", "--static-daq",
                             reach=["-c", self.patient_config()])
        self.assertIn("  list 2    on CAN-ID 0x9FFF0312, by the ECU\n", self.run_cli(sim, "info").stdout)


class VcanTroubleTest(VcanCase):
    def test_drops_of_the_kernel_are_counted(self):
        """A program that sleeps while 50,000 frames pass: what is missing in the recording is told, to the frame."""
        config = self.patient_config(daq={"maxBusLoad": 100}, can={"fd": True})
        sim = self.start_ecu(self.vcan, "--fast-event-us", "100", "--can-fd", reach=["-c", config])
        directory = self.dir / "recording"
        program = self.start_cli(sim, *record(directory, ["counter_1ms@0"], every=1000))
        program.wait_for_out("counter_1ms", 3)
        sent = Path(f"/sys/class/net/{self.vcan}/statistics/tx_packets")
        program.signal(signal.SIGSTOP)
        begin = int(sent.read_text())
        wait_until(lambda: int(sent.read_text()) > begin + 50000, "50,000 frames")
        program.signal(signal.SIGCONT)
        program.wait_for_out("counter_1ms", program.out.count("\n") + 30)
        program.signal(signal.SIGINT)
        self.assertEqual(program.finish(), 0, program.err)
        found = re.search(r"s: (\d+) records, lost ODTs 0, missed cycles (\d+), overloads 0, reconnects 0, "
                          r"CAN dropped (\d+), error frames 0, recorded \1 \(dropped 0\)", program.err)
        records, missed, dropped = map(int, found.groups())
        values = Recording(directory).groups[0].counters()
        self.assertGreater(dropped, 1000, program.err)
        self.assertEqual((len(values), values[-1] - values[0] + 1 - records), (records, dropped))
        # By its times; where the ECU itself was late by more than a cycle, no frame is missing.
        self.assertTrue(dropped <= missed <= dropped * 1.01, program.err)

    def test_no_record_is_joined_across_a_drop_of_the_kernel(self):
        """Samples of two frames, a program that sleeps again and again: each record is of one sample."""
        config = self.patient_config(daq={"maxBusLoad": 100}, can={"fd": True})
        sim = self.start_ecu(self.vcan, "--fast-event-us", "100", "--can-fd", "--load-signals", "20",
                             reach=["-c", config])
        directory = self.dir / "recording"
        program = self.start_cli(sim, *record(directory, [f"load_{n:04}@0" for n in range(20)], every=1000))
        program.wait_for_out("load_0000", 3)
        sent = Path(f"/sys/class/net/{self.vcan}/statistics/tx_packets")
        for _ in range(4):
            program.signal(signal.SIGSTOP)
            begin = int(sent.read_text())
            wait_until(lambda: int(sent.read_text()) > begin + 45000, "45,000 frames")
            program.signal(signal.SIGCONT)
            program.wait_for_out("load_0000", program.out.count("load_0000") + 30)
        program.signal(signal.SIGINT)
        self.assertEqual(program.finish(), 0, program.err)
        self.assertRegex(program.err, r"CAN dropped [1-9]")
        group = Recording(directory).groups[0]
        first, last = group.signals[0], group.signals[-1]
        self.assertEqual(len({(last.raw(r) - first.raw(r)) % 2 ** 32 for r in group.records}), 1)

    def test_interface_taken_down_and_up(self):
        self.check_loss(self.start_ecu(self.vcan), ["counter_10ms@1", "throttle@1"],
                        lambda: ip("link set", self.vcan, "down"), lambda: ip("link set", self.vcan, "up"),
                        ["Network is down"],
                        f"{self.vcan} is down. Switch it on in a terminal: `sudo ip link set {self.vcan} up`")

    def test_hints(self):
        classic, down = self.new_vcan(16, "c"), self.new_vcan(16, "d")
        ip("link set", down, "down")
        fd = self.patient_config(can={"fd": True})
        rows = [([], "vcan_", "virtual CAN interface 'vcan_' does not exist. Create it in a terminal: `sudo modprobe "
                 "vcan && sudo ip link add dev vcan_ type vcan && sudo ip link set vcan_ mtu 72 up`"),
                ([], "can_", "CAN interface 'can_' not found: is the adapter connected? "
                 "`ip -br link` lists the interfaces"),
                ([], "lo", None),
                ([], down, f"{down} is down. Switch it on in a terminal: `sudo ip link set {down} up`"),
                (["-c", fd], classic, f"{classic} is not CAN FD capable. Change it in a terminal: "
                 f"`sudo ip link set {classic} down && sudo ip link set {classic} mtu 72 up`")]
        a2l = self.write_a2l()
        for options, interface, message in rows:
            with self.subTest(interface):
                done = self.run_plain(*options, "--a2l", a2l, "-i", interface, "info")
                if message is None:
                    self.assertEqual((done.stdout, done.returncode), ("", 1), done.stderr)
                    self.assertRegex(done.stderr, f"^session: .*{interface}.*\n$")
                else:
                    self.expect(done, err=f"session: {message}\n", code=1)


if __name__ == "__main__":
    unittest.main()
