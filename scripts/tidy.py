#!/usr/bin/env python3
"""Runs clang-tidy over all sources of src/ and sim/, or over those whose path holds one of the words given.

Sources of a folder are read together, a dozen at a time: most of the time goes into the headers, which are the same.
"""

import concurrent.futures
import json
import os
import pathlib
import shlex
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "tidy"
# The analyser follows paths through what a main file includes only when the main file has this name.
PREFIX = "UnifiedSource_"
# A sixth of the nodes that the analyser takes by itself: faults planted at the end of eleven long functions were found in
# the same two of them with all, a third and a sixth, and the analyser is most of the time of all checks.
NODES = "37500"
TOGETHER = "12"


def configure():
    made = subprocess.run(["cmake", "-S", ROOT, "-B", BUILD, "-G", "Ninja", "-DCMAKE_CXX_COMPILER=clang++-14",
                           "-DCMAKE_BUILD_TYPE=Debug", "-DXCPLUMO_TESTS=OFF", "-DCMAKE_UNITY_BUILD=ON",
                           f"-DCMAKE_UNITY_BUILD_BATCH_SIZE={TOGETHER}"], capture_output=True, text=True)
    if made.returncode != 0:
        sys.exit(made.stdout + made.stderr)
    return json.loads((BUILD / "compile_commands.json").read_text())


def flags(command):
    """What the compiler is told, without the files."""
    words = iter(shlex.split(command)[1:])
    kept = []
    for word in words:
        if word in ("-o", "-c"):
            next(words)
        else:
            kept.append(word)
    return kept


def unit(entry):
    """A file to read, the sources that it stands for, and the flags."""
    path = pathlib.Path(entry["file"])
    if path.parent.name != "Unity":
        return path, [path], flags(entry["command"])
    text = path.read_text()
    sources = [pathlib.Path(line.split('"')[1]) for line in text.splitlines() if line.startswith("#include")]
    together = BUILD / f"{PREFIX}{path.parent.parent.stem}_{path.stem}.cpp"
    together.write_text(text)
    return together, sources, flags(entry["command"])


def check(read):
    path, _, told = read
    run = subprocess.run(["clang-tidy-14", f"--config-file={ROOT}/.clang-tidy", "--checks=-bugprone-suspicious-include",
                          r"--header-filter=/(src|sim)/.*\.(h|cpp)$", "--quiet", path,
                          "--extra-arg=-Wno-unknown-warning-option", "--extra-arg=-Xclang",
                          "--extra-arg=-analyzer-config", "--extra-arg=-Xclang", f"--extra-arg=max-nodes={NODES}",
                          "--", *told], capture_output=True, text=True)
    findings = run.stdout + "".join(line for line in run.stderr.splitlines(keepends=True) if "error" in line)
    return run.returncode, findings


def main():
    units = [unit(entry) for entry in configure()]
    # What the build makes itself is read by no one.
    units = [read for read in units if read[1][0].is_relative_to(ROOT) and not read[1][0].is_relative_to(BUILD)]
    listed = subprocess.run(["git", "-C", ROOT, "ls-files", "src/*.cpp", "sim/*.cpp"], capture_output=True, text=True,
                            check=True)
    missed = {ROOT / name for name in listed.stdout.split()} - {source for read in units for source in read[1]}
    if missed:
        sys.exit("not compiled by any target: " + ", ".join(sorted(str(path.relative_to(ROOT)) for path in missed)))
    if len(sys.argv) > 1:
        units = [read for read in units
                 if any(word in str(source.relative_to(ROOT)) for word in sys.argv[1:] for source in read[1])]

    # The longest first, so that none is left for the end.
    units.sort(key=lambda read: -sum(source.stat().st_size for source in read[1]))
    failed = False
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for status, findings in pool.map(check, units):
            if status != 0:
                failed = True
                print(findings, end="", flush=True)
    if failed:
        sys.exit(1)
    print(f"clang-tidy: ok, {sum(len(read[1]) for read in units)} sources")


if __name__ == "__main__":
    main()
