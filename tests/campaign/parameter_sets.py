"""`apply` over random memory: what a file says is what the ECU holds after it, what was there is what an undo leaves.

A case changes random parameters of a random memory and applies the snapshot from before. Nothing strikes it (`whole`), the
program is killed at any moment (`killed`), or one write of many is refused or does not stick (`refused`). `forms` are texts,
verbal tables and formulas at the edges of their tables, arrays and zeros of both signs in every form of file; `pages` the same
of an ECU with calibration pages. What a file names as not exact, or leaves out, is left out of the comparison, and nothing
else. Memory is compared byte by byte.
"""
import random
import re
import signal
import struct
import threading
import time

import campaign
import parameter_load
from raw_master import RawMaster

COUNT = 400
SIZE = COUNT // parameter_load.PER_UNIT * parameter_load.UNIT_BYTES
TOTALS = {"objects": 0, "files in other forms": 0, "pages": 0, "not exact": 0, "wrong bytes": 0, "undone": 0, "killed before the first write": 0, "killed half-way": 0, "taken back": 0}
LOCK = threading.Lock()
PARAMETERS = (0x10000, 0x10210, 0x10400)  # two segments of the ECU with pages
ENDINGS = (".json", ".cdfx", ".dcm", ".hex", ".s19")


def packed(kind, *values):
    return [struct.pack(kind, value) for value in values]


def several(count, choices):
    return lambda chance: b"".join(chance.choice(choices) for _ in range(count))


def text(size):
    """One that ends early may have anything behind its end."""
    def one(chance):
        letters = bytes(chance.choice(b"ABCxyz 019_") for _ in range(chance.randint(0, size)))
        rest = size - len(letters)
        return letters + chance.choice((bytes(rest), b" " * rest, (b"\0" + chance.randbytes(rest))[:rest]))
    return one


def floats(most):
    return lambda chance: struct.pack("<f", chance.choice((0.0, -0.0, most, 1e-40, chance.uniform(0, most), float(chance.randint(0, 9)))))


# Raw values at the edges of tables and of what their types hold: name, address, size and the bytes to choose among.
SPOTS = (
    ("cal_injector", 0x10000, several(1, packed("B", 0, 1, 2))), ("cal_idle_speed", 0x10002, several(1, packed("<H", 2000, 2001, 5999, 6000))),
    ("cal_gain", 0x10004, floats(10)), ("cal_wave_offset", 0x10010, several(1, packed("<d", 0.0, -0.0, 1e6, 0.1, -1e-300))),
    ("cal_ignition_trim", 0x10018, several(1, packed("b", -40, -1, 0, 40))), ("cal_uword_msb", 0x10022, lambda chance: chance.randbytes(2)),
    ("cal_uint64_lsb", 0x10038, several(1, packed("<Q", 0, 2 ** 53, 2 ** 53 + 1, 2 ** 63 + 1, 2 ** 64 - 1))),
    ("cal_int64_msb", 0x10050, several(1, packed(">q", -2 ** 63, -2 ** 53 - 1, -1, 2 ** 63 - 1))),
    ("cal_float16_lsb", 0x10058, several(1, packed("<e", 0.0, -0.0, 65504, 6e-8, 0.1))), ("cal_float64_msb", 0x10070, several(1, packed(">d", -0.0, 0.0, 0.1, 1e308))),
    ("cal_gear_preset", 0x10080, several(1, packed("B", 0, 5, 6, 7))), ("cal_temp_class", 0x10081, several(1, packed("B", 0, 49, 50, 89, 90, 110, 111, 120))),
    ("cal_temp_limit", 0x10086, lambda chance: bytes([chance.randint(10, 180)])), ("cal_gear_ratio", 0x10087, several(1, packed("B", 0, 1, 2, 3, 4, 5))),
    ("cal_root", 0x1008A, several(1, packed("<H", 0, 1, 2, 99, 65000, 65025))), ("cal_label", 0x100A6, text(16)),
    ("cal_ignition_map", 0x100F8, several(64, packed("b", -40, -1, 0, 1, 120))), ("cal_gains", 0x102D0, lambda chance: b"".join(floats(9)(chance) for _ in range(6))),
    ("cal_offsets_turned", 0x10300, several(12, packed(">h", -1000, 0, 1000))), ("cal_features", 0x10318, several(8, packed("B", 0, 1))),
    ("cal_vin", 0x10320, text(20)), ("cal_driver_name", 0x10338, text(24)))


