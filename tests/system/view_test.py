"""The page's side of `serve` and `view`: its files, streams of frames, series of recordings, layouts."""
import bisect
import gzip
import http.client
import json
import math
import os
import re
import struct
import unittest

import harness
from recording import Recording
from serve_test import ServeTest as Serving

TO_THE_END = 1 << 62


def frames(source):
    """(kind, payload) of a stream of frames."""
    while head := source.read(8):
        size, kind = struct.unpack("<IB3x", head)
        yield kind, source.read(size - 4)


def window(payload):
    begin, end, records, count = struct.unpack_from("<ddII", payload)
    last, least, greatest = (struct.unpack_from(f"<{count}{code}", payload, at)
                             for code, at in (("d", 24), ("f", 24 + 8 * count), ("f", 24 + 12 * count)))
    return begin, end, records, last, least, greatest


def series(data):
    """By place: ("samples", times, values, breaks) or ("columns", least, greatest, last, filled)."""
    version, count, columns, _ = struct.unpack_from("<4I", data)
    assert version == 1
    at, found = 32, {}
    for _ in range(count):
        place, flags, n, _ = struct.unpack_from("<4I", data, at)
        layout = f"<{n}d{n}d{n}B" if flags & 1 else f"<{n}f{n}f{n}f{n}B"
        assert flags & 1 or n == columns
        numbers = struct.unpack_from(layout, data, at + 16)
        found[place] = ("samples" if flags & 1 else "columns", *(numbers[i:i + n] for i in range(0, len(numbers), n)))
        at += 16 + (struct.calcsize(layout) + 7) // 8 * 8
    assert at == len(data)
    return found


class Expected:
    """The series of one signal, from the records alone."""

    def __init__(self, group, start, outages):
        self.times = [time - start for time in group.timestamps]
        signal = group.signals[0]
        self.values = [float(signal.conversion.physical(signal.raw(record))) for record in group.records]
        self.cycle, self.outages = group.meta["cycleNs"], outages

    def broken(self, before, after, until=TO_THE_END):
        """Nothing is known between two neighbours, at least not from `until` on."""
        return (self.cycle and after - before > self.cycle * 1.5) or any(
            begin < after and begin <= until and (begin >= before or (begin >= before - 10_000_000 and end - 10_000_000 <= after))
            for begin, end in self.outages)

    def column(self, begin, end):
        """(filled, least, greatest, last); a gap before or among samples is 1 here, too."""
        first, behind = (bisect.bisect_left(self.times, math.ceil(time)) for time in (begin, end))
        if first < behind:
            some = self.values[first:behind]
            return 1, min(some), max(some), some[-1]
        if first in (0, len(self.times)):
            return 0, None, None, None
        before, after = self.times[first - 1], self.times[first]
        if self.broken(before, after, math.ceil(begin)):
            return 0, None, None, None
        return 2, *[self.values[first - 1]] * 3


