"""What the CAN tests need beyond harness.py: interfaces, a simulated ECU on one of them, frames as they are on the bus.

Virtual interfaces are made and removed by the tests themselves. The guest has controllers: can0 and can1 classic on one
bus, can2 and can3 CAN FD on another, fcan0 and fcan1 with faults on order.
"""
import os
import re
import signal
import socket
import struct
import subprocess
import threading
from pathlib import Path

import harness
from recording_check import ModelCase

GUEST = os.environ.get("XCPLUMO_CAN_GUEST") == "1"
EXTENDED, REMOTE, ERROR = 0x80000000, 0x40000000, 0x20000000
FD_SIZE = 72
BRS = 1


def ip(*arguments):
    """Runs `ip` with these words."""
    done = subprocess.run(["ip", *" ".join(map(str, arguments)).split()], capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise AssertionError(f"ip {arguments}: {done.stderr}")
    return done.stdout


def raw_socket(interface, *filters, fd=True):
    """A raw CAN socket; filters are pairs of identifier and mask."""
    raw = socket.socket(socket.AF_CAN, socket.SOCK_RAW | socket.SOCK_CLOEXEC, socket.CAN_RAW)
    raw.setsockopt(socket.SOL_CAN_RAW, socket.CAN_RAW_FD_FRAMES, int(fd))
    if filters:
        raw.setsockopt(socket.SOL_CAN_RAW, socket.CAN_RAW_FILTER, b"".join(struct.pack("=II", *f) for f in filters))
    raw.bind((interface,))
    return raw


class Background:
    """A thread that repeats an action on a socket until the test ends."""

    def __init__(self, test, raw):
        raw.settimeout(0.2)
        self.socket, self.running = raw, True
        self.thread = threading.Thread(target=self.loop)
        self.thread.start()
        test.addCleanup(self.end)

    def loop(self):
        while self.running:
            try:
                self.act()
            except OSError:  # nothing came, the send queue is full, the interface is away
                continue

    def end(self):
        self.running = False
        self.thread.join()
        self.socket.close()


class Listener(Background):
    """Keeps all frames of some identifiers as (identifier, CAN FD with bit-rate switch, bytes)."""

    def __init__(self, test, interface, *identifiers):
        self.frames = []
        super().__init__(test, raw_socket(interface, *((i, ~ERROR & 0xFFFFFFFF) for i in identifiers)))

    def act(self):
        data = self.socket.recv(FD_SIZE)
        identifier, length, flags = struct.unpack_from("=IBB", data)
        self.frames.append((identifier, len(data) == FD_SIZE and flags & BRS == BRS, data[8:8 + length]))


class Flood(Background):
    """Sends classic frames, given as identifier and bytes, as fast as it can."""

    def __init__(self, test, interface, *frames):
        self.frames, self.sent = [struct.pack("=IB3x8s", i, len(data), data) for i, data in frames], 0
        super().__init__(test, raw_socket(interface))

    def act(self):
        for frame in self.frames:
            self.socket.send(frame)
        self.sent += len(self.frames)


class CanTest(ModelCase):
    """Skipped where its interfaces are missing, but in the guest they must be there."""

    interfaces = ()

    def setUp(self):
        super().setUp()
        missing = [name for name in self.interfaces if not Path("/sys/class/net", name).exists()]
        if missing and GUEST:
            self.fail(f"the guest has no {missing[0]}")
        if missing:
            self.skipTest(f"no {missing[0]} here: tests/can_bench/run boots a guest that has it")

    def start_ecu(self, interface, *options, seen_from=None, reach=()):
        """A simulated ECU; the tool reaches it by its A2L and the options `reach`, through `seen_from`."""
        if "--fast-event-us" not in options:  # what nobody measures costs time all the same
            options += ("--fast-event-us", "10000")
        # Frames of a program that is moved from one processor to another overtake each other on virtual interfaces.
        sim = self.start(["taskset", "-c", "0", harness.SIM, "--can", interface, *options])
        sim.wait_for_out("can " + interface + "\n")
        sim.a2l = self.write_a2l("--can", interface, *options)
        sim.interface = seen_from or interface
        sim.reach = ["-i", sim.interface, *reach]
        return sim

    def patient_config(self, **sections):
        """A configuration for a guest that may stand still for seconds."""
        return self.quick_config(xcp={"timeoutsMs": [20000] * 7}, reconnect={"heartbeatMs": 60000}, **sections)

    def check_info(self, sim, cmd, res, size):
        done = self.run_cli(sim, "info")
        self.expect(done, done.stdout)
        lines = done.stdout.splitlines()
        self.assertEqual((lines[0], lines[2]),
                         (f"ECU            SimulatedEcu (CMD 0x{cmd:X}, RES 0x{res:X} on {sim.interface})",
                          f"communication  Intel, AG 1, MAX_CTO {size}, MAX_DTO {size}"))

    def check_recording(self, sim, program):
        """It printed nothing, and holds what the ECU's model gives."""
        recording = self.check_measured(program)
        self.assertEqual((program.out, recording.meta["source"]), ("", f"XCP on CAN {sim.interface}"))

    def check_loss(self, sim, names, cut, mend, reasons, why_not):
        """The interface goes while measuring: told once; `abort` ends, `retry` goes on when it is back.

        `reasons` are those that the reception may end with, `why_not` what a reconnection attempt says meanwhile.
        """
        for policy in ("abort", "retry"):
            with self.subTest(policy):
                config = self.quick_config(reconnect={"policy": policy, "attempts": 1000})
                directory = self.dir / policy
                program = self.start_cli(sim, "-c", config, *harness.record(directory, names, every=1))
                program.wait_for_out("\n", 2)
                cut()
                state = "failed" if policy == "abort" else "reconnecting"
                program.wait_for_err(f"** {state}: connection lost: no DAQ data for {harness.HEARTBEAT_MS} ms")
                if policy == "retry":
                    program.wait_for_err("reconnect attempt 2:")
                mend()
                if policy == "retry":
                    program.wait_for_err("** measuring: reconnected after")
                    program.wait_for_out("\n", program.out.count("\n") + 3)
                    program.signal(signal.SIGINT)
                self.assertEqual(program.finish(), 2 if policy == "abort" else 0, program.err)
                told = re.findall(rf"{sim.interface}: receive failed: (.*)", program.err)
                self.assertEqual(len(told), 1, program.err)
                self.assertIn(told[0], reasons)
                attempts = set(re.findall(r"reconnect attempt \d+: (.*)", program.err))
                self.assertEqual(attempts, {why_not} if policy == "retry" else set())
                counts, groups = self.statistics(program.err, directory)
                self.assertEqual(counts["reconnects"], int(policy == "retry"))
                values = groups[0].counters()
                jumps = [b - a for a, b in zip(values, values[1:]) if b != a + 1]
                # What the ECU still sends between the return of its interface and the new start is recorded as well.
                self.assertIn(len(jumps), [1, 2] if policy == "retry" else [0], values)
                self.assertTrue(all(jump > 0 for jump in jumps), values)


class VcanCase(CanTest):
    """With virtual interfaces of its own."""

    def setUp(self):
        super().setUp()
        try:
            self.vcan = self.new_vcan()
        except (AssertionError, OSError) as error:
            if GUEST:
                raise
            self.skipTest(f"no vcan here: {error}")

    def new_vcan(self, mtu=FD_SIZE, tail=""):
        name = f"vcan{os.getpid()}{tail}"
        ip("link add dev", name, "type vcan")
        self.addCleanup(subprocess.run, ["ip", "link", "del", name], check=False, capture_output=True)
        ip("link set", name, "mtu", mtu, "up")
        return name
