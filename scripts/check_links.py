#!/usr/bin/env python3
"""Every relative link of the *.md files leads to a file, and its anchor to a heading. One line per finding, exit code 1.

Reads the files of the repository, or all below the directory given, such as one where the pages are installed.
"""
import re
import subprocess
import sys
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parent.parent
ROOT = Path(sys.argv[1]) if len(sys.argv) > 1 else REPOSITORY
CODE = re.compile(r"```.*?```|`[^`\n]*`", re.S)


def anchors(page):
    headings = re.findall(r"^#+ (.*)", page.read_text(encoding="utf-8"), re.M)
    return {re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-") for heading in headings}


def pages():
    if ROOT != REPOSITORY:
        return sorted(ROOT.rglob("*.md"))
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "*.md"], cwd=ROOT, capture_output=True, text=True, check=True)
    return [ROOT / name for name in listed.stdout.splitlines()]


def findings():
    for page in pages():
        for link in re.findall(r"\]\(([^)\s]+)\)", CODE.sub("", page.read_text(encoding="utf-8"))):
            path, _, anchor = link.partition("#")
            target = page.parent / path if path else page
            if not re.match(r"[a-z]+:", link) and (not target.exists() or (anchor and anchor not in anchors(target))):
                yield f"{page.relative_to(ROOT)}: {link} leads nowhere"


found = list(findings()) if pages() else [f"{ROOT}: no page"]
print("\n".join(found) or "links: ok", file=sys.stderr if found else sys.stdout)
sys.exit(bool(found))