class ViewTest(Serving):
    # Its own tests are not run twice.
    for _name in [name for name in dir(Serving) if name.startswith("test_")]:
        locals()[_name] = None
    del _name

    def view(self, *directories):
        self.host = self.start([harness.CLI, "view", *map(str, directories)])
        self.host.wait_for_out("token=")
        self.port, self.token = re.search(r"http://[\d.]+:(\d+)/#token=([0-9a-f]{64})", self.host.out).groups()

    def get(self, path, status=200):
        got, body, _ = self.request("GET", path)
        self.assertEqual(got, status, body)
        return body

    def recorded(self, name, records, outages=(), cycle=1_000_000):
        """A recording of these (time, counter), made of a short one."""
        directory = self.dir / name
        done = self.run_cli(self.start_sim(), *harness.record(directory, ["counter_1ms@0"], 0.2))
        self.assertEqual(done.returncode, 0, done.stderr)
        meta = json.loads((directory / "meta.json").read_text(encoding="utf-8"))
        group, start = meta["groups"][0], meta["startHostNs"]
        self.assertEqual((group["signals"][0]["type"], group["signals"][0]["byteOrder"], group["cycleNs"]),
                         ("ULONG", "MSB_LAST", 1_000_000))
        offset, size = group["signals"][0]["recordOffset"], group["recordSize"]
        group["cycleNs"] = cycle
        (directory / "meta.json").write_text(json.dumps(meta), encoding="utf-8")
        path = directory / "g0000.rec"
        head = path.read_bytes()[:32]
        path.write_bytes(head + b"".join(
            struct.pack(f"<q{offset}xI{size - offset - 4}x", start + time, value) for time, value in records))
        lines = (directory / "events.jsonl").read_text(encoding="utf-8").splitlines()[:1]
        for begin, end in outages:
            lines += [json.dumps({"event": "outageBegin", "timeNs": start + begin, "reason": "gone"}),
                      json.dumps({"event": "outageEnd", "timeNs": start + end, "recovered": True, "outcome": "back"})]
        (directory / "events.jsonl").write_text("\n".join(lines) + "\n", encoding="utf-8")
        for old in [*directory.glob("*.tix"), *directory.glob("*.pyr")]:
            old.unlink()
        self.assertEqual(self.run_plain("recording", "repair", directory).returncode, 0)
        return directory

    def compare(self, name, expected, begin, end, columns):
        kind, *told = series(self.get(f"/v1/recordings/{name}/series?signals=0&from={begin}&to={end}&columns={columns}"))[0]
        inside = [i for i, time in enumerate(expected.times) if begin <= time < end]
        around = range(max((inside or [bisect.bisect_left(expected.times, begin)])[0] - 1, 0),
                       min((inside or [bisect.bisect_left(expected.times, begin) - 1])[-1] + 2, len(expected.times)))
        if kind == "samples":
            self.assertLessEqual(len(around), 2 * columns)
            breaks = [int(i > around[0] and bool(expected.broken(expected.times[i - 1], expected.times[i]))) for i in around]
            self.assertEqual(told, [tuple(expected.times[i] for i in around), tuple(expected.values[i] for i in around),
                                    tuple(breaks)])
            return kind, sum(breaks)
        self.assertGreater(len(around), 2 * columns)
        bounds = [begin + i * (end - begin) / columns for i in range(columns + 1)]
        for low, high, least, greatest, last, filled in zip(bounds, bounds[1:], *told):
            right = expected.column(low, high)
            self.assertEqual(1 if filled == 3 else filled, right[0], (low, high))
            if right[0] == 0:
                self.assertTrue(math.isnan(least) and math.isnan(greatest) and math.isnan(last))
                continue
            self.assertTrue(least <= right[1] and greatest >= right[2], (least, greatest, right))
            for shown, true in zip((least, greatest, last), right[1:]):
                self.assertAlmostEqual(shown, true, delta=abs(true) * 3e-7)
        return kind, told[3]

    def test_series_lose_no_peak_and_bridge_nothing(self):
        self.env["XDG_RUNTIME_DIR"] = str(self.dir)
        peaks = {777: 4_000_000_000, 12_345: 0, 19_998: 3_999_999_999}
        # Without a jump of 40 records, without 3 s, without one record; then an outage inside a slow recording.
        times = [i * 1_000_000 for i in range(20_000) if not 3000 <= i < 3040 and not 9000 <= i < 12_000 and i != 15_000]
        self.recorded("fast", [(time, peaks.get(time // 1_000_000, 1_000_000 + time // 1_000_000)) for time in times])
        slow = [(i * 100_000_000 + i * i % 7 * 1000, i) for i in range(3000)]
        self.recorded("slow", slow, [(100_030_000_000, 100_090_000_000)], cycle=0)
        self.view(self.dir)
        told = json.loads(self.get("/v1/recordings"))
        self.assertEqual(sorted((one["name"], one["records"], one["outages"]) for one in told["details"]),
                         [("fast", len(times), 0), ("slow", 3000, 1)])
        events = {name: json.loads(self.get(f"/v1/recordings/{name}/signals")) for name in ("fast", "slow")}
        self.assertEqual([(one["kind"], one["tNs"], one["untilNs"]) for one in events["fast"]["events"]],
                         [("gap", 2_999_000_000, 3_040_000_000), ("gap", 8_999_000_000, 12_000_000_000),
                          ("gap", 14_999_000_000, 15_001_000_000)])
        self.assertEqual([(one["kind"], one["tNs"], one["untilNs"]) for one in events["slow"]["events"]],
                         [("outage", 100_030_000_000, 100_090_000_000)])
        self.assertEqual([events["fast"][key] for key in ("fromNs", "toNs")], [0, 19_999_000_000])
        self.assertEqual([one["name"] for one in events["fast"]["signals"]], ["counter_1ms"])
        seen = set()
        for name, outages in (("fast", []), ("slow", [(100_030_000_000, 100_090_000_000)])):
            recording = Recording(self.dir / name)
            expected = Expected(recording.groups[0], recording.meta["startHostNs"], outages)
            end = expected.times[-1] + 1
            for begin, until, columns in ((0, end, 100), (-end, 2 * end, 333), (1, end - 7, 1), (end // 2, end // 2 + end // 7, 97),
                                          (2_990_000_000, 3_050_000_000, 25), (8_990_000_000, 12_010_000_000, 7),
                                          (end // 3, end // 3 + 20_000_000, 20), (99_900_000_000, 100_300_000_000, 50),
                                          (end + 5, end + 9, 3), (10_000_000_000, 10_000_000_001, 8192)):
                kind, more = self.compare(name, expected, begin, until, columns)
                seen |= {(kind, one) for one in ([more] if kind == "samples" else more)}
        self.assertEqual({one for one in seen if one[0] == "columns"}, {("columns", i) for i in (0, 1, 3)})
        self.assertIn(("samples", 1), seen)
        # One that grows is read as it is now.
        with (self.dir / "slow" / "g0000.rec").open("ab") as file:
            size = os.path.getsize(self.dir / "slow" / "g0000.rec")
            stride = (size - 32) // 3000
            file.write(struct.pack("<q", Recording(self.dir / "slow").meta["startHostNs"] + 400_000_000_000) + bytes(stride - 8))
        kind, times, values, _ = series(self.get(
            "/v1/recordings/slow/series?signals=0&from=399000000000&to=500000000000&columns=9"))[0]
        self.assertEqual((kind, times[-1], values[-1]), ("samples", 400_000_000_000, 0))
        csv = self.get("/v1/recordings/fast/export?form=csv&signals=0&from=777000000&to=778000000").decode()
        self.assertEqual([float(line.split(",")[1]) for line in csv.splitlines() if re.match(r"[\d.]+,", line)], [4e9, 1_000_778])

    def test_hostile_questions_and_view_without_an_ecu(self):
        self.env["XDG_RUNTIME_DIR"] = str(self.dir)
        real = self.recorded("one", [(i * 1_000_000, i) for i in range(50)])
        (self.dir / "more").mkdir()
        (self.dir / "more" / "link").symlink_to(real)
        self.view(self.dir / "more", real)
        told = json.loads(self.get("/v1"))
        self.assertEqual([told[key] for key in ("kind", "ecus", "canWrite", "layouts")], ["view", [], False, True])
        self.assertEqual(json.loads(self.get("/v1/recordings"))["recordings"], ["one"])
        good = {"signals": "0", "from": "0", "to": "50000000", "columns": "10"}
        self.assertEqual(series(self.get("/v1/recordings/one/series?" + "&".join(f"{k}={v}" for k, v in good.items())))[0][0], "columns")
        for name, text, status in (("columns", "0", 400), ("columns", "1e9", 400), ("columns", "9000", 400), ("columns", "-1", 400),
                                   ("from", "50000001", 400), ("from", "nan", 400), ("to", "inf", 400), ("to", "", 400),
                                   ("from", "-99999999999999999999", 400), ("signals", "1", 404), ("signals", "x", 400),
                                   ("signals", ",".join("0" * 65), 400), ("signals", "4294967295", 404), ("signals", "-", 400)):
            query = "&".join(f"{key}={value}" for key, value in (good | {name: text}).items())
            self.get(f"/v1/recordings/one/series?{query}", status)
        for path in ("link/series", "..%2Fone/signals", "%2e%2e/signals", "none", "one%2f..%2fone/export"):
            self.assertIn(self.request("GET", f"/v1/recordings/{path}")[0], (400, 404), path)
        for method, path in (("PUT", "/v1/ecus/x/values/y"), ("GET", "/v1/ecus/x/state"), ("GET", "/v1/ecus/x/stream")):
            self.assertEqual(self.request(method, path)[0], 404)
        # The page and its files need no token, all else does.
        policy = "default-src 'none'; script-src 'self';"
        for path in ("/", "/page/app.js", "/page/style.css", "/page/icon.svg"):
            status, body, headers = self.request("GET", path, headers={})
            self.assertEqual((status, headers["Content-Security-Policy"][:len(policy)], headers["X-Content-Type-Options"]),
                             (200, policy, "nosniff"), path)
            zipped = self.request("GET", path, headers={"Accept-Encoding": "gzip, br"})
            if zipped[2]["Content-Encoding"]:
                self.assertEqual(gzip.decompress(zipped[1]), body)
            self.assertEqual(self.request("GET", path, headers={"If-None-Match": headers["ETag"]})[:2], (304, b""))
        self.assertEqual([self.request("GET", path, headers={})[0] for path in ("/v1", "/v1/recordings", "/v1/layouts", "/page/none")],
                         [401, 401, 401, 404])
        self.assertEqual(harness.stop(self.host)[0], 0, self.host.err)
        self.assertEqual(list(self.dir.glob("xcplumo/*.sock")), [])
        self.expect(self.run_plain("view", self.dir / "nowhere"), err=f"view: {self.dir / 'nowhere'}: there is no such folder\n", code=1)

    def test_layouts(self):
        folder = self.dir / "folder"
        folder.mkdir()
        (folder / "secret.json").write_text('{"schema": 1}')
        self.view(folder)
        put = lambda name, body: self.request("PUT", f"/v1/layouts/{name}", body)[0]
        self.assertEqual(json.loads(self.get("/v1/layouts")), {"layouts": [], "last": None})
        text = json.dumps({"schema": 1, "panes": [["ümlaut"]]})
        self.assertEqual([put("b", text), put("A_-9" + 60 * "x", text), put("b", text)], [200] * 3)
        self.assertEqual(json.loads(self.get("/v1/layouts")), {"layouts": ["A_-9" + 60 * "x", "b"], "last": "b"})
        self.assertEqual(self.get("/v1/layouts/b"), text.encode())
        wrong = {"a.b": text, "x" * 65: text, "..%2Fsecret": text, "%2e%2e": text, "a%20b": text, "a%00": text,
                 "c": "{}", "d": "[1]", "e": '{"schema": 1, "a": "' + (256 << 10) * "x" + '"}', "f": "{" * 50}
        self.assertEqual({name: put(name, body) for name, body in wrong.items()}, dict.fromkeys(wrong, 400))
        (folder / "layouts" / "link.json").symlink_to(folder / "secret.json")
        self.assertEqual([self.request("GET", f"/v1/layouts/{name}")[0] for name in ("link", "..%2Fsecret", "none")], [404, 400, 404])
        self.assertEqual([self.request("DELETE", "/v1/layouts/b")[0] for _ in range(2)], [200, 404])
        self.assertEqual(json.loads(self.get("/v1/layouts")), {"layouts": ["A_-9" + 60 * "x"], "last": None})
        self.assertEqual(sorted(path.name for path in (folder / "layouts").iterdir()), [".last", "A_-9" + 60 * "x" + ".json", "link.json"])

    def test_frames_tell_what_events_tell(self):
        self.serve("--recordings", self.dir)
        for query in ("form=binary", "form=other&windowMs=50", "form=binary&windowMs=1"):
            self.get(f"{self.base}/stream?{query}", 400)
        connection = http.client.HTTPConnection("127.0.0.1", int(self.port), timeout=harness.PATIENCE)
        self.addCleanup(connection.close)
        connection.request("GET", f"{self.base}/stream?signals=counter_1ms,status_gear&windowMs=50&form=binary",
                           headers={"Authorization": f"Bearer {self.token}"})
        source = frames(connection.getresponse())
        events, alive = {}, 0
        while not alive or "state" not in events:
            kind, payload = next(source)
            alive += kind == 3
            if kind == 1:
                told = json.loads(payload)
                events[told.pop("event")] = told
        self.assertEqual((events["signals"]["measuring"], events["state"]["state"]), (False, "connected"))
        self.client.measure(["counter_1ms@0", "status_gear@1"])
        sums, first, last, texts = 0, None, None, None
        self.client["cal_gain"] = 2
        seen = set()
        while sums < 2000 or not {"writes", "state"} <= seen:
            kind, payload = next(source)
            if kind == 1:
                told = json.loads(payload)
                name = told.pop("event")
                self.assertNotEqual(name, "missed")
                if name == "signals":
                    counter, gear = told["signals"]
                    self.assertEqual((counter["cycleNs"], counter["integer"], gear["isText"]), (1_000_000, True, True))
                    texts = dict(gear["texts"])
                if name == "writes" and told["entries"]:
                    self.assertEqual([(one["name"], one["new"]["physical"]) for one in told["entries"]], [("cal_gain", 2)])
                    seen.add(name)
                if name == "state" and told["state"] == "measuring" and told["measurement"]:
                    seen.add(name)
            elif kind == 2:
                _, _, _, (now, _), (least, _), (greatest, _) = window(payload)
                if math.isnan(now):
                    continue
                # A counter: each window goes on where the one before ended, and no value is left out.
                first = least if first is None else first
                self.assertLessEqual(least, now if last is None else last + 1)
                self.assertLessEqual(now, greatest)
                last, sums = now, now - first
        self.assertIn("neutral", texts.values())
        names = self.get(f"{self.base}/names").decode().splitlines()
        listed = self.client.ask("GET", f"{self.base}/objects")["objects"]
        self.assertLessEqual({one["name"] for one in listed}, {line.split("\t")[1] for line in names})
        self.assertTrue(all(re.fullmatch(r"[mpcMbtas]\t[^\t]+\t[^\t]*\t[^\t]*", line) for line in names))


del Serving

if __name__ == "__main__":
    unittest.main()
