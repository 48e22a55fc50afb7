"""Runs the CAN tests in the guest; `run` beside this file is the command to use.

What comes back lies in BUILD/can_bench: junit.xml and ctest's own log.
"""
import argparse
import os
import shlex
import shutil
import sys
from pathlib import Path

import guest
from guest_kernel import HERE, BenchError, guest_kernel

SOURCE = HERE.parents[1]
# What the guest's emulated processor makes of a second, in the tests' terms.
SLOWNESS = 10


def cache_folder():
    own = os.environ.get("XCPLUMO_CAN_CACHE")
    if own:
        return Path(own)
    home = os.environ.get("XDG_CACHE_HOME") or Path.home() / ".cache"
    return Path(home) / "xcplumo" / "can_bench"


def parsed():
    parser = argparse.ArgumentParser(
        description="Runs the CAN tests in a guest with real SocketCAN interfaces. Further arguments go to ctest, for "
        "instance -R NAME.", allow_abbrev=False)
    parser.add_argument("--build", type=Path, default=SOURCE / "build/release", help="the build to test (build/release)")
    parser.add_argument("--limit", type=float, default=600, help="seconds until the guest is killed (%(default)s)")
    parser.add_argument("--script", type=Path, help="run this shell script in the guest instead of the tests")
    return parser.parse_known_args()


def script(arguments, ctest):
    """What the guest's shell is to do."""
    lines = ["export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8",
             f"export XCPLUMO_SLOWNESS={SLOWNESS} XCPLUMO_CAN_GUEST=1",
             f"export XCPLUMO_BUILD={shlex.quote(str(arguments.build))}"]
    if arguments.script:
        return "\n".join([*lines, f"cd {shlex.quote(str(SOURCE))}", arguments.script.read_text(encoding="utf-8")])
    tests = shlex.quote(str(arguments.build / "tests/can_bench"))
    return "\n".join([
        *lines, f"cd {tests}",
        "ctest --output-on-failure --no-tests=error --parallel 2 "
        f"--output-junit /bench/junit.xml {shlex.join(ctest)} | cat",  # no terminal: no colours
        "status=${PIPESTATUS[0]}", "cp Testing/Temporary/LastTest.log /bench/", "exit $status", ""])


def main():
    arguments, ctest = parsed()
    arguments.build = arguments.build.resolve()
    if not (arguments.build / "bin/xcplumo-cli").exists():
        raise BenchError(f"{arguments.build} holds no build of this project")
    work = arguments.build / "can_bench"
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir()
    return guest.run(guest_kernel(cache_folder()), work, script(arguments, ctest), arguments.limit)


if __name__ == "__main__":
    try:
        sys.exit(main())
    except BenchError as told:
        sys.exit(f"CAN bench: {told}")
    except KeyboardInterrupt:
        sys.exit(130)
    except OSError as told:
        sys.exit(f"CAN bench: {told.filename or 'system'}: {told.strerror}")
