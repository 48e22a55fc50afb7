#!/usr/bin/env python3
"""Measures how costs grow with the size of the problem and draws each as an SVG picture."""
import argparse
import resource
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
WIDTH, HEIGHT, LEFT, BOTTOM, TOP, RIGHT = 560, 320, 70, 46, 34, 20
SIZES_MB = (1, 10, 25, 50, 100, 200, 400)
BYTES_PER_MEASUREMENT = 336


def children_seconds():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def load_seconds(program, file, rounds=5):
    """The least processor time of loading the file and listing one object of it."""
    best = float("inf")
    for _ in range(rounds):
        before = children_seconds()
        subprocess.run([program, "--a2l", file, "list", "_000000"], check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)
        best = min(best, children_seconds() - before)
    return best


def measure_load(program):
    points = []
    with tempfile.TemporaryDirectory() as directory:
        file = Path(directory, "big.a2l")
        for size in SIZES_MB:
            subprocess.run([sys.executable, ROOT / "scripts/make_big_a2l.py", "--measurements",
                            str(size * 1_000_000 // BYTES_PER_MEASUREMENT), file], check=True)
            points.append((file.stat().st_size / 1e6, load_seconds(program, file) * 1e3))
    return points


def measure_records(program):
    # In memory: a disk's file system takes its time over making files where others were removed a moment ago.
    memory = Path("/dev/shm")
    with tempfile.TemporaryDirectory(dir=memory if memory.is_dir() else None) as directory:
        text = subprocess.run([program, Path(directory, "recording")], check=True, capture_output=True, text=True).stdout
    curves = {}
    for line in text.splitlines():
        what, size, nanoseconds = line.split(",")
        curves.setdefault(what, []).append((float(size), float(nanoseconds)))
    return curves


def ticks(most):
    """Round numbers from 0 to a little above `most`."""
    step = 10.0 ** len(str(int(most))) / 10
    step = next(step * factor for factor in (0.1, 0.2, 0.5, 1, 2, 5) if most / (step * factor) <= 6)
    count = int(most / step) + 1
    return [step * i for i in range(count + 1)]


def draw(points, title, x_label, y_label):
    """The measured points, joined, over the straight line of least squares, which proportional growth follows."""
    xs, ys = [x for x, _ in points], [y for _, y in points]
    x_ticks, y_ticks = ticks(max(xs)), ticks(max(ys))
    x_at = lambda x: LEFT + x / x_ticks[-1] * (WIDTH - LEFT - RIGHT)
    y_at = lambda y: HEIGHT - BOTTOM - y / y_ticks[-1] * (HEIGHT - BOTTOM - TOP)
    mean_x, mean_y = sum(xs) / len(xs), sum(ys) / len(ys)
    slope = sum((x - mean_x) * (y - mean_y) for x, y in points) / sum((x - mean_x) ** 2 for x in xs)
    base = mean_y - slope * mean_x
    text = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{HEIGHT}" font-family="sans-serif" '
            f'font-size="12"><rect width="100%" height="100%" fill="white"/>'
            f'<text x="{WIDTH / 2}" y="20" text-anchor="middle" font-size="14">{title}</text>']
    for x in x_ticks:
        text.append(f'<line x1="{x_at(x):.1f}" x2="{x_at(x):.1f}" y1="{TOP}" y2="{HEIGHT - BOTTOM}" stroke="#ddd"/>'
                    f'<text x="{x_at(x):.1f}" y="{HEIGHT - BOTTOM + 16}" text-anchor="middle">{x:,g}</text>')
    for y in y_ticks:
        text.append(f'<line x1="{LEFT}" x2="{WIDTH - RIGHT}" y1="{y_at(y):.1f}" y2="{y_at(y):.1f}" stroke="#ddd"/>'
                    f'<text x="{LEFT - 6}" y="{y_at(y) + 4:.1f}" text-anchor="end">{y:,g}</text>')
    ends = (min(xs), max(xs))
    text.append(f'<line x1="{x_at(ends[0]):.1f}" x2="{x_at(ends[1]):.1f}" y1="{y_at(base + slope * ends[0]):.1f}" '
                f'y2="{y_at(base + slope * ends[1]):.1f}" stroke="#999" stroke-dasharray="5 4"/>')
    path = " ".join(f"{x_at(x):.1f},{y_at(y):.1f}" for x, y in points)
    text.append(f'<polyline points="{path}" fill="none" stroke="#1f5fa8" stroke-width="2"/>')
    text += [f'<circle cx="{x_at(x):.1f}" cy="{y_at(y):.1f}" r="3.5" fill="#1f5fa8"/>' for x, y in points]
    text.append(f'<text x="{WIDTH / 2}" y="{HEIGHT - 8}" text-anchor="middle">{x_label}</text>'
                f'<text transform="translate(14 {HEIGHT / 2}) rotate(-90)" text-anchor="middle">{y_label}</text></svg>')
    return "\n".join(text) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--bin", type=Path, required=True, help="where the programs were built")
    parser.add_argument("--out", type=Path, required=True, help="directory for the pictures")
    arguments = parser.parse_args()
    curves = measure_records(arguments.bin / "growth")
    curves["load"] = measure_load(arguments.bin / "xcplumo-cli")
    curves["length"] = [(records / 1e6, nanoseconds / 1e9) for records, nanoseconds in curves["length"]]
    labels = {"load": ("Loading an A2L file", "size of the file in MB", "processor time in ms"),
              "signals": ("A record by its signals", "signals in the list", "processor time per record in ns"),
              "lists": ("A record by the lists of a measurement", "lists of 10 signals", "processor time per record in ns"),
              "length": ("A recording by its length", "million records of 20 signals", "processor time in s")}
    for name, (title, x_label, y_label) in labels.items():
        for x, y in curves[name]:
            print(f"{name} {x:g} {y:g}")
        Path(arguments.out, f"growth-{name}.svg").write_text(draw(curves[name], title, x_label, y_label))


if __name__ == "__main__":
    main()
