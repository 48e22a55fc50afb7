"""Seed & key: what opens a locked ECU, what the library or program may do wrong, and which files are not run."""
import hashlib
import json
import os
import re
import shutil
import subprocess
import sys
import unittest
from pathlib import Path

import harness
from harness import stop, value_line

HELPER = f"""#!{sys.executable}
import sys
seed, privilege = bytes.fromhex(sys.stdin.read()), int(sys.argv[-1])
print("asked for", privilege, file=sys.stderr)
print(bytes((b ^ 0x5A) + privilege + i & 0xFF for i, b in enumerate(seed)).hex(" "))
"""
SET = ("set", "cal_gain=2")
GAIN = value_line("cal_gain", "2.000")
MEASURE = ("measure", "-s", "counter_1ms@0", "-t", "0.2", "-p", "0")
CRASHED = "it crashed (SIGABRT, Aborted)"


class SecurityTest(harness.SystemTest):
    def setUp(self):
        super().setUp()
        self.library, self.ccp = (shutil.copy(os.environ[name], self.dir) for name in ("XCPLUMO_DEMO_KEY", "XCPLUMO_DEMO_CCP_KEY"))
        self.helper = self.script("helper", HELPER)

    def script(self, name, text):
        path = self.dir / name
        path.write_text(text)
        path.chmod(0o755)
        return path

    def security(self, **section):
        return self.quick_config(security={name: str(value) if isinstance(value, Path) else value
                                           for name, value in section.items()})

    def run_locked(self, sim, section, *arguments, mode="", **options):
        return self.run_cli(sim, "-c", self.security(**section), *arguments, env=dict(self.env, DEMO_KEY=mode), **options)

    def test_what_a_command_needs_is_unlocked(self):
        library, command = {"library": "libdemo_key.so"}, {"command": ["./helper", "word"]}
        quirky = ("--lock", "cal,daq", "--lock-quirks", "silent,reads,queries")
        for options, section, arguments, out in (
                (("--lock", "cal,daq"), library, SET, GAIN),
                (("--lock", "cal,daq"), library, MEASURE, ""),
                (("--lock", "cal,daq"), command, SET, GAIN),
                (("--lock", "cal"), {"library": "libdemo_ccp_key.so"}, SET, GAIN),
                (("--lock", "cal", "--seed-bytes", "255", "--max-cto", "8"), library, SET, GAIN),
                (("--lock", "cal,daq", "--lock-quirks", "once"), library, SET, GAIN),
                (("--lock", "cal,daq", "--lock-quirks", "once"), library, MEASURE, ""),
                (quirky, library, SET, GAIN), (quirky, library, MEASURE, ""),
                (("--lock", "cal"), library, ("unlock",), "CAL/PAG        unlocked\nDAQ            open\n"),
                (("--lock", "daq", "--lock-quirks", "queries"), library, ("unlock", "daq"), "DAQ            unlocked\n"),
                (("--lock", "daq", "--lock-quirks", "silent"), command, ("unlock", "daq"), "DAQ            unlocked\n")):
            with self.subTest(options=options, section=section, arguments=arguments):
                done = self.run_locked(self.start_sim(*options), section, *arguments, mode="threads")
                self.assertEqual((done.stdout, done.returncode), (out, 0), done.stderr)
                said = "asked for" if "command" in section else "text of the library"
                self.assertIn(f"security: {said}", done.stderr)
                if arguments == MEASURE:
                    self.assertGreater(self.statistics(done.stderr)[0]["records"], 100)

    def test_after_a_reconnection(self):
        sim = self.start_sim("--lock", "daq", "--fault", "restart:DAQ:300:1")
        done = self.run_locked(sim, {"library": self.library}, "--reconnect", "retry", "measure", "-s", "counter_1ms@0",
                               "-t", "4", "-p", "0")
        told, _ = self.statistics(done.stderr)
        self.assertEqual((done.returncode, told["reconnects"]), (0, 1), done.stderr)
        self.assertIn("** measuring", done.stderr)
        self.assertGreater(told["records"], 600)

    def test_a_key_refused_after_a_loss_is_not_given_again(self):
        """The first key is right, all others are wrong: one of these is given, however often it is tried."""
        for quirks in ((), ("--lock-quirks", "queries"), ("--lock-quirks", "silent")):
            with self.subTest(quirks):
                asked = self.dir / f"asked{len(list(self.dir.iterdir()))}"
                helper = self.script("turning", HELPER.replace("^ 0x5A)", "^ 0x5A ^ wrong)").replace(
                    "print(bytes", f"asked = open('{asked}', 'a+')\nwrong = asked.tell() > 0\nasked.write('x')\nprint(bytes"))
                sim = self.start_sim("--lock", "daq", *quirks, "--fault", "restart:DAQ:300:1")
                tool = self.start_cli(sim, "-c", self.security(command=[str(helper)]), "--reconnect", "retry_forever", "measure", "-s", "counter_1ms@0", "-p", "0")
                tool.wait_for(lambda: tool.err.count("the ECU refused the key for DAQ before") > 2, "three more attempts")
                stop(tool)
                self.assertEqual(asked.read_text(), "xx")
                for told in ("DAQ: UNLOCK: the ECU refused the key for DAQ and ended the session", "no second key is given"):
                    self.assertEqual(tool.err.count(told), 1, tool.err)

    def test_what_goes_wrong_is_one_error(self):
        quick = {"timeoutMs": 300}
        foreign = self.script("foreign.so", "not a library")
        alien = self.dir / "alien.so"  # for another processor of as many bits
        image = bytearray(Path(self.library).read_bytes())
        image[18:20] = b"\xb7\0" if image[18] != 0xB7 else b"\xf3\0"
        alien.write_bytes(image)
        rows = [
            (self.library, "crash", CRASHED), (self.library, "sleep", "no key within 300 ms"),
            (self.library, "beyond", "the library went beyond the 255 bytes"), (self.library, "nothing", "the library gave a key without"),
            (self.library, "fail", "XCP_ComputeKeyFromSeed: it expects a seed of another length (2)"),
            (self.library, "daq only", "XCP_GetAvailablePrivileges: it has no key for privilege 1"),
            (self.ccp, "long", "the library went beyond the 255 bytes"), (self.ccp, "fail", "ASAP1A_CCP_ComputeKeyFromSeed: it failed"),
            (self.script("windows.so", "MZ and so on"), "", "it is a library for Windows"), (alien, "", "it is for "),
            (self.dir / "none.so", "", "cannot open "), (foreign, "", f"{foreign}: "), (self.dir, "", f"{self.dir} is not a regular file"),
        ]
        sections = [({"library": path} | quick, mode, path, reason) for path, mode, reason in rows]
        for text, reason in (("echo rubbish", "8 byte(s) of output that are not a key in hexadecimal"), ("exit 0", "it printed no key"),
                             ("echo sorry >&2; exit 3", "it ended with exit code 3: sorry"), ("kill -ABRT $$", CRASHED),
                             ("sleep 1000 & wait", "no key within 300 ms"), ("yes", "no key within 300 ms")):
            path = self.script(f"helper{len(sections)}", f"#!/bin/sh\n{text}\n")
            sections.append(({"command": [str(path)]} | quick, "", path, reason))
        orphan = self.script("orphan", "#!/no/such/python3\r\n")
        summed = {"command": [str(orphan)], "sha256": hashlib.sha256(orphan.read_bytes()).hexdigest()}
        sections.append((summed, "", orphan, r"its first line names /no/such/python3\x0D, which is missing"))
        sections.append(({"command": ["xcplumo-no-such"]}, "", "xcplumo-no-such", "cannot open xcplumo-no-such: No such file"))
        sim = self.start_sim("--lock", "cal")
        for section, mode, path, reason in sections:
            with self.subTest(section=section, mode=mode):
                done = self.run_locked(sim, section, *SET, mode=mode)
                key = "library" if "library" in section else "command"
                self.assertIn(f"ERROR security.{key} {path}: {reason}", done.stdout)
                self.assertRegex(done.stderr, "(?m)^hint: ")
                self.assertEqual((done.returncode, len(done.stdout.splitlines())), (1, 1))

    def test_a_wrong_key_and_none(self):
        """Told; the ECU is connected to once more, and gets no second wrong key for the same."""
        sim = self.start_sim("--lock", "cal,daq")
        done = self.run_locked(sim, {"library": self.library}, "-v", *SET, "cal_idle_speed=900", mode="wrong")
        self.assertRegex(done.stdout, r"cal_gain +ERROR UNLOCK: the ECU refused the key for CAL/PAG and ended the session\n"
                         r"cal_idle_speed +ERROR the ECU refused the key for CAL/PAG before\n")
        self.assertEqual(done.stderr.count("XCP connected"), 2)
        refused, skipped = "UNLOCK: the ECU refused the key for CAL/PAG and ended the session", "not tried: a key was refused"
        for quirks, why in (((), (refused, skipped)), (("--lock-quirks", "queries"), (skipped, "the ECU refused the key for DAQ before"))):
            done = self.run_locked(self.start_sim("--lock", "cal,daq", *quirks), {"library": self.library},
                                   "unlock", "--json", mode="wrong")
            told = json.loads(done.stdout)
            self.assertEqual([(r["name"], r["state"], r["error"]["message"]) for r in told["resources"]],
                             [("CAL/PAG", "locked", why[0]), ("DAQ", "locked", why[1])])
            self.assertEqual((told["exit"], done.returncode), (1, 1))
        self.assertTrue(self.run_cli(sim, "info").stdout.endswith("\nlocked         CAL/PAG, DAQ (seed and key)\n"))
        # One that does not tell what is locked, but refuses the questions about DAQ.
        done = self.run_cli(self.start_sim("--lock", "daq", "--lock-quirks", "queries,silent"), "unlock", "daq")
        self.assertEqual((done.stdout, done.returncode), ("DAQ            locked: there is no key for DAQ\n", 1))
        for arguments, name in ((SET, "CAL/PAG"), (MEASURE, "DAQ"), (("unlock", "daq"), "DAQ")):
            done = self.run_cli(sim, *arguments)
            self.assertEqual(done.returncode, 1)
            self.assertRegex(done.stderr, rf'(?m)^hint: .*{name} is locked \(seed and key\): "security" in the configuration '
                             r".*; the A2L calls its library demo_key\.dll$")

    def test_ctrl_c_ends_the_helper_and_nothing_is_told_of_seeds_and_keys(self):
        sim = self.start_sim("--lock", "cal")
        slow = self.script("slow", f"#!/bin/sh\necho $$ >{self.dir}/pid\nsleep 1000\n")
        tool = self.start_cli(sim, "-c", self.security(command=[str(slow)], timeoutMs=100000), *SET)
        harness.wait_until(lambda: (self.dir / "pid").exists() and (self.dir / "pid").read_text().strip(), "the helper")
        code, seconds = stop(tool)
        self.assertEqual(code, 1)
        self.assertLess(seconds, harness.PATIENCE / 2)
        self.assertFalse(Path(f"/proc/{(self.dir / 'pid').read_text().strip()}").exists())
        keeper = self.script("keeper", HELPER + f"open('{self.dir}/seed', 'w').write(seed.hex())\n")
        done = self.run_cli(sim, "-v", "-c", self.security(command=[str(keeper)]), *SET)
        seed = (self.dir / "seed").read_text()
        key = bytes((b ^ 0x5A) + 1 + i & 0xFF for i, b in enumerate(bytes.fromhex(seed))).hex()
        self.assertEqual(done.returncode, 0, done.stderr)
        for secret in (seed, key):
            self.assertNotIn(secret, re.sub(r"\s", "", done.stderr + done.stdout).lower())
        for form in ("seed.hex()", "seed.hex().upper()", "seed.hex(' ')", "', '.join(map(hex, key))", "key.hex('\\n')", "seed.hex() + key.hex()"):
            teller = self.script("teller", HELPER.replace("print(bytes", "print((key := bytes").replace(".hex(\" \"))", ").hex())") +
                                 f"print('it is', {form}, 'so', file=sys.stderr)\nsys.exit(privilege)\n")
            done = self.run_cli(sim, "-c", self.security(command=[str(teller)]), *SET, "--json")
            self.assertRegex(json.loads(done.stdout)["values"][0]["error"]["message"], r": it is (0x)?(\[hidden\])+ so$")
        flood = self.script("flood", HELPER + "for i in range(300): print('line', i, file=sys.stderr)\n")
        done = self.run_cli(sim, "-c", self.security(command=[str(flood)]), *SET)
        self.assertEqual((done.returncode, done.stderr.count("security: ")), (0, 6), done.stderr)

    def test_files_of_others_are_not_run(self):
        sim = self.start_sim("--lock", "cal")
        digest = {name: hashlib.sha256(Path(name).read_bytes()).hexdigest() for name in (self.library, self.helper)}
        library, command = {"library": self.library}, {"command": [sys.executable, str(self.helper)]}
        shared = self.dir / "shared"  # links in a directory that others may write to lead to files that they may not
        shared.mkdir()
        (shared / "link").symlink_to(self.helper)
        (shared / "link.so").symlink_to(self.library)
        linked = {"library": shared / "link.so"}
        for section, spoilt, code in ((library, self.library, 1), (command, self.helper, 1), (library, self.dir, 1),
                                      (library | {"sha256": digest[self.library].upper()}, self.library, 0),
                                      (command | {"sha256": [digest[self.library], digest[self.helper]]}, self.helper, 0),
                                      (library | {"sha256": digest[self.helper]}, self.dir / "none", 1),
                                      (library | {"sha256": digest[self.library]}, None, 1),
                                      (linked, shared, 1), ({"command": [sys.executable, os.path.relpath(shared / "link")]}, shared, 1),
                                      (linked | {"sha256": digest[self.library]}, shared, 0)):
            config = self.security(**section)
            path = Path(config if spoilt is None else spoilt)
            path.touch()
            rights = path.stat().st_mode
            path.chmod(0o777)
            with self.subTest(section=section, spoilt=spoilt):
                done = self.run_cli(sim, "-c", config, *SET)
                self.assertEqual(done.returncode, code, done.stderr)
                self.assertEqual("refused" in done.stdout, code == 1, done.stdout)
                self.assertNotIn("by hand", done.stderr)
            path.chmod(rights)
        config = Path(self.security(**library))
        for rights, code in ((0o666, 1), (0o644, 0)):
            config.chmod(rights)
            saved = self.dir / f"saved{code}.json"
            done = self.run_cli(sim, "-c", config, "save-config", saved)
            self.assertEqual((done.returncode, saved.exists(), "is refused: " in done.stderr), (code, code == 0, code == 1), done.stderr)
        copy = self.dir / "copy"  # of the tool, with an xcplumo-key beside it that others may write to
        copy.mkdir()
        tool = shutil.copy(harness.CLI, copy)
        self.script("copy/xcplumo-key", "#!/bin/sh\necho 00\n").chmod(0o777)
        for section, code in ((library, 1), (library | {"sha256": list(digest.values())}, 1), (command, 0)):
            done = subprocess.run([tool, *self.arguments(sim, "-c", self.security(**section), *SET)[1:]],
                                  capture_output=True, text=True, env=self.env, check=False)
            self.assertEqual((done.returncode, f"{copy}/xcplumo-key is refused: " in done.stdout), (code, code == 1), done.stdout)


if __name__ == "__main__":
    unittest.main()
