"""Random conditions over a measurement: verdicts and takes are those of an evaluation of its own over all records.

A case is "verdicts" or "takes" and a seed. The expressions are made as trees here, so nothing parses their text but the
tool. Verdicts are held against the recording, exported to CSV; takes against the records as JSON lines.
"""
import csv
import json
import math
import random

import campaign
import harness
from recording import Recording

NAN = math.nan
# Name@event and some numbers to compare it with.
FAST = {"wave@0": (0, 120.5, 250, 490), "ignition_angle@0": (-20, -7, 0, 12)}
SLOW = {"engine_speed@1": (800, 950.25, 1100, 1290), "counter_10ms@1": (150, 220)}
TEXT, TEXTS = "status_gear@1", ("neutral", "first", "second", "third")


def number(operation):
    """What C's functions give where Python raises."""
    try:
        return float(operation())
    except (ValueError, ZeroDivisionError, OverflowError):
        return NAN


class Expression:
    """A tree with its text, and a value that may look back."""

    def __init__(self, text, value, names, parts=()):
        self.text, self.value, self.names, self.parts = text, value, names, parts
        self.left = self.margin = None  # of a comparison

    @staticmethod
    def constant(value):
        return Expression(repr(value) if value >= 0 else f"({value!r})", lambda values, now: value, set())


def arithmetic(rng, signals, depth):
    if depth == 0 or rng.random() < 0.4:
        name = rng.choice(sorted(signals))
        return Expression(f'"{name}"' if rng.random() < 0.2 else name, lambda values, now: values[name], {name})
    a, b = arithmetic(rng, signals, depth - 1), Expression.constant(rng.choice((2, 3.5, -7, 0x40, 1e-3)))
    kind = rng.choice("+ - * / % log sqrt abs & neg".split())
    call = {
        "+": lambda x, y: x + y, "-": lambda x, y: x - y, "*": lambda x, y: x * y,
        "/": lambda x, y: number(lambda: x / y), "%": lambda x, y: number(lambda: math.fmod(x, y)),
        "&": lambda x, y: NAN if math.isnan(x) else float(int(min(max(x, -2**63), 2**63 - 1)) & int(y)),
        "log": lambda x, y: -math.inf if x == 0 else number(lambda: math.log(x)),
        "sqrt": lambda x, y: number(lambda: math.sqrt(x)), "abs": lambda x, y: abs(x), "neg": lambda x, y: -x,
    }[kind]
    text = f"(-{a.text})" if kind == "neg" else f"{kind}({a.text})" if len(kind) > 1 else f"({a.text} {kind} {b.text})"
    return Expression(text, lambda values, now: call(a.value(values, now), b.value(values, now)), a.names)


def comparison(rng, signals):
    if rng.random() < 0.2:
        text, equal = rng.choice(TEXTS), rng.random() < 0.5
        sides = [TEXT, text] if rng.random() < 0.5 else [f'"{text}"', TEXT]
        return Expression(("==" if equal else "!=").join(sides),
                          lambda values, now: float((values[TEXT] == text) == equal), {TEXT})
    a = arithmetic(rng, signals, 2)
    b = Expression.constant(rng.choice([limit for limits in signals.values() for limit in limits]))
    operator = rng.choice(("<", "<=", ">", ">=", "==", "!="))
    compare = {"<": lambda x, y: x < y, "<=": lambda x, y: x <= y, ">": lambda x, y: x > y,
               ">=": lambda x, y: x >= y, "==": lambda x, y: x == y, "!=": lambda x, y: x != y}[operator]
    margin = {"<": lambda x, y: y - x, "<=": lambda x, y: y - x, ">": lambda x, y: x - y, ">=": lambda x, y: x - y,
              "==": lambda x, y: -abs(x - y), "!=": lambda x, y: abs(x - y)}[operator]

    def value(values, now):
        x, y = a.value(values, now), b.value(values, now)
        made.left, made.margin = x, margin(x, y)
        return NAN if math.isnan(x) or math.isnan(y) else float(compare(x, y))

    made = Expression(f"{a.text}{operator}{b.text}", value, a.names)
    return made


def looking_back(rng, a):
    kind, seconds = rng.choice(("rises", "falls", "for")), rng.choice((0.02, 0.1, 0.35))
    past = {"last": None, "since": None}

    def value(values, now):
        truth = a.value(values, now)
        is_true = truth != 0 and not math.isnan(truth)
        if kind == "for":
            past["since"] = (now if past["since"] is None else past["since"]) if is_true else None
            return float(now - past["since"] >= round(seconds * 1e9)) if is_true else truth
        if math.isnan(truth):
            return truth
        wanted = is_true == (kind == "rises")
        turned = past["last"] is False and wanted
        past["last"] = wanted
        return float(turned)

    text = f"for({a.text}, {round(seconds * 1000)}ms)" if kind == "for" else f"{kind}({a.text})"
    return Expression(text, value, a.names)


def condition(rng, signals, depth=2):
    kind = rng.choice(("compare", "compare", "and", "or", "not", "back")) if depth else "compare"
    if kind == "compare":
        return comparison(rng, signals)
    a = condition(rng, signals, depth - 1)
    if kind == "not":
        def negated(values, now):
            truth = a.value(values, now)
            return truth if math.isnan(truth) else float(truth == 0)
        return Expression(f"!({a.text})", negated, a.names)
    if kind == "back":
        return looking_back(rng, a)
    b, decides = condition(rng, signals, depth - 1), float(kind == "or")

    def joined(values, now):
        x, y = (float(v != 0) if not math.isnan(v) else v for v in (a.value(values, now), b.value(values, now)))
        return decides if decides in (x, y) else NAN if math.isnan(x + y) else 1 - decides

    return Expression(f"({a.text}) {'||' if kind == 'or' else '&&'} ({b.text})", joined, a.names | b.names)


