#!/usr/bin/env python3
"""Compares the processor time of two builds of the command: the minimum over runs that alternate.

usage: hardening_cost.py COMMAND OTHER_COMMAND
"""

import os
import subprocess
import sys
import tempfile

COMMANDS = (
    ("--version", 101),
    ("build large --out record", 15),
    ("build small --segment-size 64 --out record", 31),
    ("validate segments", 61),
    ("convert segments --to serialized --out form", 31),
    ("convert segments --to json --out json", 31),
    ("annotate segments", 41),
)


def seconds(command, arguments):
    with open(os.devnull, "w") as null:
        child = subprocess.Popen([command, *arguments.split()], stdout=null)
        _, status, usage = os.wait4(child.pid, 0)
    if status != 0:
        sys.exit(f"{command} {arguments}: status {status}")
    return usage.ru_utime + usage.ru_stime


builds = [os.path.realpath(path) for path in sys.argv[1:3]]
with tempfile.TemporaryDirectory() as folder:
    os.chdir(folder)
    for name, mebibytes in (("large", 256), ("small", 32)):
        with open(name, "wb") as file:
            file.write(os.urandom(mebibytes << 20))
    seconds(builds[0], "build small --segment-size 64 --out segments")
    for arguments, rounds in COMMANDS:
        times = [[], []]
        for turn in range(2 * rounds):
            times[turn % 2].append(seconds(builds[turn % 2], arguments))
        first, second = (1000 * min(each) for each in times)
        print(f"{arguments:46} {first:7.1f} {second:7.1f} ms  ratio {first / second:.2f}", flush=True)
