"""`set` where it must refuse, or fails: what is told, and what the ECU's memory holds. Values: the campaign set_safety."""
import socket
import time
import unittest

from ecu_model import Memory
from harness import SystemTest, counters, signals, stop, value_line, without_hints

BASE, ROOM = 0x10000, 0xC0

# What a calculation cannot know of, one of each kind of text: what is typed, the error behind the name.
REFUSED = (
    ("cal_limited=-100.001", "cal_limited: -100.001 outside the limits [-100, 100]"),
    ("cal_limited=1,5", "cal_limited: '1,5' is not a number"),
    ("cal_limited==5", "cal_limited: '=5' is not a number"),
    ("cal_injector=On", "cal_injector: 'On' is not a valid value"),
    ("cal_read_only=1", "cal_read_only is not writable"),
    ("cal_protected=1", "DOWNLOAD: ERR_WRITE_PROTECTED (0x23)"),
    ("cal_stubborn=1", "cal_stubborn: read back value differs from the written value"),
    ("odometer=1", "odometer is a measurement without READ_WRITE"),
    ("nothing=1", "'nothing' is neither a MEASUREMENT nor a CHARACTERISTIC"),
)
REFUSED_WITH_M = (
    ("cylinder_torque[4]=1", "cylinder_torque[4]: index 4 is beyond the last one, 3"),
    ("bad_address=1", "SHORT_UPLOAD: ERR_OUT_OF_RANGE (0x22)"),
    ("program_id=1", "DOWNLOAD: ERR_WRITE_PROTECTED (0x23)"),
)
# Of those, the ones that were sent to the ECU, and what it holds afterwards.
SENT = {"cal_protected": "815.000", "cal_stubborn": "4711.000", "program_id": "541463041"}


