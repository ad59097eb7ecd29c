#!/usr/bin/python3
"""The broken records: golden records with a few bytes changed, so that each has the fault that it is named for.

    make.py                 writes them
    make.py dump COMMAND    and what annotate says of them
    make.py check COMMAND   validate says that fault first, annotate gives the dump, and the dump the bytes
"""
import json
import pathlib
import struct
import subprocess
import sys
import zlib

FOLDER = pathlib.Path(__file__).parent
DOCUMENT = FOLDER.parent.parent / "docs/findings.md"
# What the command never says, as it takes what is of no type for a segment record and allows task ids and references;
# and what only a form of 4 GiB has.
UNSAID = {"do-type", "so-taskids", "do-references", "form-too-large"}


def put(at, code, value):
    """Writes a number at an offset; one below 0 counts from the end."""
    def change(data):
        start = at % len(data)
        return data[:start] + struct.pack(code, value) + data[start + struct.calcsize(code):]
    return change


def insert(at, more):
    return lambda data: data[:at] + more + data[at:]


def cut(size):
    return lambda data: data[:size]


def summed(count_code, first, second):
    """Sums do0-md5's unique list anew, with its count in some order and its entries in some sequence."""
    def change(data):
        entries = data[first:first + 16] + data[second:second + 16]
        checksum = zlib.adler32(struct.pack(count_code, 2) + entries)
        return data[:152] + struct.pack("<I", checksum) + data[156:160] + entries + data[192:]
    return change


# Finding -> the golden record and what is changed in it. docs/format.md says what lies there.
SO, SO3, DO0, DO2, DO3, DO4 = ("so-fptype0-tasks0-fingerprints0", "so-fptype3-tasks3-fingerprints2", "do0-md5",
                               "do2-sha256", "do3-sha256", "do4-md5")
BROKEN = {
    "so-length": (f"{SO}.host", cut(95)),
    "so-type": (f"{SO}.network", put(0, ">H", 7)),
    "so-recsize": (f"{SO3}.host", put(4, "<I", 193)),
    "so-calculated": (f"{SO3}.network", put(0x34, ">I", 1)),
    "so-fptype": (f"{SO}.host", put(0x59, "B", 4)),
    "so-flags": (f"{SO}.host", put(2, "<H", 3)),
    "so-dcid": (f"{SO}.network", put(0x18, ">Q", 63)),
    "so-reserved": (f"{SO3}.host", put(0x5b, "B", 1)),
    "so-spare": (f"{SO3}.network", put(-1, "B", 1)),
    "do-length": (f"{DO3}.host", cut(103)),
    "do-recsize": (f"{DO3}.network", put(4, ">I", 104)),
    "do-flags": (f"{DO3}.host", put(2, "<H", 8)),
    "do-dotype": ("do0-empty.host", put(0x4d, "B", 6)),
    "do-fptype": (f"{DO0}.network", put(0x4c, "B", 4)),
    "do-bloom-segments": (f"{DO4}.host", put(0x38, "<I", 1)),
    "do-calculated": (f"{DO3}.host", put(0x38, "<I", 0x80000003)),
    "do-list-count": (f"{DO0}.host", put(156, "<I", 3)),
    "do-list-checksum": (f"{DO0}.network", put(160, "B", 66)),
    "segment-product": (f"{DO0}.host", put(0x20, "<Q", 86)),
    "segment-sum": (f"{DO2}.network", put(112, ">I", 81)),
    "segment-size": (f"{DO2}.host", put(112 + 36, "<I", 1 << 31)),
    "segment-offset": (f"{DO3}.host", put(116 + 44, "<Q", 1 << 63)),
    "segment-overlap": (f"{DO3}.network", put(116 + 44, ">Q", 79)),
    "segment-end": (f"{DO3}.host", put(0x18, "<Q", 176)),
    "do-reference": (f"{DO3}.host", put(-34, "B", 11)),
    "do-bloom-length": (f"{DO4}.network", put(80, ">I", 9)),
    "do-dcid": (f"{DO3}.host", put(212, "<Q", 63)),
    "do-legacy": ("do0-empty.network", put(0x40, "<I", 1), put(4, ">I", 108), insert(80, b"\7\0\0\0")),
    "do-list-order": (f"{DO0}.host", summed(">I", 160, 176)),
    "do-list-unsorted": (f"{DO0}.network", summed("<I", 176, 160)),
    "do-reference-order": ("do1-sha1.host", put(-61, "B", 18)),
    "do-non-zero": (f"{DO3}.network", put(-1, "B", 1)),
    "do-bsize": (f"{DO3}.host", put(0x48, "<I", 20)),
    "form-length": (f"{DO3}.form", cut(28)),
    "form-zero": (f"{DO3}.form", put(24, ">I", 1)),
    "form-bloom-segments": (f"{DO4}.form", put(20, ">I", 1)),
    "form-calculated": (f"{DO3}.form", put(20, ">I", 4)),
    "form-fingerprint": (f"{DO3}.form", put(28, "B", ord("G"))),
    "form-list-checksum": (f"{DO4}.form", put(40, "B", 0)),
    "form-checksum": (f"{DO4}.form", put(16, ">I", 0)),
}


def made(name):
    source, *changes = BROKEN[name]
    data = (FOLDER.parent / "golden" / source).read_bytes()
    for change in changes:
        data = change(data)
    return data


def run(*arguments):
    return subprocess.run([sys.argv[2], *arguments], cwd=FOLDER, capture_output=True).stdout


failures = []
for name in BROKEN:
    types = ["--dotype", "4", "--fptype", "0"] if DO4 in BROKEN[name][0] else ["--dotype", "3", "--fptype", "3"]
    options = ["--serialized", *types] if name.startswith("form-") else []
    options += ["--checksum"] if name == "form-checksum" else []
    if sys.argv[1:2] == ["check"]:
        data = (FOLDER / name).read_bytes()
        found = json.loads(run("validate", "--json", *options, name).splitlines()[0])["findings"]
        if data != made(name) or [finding["name"] for finding in found][:1] != [name]:
            failures.append(f"{name}: found {found}")
        if run("annotate", *options, name) != (FOLDER / f"{name}.txt").read_bytes():
            failures.append(f"{name}: annotate says something else than {name}.txt")
        if run("annotate", "--reverse", f"{name}.txt", "-o", "-") != data:
            failures.append(f"{name}.txt is another record's dump")
    else:
        (FOLDER / name).write_bytes(made(name))
        if sys.argv[1:2] == ["dump"]:
            (FOLDER / f"{name}.txt").write_bytes(run("annotate", *options, name))
named = {line.split()[2] for line in DOCUMENT.read_text().splitlines() if line[:3] == "## " and line[3:6].isdigit()}
failures += [f"no record for {name}" for name in named - UNSAID - set(BROKEN)]
sys.exit("\n".join(failures) or 0)
