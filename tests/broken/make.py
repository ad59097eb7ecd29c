#!/usr/bin/python3
"""Writes the broken records: golden records with a few bytes changed, so that each has one fault, named by its finding.

    make.py [COMMAND]    with a COMMAND, what its annotate prints of them, too
"""
import pathlib
import struct
import subprocess
import sys
import zlib

FOLDER = pathlib.Path(__file__).parent
GOLDEN = FOLDER.parent / "golden"


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


def summed(count_code, swapped=False):
    """Sums do0-md5's unique list anew, with its count in some order and its two entries perhaps swapped."""
    def change(data):
        entries = data[160:192] if not swapped else data[176:192] + data[160:176]
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
    "do-list-order": (f"{DO0}.host", summed(">I")),
    "do-list-unsorted": (f"{DO0}.network", summed("<I", swapped=True)),
    "do-reference-order": ("do1-sha1.host", put(-61, "B", 18)),
    "do-non-zero": (f"{DO3}.network", put(-1, "B", 1)),
    "form-length": (f"{DO3}.form", cut(28)),
    "form-zero": (f"{DO3}.form", put(24, ">I", 1)),
    "form-bloom-segments": (f"{DO4}.form", put(20, ">I", 1)),
    "form-calculated": (f"{DO3}.form", put(20, ">I", 4)),
    "form-fingerprint": (f"{DO3}.form", put(28, "B", ord("G"))),
    "form-list-checksum": (f"{DO4}.form", put(40, "B", 0)),
    "form-checksum": (f"{DO4}.form", put(16, ">I", 0)),
}


def options(name):
    """What the command must be told of a form."""
    if not name.startswith("form-"):
        return []
    types = ["--dotype", "4", "--fptype", "0"] if "do4" in BROKEN[name][0] else ["--dotype", "3", "--fptype", "3"]
    return ["--serialized", *types, *(["--checksum"] if name == "form-checksum" else [])]


def made(name):
    source, *changes = BROKEN[name]
    data = (GOLDEN / source).read_bytes()
    for change in changes:
        data = change(data)
    return data


if __name__ == "__main__":
    for _name in BROKEN:
        (FOLDER / _name).write_bytes(made(_name))
        if len(sys.argv) > 1:
            _said = subprocess.run([sys.argv[1], "annotate", *options(_name), _name], cwd=FOLDER, capture_output=True)
            (FOLDER / f"{_name}.txt").write_bytes(_said.stdout)
