"""`measure --table` on a terminal of its own: what its screen shows, its keys, and that the terminal is as it was."""
import os
import re
import signal
import termios
import unittest

import harness
from harness import SystemTest, Terminal, wait_until
from screen import Screen

ROW = re.compile(r"^(\S+) +(\S.*?)  +(?:([a-zA-Z%]+) +)?(\S+) +(\S+) +([\d.]+)/s$")


class Table:
    """The tool with its table, and what the terminal shows of it."""

    def __init__(self, arguments, env, rows=24, columns=80):
        self.terminal = Terminal(arguments, env, rows, columns)
        self.screen, self.fed = Screen(rows, columns), 0

    def lines(self):
        """The screen after the last line that has come as a whole."""
        text = self.terminal.screen
        drawing = text.rfind("\x1b[?1049h") > text.rfind("\x1b[?1049l")
        cut = max(text.rfind("\x1b[K") + 3, self.fed) if drawing else len(text)
        self.screen.feed(text[self.fed:cut])
        self.fed = cut
        return self.screen.lines()

    def wait_for(self, condition, what):
        def look():
            self.terminal.wait_for("measuring")
            return condition(self.lines())
        try:
            wait_until(look, what)
        except AssertionError as late:
            raise AssertionError("\n".join(self.lines())) from late

    def wait_rows(self, count, first):
        """Waits for that many rows with values, of which the first is of that signal; returns name to row."""
        def rows(lines):
            return [found for found in map(ROW.match, lines) if found and found[2] != "-"]
        self.wait_for(lambda lines: len(rows(lines)) == count and rows(lines)[0][1] == first,
                      f"{count} rows, the first {first}")
        return {row[1]: row for row in rows(self.lines())}

    def resize(self, rows, columns):
        self.screen.resize(rows, columns)
        termios.tcsetwinsize(self.terminal.slave, (rows, columns))

    def end(self):
        """Waits for the end; returns the exit code and what stands on the screen that was there before."""
        self.terminal.wait_for("")
        assert termios.tcgetattr(self.terminal.slave) == self.terminal.before
        sent = self.terminal.screen
        assert sent.count("\x1b[?1049h") == sent.count("\x1b[?1049l") and not self.screen.strange, self.screen.strange
        return self.terminal.process.returncode, re.sub(r"(?s)\x1b\[\?1049h.*?\x1b\[\?1049l", "", sent)