class ValuesTest(SystemTest):
    def test_refused_assignments_change_nothing(self):
        image = self.dir / "memory"
        sim = self.start_sim("--memory-file", image)
        # The first write makes the image.
        self.expect(self.run_cli(sim, "set", "cal_limited=-2.5"), value_line("cal_limited", "-3.000"),
                    "cal_limited: -2.5 is not possible, the nearest value is -3.000\n")
        before = Memory(image).bytes(BASE, ROOM)
        self.assertEqual(before[0x8C:0x8E], b"\xfd\xff")
        for rows, options in ((REFUSED, []), (REFUSED_WITH_M, ["-m"])):
            done = self.run_cli(sim, "set", *options, *(text for text, _ in rows))
            lines = [value_line(text.partition("=")[0], f"ERROR {error}") for text, error in rows]
            told = [f"{name}: the ECU now holds {held}\n" for name, held in SENT.items() if f"{name} " in done.stdout]
            self.expect(done, "".join(lines), "".join(told), code=1)
        self.assertEqual(Memory(image).bytes(BASE, ROOM).hex(), before.hex())

    def test_only_who_asks_writes_beyond_the_limits(self):
        sim = self.start_sim()
        rows = ((["cal_extended=150"], "ERROR cal_extended: 150 outside the limits [0, 100]", "the extended limits are [0, 200]"),
                (["--extended-limits", "cal_extended=150"], "150.000", "150 is outside the limits [0, 100], the extended ones allow it"),
                (["--extended-limits", "cal_extended=201"], "ERROR cal_extended: 201 outside the limits [0, 200]", ""))
        for words, line, told in rows:
            done = self.run_cli(sim, "set", *words)
            self.assertEqual(done.stdout, value_line("cal_extended", line))
            self.assertIn(told, done.stderr)
        self.expect(self.run_cli(sim, "get", "cal_extended"), value_line("cal_extended", "150.000"))

    def test_bits_of_a_word_that_the_ecu_changes(self):
        """Without MODIFY_BITS, which the A2L promises, they are written as ever, and that is told."""
        offer = ["--offer", "modify-bits"]
        for names, options in ((("cal_control_fan", "cal_control_level"), offer), (("cal_mode_low", "cal_mode_middle"), [])):
            sim = self.start_sim(*options)
            sim.a2l = self.write_a2l(*offer)
            done = self.run_cli(sim, "-c", self.quick_config(xcp={"modifyBits": True}), "set", *(f"{name}=5" for name in names))
            told = [] if options else [f"{names[0]}: the ECU has no MODIFY_BITS, the bits beside it are written as they were read"]
            self.assertEqual((done.returncode, [line.split("] ")[-1] for line in done.stderr.splitlines()]), (0, told), done.stdout)
            self.assertEqual([float(line.split()[1]) for line in done.stdout.splitlines()], [5, 5])
            sent = counters(sim)
            self.assertEqual((sent.get("command-MODIFY_BITS", 0) > 1, "command-DOWNLOAD" in sent), (bool(options), not options))

    def test_an_ecu_that_starts_late_is_waited_for(self):
        """Longer than the attempts that there would be otherwise."""
        sim = self.start_sim()
        stop(sim)
        config = self.quick_config(xcp={"connectAttempts": 1})
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
            silent.bind(("127.0.0.1", sim.port))
            silent.settimeout(60)
            waiting = self.start(self.arguments(sim, "--connect-timeout", 60, "-c", config, "get", "cal_limited"))
            for _ in range(3):
                self.assertEqual(silent.recv(100)[4], 0xFF)
        self.start_sim(port=sim.port)
        waiting.await_end()
        self.assertEqual((waiting.process.wait(), waiting.out), (0, value_line("cal_limited", "7.000")), waiting.err)

    def test_waiting_for_an_ecu_ends_in_time_and_says_why(self):
        """Before the timeout of one CONNECT; a reason that stays is told once."""
        sim = self.start_sim("--fault", "ignore:CONNECT:1:0")
        for reach, t1, within, told in ((sim.reach, 60000, "0.5", "CONNECT: no response from slave within 0.5 s"),
                                        (sim.reach, 200, "2.5", "waiting up to 2.5 s for udp:"),
                                        (["--serial", self.dir / "none"], 200, "0.5", "waiting up to 0.5 s for serial:")):
            with self.subTest(told):
                config = self.quick_config(xcp={"timeoutsMs": [t1] * 7})
                begin = time.monotonic()
                done = self.run_plain("--a2l", sim.a2l, *reach, "-c", config, "--connect-timeout", within, "info")
                self.assertLess(time.monotonic() - begin, 30, done.stderr)
                self.assertEqual((done.returncode, done.stderr.count(told)), (1, 1), done.stderr)

    def test_a_write_that_fails_half_way_tells_what_the_ecu_holds(self):
        """The value takes two DOWNLOADs; the second one meets the fault."""
        unknown = "what it now holds is not known"
        rows = (("error:DOWNLOAD:2:0:36", "DOWNLOAD: ERR_ACCESS_DENIED (0x24)", "the ECU now holds 3.3158e+12"),
                ("silence:DOWNLOAD:2", "DOWNLOAD: SYNCH: no response from slave", f"the ECU does not answer, {unknown}"))
        for fault, error, held in rows:
            with self.subTest(fault):
                sim = self.start_sim("--max-cto", 8, "--fault", fault)
                done = self.run_cli(sim, "-c", self.quick_config(), "set", "cal_uint64_lsb=0x0102030405000000")
                self.assertEqual(done.stdout, value_line("cal_uint64_lsb", f"ERROR {error}"))
                told = without_hints(done.stderr).splitlines()
                self.assertEqual((told[-1], done.returncode), (f"cal_uint64_lsb: {held}", 1))

    def test_all_digits_where_they_are_asked_for(self):
        """By the option and by the configuration, which keeps it; a signal that no recording can hold is refused."""
        sim = self.start_sim()
        sim.a2l.write_text(sim.a2l.read_text(encoding="utf-8").replace("/begin MEASUREMENT", """
            /begin MEASUREMENT turned "" UWORD NO_COMPU_METHOD 0 0 -1e9 1e9 ECU_ADDRESS 0x00012079 BIT_MASK 0xF0
            /begin BIT_OPERATION RIGHT_SHIFT 2 /end BIT_OPERATION /end MEASUREMENT /begin MEASUREMENT""", 1), encoding="utf-8")
        lambda_ = "1.0101010101010102"
        told = "cal_lambda: 0.85 is not possible, the nearest value is "
        self.expect(self.run_cli(sim, "set", "cal_lambda=0.85"), value_line("cal_lambda", "1.010"), f"{told}1.010\n")
        self.expect(self.run_cli(sim, "set", "--exact", "cal_uint64_lsb=0xFFFFFFFFFFFFFFFD", "cal_lambda=0.85"),
                    value_line("cal_uint64_lsb", 2 ** 64 - 3) + value_line("cal_lambda", lambda_), f"{told}{lambda_}\n")
        config = self.config('{"display": {"exact": true}}')
        saved = self.dir / "saved.json"
        self.assertEqual(self.run_cli(sim, "-c", config, "save-config", saved).returncode, 0)
        self.assertTrue(saved.read_text(encoding="utf-8").endswith('[],\n  "display": {\n    "exact": true\n  }\n}\n'))
        self.expect(self.run_cli(sim, "-c", saved, "get", "cal_uint64_lsb"), value_line("cal_uint64_lsb", 2 ** 64 - 3))
        done = self.run_cli(sim, "measure", "-t", 0.5, "-p", 1, "-r", self.dir / "rec", *signals(["cal_uint64_lsb", "lambda"]))
        self.assertRegex(done.stdout, r"cal_uint64_lsb=1.84467e\+19  lambda=\d+\.\d\d\d\n")
        done = self.run_cli(sim, "measure", "--exact", "-t", 0.5, "-p", 1, *signals(["cal_uint64_lsb"]))
        self.assertRegex(done.stdout, r"cal_uint64_lsb=18446744073709551613\b")
        info = self.run_plain("recording", "info", self.dir / "rec", "-c", saved).stdout
        self.assertRegex(info, rf"cal_uint64_lsb +A_UINT64 +{2 ** 64 - 3} +{2 ** 64 - 3}\b")
        self.assertEqual(info, self.run_plain("recording", "info", "--exact", self.dir / "rec").stdout)
        done = self.run_cli(sim, "measure", "-r", self.dir / "no", "-t", 0.1, *signals(["lambda", "turned"]))
        self.expect(done, err="measure: turned: a recording cannot say what its BIT_OPERATION does, "
                              "measure it without recording\n", code=1)


if __name__ == "__main__":
    unittest.main()
