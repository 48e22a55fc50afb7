"""Random structures: TYPEDEF_STRUCTURE, INSTANCE, and what lies under the names of their leaves."""
import copy

from layouts import BORDERS, Layout, in_memory_order
from random_layouts import BASE, Axis, Shape, Thing
from value_coding import Field


class Component:
    """A part of a structure; `dims` are those of its MATRIX_DIM, `of` is a Shape or a Structure."""

    def __init__(self, world, of, offset):
        chance = world.chance
        self.of, self.offset, self.dims, self.pointed = of, offset, (), False
        self.single = of.size if isinstance(of, Structure) else Thing.room(of) if of.kind != "MEASUREMENT" else BORDERS[of.type][1]
        if isinstance(of, Structure) or of.kind == "MEASUREMENT":
            self.dims = tuple(chance.randint(1, 3) for _ in range(chance.choice((0, 1, 1, 2)) if self.single < 300 else 0))
        self.mode = chance.choice(("ROW_DIR", "COLUMN_DIR"))
        # A pointer belongs to the structure, so the module's byte order counts for it.
        odd = not isinstance(of, Structure) and of.own_order not in ("", world.order)
        self.pointed = not odd and not self.dims and chance.random() < 0.2
        self.count = len(list(in_memory_order(self.dims, "ROW_DIR")))
        self.size = 4 if self.pointed else self.count * self.single

    def options(self):
        words = f" MATRIX_DIM {' '.join(map(str, self.dims))} LAYOUT {self.mode}" if self.dims else ""
        return words + (" ADDRESS_TYPE PLONG" if self.pointed else "")

    def leaves(self, world, name, address, siblings):
        if self.pointed:
            place, address = address - BASE, world.take(self.single)
            world.memory[place:place + 4] = Field("ULONG", world.order).encoded(address, bytes(4))
        if isinstance(self.of, Structure):
            for number, index in enumerate(in_memory_order(self.dims, self.mode)):
                self.of.leaves(world, name + "".join(f"[{i}]" for i in index), address + number * self.single)
            return
        shape = self.of
        if shape.kind == "MEASUREMENT":
            shape = copy.copy(shape)
            shape.dims, shape.layout = self.dims, Layout(f"FNC_VALUES 1 {shape.type} {self.mode} DIRECT")
        shared = [siblings[axis.sibling] if hasattr(axis, "sibling") else axis.shared for axis in shape.axes]
        siblings[name.rpartition(".")[2]] = Thing(world, shape, name, address, shared)
        world.things.append(siblings[name.rpartition(".")[2]])


class Structure:
    """A TYPEDEF_STRUCTURE and, before it in `text`, those of its components."""

    def __init__(self, world, name, depth):
        chance = world.chance
        self.name, self.size, self.components, self.text, body = name, 0, {}, "", ""
        axis = None
        for i in range(chance.randint(1, 6)):
            part = f"c{i}"
            if depth and chance.random() < 0.4:
                of = Structure(world, f"{name}{part}", depth - 1)
                self.text += of.text
            else:
                of = self.shape(world, f"{name}{part}", axis)
                self.text += of.text()
                axis = (part, of) if of.kind == "AXIS_PTS" else axis
            component = Component(world, of, self.size + chance.randrange(4))
            self.components[part] = component
            self.size = component.offset + component.size
            body += f"/begin STRUCTURE_COMPONENT {part} {of.name} {component.offset}{component.options()} /end STRUCTURE_COMPONENT\n"
        self.size += chance.randrange(4)
        self.text += f'/begin TYPEDEF_STRUCTURE {name} "" {self.size}\n{body}/end TYPEDEF_STRUCTURE\n'

    @staticmethod
    def shape(world, name, axis):
        """A typedef; a curve may lie over an axis of the same structure."""
        kind = world.chance.choice(("MEASUREMENT", "MEASUREMENT", "VALUE", "VAL_BLK", "ASCII", "CURVE", "CURVE", "AXIS_PTS"))
        axes = []
        if kind in ("CURVE", "AXIS_PTS"):
            axes = [Axis(world, "COM_AXIS" if axis and kind == "CURVE" else "AXIS_PTS" if kind == "AXIS_PTS" else "STD_AXIS",
                         world.chance.randint(1, 5))]
        if axis and kind == "CURVE":
            axes[0].sibling, axes[0].shared, axes[0].options = axis[0], None, f"AXIS_PTS_REF THIS.{axis[0]}"
            axes[0].most = axes[0].told = axis[1].axes[0].most
        shape = Shape(world, name, kind, axes)
        if kind == "MEASUREMENT":
            shape.dims, shape.pointer = (), "DIRECT"
        return shape

    def leaves(self, world, name, address):
        siblings = {}
        for part, component in self.components.items():
            component.leaves(world, f"{name}.{part}", address + component.offset, siblings)


def instances(world, number):
    """An INSTANCE of a random structure or another typedef, alone or many; its leaves join the things of the world."""
    world.crowded = True
    of = Structure(world, f"S{number}", 2) if world.chance.random() < 0.7 else Structure.shape(world, f"S{number}", None)
    whole = Component(world, of, 0)
    address = world.take(whole.size)
    world.blocks.append(f'{of.text if isinstance(of, Structure) else of.text()}/begin INSTANCE s{number} "" S{number} {address:#x}{whole.options()} /end INSTANCE\n')
    whole.leaves(world, f"s{number}", address, {})
    world.crowded = False