class TableTest(SystemTest):
    def start_table(self, sim, *arguments, rows=24, columns=80, env=None):
        table = Table(self.arguments(sim, "measure", "--table", *arguments), self.env | (env or {}), rows, columns)
        self.addCleanup(table.terminal.close)
        return table

    def test_twenty_signals_fit_and_ctrl_c_gives_the_terminal_back(self):
        sim = self.start_sim()
        table = self.start_table(sim, "--event", "auto", *harness.signals(["counter_1ms", "status_gear", "engine_speed"]),
                                 "-s", "sig_*", "-r", self.dir / "out")
        table.resize(26, 80)
        rows = table.wait_rows(22, "counter_1ms")
        table.wait_for(lambda lines: re.search(r"\d{3,}/s$", lines[3]) and "recorded" in lines[0], "the rate")
        counter, gear = table.wait_rows(22, "counter_1ms")["counter_1ms"], rows["status_gear"]
        self.assertLess(int(counter[4]), int(counter[5]))
        self.assertEqual(counter[2], counter[5], "it goes up")
        self.assertIn(gear[2], ("neutral", "first", "second", "third", "fourth", "fifth", "reverse"))
        self.assertRegex(table.lines()[0], r"^\d+\.\d s  measuring  \d+ records, no losses, \d+\.\d kB recorded$")
        if os.environ.get("XCPLUMO_SHOW"):
            print("\n".join(table.lines()))
        table.terminal.type(b"\x03")
        code, around = table.end()
        told, _ = self.statistics(around.replace("\r", ""), self.dir / "out")
        self.assertEqual((code, told["records"] > 0), (0, True))

    def test_two_hundred_signals_scroll_and_follow_the_size(self):
        sim = self.start_sim()
        names = [f"s{i}" for i in range(200)]
        a2l = sim.a2l.read_text(encoding="utf-8")
        made = "".join(f'/begin MEASUREMENT {name} "" ULONG NO_COMPU_METHOD 0 0 0 4294967295 ECU_ADDRESS 0x12000 '
                       "/end MEASUREMENT\n" for name in names)
        sim.a2l.write_text(a2l.replace("/end MODULE", made + "/end MODULE"), encoding="utf-8")
        (self.dir / "list").write_text("# all\n" + "\r\n".join(names) + "\r\n")
        table = self.start_table(sim, "--signals-from", self.dir / "list")
        for keys, first, last in ((b"", 0, 19), (b"\x1b[B" * 3, 3, 22), (b"\x1b[A", 2, 21), (b"\x1b[6~", 22, 41),
                                  (b"\x1b[F", 180, 199), (b"\x1bOA\x1b[1;5C?", 179, 198), (b"\x1b[5~", 159, 178),
                                  (b"\x1b", 159, 178), (b"[H", 0, 19)):
            table.terminal.type(keys)
            rows = table.wait_rows(20, f"s{first}")
            self.assertEqual(list(rows), names[first:last + 1])
            self.assertIn(f"signals {first + 1}-{last + 1} of 200, the arrow keys scroll", table.lines())
        for size, count in (((10, 60), 6), ((60, 200), 56), ((24, 80), 20)):
            table.resize(*size)
            table.wait_rows(count, "s0")
        # The value stays when there is no room for others.
        table.resize(12, 24)
        table.wait_for(lambda lines: re.match(r"^s0 +\d+$", lines[3]), "name and value alone")
        table.resize(1, 8)
        table.wait_for(lambda lines: lines[0].endswith("..") and len(lines) == 1, "a line")
        table.terminal.process.send_signal(signal.SIGTERM)
        self.assertEqual(table.end()[0], 0)

    def test_messages_and_losses_stand_in_the_table_and_messages_again_after_it(self):
        sim = self.start_sim("--fault", "lose-odt:50")
        config = self.quick_config(reconnect={"policy": "retry_forever"})
        table = self.start_table(sim, "-c", config, *harness.signals(["counter_1ms", "wave"]))
        table.wait_for(lambda lines: any(line.startswith("LOSSES: ") for line in lines), "losses")
        sim.signal(signal.SIGSTOP)
        table.wait_for(lambda lines: any(re.match(r"\*\* reconnecting: ", line) for line in lines[:4]), "the state")
        self.assertRegex(table.lines()[0], "reconnecting")
        self.assertNotIn("hint: ", "\n".join(table.lines()))
        sim.signal(signal.SIGCONT)
        table.wait_for(lambda lines: "** measuring: reconnected" in "\n".join(lines), "the way back")
        table.terminal.process.send_signal(signal.SIGINT)
        code, around = table.end()
        self.assertEqual(code, 0)
        self.assertRegex(around, r"(?s)Ctrl-C to stop\r\n\*\* reconnecting: .*\*\* measuring: .*records, lost ODTs")

    def test_ctrl_z_and_an_abort_give_the_terminal_back(self):
        sim = self.start_sim()
        for key, told in ((b"\x1c", "Quit"), (b"\x03", "records, lost ODTs")):
            # A shell with job control between: without one nothing can stop the tool and start it again.
            shell = Table(["bash", "--norc", "--noprofile", "-i"], self.env | {"PS1": "$ "})
            self.addCleanup(shell.terminal.close)
            shell.terminal.wait_for("$ ")
            line = " ".join(self.arguments(sim, "measure", "--table", "-s", "counter_1ms"))
            shell.terminal.type(f"{line}; echo \"[$?]\"\n".encode())
            shell.wait_rows(1, "counter_1ms")
            shell.terminal.type(b"\x1a")
            shell.terminal.wait_for("[148]")
            wait_until(lambda: shell.terminal.wait_for("$ ") or shell.terminal.screen.endswith("$ "), "the prompt")
            shell.lines()
            self.assertFalse(shell.screen.alternate)
            shell.terminal.type(b"fg\n")
            shell.wait_rows(1, "counter_1ms")
            shell.terminal.type(key)
            shell.terminal.wait_for(told)
            wait_until(lambda: shell.terminal.wait_for("$ ") or shell.terminal.screen.endswith("$ "), "the prompt")
            shell.terminal.type(b"stty -a; exit\n")
            shell.terminal.wait_for("")
            self.assertRegex(shell.terminal.screen, r" icanon .* echo ")

    def test_every_death_gives_the_terminal_back(self):
        sim = self.start_sim()
        # Not SIGSEGV: a sanitizer keeps it to itself.
        for number in (signal.SIGUSR1, signal.SIGALRM, signal.SIGVTALRM, signal.SIGXCPU, signal.SIGRTMIN + 3):
            table = self.start_table(sim, "-s", "counter_1ms")
            table.wait_rows(1, "counter_1ms")
            table.terminal.process.send_signal(number)
            self.assertEqual(table.end()[0], -number)
        # Ctrl-S, and the time is up.
        table = self.start_table(sim, "-s", "counter_1ms", "-t", "2")
        table.wait_rows(1, "counter_1ms")
        table.terminal.type(b"\x13")
        code, around = table.end()
        self.assertEqual((code, table.lines() and table.screen.alternate), (0, False))
        self.assertIn("records, lost ODTs", around)

    def test_what_cannot_be_a_table_is_refused(self):
        sim = self.start_sim()
        piped = self.run_cli(sim, "measure", "--table", "-s", "wave")
        self.expect(piped, err="measure: --table needs a terminal as standard output\n", code=1)
        done = self.run_cli(sim, "measure", "--table", "-s", "wave", "--json")
        self.assertEqual((done.stderr, done.returncode), ("measure: --table and --json exclude each other\n", 1))
        table = self.start_table(sim, "-s", "wave", env={"TERM": "dumb"})
        self.assertEqual(table.end(), (1, "measure: --table needs a terminal that places text (TERM is dumb)\r\n"))


if __name__ == "__main__":
    unittest.main()
