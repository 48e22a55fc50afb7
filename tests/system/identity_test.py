"""The right ECU: what is told and refused when its software is not the A2L's, and what `check` finds."""
import binascii
import json
import struct
import unittest
import zlib

import harness
from ecu_model import Memory
from harness import SystemTest, counters, value_line

EPK = "PUMP 3.1"
WITH_EPK = ("--epk", EPK)
WRONG = ("--epk", EPK, "--page-faults", "wrong-epk")
UNREADABLE = ("--epk", EPK, "--page-faults", "unreadable-epk")
DIFFERENT = 'the ECU runs "PUMP 3.?", the A2L is for "PUMP 3.1"'
WARNED = DIFFERENT + ": values may be wrong"
UNKNOWN = ('the ECU\'s EPK cannot be read (SHORT_UPLOAD: ERR_OUT_OF_RANGE (0x22)), the A2L is for "PUMP 3.1": '
           "what is written may belong to another software")
GET, SET = ["get", "cal_gain"], ["set", "cal_gain=2"]
MAP = ["set", "cal_ignition_map[1][1]=3"]
FAIL = ["--fail-on", "identity"]
IGNORE = ["--ignore-identity"]
REFUSE, OFF = [{"identity": {"check": check}} for check in ("refuse", "off")]
SUMS = {
    "add-11": lambda data, order: sum(data) & 0xFF, "add-12": lambda data, order: sum(data) & 0xFFFF,
    "add-14": lambda data, order: sum(data), "add-22": lambda data, order: words(data, order, "H") & 0xFFFF,
    "add-24": lambda data, order: words(data, order, "H"),
    "add-44": lambda data, order: words(data, order, "I") & 0xFFFFFFFF,
    "crc-16-citt": lambda data, order: binascii.crc_hqx(data, 0xFFFF), "crc-32": lambda data, order: zlib.crc32(data)}


def words(data, order, kind):
    return sum(value for value, in struct.iter_unpack(order + kind, data))


