#!/usr/bin/python3
"""check.py COMMAND: each broken record has the finding that it is named for, in front of all others, and its dump gives
its bytes back."""
import json
import pathlib
import subprocess
import sys

sys.dont_write_bytecode = True
import make

COMMAND = sys.argv[1]
# What the command never says: it takes what is of no type for a segment record, allows references, and no form in the
# tree is larger than 4 GiB.
UNSAID = {"do-type", "so-taskids", "do-references", "form-too-large"}
failures = []


def run(*arguments):
    return subprocess.run([COMMAND, *arguments], cwd=make.FOLDER, capture_output=True).stdout


for name in make.BROKEN:
    data = (make.FOLDER / name).read_bytes()
    found = json.loads(run("validate", "--json", *make.options(name), name).splitlines()[0])["findings"]
    if data != make.made(name) or [finding["name"] for finding in found][:1] != [name]:
        failures.append(f"{name}: found {found}")
    if run("annotate", "--reverse", f"{name}.txt", "-o", "-") != data or name not in (make.FOLDER / f"{name}.txt").read_text():
        failures.append(f"{name}.txt is another record's dump")
table = (make.FOLDER.parent.parent / "docs/findings.md").read_text().split("`")
if missing := {name for name in table if name.startswith(("so-", "do-", "form-", "segment-"))} - UNSAID - set(make.BROKEN):
    failures.append(f"no record for {missing}")
sys.exit("\n".join(failures) or 0)
