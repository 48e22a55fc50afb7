#!/usr/bin/env python3
"""Ten minutes of a recorded measurement at 1,000 records/s: resident memory and processor time per record over time.

Writes one line of comma-separated values per interval: seconds, records, resident kB, processor seconds, and prints a
verdict at the end. Processor time comes in scheduler nanoseconds, not in ticks.
"""
import argparse
import os
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

NAMES = ["counter_1ms", "wave", "ignition_angle", "lambda", "sig_uint64_msb", "wide_field", "switch_a", "knock_level"]
HEADER = 32


def resident_kb(pid):
    for line in Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1])
    return 0


def processor_seconds(pid):
    tasks = Path(f"/proc/{pid}/task").glob("*/schedstat")
    return sum(int(task.read_text().split()[0]) for task in tasks) / 1e9


def measure(arguments, directory):
    simulator = subprocess.Popen([arguments.sim, "--port", "0"], stdout=subprocess.PIPE, text=True)
    port = simulator.stdout.readline().split()[1]
    model = Path(directory, "demo.a2l")
    subprocess.run([arguments.sim, "--write-a2l", model], check=True)
    recording = Path(directory, "recording")
    command = [arguments.cli, "--a2l", model, "--udp", f"127.0.0.1:{port}", "measure", "-r", recording, "-p", "0"]
    for name in NAMES:
        command += ["-s", name + "@0"]
    tool = subprocess.Popen(command)
    rows = []
    begin = time.monotonic()
    try:
        while time.monotonic() - begin < arguments.seconds:
            time.sleep(arguments.interval)
            stride = 8 + sum([4, 4, 1, 1, 8, 8, 1, 1])
            size = Path(recording, "g0000.rec").stat().st_size
            rows.append((time.monotonic() - begin, (size - HEADER) // stride, resident_kb(tool.pid),
                         processor_seconds(tool.pid)))
            print(",".join(f"{value:.4f}" for value in rows[-1]), file=arguments.out, flush=True)
    finally:
        tool.send_signal(signal.SIGINT)
        tool.wait()
        simulator.terminate()
        simulator.wait()
    return rows


def per_record_us(rows, first, last):
    """Processor microseconds per record between two moments of the run, as fractions of it."""
    a, b = rows[int(first * (len(rows) - 1))], rows[int(last * (len(rows) - 1))]
    return (b[3] - a[3]) / max(b[1] - a[1], 1) * 1e6


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--cli", required=True)
    parser.add_argument("--sim", required=True)
    parser.add_argument("--seconds", type=float, default=600)
    parser.add_argument("--interval", type=float, default=5)
    parser.add_argument("--out", type=argparse.FileType("w"), default=sys.stdout)
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory() as directory:
        rows = measure(arguments, directory)
    warm = [row for row in rows if row[0] >= min(60, arguments.seconds / 10)]
    growth = warm[-1][2] - warm[0][2]
    print(f"resident memory {warm[0][2]} kB after {warm[0][0]:.0f} s, {warm[-1][2]} kB at the end ({growth:+d} kB); "
          f"{warm[-1][1]} records; processor time per record {per_record_us(warm, 0, 0.5):.2f} us in the first half, "
          f"{per_record_us(warm, 0.5, 1):.2f} us in the second", file=sys.stderr)


if __name__ == "__main__":
    main()
