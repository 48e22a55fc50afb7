"""What every whole-program test needs: the two programs, a simulated ECU on a port of its own, a private directory.

The programs are found through XCPLUMO_CLI and XCPLUMO_SIM, which CMake sets.
"""
import json
import os
import select
import shutil
import signal
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

CLI = os.environ["XCPLUMO_CLI"]
SIM = os.environ["XCPLUMO_SIM"]
# Sanitizers and shared machines are slow; a test that waits this long has failed.
PATIENCE = 60.0
# Timeout of the protocol and supervision interval of quick_config: short to wait for, long for a busy machine.
QUICK_MS = 400
HEARTBEAT_MS = 800


def wait_until(condition, what, timeout=PATIENCE):
    """Polls until the condition holds; returns its value."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {timeout} s in vain for {what}")
        time.sleep(0.01)


class Program:
    """A running program whose standard error, and standard output unless given elsewhere, go to files."""

    def __init__(self, arguments, directory, stdout=None, env=None):
        self.err_path = Path(tempfile.mkstemp(dir=directory, suffix=".err")[1])
        self.out_path = None if stdout else Path(tempfile.mkstemp(dir=directory, suffix=".out")[1])
        with open(self.err_path, "wb") as err:
            if stdout:
                self.process = subprocess.Popen(arguments, stdin=subprocess.DEVNULL, stdout=stdout, stderr=err, env=env)
            else:
                with open(self.out_path, "wb") as out:
                    self.process = subprocess.Popen(arguments, stdin=subprocess.DEVNULL, stdout=out, stderr=err, env=env)

    @property
    def err(self):
        return self.err_path.read_text(encoding="utf-8", errors="replace")

    @property
    def out(self):
        return self.out_path.read_text(encoding="utf-8", errors="replace")

    def wait_for_err(self, text):
        wait_until(lambda: text in self.err or self.process.poll() is not None, f"{text!r} in {self.err!r}")
        if text not in self.err:
            raise AssertionError(f"the program ended without {text!r}:\n{self.err}")

    def signal(self, number):
        self.process.send_signal(number)

    def finish(self, timeout=PATIENCE):
        """Waits for the end; returns the exit code."""
        try:
            return self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"still running after {timeout} s; standard error:\n{self.err}") from None

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()


class SystemTest(unittest.TestCase):
    """A test with a directory of its own; every program it starts is gone when it ends."""

    maxDiff = 4000

    def setUp(self):
        self.dir = Path(tempfile.mkdtemp(prefix="xcplumo-"))
        self.addCleanup(shutil.rmtree, self.dir, ignore_errors=True)
        self.env = dict(os.environ, HOME=str(self.dir), XDG_CONFIG_HOME=str(self.dir / "config"))

    def start(self, arguments, stdout=None):
        program = Program([str(a) for a in arguments], self.dir, stdout, self.env)
        self.addCleanup(program.kill)
        return program

    def start_sim(self, *options, port=0):
        """A simulated ECU; `port` and `a2l` (its description) are attributes of what comes back."""
        sim = self.start([SIM, "--port", port, *options])
        wait_until(lambda: sim.out.count("\n") > 0 or sim.process.poll() is not None, "the port")
        first = sim.out.splitlines()[0] if sim.out else ""
        if not first.startswith("port "):
            raise AssertionError(f"no port from the simulated ECU: {first!r} {sim.err}")
        sim.port = int(first.split()[1])
        sim.a2l = self.write_a2l(*options)
        return sim

    def write_a2l(self, *options):
        """The description that the simulated ECU writes of itself under these options."""
        path = Path(tempfile.mkdtemp(dir=self.dir)) / "ecu.a2l"
        plain = [o for o in map(str, options)]
        done = subprocess.run([SIM, *plain, "--write-a2l", str(path)], capture_output=True, text=True, check=False)
        if done.returncode != 0:
            raise AssertionError(f"--write-a2l failed: {done.stderr}")
        return path

    def arguments(self, sim, *arguments):
        return [CLI, "--a2l", str(sim.a2l), "--udp", f"127.0.0.1:{sim.port}", *map(str, arguments)]

    def start_cli(self, sim, *arguments, stdout=None):
        return self.start(self.arguments(sim, *arguments), stdout)

    def run_plain(self, *arguments, timeout=PATIENCE, cwd=None):
        """Runs the tool with just these arguments to its end."""
        return subprocess.run([CLI, *map(str, arguments)], capture_output=True, text=True, timeout=timeout,
                              stdin=subprocess.DEVNULL, env=self.env, check=False, cwd=cwd)

    def run_cli(self, sim, *arguments, timeout=PATIENCE):
        """Runs the tool against a simulated ECU to its end."""
        return self.run_plain(*self.arguments(sim, *arguments)[1:], timeout=timeout)

    def quick_config(self, **sections):
        """A configuration file with short times, for tests that wait for them; sections are laid over it."""
        values = {"xcp": {"timeoutsMs": [QUICK_MS] * 7}, "reconnect": {"intervalMs": 50, "heartbeatMs": HEARTBEAT_MS}}
        for name, section in sections.items():
            values[name] = {**values.get(name, {}), **section} if isinstance(section, dict) else section
        return self.config(json.dumps(values), f"quick-{len(list(self.dir.iterdir()))}.json")

    def config(self, text, name="session.json"):
        """A configuration file with this text."""
        path = self.dir / name
        path.write_text(text, encoding="utf-8")
        return path


def stop(program, number=signal.SIGINT, timeout=PATIENCE):
    """Sends a signal and waits; returns the exit code and how many seconds it took."""
    begin = time.monotonic()
    program.signal(number)
    return program.finish(timeout), time.monotonic() - begin


def counters(sim):
    """Ends a simulated ECU; returns its counters by name."""
    stop(sim)
    return {name: int(value) for name, value in (line.split() for line in sim.err.splitlines())}


def readable(descriptor, timeout=PATIENCE):
    return bool(select.select([descriptor], [], [], timeout)[0])


def main():
    unittest.main(verbosity=2)
