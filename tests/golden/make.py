#!/usr/bin/python3
"""Writes the golden records, from docs/format.md alone: nothing of this project's code takes part.

A field is NAME:CODE with struct's codes; "=" behind it marks what a conversion between the byte orders does not turn.
With --big-endian it makes them as such a machine writes them.
"""
import hashlib
import itertools
import json
import pathlib
import struct
import sys
import zlib

HOST, NETWORK = ">" if "--big-endian" in sys.argv else "<", ">"
SEGMENT_HEADER = ("type:H flags:H recsize:I word8:I ntaskids:I checktime:I word20:I= pathid:Q fileid:Q size:Q CRC:I "
                  "nfp:I key:33s= fptype:B= cryptomode:B= reserved:B= keyindex:H= word94:H=")
DO_HEADER = ("type:H flags:H recsize:I reserved:I= checktime:I CID:Q size:Q ssize:Q CRC:I ctime:I mtime:I ntaskid:I= "
             "nfp:I nudcid:I nds:I= trefssize:I bsize:I fptype:B= dotype:B= reserved2:2s=")
KINDS = {**{kind: f"ref{kind}" for kind in range(11)}, 2: "task", 4: "dsid"}
TIME = 0x65920080


def fingerprint(fptype, data):
    digest = (hashlib.md5, hashlib.sha1, hashlib.sha256, hashlib.sha256)[fptype](data).digest()
    return digest[:32 if fptype == 3 else 16]


def fields_of(text):
    return [field.split(":") for field in text.split()]


def packed(text, values, order):
    return b"".join(struct.pack((HOST if code.endswith("=") else order) + code[:-1 if code.endswith("=") else None],
                                values[name]) for name, code in fields_of(text))


def json_line(kind, text, values, arrays):
    members = {"schema": 1, "kind": kind, "order": "host" if HOST != NETWORK else "network"}
    for name, code in fields_of(text):
        if not code.startswith("33s"):
            members[name] = str(values[name]) if code == "Q" else list(values[name]) if "s" in code else values[name]
    return (json.dumps({**members, **arrays}, separators=(",", ":")) + "\n").encode()


def segment(fptype=0, taskids=(), count=1, spare=0, prints=None, **changes):
    """The files of a record with `count` fingerprints, or those given: ending -> bytes."""
    prints = prints or [fingerprint(fptype, b"%d" % i * 80) for i in range(count)]
    count = len(prints)
    end = b"".join(prints) + struct.pack(HOST + "Q", spare)
    values = dict(type=2, flags=0, recsize=96 + 8 * len(taskids) + len(end), word8=0, ntaskids=len(taskids),
                  checktime=TIME, word20=0, pathid=64, fileid=0, size=80, CRC=zlib.crc32(b"0" * 80), nfp=count,
                  key=bytes(range(1, 34)), fptype=fptype, cryptomode=1, reserved=0, keyindex=0x0107, word94=0)
    values.update(changes)
    texts = b"".join(p.hex().encode() + b"\0" for p in prints)
    return {
        "host": packed(SEGMENT_HEADER, values, HOST) + struct.pack(f"{HOST}{len(taskids)}Q", *taskids) + end,
        "network": packed(SEGMENT_HEADER, values, NETWORK) + struct.pack(f">{len(taskids)}Q", *taskids) + end,
        "form": packed("size:Q pathid:Q fileid:Q CRC:I nfp:I", values, NETWORK) + texts + b"\0",
        "json": json_line("segment", SEGMENT_HEADER, values,
                          {"key": values["key"].hex(), "taskids": [str(t) for t in taskids],
                           "fingerprints": [p.hex() for p in prints], "spare": str(spare)}),
    }


