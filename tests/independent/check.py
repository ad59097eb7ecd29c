#!/usr/bin/python3
"""A second reader and writer of all records and forms, written from docs/format.md alone: it shares no code with the
project and takes the fields of both headers from the document's tables. It reads every golden record, writes each of
its forms again, compares digests with those that the command prints, and checks the document's two examples.

    check.py DOCUMENT GOLDEN COMMAND
"""
import hashlib
import json
import pathlib
import re
import subprocess
import sys
import zlib

DOCUMENT, GOLDEN, COMMAND = pathlib.Path(sys.argv[1]).read_text(), pathlib.Path(sys.argv[2]), sys.argv[3]
HOST = "little"  # of the machine that built the golden records
HASHES = (hashlib.md5, hashlib.sha1, hashlib.sha256, hashlib.sha256)
SIZES, OFFSETS = {2: 4, 3: 4, 5: 4}, {3: 8, 5: 4}  # bytes in an entry, by DO type


def fields(heading):
    section = DOCUMENT.split(f"\n## {heading}\n")[1].split("\n## ")[0]
    rows = re.findall(r"^\| 0x(\w\w) \| (\d+) \| (\w+) \| (\w+) \|", section, re.MULTILINE)
    return [(name, int(at, 16), int(size), treatment == "swapped") for at, size, name, treatment in rows]


HEADERS = {2: fields("The segment record"), 3: fields("The DO record")}
FORM_HEADS = {2: dict(size=8, pathid=8, fileid=8, CRC=4, nfp=4), 3: dict(size=8, ssize=8, CRC=4, nfp=4, zero=4)}


class Reader:
    def __init__(self, data, order):
        self.data, self.at, self.order = data, 0, order

    def bytes(self, size):
        self.at += size
        assert self.at <= len(self.data)
        return self.data[self.at - size:self.at]

    def number(self, size, order=None):
        return int.from_bytes(self.bytes(size), order or self.order)

    def numbers(self, count, size, order=None):
        return [self.number(size, order) for _ in range(count)]

    def pairs(self, count, order=None):
        return [tuple(self.numbers(2, 8, order)) for _ in range(count)]

    def entries(self, record):
        sizes = [table.get(record["dotype"], 0) for table in (SIZES, OFFSETS)]
        return [(self.bytes(width(record)), *map(self.number, sizes)) for _ in range(record["nfp"])]


def width(record):
    return 32 if record["fptype"] == 3 else 16


def joined(numbers, size, order):
    return b"".join(number.to_bytes(size, order) for number in numbers)


def text(fingerprint):
    return fingerprint.hex().encode() + b"\0"


def listed(pairs, count_order, order=HOST):
    return len(pairs).to_bytes(4, count_order) + b"".join(joined(pair, 8, order) for pair in pairs)


def read(data):
    kind = 2 if 2 in data[:2] else 3
    order = "big" if int.from_bytes(data[:2], "big") == kind else HOST
    source, record = Reader(data, order), {}
    for name, at, size, swapped in HEADERS[kind]:
        assert source.at == at, name
        record[name] = source.bytes(size) if size == 33 else source.number(size, order if swapped else HOST)
    (read_segment if kind == 2 else read_object)(source, record)
    assert source.at == len(data) == record["recsize"]
    return record


def read_segment(source, record):
    record["taskids"] = source.numbers(record["ntaskids"], 8)
    record["fingerprints"] = [source.bytes(width(record)) for _ in range(record["nfp"])]
    record["spare"] = source.bytes(8)


def read_object(source, record):
    if record["dotype"] == 4:
        record["bloom"] = source.number(4), source.bytes(record["bsize"]), source.bytes(16)
    record["entries"] = source.entries(record)
    record["dcids"] = source.numbers(record["nfp"], 8, HOST)
    record["list"], record["summed"] = [], HOST
    if record["nudcid"]:
        checksum, count = source.number(4, HOST), source.number(4)
        record["list"] = source.pairs(count, HOST)
        record["summed"] = next(o for o in (HOST, "big") if zlib.adler32(listed(record["list"], o)) == checksum)
    record["legacy"] = source.numbers(record["ntaskid"], 8, HOST), source.numbers(record["nds"], 4, HOST)
    record["references"], end = [], source.at + record["trefssize"]
    while source.at < end:
        kind, size = source.bytes(2)
        assert kind <= 10 and size == (4 if kind == 4 else 8)
        record["references"].append((kind, source.number(size, "big")))
    record["zeros"] = source.bytes(4 if record["dotype"] == 4 else 24)


def write(record, order):
    header = b"".join(record[name] if size == 33 else record[name].to_bytes(size, order if swapped else HOST)
                      for name, _, size, swapped in HEADERS[record["type"]])
    if record["type"] == 2:
        return header + joined(record["taskids"], 8, order) + b"".join(record["fingerprints"]) + record["spare"]
    typed = b"".join(bytes([kind, 4 if kind == 4 else 8]) + number.to_bytes(4 if kind == 4 else 8, "big")
                     for kind, number in record["references"])
    legacy = joined(record["legacy"][0], 8, HOST) + joined(record["legacy"][1], 4, HOST)
    return header + write_content(record, order) + legacy + typed + record["zeros"]


