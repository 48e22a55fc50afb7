"""How much gets through, run in the guest: reception beside a bare counter, and 10,000 frames a second recorded."""
import os
import re
import signal
import subprocess
import sys
import tempfile
from pathlib import Path

os.environ["XCPLUMO_CLI"], os.environ["XCPLUMO_SIM"] = (f"{os.environ['XCPLUMO_BUILD']}/bin/{name}"
                                                       for name in ("xcplumo-cli", "xcplumo-sim"))
TESTS = Path(__file__).resolve().parents[1] / "tests"
sys.path += [str(TESTS / "system"), str(TESTS / "can_bench")]
from can_harness import ip  # noqa: E402  pylint: disable=wrong-import-position
from harness import CLI, SIM, record  # noqa: E402  pylint: disable=wrong-import-position
from recording import Recording  # noqa: E402  pylint: disable=wrong-import-position

SECONDS = 20
# One frame per sample, every 100 us.
ECU = ("--can", "vcan0", "--fast-event-us", "100", "--identification", "0", "--timestamp-size", "2")


def measure_once(directory):
    """Measures; returns what is told and what the recording holds."""
    subprocess.run([SIM, *ECU, "--write-a2l", directory / "ecu.a2l"], check=True)
    config = directory / "config.json"
    config.write_text('{"daq": {"maxBusLoad": 100}, "xcp": {"timeoutsMs": [9000, 9000, 9000, 9000, 9000, 9000, 9000]}}')
    with subprocess.Popen([SIM, *ECU], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as sim:
        sim.stdout.readline()
        measure = record(directory / "rec", ["counter_1ms@0"], SECONDS)
        done = subprocess.run([CLI, "-c", config, "--a2l", directory / "ecu.a2l", "-i", "vcan0", *map(str, measure)],
                              capture_output=True, text=True, check=False)
        sim.send_signal(signal.SIGINT)
        told = dict(line.split() for line in sim.communicate()[1].splitlines())
    print(done.stderr.strip())
    return done.stderr, int(told["dtos"]), Recording(directory / "rec").groups[0].counters()


def main():
    ip("link add dev vcan0 type vcan")
    ip("link set vcan0 mtu 72 up")
    for kind in ([], ["fd"]):
        subprocess.run([f"{os.environ['XCPLUMO_BUILD']}/bin/can_receive", "vcan0", "5", *kind], check=True)
    with tempfile.TemporaryDirectory() as name:
        err, sent, values = measure_once(Path(name))
    dropped = int(re.search(r"CAN dropped (\d+)", err).group(1))
    missing = values[-1] - values[0] + 1 - len(values)
    print(f"{SECONDS} s: {sent} frames sent ({sent / SECONDS:.0f}/s), {len(values)} recorded, {missing} missing "
          f"between the first and the last, {dropped} told as dropped")
    # What the ECU sends until it hears of the end is neither recorded nor lost.
    return int(missing != dropped or sent - len(values) - dropped > 10000)


sys.exit(main())
