#!/usr/bin/env python3
"""Holds the architecture: no include arrow points up, libraries stay in their rooms, every test file is in a target.

Fails with one line per finding and exit code 1. docs/architecture.md explains the arrows; its table must show
the same ones.
"""
import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent

# Folder -> folders whose headers it may include besides its own.
ARROWS = {
    "core": set(),
    "help": set(),
    "hal": {"core"},
    "http": {"core"},
    "page": set(),
    "broker": {"core", "hal"},
    "xcp": {"core", "hal", "broker"},
    "value": {"core"},
    "a2l": {"core", "value"},
    "params": {"core", "value"},
    "storage": {"core", "value"},
    "exporter": {"core", "value", "storage"},
    "session": {"core", "hal", "broker", "value", "a2l", "xcp", "storage", "params"},
    "host": {"core", "http", "xcp", "value", "a2l", "storage", "session"},
    "watch": {"core", "value", "xcp", "storage", "session"},
    "serve": {"core", "http", "page", "value", "a2l", "xcp", "storage", "exporter", "session"},
    "cli": {"core", "serve", "host", "http", "value", "a2l", "xcp", "storage", "exporter", "session", "params", "watch", "help"},
    "key": {"core"},
    "sim": {"core", "hal", "help"},
}
# Library header -> folders or single files that may include it. The parser and the log take seconds to compile.
PARSER = {"src/cli/command_line.cpp", "src/cli/option_set.cpp", "src/help/man_page.cpp", "sim/main.cpp",
          "sim/variant_options.cpp"}
LOG = {"src/core/log.cpp", "src/cli/message_output.cpp"}
ASIO = {"src/http/connection.h", "src/http/connection.cpp", "src/http/server.cpp"}
LIBRARIES = {"CLI/": PARSER, "spdlog/spdlog.h": LOG, "nlohmann/": {"http", "host", "serve", "session", "storage", "params"}, "pugixml.hpp": {"params"}, "zlib.h": {"exporter", "http"},
             "boost/": ASIO}

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.M)


def sources(folder):
    return sorted(p for p in folder.rglob("*") if p.suffix in (".h", ".cpp"))


def include_findings():
    for folder, allowed in ARROWS.items():
        home = ROOT / "sim" if folder == "sim" else ROOT / "src" / folder
        for path in sources(home):
            for kind, header in INCLUDE.findall(path.read_text(encoding="utf-8")):
                place = f"{path.relative_to(ROOT)}: #include {header}"
                if kind == "<":
                    for library, rooms in LIBRARIES.items():
                        if header.startswith(library) and not rooms & {folder, path.relative_to(ROOT).as_posix()}:
                            yield f"{place}: {library.rstrip('/')} belongs to {', '.join(sorted(rooms))}"
                elif "/" not in header:
                    if folder != "sim":
                        yield f"{place}: name the folder, as in \"{folder}/{header}\""
                else:
                    target = header.split("/")[0]
                    if target != folder and target not in allowed:
                        yield f"{place}: {folder} may not use {target}"


def unknown_folders():
    for path in (ROOT / "src").iterdir():
        if path.is_dir() and path.name not in ARROWS and sources(path):
            yield f"src/{path.name}: not in the table of scripts/check_layout.py"


def page_findings():
    page = "docs/architecture.md"
    rows = re.findall(r"^\| `(?:src/)?(\w+)` \|.*\| ([^|]*) \|$", (ROOT / page).read_text(encoding="utf-8"), re.M)
    told = {folder: set(re.findall(r"\w+", may)) & set(ARROWS)
            for folder, may in rows}
    for folder, allowed in ARROWS.items():
        if told.get(folder) != allowed:
            yield f"{page}: {folder} may include {', '.join(sorted(allowed)) or 'nothing'}; the table says otherwise"


def test_findings():
    for path in sorted((ROOT / "tests").rglob("*_test.*")):
        if path.suffix not in (".cpp", ".py"):
            continue
        listing = path.parent / "CMakeLists.txt"
        words = re.split(r"[\s()]+", listing.read_text(encoding="utf-8")) if listing.exists() else []
        if path.name not in words and path.stem not in words:
            yield f"{path.relative_to(ROOT)}: in no target of {listing.relative_to(ROOT)}"


def main():
    findings = [*include_findings(), *unknown_folders(), *page_findings(), *test_findings()]
    for finding in findings:
        print(finding, file=sys.stderr)
    if not findings:
        print("layout: ok")
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())
