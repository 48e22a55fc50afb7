"""Which files the tool makes, with which rights, and that nothing that others wrote leads it elsewhere."""
import os
import re
import stat
import subprocess
import unittest

import harness
from harness import CLI, record

# As long as the names they replace, which the ECU tells.
EVENT_NAMES = ((b"cyclic_10ms", b"/%n/\x1b[2J../"), (b"cyclic_1ms", b"../../../x"))
FILES = ("saved.json", "out.mf4", "out_.._.._.._x.csv", "out__%n__[2J.._.csv", "rec/meta.json", "rec/events.jsonl",
         "rec/g0000", "rec/g0001")
EVIL = "../../../%n%s/\x1b]0;evil\x07"


def tree(root):
    """Every path below it with its kind and rights, and what files hold."""
    found = {}
    for path in root.rglob("*"):
        status = path.lstat()
        content = path.read_bytes() if stat.S_ISREG(status.st_mode) else b""
        found[str(path.relative_to(root))] = (stat.filemode(status.st_mode), content)
    return found


class RightsTest(harness.SystemTest):
    def hostile_a2l(self, sim):
        """The ECU's description with names and texts that would lead out of any directory they were put into."""
        text = sim.a2l.read_text()
        for old, new in (("MEASUREMENT wave", "MEASUREMENT .."), ('"rpm"', f'"{EVIL}"')):
            self.assertIn(old, text)
            text = text.replace(old, new)
        text = re.sub("/begin MODULE [^ ]+", "/begin MODULE ..", text)
        path = sim.a2l.with_name("hostile.a2l")
        path.write_text(text)
        return path

    def run_everything(self, mask, home, work, reach):
        """Each command once, in a directory of its own."""
        env = dict(os.environ, HOME=str(home), TMPDIR=str(home), XDG_CONFIG_HOME=str(home), XDG_STATE_HOME=str(home), XDG_RUNTIME_DIR=str(home),
                   XDG_CACHE_HOME=str(home), LANG=EVIL, LC_ALL=EVIL, LANGUAGE=EVIL, TZ=":" + EVIL, HOSTALIASES=EVIL,
                   SPDLOG_LEVEL=EVIL, TERM=EVIL, COLUMNS=EVIL)
        for command in ([*reach, "info"], [*reach, "list"], [*reach, "get", "..", "engine_speed"],
                        [*reach, "set", "cal_gain=1"], [*reach, *record("rec", ["..@0", "engine_speed@1"], 0.3, every=1)],
                        *(["recording", action, "rec"] for action in ("info", "check", "repair")),
                        ["recording", "show", "rec", "-s", ".."],
                        ["export", "rec", "-o", "out.mf4"], ["export", "rec", "-o", "out.csv"],
                        [*reach, "save-config", "saved.json"]):
            done = subprocess.run([CLI, *map(str, command)], cwd=work, env=env, umask=mask, timeout=harness.PATIENCE,
                                  stdin=subprocess.DEVNULL, capture_output=True, check=False)
            self.assertEqual(done.returncode, 0, (command, done.stderr))

    def test_files_are_where_they_were_asked_for_and_as_private_as_the_umask(self):
        relay = self.start_relay()

        def rename(datagram):
            for old, new in EVENT_NAMES:
                datagram = datagram.replace(old, new)
            return datagram

        relay.change = rename
        reach = ["-c", self.config('{"name": "../../%n"}'), "--a2l", self.hostile_a2l(relay), *relay.reach]
        for mask, rights in ((0o022, "rw-r--r--"), (0o077, "rw-------")):
            root = self.dir / f"root{mask}"
            home, work = root / "home", root / "a" / "b" / "c"
            for path in (home, work):
                path.mkdir(parents=True)
            before = tree(root)
            self.run_everything(mask, home, work, reach)
            made = {self.without_kind(path): found[0] for path, found in tree(root).items() if before.get(path) != found}
            expected = {f"a/b/c/{name}": "-" + rights for name in FILES}
            expected["a/b/c/rec"] = "d" + rights.replace("rw-", "rwx").replace("r--", "r-x")
            # What others have no business with, whatever the umask says.
            expected |= {"home/xcplumo": "drwx------", "home/xcplumo/changes-_______n.jsonl": "-rw-------"}
            self.assertEqual(made, expected)
            exported = work / "out.mf4"
            exported.chmod(0o640)
            self.assertEqual(self.run_plain("export", work / "rec", "-o", exported, "--force").returncode, 0)
            self.assertEqual(stat.filemode(exported.stat().st_mode), "-rw-r-----")

    @staticmethod
    def without_kind(path):
        """How many levels a group has depends on how long it was."""
        return re.sub(r"(/rec/g000[01])(\.rec|\.tix|_L\d\.pyr)$", r"\1", path)

    def test_nothing_is_written_through_what_lies_in_the_way(self):
        """Links, pipes and devices under the names of a recording's files: refused at once, or replaced."""
        sim = self.start_sim()
        mine = self.dir / "mine"
        mine.write_text("mine")
        for number, put in enumerate((lambda path: path.symlink_to(mine), lambda path: path.symlink_to("/dev/null"),
                                      os.mkfifo)):
            directory = self.dir / f"rec{number}"
            directory.mkdir()
            put(directory / "g0000.rec")
            os.mkfifo(directory / "meta.json.tmp")
            self.expect(self.run_cli(sim, *record(directory, ["counter_1ms"])), code=1,
                        err=f"measure: cannot create {directory / 'g0000.rec'}: not a regular file\n")
        self.assertEqual(mine.read_text(), "mine")
        directory = self.dir / "linked"
        directory.mkdir()
        (directory / "meta.json.tmp").symlink_to(mine)
        self.assertEqual(self.run_cli(sim, *record(directory, ["counter_1ms"], 0.1)).returncode, 0)
        records = directory / "g0000.rec"
        mine.write_bytes(records.read_bytes() + b"torn")
        before = mine.read_bytes()
        records.unlink()
        records.symlink_to(mine)
        self.expect(self.run_plain("recording", "repair", directory), code=1,
                    err=f"recording: cannot write {records}: a symbolic link is not followed\n")
        self.assertEqual(mine.read_bytes(), before)


if __name__ == "__main__":
    unittest.main()
