"""Exports of recordings that are made here, byte by byte, and read back without the tool."""
import csv
import json
import math
import os
import resource
import signal
import struct
from datetime import datetime, timezone
from fractions import Fraction

from harness import CLI, SystemTest, stop, wait_until
from mf4_walker import File
from recording import Signal, head

# A host that has been up for 400 days: a double no longer holds its nanoseconds.
START_UTC, START_HOST, CYCLE = 1_700_000_000_000_000_000, 34_560_000_000_000_123, 10_000_000
ABOUT = {"utcOffsetMin": -210, "a2lName": "Motor & <1>.a2l", "a2lSha256": "0123456789abcdef" * 4}
# Of the first signal of a group, the second, ...: what the recording tells, what MDF gets.
LIMITS = [(None, None), ([-1.5, 10.0], (-1.5, 10.0)), ([0.0, "inf"], None), ([0.0, 0.0], None), ([-7, 1e300], (-7.0, 1e300))]
MIDDLE = {"type": "verbal", "verbal": [{"min": 1.0, "max": 2.5, "text": "low, \"quoted\""},
                                       {"min": 2.5, "max": 4.0, "text": "höher"},
                                       {"min": -1.0, "max": 9.0, "text": "around"}]}
KEYS = {"type": "verbal", "verbal": [{"min": 3.0, "max": 3.0, "text": "three"}, {"min": 0.0, "max": 0.0, "text": "off\nx"},
                                     {"min": 3.0, "max": 3.0, "text": "hidden"}], "defaultText": "other"}
STEPS = {"type": "table", "interpolate": False, "table": [[1.0, 10.0], [3.0, 30.5], [3.0, 99.0], [7.0, -1.0]]}
BEYOND = {"type": "verbal", "verbal": [{"min": -1e300, "max": 3.0, "text": "few"}, {"min": 9.0, "max": 1e10, "text": "many"},
                                       {"min": 300.0, "max": 400.0, "text": "never"}], "defaultText": "some"}
