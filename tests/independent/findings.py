"""The findings of records and exchange forms, written from docs/findings.md and docs/format.md alone.

A finding is (code, field, offset, found, expected).
"""
import zlib

from records import FORM_HEADS, HEADERS, HOST, OFFSETS, SIZES, Reader, listed, numbers_at, width

FINGERPRINT_TYPES, DO_TYPES = 4, 6
LARGEST_SIZE, LARGEST_OFFSET, FIRST_DCID = 2 ** 31 - 1, 2 ** 63 - 1, 64


def calculated(header):
    """The size of a record by its counts."""
    if header["type"] == 2:
        return 104 + 8 * header["ntaskids"] + width(header) * header["nfp"]
    return sections(header)["end"]


def sections(header):
    """The offsets of a DO record's sections."""
    dotype, at = header["dotype"], {"entries": 80}
    entry = width(header) + SIZES.get(dotype, 0) + OFFSETS.get(dotype, 0)
    at["dcids"] = 80 + entry * header["nfp"]
    at["list"] = 100 + header["bsize"] if dotype == 4 else at["dcids"] + 8 * header["nfp"]
    at["legacy"] = at["list"] + (8 + 16 * header["nudcid"] if header["nudcid"] else 0)
    at["references"] = at["legacy"] + 8 * header["ntaskid"] + 4 * header["nds"]
    at["zeros"] = at["references"] + header["trefssize"]
    at["end"] = at["zeros"] + (4 if dotype == 4 else 24)
    return at


def header_of(data, kind, order):
    return {name: int.from_bytes(data[at:at + size], order if swapped else HOST)
            for name, at, size, swapped in HEADERS[kind]}


def first_non_zero(data, start, end):
    return next(((at, data[at]) for at in range(start, end) if data[at]), None)


def of_segment_record(data, order):
    size = len(data)
    if size < 96:
        return [(101, "length", size, size, 96)]
    header = header_of(data, 2, order)
    if header["type"] != 2:
        return [(102, "type", 0, header["type"], 2)]
    seen = []
    if header["recsize"] != size:
        seen.append((103, "recsize", 4, header["recsize"], size))
    if calculated(header) != size:
        seen.append((104, "nfp", 52, calculated(header), size))
    if header["fptype"] >= FINGERPRINT_TYPES:
        seen.append((106, "fptype", 89, header["fptype"], FINGERPRINT_TYPES - 1))
    if seen:
        return seen
    spare = int.from_bytes(data[-8:], order)
    if header["flags"] not in (0, 2):
        seen.append((151, "flags", 2, header["flags"], 0))
    if header["fileid"] == 0 and header["pathid"] != 1 and header["pathid"] < FIRST_DCID:
        seen.append((152, "pathid", 24, header["pathid"], FIRST_DCID))
    if header["reserved"]:
        seen.append((153, "reserved", 91, header["reserved"], 0))
    if spare:
        seen.append((154, "spare", size - 8, spare, 0))
    return seen


def of_object(data, order):
    size = len(data)
    if size < 104:
        return [(201, "length", size, size, 104)]
    header = header_of(data, 3, order)
    flags, dotype, fptype, seen = header["flags"], header["dotype"], header["fptype"], []
    if header["recsize"] != size:
        seen.append((203, "recsize", 4, header["recsize"], size))
    if flags & ~6:
        seen.append((204, "flags", 2, flags, flags & 6))
    if dotype >= DO_TYPES:
        seen.append((205, "dotype", 77, dotype, DO_TYPES - 1))
    if fptype >= FINGERPRINT_TYPES:
        seen.append((206, "fptype", 76, fptype, FINGERPRINT_TYPES - 1))
    if dotype == 4 and header["nfp"]:
        seen.append((207, "nfp", 56, header["nfp"], 0))
    if calculated(header) != size:
        return seen + [(208, "nfp", 56, calculated(header), size)]
    at = sections(header)
    seen += of_list(data, order, header, at["list"])
    if dotype < DO_TYPES and dotype != 4:
        seen += of_segments(data, order, header, 80, width(header), 24)
    seen += of_references(data, at["references"], at["zeros"])[0]
    return seen or notes_of_object(data, order, header, at)


def stored_list(data, order, at):
    stored, count = numbers_at(data, at, [4], HOST)[0], numbers_at(data, at + 4, [4], order)[0]
    pairs = Reader(data[at + 8:], HOST).pairs(count) if 16 * count <= len(data) - at - 8 else []
    return stored, count, pairs


def of_list(data, order, header, at):
    if not header["nudcid"]:
        return []
    stored, count, pairs = stored_list(data, order, at)
    if count != header["nudcid"]:
        return [(209, "unique.count", at + 4, count, header["nudcid"])]
    if stored not in (zlib.adler32(listed(pairs, HOST)), zlib.adler32(listed(pairs, "big"))):
        return [(210, "unique.checksum", at, stored, zlib.adler32(listed(pairs, HOST)))]
    return []


