#!/usr/bin/python3
"""Compares the broken records with their dumps: annotate writes the dump, and the dump gives the bytes. What validate
reports is in docs/findings.md, and checked there.

    check.py COMMAND
"""
import pathlib
import subprocess
import sys

FOLDER = pathlib.Path(__file__).parent
DOCUMENT = FOLDER.parent.parent / "docs/findings.md"
# The command reads bytes of no known type as a segment record, and allows task ids and references; a form that is too
# large has 4 GiB.
UNREPORTED = {"do-type", "so-taskids", "do-references", "form-too-large"}
BLOOM_FORMS = {"form-bloom-segments", "form-list-checksum", "form-checksum"}


def run(*arguments):
    return subprocess.run([sys.argv[1], *arguments], cwd=FOLDER, capture_output=True).stdout


failures = []
names = {path.stem for path in FOLDER.glob("*-*.txt")}
for name in sorted(names):
    types = ["--dotype", "4", "--fptype", "0"] if name in BLOOM_FORMS else ["--dotype", "3", "--fptype", "3"]
    options = ["--serialized", *types] if name.startswith("form-") else []
    if run("annotate", *options, name) != (FOLDER / f"{name}.txt").read_bytes():
        failures.append(f"{name}: annotate does not print {name}.txt")
    if run("annotate", "--reverse", f"{name}.txt", "-o", "-") != (FOLDER / name).read_bytes():
        failures.append(f"{name}.txt is another record's dump")
documented = {line.split()[2] for line in DOCUMENT.read_text().splitlines()
              if line[:3] == "## " and line[3:6].isdigit()}
failures += [f"{name} is documented or has a record, not both" for name in documented - UNREPORTED ^ names]
sys.exit("\n".join(failures) or 0)
