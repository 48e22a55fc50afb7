"""What every whole-program test needs: the two programs, a simulated ECU on a port of its own, a private directory.

The programs are found through XCPLUMO_CLI and XCPLUMO_SIM, which CMake sets.
"""
import codecs
import json
import os
import re
import select
import shutil
import signal
import subprocess
import tempfile
import termios
import time
import unittest
from pathlib import Path

from ecu_model import Parameters
from recording import Recording
from relay import Relay

CLI = os.environ["XCPLUMO_CLI"]
SIM = os.environ["XCPLUMO_SIM"]
# Under a sanitizer every third step or shape has to do where there are dozens of a kind; what is installed is tried with all.
EVERY = int(os.environ.get("XCPLUMO_EVERY", "1"))
# Sanitizers and shared machines are slow; a test that waits this long has failed.
PATIENCE = 60.0
# Timeout of the protocol and supervision interval of quick_config: short to wait for, long for a busy machine.
QUICK_MS = 400
HEARTBEAT_MS = 800
STATISTICS = re.compile(
    r"(?m)^\d+\.\d s: (\d+) records, lost ODTs (\d+), missed cycles (\d+), overloads (\d+), reconnects (\d+), "
    r"CAN dropped 0, error frames 0(?:, recorded (\d+) \(dropped 0\))?$")
COUNTS = ("records", "lost ODTs", "missed cycles", "overloads", "reconnects", "recorded")


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


def value_line(name, text):
    """What `get` and `set` print."""
    return f"{name:<50} {text}\n"


def signals(names):
    """The arguments of `measure` for these signals."""
    return [argument for name in names for argument in ("-s", name)]


def record(directory, names, seconds=None, every=0):
    """The arguments that record these signals, until Ctrl-C or for some seconds."""
    return ["measure", "-p", every, "-r", directory, *signals(names), *(["-t", seconds] if seconds else [])]


class Terminal:
    """The tool on a terminal of its own, whose keys are pressed and whose screen is read here."""

    def __init__(self, arguments, env, rows=24, columns=80):
        self.master, self.slave = os.openpty()
        termios.tcsetwinsize(self.slave, (rows, columns))
        self.before = termios.tcgetattr(self.slave)
        self.process = subprocess.Popen(arguments, env=env, preexec_fn=lambda: os.login_tty(self.slave))
        self.screen, self.decoder = "", codecs.getincrementaldecoder("utf-8")()

    def type(self, keys):
        os.write(self.master, keys)

    def wait_for(self, text):
        """Waits for a text; "" is there when the program has ended."""
        def look():
            ended = self.process.poll() is not None
            while select.select([self.master], [], [], 0)[0]:
                self.screen += self.decoder.decode(os.read(self.master, 65536))
            return text in self.screen if text else ended
        wait_until(look, f"{text!r} on the screen {self.screen!r}")

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        os.close(self.master)
        os.close(self.slave)