def evaluations(expression, records):
    """Time and truth of each record that holds one of its signals, once all have a value."""
    values = {}
    for now, fresh in records:
        values |= fresh
        if expression.names & fresh.keys() and expression.names <= values.keys():
            yield now, expression.value(values, now)


def verdict(expression, records):
    """What --json tells of an assertion."""
    told = {"records": 0, "violated": 0, "undecided": 0, "times": 0}
    zero, violated, least = records[0][0], False, None
    for now, truth in evaluations(expression, records):
        told["records"] += 1
        margin = expression.margin
        if margin is not None and not math.isnan(margin) and (least is None or margin < least):
            least = margin
            told |= {"worst": expression.left if math.isfinite(expression.left) else None, "worstNs": now - zero}
        if math.isnan(truth):
            told["undecided"] += 1
        elif truth == 0:
            told["violated"] += 1
            told["times"] += not violated
            told = {"fromNs": now - zero} | told | {"toNs": now - zero}
            violated = True
        else:
            violated = False
    return told | {"asWanted": told["records"] > 0 and told["violated"] == told["undecided"] == 0}


def expected_takes(start, stop, records, pre, post, most):
    """Trigger, begin and end of each take; an end of None is that of the measurement."""
    starts, stops = dict(evaluations(start, records)), dict(evaluations(stop, records))
    takes, was_true = [], False
    for now, _ in records:
        if takes and takes[-1][2] is not None and now > takes[-1][2] or not takes:
            truth = starts.get(now, NAN)
            if truth == 1 and not was_true and len(takes) < most:
                takes.append([now, now - pre, None])
        if takes and takes[-1][2] is None and stops.get(now, NAN) == 1:
            takes[-1][2] = now + post
        if now in starts and not math.isnan(starts[now]):
            was_true = starts[now] == 1
    return takes


class Conditions(campaign.Campaign):
    def read_csv(self, directory, names):
        """All records in the order of their times; of those taken at one time the faster event's first."""
        records = []
        for event in ("0", "1"):
            chosen = [name for name in names if name.endswith("@" + event)]
            path = self.dir / f"{event}.csv"
            done = self.run_plain("export", directory, "-o", path, *harness.signals(n[:-2] for n in chosen))
            self.assertEqual(done.returncode, 0, done.stderr)
            rows = list(csv.reader(path.open(encoding="utf-8")))
            for row in rows[1:]:
                seconds, _, part = row[0].partition(".")
                time = int(seconds) * 10**9 + int((part + "0" * 9)[:9])
                records.append((time, {name: cell if name == TEXT else float(cell) for name, cell in zip(chosen, row[1:])}))
        return sorted(records, key=lambda record: record[0])

    def run_case(self, kind, seed):
        self.rng = random.Random(f"{kind} {seed}")
        self.sim = self.start_sim()
        (self.check_verdicts if kind == "verdicts" else self.check_takes)()

    def check_verdicts(self):
        signals = FAST | SLOW
        expressions = [condition(self.rng, self.rng.choice((FAST, SLOW, signals))) for _ in range(40)]
        names, directory = [*signals, TEXT], self.dir / "recording"
        asserted = self.dir / "checks"
        asserted.write_text("".join(f"a{i}: {e.text}\n" for i, e in enumerate(expressions)), encoding="utf-8")
        done = self.run_cli(self.sim, *harness.record(directory, names, 1.5), "--assert-file", asserted, "--json")
        self.assertIn(done.returncode, (0, 3), done.stderr)
        end = json.loads(done.stdout.splitlines()[-1])
        self.assertEqual(end["statistics"]["recordedDropped"], 0)
        records = self.read_csv(directory, names)
        for expression, told in zip(expressions, end["assertions"]):
            self.assertEqual(told["expression"], expression.text)
            wanted = verdict(expression, records)
            self.assertEqual({key: told.get(key) for key in wanted}, wanted, expression.text)

    def check_takes(self):
        start, stop = condition(self.rng, SLOW), condition(self.rng, SLOW)
        pre, post, most = self.rng.choice((0, 250)), self.rng.choice((0, 130)), self.rng.choice((1, 3))
        directory = self.dir / "takes"
        done = self.run_cli(self.sim, *harness.record(directory, ["counter_10ms@1", *SLOW, TEXT], 3, every=1), "--json",
                            "--start-when", start.text, "--stop-when", stop.text, "--pre", f"{pre}ms",
                            "--post", f"{post}ms", "--repeat", most)
        self.assertEqual(done.returncode, 0, done.stderr)
        lines = [json.loads(line) for line in done.stdout.splitlines()]
        if lines[-1]["skippedLines"]:
            return  # a busy machine: it is not known what the tool saw
        records = [(line["tNs"], {name: line["values"][name[:-2]]["text" if name == TEXT else "physical"] for name in [*SLOW, TEXT]})
                   for line in lines if line["type"] == "record"]
        wanted = expected_takes(start, stop, records, pre * 10**6, post * 10**6, most)
        told = lines[-1]["takes"]
        self.assertEqual([take["triggerNs"] for take in told], [take[0] for take in wanted], (start.text, stop.text))
        for take, (_, begin, end) in zip(told, wanted):
            held = Recording(take["directory"]).groups[0].counters()
            inside = [values["counter_10ms@1"] for now, values in records if now >= begin and (end is None or now <= end)]
            self.assertEqual((held, take["dropped"], take["cutOff"]), (inside, 0, end is None))


def cases():
    for seed in range(200):
        yield "takes" if seed % 2 else "verdicts", seed


if __name__ == "__main__":
    campaign.main("conditions", Conditions, cases)
