#!/usr/bin/env python3
"""`serve` beside the plain commands: a batch of many values, and a fast measurement that is recorded and watched.

Prints a line each: values per second of `get` and of one request for the same names; records sent, recorded and watched of a
measurement, and how late its windows came to each client.
"""
import argparse
import os
import signal
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "examples" / "python"))
from xcplumo_client import Client  # noqa: E402


class Bench:
    def __init__(self, arguments, folder, *options):
        self.arguments, self.folder = arguments, Path(folder)
        self.counts = self.folder / "counts"
        with open(self.counts, "w", encoding="utf-8") as out:
            self.sim = subprocess.Popen([arguments.sim, "--port", "0", *options], stdout=out, stderr=subprocess.STDOUT)
        while not self.counts.read_text():
            time.sleep(0.01)
        port = self.counts.read_text().split()[1]
        subprocess.run([arguments.sim, *options, "--write-a2l", self.folder / "ecu.a2l"], check=True)
        self.cli = [arguments.cli, "--a2l", self.folder / "ecu.a2l", "--udp", f"127.0.0.1:{port}"]

    def serve(self):
        (self.folder / "recordings").mkdir()
        self.server = subprocess.Popen([*self.cli, "serve", "--recordings", self.folder / "recordings"],
                                       stdout=subprocess.PIPE, text=True)
        self.server.stdout.readline()
        self.address = self.server.stdout.readline().strip()
        client = Client(self.address)
        while client.state()["state"] != "connected":
            time.sleep(0.05)
        return client

    def end(self):
        self.server.send_signal(signal.SIGINT)
        self.server.wait()
        self.sim.send_signal(signal.SIGINT)
        self.sim.wait()
        return dict(line.split(None, 1) for line in self.counts.read_text().splitlines()[1:] if " " in line)


def batch(arguments):
    names = [f"load_{number:04}" for number in range(10000)]
    with tempfile.TemporaryDirectory() as folder:
        bench = Bench(arguments, folder, "--load-signals", "10000")

        def get(some):
            begin = time.perf_counter()
            subprocess.run([*bench.cli, "get", "--json", *some], check=True, stdout=subprocess.DEVNULL)
            return time.perf_counter() - begin

        direct = min(get(names) for _ in range(6)) - min(get(names[:1]) for _ in range(6))
        client = bench.serve()
        served = []
        for _ in range(6):
            begin = time.perf_counter()
            told = client.ask("POST", f"/v1/ecus/{client.ecu}/values/read", {"names": names})["values"]
            served.append(time.perf_counter() - begin)
            assert len(told) == len(names) and all("value" in one for one in told)
        bench.end()
    print(f"10,000 values: get {direct:.3f} s without its start, one request {min(served):.3f} s, "
          f"{direct / min(served):.2f} of direct")


def watch(client, names, late, counts, number):
    """How long after its last record a window came; the clocks are those of one machine."""
    for event, data in client.events(names, window_ms=20):
        if event == "signals":
            start = data["startUtcNs"]
        elif event == "missed":
            counts[number]["missed"] += data["missed"]
        elif event == "window":
            counts[number]["records"] += data["records"]
            late[number].append((time.time_ns() - start - data["toNs"]) / 1e6)
    counts[number]["ended"] = True


def fast(arguments):
    names = [f"load_{number:04}" for number in range(50)]
    with tempfile.TemporaryDirectory() as folder:
        bench = Bench(arguments, folder, "--load-signals", "50", "--fast-event-us", str(arguments.cycle_us))
        client = bench.serve()
        late, counts = [[] for _ in range(5)], [{"records": 0, "missed": 0} for _ in range(5)]
        for number in range(5):
            watcher = threading.Thread(target=watch, daemon=True,
                                       args=(Client(bench.address), names, late, counts, number))
            watcher.start()
        time.sleep(1)
        client.measure([name + "@0" for name in names])
        client.record("fast")
        time.sleep(arguments.seconds)
        state = client.state()
        client.end_recording()
        info = client.ask("GET", "/v1/recordings/fast")
        client.stop()
        time.sleep(1)
        told = bench.end()
    rate = int(told["dtos"]) / (arguments.seconds or 1)
    print(f"{told['dtos']} datagrams ({rate:.0f}/s), lost ODTs {state['measurement']['lostOdts']}, "
          f"recorded {info['groups'][0]['records']}, "
          f"each client: {', '.join(str(one) for one in counts)}")
    for number, times in enumerate(late):
        times.sort()
        print(f"client {number}: {len(times)} windows, late by {times[len(times) // 2]:.1f} ms in the middle, "
              f"{times[-1]:.1f} ms at most")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--cli", default=os.environ.get("XCPLUMO_CLI", "build/release/bin/xcplumo-cli"))
    parser.add_argument("--sim", default=os.environ.get("XCPLUMO_SIM", "build/release/bin/xcplumo-sim"))
    parser.add_argument("--seconds", type=float, default=20)
    parser.add_argument("--cycle-us", type=int, default=12)
    arguments = parser.parse_args()
    batch(arguments)
    fast(arguments)


if __name__ == "__main__":
    main()
