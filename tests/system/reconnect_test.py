"""The ECU ends, restarts, changes or falls silent while measuring: what each reconnect policy makes of it."""
import re
import signal
import unittest

import harness
from recording import Recording
from relay import STOP_ALL, Relay

NO_DATA = f"connection lost: no DAQ data for {harness.HEARTBEAT_MS} ms"
STATISTICS = re.compile(
    r"(?m)^\d+\.\d s: (\d+) records, lost ODTs (\d+), missed cycles (\d+), overloads (\d+), reconnects (\d+), "
    r"CAN dropped 0, error frames 0(?:, recorded (\d+) \(dropped (\d+)\))?$")


def states(program):
    return [line for line in program.err.splitlines() if line.startswith("** ")]


class ReconnectTest(harness.SystemTest):
    def relay(self, sim):
        relay = Relay(sim)
        self.addCleanup(relay.close)
        return relay

    def measure(self, sim, *arguments, **config):
        """Starts a recording measurement of two lists and waits for its first records."""
        self.recording = self.dir / "rec"
        program = self.start_cli(sim, "-c", self.quick_config(**config), "measure", "-p", "20", "-s", "counter_1ms@0",
                                 "-s", "counter_10ms@1", "-r", self.recording, *arguments)
        harness.wait_until(lambda: program.out.count("counter_10ms") or program.process.poll() is not None, "records")
        return program

    def statistics(self, program):
        """The numbers of the statistics line; the recording must hold as many records."""
        found = STATISTICS.findall(program.err)
        self.assertEqual(len(found), 1, program.err)
        numbers = dict(zip(("records", "lost", "missed", "overloads", "reconnects", "recorded", "dropped"),
                           (int(n) for n in found[0])))
        self.assertEqual((numbers["recorded"], numbers["dropped"]), (numbers["records"], 0))
        self.groups = Recording(self.recording).groups
        self.assertEqual(sum(len(g.records) for g in self.groups), numbers["recorded"])
        for group in self.groups:
            self.assertEqual(group.timestamps, sorted(group.timestamps))
        return numbers

    def counters_of(self, group):
        return [group.signals[0].raw(record) for record in group.records]

    def test_abort_ends_with_what_was_recorded(self):
        sim = self.start_sim()
        program = self.measure(sim)
        sim.kill()
        self.assertEqual(program.finish(), 2, program.err)
        self.assertEqual(states(program), ["** failed: " + NO_DATA])
        self.assertGreater(self.statistics(program)["recorded"], 0)
        for group in self.groups:
            values = self.counters_of(group)
            self.assertEqual(values, list(range(values[0], values[0] + len(values))))

    def test_abort_by_the_status_watch(self):
        # A heartbeat below four periods of the fastest list: GET_STATUS is asked.
        slow = {"heartbeatMs": 150}
        sim = self.start_sim()
        relay = self.relay(sim)
        arguments = ["measure", "-s", "counter_100ms@2", "-p", "1"]
        rows = [
            (relay.hide, "GET_STATUS: SYNCH: no response from slave"),
            (lambda: relay.inject(STOP_ALL), "DAQ no longer running in the ECU"),
        ]
        for act, reason in rows:
            with self.subTest(reason):
                program = self.start_cli(relay, "-c", self.quick_config(reconnect=slow), *arguments)
                harness.wait_until(lambda: "counter_100ms" in program.out or program.process.poll() is not None, "data")
                act()
                self.assertEqual(program.finish(), 2, program.err)
                self.assertEqual(states(program), [f"** failed: connection lost: {reason}"])
                self.assertRegex(program.err, STATISTICS)
                relay.aim(sim)

    def test_terminated_session(self):
        for heartbeat, reason in ((harness.HEARTBEAT_MS, NO_DATA[17:]), (150, "XCP slave not connected")):
            with self.subTest(reason):
                event = 2 if heartbeat == 150 else 0
                sim = self.start_sim("--fault", "terminate:DAQ:3")
                config = self.quick_config(reconnect={"heartbeatMs": heartbeat})
                program = self.start_cli(sim, "-c", config, "measure", "-s", f"gear@{event}")
                self.assertEqual(program.finish(), 2, program.err)
                self.assertEqual(states(program), [f"** failed: connection lost: {reason}"])
                self.assertEqual(STATISTICS.findall(program.err)[0][0], "3")

    def test_retry_goes_on_with_an_ecu_that_was_replaced(self):
        relay = self.relay(self.start_sim())
        program = self.measure(relay, xcp={"connectAttempts": 1}, reconnect={"policy": "retry", "attempts": 1000})
        begun = relay.names()
        relay.hide()
        program.wait_for_err("reconnect attempt 2:")
        relay.aim(self.start_sim())
        program.wait_for_err("** measuring: reconnected after")
        printed = program.out.count("\n")
        harness.wait_until(lambda: program.out.count("\n") > printed + 10, "records after the reconnection")
        self.assertEqual(harness.stop(program)[0], 0, program.err)
        lost, back = states(program)
        self.assertEqual(lost, "** reconnecting: " + NO_DATA)
        attempts = int(re.fullmatch(r"\*\* measuring: reconnected after (\d+) attempt\(s\)", back).group(1))
        warned = [int(n) for n in re.findall(r"reconnect attempt (\d+): CONNECT: no response from slave after 1 "
                                             r"attempt\(s\)\n", program.err)]
        self.assertEqual(warned, list(range(1, attempts)))
        self.assertEqual(self.statistics(program)["reconnects"], 1)
        # The same commands as at the start, from the last CONNECT on; a stop and a DISCONNECT at the end.
        names = relay.names()
        again = names[len(names) - 1 - names[::-1].index("CONNECT"):]
        self.assertEqual(again, begun + ["START_STOP_SYNCH", "DISCONNECT"])
        for group in self.groups:
            values = self.counters_of(group)
            restarts = [i for i in range(1, len(values)) if values[i] != values[i - 1] + 1]
            self.assertEqual(len(restarts), 1)
            pause = group.timestamps[restarts[0]] - group.timestamps[restarts[0] - 1]
            self.assertGreater(pause, 300_000_000)

    def test_retry_goes_on_after_a_restart_at_the_same_address(self):
        sim = self.start_sim()
        program = self.measure(sim, "--reconnect", "retry", xcp={"connectAttempts": 1}, reconnect={"attempts": 1000})
        sim.kill()  # its port refuses from now on
        program.wait_for_err("reconnect attempt 1: CONNECT: no response from slave after 1 attempt(s)\n")
        again = self.start_sim(port=sim.port)
        program.wait_for_err("** measuring: reconnected after")
        self.assertEqual(harness.stop(program, signal.SIGTERM)[0], 0, program.err)
        self.assertEqual(self.statistics(program)["reconnects"], 1)
        self.assertGreater(harness.counters(again)["samples"], 0)

    def test_retry_gives_up(self):
        sim = self.start_sim()
        program = self.measure(sim, "--reconnect", "retry", xcp={"connectAttempts": 0}, reconnect={"attempts": 3})
        sim.kill()
        self.assertEqual(program.finish(), 2, program.err)
        self.assertEqual(states(program), ["** reconnecting: " + NO_DATA,
                                           "** failed: reconnect failed after 3 attempt(s)"])
        self.assertEqual(re.findall(r"reconnect attempt (\d+): (.*)", program.err),
                         [(str(n), "CONNECT: no response from slave after 1 attempt(s)") for n in (1, 2, 3)])
        numbers = self.statistics(program)
        self.assertEqual(numbers["reconnects"], 1)
        self.assertGreater(numbers["recorded"], 0)

    def test_retry_forever_through_two_restarts(self):
        sim = self.start_sim()
        relay = self.relay(sim)
        program = self.measure(relay, "--reconnect", "retry_forever", reconnect={"attempts": 1})
        relay.hide()
        program.wait_for_err("reconnect attempt 4:")
        sim.signal(signal.SIGUSR1)
        relay.aim(sim)
        program.wait_for_err("** measuring: reconnected after")
        sim.signal(signal.SIGUSR1)
        harness.wait_until(lambda: program.err.count("** measuring: reconnected after") == 2, "the second time")
        self.assertEqual(harness.stop(program, signal.SIGTERM)[0], 0)
        self.assertEqual([line.split(":")[0] for line in states(program)],
                         ["** reconnecting", "** measuring"] * 2)
        self.assertEqual(self.statistics(program)["reconnects"], 2)

    def test_ecu_that_went_on_measuring(self):
        relay = self.relay(self.start_sim("--fault", "error:FREE_DAQ:2:1:0x11"))
        program = self.measure(relay, "--reconnect", "retry", reconnect={"attempts": 1000})
        sim, begun = relay.back, len(relay.commands)
        relay.hide()
        program.wait_for_err("** reconnecting: ")
        relay.back = sim
        relay.waker.send(b"x")
        program.wait_for_err(": DAQ: FREE_DAQ: ERR_DAQ_ACTIVE (0x11)\n")
        program.wait_for_err("** measuring: reconnected after")
        refused = relay.names().index("FREE_DAQ", begun)
        self.assertEqual(relay.commands[refused + 1], STOP_ALL)
        self.assertEqual(relay.names()[refused + 2], "CONNECT")
        self.assertEqual(harness.stop(program)[0], 0, program.err)

    def test_ecu_that_comes_back_with_another_shape(self):
        relay = self.relay(self.start_sim())
        program = self.measure(relay, "--reconnect", "retry_forever")
        relay.aim(self.start_sim("--timestamp-size", "2"))
        program.wait_for_err(": DAQ: the ECU came back with another timestamp size\n")
        relay.aim(self.start_sim("--no-daq"))
        program.wait_for_err(": DAQ: slave does not offer the DAQ resource\n")
        relay.aim(self.start_sim("--daq-entries", "1"))
        program.wait_for_err(": DAQ: ALLOC_ODT_ENTRY: ERR_MEMORY_OVERFLOW (0x30)\n")
        relay.aim(self.start_sim())
        program.wait_for_err("** measuring: reconnected after")
        self.assertEqual(harness.stop(program)[0], 0, program.err)
        self.assertEqual(self.statistics(program)["reconnects"], 1)


if __name__ == "__main__":
    unittest.main()