def note(**found):
    with LOCK:
        for name, number in found.items():
            TOTALS[name.replace("half_way", "half-way").replace("_", " ")] += number


class ParameterSets(campaign.Campaign):
    def run_case(self, kind, seed):
        chance = random.Random(f"{kind} {seed}")
        if kind in ("forms", "pages"):
            return self.run_forms(chance, kind == "pages")
        return self.run_load(chance, kind)

    def run_forms(self, chance, isPaged):
        ways = ((2, ["page", "set", 0, "--yes"], []), (3, None, []), (3, None, ["--page", 2]))
        pages, step, options = chance.choice(ways) if isPaged else (None, None, [])
        sim = self.start_sim("--max-cto", chance.choice((8, 255)), *(("--pages", pages) if isPaged else ()))
        chosen = chance.sample(SPOTS, chance.randint(1, 10))
        self.strew(sim, chance, chosen)
        file = self.dir / f"set{chance.choice(ENDINGS)}"
        names = [name for name, _, _ in chosen]
        isImage = file.suffix in (".hex", ".s19")  # a map is not whole without its shared axes
        kept = self.run_cli(sim, "snapshot", file, *(() if isImage else names))
        self.assertEqual(kept.returncode, 0, kept.stderr)
        wanted = bytearray(self.parameters(sim))
        if step is None:
            self.strew(sim, chance, chosen)
        else:
            self.assertEqual(self.run_cli(sim, *step).returncode, 0)
        before = self.parameters(sim)
        inexact = " ".join(re.findall(r"not held exactly, .*?: (.*)", kept.stderr) + re.findall("left out: (.*)", kept.stderr))
        if file.suffix in (".cdfx", ".dcm"):
            inexact += " cal_temp_class"  # a range has one text: which raw value of it is held is not told, and another one stays
        exact = [name for name in names if not re.search(rf"\b{name}\b", inexact)]
        done = self.run_cli(sim, "apply", file, *(exact or names[:1]), *options, "--yes")
        self.assertEqual(done.returncode, 0 if exact else done.returncode, done.stdout + done.stderr)
        now = self.parameters(sim)
        note(objects=len(chosen), pages=isPaged, files_in_other_forms=file.suffix in (".cdfx", ".dcm"), not_exact=len(names) - len(exact))
        for name, address, one in chosen:
            if name not in exact:
                at, size = address - PARAMETERS[0], len(one(random.Random(0)))
                wanted[at:at + size] = now[at:at + size]
        self.expect_bytes(now, wanted)
        if before != now:
            undone = self.run_cli(sim, "apply", "--undo", "last")
            self.assertEqual(undone.returncode, 0, undone.stdout + undone.stderr)
            self.expect_bytes(self.parameters(sim), before)
            note(undone=1)

    @staticmethod
    def strew(sim, chance, chosen):
        with RawMaster(sim.port) as master:
            for _, address, one in chosen:
                master.write(address, one(chance))

    @staticmethod
    def parameters(sim):
        with RawMaster(sim.port) as master:
            return b"".join(master.read(begin, end - begin) for begin, end in zip(PARAMETERS, PARAMETERS[1:]))

    def expect_bytes(self, now, expected):
        wrong = sum(a != b for a, b in zip(now, expected))
        note(wrong_bytes=wrong)
        self.assertEqual(wrong, 0)

    def run_load(self, chance, kind):
        self.changed = chance.sample(list(parameter_load.objects(COUNT)), chance.randint(1, 60))
        strike = chance.choice(("error:DOWNLOAD:{}:1:0x24", "positive:DOWNLOAD:{}", "error:DOWNLOAD:{}:1:0x31"))
        # Those before are this test's own; a case whose strike comes too late is one without.
        zeros = [address for _, kind, address in self.changed if kind[0] == "scalar_f"]
        begun = len(zeros) + sum(kind[3] in ("CURVE", "MAP") for _, kind, _ in parameter_load.objects(COUNT)) + len(self.changed)
        fault = ("--fault", strike.format(begun + chance.randint(1, len(self.changed)))) if kind == "refused" else ()
        sim = self.start_sim("--max-cto", chance.choice((8, 255)), *parameter_load.spare(COUNT), *fault)
        sim.a2l = parameter_load.write_a2l(self.dir / "load.a2l", COUNT)
        parameter_load.fill(sim.port, COUNT)
        with RawMaster(sim.port) as master:
            for address in zeros:
                master.write(address, struct.pack("<f", chance.choice((0.0, -0.0))))
        file = self.dir / f"set{chance.choice(ENDINGS)}"
        kept = self.run_cli(sim, "snapshot", file)
        self.assertEqual(kept.returncode, 0, kept.stderr)
        wanted = bytearray(self.memory(sim))
        self.change(sim, chance, wanted)
        before = self.memory(sim)
        leftOut = set(re.findall("left out: (.*): holds a number that is not finite", kept.stderr))
        for name, row, address in parameter_load.objects(COUNT):
            if name in leftOut:
                at = address - parameter_load.BASE
                wanted[at:at + row[2]] = before[at:at + row[2]]
        note(objects=len(self.changed), files_in_other_forms=file.suffix in (".cdfx", ".dcm"), not_exact=len(leftOut))
        getattr(self, kind)(sim, file, chance, before, wanted)

    def change(self, sim, chance, wanted):
        """Another number in each object; floats that the file could not put back stay."""
        with RawMaster(sim.port) as master:
            for _, (_, _, size, _, text, _), address in self.changed:
                width = 4 if "FLOAT" in text else 2
                at = address - parameter_load.BASE + size - width * chance.randint(1, max(1, (size - 4) // width))
                at = max(at, address - parameter_load.BASE)
                held = wanted[at:at + width]
                finite = width == 2 or abs(struct.unpack("<f", held)[0]) < 1e38
                # Zeros of the other sign look the same.
                new = struct.pack("<f", chance.choice((chance.uniform(-9, 9), 0.0, -0.0))) if width == 4 else chance.randbytes(2)
                master.write(parameter_load.BASE + at, new if finite else held)

    def memory(self, sim):
        with RawMaster(sim.port) as master:
            return master.read(parameter_load.BASE, SIZE)

    def expect_memory(self, sim, expected):
        self.expect_bytes(self.memory(sim), expected)

    def undo(self, sim, before):
        done = self.run_cli(sim, "apply", "--undo", "last")
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        self.expect_memory(sim, before)
        note(undone=1)

    def whole(self, sim, file, _chance, before, wanted):
        done = self.run_cli(sim, "apply", file)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.expect_memory(sim, wanted)
        if before != wanted:
            self.undo(sim, before)

    def refused(self, sim, file, _chance, before, wanted):
        done = self.run_cli(sim, "apply", file)
        self.assertIn(done.returncode, (0, 1), done.stderr)
        self.expect_memory(sim, before if done.returncode else wanted)
        note(taken_back=done.returncode)

    def killed(self, sim, file, chance, before, wanted):
        begin = time.monotonic()
        self.assertEqual(self.run_cli(sim, "apply", file, "--dry-run").returncode, 0)
        taken = time.monotonic() - begin
        program = self.start(self.arguments(sim, "apply", file))
        time.sleep(taken * chance.uniform(0.3, 1.7))  # the moment is any
        program.process.send_signal(signal.SIGKILL)
        program.process.wait()
        kept = list((self.dir / "state").glob("xcplumo/undo-*.json"))
        note(killed_half_way=self.memory(sim) not in (before, wanted))
        if kept:
            return self.undo(sim, before)
        note(killed_before_the_first_write=1)
        return self.expect_memory(sim, before)


def cases():
    kinds = ("whole", "killed", "refused", "forms", "pages")
    for seed in range(1000):
        for at in range(len(kinds)):  # every fifth case is not always of one kind
            yield kinds[(seed + at) % len(kinds)], seed


def summary():
    return [", ".join(f"{name} {number}" for name, number in TOTALS.items())]


if __name__ == "__main__":
    campaign.main("parameter sets", ParameterSets, cases, summary=summary)
