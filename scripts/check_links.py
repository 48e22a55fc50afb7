#!/usr/bin/env python3
"""Every relative link of the *.md files leads to a file, and its anchor to a heading. One line per finding, exit code 1."""
import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
CODE = re.compile(r"```.*?```|`[^`\n]*`", re.S)


def anchors(page):
    headings = re.findall(r"^#+ (.*)", page.read_text(encoding="utf-8"), re.M)
    return {re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-") for heading in headings}


def findings():
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "*.md"], cwd=ROOT, capture_output=True, text=True, check=True)
    for page in (ROOT / name for name in listed.stdout.splitlines()):
        for link in re.findall(r"\]\(([^)\s]+)\)", CODE.sub("", page.read_text(encoding="utf-8"))):
            path, _, anchor = link.partition("#")
            target = page.parent / path if path else page
            if not re.match(r"[a-z]+:", link) and (not target.exists() or (anchor and anchor not in anchors(target))):
                yield f"{page.relative_to(ROOT)}: {link} leads nowhere"


found = list(findings())
print("\n".join(found) or "links: ok", file=sys.stderr if found else sys.stdout)
sys.exit(bool(found))
