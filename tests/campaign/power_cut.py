"""The power fails between two calls of a recording, a repair or `save-config`: only what was flushed is sure to be there.

What was not flushed is there or not, file by file, and so are names, all or one of them; a write may have got half-way. Every record flushed
is there, and what is there is the recording as it was made.
"""
import itertools
import os

import campaign
from file_calls import FileCalls, damaged, files_of, mixed, write_files
from recording import Recording, head

CUTS = {"measure": 90, "repair": 30, "save": 6}  # more than each of these makes calls
HEADER = 32
# What an older recording in the same directory left, whose records are of other sizes.
STALE = {"g0000.rec": head(21) + bytes(29 * 3), "g0001.rec": head(5) + bytes(13 * 3), "g0000.tix": b"old", "g0000_L1.pyr": b"old",
         "events.jsonl": b'{"event":"start","timeNs":1,"utcNs":1,"version":1}\n'}


class File:
    """Bytes on their way to the disk: those of `base` and of the first `flushed` operations have arrived."""

    def __init__(self, base=b""):
        self.base, self.operations, self.flushed, self.final = base, [], 0, b""

    def content(self, count, half=False):
        data = bytearray(self.base)
        for number, (name, offset, size) in enumerate(self.operations[:count]):
            if name == "ftruncate":
                del data[offset:]
            else:
                size = size // 2 if half and number == count - 1 else size
                data[len(data):offset] = bytes(max(offset - len(data), 0))
                data[offset:offset + size] = self.final[offset:offset + size]
        return bytes(data)


class Disk:
    """What a program did to a directory; `states` gives all that a power cut behind the n-th call may leave of it."""

    def __init__(self, calls, directory, base):
        self.calls, self.directory = calls, str(directory)
        self.base, self.made = {name: File(data) for name, data in base.items()}, {}
        finals = files_of(directory)
        for name, file in self.names_at(len(calls))[0].items():
            file.final = finals[name]

    def names_at(self, cut):
        """All files behind a call, by their names, and those whose names are flushed."""
        names = dict(self.base)
        flushed = dict(names)
        for file in [*self.base.values(), *self.made.values()]:
            file.operations, file.flushed = [], 0
        for at, call in enumerate(self.calls[:cut]):
            name = os.path.basename(call.path)
            if call.name in ("create", "truncate"):
                names[name] = self.made.setdefault(at, File())
            elif call.name == "rename":
                source, name = (os.path.basename(path) for path in call.path.split(">"))
                names[name] = names.pop(source)
            elif call.name == "unlink":
                names.pop(name, None)  # of the temporary file, whether or not there is one
            elif call.name == "sync" and call.path == self.directory:
                flushed = dict(names)
            elif call.name == "sync" and name in names:
                names[name].flushed = len(names[name].operations)
            elif call.name in ("write", "ftruncate"):
                names[name].operations.append((call.name, call.offset, call.size))
        return names, flushed

    def states(self, cut):
        """Each as bytes by name, together with how many bytes of each file were flushed."""
        seen = set()
        made, flushed = self.names_at(cut)
        alone = [flushed | {name: file} for name, file in made.items() if flushed.get(name) is not file]
        for names in (made, flushed, *alone):
            dirty = [name for name, file in names.items() if file.flushed < len(file.operations)]
            kept = {len(dirty), 0, 1, len(dirty) - 1} if len(dirty) > 3 else range(len(dirty) + 1)
            subsets = [set(subset) for count in kept if count >= 0 for subset in itertools.combinations(dirty, count)]
            for arrived, half in [*((subset, None) for subset in subsets), *((set(dirty), name) for name in dirty)]:
                state = {name: file.content(len(file.operations) if name in arrived else file.flushed, name == half)
                         for name, file in names.items()}
                if (key := tuple(sorted(state.items()))) not in seen:
                    seen.add(key)
                    yield state, {name: len(file.content(file.flushed)) for name, file in names.items()}


