"""What the CAN tests need beyond harness.py: interfaces, a simulated ECU on one of them, frames as they are on the bus.

Virtual interfaces are made and removed by the tests themselves. The guest has controllers: can0 and can1 classic on one
bus, can2 and can3 CAN FD on another, fcan0 and fcan1 with faults on order.
"""
import os
import socket
import struct
import subprocess
import threading
from pathlib import Path

import harness

GUEST = os.environ.get("XCPLUMO_CAN_GUEST") == "1"
EXTENDED, REMOTE, ERROR = 0x80000000, 0x40000000, 0x20000000
CLASSIC_SIZE, FD_SIZE = 16, 72
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


def classic_frame(identifier, data):
    return struct.pack("=IB3x8s", identifier, len(data), data)


class Listener:
    """Keeps all frames of some identifiers as (identifier, size on the socket, flags, bytes)."""

    def __init__(self, interface, *identifiers):
        self.socket = raw_socket(interface, *((identifier, 0xFFFFFFFF) for identifier in identifiers))
        self.frames = []
        self.thread = threading.Thread(target=self.listen)
        self.thread.start()

    def listen(self):
        while True:
            try:
                data = self.socket.recv(FD_SIZE)
            except OSError:
                return
            if not data:
                return
            identifier, length, flags = struct.unpack_from("=IBB", data)
            self.frames.append((identifier, len(data), flags, data[8:8 + length]))

    def close(self):
        # A CAN socket knows no shutdown: the thread ends with its receive timeout.
        self.socket.settimeout(0.2)
        self.thread.join()
        self.socket.close()


class CanTest(harness.SystemTest):
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
        """A simulated ECU; the tool reaches it by its A2L, or the one given with `reach`, through `seen_from`."""
        sim = self.start([harness.SIM, "--can", interface, *options])
        sim.wait_for_out("can " + interface + "\n")
        sim.a2l = self.write_a2l("--can", interface, *options)
        sim.reach = ["-i", seen_from or interface, *map(str, reach)]
        return sim

    def arguments(self, sim, *arguments):
        return [harness.CLI, "--a2l", str(sim.a2l), *sim.reach, *map(str, arguments)]


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
