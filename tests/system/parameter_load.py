"""An ECU with very many parameters side by side: its description, and their memory in the simulated ECU.

As a program it measures `snapshot` and `diff` of 20,000 of them (docs/performance.md):

    XCPLUMO_CLI=build/release/bin/xcplumo-cli XCPLUMO_SIM=build/release/bin/xcplumo-sim tests/system/parameter_load.py
"""
import os
import struct
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from raw_master import RawMaster

BASE = 0x200000
POINTS, SIDE, BLOCK = 8, 16, 445
# Of forty parameters, 4,000 bytes: how many of each, the bytes of one, and its text behind name and type.
KINDS = (("scalar_w", 12, 2, "VALUE", "RL.UWORD 0 CM.TENTH 0 6553.5", ""),
         ("curve", 12, 2 + 4 * POINTS, "CURVE", "RL.CURVE 0 NO_COMPU_METHOD -32768 32767",
          f"/begin AXIS_DESCR STD_AXIS NO_INPUT_QUANTITY NO_COMPU_METHOD {POINTS} 0 65535 /end AXIS_DESCR"),
         ("map", 3, 4 + 4 * SIDE + 2 * SIDE * SIDE, "MAP", "RL.MAP 0 CM.TENTH 0 6553.5",
          f"/begin AXIS_DESCR STD_AXIS NO_INPUT_QUANTITY NO_COMPU_METHOD {SIDE} 0 65535 /end AXIS_DESCR\n" * 2),
         ("scalar_f", 12, 4, "VALUE", "RL.FLOAT 0 NO_COMPU_METHOD -1e38 1e38", ""),
         ("block", 1, 4 * BLOCK, "VAL_BLK", "RL.FLOAT 0 NO_COMPU_METHOD -1e38 1e38", f"MATRIX_DIM {BLOCK}"))
PER_UNIT, UNIT_BYTES = sum(kind[1] for kind in KINDS), sum(kind[1] * kind[2] for kind in KINDS)
HEAD = """ASAP2_VERSION 1 71
/begin PROJECT load "" /begin MODULE load ""
/begin MOD_COMMON "" BYTE_ORDER MSB_LAST ALIGNMENT_WORD 2 ALIGNMENT_LONG 2 ALIGNMENT_FLOAT32_IEEE 2 /end MOD_COMMON
/begin COMPU_METHOD CM.TENTH "" LINEAR "%8.1" "Nm" COEFFS_LINEAR 0.1 0 /end COMPU_METHOD
/begin RECORD_LAYOUT RL.UWORD FNC_VALUES 1 UWORD COLUMN_DIR DIRECT /end RECORD_LAYOUT
/begin RECORD_LAYOUT RL.FLOAT FNC_VALUES 1 FLOAT32_IEEE COLUMN_DIR DIRECT /end RECORD_LAYOUT
/begin RECORD_LAYOUT RL.CURVE NO_AXIS_PTS_X 1 UWORD AXIS_PTS_X 2 UWORD INDEX_INCR DIRECT
  FNC_VALUES 3 SWORD COLUMN_DIR DIRECT /end RECORD_LAYOUT
/begin RECORD_LAYOUT RL.MAP NO_AXIS_PTS_X 1 UWORD NO_AXIS_PTS_Y 2 UWORD AXIS_PTS_X 3 UWORD INDEX_INCR DIRECT
  AXIS_PTS_Y 4 UWORD INDEX_INCR DIRECT FNC_VALUES 5 UWORD COLUMN_DIR DIRECT /end RECORD_LAYOUT
"""


def objects(count):
    """Name, kind and address of each, without a gap between them."""
    address = BASE
    for unit in range(count // PER_UNIT):
        for kind in KINDS:
            for number in range(kind[1]):
                yield f"p{unit:04}_{kind[0]}_{number:02}", kind, address
                address += kind[2]


def write_a2l(path, count):
    """Describes that many parameters, a multiple of forty."""
    blocks = [f'/begin CHARACTERISTIC {name} "Number {at} of the load" {kind[3]} {address:#x} {kind[4]}\n{kind[5]}\n'
              "/end CHARACTERISTIC\n" for at, (name, kind, address) in enumerate(objects(count))]
    path.write_text(HEAD + "".join(blocks) + "/end MODULE /end PROJECT\n")
    return path


def fill(port, count):
    """The numbers of points in use; everything else holds what it held."""
    with RawMaster(port) as master:
        for _, kind, address in objects(count):
            if kind[3] == "CURVE":
                master.write(address, struct.pack("<H", POINTS))
            elif kind[3] == "MAP":
                master.write(address, struct.pack("<HH", SIDE, SIDE))


def fill_plausibly(port, count):
    """Floats in quarters, as calibrations have them, where random bytes have seventeen digits."""
    with RawMaster(port) as master:
        for number, (_, kind, address) in enumerate(objects(count)):
            if "FLOAT" in kind[4]:
                master.write(address, b"".join(struct.pack("<f", (number + i) % 4000 / 4) for i in range(kind[2] // 4)))


def spare(count):
    """The option of the simulated ECU for that much memory."""
    return ("--spare-bytes", str(count // PER_UNIT * UNIT_BYTES))


def measured(arguments, expected):
    begin = time.monotonic()
    done = subprocess.run(list(map(str, arguments)), capture_output=True, text=True, check=False)
    seconds = time.monotonic() - begin
    if done.returncode != expected:
        raise SystemExit(f"{arguments} ended with {done.returncode}: {done.stderr}")
    return seconds


def main(count=20_000, rounds=5, plausible=True):
    cli, size = os.environ["XCPLUMO_CLI"], count // PER_UNIT * UNIT_BYTES
    with tempfile.TemporaryDirectory() as name:
        directory = Path(name)
        a2l = write_a2l(directory / "load.a2l", count)
        with subprocess.Popen([os.environ["XCPLUMO_SIM"], "--port", "0", *spare(count)], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True) as sim:
            port = int(sim.stdout.readline().split()[1])
            reach = [cli, "--a2l", a2l, "--udp", f"127.0.0.1:{port}"]
            fill(port, count)
            if plausible:
                fill_plausibly(port, count)
            with RawMaster(port) as master:
                needed, asked = -(-size // (master.most - 1)), []
                for _ in range(rounds):
                    begin = time.monotonic()
                    master.read(BASE, size)
                    asked.append(time.monotonic() - begin)
            taken = [measured([*reach, "snapshot", directory / f"{i}.json"], 0) for i in range(rounds)]
            sim.terminate()
            told = dict(line.split() for line in sim.communicate()[1].splitlines())
        uploads = int(told["command-SHORT_UPLOAD"]) / rounds
        alone = [measured([cli, "diff", directory / "0.json", directory / "1.json"], 0) for _ in range(rounds)]
        with_a2l = [measured([cli, "--a2l", a2l, "diff", directory / "0.json", directory / "1.json"], 0)
                    for _ in range(rounds)]
        megabytes = (directory / "0.json").stat().st_size / 1e6
    print(f"{count:,} parameters, {size:,} bytes, {needed:,} packets needed, a file of {megabytes:.1f} MB")
    print(f"snapshot: {min(taken):.3f} s, {uploads:,.0f} packets with bytes; bare ping-pong of them {min(asked):.3f} s")
    print(f"diff of two: {min(alone):.3f} s; with the A2L {min(with_a2l):.3f} s")


if __name__ == "__main__":
    sys.exit(main())