class PowerCut(FileCalls):
    disks = {}

    def run_case(self, command, cut):
        with self.keeping:
            if command not in self.disks:
                self.disks[command] = getattr(self, "run_" + command)()
            disk, expected = self.disks[command]
            states = list(disk.states(int(cut)))  # a disk remembers one cut at a time
        self.assertLess(len(disk.calls), CUTS[command], "more calls than cases")
        if int(cut) > len(disk.calls):
            return
        for number, (state, flushed) in enumerate(states):
            place = self.dir / f"state{number}"
            write_files(place, state)
            getattr(self, "check_" + command)(place, state, flushed, expected)

    def noted(self, place, base, *arguments):
        done, calls = self.run_noted(arguments)
        self.assertEqual((done.returncode == 0, done.stderr if done.returncode else ""), (arguments[1] != "repair", ""))
        return Disk([call for call in calls if call.name not in ("close", "open", "mkdir")], place, base)

    def check_flushed(self, disk):
        """What has ended survives a power cut as it is."""
        self.assertEqual(len(list(disk.states(len(disk.calls)))), 1)

    def run_measure(self):
        place = self.dir / "below" / "recording"
        write_files(place, STALE)
        disk = self.noted(place, STALE, *self.measurement(place, "2.2"))
        files = [file for name, file in disk.names_at(len(disk.calls))[0].items() if name.endswith(".rec")]
        # The header, at least one of the two whole seconds, and the end.
        flushes = [call for call in disk.calls if call.name == "sync" and call.path.endswith(".rec")]
        self.assertGreaterEqual(len(flushes), 3 * len(files))
        self.assertTrue(all(file.flushed == len(file.operations) for file in files))
        return disk, ([group.records for group in Recording(place).groups], (place / "events.jsonl").read_bytes())

    def check_measure(self, place, state, flushed, expected):
        expected, events = expected
        names = [f"g{number:04}.rec" for number in range(len(expected))]
        if "meta.json" not in state:
            for name in names:
                self.assertTrue(state.get(name) == STALE[name] or len(state.get(name, b"")) <= HEADER, "not in a recording")
            return
        records = [flushed.get(name, 0) - HEADER for name in names]
        for action in ("info", "repair", "check"):
            self.succeed("recording", action, place)
        kept = (place / "events.jsonl").read_bytes()
        self.assertEqual(kept, events[:len(kept)])
        self.assertGreaterEqual(len(kept), events.rfind(b"\n", 0, flushed["events.jsonl"]) + 1)
        for group, made, size in zip(Recording(place).groups, expected, records):
            self.assertGreaterEqual(len(group.records), size // (8 + group.meta["recordSize"]))
            self.assertEqual(group.records, made[:len(group.records)])

    def run_repair(self):
        place, sound = self.dir / "below" / "recording", mixed(self.recording())
        write_files(place, damaged(sound))
        disk = self.noted(place, damaged(sound), "recording", "repair", place)
        self.check_flushed(disk)
        return disk, sound

    def check_repair(self, place, _state, _flushed, sound):
        self.mend(place)
        self.assertTrue(files_of(place) == sound, sorted(files_of(place)))

    def run_save(self):
        place = self.dir / "below" / "config"  # the calls for `below` itself are not noted
        write_files(place, {"saved.json": b"{}\n"})
        disk = self.noted(place, {"saved.json": b"{}\n"}, "--udp", "127.0.0.1:1", "save-config", place / "saved.json")
        self.check_flushed(disk)
        return disk, (b"{}\n", (place / "saved.json").read_bytes())

    def check_save(self, _place, state, _flushed, expected):
        self.assertIn(state["saved.json"], expected)


def cases():
    for command, cuts in CUTS.items():
        yield from ((command, cut) for cut in range(cuts))


if __name__ == "__main__":
    campaign.main("power cut", PowerCut, cases)
