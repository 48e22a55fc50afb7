"""A measurement whose recording is checked against the model of the simulated ECU and the A2L file that it was made with."""
import tempfile
from pathlib import Path

import ecu_model
from a2l_text import A2l
from harness import SystemTest, record
from recording import Recording

EVENTS = (("cyclic_1ms", 1000000), ("cyclic_10ms", 10000000), ("cyclic_100ms", 100000000), ("crank_tooth", 0))


def check_meta(test, recording, a2l, names, events_known=EVENTS):
    """Groups in ascending event order with the signals asked for, each as its A2L tells."""
    rows = ecu_model.measurements()
    events = sorted({rows[name].event for name in names})
    test.assertEqual([(g.name, g.meta["cycleNs"]) for g in recording.groups], [events_known[e] for e in events])
    for event, group in zip(events, recording.groups):
        told = {s.name: s.meta for s in group.signals}
        test.assertEqual(sorted(told), sorted(name for name in names if rows[name].event == event))
        for name, meta in told.items():
            expected = a2l.signal(name)
            test.assertEqual({k: v for k, v in meta.items() if k != "recordOffset"}, expected)


def check_values(test, group, parameters, step=1):
    """Every step-th sample without a gap, every value the one that the model computes."""
    rows = ecu_model.measurements()
    counter = next(s for s in group.signals if s.name in ecu_model.COUNTERS)
    first = counter.raw(group.records[0])
    for signal in group.signals:
        row = rows[signal.name]
        read = [signal.raw(record) for record in group.records]
        expected = [row.raw(first + i * step, parameters) for i in range(len(read))]
        if read != expected:
            at = next(i for i, pair in enumerate(zip(read, expected)) if pair[0] != pair[1])
            test.fail(f"{signal.name} at sample {first + at * step}: {read[at]} instead of {expected[at]}")


def forty_signals():
    """The counter and the last rows of each cyclic event: all conversions, all masks, most types."""
    rows = [row for row in ecu_model.measurements().values() if row.name not in ecu_model.COUNTERS]
    names = []
    for event, count in ((0, 12), (1, 14), (2, 11)):
        names += [ecu_model.COUNTERS[event]] + [row.name for row in rows if row.event == event][-count:]
    return names


class ModelCase(SystemTest):
    """Measures what drives the model and what it drives, and compares everything that was recorded."""

    def start_measured(self, sim, names, seconds, *options, granularity=1, prescaler="", **how):
        """Starts to record; what check_measured() needs is kept with the program."""
        rows, parameters = ecu_model.measurements(), self.type_parameters(sim, granularity)
        directory = Path(tempfile.mkdtemp(dir=self.dir)) / "recording"
        program = self.start_cli(sim, *options, *record(directory, [f"{n}@{rows[n].event}{prescaler}" for n in names], seconds, **how))
        program.check = (directory, sim.a2l, names, parameters)
        return program

    def check_measured(self, program, events=EVENTS, step=1):
        """It ends well, nothing is told to be lost, every value is the one of the model; returns the recording."""
        self.assertEqual(program.finish(), 0, program.err)
        directory, a2l, names, parameters = program.check
        told, _ = self.statistics(program.err, directory)
        self.assertEqual(told, dict.fromkeys(told, 0) | {"records": told["records"], "recorded": told["records"]})
        of_no_clock = ("the DTOs carry no timestamps", "the ECU does not tell its DAQ resolution")
        told = [line for line in program.err.splitlines() if not any(text in line for text in of_no_clock)]
        self.assertNotIn("warning", "\n".join(told).lower())
        recording = Recording(directory)
        check_meta(self, recording, A2l(a2l.read_text(encoding="utf-8")), names, events)
        for group in recording.groups:
            self.assertTrue(group.records, f"{group.name} has no record")
            check_values(self, group, parameters, step)
        count = sum(len(group.records) for group in recording.groups)
        self.expect(self.run_plain("recording", "check", directory),
                    f"{directory}: {len(recording.groups)} group(s), {count} record(s), sound\n")
        return recording
