"""`serve` while clients come, stall, vanish and are killed, and one of them records and writes.

    clients.py [MINUTES]

Each write arrives, no record of the measurement is lost, and memory, descriptors and threads stay flat.
"""
import collections
import json
import os
import random
import re
import signal
import socket
import sys
import time
from pathlib import Path

import campaign
import harness
from recording import Recording

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "examples" / "python"))
from xcplumo_client import Client  # noqa: E402  pylint: disable=wrong-import-position

SIGNALS = ["counter_1ms@0", "wave@0", "engine_speed@1"]
PER_TAKE = 12  # clients for each recording
PAUSE_S = 0.1  # between them
BETWEEN_SAMPLES_S = 5
GROWTH_KB = 2048
Sample = collections.namedtuple("Sample", "memory threads descriptors")


class Clients(campaign.Campaign):
    def run_case(self, minutes):
        self.random = random.Random(1)
        self.done = collections.Counter()
        runtime = self.dir / "runtime"
        runtime.mkdir(mode=0o700)
        self.env["XDG_RUNTIME_DIR"] = str(runtime)
        (self.dir / "recordings").mkdir()
        self.sim = self.start_sim()
        self.host = self.start_cli(self.sim, "serve", "--recordings", self.dir / "recordings")
        self.host.wait_for_out("unix:")
        self.address = self.host.out.splitlines()[1]
        self.port, self.token = re.fullmatch(r"http://[\d.]+:(\d+)/#token=([0-9a-f]{64})", self.address).groups()
        ecu = Client(self.address, timeout=harness.PATIENCE)
        harness.wait_until(lambda: ecu.state()["state"] == "connected", "a connection")
        ecu.measure(SIGNALS)
        samples, end, next_sample = [], time.monotonic() + 60 * minutes, 0
        while time.monotonic() < end:
            self.take(ecu)
            if time.monotonic() >= next_sample:
                next_sample = time.monotonic() + BETWEEN_SAMPLES_S
                samples.append(self.sample())
        measured = harness.wait_until(lambda: ecu.state()["measurement"], "figures of the measurement")
        self.assertEqual((measured["lostOdts"], measured["missedCycles"]), (0, 0))
        ecu.close()
        self.host.signal(signal.SIGINT)
        self.assertEqual(self.host.finish(), 0, self.host.err)
        self.check_flat(samples)
        return measured

    def take(self, ecu):
        """A recording, written into by one client while the others come and go; and another plan now and then."""
        ecu.record("take")
        begin = time.monotonic()
        stalled = [self.stall() for _ in range(3)]
        for _ in range(PER_TAKE):
            kind = self.random.choice(["half", "vanish", "strange", "killed", "write", "plain"])
            getattr(self, kind)(ecu)
            time.sleep(self.random.expovariate(1 / PAUSE_S))
            self.done[kind] += 1
        for client in stalled:
            client.close()
        seconds = time.monotonic() - begin
        ecu.end_recording()
        folder = self.dir / "recordings" / "take"
        self.succeed("recording", "check", folder)
        each_ms = Recording(folder).groups[0]
        self.check_gapless(each_ms)
        self.assertGreater(len(each_ms.records), 300 * seconds)  # a busy machine's ECU is slow
        for file in folder.iterdir():
            file.unlink()
        folder.rmdir()
        ecu.measure(SIGNALS[:self.random.randint(1, len(SIGNALS))])
        self.done["recordings"] += 1

    def succeed(self, *arguments):
        done = self.run_plain(*arguments)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done

    def ask(self, text):
        """Sends the bytes of a request, and leaves it there."""
        client = socket.create_connection(("127.0.0.1", int(self.port)), harness.PATIENCE)
        client.sendall(text.replace("TOKEN", self.token).replace("PORT", self.port).encode())
        return client

    def stall(self):
        """Wants all records and takes none."""
        return self.ask("GET /v1/ecus/SimulatedEcu/stream HTTP/1.1\r\nHost: 127.0.0.1:PORT\r\nAuthorization: Bearer TOKEN\r\n\r\n")

    def half(self, _):
        self.ask("PUT /v1/ecus/SimulatedEcu/values/cal_gain HTTP/1.1\r\nHost: 127.0.0.1:PORT\r\nAuthorization: Bearer TOKEN\r\n"
                 "Content-Length: 14\r\n\r\n{\"value\"").close()

    def vanish(self, _):
        client = self.stall()
        client.recv(100)
        client.close()

    def strange(self, _):
        client = self.ask("GET /v1 HTTP/1.1\r\nHost: elsewhere\r\n\r\n")
        self.assertRegex(client.recv(100), rb"^HTTP/1.1 4\d\d ")
        client.close()

    def killed(self, _):
        """A command that goes through `serve`, at any moment."""
        command = self.start_cli(self.sim, "get", "cal_*")
        time.sleep(self.random.uniform(0, 0.05))
        command.signal(signal.SIGKILL)
        command.await_end()

    def write(self, ecu):
        value = self.random.randint(0, 40) / 4
        ecu["cal_gain"] = value
        self.assertEqual(json.loads(self.run_cli(self.sim, "get", "cal_gain", "--json").stdout)["values"][0]["value"]["raw"], value)

    def plain(self, ecu):
        self.assertEqual(len(ecu.read(["wave", "engine_speed", "cal_ignition_map"])), 3)

    def sample(self):
        about = Path(f"/proc/{self.host.process.pid}")
        status = dict(line.split(":", 1) for line in (about / "status").read_text("ascii").splitlines())
        return Sample(int(status["VmRSS"].split()[0]), int(status["Threads"]), len(os.listdir(about / "fd")))

    def check_flat(self, samples):
        third = max(1, len(samples) // 3)
        warm, late = ([max(some) for some in zip(*part)] for part in (samples[:third], samples[-third:]))
        print(f"{', '.join(f'{count} {kind}' for kind, count in sorted(self.done.items()))}; memory, threads and descriptors "
              f"at most {warm} in the first third, {late} in the last")
        self.assertLess(late[0] - warm[0], GROWTH_KB, samples)
        for first, last in zip(warm[1:], late[1:]):
            self.assertLessEqual(last, first + 2, samples)  # clients that are going


if __name__ == "__main__":
    campaign.run(Clients, float(sys.argv[1]) if len(sys.argv) > 1 else 60.0)
    print("passed")