NEVER = {"type": "verbal", "verbal": [{"min": 300.0, "max": 300.0, "text": "300"}], "defaultText": "all"}
SMALL = [0, 1, 2, 3, 4, 5, 7, 9, 11, 127]
FLOATS = [0.0, -0.0, 0.1, 1.0, 2.5, 2.0, 3.0, 1e-7, 1e22, math.nan, math.inf, -math.inf, 4.0, 123456.789]
PHYSICAL = {"full rational", "stepped", "formula", "float default", "no line", "cancelled"}
# name, type, big-endian, mask, conversion, raw values
SIGNALS = [
    ("plain", "UBYTE", 0, 0, {"type": "identical", "unit": "°C", "format": "%5.2"}, SMALL),
    ("big, signed", "SWORD", 1, 0, {"type": "linear", "linear": [0.1, -3.7], "unit": "km/h"}, [-32768, 32767, 0, -1, 5]),
    ("masked", "ULONG", 0, 0x7F800, {"type": "identical"}, SMALL),
    ("big masked", "SWORD", 1, 0x0FF0, {"type": "linear", "linear": [2.0, 1.0]}, [-128, 127, -1, 0, 77]),
    ("one bit", "UWORD", 1, 0x0100, {"type": "identical"}, [0, 1]),
    ("beyond", "UWORD", 0, 0xFFFF8000, {"type": "identical"}, [0, 1]),
    ("holes", "SWORD", 1, 0x8F10, {"type": "identical"}, [-1, 0, 0x7F1 & 0x4F1, 1, -0x800]),
    ("u64", "A_UINT64", 0, 0, {"type": "identical"}, [0, (1 << 53) + 1, (1 << 64) - 1]),
    ("s64", "A_INT64", 1, 0, {"type": "linear", "linear": [3.0, 0.0]}, [-(1 << 63), (1 << 62) + 1, -5]),
    ("half", "FLOAT16_IEEE", 1, 0, {"type": "linear", "linear": [2.0, 0.0]}, [0.5, math.nan, math.inf, 6e-8, -2.0]),
    ("single", "FLOAT32_IEEE", 1, 0, {"type": "identical", "format": "%.3"}, [0.1, 1e-7, math.nan, 16777216.0]),
    ("Öldruck", "FLOAT64_IEEE", 0, 0, {"type": "identical"}, FLOATS),
    ("rational", "UBYTE", 0, 0, {"type": "ratFunc", "ratFunc": [0.0, 3.0, 1.0, 0.0, 0.0, 7.0]}, SMALL),
    ("bilinear", "UBYTE", 0, 0, {"type": "ratFunc", "ratFunc": [0.0, 3.0, 1.0, 0.0, 0.7, 2.0]}, SMALL),
    ("full rational", "UBYTE", 0, 0, {"type": "ratFunc", "ratFunc": [1.0, 3.0, 1.0, 0.5, 0.7, 2.0]}, SMALL),
    ("formula", "SBYTE", 0, 0, {"type": "formula", "formula": "sqrt(X1)+1"}, SMALL),
    ("curve", "UBYTE", 0, 0, {"type": "table", "interpolate": True, "table": [[1.0, 5.0], [3.0, 6.0], [9.0, -1.5]]}, SMALL),
    ("stepped", "UBYTE", 0, 0, {"type": "table", "interpolate": True, "table": [[1.0, 5.0], [3.0, 6.0], [3.0, 8.0]]}, SMALL),
    ("nearest", "UBYTE", 0, 0, STEPS, SMALL),
    ("default", "UBYTE", 0, 0, dict(STEPS, defaultNumeric=0.25), SMALL),
    ("float default", "FLOAT32_IEEE", 0, 0, dict(STEPS, defaultNumeric=0.25), [1.0, 3.0, 2.0, 7.0]),
    ("keys", "UBYTE", 0, 0, KEYS, SMALL),
    ("beyond ranges", "UBYTE", 0, 0, BEYOND, SMALL + [255]),
    ("masked ranges", "SWORD", 0, 0x0FF0, BEYOND, SMALL + [-128, -1]),
    ("never", "UBYTE", 0, 0, NEVER, SMALL),
    ("line", "SBYTE", 0, 0, {"type": "formula", "formula": "5-(X1-pow(2,3))*(3/8)/-abs(1-2)"}, SMALL + [-128]),
    ("no line", "SBYTE", 0, 0, {"type": "formula", "formula": "X1/2+(X1>100)"}, SMALL),
    ("cancelled", "UBYTE", 0, 0, {"type": "formula", "formula": "(X1+1e17)-1e17"}, SMALL),
    ("ranges", "SBYTE", 0, 0, MIDDLE, SMALL + [-1, -2, 10]),
    ("i64 halves", "A_INT64", 1, 0, {"type": "linear", "linear": [0.5, 0.0]}, [-(1 << 63) + 1, (1 << 62) + 1, 3, 1 << 54]),
    ("float ranges", "FLOAT64_IEEE", 0, 0, dict(MIDDLE, defaultText="none"), [1.0, 2.5, 2.6, 4.0, 4.1, -1.0, -1.1, 9.0]),
]


class Group:
    """A group of a recording, the n-th record at the n-th time."""

    def __init__(self, name, rows, times, cycle=CYCLE):
        self.times, offset, metas = times, 0, []
        for n, (signal_name, kind, big, mask, conversion, _) in enumerate(rows):
            metas.append({"name": signal_name, "description": f"{n} < {n + 1} & so on", "displayName": "", "type": kind,
                          "byteOrder": ("MSB_LAST", "MSB_FIRST")[big], "bitMask": mask, "recordOffset": offset,
                          "conversion": conversion})
            if limits := LIMITS[n % len(LIMITS)][0]:
                metas[-1]["limits"] = limits
            offset += Signal(metas[-1]).field.size
        self.meta = {"recordSize": offset, "cycleNs": cycle, "name": name, "signals": metas}
        self.signals = [Signal(meta) for meta in metas]
        # Bits that belong to no value are set, so that none of them gets into one.
        self.records = [b"".join(s.field.encoded(row[5][i % len(row[5])], b"\xff" * s.field.size)
                                 for s, row in zip(self.signals, rows)) for i in range(len(times))]

    def physical(self, signal_index, record):
        """The text of a verbal value, else the number."""
        s = self.signals[signal_index]
        raw = s.raw(record)
        text = s.conversion.text(raw)
        return s.conversion.physical(raw) if text is None else text


