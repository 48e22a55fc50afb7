"""Checks of a whole recording against the model of the simulated ECU and the A2L file that it was made with."""
import json
import math
import re

import ecu_model
from a2l_text import A2l
from recording import Recording, rounded_down, rounded_up

STATISTICS = re.compile(r"^(\d+\.\d) s: (\d+) records, lost ODTs 0, missed cycles 0, overloads 0, reconnects 0, "
                        r"CAN dropped 0, error frames 0, recorded (\d+) \(dropped 0\)$", re.MULTILINE)
EVENTS = (("cyclic_1ms", 1000000), ("cyclic_10ms", 10000000), ("cyclic_100ms", 100000000), ("crank_tooth", 0))


def records_without_loss(test, err):
    """The number of records by the statistics line, after a check that it tells of no loss of any kind."""
    found = STATISTICS.search(err)
    test.assertIsNotNone(found, err)
    test.assertEqual(found[2], found[3], err)
    test.assertNotIn("warning", err.lower())
    return int(found[2])


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
    """Samples without a gap, every value the one that the model computes; returns the first sample counter."""
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
    return first


def check_index(test, group):
    times = group.timestamps
    test.assertTrue(all(a <= b for a, b in zip(times, times[1:])), f"{group.name}: timestamps decrease")
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


def check(test, directory, a2l_path, names, parameters=None):
    """All of it; returns the recording."""
    recording = Recording(directory)
    check_meta(test, recording, A2l(a2l_path.read_text(encoding="utf-8")), names)
    for group in recording.groups:
        test.assertTrue(group.records, f"{group.name} has no record")
        check_values(test, group, parameters or ecu_model.Parameters())
        check_index(test, group)
        check_levels(test, group)
    return recording


def spacing(group):
    """Sorted deviations of the distances of records from the nominal period, in nanoseconds."""
    return sorted(abs(b - a - group.meta["cycleNs"]) for a, b in zip(group.timestamps, group.timestamps[1:]))


def figures(group):
    """One line about a group, for reports."""
    deviations = spacing(group)
    at = {p: deviations[min(len(deviations) - 1, int(len(deviations) * p / 100))] for p in (50, 99, 99.9, 100)}
    return json.dumps({"group": group.name, "records": len(group.records), "deviation_ns": at})