class IdentityTest(SystemTest):
    def test_an_ecu_of_another_software(self):
        """Nothing is written to it; reading warns, once; who is sure goes on."""
        done = (0, "1.000"), (1, f"ERROR {DIFFERENT}")
        rows = ((WITH_EPK, GET, {}, 0, "1.000", ""), (WITH_EPK, SET + FAIL, {}, 0, "2.000", ""),
                (WRONG, GET, {}, *done[0], WARNED), (WRONG, GET + FAIL, {}, 3, "1.000", WARNED),
                (WRONG, SET, {}, *done[1], WARNED), (WRONG, MAP, {}, *done[1], WARNED),
                (WRONG, IGNORE + SET, {}, 0, "2.000", WARNED), (WRONG, IGNORE + SET + FAIL, {}, 3, "2.000", WARNED),
                (WRONG, GET, REFUSE, 1, "", f"connect: {DIFFERENT}"), (WRONG, IGNORE + GET, REFUSE, 0, "1.000", WARNED),
                (WRONG, ["info"], REFUSE, 0, "CAL/PAG", WARNED), (WRONG, SET, OFF, 0, "2.000", ""),
                (WRONG, ["measure", "-s", "wave@0", "-t", 0.1, "-p", 0, *FAIL], {}, 3, "", WARNED),
                (WRONG, ["measure", "-s", "wave@0", "-t", 0.1, "-p", 0], REFUSE, 1, "", f"connect: {DIFFERENT}"),
                (WRONG + ("--pages", 2), ["page", "set", 0, "--yes"], {}, 1, "", f"page: {DIFFERENT}"),
                (WRONG + ("--pages", 2), ["page", "copy", 0, 1, "--yes"], {}, 1, "", f"page: {DIFFERENT}"),
                (WRONG + ("--pages", 2), ["page", "store", "--yes"], {}, 1, "", f"page: {DIFFERENT}"),
                (UNREADABLE, GET + FAIL, {}, 0, "1.000", ""), (UNREADABLE, SET, {}, 0, "2.000", UNKNOWN),
                (UNREADABLE, SET + FAIL, {}, 3, "2.000", UNKNOWN))
        for options, words_, sections, code, out, err in rows:
            with self.subTest(options=options, words=words_, sections=sections):
                sim = self.start_sim(*options)
                told = self.run_cli(sim, "-c", self.quick_config(**sections), *words_)
                self.assertEqual(told.returncode, code, told.stderr)
                self.assertIn(out, told.stdout)
                self.assertEqual(told.stderr.count(err or "EPK"), 1 if err else 0, told.stderr)
                heard = counters(sim)
                changes = [heard.get(f"command-{name}", 0) for name in
                           ("DOWNLOAD", "SET_CAL_PAGE", "COPY_CAL_PAGE", "SET_SEGMENT_MODE", "SET_REQUEST")]
                self.assertEqual(any(changes), code in (0, 3) and "set" in words_)

    def test_packets_stay_as_they_are_without_a_place_of_the_epk(self):
        heard = {}
        for name, options, change in (("none", (), None), ("text alone", WITH_EPK, "ADDR_EPK 0x00090000"),
                                      ("off", WITH_EPK, None), ("asked", WITH_EPK, None)):
            sim = self.start_sim(*options)
            if change:
                text = sim.a2l.read_text()
                self.assertIn(change, text)
                sim.a2l.write_text(text.replace(change, ""))
            config = self.quick_config(**(OFF if name == "off" else {}))
            self.assertEqual(self.run_cli(sim, "-c", config, *GET).returncode, 0)
            heard[name] = {key: value for key, value in counters(sim).items() if key.startswith("command")}
        self.assertEqual([heard["text alone"], heard["off"]], [heard["none"]] * 2)
        self.assertEqual(heard["asked"]["command-SHORT_UPLOAD"], heard["none"]["command-SHORT_UPLOAD"] + 1)

    def test_recordings_tell_both(self):
        sim = self.start_sim(*WRONG)
        self.assertEqual(self.run_cli(sim, *harness.record(self.dir / "rec", ["wave@0"], 0.2)).returncode, 0)
        meta = json.loads((self.dir / "rec" / "meta.json").read_text())
        self.assertEqual([meta["ecuEpk"], meta["a2lEpk"], len(meta["a2lSha256"])], ["PUMP 3.?", EPK, 64])

    def test_answers_that_are_lost_late_or_doubled(self):
        """No EPK is taken for another, no value for the EPK."""
        for options, out in ((WITH_EPK, value_line("cal_gain", "2.000")), (WRONG, value_line("cal_gain", f"ERROR {DIFFERENT}"))):
            for kind in ("lose", "late", "double", "stray"):
                for command in ("SHORT_UPLOAD", "SYNCH", "CONNECT"):
                    sim = self.start_sim(*options, "--fault", f"{kind}:{command}:1:1:{600 if kind == 'late' else 0}")
                    done = self.run_cli(sim, "-c", self.quick_config(), *SET)
                    self.assertEqual(done.stdout, out, (kind, command, done.stderr))


