"""Several ECUs of one configuration: their names, one measurement on one time base, and what one does to the others."""
import json
import os
import signal
import subprocess

import ecu_model
import harness
from harness import SystemTest, value_line
from mf4_walker import File
from recording import Recording, events

MS = 1_000_000
DRIFT_PPM = 50
SLOWNESS = float(os.environ.get("XCPLUMO_SLOWNESS", "1"))
NAMES = ["engine/counter_1ms@0", "engine/wave@0", "gearbox/counter_10ms@1", "gearbox/engine_speed@1"]


class EcusTest(SystemTest):
    def configure(self, second, policy="retry_forever", is_first=False):
        """An engine on UDP and this other one, or that one first; `self.engine` and what is returned tell of them."""
        self.engine = self.start_sim()
        reach = {"udp": {"host": "127.0.0.1", "port": second.port}} if second.reach[0] == "--udp" else {
            "serial": {"port": str(second.line), "resetDelayMs": 20}}
        # The engine is not to be taken for lost where the machine stands still for a moment.
        ecus = [{"name": "engine", "a2l": str(self.engine.a2l), "udp": {"host": "127.0.0.1", "port": self.engine.port},
                 "xcp": {"timeoutsMs": [5 * harness.QUICK_MS] * 7}, "reconnect": {"heartbeatMs": 5 * harness.HEARTBEAT_MS}},
                {"name": "gearbox", "a2l": str(second.a2l), "reconnect": {"policy": policy}} | reach]
        return self.write(ecus[::-1] if is_first else ecus)

    def write(self, ecus):
        values = {"xcp": {"timeoutsMs": [harness.QUICK_MS] * 7},
                  "reconnect": {"intervalMs": 50, "heartbeatMs": harness.HEARTBEAT_MS, "attempts": 2}}
        return self.config(json.dumps(values | {"ecus": ecus}), f"ecus-{len(list(self.dir.iterdir()))}.json")

    def test_names(self):
        config = self.configure(self.start_sim("--load-signals", 1))
        done = self.run_plain("-c", config, "set", "engine/cal_idle_speed=950", "*/cal_gain=2.5")
        self.assertEqual((done.returncode, [line.split()[0] for line in done.stdout.splitlines()]),
                         (0, ["engine/cal_idle_speed", "engine/cal_gain", "gearbox/cal_gain"]), done.stderr)
        # A name that one ECU has needs no prefix.
        self.assertRegex(self.run_plain("-c", config, "get", "load_0000").stdout, r"^(gearbox/)?load_0000 +\d+\n$")
        # In the order typed; a failure does not stop the others, and each number is its own ECU's.
        done = self.run_plain("-c", config, "get", "gearbox/cal_idle_speed", "cal_gain", "engine/cal_idle_speed", "*/cal_gain")
        self.expect(done, code=1, out=value_line("gearbox/cal_idle_speed", "800.00") + value_line(
            "cal_gain", "ERROR 'cal_gain' is a name of several ECUs: engine/cal_gain or gearbox/cal_gain")
            + value_line("engine/cal_idle_speed", "950.00") + value_line("engine/cal_gain", "2.500")
            + value_line("gearbox/cal_gain", "2.500"))
        self.expect(self.run_plain("-c", config, "--ecu", "engine", "get", "cal_idle_speed"), value_line("cal_idle_speed", "950.00"))
        objects = json.loads(self.run_plain("-c", config, "list", "wave", "--json").stdout)["objects"]
        self.assertEqual({o["name"].split("/")[0] for o in objects}, {"engine", "gearbox"})
        self.assertIn("gearbox/load_0000", self.run_plain("-c", config, "list", "gearbox/load").stdout)
        self.assertEqual(json.loads(self.run_plain("-c", config, "describe", "load_0000", "--json").stdout)["object"]["name"],
                         "load_0000")
        told = json.loads(self.run_plain("-c", config, "info", "--json").stdout)["ecus"]
        self.assertEqual([one["ecu"]["name"] for one in told], ["engine", "gearbox"])

    def test_what_is_refused(self):
        config = self.configure(self.start_sim())
        ecus = json.loads(config.read_text())["ecus"]
        cases = [(["check"], "'check' works on one ECU: --ecu NAME chooses it (engine, gearbox)"),
                 (["--udp", "127.0.0.1:1", "info"],
                  "--udp is of one ECU, and the configuration has several: --ecu chooses one (engine, gearbox)"),
                 (["--ecu", "brake", "info"], "--ecu: there is no ECU 'brake' in the configuration (engine, gearbox)"),
                 (["get", "nothing"], "'nothing' is in the A2L of none of the ECUs engine, gearbox"),
                 (["measure", "-s", "wave"], "measure: 'wave' is a name of several ECUs: engine/wave or gearbox/wave")]
        for arguments, text in cases:
            done = self.run_plain("-c", config, *arguments)
            self.assertEqual((done.returncode, text in done.stderr + done.stdout), (1, True), (arguments, done))
        twice = self.write([ecus[0], dict(ecus[1], udp=ecus[0]["udp"])])
        self.assertIn(f"ECUs engine and gearbox are both at udp:127.0.0.1:{self.engine.port}",
                      self.run_plain("-c", twice, "info").stderr)
        # One that never answers is named, and the others are not asked for longer than it takes.
        silent = self.write([ecus[0], dict(ecus[1], udp={"host": "127.0.0.1", "port": 9})])
        done = self.run_plain("-c", silent, "get", "gearbox/wave", "engine/cal_idle_speed")
        self.assertIn("connect: gearbox: ", done.stderr)
        self.assertIn(value_line("engine/cal_idle_speed", "800.00"), done.stdout)
        self.assertEqual(done.returncode, 1)
        done = self.run_plain("-c", silent, "measure", "-t", "1", "-s", "engine/wave", "gearbox/wave")
        self.assertEqual((done.returncode, "connect: gearbox: " in done.stderr), (1, True), done.stderr)
        self.assertEqual(self.run_plain("-c", silent, "measure", "-t", "0.2", "-s", "engine/wave@0").returncode, 0)

    def check_times(self, group, sim_counters, cycle, ppm):
        """Where the ECU took the samples, by the host's clock; a drift lets the mapping lag (docs/reliability.md)."""
        for number, stamp in list(zip(group.counters(), group.timestamps))[50:]:
            true = sim_counters["start-ns"] + number * cycle / (1 + ppm / 1e6)
            self.assertLess(abs(stamp - true) / MS, 4 * SLOWNESS, (number, stamp))

    def test_one_recording_on_one_time_base(self):
        gearbox = self.start_serial_sim("--baud", "4000000", "--clock-ppm", DRIFT_PPM, "--chatter-ms", "0")
        config = self.configure(gearbox)
        directory = self.dir / "both"
        tool = self.start([harness.CLI, "-c", config, *harness.record(directory, NAMES, 15), "--json"])
        self.assertEqual(tool.finish(), 0, tool.err)
        start, end = (json.loads(line) for line in (tool.out.splitlines()[0], tool.out.splitlines()[-1]))
        self.assertEqual([(g["ecu"], g["event"]) for g in start["groups"]], [("engine", 0), ("gearbox", 1)])
        told = {ecu["name"]: ecu for ecu in end["statistics"]["ecus"]}
        self.assertAlmostEqual(told["gearbox"]["clock"]["driftPpm"], DRIFT_PPM, delta=8 * SLOWNESS)
        self.assertAlmostEqual(told["engine"]["clock"]["driftPpm"], 0, delta=8 * SLOWNESS)
        recording = Recording(directory)
        self.assertEqual([g.meta["ecu"] for g in recording.groups], ["engine", "gearbox"])
        self.assertEqual([len(g.records) for g in recording.groups], [told["engine"]["records"], told["gearbox"]["records"]])
        happened = [harness.counters(sim) for sim in (self.engine, gearbox)]
        models, parameters = ecu_model.measurements(), ecu_model.Parameters(16)
        for group, seen, cycle, ppm in zip(recording.groups, happened, (MS, 10 * MS), (0, DRIFT_PPM)):
            self.check_gapless(group)
            self.check_times(group, seen, cycle, ppm)
            value = models[group.signals[1].name.split("/")[1]]
            for number, record in zip(group.counters(), group.records):
                self.assertEqual(group.signals[1].raw(record), value.raw(number, parameters))
        clocks = {e["ecu"]: e for e in events(directory) if e["event"] == "ecuClock"}
        self.assertEqual({name: clock["driftPpm"] for name, clock in clocks.items()},
                         {name: one["clock"]["driftPpm"] for name, one in told.items()})
        shown = json.loads(self.run_plain("recording", "info", directory, "--json").stdout)
        self.assertEqual([e["ecu"] for e in shown["ecuClocks"]], ["engine", "gearbox"])
        self.expect(self.run_plain("recording", "check", directory), self.run_plain("recording", "check", directory).stdout)
        subprocess.run([harness.CLI, "export", directory, "-o", self.dir / "both.mf4"], check=True, capture_output=True)
        mf4 = File(self.dir / "both.mf4")
        self.addCleanup(mf4.stream.close)
        groups = mf4.groups
        self.assertEqual([g.source[0] for g in groups], ["engine", "gearbox"])
        self.assertEqual([g.source[1].split()[2] for g in groups], ["UDP", "serial"])

    def test_one_is_pulled(self):
        for policy, code, is_first in (("retry_forever", 0, False), ("retry", 2, False), ("retry", 2, True), ("abort", 2, False)):
            with self.subTest(policy, is_first=is_first):
                gearbox = self.start_serial_sim("--chatter-ms", "0")
                config = self.configure(gearbox, policy, is_first)
                directory = self.dir / f"{policy}{is_first}"
                tool = self.start([harness.CLI, "-c", config, *harness.record(directory, NAMES, every=1)])
                tool.wait_for_out("gearbox/engine_speed", 20)
                gearbox.signal(signal.SIGRTMIN)
                tool.wait_for_err("** gearbox: " + ("failed" if policy == "abort" else "reconnecting"))
                if policy == "retry_forever":
                    gearbox.signal(signal.SIGRTMIN)
                    tool.wait_for_err("** gearbox: measuring")
                if policy == "retry":
                    tool.wait_for_err("** gearbox: failed")
                if policy != "abort":
                    before = tool.out.count("engine/wave")
                    tool.wait_for_out("engine/wave", before + 1000)
                    tool.signal(signal.SIGINT)
                self.assertEqual(tool.finish(), code, tool.err)
                lines = [e for e in events(directory) if e["event"] == "outageBegin"]
                self.assertEqual([e["ecu"] for e in lines], ["gearbox"])
                self.check_gapless(next(g for g in Recording(directory).groups if g.meta["ecu"] == "engine"))
                harness.stop(self.engine)

    def test_conditions_over_both(self):
        config = self.configure(self.start_sim("--load-signals", 1))
        done = self.run_plain("-c", config, "wait", '"engine/counter_1ms">100 && load_0000>=0', "--timeout", "30s")
        self.assertEqual(done.returncode, 0, done.stderr)
        done = self.run_plain("-c", config, "measure", "-t", "1", "-p", "0", "-s", "engine/wave@0",
                              "--assert", '"gearbox/counter_10ms"<0', "-r", self.dir / "asserted")
        self.assertEqual((done.returncode, "also measured, as expressions name them: gearbox/counter_10ms" in done.stderr),
                         (3, True), done.stderr)
