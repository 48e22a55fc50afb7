"""`get`, `set` and `measure` of whole objects against a calculation of its own: random curves, maps, cuboids, blocks,
strings, axes, arrays and structures over random memory.

A case is one A2L file. Its objects are read whole and in elements; then elements, wholes, axis points and texts are
written, right ones and such that must be refused; then all are read again and memory is compared byte by byte.
"""
import collections
import json
import math
import random
import re
import threading
from fractions import Fraction

import campaign
import a2l_text
import layouts
from layouts import AXES, differences
from random_layouts import BASE, DIMENSIONS, METHOD_TEXT, METHODS, MOST, Axis, Shape, Thing, World, is_monotonous
from random_structures import instances
from raw_master import RawMaster
from value_coding import Conversion

OBJECTS, INSTANCES, CASES = 250, 5, 84


def conversion(method):
    if method == "NO_COMPU_METHOD":
        return Conversion({"type": "identical"})
    return Conversion({"type": "linear", "linear": [METHODS[method], 3.0], "format": "%9.2", "unit": "V"})


def physical(method, raw):
    """Integers where nothing makes a fraction of them."""
    if isinstance(raw, int) and isinstance(METHODS[method], int):
        return raw if method == "NO_COMPU_METHOD" else METHODS[method] * raw + 3
    return conversion(method).physical(raw)


def nested(dims, give, index=()):
    """A list of lists; the first index is that of X."""
    return give(index) if len(index) == len(dims) else [nested(dims, give, index + (i,)) for i in range(dims[len(index)])]


def same(got, want):
    if isinstance(want, list):
        return isinstance(got, list) and len(got) == len(want) and all(map(same, got, want))
    if isinstance(want, str):
        return got == want
    if not math.isfinite(want):
        return got is None
    if got is None or isinstance(got, (str, list)):
        return False
    return got == want or (not isinstance(want, int) and math.isclose(float(got), want, rel_tol=1e-12))


def expected(thing):
    """What `get --json` must tell of a whole object."""
    shape, dims = thing.shape, thing.used
    if shape.kind == "ASCII":
        return {"type": "ASCII", "physical": thing.text} | ({"dimensions": list(dims)} if shape.unit == 1 else {})
    axis = shape.kind == "AXIS_PTS"
    method, wide = (thing.axes[0].method if axis else shape.method), layouts.BORDERS[thing.axes[0].type if axis else shape.type][1] == 8

    def raw(index):
        return thing.points["X"][index[0]] if axis else thing.numbers[index]

    rule = conversion(method)
    value = {"raw": nested(dims, raw), "physical": nested(dims, lambda i: physical(method, raw(i))), "unit": rule.unit,
             "text": nested(dims, lambda i: a2l_text.display_text(rule, raw(i), wide))}
    if dims == () or shape.kind == "VALUE":
        return value
    value |= {"type": shape.type if shape.kind == "MEASUREMENT" else shape.kind, "dimensions": list(dims)}
    if not axis:
        value["axes"] = [expected_axis(thing, name, own) for name, own in zip(AXES, thing.axes)]
    return value


def expected_axis(thing, name, axis):
    points, rule = thing.points_of(name), conversion(axis.method)
    told = {"name": name.lower(), "kind": axis.kind, "unit": rule.unit, "physical": [physical(axis.method, p) for p in points]}
    if axis.kind in ("COM_AXIS", "RES_AXIS"):
        told["shared"] = thing.shared[AXES.index(name)].name
    if axis.kind != "RES_AXIS":
        wide = layouts.BORDERS[axis.type][1] == 8 and axis.kind != "FIX_AXIS"
        told |= {"raw": points, "text": [a2l_text.display_text(rule, p, wide) for p in points]}
    return told


def differs(got, want):
    """The keys that are not as they must be."""
    if "axes" in want:
        axes = [differs(g, w) for g, w in zip(got.get("axes", []), want["axes"])]
        bad = [f"axis {w['name']} {d}" for w, d in zip(want["axes"], axes) if d]
        if len(axes) != len(want["axes"]) or bad:
            return bad or ["axes"]
    return [f"{key}: {got.get(key)} instead of {value}" for key, value in want.items()
            if key != "axes" and not same(got.get(key), value)]


