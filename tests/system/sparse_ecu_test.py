"""ECUs that do not tell what they can do in DAQ, or tell what is not so."""
import json

import harness

KEY = '"source": "a2l" under "daq" in the configuration takes it from the A2L'


class SparseEcuTest(harness.SystemTest):
    def measure(self, sim, config, *arguments, seconds=0.3):
        return self.run_cli(sim, "-c", config, "measure", "-t", seconds, "-p", 0, "-s", "counter_10ms@1", *arguments)

    def test_what_the_ecu_leaves_open_the_a2l_tells(self):
        by_a2l = self.quick_config(daq={"source": "a2l"})
        rows = [("GET_DAQ_PROCESSOR_INFO", "hint: the ECU has DAQ, but does not tell what it can do in it: GET_DAQ_PROCESSOR_INFO: "),
                ("GET_DAQ_RESOLUTION_INFO", "the ECU does not tell its DAQ resolution"),
                ("GET_DAQ_EVENT_INFO", "the ECU does not tell its events")]
        for command, told in rows:
            for options in (["--without", command], ["--fault", f"ignore:{command}:1:0"]):
                with self.subTest(options):
                    sim = self.start_sim(*options)
                    done = self.measure(sim, self.quick_config())
                    self.assertEqual(done.returncode, int(command == "GET_DAQ_PROCESSOR_INFO"), done.stderr)
                    self.assertIn(told, done.stderr)
                    self.assertIn(KEY, done.stderr)
                    done = self.measure(sim, by_a2l, "-r", self.dir / f"{command}-{len(options[1])}")
                    self.assertEqual((done.returncode, done.stderr.count("warning")), (0, 0), done.stderr)
                    _, groups = self.statistics(done.stderr, self.dir / f"{command}-{len(options[1])}")
                    self.check_gapless(groups[0])
                    self.assertEqual(groups[0].name, "cyclic_10ms")
        shown = self.run_cli(sim, "-c", by_a2l, "info").stdout
        self.assertEqual(shown.count("from the A2L"), 3, shown)
        told = json.loads(self.run_cli(sim, "-c", by_a2l, "info", "--json").stdout)["daq"]
        self.assertEqual((told["toldBy"]["resolution"], told["timestampTickNs"]), ("a2l", 1000))

    def test_an_a2l_that_contradicts_the_ecu_is_told_once(self):
        sim = self.start_sim()
        text = sim.a2l.read_text(encoding="utf-8")
        rows = [("FIELD_TYPE_RELATIVE_BYTE", "FIELD_TYPE_ABSOLUTE", "type of identification field is 1, the A2L says 0"),
                ("SIZE_DWORD UNIT_1US", "SIZE_WORD UNIT_1US", "timestamp size is 4, the A2L says 2"),
                ("SIZE_DWORD UNIT_1US", "SIZE_DWORD UNIT_1MS", "timestamp tick in ns is 1000, the A2L says 1000000")]
        for before, after, told in rows:
            with self.subTest(after):
                self.assertIn(before, text)
                sim.a2l.write_text(text.replace(before, after), encoding="utf-8")
                done = self.measure(sim, self.quick_config())
                self.assertEqual((done.returncode, done.stderr.count("does not fit the ECU")), (0, 1), done.stderr)
                self.assertIn(told, done.stderr)
                self.assertEqual(self.run_cli(sim, "get", "gear").stderr, "")
        sim.a2l.write_text(text.replace("DYNAMIC", "STATIC").replace("/begin EVENT", "/begin DAQ_LIST 9 MAX_ODT 1 MAX_ODT_ENTRIES 9 "
                                                                     "/end DAQ_LIST /begin EVENT", 1), encoding="utf-8")
        done = self.measure(sim, self.quick_config(daq={"source": "a2l"}))
        self.assertRegex(done.stderr, r"(?m)^measure: CLEAR_DAQ_LIST: ERR_.*\nhint: .*A2L's DAQ block describes them")

    def test_dtos_that_the_a2l_or_an_override_describes_wrongly(self):
        by_a2l, silent = {"daq": {"source": "a2l"}}, ("--without", "GET_DAQ_PROCESSOR_INFO", "--without", "GET_DAQ_RESOLUTION_INFO")
        many = ["-s", "counter_1ms@1", "-s", "counter_100ms@1"]
        rows = [((), "RELATIVE_BYTE", "ABSOLUTE", by_a2l, [], ["field is 1, the A2L says 0 (the A2L counts", "timestamps of the DTOs do not go"]),
                (silent, "RELATIVE_BYTE", "ABSOLUTE", by_a2l, [], ["timestamps of the DTOs do not go"]),
                (silent, "SIZE_DWORD", "SIZE_WORD", by_a2l, [], ["all DTOs are longer than planned (10 bytes instead of 8)"]),
                (("--timestamp-size", 2), "SIZE_WORD", "SIZE_DWORD", by_a2l, [], ["size is 2, the A2L says 4", "shorter than planned (8 bytes instead of 10)"]),
                (("--max-dto", 11, *silent), "SIZE_DWORD", "SIZE_WORD", by_a2l, many, ["first DTO of each cycle is, and no other"]),
                (("--max-dto", 11, "--pad", 1, *silent), "", "", by_a2l, many, []),
                (("--tells", "timestamp=2"), "", "", {"xcp": {"overrides": {"timestamp": {"tickNs": 2000}}}}, [], ["size is 2, the A2L says 4", "told by xcp.overrides.timestamp"])]
        for options, before, after, sections, signals, told in rows:
            with self.subTest(options, after=after):
                sim = self.start_sim(*options)
                text = sim.a2l.read_text(encoding="utf-8")
                self.assertIn(before, text)
                sim.a2l.write_text(text.replace(before, after), encoding="utf-8")
                nothing = any("shorter" in line for line in told)
                done = self.measure(sim, self.quick_config(**sections), "--fail-on", "empty", *signals, seconds=0.3 if nothing else 1.5)
                self.assertEqual((done.returncode, self.statistics(done.stderr)[0]["records"] == 0), (3 * nothing, nothing), done.stderr)
                self.assertEqual([done.stderr.count(line) for line in told], [1] * len(told), done.stderr)
                warned = sum(done.stderr.count(line) for line in ("does not fit the ECU", "how a DTO is laid out was told by "))
                self.assertEqual(warned, len(told), done.stderr)

    def test_overrides_count_and_are_told(self):
        sim = self.start_sim()
        rows = [({"maxDto": 16}, "its MAX_DTO is 1400: 16 counts (xcp.overrides.maxDto)"),
                ({"timestamp": {"tickNs": 2000}}, "tick in ns is told as 1000: 2000 counts (xcp.overrides.timestamp.tickNs)"),
                ({"granularity": 2}, "address granularity is 1: 2 counts (xcp.overrides.granularity)"),
                ({"byteOrder": "motorola"}, "its byte order is Intel: Motorola counts (xcp.overrides.byteOrder)"),
                ({"maxDto": 1400, "granularity": 1, "byteOrder": "intel", "timestamp": {"size": 4, "fixed": False}}, None)]
        for overrides, told in rows:
            with self.subTest(overrides):
                config = self.quick_config(xcp={"overrides": overrides})
                err = self.run_cli(sim, "-c", config, "info").stderr
                self.assertEqual("xcp.overrides" in err, told is not None, err)
                self.assertIn(told or "", err)
                saved = self.dir / "saved.json"
                self.run_cli(sim, "-c", config, "save-config", saved)
                self.assertEqual(json.loads(saved.read_text())["xcp"]["overrides"], overrides)
        config = self.quick_config(xcp={"overrides": {"maxDto": 16}})
        done = self.measure(sim, config, "-s", "wave@1", "-s", "engine_speed@1")
        self.assertEqual((done.returncode, self.statistics(done.stderr)[0]["lost ODTs"]), (0, 0), done.stderr)

    def test_a_running_bit_that_is_wrong(self):
        """Of lists that run it says that none does; of lists whose start was lost that they do."""
        slow = ["measure", "-t", 2, "-p", 0, "-s", "counter_100ms@2"]
        lost = ["--fault", "ignore:START_STOP_SYNCH:1:1"]
        for options, ignore, code, records, told in (
                (["--tells", "running=0"], True, 0, True, "the ECU says that no DAQ list runs: ignored"),
                (["--tells", "running=0"], False, 2, True, "DAQ no longer running in the ECU"),
                (["--tells", "running=1", *lost], True, 0, True, "START_STOP_SYNCH: timeout"),
                (["--tells", "running=1", *lost], False, 0, False, "no record came")):
            with self.subTest(options, ignore=ignore):
                config = self.quick_config(xcp={"overrides": {"ignoreDaqRunningBit": ignore}}, reconnect={"heartbeatMs": 300})
                done = self.run_cli(self.start_sim(*options), "-c", config, *slow)
                self.assertEqual((done.returncode, self.statistics(done.stderr)[0]["records"] > 0), (code, records), done.stderr)
                self.assertEqual(done.stderr.count(told), 1, done.stderr)

    def test_overrides_that_are_wrong_are_refused(self):
        rows = [({"granularity": 3}, "xcp.overrides.granularity: 3 is none of 1, 2, 4"),
                ({"byteOrder": "big"}, "xcp.overrides.byteOrder: 'big' is neither \"intel\" nor \"motorola\""),
                ({"maxDto": 7}, "xcp.overrides.maxDto: 7 is not a whole number from 8 to 65535"),
                ({"timestamp": {"size": 3}}, "xcp.overrides.timestamp.size: 3 is none of 0, 1, 2, 4"),
                ({"timestamp": {"fixed": 1}}, "xcp.overrides.timestamp.fixed: must be true or false, but is number"),
                ({"ignoreDaqRunningBit": "x"}, "xcp.overrides.ignoreDaqRunningBit: must be true or false, but is string")]
        for overrides, told in rows:
            config = self.config(json.dumps({"xcp": {"overrides": overrides}}))
            done = self.run_plain("-c", config, "list")
            self.assertEqual(done.returncode, 1)
            self.assertIn(f"configuration: {told}", done.stderr)
