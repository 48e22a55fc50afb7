"""The tool with a library before it that numbers, notes and strikes its calls that change files (file_calls.cpp)."""
import collections
import json
import os
import threading

import campaign
import harness

LIBRARY = os.environ["XCPLUMO_FILE_CALLS"]
Call = collections.namedtuple("Call", "number name path offset size result")


class FileCalls(campaign.Campaign):
    kept = {}  # recordings that all cases start from
    keeping = threading.RLock()

    def run_noted(self, arguments, strike=None, clock=None):
        """Runs the tool; returns how it ended and its calls for files below the directory `below`."""
        below, log = self.dir / "below", self.dir / "calls"
        below.mkdir(exist_ok=True)
        env = dict(self.env, LD_PRELOAD=LIBRARY, CALLS_BELOW=str(below), CALLS_LOG=str(log))
        done = self.run_plain(*arguments, env=env | ({"CALLS_STRIKE": strike} if strike else {}) | ({"CALLS_CLOCK": clock} if clock else {}))
        lines = log.read_text().splitlines() if log.exists() else []
        calls = [Call(int(number), name, path, *map(int, rest)) for number, name, path, *rest in map(str.split, lines)]
        return done, calls

    def measurement(self, directory, seconds):
        """The arguments of a measurement with an ECU of its own."""
        # What a busy machine answers late is not what is tried here.
        config = self.quick_config(xcp={"timeoutsMs": [5000] * 7}, reconnect={"heartbeatMs": 20000})
        names = ["counter_1ms@0", "wave@0", "counter_10ms@1"]
        return self.arguments(self.start_sim(), "-c", config, *harness.record(directory, names, seconds))[1:]

    def recording(self):
        """The files of a sound recording, name by name."""
        with self.keeping:
            if not self.kept:
                self.succeed(*self.measurement(self.dir / "kept", "0.6"))
                self.kept.update(files_of(self.dir / "kept"))
        return dict(self.kept)

    def mend(self, directory, done=None):
        """A repair mends all but the file of another recording; `done`: the one that was made."""
        done = done or self.run_plain("recording", "repair", directory)
        self.assertEqual((done.returncode, done.stderr), (1, ""))
        left = [line for line in done.stdout.splitlines() if line.endswith("(cannot be mended)")]
        self.assertEqual([line.split(": records")[0] for line in left], [f"{directory}/g0002.rec: of another recording"])

    def succeed(self, *arguments):
        done = self.run_plain(*arguments)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)


def files_of(directory):
    """The bytes of all files, by their names; a directory that is not there has none."""
    return {path.name: path.read_bytes() for path in directory.iterdir()} if directory.is_dir() else {}


def write_files(directory, files):
    directory.mkdir(parents=True, exist_ok=True)
    for name, data in files.items():
        (directory / name).write_bytes(data)


def mixed(sound):
    """A sound recording with one group more, whose records are another recording's: a repair must leave them alone."""
    meta = json.loads(sound["meta.json"])
    meta["groups"].append(dict(meta["groups"][1], recordSize=meta["groups"][1]["recordSize"] + 3))
    return dict(sound, **{"meta.json": json.dumps(meta).encode(), "g0002.rec": sound["g0001.rec"] + b"torn"})


def damaged(sound):
    """The files of a sound recording with damage of every kind that a repair mends."""
    torn = dict(sound, **{"g0000.rec": sound["g0000.rec"] + b"torn", "g0001.rec": b"\xff" * 8 + sound["g0001.rec"][8:],
                          "g0001_L3.pyr": b"surplus", "g0000_L1.pyr": sound["g0000_L1.pyr"][:-5],
                          "events.jsonl": sound["events.jsonl"] + b'{"event":"clo'})
    del torn["g0000.tix"]
    return torn