class CheckTest(SystemTest):
    def check(self, sim, *words_, code=0):
        done = self.run_cli(sim, "check", "--json", *words_)
        self.assertEqual(done.returncode, code, done.stdout + done.stderr)
        return {line["what"]: line for line in json.loads(done.stdout)["checks"]}

    def expect_start(self, done, told, code):
        self.assertEqual((told in done.stdout, done.returncode), (True, code), done.stdout)

    def test_what_differs(self):
        """The ECU has these options, the A2L those; what differs, and nothing else does."""
        rows = (((), (), []), (WITH_EPK, WITH_EPK, []), (WITH_EPK, ("--epk", "OTHER"), ["EPK", "GET_ID EPK"]),
                (WITH_EPK, ("--epk", "PUMP 3."), ["EPK", "GET_ID EPK"]), (("--epk", "PUMP 3"), WITH_EPK, ["EPK", "GET_ID EPK"]),
                (("--byte-order", "motorola"), (), ["byte order"]),
                (("--granularity", 2), (), ["granularity"]),
                (("--max-cto", 64), (), ["MAX_CTO"]), (("--max-dto", 600), (), ["MAX_DTO"]),
                (("--timestamp-size", 2), (), ["DAQ timestamp"]), (("--static-daq",), (), ["DAQ lists"]),
                (("--fast-event-us", 500), (), ["event 0"]),
                (("--pages", 2), ("--pages", 1), ["segment 0 pages", "segment 1 pages"]),
                (("--pages", 1, "--checksum", "add-12"), ("--pages", 1), ["segment 0 checksum type", "segment 1 checksum type"]))
        for ecu, described, expected in rows:
            with self.subTest(ecu=ecu, described=described):
                sim = self.start_sim(*ecu)
                sim.a2l = self.write_a2l(*described)
                checks = self.check(sim, code=3 if expected else 0)
                self.assertEqual([what for what, line in checks.items() if line["state"] == "different"], expected)
                if expected == ["byte order"]:
                    refused = "ERROR the ECU says that its byte order is Motorola, the A2L says otherwise"
                    self.expect_start(self.run_cli(sim, *SET), refused, 1)
                    self.expect_start(self.run_cli(sim, *IGNORE, *SET), "2.000", 0)

    def test_sums_of_every_type(self):
        """Told as the bytes give them, in blocks where the ECU takes no more; computed here when it computes none."""
        cases = [((order, "--checksum", kind), kind) for kind in SUMS for order in ("intel", "motorola")]
        cases += [(("intel", "--checksum", "crc-32", "--checksum-block", 200), "crc-32"),
                  (("motorola", "--without", "BUILD_CHECKSUM"), "crc-32")]
        for (order, *options), kind in cases:
            with self.subTest(order=order, options=options):
                image, saved = self.dir / "memory", self.dir / "sums"
                sim = self.start_sim("--pages", 1, "--byte-order", order, "--memory-file", image, *options)
                self.check(sim, "--save", saved, "--force")
                for segment in json.loads(saved.read_text())["segments"]:
                    harness.stop(sim)
                    data, at = Memory(image).bytes(segment["address"], segment["size"]), 0
                    for size, told in zip(segment["blockSizes"], segment["sums"], strict=True):
                        self.assertEqual(told, SUMS[kind](data[at:at + size], "<>"[order == "motorola"]))
                        at += size
                    self.assertEqual(at, segment["size"])
                self.assertEqual(len(segment["sums"]), 3 if "--checksum-block" in options else 1)

    def test_an_earlier_check(self):
        sim, saved = self.start_sim("--pages", 2), self.dir / "sums"
        self.check(sim, "--save", saved)
        self.assertIn("already exists (--force overwrites it)", self.run_cli(sim, "check", "--save", saved).stderr)
        self.check(sim, "--against", saved)
        self.assertEqual(self.run_cli(sim, *SET).returncode, 0)
        changed = [what for what, line in self.check(sim, "--against", saved, code=3).items() if line["state"] == "different"]
        self.assertEqual(len(changed), 1, changed)
        self.assertEqual(self.run_cli(sim, "page", "set", 0, "--yes").returncode, 0)
        self.assertEqual(self.check(sim, "--against", saved, code=3)[changed[0]]["ecu"], "XCP is on page 0")
        for text, told in (("", "sums: "), ("{}", "sums: no file that `check --save` wrote"), (saved.read_text().replace('"sums"', '"x"'), "sums")):
            saved.write_text(text)
            done = self.run_cli(sim, "check", "--against", saved)
            self.assertEqual((done.returncode, done.stdout), (1, ""))
            self.assertIn(told, done.stderr)

    def test_exit_codes(self):
        sim = self.start_sim(*UNREADABLE)
        self.check(sim, code=1)
        harness.stop(sim)
        self.assertEqual(self.run_cli(sim, "-c", self.quick_config(), "check").returncode, 4)
        self.assertEqual(self.run_plain("--a2l", "none.a2l", "--udp", "127.0.0.1:1", "check").returncode, 1)


if __name__ == "__main__":
    unittest.main()
