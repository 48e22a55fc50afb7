"""Checks of a whole recording against the model of the simulated ECU and the A2L file that it was made with."""
import math

import ecu_model
from a2l_text import A2l
from recording import Recording, rounded_down, rounded_up

EVENTS = (("cyclic_1ms", 1000000), ("cyclic_10ms", 10000000), ("cyclic_100ms", 100000000), ("crank_tooth", 0))


def check_meta(test, recording, a2l, names):
    """Groups in ascending event order with the signals asked for, each as its A2L tells."""
    rows = ecu_model.measurements()
    events = sorted({rows[name].event for name in names})
    test.assertEqual([(g.name, g.meta["cycleNs"]) for g in recording.groups], [EVENTS[e] for e in events])
    for event, group in zip(events, recording.groups):
        told = {s.name: s.meta for s in group.signals}
        test.assertEqual(sorted(told), sorted(name for name in names if rows[name].event == event))
        for name, meta in told.items():
            expected = a2l.signal(name)
            test.assertEqual({k: v for k, v in meta.items() if k != "recordOffset"}, expected)


def check_values(test, group, parameters):
    """Samples without a gap, every value the one that the model computes."""
    rows = ecu_model.measurements()
    counter = next(s for s in group.signals if s.name in ecu_model.COUNTERS)
    first = counter.raw(group.records[0])
    for signal in group.signals:
        row = rows[signal.name]
        read = [signal.raw(record) for record in group.records]
        expected = [row.raw(first + i, parameters) for i in range(len(read))]
        if read != expected:
            at = next(i for i, pair in enumerate(zip(read, expected)) if pair[0] != pair[1])
            test.fail(f"{signal.name} at sample {first + at}: {read[at]} instead of {expected[at]}")


def check_index(test, group):
    times = group.timestamps
    test.assertEqual(group.index, [(times[i], times[i + 15]) for i in range(0, len(times) - 15, 16)])


def extremes(values):
    """The pair that a block of values has in a level: a float not above the least, one not below the greatest."""
    valid = [value for value in values if value == value]
    return (rounded_down(min(valid)), rounded_up(max(valid))) if valid else (math.nan, math.nan)


def check_levels(test, group):
    """Every level holds the outward rounded extremes of the physical values, and none is missing."""
    values = [[s.conversion.physical(s.raw(record)) for record in group.records] for s in group.signals]
    test.assertEqual(len(group.levels), int(math.log(len(group.records), 16) + 1e-9) if group.records else 0)
    for level, entries in enumerate(group.levels, 1):
        span = 16 ** level
        test.assertEqual(len(entries), len(group.records) // span)
        for i, signal in enumerate(group.signals):
            for k, entry in enumerate(entries):
                expected = extremes(values[i][k * span:(k + 1) * span])
                test.assertEqual(repr(entry[2 * i:2 * i + 2]), repr(expected),
                                 f"{signal.name}, level {level}, entry {k}")


def check(test, err, directory, a2l_path, names, parameters):
    """All of it, and that nothing was told to be lost; returns the recording."""
    told, _ = test.statistics(err, directory)
    test.assertEqual(told, dict.fromkeys(told, 0) | {"records": told["records"], "recorded": told["records"]})
    told = [line for line in err.splitlines() if "the DTOs carry no timestamps" not in line]
    test.assertNotIn("warning", "\n".join(told).lower())
    recording = Recording(directory)
    check_meta(test, recording, A2l(a2l_path.read_text(encoding="utf-8")), names)
    for group in recording.groups:
        test.assertTrue(group.records, f"{group.name} has no record")
        check_values(test, group, parameters)
        check_index(test, group)
        check_levels(test, group)
    return recording
