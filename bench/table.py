#!/usr/bin/env python3
"""Runs every benchmark and prints one table: ours against the plain baseline measured in the same run.

Ours and the baseline alternate, and the best run of each counts, so that other load on the machine disturbs little.
"""
import argparse
import json
import os
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
ROUNDS = 9
RATE, DATAGRAM = 81_000, 1468


class Table:
    """The rows in the order of their measurement; each is printed when the run ends."""

    def __init__(self):
        self.rows = [("path", "ours", "baseline", "ratio", "line", "")]

    def add(self, path, ours, baseline, ratio, line, met):
        self.rows.append((path, ours, baseline, ratio, line, "met" if met else "MISSED"))
        print("  " + ", ".join(text for text in self.rows[-1] if text), file=sys.stderr, flush=True)

    def print(self):
        widths = [max(len(row[i]) for row in self.rows) for i in range(6)]
        for index, row in enumerate(self.rows):
            print("| " + " | ".join(text.ljust(width) for text, width in zip(row, widths)) + " |")
            if index == 0:
                print("|" + "|".join("-" * (width + 2) for width in widths) + "|")


class Run:
    """One finished program: seconds by the clock and of processor time, largest resident set in bytes."""

    def __init__(self, command, env=None, out=subprocess.DEVNULL):
        begin = time.monotonic()
        process = subprocess.Popen([str(part) for part in command], stdin=subprocess.DEVNULL, stdout=out,
                                   stderr=subprocess.DEVNULL, env=env)
        _, status, usage = os.wait4(process.pid, 0)
        self.wall = time.monotonic() - begin
        process.returncode = os.waitstatus_to_exitcode(status)
        if process.returncode != 0:
            raise RuntimeError(f"{command[0]} ended with {process.returncode}")
        self.processor = usage.ru_utime + usage.ru_stime
        self.resident = usage.ru_maxrss * 1024


def alternate(ours, baseline, rounds=ROUNDS):
    pairs = [(ours(), baseline()) for _ in range(rounds)]
    return [pair[0] for pair in pairs], [pair[1] for pair in pairs]


def least(runs, what="wall"):
    return min(getattr(run, what) for run in runs)


def generate(directory, measurements, conversions):
    file = Path(directory, f"generated_{measurements}.a2l")
    subprocess.run([sys.executable, ROOT / "scripts/make_big_a2l.py", "--measurements", str(measurements),
                    "--conversions", str(conversions), file], check=True)
    return file


def bench_list(table, tools, directory):
    file = generate(directory, 300_000, 2_000)
    size = file.stat().st_size
    english = dict(os.environ, LC_ALL="C")
    ours, words = alternate(lambda: Run([tools.cli, "--a2l", file, "list"]),
                            lambda: Run(["wc", "-w", file], env=english))
    a, b = least(ours), least(words)
    table.add(f"list, A2L of {size / 1e6:.0f} MB", f"{a * 1e3:.0f} ms", f"wc -w: {b * 1e3:.0f} ms", f"{a / b:.2f}",
              "at most 1", a <= b)
    memory = min(run.resident for run in ours) / size
    table.add("- its resident memory", f"{memory * size / 1e6:.0f} MB", f"file: {size / 1e6:.0f} MB",
              f"{memory:.2f}", "below 2.5", memory < 2.5)
    text = subprocess.run([tools.bin / "a2l_load", file], check=True, capture_output=True, text=True).stdout
    rate = float(re.search(r"load .*?([\d.]+) MB/s", text)[1])
    table.add("- loading alone", f"{rate:.0f} MB/s", "", "", "at least 400 MB/s", rate >= 400)
    file.unlink()


def bench_start(table, tools):
    ours, true = alternate(lambda: Run([tools.cli, "--a2l", ROOT / "examples/demo.a2l", "list"]),
                           lambda: Run(["/bin/true"]), 200)
    for name, pick in (("best", min), ("median", statistics.median)):
        a, b = pick(run.wall for run in ours), pick(run.wall for run in true)
        table.add(f"list of examples/demo.a2l, {name}", f"{a * 1e3:.2f} ms", f"true: {b * 1e3:.2f} ms",
                  f"+{(a - b) * 1e3:.2f} ms", "within 6 ms", a - b <= 0.006)