def write_content(record, order):
    """From the header to the end of the unique DCID list."""
    bloom = record["bloom"][0].to_bytes(4, order) + b"".join(record["bloom"][1:]) if record["dotype"] == 4 else b""
    checksum = zlib.adler32(listed(record["list"], record["summed"])).to_bytes(4, HOST)
    return (bloom + write_entries(record, bytes, order) + joined(record["dcids"], 8, HOST) +
            (checksum + listed(record["list"], order) if record["list"] else b""))


def write_entries(record, fingerprint, order):
    sizes = [table.get(record["dotype"], 0) for table in (SIZES, OFFSETS)]
    return b"".join(fingerprint(entry[0]) + b"".join(n.to_bytes(size, order) for n, size in zip(entry[1:], sizes))
                    for entry in record["entries"])


def write_form(record):
    if record["type"] == 2:
        body, crc = b"".join(map(text, record["fingerprints"])) + b"\0", record["CRC"]
    elif record["dotype"] == 4:
        sent = listed(record["list"], "big", "big")
        checksum = zlib.adler32(sent[:4 + 8 * len(record["list"])]).to_bytes(4, "big")
        body = record["bsize"].to_bytes(4, "big") + record["bloom"][1]
        body += checksum + sent + bytes(16) if record["list"] else bytes(24)
        crc = zlib.adler32(body)
    else:
        body, crc = write_entries(record, text, "big") + b"\0" + joined(record["dcids"], 8, "big"), record["CRC"]
    values = {**record, "CRC": crc, "zero": 0}
    return b"".join(values[name].to_bytes(size, "big") for name, size in FORM_HEADS[record["type"]].items()) + body


def block(title):
    return DOCUMENT.split(f"\n```{title}\n")[1].split("```")[0]


def example(title):
    """The bytes of a block: lines of an offset and bytes; a semicolon starts a remark."""
    data = b""
    for row in block(f"hex {title}").splitlines():
        at, *words = row.split(";")[0].split()
        assert int(at, 16) == len(data), row
        data += bytes.fromhex("".join(words))
    return data


def digest(record):
    if record["type"] == 2 or (record["dotype"] == 0 and record["nfp"] != 1):
        return None
    if record["dotype"] != 4 and record["nfp"] == 1:
        return record["entries"][0][0].hex()
    hashed = write_content(record, HOST) if record["dotype"] == 4 else write_entries(record, text, "big")
    return HASHES[record["fptype"]](hashed + b"\x44\x4f\0").digest()[:width(record)].hex()


failures = []


def same(seen, expected, what):
    if seen != expected:
        failures.append(f"{what}:\n    seen     {seen!r}\n    expected {expected!r}")


def run(*arguments, given=None):
    return subprocess.run([COMMAND, *arguments], input=given, capture_output=True, check=True).stdout


for kind, form in (("segment", "serialized"), ("object", "exchange")):
    host, network = example(f"{kind} host"), example(f"{kind} network")
    record = read(host)
    same([write(record, HOST), write(record, "big"), write_form(record)], [host, network, example(f"{kind} {form}")],
         f"{kind} of the document")
    for order, data in (("host", host), ("network", network)):
        same(json.loads(run("validate", "--json", "-", given=data).splitlines()[0])["findings"], [], f"findings of {kind}")
        same(run("show", "--text", "-", given=data).decode(), block(f"text {kind}"), f"text of {kind}, {order}")
        same(run("convert", "-", "--to", order, "-o", "-", given=host), data, f"{kind} to {order}")
    same(run("convert", "-", "--to", "serialized", "-o", "-", given=host), example(f"{kind} {form}"), f"{kind} to {form}")
hosts = sorted(GOLDEN.glob("*.host"))
printed = run("digest", "--json", *hosts).splitlines()
assert len(hosts) == len(printed) > 40
for path, shown in zip(hosts, map(json.loads, printed)):
    name, files = path.stem, {e: path.with_suffix("." + e).read_bytes() for e in ("host", "network", "form", "json")}
    record, members = read(files["host"]), json.loads(files["json"])
    same(read(files["network"]), record, f"{name}.network, read")
    numbers = {n: v for n, v in record.items() if isinstance(v, int) and n != "reserved2"}
    same({n: int(members[n]) for n in numbers}, numbers, f"{name}.json")
    for ending, written in (("host", write(record, HOST)), ("network", write(record, "big")), ("form", write_form(record))):
        same(written, files[ending], f"{name}.{ending}, written")
    same(shown["digest"], digest(record), f"{name}: digest")
sys.exit("\n".join(failures) or 0)