def of_segments(data, order, header, at, text, size_at):
    """The first fault of the segments. `text` is the width of a fingerprint, `size_at` the offset of the object's size."""
    dotype, size, end = header["dotype"], header["size"], 0
    if dotype in (0, 1):
        product = header["ssize"] * header["nfp"] % 2 ** 64
        return [(211, "size", size_at, size, product)] if product < size else []
    own_width, offset_width = SIZES[dotype], OFFSETS.get(dotype, 0)
    places = [at + text + i * (text + own_width + offset_width) for i in range(header["nfp"])]
    segments = [(i, at, *numbers_at(data, at, (own_width, offset_width), order)) for i, at in enumerate(places)]
    for i, at, own, _ in segments:
        if own > LARGEST_SIZE:
            return [(213, f"segments[{i}].size", at, own, LARGEST_SIZE)]
    for i, at, _, offset in segments if dotype == 3 else []:
        if offset > LARGEST_OFFSET:
            return [(214, f"segments[{i}].offset", at + own_width, offset, LARGEST_OFFSET)]
    for i, at, own, offset in segments:
        if dotype == 3:
            if offset < end:
                return [(215, f"segments[{i}].offset", at + own_width, offset, end)]
            end = offset
        end += own
    if dotype == 3:
        return [(216, "size", size_at, size, end)] if end > size else []
    return [(212, "size", size_at, size, end)] if end != size else []


def of_references(data, at, end):
    """Returns: the finding, and the references before it with their offsets."""
    references = []
    while at < end:
        kind, size = data[at], 4 if data[at] == 4 else 8
        if kind > 10 or at + 2 + size > end or data[at + 1] != size:
            return [(218, "references", at, kind, 0)], references
        references.append((at, kind, int.from_bytes(data[at + 2:at + 2 + size], "big")))
        at += 2 + size
    return [], references


def notes_of_object(data, order, header, at):
    dotype, seen = header["dotype"], []
    if dotype == 4:
        length, = numbers_at(data, 80, [4], order)
        if length != header["bsize"]:
            seen.append((251, "bloom.length", 80, length, header["bsize"]))
    else:
        dcids = numbers_at(data, at["dcids"], [8] * header["nfp"], HOST)
        seen += [(252, f"segments[{i}].dcid", at["dcids"] + 8 * i, dcid, FIRST_DCID)
                 for i, dcid in enumerate(dcids) if dcid < FIRST_DCID][:1]
    if header["ntaskid"] or header["nds"]:
        place = ("ntaskid", 52) if header["ntaskid"] else ("nds", 64)
        seen.append((253, *place, at["references"] - at["legacy"], 0))
    if header["nudcid"]:
        stored, _, pairs = stored_list(data, order, at["list"])
        host = zlib.adler32(listed(pairs, HOST))
        if stored != host:
            seen.append((254, "unique.checksum", at["list"], stored, host))
        seen += [(255, f"unique.entries[{i}].dcid", at["list"] + 8 + 16 * i, pairs[i][0], pairs[i - 1][0] + 1)
                 for i in range(1, len(pairs)) if pairs[i][0] <= pairs[i - 1][0]][:1]
    references = of_references(data, at["references"], at["zeros"])[1]
    seen += [(256, "references", after[0], after[2], before[2])
             for before, after in zip(references, references[1:]) if after[1:] <= before[1:]][:1]
    areas = [("reserved", 8, 12), ("reserved2", 78, 80), ("tail", at["zeros"], at["end"])]
    if dotype == 4:
        areas.insert(2, ("bloom.end", 84 + header["bsize"], 100 + header["bsize"]))
    for area, start, end in areas:
        found = first_non_zero(data, start, end)
        if found:
            seen.append((257, area, *found, 0))
    if dotype != 4 and header["bsize"]:
        seen.append((258, "bsize", 72, header["bsize"], 0))
    return seen


def of_form(data, dotype, fptype, is_summed):
    size = len(data)
    if size < 29:
        return [(301, "length", size, size, 29)]
    header = dict(zip(FORM_HEADS[3], numbers_at(data, 0, FORM_HEADS[3].values(), "big")), dotype=dotype, fptype=fptype)
    seen = [(302, "zero", 24, header["zero"], 0)] if header["zero"] else []
    seen += of_bloom_form(data, header) if dotype == 4 else of_segment_form(data, header)
    if seen and seen[-1][0] == 304:
        return seen
    if (is_summed or dotype == 4) and zlib.adler32(data[28:]) != header["CRC"]:
        seen.append((308, "checksum", 16, header["CRC"], zlib.adler32(data[28:])))
    return seen


def of_segment_form(data, header):
    text, count = 2 * width(header) + 1, header["nfp"]
    entry = text + SIZES.get(header["dotype"], 0) + OFFSETS.get(header["dotype"], 0)
    if 29 + count * (entry + 8) != len(data):
        return [(304, "nfp", 20, 29 + count * (entry + 8), len(data))]
    texts = [(i, 28 + entry * i) for i in range(count)]
    seen = [(306, f"segments[{i}].fingerprint", at, data[at], 0) for i, at in texts
            if data[at + text - 1] or not set(data[at:at + text - 1]) <= set(b"0123456789abcdef")]
    separator = 28 + entry * count
    if data[separator]:
        seen.append((302, "separator", separator, data[separator], 0))
    return seen + of_segments(data, "big", header, 28, text, 0)


def of_bloom_form(data, header):
    seen = [(303, "nfp", 20, header["nfp"], 0)] if header["nfp"] else []
    bsize, = numbers_at(data, 28, [4], "big") if len(data) >= 56 else [0]
    count = numbers_at(data, 32 + bsize + 4, [4], "big")[0] if len(data) >= 72 + bsize else 0
    if 56 + bsize + 16 * count != len(data):
        return seen + [(304, "bsize", 28, 56 + bsize + 16 * count, len(data))]
    at = 32 + bsize
    if count:
        stored, computed = numbers_at(data, at, [4], "big")[0], zlib.adler32(data[at + 4:at + 8 + 8 * count])
        if stored != computed:
            seen.append((307, "unique.checksum", at, stored, computed))
        at += 8 + 16 * count
    if any(data[at:]):
        seen.append((302, "end", at, 1, 0))
    return seen
