#!/usr/bin/env python3
"""Compares the folders that docs/architecture.md lists, and what each includes, with the #include lines of the source.

usage: check.py [SOURCE]
"""

import collections
import pathlib
import re
import sys

# Each root with those whose files it includes, in this order.
ROOTS = {"src": ("src",), "tools": ("tools", "src"), "python": ("python", "tools", "src")}


def documented(text):
    """Folders in the document's order, each with the folders that it includes from."""
    block = re.search(r"<!-- folders -->\n(.*?)<!-- end -->", text, re.DOTALL).group(1)
    rows = (line.split() for line in block.splitlines() if line.strip())
    return {folder: set(uses) for folder, *uses in rows}


def included(source):
    uses = collections.defaultdict(set)
    for root, places in ROOTS.items():
        for file in sorted((source / root).rglob("*")):
            if file.suffix not in (".h", ".cpp"):
                continue
            folder = file.parent.relative_to(source).as_posix()
            uses[folder]
            for name in re.findall(r'^#include "(.+)"', file.read_text(), re.MULTILINE):
                found = [place for place in places if (source / place / name).is_file()]
                if not found:
                    sys.exit(f"{file}: includes {name}, which is in none of {', '.join(places)}")
                uses[folder].add((pathlib.PurePath(found[0]) / name).parent.as_posix())
    return {folder: names - {folder} for folder, names in uses.items()}


source = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".")
listed = documented((source / "docs/architecture.md").read_text())
found = included(source)
faults = [f"docs/architecture.md does not list {folder}" for folder in found.keys() - listed.keys()]
faults += [f"{folder} is listed and does not exist" for folder in listed.keys() - found.keys()]
above = list(listed)
for position, (folder, uses) in enumerate(listed.items()):
    faults += [f"{folder} includes {use}, listed after it" for use in sorted(uses & set(above[position:]))]
    faults += [f"{folder} includes {use}, not listed" for use in sorted(found.get(folder, set()) - uses)]
    faults += [f"{folder} includes nothing from {use}" for use in sorted(uses - found.get(folder, uses))]
sys.exit("\n".join(faults) or 0)
