"""What is installed beside the programs: pages whose links lead somewhere, manual pages, completion."""
import gzip
import subprocess
import sys
import unittest
from pathlib import Path

import harness

ROOT = Path(__file__).resolve().parents[2]
# A line as typed so far, and the words offered.
COMPLETED = [
    ("xcplumo-cli sa", "save-config"),
    ("xcplumo-cli --reconnect retry", "retry retry_forever"),
    ("xcplumo-cli -c examples/demo.json get Engine.", "Engine.Cyl[0].Temp Engine.Cyl[1].Temp"),
    ("xcplumo-cli --a2l 'examples/demo.a2l' set cal_idle", "cal_idle_speed="),
    ("xcplumo-cli --a2l examples/demo.a2l set cal_idle_speed=", ""),
    ("xcplumo-cli -c examples/demo.json measure -t 1 -s ignition_an", "ignition_angle"),
    ("xcplumo-cli -c none.json measure -s ignition_an", ""),
    ("xcplumo-cli recording show x --f", "--from"),
    ("xcplumo-sim --timestamp-", "--timestamp-size --timestamp-fixed"),
    ("xcplumo-cli -c examples/demo.json measure -s wave@cyclic_10", "wave@cyclic_10ms wave@cyclic_100ms"),
    ("xcplumo-cli --a2l=examples/demo.a2l measure -t 1 -s wave@cr", "wave@crank_tooth"),
    ("xcplumo-cli recording show rec -s wa", "wave"),
    ("xcplumo-cli export rec -o x.csv -s ", "wave gear"),
    ("xcplumo-cli export rec -s gear wa", "wave"),
    ("xcplumo-cli -c examples/demo.json measure -s wave ignition_an", "ignition_angle"),
    ("xcplumo-cli -c examples/demo.json measure --event c", "cyclic_1ms cyclic_10ms cyclic_100ms crank_tooth"),
    ("xcplumo-cli -c examples/demo.json list ignition_an", "ignition_angle"),
    ("xcplumo-cli export re", ":files"),
    ("xcplumo-cli get --hex exa", ":files"),
]


class InstallationTest(harness.SystemTest):
    def run_checked(self, *arguments, **options):
        return subprocess.run(arguments, check=True, capture_output=True, text=True, timeout=harness.PATIENCE, **options).stdout

    def test_installed_tree(self):
        self.run_checked("cmake", "--install", Path(harness.CLI).parents[1], "--prefix", self.dir)
        share = self.dir / "share"
        self.assertEqual(self.run_checked(sys.executable, ROOT / "scripts/check_links.py", share), "links: ok\n")
        for program, heading in (("xcplumo-cli", ".SS recording show\n"), ("xcplumo-sim", ".SH FAULTS AND SIGNALS\n")):
            page = gzip.decompress((share / f"man/man1/{program}.1.gz").read_bytes()).decode()
            self.assertRegex(page, rf'\A\.TH {program} 1 "" "{program} \d+\.\d+\.\d+"')
            self.assertIn(heading, page)
        self.run_cli(self.start_sim(), *harness.record(share / "doc/xcplumo-cli/rec", ["wave@0", "gear@1"], 0.1))
        for shell in ("zsh/site-functions/_xcplumo-cli", "zsh/vendor-completions/_xcplumo-cli", "fish/vendor_completions.d/xcplumo-sim.fish"):
            self.assertIn("bash-completion/completions/xcplumo-cli", (share / shell).read_text())
        environment = dict(self.env, PATH=f"{self.dir}/bin:/usr/bin:/bin", XCPLUMO_COMPLETION_SECONDS=str(harness.PATIENCE))
        # bash completes what stands behind the last @ only; zsh and fish ask for whole words.
        complete = 'source "$0"; COMP_WORDBREAKS="@=:" COMP_LINE=$1 COMP_POINT=${#1}; _xcplumo_bash; echo "${COMPREPLY[*]}"'
        for line, words in COMPLETED:
            with self.subTest(line):
                script = share / "bash-completion/completions" / line.split()[0]
                offered = [self.run_checked("bash", *how, line, env=environment, cwd=share / "doc/xcplumo-cli").split()
                           for how in ((script,), ("-c", complete, script))]
                behind = [word.split("@")[-1] for word in words.split() if word != ":files"]
                self.assertEqual(offered, [words.split(), behind])


if __name__ == "__main__":
    unittest.main()
