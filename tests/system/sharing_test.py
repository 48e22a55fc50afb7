"""One ECU, several commands: lines typed into a measurement, other terminals that go through it."""
import json
import os
import signal
import socket
import stat
import struct
import subprocess
import unittest

import harness
from mf4_walker import File
from recording import Recording

HELD = r"through pid {} \(\S+: xcplumo-cli .*measure.*\), recording to {}\n"


class SharingTest(harness.SystemTest):
    def measure(self, sim, *arguments, stdin=subprocess.DEVNULL, names=("counter_1ms@0", "counter_10ms@1")):
        """A measurement that others may come to."""
        signals = harness.signals(names)
        options = [*arguments[:2]] if arguments[:1] == ("-c",) else []
        program = self.start(self.arguments(sim, *options, "measure", "-p", 0, *signals, *arguments[len(options):]), stdin=stdin)
        program.wait_for_err(f"measuring {len(names)} signal(s)")
        sockets = self.dir / "run" / "xcplumo"
        program.wait_for(lambda: list(sockets.glob("*.sock")) or "--direct" in map(str, arguments), "a socket")
        return program

    def info(self, directory):
        return json.loads(self.run_plain("recording", "info", directory, "--json").stdout)

    def test_lines_while_it_measures(self):
        """Each does what it says and is answered; the end of the lines ends nothing; each recording holds what came in it."""
        sim = self.start_sim()
        runs = self.dir / "runs"
        program = self.measure(sim, "-r", runs, "--stdin", stdin=subprocess.PIPE)

        def type_line(line, answer):
            program.process.stdin.write(line.encode() + b"\n")
            program.process.stdin.flush()
            program.wait_for_err(answer)

        def wait_for_records(directory):
            program.wait_for(lambda: (directory / "g0000.rec").stat().st_size > 100, "records")

        wait_for_records(next(runs.iterdir()))
        for line, answer in (
                ("mark one", ": one\n"), ("set cal_gain=3", harness.value_line("cal_gain", "3.000")),
                ("  set cal_injector=test mode\r", "test mode\n"), ("set cal_gain=99", "outside the limits [0, 10]\n"),
                ("set nothing", "expected NAME=VALUE\n"), ("record on", "is being recorded to\n"),
                ("record off", "recorded "), ("mark lost", "mark: nothing is recorded\n"),
                ("record off", "record: nothing is recorded\n"), ("record maybe", "expected record on or record off\n"),
                ("record on", f"recording to {runs}/"), ("mark two", ": two\n"), ("mark", "expected mark TEXT\n"),
                ("go", "stdin: 'go' is none of: set NAME=VALUE, mark TEXT, record on, record off, quit\n"),
                ("x" * 70000, "a line beyond 65536 bytes is not taken\n")):
            with self.subTest(line[:20]):
                type_line(line, answer)
        wait_for_records(sorted(runs.iterdir())[1])
        program.process.stdin.write(b"mark last")
        program.process.stdin.close()
        program.wait_for_err(": last\n")
        self.assertEqual(harness.stop(program)[0], 0)
        first, second = sorted(runs.iterdir())
        facts = [self.info(directory) for directory in (first, second)]
        self.assertEqual([[m["text"] for m in f["markers"]] for f in facts], [["one"], ["two", "last"]])
        self.assertEqual([[(w["name"], w["old"], w["new"]) for w in f["writes"]] for f in facts],
                         [[("cal_gain", "1", "3"), ("cal_injector", "on", "test mode")], []])
        for directory, fact in zip((first, second), facts):
            self.check_gapless(Recording(directory).groups[0])
            self.assertTrue(all(0 < m["atNs"] < 60e9 for m in fact["markers"]))
        self.assertRegex(self.run_plain("recording", "show", first, "-s", "counter_1ms").stdout, r"(?m)^marker at \d\.\d{3} s: one$")
        self.assertEqual(self.run_plain("export", second, "-o", self.dir / "x.mf4").returncode, 0)
        self.assertEqual([e[0] for e in File(self.dir / "x.mf4").events], ["two", "last"])

    def test_lines_as_json(self):
        sim = self.start_sim()
        done = self.run_cli(sim, "measure", "-p", 0, "--json", "--stdin", "-t", 30, "-s", "wave@0",
                            input="set cal_gain=4\nset x=1\nmark a\nquit\nset cal_gain=5\n")
        answers = [a for a in map(json.loads, done.stdout.splitlines()) if a["type"] == "answer"]
        self.assertEqual([(a["line"], a["exit"]) for a in answers], [("set cal_gain=4", 0), ("set x=1", 1), ("mark a", 1), ("quit", 0)])
        self.assertEqual([a["values"][0].get("value", {}).get("physical") for a in answers[:2]], [4, None])
        self.assertEqual((answers[2]["errors"][0]["message"], done.returncode), ("nothing is recorded", 0))

    def test_other_terminals(self):
        """What they print is what it is alone; the measurement loses nothing; what they wrote is in its recording."""
        sim = self.start_sim()
        commands = (["get", "cal_gain", "cal_gains", "nothing", "cal_torque_curve"], ["get", "cal_g*", "--json"],
                    ["set", "cal_gain=3", "cal_gains[1]=2", "cal_gain=99", "cal_torque_curve[2]+=1"], ["get", "cal_gain"],
                    ["describe", "cal_gain"], ["snapshot", self.dir / "{}.json", "cal_g*", "cal_t*"], ["page"], ["set", "cal_gain=1"])

        def run_all(kind):
            told = []
            for command in commands:
                done = self.run_cli(sim, *[str(word).format(kind) for word in command])
                told.append([done.stdout, done.stderr, done.returncode])
            return told

        recording = self.dir / "r"
        program = self.measure(sim, "-r", recording)
        told = run_all("a")
        self.assertEqual(harness.stop(program)[0], 0)
        counts, groups = self.statistics(program.err, recording)
        self.assertEqual([counts[name] for name in ("lost ODTs", "missed cycles", "overloads", "reconnects")], [0] * 4)
        for group in groups:
            self.check_gapless(group)
        self.assertEqual([(w["name"], w["old"], w["new"]) for w in self.info(recording)["writes"]],
                         [("cal_gain", "1", "3"), ("cal_gains[1]", "1.25", "2"), ("cal_torque_curve[2]", "60", "61"),
                          ("cal_gain", "3", "1")])
        self.run_cli(sim, "set", "cal_gains[1]=1.25", "cal_torque_curve[2]=60")
        alone = run_all("b")
        through = HELD.format(program.process.pid, recording)
        for command, one, two in zip(commands, told, alone):
            with self.subTest(command):
                if command[0] == "set":
                    self.assertRegex(one[1], "^" + through)
                    one[1] = one[1].split("\n", 1)[1]
                self.assertEqual([str(t).replace("/a.json", "/b.json") for t in one], [str(t) for t in two])
        a, b = (json.loads((self.dir / f"{n}.json").read_text()) for n in "ab")
        self.assertEqual(a["parameters"], b["parameters"])

    def test_who_may_not(self):
        """Another A2L, a host that only lets read, a second host, commands that need the ECU alone, and ways past."""
        sim = self.start_sim()
        program = self.measure(sim, "--read-only")
        pid = program.process.pid
        copy = self.dir / "other.a2l"
        copy.write_text(sim.a2l.read_text())
        same = [copy, "get", "cal_gain"]
        copy2 = self.dir / "changed.a2l"
        copy2.write_text(sim.a2l.read_text() + "\n")
        for a2l, command, reason, code in (
                (*same[:1], same[1:], "", 0),
                (copy2, ["get", "cal_gain"], f"session: pid {pid} holds the ECU with another A2L file: {sim.a2l}, this one is {copy2}\n", 1),
                (sim.a2l, ["unlock"], f"held by pid {pid} (", 1),
                (sim.a2l, ["measure", "-t", 1, "-s", "wave@0"], f"held by pid {pid} (", 1),
                (sim.a2l, ["set", "cal_gain=2"], "was started with --read-only", 1)):
            with self.subTest((a2l, command)):
                done = self.run_plain("--a2l", a2l, *sim.reach, *command)
                self.assertIn(reason, done.stderr + done.stdout)
                self.assertEqual(done.returncode, code, done.stderr)
        folder = self.dir / "run" / "xcplumo"
        modes = [stat.S_IMODE(os.stat(p).st_mode) for p in (folder, *folder.glob("*.sock"))]
        self.assertEqual(modes, [0o700, 0o600])
        self.assertEqual(harness.stop(program)[0], 0)
        self.assertEqual(list(folder.glob("*.sock")), [])
        folder.chmod(0o755)
        program = self.measure(sim, "--direct")
        folder.chmod(0o755)
        done = self.run_cli(sim, "--direct", "get", "cal_gain")
        self.expect(done, harness.value_line("cal_gain", "1.000"))

    def test_what_others_leave_behind(self):
        """A socket of a killed program is taken over; a client that vanishes within a write has it finished by the host."""
        sim = self.start_sim()
        program = self.measure(sim)
        program.signal(signal.SIGKILL)
        program.finish()
        self.assertEqual(len(list((self.dir / "run" / "xcplumo").glob("*.sock"))), 1)
        self.expect(self.run_cli(sim, "get", "cal_gain"), harness.value_line("cal_gain", "1.000"))
        program = self.measure(sim, "-r", self.dir / "r")
        client = Client(next((self.dir / "run" / "xcplumo").glob("*.sock")))
        self.addCleanup(client.close)
        client.ask("begin", waitMs=1000)
        before, after = (struct.pack("<6f", *[value] * 6) for value in (1, 7))
        client.ask("announce", changes=[{"name": "cal_gains", "pieces": [
            {"address": 0x102D0, "extension": 0, "before": before.hex(), "after": after.hex(), "mask": "ff" * 24}]}])
        self.assertIn("would disturb", client.ask("command", commands=["D6"])["failure"]["message"])
        self.assertIn("another program", self.run_cli(sim, "--connect-timeout", 0.2, "get", "cal_gain").stderr)
        half = "F0" + "0C" + after[:12].hex()
        self.assertEqual(client.ask("command", commands=["F6000000D0020100", half])["answers"], ["FF", "FF"])
        client.close()
        program.wait_for_err("cal_gains: written and read back")
        done = self.run_cli(sim, "get", "cal_gains[*]")
        self.assertEqual([line.split()[1] for line in done.stdout.splitlines()], ["7.000"] * 6)
        self.assertEqual(harness.stop(program)[0], 0)
        write, = self.info(self.dir / "r")["writes"]
        self.assertEqual((write["name"], write["new"]), ("cal_gains", "0x" + after.hex().upper()))


    def test_console_lets_others_in(self):
        sim = self.start_serial_sim()
        program = self.start_cli(sim, "console", "-t", 60)
        program.wait_for(lambda: list((self.dir / "run" / "xcplumo").glob("*.sock")), "a socket")
        done = self.run_cli(sim, "set", "cal_gain=3")
        self.assertRegex(done.stderr, rf"^through pid {program.process.pid} \(\S+: xcplumo-cli .*console.*\)\n$")
        self.assertEqual((done.stdout, done.returncode), (harness.value_line("cal_gain", "3.000"), 0))
        self.assertEqual(harness.stop(program)[0], 0)

    def test_host_killed_within_a_write(self):
        """Whichever command it is at: the client says so, and the ECU holds what it did before or all that was written."""
        ends, config = {0: 0, 1: 0}, self.quick_config()
        for step in range(1, 40, harness.EVERY):
            relay = self.start_relay()
            program = self.measure(relay, "-c", config, "-r", self.dir / f"k{step}", names=["counter_10ms@1"])
            begun = len(relay.commands)

            def change(datagram):
                if len(relay.commands) >= begun + step and program.process.poll() is None:
                    program.signal(signal.SIGKILL)
                return datagram

            relay.change = change
            done = self.run_cli(relay, "-c", config, "set", "cal_gain=3")
            alone = program.process.poll() is None
            program.kill()
            self.assertEqual(done.returncode, int("has ended, which held the ECU" in done.stderr + done.stdout), (step, done))
            held = self.run_cli(relay.sim, "get", "cal_gain").stdout.split()[1]
            relay.sim.kill()
            self.assertIn(held, ("1.000", "3.000"), (step, done))
            ends[done.returncode] += 1
            if alone:
                break
        self.assertTrue(alone and ends[1] > 5 // harness.EVERY, (step, ends))

    def test_presence_and_another_way_in(self):
        """A host that cannot be reached is named to whoever comes, until it has gone; a set that came through it is its own."""
        relay = self.start_relay("--epk", "PUMP 3.1", "--pages", 2)
        quick = {"reconnect": {"policy": "retry_forever", "heartbeatMs": 300}, "calibration": {"onReset": "reapply"}}
        values = self.dir / "v.json"
        self.assertEqual(self.run_cli(relay, "snapshot", values, "cal_gain").returncode, 0)
        values.write_text(values.read_text().replace('"value": 1', '"value": 5'))
        program = self.measure(relay, "-c", self.quick_config(**quick), "-r", self.dir / "r")
        other = self.dir / "elsewhere"
        other.mkdir(mode=0o700)
        there = dict(self.env, XDG_RUNTIME_DIR=str(other))
        refused = self.run_cli(relay, "get", "cal_gain", env=there)
        self.assertIn(f"is held by pid {program.process.pid} (", refused.stderr)
        self.assertIn("hint: --take-over goes on", refused.stderr)
        done = self.run_cli(relay, "apply", "--yes", values)
        self.assertEqual(done.returncode, 0, done.stderr)
        relay.sim.signal(signal.SIGUSR1)
        program.wait_for_err("1 of 1 object(s) that this session wrote are written again and read back")
        program.wait_for_err("** measuring: reconnected after")
        self.assertEqual(self.run_cli(relay, "get", "cal_gain").stdout, harness.value_line("cal_gain", "5.000"))
        taken = self.run_cli(relay, "--take-over", "get", "cal_gain", env=there)
        self.expect(taken, harness.value_line("cal_gain", "5.000"))
        program.kill()
        self.expect(self.run_cli(relay, "get", "cal_gain", env=there), harness.value_line("cal_gain", "5.000"))


class Client:
    """Speaks to a host as the tool does, as far as it goes."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(str(path))
        self.socket.settimeout(harness.PATIENCE)

    def ask(self, route, **body):
        text = json.dumps(body)
        self.socket.sendall(f"POST /v1/share/{route} HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\n"
                            f"Content-Length: {len(text)}\r\n\r\n{text}".encode())
        answer = b""
        while b"\r\n\r\n" not in answer:
            answer += self.socket.recv(65536)
        head, _, rest = answer.partition(b"\r\n\r\n")
        length = int(next(l for l in head.lower().split(b"\r\n") if l.startswith(b"content-length:")).split(b":")[1])
        while len(rest) < length:
            rest += self.socket.recv(65536)
        return json.loads(rest)

    def close(self):
        self.socket.close()


if __name__ == "__main__":
    unittest.main()
