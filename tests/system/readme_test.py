"""The README's tour and its second page, run line by line: what is printed there is what the programs print, but for the numbers."""
import json
import os
import re
import shutil
import subprocess
import unittest
from pathlib import Path

import harness

ROOT = Path(__file__).resolve().parents[2]


def shape(line):
    """The line without its numbers and the width of its columns."""
    return re.sub(r"-?\d+(\.\d+)?", "#", " ".join(line.split()))


class ReadmeTest(harness.SystemTest):
    def tour(self):
        """Each command with the lines printed below it."""
        commands = []
        pages = "".join((ROOT / page).read_text(encoding="utf-8") for page in ("README.md", "docs/tour-maps.md"))
        for line in re.findall(r"(?m)^    (.*)$", pages):
            if line.startswith("$ "):
                commands.append((line[2:], []))
            elif commands:
                commands[-1][1].append(line)
        return commands

    def test_tour(self):
        shutil.copytree(ROOT / "examples", self.dir / "examples")
        programs = self.dir / "bin"
        programs.mkdir()
        for program in (harness.CLI, harness.SIM):
            (programs / Path(program).name).symlink_to(program)
        environment = dict(self.env, PATH=f"{programs}:{os.environ['PATH']}")
        (start, told), *rest = self.tour()
        self.assertEqual((start, list(map(shape, told))), ("xcplumo-sim &", ["port #"]))
        configuration = self.dir / "examples" / "demo.json"
        values = json.loads(configuration.read_text())
        values["udp"]["port"] = self.start_sim().port
        configuration.write_text(json.dumps(values))
        self.assertGreater(len(rest), 5)
        for command, expected in rest:
            with self.subTest(command):
                done = subprocess.run(["bash", "-c", command], cwd=self.dir, env=environment, text=True, timeout=harness.PATIENCE,
                                      stdout=subprocess.PIPE, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL, check=False)
                pattern = "".join("(.*\n)*" if line.strip() == "..." else re.escape(shape(line)) + "\n" for line in expected)
                self.assertRegex("".join(shape(line) + "\n" for line in done.stdout.splitlines()), rf"\A{pattern}\Z")


if __name__ == "__main__":
    unittest.main()