def do_record(dotype, fptype, pieces=(), listed=(), references=(), bitmap=b"", legacy=((), ()), summed=HOST,
              length=None, zeros=bytes(16), tail=None, hole=0, prints=None, **changes):
    """The files of a record: `pieces` are (size, container, gap in front), `listed` the list's (container, bytes)."""
    count, tail = len(pieces), tail or bytes(4 if dotype == 4 else 24)
    length = len(bitmap) if length is None else length
    prints = prints or [fingerprint(fptype, bytes([0x41 + i]) * min(piece[0], 99)) for i, piece in enumerate(pieces)]
    ends = list(itertools.accumulate(size + gap for size, _, gap in pieces))
    offsets = [end - size for end, (size, _, _) in zip(ends, pieces)]
    stored = {2: "I", 3: "IQ", 5: "II"}.get(dotype, "")
    typed = b"".join(struct.pack(">BBI" if kind == 4 else ">BBQ", kind, 4 if kind == 4 else 8, number)
                     for kind, number in references)
    values = dict(type=3, flags=2, reserved=0, checktime=TIME + 7, CID=64, size=sum(s + g for s, _, g in pieces) + hole,
                  ssize=0x20000, CRC=0x7CA94A72, ctime=TIME, mtime=TIME + 1, ntaskid=len(legacy[0]), nfp=count,
                  nudcid=len(listed), nds=len(legacy[1]), trefssize=len(typed), bsize=len(bitmap), fptype=fptype,
                  dotype=dotype, reserved2=bytes(2))
    values.update(changes)

    def numbers(i, order):
        return struct.pack(order + stored, *(pieces[i][0], offsets[i])[:len(stored)])

    def listing(order, entry_order):
        return struct.pack(order + "I", len(listed)) + b"".join(struct.pack(entry_order + "QQ", *e) for e in listed)

    def sections(order):
        head = b"".join(prints[i] + numbers(i, order) for i in range(count))
        head += struct.pack(f"{HOST}{count}Q", *(dcid for _, dcid, _ in pieces))
        if dotype == 4:
            head = struct.pack(order + "I", length) + bitmap + zeros
        if listed:
            head += struct.pack(HOST + "I", checksum) + listing(order, HOST)
        return head + struct.pack(f"{HOST}{len(legacy[0])}Q{len(legacy[1])}I", *legacy[0], *legacy[1]) + typed + tail

    def form():
        if dotype != 4:
            body = b"".join(prints[i].hex().encode() + b"\0" + numbers(i, NETWORK) for i in range(count)) + b"\0"
            return values["CRC"], body + struct.pack(f">{count}Q", *(dcid for _, dcid, _ in pieces))
        sent = listing(NETWORK, NETWORK)
        sent = struct.pack(">I", zlib.adler32(sent[:4 + 8 * len(listed)])) + sent + bytes(16) if listed else bytes(24)
        body = struct.pack(">I", len(bitmap)) + bitmap + sent
        return zlib.adler32(body), body

    checksum = zlib.adler32(listing(summed, HOST))
    values["recsize"] = 80 + len(sections(HOST))
    arrays = {"bitmap": bitmap.hex()} if dotype == 4 else {}
    arrays["containers"] = [{"dcid": str(dcid), "bytes": str(size)} for dcid, size in listed]
    arrays["references"] = [f"{KINDS[kind]}:{number}" for kind, number in references]
    arrays["legacy_references"] = [f"task:{t}" for t in legacy[0]] + [f"dsid:{d}" for d in legacy[1]]
    arrays["segments"] = [{"index": i, "fingerprint": prints[i].hex(), "size": size,
                           **({"offset": str(offsets[i])} if dotype in (3, 5) else {}), "dcid": str(dcid)}
                          for i, (size, dcid, _) in enumerate(pieces)]
    odd = {"list_checksum": (checksum, summed != HOST), "bloom_length": (length, length != len(bitmap)),
           "bloom_zeros": (zeros.hex(), any(zeros)), "tail": (tail.hex(), any(tail))}
    arrays.update({name: value for name, (value, is_odd) in odd.items() if is_odd})
    crc, body = form()
    return {
        "host": packed(DO_HEADER, values, HOST) + sections(HOST),
        "network": packed(DO_HEADER, values, NETWORK) + sections(NETWORK),
        "form": packed("size:Q ssize:Q CRC:I nfp:I", {**values, "CRC": crc}, NETWORK) + bytes(4) + body,
        "json": json_line("do", DO_HEADER, values, arrays),
    }


TASK, DSID, REF6 = (2, 17), (4, 0xFFFFFFFE), (6, 0xFEDCBA9876543210)
EVEN = [(100, 64, 0), (100, 65, 0), (60, 64, 0)]   # of DO types 0 and 1, with an ssize of 100
THREE, LIST = [(80, 64, 0), (90, 70, 0), (7, 64, 0)], [(64, 87), (70, 90)]
GAPS = [(80, 64, 16), (90, 66, 0), (1, 65, 4096)]
FAR = [(0x7FFFFFFF, 1 << 63, 0x0102030405060708), (3, (1 << 53) + 1, 5)]