def typed(number):
    return str(number) if isinstance(number, int) else repr(float(number))


class Deeds:
    """Random assignments to a thing; each is carried out here too when it is allowed."""

    def __init__(self, thing):
        self.thing, self.chance, self.shape = thing, thing.chance, thing.shape

    def any(self):
        kind = self.shape.kind
        if kind == "ASCII":
            return self.text()
        if kind == "AXIS_PTS":
            return self.points(self.thing.name, "X", self.chance.random() < 0.3)
        own = [name for name, axis in zip(AXES, self.thing.axes) if axis.stored]
        if own and self.chance.random() < 0.4:
            return self.points(self.thing.name, self.chance.choice(own), False)
        return self.chance.choice((self.element, self.element, self.whole, self.all, self.wrong))()

    def text(self):
        text = self.thing.random_text() or "x"
        return f"{self.thing.name}={text}", self.thing.put_text(text)

    def number(self):
        """A raw value to come, the text for it, and whether it may be written."""
        what = next(key for key in self.thing.places if key[0] == "W")
        field = self.thing.field("W", self.thing.places[what][1])
        raw = self.thing.random_raw(field)
        value = physical(self.shape.method, raw)
        low, high = self.shape.limits
        if not (isinstance(raw, int) and isinstance(value, int)):
            raw = field.stored(conversion(self.shape.method).to_raw(value))
        return raw, typed(value), low <= value <= high

    def index(self, past=False):
        index = [self.chance.randrange(n) for n in self.thing.used]
        if past:
            axis = self.chance.randrange(len(index))
            index[axis] = self.thing.used[axis] + self.chance.choice((0, 1, 1000000))
        return tuple(index)

    def name_of(self, index):
        return self.thing.name + "".join(f"[{i}]" for i in index)

    def element(self):
        index, (raw, text, allowed) = self.index(), self.number()
        if allowed:
            self.thing.numbers[index] = raw
        return f"{self.name_of(index)}={text}", allowed

    def all(self):
        raw, text, allowed = self.number()
        if self.thing.used == () or self.shape.kind == "VALUE":
            return self.element()
        if allowed:
            self.thing.numbers |= {key: raw for key in self.thing.numbers if not key or not isinstance(key[0], str)}
        return f"{self.thing.name}[*]={text}", allowed

    def whole(self):
        new = {index: self.number() for (what, index) in self.thing.places if what == "W"}
        allowed = all(ok for _, _, ok in new.values())
        if allowed:
            self.thing.numbers |= {index: raw for index, (raw, _, _) in new.items()}
        shown = nested(self.thing.used, lambda index: new[index][1])
        return f"{self.thing.name}={str(shown).replace(chr(39), '')}", allowed

    def wrong(self):
        """An index, dimensions or a number that must be refused."""
        if self.thing.used == ():
            return f"{self.thing.name}[0]=1", False
        flat = len(self.thing.used) == 1
        return self.chance.choice((
            f"{self.name_of(self.index(past=True))}=1", f"{self.name_of(self.index())}[0]=1", f"{self.thing.name}=5",
            f"{self.thing.name}={'[' * 9}1{']' * 9}", f"{self.thing.name}=[{'1,' * self.thing.used[0]}1]",
            f"{self.thing.name}={'1' if flat else '[1]'}", f"{self.thing.name}=[[1", f"{self.name_of(self.index())}=x",
            f"{self.thing.name}.q[0]=1", f"{self.thing.name}.x[99]=1")), False

    def points(self, name, which, whole):
        """One point of an axis, or all of them."""
        axis, old = self.thing.axes[AXES.index(which)], self.thing.points[which]
        field = self.thing.field(which, axis.type)
        at = self.chance.randrange(len(old))
        near = [old[at] + step for step in (-3, -1, 0, 1, 2, 90)]
        low, high = field.bounds() if field.whole else (-999, 999)
        new = list(old)
        new[at] = min(max(self.chance.choice(near), low), high)
        if whole:
            new = axis.random_points(self.chance, len(old), field)
        steps = differences(new) if axis.difference and field.whole else []
        allowed = is_monotonous(new, axis.monotony) and all(low <= s <= high for s in steps)
        numbers = [typed(physical(axis.method, point)) for point in new]
        if allowed:  # the inverse of a falling line makes -0 of what is typed for 0
            back = [point if field.whole or axis.difference or not (whole or i == at)
                    else field.stored(conversion(axis.method).to_raw(physical(axis.method, point)))
                    for i, point in enumerate(new)]
            self.thing.points[which] = back
        own = name if axis.kind == "AXIS_PTS" else f"{name}.{which.lower()}"
        return (f"{name}=[{','.join(numbers)}]" if whole else f"{own}[{at}]={numbers[at]}"), allowed