def bench_receive(table, tools):
    text = subprocess.run([tools.bin / "dto_receive"], check=True, capture_output=True, text=True).stdout
    names = {"one": "DTO to sink, 1,400 bytes a datagram", "many": "DTO to sink, 70 packets a datagram"}
    for line in text.splitlines():
        key, *numbers = line.split()
        ours, bare, ours_cpu, bare_cpu, lost = map(float, numbers)
        table.add(names[key], f"{ours:,.0f}/s", f"bare loop: {bare:,.0f}/s", f"{ours / bare:.2f}",
                  "at least 0.9, none lost", ours / bare >= 0.9 and lost == 0)
        table.add("- per second of processor time", f"{ours_cpu:,.0f}", f"{bare_cpu:,.0f}",
                  f"{ours_cpu / bare_cpu:.2f}", "", True)


def line_rate_model(directory):
    """250 signals that fill a datagram of 1,468 bytes, every fourth with a table or a formula."""
    sizes = [8] * 115 + [4] * 134 + [2]
    types = {8: "FLOAT64_IEEE", 4: "ULONG", 2: "UWORD"}
    text = ['ASAP2_VERSION 1 71 /begin PROJECT p "" /begin MODULE m ""',
            '/begin COMPU_METHOD lin "" LINEAR "%8.3" "bar" COEFFS_LINEAR 0.25 -40 /end COMPU_METHOD',
            '/begin COMPU_METHOD form "" FORM "%8.3" "" /begin FORMULA "X*2+1" /end FORMULA /end COMPU_METHOD',
            '/begin COMPU_METHOD tab "" TAB_INTP "%8.3" "" COMPU_TAB_REF t /end COMPU_METHOD',
            '/begin COMPU_TAB t "" TAB_INTP 64 ' + " ".join(f"{i * i * 1e6} {i}" for i in range(64)) + " /end COMPU_TAB"]
    names = []
    for index, size in enumerate(sizes):
        method = ("lin", "lin", "NO_COMPU_METHOD", ("form", "tab")[index // 4 % 2])[index % 4]
        names.append(f"s{index}")
        text.append(f'/begin MEASUREMENT s{index} "" {types[size]} {method} 0 0 0 1e300 ECU_ADDRESS {4096 + index * 8}'
                    " /end MEASUREMENT")
    file = Path(directory, "line.a2l")
    file.write_text("\n".join(text) + "\n/end MODULE /end PROJECT\n")
    return file, names


def thread_seconds(pid):
    seconds = {}
    for task in Path(f"/proc/{pid}/task").iterdir():
        name = (task / "comm").read_text().strip()
        seconds[name] = seconds.get(name, 0) + int((task / "schedstat").read_text().split()[0]) / 1e9
    return seconds


def bench_line_rate(table, tools, directory, duration=20):
    model, names = line_rate_model(directory)
    recording = Path(directory, "line")
    slave = subprocess.Popen([tools.bin / "bare_slave", str(RATE), str(DATAGRAM)], stdout=subprocess.PIPE, text=True)
    port = slave.stdout.readline().split()[1]
    command = [tools.cli, "--a2l", model, "--udp", f"127.0.0.1:{port}", "measure", "-p", "0", "-t", duration, "-r",
               recording] + [part for name in names for part in ("-s", name)]
    tool = subprocess.Popen([str(part) for part in command], stderr=subprocess.PIPE, text=True)
    time.sleep(2)
    first, begin = thread_seconds(tool.pid), time.monotonic()
    time.sleep(duration - 4)
    last, elapsed = thread_seconds(tool.pid), time.monotonic() - begin
    said = tool.communicate()[1]
    slave.terminate()
    sent = int(slave.communicate()[0].split()[-1])
    done = re.search(r"([\d.]+) s: (\d+) records, lost ODTs (\d+).*recorded (\d+) \(dropped (\d+)\)", said)
    received, lost, recorded, dropped = (int(done[i]) for i in range(2, 6))
    warnings = [line for line in said.splitlines() if "measure:" in line]
    load = {name: (last[name] - first[name]) / elapsed for name in last if name in first}
    size = sum(file.stat().st_size for file in recording.iterdir())
    plain = Run(["dd", "if=/dev/zero", f"of={directory}/plain", "bs=64K", f"count={size // 65536}"])
    # What is on its way when the stop command reaches the sender is sent and not received.
    complete = received == recorded and lost == dropped == 0 and not warnings and sent - received <= RATE // 10
    table.add(f"{RATE:,} datagrams/s recorded, {duration} s", f"{recorded:,} of {sent:,}",
              f"{size / 1e9:.2f} GB", f"{recorded / sent:.4f}", "none lost or dropped", complete)
    seconds = load["rec-writer"] * duration
    table.add("- rec-writer", f"{load['rec-writer']:.0%} of a core", f"dd: {plain.processor / duration:.0%}",
              f"{seconds / plain.processor:.2f}", "below 70 %", load["rec-writer"] < 0.7)
    table.add("- xcp-udp-rx", f"{load['xcp-udp-rx']:.0%} of a core", "", "", "", True)
    for warning in warnings:
        print(warning, file=sys.stderr)


class RecordedRun:
    """One measurement of the line's rate, and what it cost and lost. `check` looks at the recording before it goes."""

    def __init__(self, tools, directory, model, names, arguments, duration, check=None):
        slave = subprocess.Popen([tools.bin / "bare_slave", str(RATE), str(DATAGRAM)], stdout=subprocess.PIPE, text=True)
        port = slave.stdout.readline().split()[1]
        recording = tempfile.mkdtemp(dir=directory)
        command = [tools.cli, "--a2l", model, "--udp", f"127.0.0.1:{port}", "measure", "-p", "0", "-t", duration, "-r",
                   recording, *arguments] + [part for name in names for part in ("-s", name)]
        tool = subprocess.Popen([str(part) for part in command], stderr=subprocess.PIPE, text=True)
        said = tool.stderr.read()
        _, status, usage = os.wait4(tool.pid, 0)
        slave.terminate()
        slave.wait()
        done = re.search(r"(\d+) records, lost ODTs (\d+).*recorded (\d+) \(dropped (\d+)\)", said)
        if not done:
            raise RuntimeError(f"{' '.join(arguments)}: {said}")
        self.records, lost, self.recorded, dropped = map(int, done.groups())
        self.cost = (usage.ru_utime + usage.ru_stime) / self.records * 1e6
        self.faults = [line for line in said.splitlines() if "measure:" in line or "recording:" in line]
        code = os.waitstatus_to_exitcode(status)
        if self.records != self.recorded or lost or dropped or code not in (0, 3):  # 3: what is asserted does not matter here
            self.faults.append(f"{self.records} records, {self.recorded} recorded, {lost} lost, {dropped} dropped, exit "
                               f"code {code}")
        if check:
            self.faults += check(Path(recording), self)
        shutil.rmtree(recording)


def faults_of_parts(tools, recording, run):
    """Of a recording in parts: what is missing between them, or not sound."""
    told = json.loads(subprocess.run([tools.cli, "recording", "info", recording, "--json"], check=True,
                                     capture_output=True, text=True).stdout)
    held = sum(group["records"] for group in told["groups"])
    faults = [found["text"] for found in told["breaks"]]
    if held != run.recorded:
        faults.append(f"the parts hold {held} of {run.recorded} records")
    run.parts = len(told["recordings"])
    return faults


def bench_conditions(table, tools, directory, duration=8, rounds=5):
    """What 50 assertions (six are violated by every record) and 10 triggers cost, of which one records all as a take,
    beside a plain recording."""
    model, names = line_rate_model(directory)
    asserted = [part for i in range(50)
                for part in ("--assert", f"s{i * 5}>=-40" if i % 5 else f"s{i}>=-40 && s{i + 1}<1e300")]
    triggers = [part for i in range(10) for part in ("--start-when", f"s{i * 3}>1e299" if i else "s0>=-40")]
    kinds = {"plain recording": [], "50 assertions": asserted, "10 triggers, all as a take": triggers,
             "50 assertions and 10 triggers": asserted + triggers}
    runs = {name: [] for name in kinds}
    for _ in range(rounds):
        for name, arguments in kinds.items():
            runs[name].append(RecordedRun(tools, directory, model, names, arguments, duration))
            for fault in runs[name][-1].faults:
                print(f"{name}, run {len(runs[name])}: {fault}", file=sys.stderr)
    plain = min(run.cost for run in runs.pop("plain recording"))
    for name, done in runs.items():
        ours = min(run.cost for run in done)
        lossy = sum(bool(run.faults) for run in done)
        table.add(f"{RATE:,} datagrams/s, {name}", f"{ours:.2f} us a record", f"plain recording: {plain:.2f} us",
                  f"{ours / plain:.3f}", "at most 1.1, none lost", ours / plain <= 1.1 and lossy == 0)


def bench_splits(table, tools, directory, duration=20):
    """A part each second, closed ones checked meanwhile."""
    model, names = line_rate_model(directory)
    run = RecordedRun(tools, directory, model, names, ["--split", "1s"], duration,
                      lambda recording, run: faults_of_parts(tools, recording, run))
    for fault in run.faults:
        print(f"splits: {fault}", file=sys.stderr)
    table.add(f"{RATE:,} datagrams/s in {run.parts} parts", f"{run.recorded:,} of {run.records:,}", "",
              f"{run.recorded / run.records:.4f}", "none lost, no break", not run.faults and run.parts >= duration - 2)


def bench_values(table, tools):
    text = subprocess.run([tools.bin / "values", "--benchmark_min_time=0.05", f"--benchmark_repetitions={ROUNDS}",
                           "--benchmark_enable_random_interleaving=true", "--benchmark_format=json"],
                          check=True, capture_output=True, text=True).stdout
    best = {}
    for run in json.loads(text)["benchmarks"]:
        if run["run_type"] == "iteration":
            best.setdefault(run["name"], []).append(1e9 / run["items_per_second"])
    best = {name: min(times) for name, times in sorted(best.items())}
    for name, ours in best.items():
        kind, _, detail = name.partition("/")
        if kind == "pyramid":
            limit = 8 if re.search("table|formula|function", detail) else 3
            copy = best["copy/" + detail]
            table.add(f"pyramid, {detail}", f"{ours:.2f} ns", f"copy: {copy:.3f} ns", f"{ours / copy:.0f}",
                      f"at most {limit} ns", ours <= limit)
        elif kind == "formula":
            compiled = best["compiled/" + detail]
            table.add(f"formula, {detail}", f"{ours:.2f} ns", f"compiled: {compiled:.2f} ns",
                      f"{ours / compiled:.1f}", "within 12", ours / compiled <= 12)


def bench_get(table, tools, directory, count=10_000):
    file = generate(directory, count, 100)
    names = re.findall(r"/begin MEASUREMENT (\S+)", file.read_text())
    slave = subprocess.Popen([tools.bin / "bare_slave"], stdout=subprocess.PIPE, text=True)
    port = slave.stdout.readline().split()[1]

    def bare():
        run = subprocess.run([tools.bin / "ping_pong", port, str(count)], check=True, capture_output=True, text=True)
        return float(run.stdout)

    get = [tools.cli, "--a2l", file, "--udp", f"127.0.0.1:{port}", "get"]
    # Start and load are rows of their own: a run with one name stands for them.
    ours, bares = alternate(lambda: (Run(get + names), Run(get + names[:1])), bare)
    slave.terminate()
    a = min(many.wall for many, _ in ours) - min(one.wall for _, one in ours)
    b = min(bares)
    table.add(f"get of {count:,} names", f"{count / a:,.0f}/s", f"ping-pong: {count / b:,.0f}/s", f"{b / a:.2f}",
              "at least 0.7", b / a >= 0.7)


def bench_ecus(table, tools, directory, duration=20):
    """Two simulated ECUs at 20,000 datagrams/s each, in one recording: what they sent is what is in it."""
    rate, sims, ecus = 20_000, [], []
    model = Path(directory, "fast.a2l")
    fast = ["--fast-event-us", str(1_000_000 // rate)]
    subprocess.run([tools.bin / "xcplumo-sim", *fast, "--write-a2l", model], check=True)
    try:
        for name in ("left", "right"):
            sims.append(subprocess.Popen([tools.bin / "xcplumo-sim", *fast], stdout=subprocess.PIPE, text=True))
            port = int(sims[-1].stdout.readline().split()[1])
            ecus.append({"name": name, "udp": {"host": "127.0.0.1", "port": port}, "measurement": ["counter_1ms@0", "wave@0"]})
        config = Path(directory, "ecus.json")
        config.write_text(json.dumps({"a2l": str(model), "ecus": ecus}), encoding="utf-8")
        done = subprocess.run([tools.cli, "-c", config, "measure", "-p", "0", "-t", str(duration), "-r", Path(directory, "ecus"),
                               "--json", "--fail-on", "losses"], stdout=subprocess.PIPE, text=True, check=False)
    finally:
        for sim in sims:
            sim.terminate()
            sim.wait()
    told = json.loads(done.stdout.splitlines()[-1])["statistics"]
    least = min(ecu["records"] for ecu in told["ecus"]) / told["seconds"]
    lost = told["lostOdts"] + told["missedCycles"] + told["recordedDropped"] + sum(c["count"] for c in told["medium"] if c["isLoss"])
    table.add("two ECUs, recorded", f"{least:,.0f} datagrams/s of each, {lost} lost", f"{rate:,} datagrams/s sent by each",
              f"{least / rate:.3f}", "nothing lost", done.returncode == 0 and lost == 0 and least > 0.99 * rate)


def bench_steady(table, tools, seconds):
    with tempfile.NamedTemporaryFile("r", suffix=".csv") as out:
        subprocess.run([sys.executable, ROOT / "bench/steady.py", "--cli", tools.cli, "--sim", tools.bin / "xcplumo-sim",
                        "--seconds", str(seconds), "--out", out.name], check=True, stderr=subprocess.DEVNULL)
        rows = [[float(value) for value in line.split(",")] for line in out]
    warm = [row for row in rows if row[0] >= 60]
    middle = warm[len(warm) // 2]
    growth = warm[-1][2] - warm[0][2]
    table.add(f"{seconds / 60:.0f} minutes at 1,000 records/s, memory", f"{warm[-1][2]:.0f} kB",
              f"after 1 min: {warm[0][2]:.0f} kB", f"{warm[-1][2] / warm[0][2]:.3f}", "flat (+1 %)",
              growth <= warm[0][2] * 0.01)
    halves = [(b[3] - a[3]) / (b[1] - a[1]) * 1e6 for a, b in ((warm[0], middle), (middle, warm[-1]))]
    table.add("- processor time per record, 2nd half", f"{halves[1]:.1f} us", f"1st half: {halves[0]:.1f} us",
              f"{halves[1] / halves[0]:.2f}", "constant (1.2)", halves[1] / halves[0] <= 1.2)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--bin", type=Path, required=True, help="where the programs were built")
    parser.add_argument("--only", help="list,start,receive,line,conditions,splits,values,get,ecus,steady: some of them")
    parser.add_argument("--steady-seconds", type=int, default=600)
    tools = parser.parse_args()
    tools.bin = tools.bin.resolve()
    tools.cli = tools.bin / "xcplumo-cli"
    wanted = (tools.only or "list,start,receive,line,conditions,splits,values,get,ecus,steady").split(",")
    table = Table()
    with tempfile.TemporaryDirectory(prefix="bench-") as directory:
        steps = {"list": lambda: bench_list(table, tools, directory), "start": lambda: bench_start(table, tools),
                 "receive": lambda: bench_receive(table, tools),
                 "line": lambda: bench_line_rate(table, tools, directory),
                 "conditions": lambda: bench_conditions(table, tools, directory),
                 "splits": lambda: bench_splits(table, tools, directory), "values": lambda: bench_values(table, tools),
                 "get": lambda: bench_get(table, tools, directory),
                 "ecus": lambda: bench_ecus(table, tools, directory),
                 "steady": lambda: bench_steady(table, tools, tools.steady_seconds)}
        for name in wanted:
            steps[name]()
    table.print()


if __name__ == "__main__":
    main()
