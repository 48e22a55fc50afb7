"""The cases of the campaign `answers`, by class: (class, session, rule or option of the simulated ECU...).

`positions` tells, for each session, how often a run without faults sends each command. A fault is given in multiples of
the timeout t1 (T1, in milliseconds). Combinations take a grid of halts, the plain halt takes every one.
"""
T1 = 60
HALTS = [tenths / 10 for tenths in range(3, 121)]
COARSE = (0.5, 0.9, 1.3, 1.7, 2.4, 3.2, 4.6, 6.4, 8.5, 11.5)
FEW = (1.3, 2.6, 6.4)
ODD_SYNCH = ("ignore:SYNCH:1:0", "positive:SYNCH:1:0", "short:SYNCH:1:0:1",
             *(f"error:SYNCH:1:0:{code}" for code in ("0x20", "0x31", "0x10")))
# With an answer that another overtakes, the ECU may be slow besides, so that the two meet.
SLOW = (f"late:*:1:0:{round(T1 * 0.05)}", f"late:*:1:0:{round(T1 * 0.2)}")
# Of these nothing is promised but that they are counted.
REPORTED = ("synch never", "overtaking")


def ms(times):
    return round(T1 * times)


def halt(number, times, pause=0.0):
    return f"halt:*:{number}:1:{ms(times)}:{ms(pause)}"


def late(number):
    for times in (0.6, 0.9, 1.1, 1.2, 1.6, 1.9, 2.1, 2.5, 3.5, 5, 8):
        yield from ([f"late:*:{number}:{count}:{ms(times)}"] for count in (1, 2))
    yield from ([f"late:*:{number}:0:{ms(times)}"] for times in (0.6, 1.2))


def lost(number):
    yield from ([f"{kind}:*:{number}:{count}"] for kind in ("lose", "ignore") for count in (1, 2, 3))
    yield from ([f"lose:*:{number}", f"lose:*:{number + step}"] for step in (2, 3, 4, 5))


def doubled(number):
    yield from ([f"double:*:{number}:{count}:{gap}"] for count in (1, 0) for gap in (0, 2))
    yield from ([f"double:*:{number}:1:{ms(gap)}"] for gap in (0.5, 1.1, 2.3))
    yield [f"stray:*:{number}"]


def other(number):
    for kind in ("short", "short:1:3", "short:0:1", "stray:0", "error:1:0x22", "error:1:0x33", "busy:3", f"pending:1:{ms(4)}", "terminate",
                 "restart", f"silence:1:{ms(2)}", "silence:1:0"):
        name, _, rest = kind.partition(":")
        yield [f"{name}:*:{number}" + (f":{rest}" if rest else "")]


def halted(number):
    yield from ([halt(number, times)] for times in HALTS)
    yield from ([halt(number, times, pause)] for times in COARSE for pause in (0.02, 0.4))


def halted_and(*kinds):
    """One halt, and one more fault at the same command or one of the two after it."""
    def faults(number):
        for place, times in enumerate(COARSE):
            for step in range(3):
                kind, _, rest = kinds[(place + step) % len(kinds)].partition(":")
                yield [halt(number, times), f"{kind}:*:{number + step}" + (f":1:{rest}" if rest else "")]
    return faults


def pointers(number):
    for rule in (f"lose:*:{number}", f"lose:*:{number}:2", f"ignore:*:{number}", f"double:*:{number}", f"double:*:{number}:1:2",
                 f"late:*:{number}:1:{ms(1.2)}", f"late:*:{number}:1:{ms(2.5)}", *(halt(number, times) for times in COARSE)):
        yield ["--synch-clears", rule]


def synchless(number):
    """SYNCH is not answered at first, or always late, when it has to show what a fault has left."""
    for synch in ("ignore:SYNCH:1:1", "ignore:SYNCH:1:2", "ignore:SYNCH:1:3", f"late:SYNCH:1:0:{ms(0.8)}"):
        for rule in (f"lose:*:{number}", f"double:*:{number}:1:2", f"late:*:{number}:1:{ms(1.6)}",
                     *(halt(number, times) for times in FEW)):
            yield [synch, rule]


def synch_never(number):
    for rule in (f"lose:*:{number}", f"double:*:{number}:1:2", f"late:*:{number}:1:{ms(1.6)}", halt(number, 2.6)):
        yield ["ignore:SYNCH:1:0", rule]


def overtaking(command, number):
    yield from ([f"overtaken:{command}:{number}:1:{ms(times)}", slow]
                for times in (0, 1.2, 1.35, 1.5, 1.7, 1.9, 2.5) for slow in SLOW)
    yield from ([f"overtaken:{command}:{number}:1:{ms(times)}", f"halt:{command}:{number}:1:{ms(pause)}"]
                for times in (0, 0.5, 1.5) for pause in COARSE)


AT_EACH = {"late": late, "lost": lost, "doubled": doubled, "other": other, "halted": halted,
           "halted+doubled": halted_and("double", "double:2"), "halted+lost": halted_and("lose", "ignore"),
           "halted+late": halted_and(f"late:{ms(0.6)}", f"late:{ms(1.4)}"), "pointers": pointers, "synchless": synchless,
           "synch never": synch_never}
# Two of the lists are used; the first is too small.
STATIC = "--static-lists=1x1,2x5,2x5"
STATIC_COMMANDS = 12  # more than with dynamic lists: they are asked for
# Seeds and keys of two packets each.
LOCKED = ("--lock=cal,daq", "--seed-bytes=255")
LOCKED_COMMANDS = 11
# The EPK is read before all else, and the pages at the end.
IDENTITY = ("--epk=SIM 1.0", "--pages=2")
IDENTITY_COMMANDS = 12
CLASSES = (*AT_EACH, "synch odd", "overtaking", "start", "static", "locked", "identity")


def cases(chosen, positions):
    for name in chosen:
        for session, commands in positions.items():
            if name == "synch odd":
                yield from ((name, session, rule) for rule in ODD_SYNCH)
            elif name == "overtaking":
                for command, count in commands.items():
                    for number in range(1, count + 1):
                        yield from ((name, session, *rules) for rules in overtaking(command, number))
            elif name == "static":
                if session == "measure":
                    for number in range(1, sum(commands.values()) + STATIC_COMMANDS + 1):
                        for fault in (lost, doubled, late, other):
                            yield from ((name, session, STATIC, *rules) for rules in fault(number))
            elif name == "locked":
                if session in ("set", "measure"):
                    for number in range(1, sum(commands.values()) + LOCKED_COMMANDS + 1):
                        for fault in (lost, doubled, late, other):
                            yield from ((name, session, *LOCKED, *rules) for rules in fault(number))
            elif name == "identity":
                if session in ("get", "get by UPLOAD", "set"):
                    for number in range(1, sum(commands.values()) + IDENTITY_COMMANDS + 1):
                        for fault in (lost, doubled, late, other):
                            yield from ((name, session, *IDENTITY, *rules) for rules in fault(number))
            elif name != "start":
                for number in range(1, sum(commands.values()) + 1):
                    yield from ((name, session, *rules) for rules in AT_EACH[name](number))
            elif session == "measure":
                yield from ((name, session, "--identification=0", f"--same-first-pid={kind}") for kind in ("told", "sent"))
                yield name, session, "ignore:DISCONNECT"
                yield from ((name, session, "--select-stopped", f"{kind}:*:{number}")
                            for number in range(1, sum(commands.values()) + 1) for kind in ("lose", "ignore"))