def same(a, b):
    return a == b or a != a and b != b


class ExportTest(SystemTest):
    def record(self, *groups, name="recording", about=ABOUT):
        """A recording directory with these groups; what earlier versions did not tell stands in `about`."""
        path = self.dir / name
        path.mkdir()
        for number, group in enumerate(groups):
            size = group.meta["recordSize"]
            data = b"".join(struct.pack("<q", t) + r for t, r in zip(group.times, group.records))
            (path / f"g{number:04}.rec").write_bytes(head(size) + data + b"torn")
        (path / "meta.json").write_text(json.dumps({
            "formatVersion": 2, "source": "XCP on CAN can0", "startUtcNs": START_UTC, "startHostNs": START_HOST,
            "name": "Fahrt <1>", "ecu": "ECU", "groups": [g.meta for g in groups], **about}), encoding="utf-8")
        return path

    def several(self):
        """Every kind of signal with two gaps; signals that need no packing; one record; none. A group without signals stays out."""
        times = [START_HOST - 5 + i * CYCLE + (i > 9) * 5_000_001 + (i > 20) * 4_999_999 + (i > 30) * CYCLE for i in range(40)]
        self.all = Group("alle Arten", SIGNALS, times)
        self.lying = Group("lying", SIGNALS[:5] + SIGNALS[10:13], [START_HOST + i * 3_000_000 for i in range(50)], 0)
        one = Group("one", SIGNALS[:1], [START_HOST + 7])
        none = Group("none/empty", SIGNALS[:2], [])
        self.groups = [self.all, self.lying, one, none]
        return self.record(*self.groups[:2], Group("no signals", [], [START_HOST]), *self.groups[2:])

    def export(self, directory, file, *options):
        done = self.run_plain("export", directory, "-o", self.dir / file, *options)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done

    def mf4(self, directory, file, *options):
        self.export(directory, file, *options)
        read = File(self.dir / file)
        self.addCleanup(read.close)
        return read

    def rows(self, file):
        with open(self.dir / file, newline="", encoding="utf-8") as stream:
            return list(csv.reader(stream, strict=True))

    def check_group(self, group, read, picked, records):
        """Channels and values of an MF4 group against the signals and records of the recording."""
        beside = {s.name for s in group.signals if s.name in PHYSICAL}
        expected = [(i, raw) for i in picked for raw in (False, True)[:1 + (group.signals[i].name in beside)]]
        names = [group.signals[i].name + (".raw" if raw else "") for i, raw in expected]
        self.assertEqual(([c.name for c in read.channels], read.cycles), (["time", *names], len(records)))
        self.assertEqual({c.source for c in read.channels}, {read.source})
        time, *columns = read.columns()
        for n, t in zip(records, time, strict=True):
            self.assertEqual(round(read.channels[0].physical(t) * 1e9), group.times[n] - START_HOST)
        for (i, is_raw), channel, column in zip(expected, read.channels[1:], columns):
            s = group.signals[i]
            if is_raw:
                self.assertEqual((channel.unit, channel.conversion, channel.limits), (None, None, None))
                self.assertTrue(all(map(same, column, (s.raw(group.records[n]) for n in records))), channel.name)
                continue
            computed = s.name in PHYSICAL
            self.assertEqual(channel.limits, LIMITS[i % len(LIMITS)][1])
            self.assertEqual((channel.unit or "", channel.bits == 64 and channel.conversion is None and "MDF" in str(channel.comment)),
                             (s.conversion.unit, computed), s.name)
            self.assertTrue(channel.comment["TX"].startswith(s.meta["description"]))
            for raw, n in zip(column, records):
                expected = s.raw(group.records[n])
                self.assertTrue(computed or same(raw, expected), f"{s.name}: {raw} instead of {expected}")
                expected = s.conversion.text(expected) if s.conversion.kind == "verbal" else group.physical(i, group.records[n])
                self.assertTrue(same(channel.physical(raw), expected), f"{s.name}: {channel.physical(raw)}, not {expected}")

    def test_every_signal_and_conversion_in_mf4(self):
        recording = self.several()
        self.env["TZ"] = "HERE-5:30"
        for file, options in (("a.mf4", ()), ("b.mf4", ("--no-compress",))):
            read = self.mf4(recording, file, *options)
            self.assertEqual((read.start_ns, read.utc_offset, read.history_offset), (START_UTC, -210, 330))
            self.assertEqual([read.comment[key] for key in ("recording", "subject", "A2L", "A2L SHA-256")],
                             ["Fahrt <1>", "ECU", ABOUT["a2lName"], ABOUT["a2lSha256"]])
            self.assertEqual([g.comment for g in read.groups], ["cycle 10 ms", "not cyclic"] + ["cycle 10 ms"] * 2)
            steps = next(c for c in read.groups[0].channels if c.name == "default")
            for raw in range(256):
                self.assertEqual(set(steps.conversion.beside(raw)), {{1: 10.0, 3: 30.5, 7: -1.0}.get(raw, 0.25)}, raw)
            self.assertEqual([g.name for g in read.groups], [g.meta["name"] for g in self.groups])
            self.assertEqual({g.source for g in read.groups}, {("ECU", "XCP on CAN can0", 1, 2)})
            for group, there in zip(self.groups, read.groups):
                self.check_group(group, there, range(len(group.signals)), range(len(group.times)))
            self.assertEqual([(name, scope, mode) for name, scope, mode, _ in read.events],
                             [("gap in alle Arten", "alle Arten", mode) for mode in (1, 2)] * 2)
            for at, n in zip(read.events, (9, 10, 30, 31)):
                self.assertAlmostEqual(at[3], (self.all.times[n] - START_HOST) / 1e9, delta=1e-12)
            self.assertEqual({c.name: c.precision for c in read.groups[1].channels if c.precision is not None},
                             {"time": 9, "plain": 2, "single": 3})

    def test_selections(self):
        """Signals by pattern, a span of time, every n-th record, alone and together, in both formats."""
        recording = self.several()
        rows = [(("-s", "*masked", "-s", "?ldruck"), ("masked", "big masked", "Öldruck"), range(40), range(50)),
                (("--from", "0.02", "--to", "0.1"), None, range(3, 10), range(7, 34)),
                (("--from", "2023-11-14T23:13:20.1+01:00"), None, range(10, 40), range(34, 50)),
                (("--to", "2023-11-14 22:13:20.03"), None, range(0, 4), range(0, 10)),
                (("--every", 7), None, range(0, 40, 7), range(0, 50, 7)),
                (("--every", 3, "--from", "0.02", "-s", "big*"), ("big, signed", "big masked"), range(3, 40, 3), range(7, 50, 3))]
        for number, (options, names, *kept) in enumerate(rows):
            packed, plain = (self.mf4(recording, f"{number}{c}.mf4", *options, *o) for c, o in (("z", ()), ("p", ("--no-compress",))))
            self.export(recording, f"{number}.csv", *options)
            for group, records, zipped, lying in zip(self.groups, kept, packed.groups, plain.groups):
                picked = [i for i, s in enumerate(group.signals) if names is None or s.name in names]
                for read in (zipped, lying):
                    self.check_group(group, read, picked, records)
                header, *lines = self.rows(f"{number}_{group.meta['name']}.csv")
                self.assertEqual((len(header), len(lines)), (1 + len(picked), len(records)))

    def check_cells(self, group, cells, record, raw=False):
        for i, (s, cell) in enumerate(zip(group.signals, cells)):
            expected = s.raw(record) if raw else group.physical(i, record)
            if s.field.size == 8 and s.field.whole and s.conversion.line():
                # No digit is lost on the way, whatever a double would keep.
                factor, offset = (1, 0) if raw else s.conversion.line()
                self.assertEqual(Fraction(cell), s.raw(record) * factor + offset, s.name)
                continue
            number = float if isinstance(expected, float) else type(expected)
            self.assertTrue(same(number(cell), expected), f"{s.name}: {cell} instead of {expected!r}")
            self.assertTrue(isinstance(expected, str) or len(cell) <= len(repr(expected)), f"{s.name}: {cell}")

    def test_csv_of_each_group(self):
        recording = self.several()
        done = self.export(recording, "out.csv")
        names = ["alle Arten", "lying", "one", "none_empty"]
        self.assertEqual(done.stdout.splitlines(), [f"{self.dir}/out_{name}.csv written" for name in names])
        self.assertEqual(done.stderr, "91 record(s) of 42 signal(s) in 4 group(s)\n")
        for name, group in zip(names, self.groups):
            (first, *heading), *lines = self.rows(f"out_{name}.csv")
            self.assertEqual(first, "time [s]")
            self.assertEqual(heading, [s.name + (f" [{s.conversion.unit}]" if s.conversion.unit else "") for s in group.signals])
            for (time, *cells), at, record in zip(lines, group.times, group.records, strict=True):
                self.assertEqual(round(float(time) * 1e9), at - START_HOST)
                self.check_cells(group, cells, record)
        self.export(recording, "raw.csv", "--raw", "-s", "*")
        header, *lines = self.rows("raw_alle Arten.csv")
        self.assertEqual(header, ["time [s]", *(s.name for s in self.all.signals)])
        for (_, *cells), record in zip(lines, self.all.records, strict=True):
            self.check_cells(self.all, cells, record, raw=True)

    def test_csv_on_one_time_axis_in_the_format_of_the_a2l(self):
        recording = self.several()
        self.export(recording, "m.csv", "--merge", "--absolute", "--a2l-format")
        self.assertEqual((self.dir / "m.csv").read_bytes().count(b"\r\n"), len(self.rows("m.csv")))
        streamed = self.run_plain("export", recording, "-o", "-", "--merge", "--absolute", "--a2l-format")
        self.assertEqual(streamed.stdout, (self.dir / "m.csv").read_text(encoding="utf-8"))
        header, *lines = self.rows("m.csv")
        self.assertEqual((header[0], header[1], header.index("keys")), ("time [UTC]", "plain@alle Arten [°C]", 22))
        times = sorted(t for g in self.groups for t in g.times)
        self.assertEqual(len(lines), len(set(times)))
        for line, at in zip(lines, sorted(set(times))):
            utc = START_UTC + at - START_HOST
            text = datetime.fromtimestamp(utc // 10 ** 9, timezone.utc).strftime("%Y-%m-%dT%H:%M:%S")
            self.assertEqual(line[0], f"{text}.{utc % 10 ** 9:09}Z")
            column = 1
            for group in self.groups:
                cells, column = line[column:column + len(group.signals)], column + len(group.signals)
                if at not in group.times:
                    self.assertEqual(set(cells), {""})
                    continue
                record = group.records[group.times.index(at)]
                for i, (s, cell) in enumerate(zip(group.signals, cells)):
                    value = group.physical(i, record)
                    form = {"%5.2": "%.2f", "%.3": "%.3f"}.get(s.conversion.format, "%g")
                    self.assertEqual(cell, value if isinstance(value, str) else form % value, s.name)

    def test_signals_called_like_the_time(self):
        row = ("UBYTE", 0, 0, {"type": "identical", "unit": "s"}, SMALL)
        recording = self.record(*(Group(name, [(n, *row) for n in names], [START_HOST])
                                  for name, names in (("a", ["time", "master_time"]), ("b", ["other"]))))
        masters = [g.channels[0].name for g in self.mf4(recording, "t.mf4").groups]
        self.assertEqual(masters, ["master_master_time"] * 2)
        self.export(recording, "t.csv", "-s", "time")
        self.assertEqual(self.rows("t.csv")[0], ["master_time [s]", "time [s]"])

    def test_outages(self):
        """Events of all groups in MF4, a list with the gaps beside CSV; of the times that are exported."""
        cyclic = Group("cyclic", SIGNALS[:1], [START_HOST + i * CYCLE + (i > 9) * CYCLE for i in range(20)])
        directory = self.record(cyclic, Group("tooth, odd", SIGNALS[:1], [START_HOST + CYCLE], 0))
        first, second = START_HOST + 91_000_000, START_HOST + 205_000_000
        lines = [{"event": "start", "timeNs": START_HOST, "utcNs": START_UTC, "version": 1},
                 {"event": "outageBegin", "timeNs": first, "reason": "lost, \"so\""}, {"event": "later", "timeNs": first},
                 {"event": "outageEnd", "timeNs": first + 10, "recovered": True, "outcome": "back"},
                 {"event": "marker", "timeNs": second, "text": "now \u00e4"},
                 {"event": "parameter", "timeNs": second, "name": "p", "old": "1", "new": "2", "by": "me"},
                 {"event": "outageBegin", "timeNs": second, "reason": "again"}]
        (directory / "events.jsonl").write_text("".join(json.dumps(line) + "\n" for line in lines), encoding="utf-8")
        read = self.mf4(directory, "o.mf4")
        both = [("outage: lost, \"so\"; back", None, 1), ("outage: lost, \"so\"; back", None, 2)]
        self.assertEqual([event[:3] for event in read.events],
                         [*both, ("outage to the end: again", None, 0), ("now \u00e4", None, 0),
                          ("p = 2, before 1, by me", None, 0), *(("gap in cyclic", "cyclic", n) for n in (1, 2))])
        for event, time in zip(read.events, (first, first + 10, second, second, second)):
            self.assertAlmostEqual(event[3], (time - START_HOST) / 1e9, places=9)
        done = self.export(directory, "o.csv", "--gaps")
        self.assertEqual(done.stdout, "".join(f"{self.dir}/o_{name}.csv written\n" for name in ("cyclic", "tooth, odd", "gaps")))
        head_line = ["kind", "group", "begin [s]", "end [s]", "reason"]
        gaps = [["outage", "", "0.091", "0.09100001", "lost, \"so\"; back"], ["outage", "", "0.205", "", "again"],
                ["gap", "cyclic", "0.09", "0.11", ""]]
        self.assertEqual(self.rows("o_gaps.csv"), [head_line, *gaps])
        self.export(directory, "p.csv", "--gaps", "--to", "0.09", "--merge")
        self.assertEqual(self.rows("p_gaps.csv"), [head_line])
        self.assertIn("2 outage(s) in this time, --gaps lists them\n", self.export(directory, "q.csv").stderr)
        events = directory / "events.jsonl"
        another = json.dumps(lines[0] | {"timeNs": 1}) + "\n"
        for row, (text, plain, gaps) in enumerate(((another, True, True), ("", True, True), (None, False, True))):
            events.unlink() if text is None else events.write_text(text, encoding="utf-8")
            shown = self.run_plain("recording", "show", directory, "-s", SIGNALS[0][0])
            told = [shown, self.export(directory, f"r{row}.csv"), self.export(directory, f"s{row}.csv", "--gaps")]
            self.assertEqual(["outages not known: " in done.stderr for done in told], [plain, plain, gaps], text)
            self.assertEqual("outages        not known: " in self.run_plain("recording", "info", directory).stdout, plain)

    def test_many_blocks(self):
        """A list of deflated blocks holds the same bytes as the copy; both hold those of the recording."""
        group = Group("many", SIGNALS[1:4], [START_HOST + i * CYCLE for i in range(600_000)])
        for meta in group.meta["signals"]:
            meta.pop("limits", None)
        recording = self.record(group, about={})  # of an earlier version
        data = b"".join(struct.pack("<q", t - START_HOST) + r for t, r in zip(group.times, group.records))
        for file, options, kinds in (("z.mf4", (), ["DZ"] * 3), ("p.mf4", ("--no-compress",), ["DT"])):
            file = self.mf4(recording, file, *options)
            read, = file.groups
            self.assertEqual((file.utc_offset, {c.limits for c in read.channels}), (None, {None}))
            self.assertEqual([kind for kind, _, _ in read.sections], kinds)
            self.assertEqual(b"".join(map(read.section_bytes, read.sections)), data)
        self.assertLess((self.dir / "z.mf4").stat().st_size, len(data) / 5)

    def test_refusals_leave_everything_as_it_was(self):
        recording = self.several()
        there = self.dir / "there.mf4"
        there.write_text("mine")
        (self.dir / "x_one.csv").write_text("mine")
        before = sorted(os.listdir(self.dir))
        small = {"preexec_fn": lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (3000, 3000))}
        usual = "is neither seconds from the start nor a time such as 2026-03-01T12:00:00Z"
        rows = [((there,), f"{there} already exists (--force overwrites it)"),
                (("x.csv",), "x_one.csv already exists (--force overwrites it)"),
                (("/dev/null", "--format", "csv", "--force"), "/dev/null is not a regular file"),
                ((".", "--format", "mf4"), ". is not a regular file"),
                (("no/x.mf4",), "cannot create no/x.mf4: No such file or directory"),
                (("x.txt",), "the name x.txt does not end in .mf4 or .csv, give --format mf4 or --format csv"),
                (("x.mf4", "--format", "xls"), "unknown format 'xls' (mf4 or csv)"),
                (("x.mf4", "--merge"), "--merge is for CSV files"),
                (("x.mf4", "--gaps"), "--gaps is for CSV files, an MF4 file holds outages and gaps as events"),
                (("-",), "standard output takes one table, not the 4 of these groups: --merge, or -s for signals of one of them"),
                (("-", "--merge", "--gaps"), "--gaps writes a file of its own: give -o a name"),
                (("-", "--format", "mf4"), "an MF4 file is not written from front to back: -o - is for CSV"),
                (("x.csv", "--every", "0"), "--every: 0 is not a number of records"),
                (("x.mf4", "-s", "plain", "-s", "nix*"), "no signal matches 'nix*' in this recording"),
                (("x.mf4", "--from", "soon"), f"'soon' {usual}")]
        for (file, *options), message in rows:
            done = self.run_plain("export", recording, "-o", file, *options, cwd=self.dir)
            self.expect(done, err=f"export: {message}\n", code=1)
        for file in ("full.mf4", "full.csv"):
            done = self.run_plain("export", recording, "-o", file, cwd=self.dir, **small)
            self.assertIn("File too large", done.stderr)
            self.assertEqual(done.returncode, 1)
        self.assertEqual((sorted(os.listdir(self.dir)), there.read_text()), (before, "mine"))
        self.mf4(recording, there.name, "--force")

    def test_ctrl_c_leaves_nothing(self):
        """In the middle of gigabytes, which are a hole in a file."""
        recording = self.record(Group("long", SIGNALS[:4], []))
        os.truncate(recording / "g0000.rec", 4 << 30)
        for file in ("x.mf4", "x.csv"):
            before = sorted(os.listdir(self.dir))
            program = self.start([CLI, "export", recording, "-o", self.dir / file])
            wait_until(lambda: any(p.stat().st_size for p in self.dir.glob(f"{file}.*.tmp")), "a beginning of the file")
            self.assertEqual(stop(program, signal.SIGINT)[0], 1)
            self.assertEqual(sorted(set(os.listdir(self.dir)) - {program.out_path.name, program.err_path.name}), before)
            self.assertEqual(program.err, "")