class Objects(campaign.Campaign):
    lock, seen = threading.Lock(), collections.Counter()

    def run_case(self, seed):
        chance = random.Random(int(seed))
        world = World(chance)
        self.make(world, chance)
        sim = self.start_sim("--spare-bytes", len(world.memory), "--max-cto", chance.choice((16, 64, 248)))
        frame = a2l_text.module(METHOD_TEXT + "".join(world.blocks), 0.25)
        sim.a2l.write_text(world.text(frame), encoding="utf-8")
        used = world.next + 64
        with RawMaster(sim.port) as master:
            master.write(BASE, bytes(world.memory[:used]))
        self.read_all(sim, world)
        self.write_some(sim, world, chance)
        self.read_all(sim, world)
        self.read_parts(sim, world, chance)
        with RawMaster(sim.port) as master:
            after = master.read(BASE, used)
        wrong = [at for at in range(used) if after[at] != world.memory[at]]
        owners = {thing.name for thing in world.things for at, _ in thing.places.values()
                  if any(at - BASE <= byte < at - BASE + 8 for byte in wrong)}
        self.assertEqual(wrong, [], f"memory differs near {sorted(owners)}: {self.texts(world, owners)}")
        self.measure(sim, world, chance)
        with Objects.lock:
            Objects.seen.update(thing.shape.kind for thing in world.things)

    def make(self, world, chance):
        """Shared axes first, then curves that may be axes, then all kinds."""
        def add(name, kind, axes=()):
            shape = Shape(world, name, kind, axes)
            world.things.append(Thing(world, shape, name))
            world.blocks.append(shape.text(world.things[-1].address))
            return world.things[-1]

        for i in range(20):
            kind = "RESCALE" if i % 4 == 3 else "AXIS_PTS"
            axis = Axis(world, kind, 9 if kind == "RESCALE" else chance.randint(1, 5))
            (world.rescales if kind == "RESCALE" else world.axes).append(add(f"a{i}", kind, [axis]))
        for i in range(20, OBJECTS):
            kind = chance.choice((*DIMENSIONS, "CURVE", "MAP", "MAP", "VALUE", "VAL_BLK", "ASCII", "MEASUREMENT", "MEASUREMENT"))
            count = DIMENSIONS.get(kind, 0)
            kinds = ["STD_AXIS", "STD_AXIS", "FIX_AXIS", "COM_AXIS", "RES_AXIS"] + ["CURVE_AXIS"] * bool(world.curves)
            axes = [Axis(world, k, chance.randint(2 if k == "RES_AXIS" else 1, MOST[count]))
                    for k in (chance.choice(kinds) for _ in range(count))]
            thing = add(f"o{i}", kind, axes)
            if kind == "CURVE" and axes[0].kind in ("STD_AXIS", "FIX_AXIS"):
                world.curves.append(thing)
        if world.version == "1 71":
            for i in range(INSTANCES):
                instances(world, i)

    @staticmethod
    def texts(world, names):
        return "".join(block for block in world.blocks if any(f' {re.split("[.[]", name)[0]} ""' in block for name in names))[:3000]

    def answers(self, done, count):
        result = json.loads(done.stdout.splitlines()[-1], parse_float=Fraction)
        self.assertEqual(len(result["values"]), count, done.stderr)
        return result["values"]

    def read_all(self, sim, world):
        things = [thing for thing in world.things if thing.shape.kind != "RESCALE"]
        done = self.run_cli(sim, "get", "--json", *(thing.name for thing in things), timeout=240)
        bad = []
        for thing, entry in zip(things, self.answers(done, len(things))):
            wrong = differs(entry["value"], expected(thing)) if "value" in entry else [str(entry.get("error"))]
            if wrong:
                bad.append(f"{thing.name}: {wrong} {self.texts(world, [thing.name])} at {thing.places}")
        self.assertEqual(len(bad), 0, "\n".join(bad[:5]))
        self.assertEqual(done.returncode, 0, done.stderr)

    def write_some(self, sim, world, chance):
        things = [thing for thing in world.things if thing.shape.kind != "RESCALE"]
        deeds = [(thing, *Deeds(thing).any()) for thing in chance.choices(things, k=2 * len(things))]
        done = self.run_cli(sim, "set", "-m", "--json", *(text for _, text, _ in deeds), timeout=240)
        for (thing, text, allowed), entry in zip(deeds, self.answers(done, len(deeds))):
            self.assertEqual("error" not in entry, allowed, f"{text}: {entry} {self.texts(world, [thing.name])}")
        for thing in things:
            thing.write()

    def read_parts(self, sim, world, chance):
        """Elements and points by their own names."""
        asked = []
        for thing in chance.choices(world.things, k=len(world.things)):
            whole = expected(thing) if thing.shape.kind not in ("RESCALE", "ASCII") else {}
            if "dimensions" not in whole:
                continue
            index, values, name = Deeds(thing).index(), whole, thing.name
            if whole.get("axes") and chance.random() < 0.4:
                values = chance.choice([axis for axis in whole["axes"] if axis["kind"] == "STD_AXIS"] or [whole])
                if values is not whole:
                    name, index = f"{name}.{values['name']}", (index["xyz45".index(values["name"])],)
            picked = {key: values[key] for key in ("raw", "physical", "text")}
            for i in index:
                picked = {key: value[i] for key, value in picked.items()}
            asked.append((name + "".join(f"[{i}]" for i in index), picked, thing))
        done = self.run_cli(sim, "get", "--json", *(name for name, _, _ in asked), timeout=240)
        for (name, want, thing), entry in zip(asked, self.answers(done, len(asked))):
            self.assertEqual(differs(entry.get("value", {}), want), [], f"{name}: {entry} {self.texts(world, [thing.name])}")

    def measure(self, sim, world, chance):
        """Elements and whole arrays by DAQ."""
        arrays = [thing for thing in world.things if thing.shape.kind == "MEASUREMENT" and thing.shape.pointer == "DIRECT"]
        wanted = {}
        for thing in chance.sample(arrays, min(len(arrays), 12)):
            index = Deeds(thing).index() if thing.used and chance.random() < 0.6 else None
            for each in [index] if index is not None else list(thing.numbers):
                wanted[Deeds(thing).name_of(each)] = thing.numbers[each], physical(thing.shape.method, thing.numbers[each])
            wanted[None] = [*wanted.get(None, []), "-s", (thing.name if index is None else Deeds(thing).name_of(index)) + "@0"]
        # Into a file: the last lines wait a second for a reader, which this process with its threads may not be.
        done = self.start_cli(sim, "measure", "--json", "-t", 0.2, *wanted.pop(None, []))
        done.finish()
        shown = {}
        for line in done.out.splitlines():
            shown |= json.loads(line, parse_float=Fraction).get("values", {})
        bad = [(name, value, shown.get(name)) for name, value in wanted.items()
               if name not in shown or not same([shown[name]["raw"], shown[name]["physical"]], list(value))]
        self.assertEqual((bad, shown.keys() - wanted.keys()), ([], set()), done.err)


def cases():
    yield from ((seed,) for seed in range(CASES))


if __name__ == "__main__":
    layouts.check()
    campaign.main("objects", Objects, cases, summary=lambda: [", ".join(f"{n} {kind}" for kind, n in sorted(Objects.seen.items()))])
