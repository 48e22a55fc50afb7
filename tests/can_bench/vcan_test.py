"""The tool and the simulated ECU on virtual CAN interfaces, as a user runs them."""
import json
import unittest

import recording_check
from can_harness import BRS, CLASSIC_SIZE, EXTENDED, FD_SIZE, Listener, VcanCase
from harness import signals

# Small enough for classic frames: four lists, a counter first in each.
NAMES = ["counter_1ms@0", "ignition_angle@0", "counter_10ms@1", "engine_speed@1", "throttle@1", "counter_100ms@2",
         "battery_voltage@2", "counter_async@3", "tooth_number@3"]
FD = {"can": {"fd": True}}


class VcanTest(VcanCase):
    def measure(self, sim, names, seconds, *arguments):
        """A recording measurement to its end, whose values are those of the ECU's model; returns standard error."""
        parameters = self.type_parameters(sim)
        directory = self.dir / f"recording{len(list(self.dir.iterdir()))}"
        done = self.run_cli(sim, *arguments, "measure", "-p", "0", "-t", seconds, "-r", directory, *signals(names))
        self.expect(done, err=done.stderr)
        recording = recording_check.check(self, done.stderr, directory, sim.a2l, [n.split("@")[0] for n in names],
                                          parameters)
        self.assertEqual(recording.meta["source"], f"XCP on CAN {self.vcan}")
        return done.stderr

    def json_config(self, values):
        return self.config(json.dumps(values), f"can-{len(list(self.dir.iterdir()))}.json")

    def test_all_commands_on_classic_frames_and_fd(self):
        """Identifiers of both kinds, full frames, a DAQ identifier of its own: each measures what the model says."""
        rows = [([], 0x7E0, 0x7E1, {}), (["--cmd-id", "0x98DA00F1", "--res-id", "0x98DAF100"], 0x98DA00F1, 0x98DAF100, {}),
                (["--max-dlc-required", "--fill-byte", "0x55", "--daq-id", "0x123"], 0x7E0, 0x7E1, {}),
                (["--can-fd", "--cmd-id", "0x80000001", "--daq-id", "0x9FFFFFFF"], 0x80000001, 0x7E1, FD),
                (["--can-fd", "--max-dlc-required"], 0x7E0, 0x7E1, FD)]
        for options, cmd, res, config in rows:
            with self.subTest(options):
                sim = self.start_ecu(self.vcan, *options, reach=["-c", self.json_config(config)])
                done = self.run_cli(sim, "info")
                size = 64 if config else 8
                self.expect(done, done.stdout)
                lines = done.stdout.splitlines()
                self.assertEqual(lines[0], f"ECU            SimulatedEcu (CMD 0x{cmd:X}, RES 0x{res:X} on {self.vcan})")
                self.assertEqual(lines[2], f"communication  Intel, AG 1, MAX_CTO {size}, MAX_DTO {size}")
                names = NAMES + ["sig_uint64_msb@0", "sig_float64_lsb@2"] if config else NAMES
                self.measure(sim, names, 2)
                sim.kill()


if __name__ == "__main__":
    unittest.main()