class Program:
    """A running program whose standard error and standard output go to files unless given elsewhere."""

    def __init__(self, arguments, directory, env, stdout=None, stderr=None, stdin=subprocess.DEVNULL):
        with (tempfile.NamedTemporaryFile(dir=directory, delete=False) as out,
              tempfile.NamedTemporaryFile(dir=directory, delete=False) as err):
            self.out_path, self.err_path = Path(out.name), Path(err.name)
            self.process = subprocess.Popen(arguments, stdin=stdin, stdout=stdout or out,
                                            stderr=stderr or err, env=env)

    @property
    def err(self):
        return self.err_path.read_text(encoding="utf-8", errors="replace")

    @property
    def out(self):
        return self.out_path.read_text(encoding="utf-8", errors="replace")

    def wait_for(self, condition, what):
        """Waits for something that happens while the program runs."""
        def ended():
            return self.process.poll() is not None

        wait_until(lambda: condition() or ended(), f"{what}; standard error:\n{self.err}")
        if not condition():
            raise AssertionError(f"the program ended without {what}:\n{self.err}")

    def wait_for_err(self, text):
        self.wait_for(lambda: text in self.err, repr(text))

    def wait_for_out(self, text, count=1):
        self.wait_for(lambda: self.out.count(text) >= count, repr(text))

    def signal(self, number):
        self.process.send_signal(number)

    def await_end(self):
        """Waits for the end alone: what the kernel takes to reap, a minute on a busy machine, is not the program's."""
        if self.process.returncode is None:
            with open(os.pidfd_open(self.process.pid), "rb", buffering=0) as end:
                if not select.select([end], [], [], PATIENCE)[0]:
                    raise AssertionError(f"still running after {PATIENCE} s; standard error:\n{self.err}")

    def finish(self):
        """Waits for the end; returns the exit code."""
        self.await_end()
        return self.process.wait()

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
        self.env = dict(os.environ, HOME=str(self.dir), XDG_CONFIG_HOME=str(self.dir / "config"),
                        XDG_STATE_HOME=str(self.dir / "state"), XDG_RUNTIME_DIR=str(self.dir / "run"),
                        TMPDIR=str(self.dir))
        (self.dir / "run").mkdir(mode=0o700)

    def start(self, arguments, **streams):
        program = Program([str(a) for a in arguments], self.dir, self.env, **streams)
        self.addCleanup(program.kill)
        return program

    def start_sim(self, *options, port=0):
        """A simulated ECU; its description and how to reach it are attributes of what comes back."""
        sim = self.start([SIM, "--port", port, *options])
        sim.wait_for_out("\n")
        sim.port = int(sim.out.splitlines()[0].removeprefix("port "))
        sim.a2l, sim.reach = self.write_a2l(*options), ["--udp", f"127.0.0.1:{sim.port}"]
        return sim

    def start_serial_sim(self, *options):
        """The same on a serial line; `line` stays when the ECU is pulled and plugged."""
        line = self.dir / f"line{len(list(self.dir.iterdir()))}"
        sim = self.start([SIM, "--serial-link", line, *options])
        sim.wait_for_out("\n")
        self.assertEqual(sim.out, f"serial {line}\n", sim.err)
        sim.line, sim.a2l, sim.reach = line, self.write_a2l("--serial", *options), ["--serial", line, "--reset-delay", 20]
        return sim

    def start_relay(self, *options):
        """A simulated ECU behind a relay, which takes its place; the ECU is an attribute of it."""
        relay = Relay(self.start_sim(*options))
        self.addCleanup(relay.close)
        return relay

    def write_a2l(self, *options):
        """The description that the simulated ECU writes of itself under these options."""
        path = Path(tempfile.mkdtemp(dir=self.dir)) / "ecu.a2l"
        subprocess.run([SIM, *map(str, options), "--write-a2l", str(path)], check=True)
        return path

    def arguments(self, sim, *arguments):
        return [CLI, "--a2l", str(sim.a2l), *map(str, sim.reach), *map(str, arguments)]

    def start_cli(self, sim, *arguments, stdout=None):
        return self.start(self.arguments(sim, *arguments), stdout=stdout)

    def start_piped(self, sim, *arguments):
        """Starts the tool; returns it and the end of a pipe that reads its standard output."""
        reading, writing = os.pipe()
        reader = os.fdopen(reading, "rb")
        self.addCleanup(reader.close)
        program = self.start_cli(sim, *arguments, stdout=writing)
        os.close(writing)
        return program, reader

    def run_plain(self, *arguments, timeout=PATIENCE, **options):
        """Runs the tool with just these arguments to its end."""
        options = {"env": self.env, "stdin": None if "input" in options else subprocess.DEVNULL} | options
        return subprocess.run([CLI, *map(str, arguments)], capture_output=True, text=True, timeout=timeout, check=False,
                              **options)

    def run_cli(self, sim, *arguments, **options):
        """Runs the tool against a simulated ECU to its end."""
        return self.run_plain(*self.arguments(sim, *arguments)[1:], **options)

    def type_parameters(self, sim, granularity=1):
        """Sets what drives the ECU's model; returns the parameters."""
        parameters = Parameters(granularity)
        done = self.run_cli(sim, "set", *parameters.typed)
        self.expect(done, done.stdout)
        return parameters

    def expect(self, done, out="", err="", code=0):
        """All that a program printed, and how it ended; hints count where `err` has one."""
        told = done.stderr if "hint: " in err else without_hints(done.stderr)
        self.assertEqual((told, done.stdout, done.returncode), (err, out, code))

    def statistics(self, err, directory=None):
        """The counts of the one statistics line, and the groups of the recording, which must hold as many records."""
        found = STATISTICS.findall(err)
        self.assertEqual(len(found), 1, err)
        told = {name: int(number or 0) for name, number in zip(COUNTS, found[0])}
        if directory is None:
            return told, []
        groups = Recording(directory).groups
        self.assertEqual([told["recorded"], sum(len(g.records) for g in groups)], [told["records"]] * 2, err)
        for group in groups:
            self.assertEqual(group.timestamps, sorted(group.timestamps))
        return told, groups

    def shown(self, names, out, err, code):
        """Name and text of each line of `get` or `set`: of all that was asked for, in order, or none but a reason."""
        lines = [line.split(None, 1) for line in out.splitlines()]
        if not lines:
            self.assertRegex(err, "(?m)^connect: ")
        else:
            self.assertEqual([name for name, _ in lines], list(names))
        self.assertEqual(code, int(not lines or any(text.startswith("ERROR ") for _, text in lines)))
        return lines

    def check_shown(self, values, names, *told):
        """Each text is the ECU's value or an error; returns how many are values."""
        right = [line for line in self.shown(names, *told) if not line[1].startswith("ERROR ")]
        self.assertEqual(right, [[name, values[name]] for name, _ in right])
        return len(right)

    def check_gapless(self, group):
        """The first signal of a group is a counter: it goes up by one from record to record."""
        values = group.counters()
        self.assertEqual(values, list(range(values[0], values[0] + len(values))))

    def quick_config(self, **sections):
        """A configuration file with short times, for tests that wait for them; sections are laid over it."""
        values = {"xcp": {"timeoutsMs": [QUICK_MS] * 7}, "reconnect": {"intervalMs": 50, "heartbeatMs": HEARTBEAT_MS}}
        for name, section in sections.items():
            values[name] = values.get(name, {}) | section
        return self.config(json.dumps(values), f"quick-{len(list(self.dir.iterdir()))}.json")

    def config(self, text, name="session.json"):
        """A configuration file with this text."""
        path = self.dir / name
        path.write_text(text, encoding="utf-8")
        return path


def without_hints(text):
    return re.sub(r"(?m)^hint: .*\n", "", text)


def stop(program, number=signal.SIGINT):
    """Sends a signal and waits; returns the exit code and how many seconds it took."""
    begin = time.monotonic()
    program.signal(number)
    program.await_end()
    seconds = time.monotonic() - begin
    return program.finish(), seconds


def counters(sim):
    """Ends a simulated ECU; returns its counters by name."""
    stop(sim)
    return {name: int(value) for name, value in (line.split() for line in sim.err.splitlines())}