# Name -> its files. What a noted record is noted for comes behind "noted-", up to a dot.
OBJECTS = {
    "do0-empty": do_record(0, 0),
    "do0-md5": do_record(0, 0, EVEN, [(64, 160), (65, 100)], [TASK], ssize=100),
    "do0-sha256": do_record(0, 3, EVEN[:1], ssize=100, flags=0),
    "do1-sha1": do_record(1, 1, EVEN, references=[(2, 1), TASK, DSID, REF6, (10, 1)], ssize=100),
    "do1-sha256": do_record(1, 3, EVEN, [(64, 160), (65, 100)], [DSID], ssize=100),
    "do2-sha256-128": do_record(2, 2, THREE, LIST, [TASK, DSID], flags=4),
    "do2-all-kinds": do_record(2, 1, THREE, LIST, [(kind, 1000 - kind) for kind in range(11)]),
    "do2-sha256": do_record(2, 3, THREE, references=[REF6], flags=6),
    "do3-md5-gaps": do_record(3, 0, GAPS, [(64, 80), (65, 1), (66, 90)], [TASK, REF6], hole=1000),
    "do3-sha1-far": do_record(3, 1, FAR, [((1 << 53) + 1, 3), (1 << 63, 0x7FFFFFFF)],
                              CID=(1 << 63) + 1, CRC=0xFFFFFFFF),
    "do3-sha256": do_record(3, 3, THREE, references=[TASK]),
    "do4-empty": do_record(4, 0, size=0),
    "do4-md5": do_record(4, 0, listed=LIST, bitmap=bytes(range(1, 9)), references=[TASK], size=177),
    "do4-sha1-list": do_record(4, 1, listed=[(64, 177)], size=177),
    "do4-sha256": do_record(4, 3, bitmap=b"\xff\x00\x80", references=[DSID, REF6], size=177),
    "do5-sha256-128": do_record(5, 2, THREE, LIST, [TASK, DSID, REF6]),
    "do5-sha256": do_record(5, 3, THREE[:2]),
    "noted-do-bloom-length": do_record(4, 0, bitmap=b"bloom", length=0x05000000, size=177),
    "noted-do-dcid": do_record(2, 0, [(80, 5, 0), (7, 64, 0)]),
    "noted-do-legacy": do_record(3, 0, THREE, LIST, legacy=((1, 1 << 40), (5, 6, 7))),
    "noted-do-list-order": do_record(2, 0, THREE, LIST, summed=NETWORK),
    "noted-do-list-unsorted": do_record(2, 3, THREE, [(70, 90), (64, 87)], [TASK]),
    "noted-do-reference-order": do_record(5, 0, THREE, references=[REF6, TASK, TASK, DSID]),
    "noted-do-non-zero": do_record(3, 0, THREE[:1], reserved=0x01020304, reserved2=b"\5\6", tail=bytes(range(7, 31))),
    "noted-do-non-zero.bloom": do_record(4, 2, listed=[(64, 9)], bitmap=b"!", zeros=bytes(15) + b"z", tail=b"\0tt\0",
                                         size=9),
    "noted-do-bsize": do_record(5, 0, THREE, LIST, bsize=0xFFFFFFFF),
    "noted-so-flags": segment(flags=1),
    "noted-so-dcid": segment(pathid=5),
    "noted-so-reserved": segment(reserved=0xEE),
    "noted-so-spare": segment(3, [17], spare=0x0102030405060708),
    "so-path": segment(1, [17], pathid=1 << 63, fileid=0xFEDCBA9876543210, flags=2, size=1 << 40,
                       word8=0x01020304, word20=0x05060708, word94=0x090A, cryptomode=255),
}
for _fptype in range(4):
    for _count in range(3):
        _tasks = [[], [17], [1, 17, (1 << 64) - 1]][(_fptype + _count) % 3]
        OBJECTS[f"so-fptype{_fptype}-tasks{len(_tasks)}-fingerprints{_count}"] = segment(_fptype, _tasks, _count)
FILES = {f"{name}.{ending}": data for name, files in OBJECTS.items() for ending, data in files.items()}

if __name__ == "__main__":
    for _name, _data in FILES.items():
        (pathlib.Path(__file__).parent / _name).write_bytes(_data)
