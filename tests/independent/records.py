"""A second reader and writer of all records and forms, written from docs/format.md alone: it shares no code with the
project and takes the fields of both headers from the document's tables.
"""
import pathlib
import re
import zlib

DOCUMENT = (pathlib.Path(__file__).parents[2] / "docs/format.md").read_text()
HOST = "little"  # of the machine that built the golden records
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


def numbers_at(data, at, sizes, order):
    """Fields at an offset, one after the other; bytes that are missing count as 0."""
    numbers = []
    for size in sizes:
        numbers.append(int.from_bytes(data[at:at + size].ljust(size, b"\0"), order))
        at += size
    return numbers


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


def empty_object(dotype):
    record = {name: 0 for name, *_ in HEADERS[3]}
    record.update(type=3, dotype=dotype, recsize=104, bloom=(0, b"", bytes(16)), entries=[], dcids=[], list=[], summed=HOST,
                  legacy=([], []), references=[], zeros=bytes(4 if dotype == 4 else 24))
    return record


def read_form(data, dotype, fptype):
    """Returns: the record made from an exchange form of a DO record, without its times."""
    source, record = Reader(data, "big"), empty_object(dotype)
    record.update({name: source.number(size) for name, size in FORM_HEADS[3].items()}, fptype=fptype)
    if dotype == 4:
        record["bsize"] = source.number(4)
        record["bloom"] = record["bsize"], source.bytes(record["bsize"]), bytes(16)
        _, record["nudcid"] = source.numbers(2, 4)
        record["list"] = source.pairs(record["nudcid"])
    else:
        sizes = [table.get(dotype, 0) for table in (SIZES, OFFSETS)]
        for _ in range(record["nfp"]):
            fingerprint = bytes.fromhex(source.bytes(2 * width(record) + 1)[:-1].decode())
            record["entries"].append((fingerprint, *map(source.number, sizes)))
        source.bytes(1)
        record["dcids"] = source.numbers(record["nfp"], 8)
    record["recsize"] = len(write(record, HOST))
    return record
