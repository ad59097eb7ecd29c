#!/usr/bin/python3
"""Compares the command with the independent reader, for the kept inputs of the fuzz targets, the golden and the broken
records, and for small changes of golden records: the findings, all fields of valid records, and the bytes written again.

    oracle.py COMMAND
"""
import collections
import json
import os
import pathlib
import random
import re
import subprocess
import sys
import tempfile
import zlib

import findings
import stream
from records import HEADERS, HOST, empty_object, listed, read, read_form, write, write_form

ROOT, COMMAND = pathlib.Path(__file__).parents[2], sys.argv[1]
NAMES = {int(code): name for code, name in re.findall(r"^\| (\d+) \| \[`([\w-]+)`\]", (ROOT / "docs/findings.md").read_text(),
                                                      re.MULTILINE)}
TYPES = [(dotype, fptype) for dotype in range(6) for fptype in range(4)]
KINDS = {None: "unknown", 2: "segment", 3: "do"}
CHANGES = int(os.environ.get("CRRECORD_CHANGES", 10))  # of each golden record
chance = random.Random(CHANGES)
failures = []


def run(verb, *arguments):
    """Returns: the lines about records."""
    lines = subprocess.run([COMMAND, verb, "--json", *arguments], capture_output=True).stdout.splitlines()
    return [line for line in map(json.loads, lines) if "record" in line]


def same(seen, expected, what):
    if seen != expected:
        failures.append(f"{what}:\n    seen     {seen!r}\n    expected {expected!r}")


def findings_of(kind, order, data):
    return findings.of_object(data, order) if kind == 3 else findings.of_segment_record(data, order)


def as_seen(line):
    return line["kind"], line["valid"], [(f["code"], f["name"], f["field"], int(f["offset"]), int(f["found"]), int(f["expected"]))
                                         for f in line["findings"]]


def as_expected(kind, seen):
    return kind, not any(is_error(f[0]) for f in seen), [(f[0], NAMES[f[0]], *f[1:]) for f in seen]


def is_error(code):
    return code % 100 < 50


def reference(kind, number):
    return {2: "task", 4: "dsid"}.get(kind, f"ref{kind}") + f":{number}"


def members(record, order):
    """The members of the JSON form (docs/json.md) after the position of the record."""
    seen = {name: str(record[name]) if size == 8 else record[name] for name, _, size, _ in HEADERS[record["type"]]}
    if record["type"] == 2:
        return {**seen, "key": record["key"].hex(), "taskids": [*map(str, record["taskids"])],
                "fingerprints": [each.hex() for each in record["fingerprints"]],
                "spare": str(int.from_bytes(record["spare"], order))}
    seen["reserved2"] = [*record["reserved2"].to_bytes(2, HOST)]
    seen["containers"] = [{"dcid": str(dcid), "bytes": str(size)} for dcid, size in record["list"]]
    seen["references"] = [reference(*each) for each in record["references"]]
    tasks, dsids = record["legacy"]
    seen["legacy_references"] = [reference(2, each) for each in tasks] + [reference(4, each) for each in dsids]
    seen["segments"] = [*map(segment, [record] * record["nfp"], range(record["nfp"]))]
    if record["summed"] != HOST:
        seen["list_checksum"] = zlib.adler32(listed(record["list"], record["summed"]))
    if record["dotype"] == 4:
        seen["bitmap"] = record["bloom"][1].hex()
        seen.update({"bloom_length": record["bloom"][0]} if record["bloom"][0] != record["bsize"] else {})
        seen.update({"bloom_zeros": record["bloom"][2].hex()} if any(record["bloom"][2]) else {})
    return {**seen, **({"tail": record["zeros"].hex()} if any(record["zeros"]) else {})}


def segment(record, i):
    fingerprint, *own = record["entries"][i]
    is_last = i + 1 == record["nfp"]
    derived = record["size"] - record["ssize"] * i if is_last else record["ssize"]
    stored = record["dotype"] > 1
    offset = {"offset": str(own[1])} if record["dotype"] in (3, 5) else {}
    return {"index": i, "fingerprint": fingerprint.hex(), "size": own[0] if stored else derived % 2 ** 32, **offset,
            "dcid": str(record["dcids"][i])}


def check_streams(names):
    """Returns: the valid records."""
    lines, shown = by_file(run("validate", *names)), by_file(run("show", "--show-keys", *names))
    valid = []
    for name in names:
        expected = [*stream.records_of(pathlib.Path(name).read_bytes())]
        found = [findings_of(*each) for each in expected]
        same([*map(as_seen, lines[name])], [as_expected(KINDS[kind], seen) for (kind, *_), seen in zip(expected, found)],
             f"findings of {name}")
        good = [each for each, seen in zip(expected, found) if not any(is_error(f[0]) for f in seen)]
        records = [read(data) for _, _, data in good]
        same([without_place(line) for line in shown[name] if line["valid"]],
             [members(record, order) for record, (_, order, _) in zip(records, good)], f"fields of {name}")
        same([write(record, order) for record, (_, order, _) in zip(records, good)], [data for *_, data in good],
             f"{name}, written again")
        valid += records
    return valid


def by_file(lines):
    files = collections.defaultdict(list)
    for line in lines:
        files[line["file"]].append(line)
    return files


def without_place(line):
    place = ("schema", "file", "record", "offset", "valid", "kind", "order")
    return {name: value for name, value in line.items() if name not in place}


def check_forms(names):
    """As forms of all types, with and without the checksum."""
    count = 0
    for dotype, fptype in TYPES:
        options = ["--serialized", "--dotype", str(dotype), "--fptype", str(fptype)]
        valid = []
        for more in ([], ["--checksum"]):
            for name, line in zip(names, run("validate", *options, *more, *names), strict=True):
                data = pathlib.Path(name).read_bytes()
                seen = findings.of_form(data, dotype, fptype, bool(more))
                same(as_seen(line), as_expected("serialized", seen), f"findings of {name} as a form, {options} {more}")
                if not seen and not more:
                    valid.append((name, data))
        for (name, data), line in zip(valid, run("show", *options, *(name for name, _ in valid)) if valid else [], strict=True):
            record = read_form(data, dotype, fptype)
            # The times are those of the conversion.
            times = {time: line[time] for time in ("ctime", "mtime")}
            same(without_place(line), {**members(record, HOST), **times}, f"fields of {name} as a form")
            same(write_form(record), data, f"{name} as a form, written again")
            count += 1
    return count


def converted(records, order):
    """All records in one stream."""
    host = b"".join(write(record, HOST) for record in records)
    seen = subprocess.run([COMMAND, "convert", "-", "--to", order, "-o", "-"], input=host, capture_output=True).stdout
    same(seen, b"".join(write(record, HOST if order == "host" else "big") for record in records), f"all records in {order} order")


def change(data, other):
    """A byte with another value, fewer bytes, or bytes of another record."""
    at, end = sorted(chance.choices(range(len(data) + 1), k=2))
    kept = bytearray(data)
    if at == len(data) or chance.random() < 0.2:
        kept[at:end] = chance.choice((b"", other, other[at:end]))
    else:
        kept[at] = chance.choice((0, 1, 255, kept[at] ^ 1 << chance.randrange(8), chance.randrange(256)))
    return bytes(kept)


def changed(pattern, times):
    """Writes small changes of golden records. Returns: their names."""
    paths, names = sorted((ROOT / "tests/golden").glob(pattern)), []
    for path in paths * times:
        names.append(f"{folder}/{len(names)}-{path.name}")
        pathlib.Path(names[-1]).write_bytes(change(path.read_bytes(), chance.choice(paths).read_bytes()))
    return names


def section_in_record(section):
    """A record of DO type 4 whose references are `section`."""
    record = {**empty_object(4), "trefssize": len(section), "recsize": 104 + len(section)}
    return write(record, "big")[:-4] + section + bytes(4)


with tempfile.TemporaryDirectory() as folder:
    inputs = [*(ROOT / "fuzz/seeds").glob("*/*"), *(ROOT / "tests/golden").glob("*.*"), *(ROOT / "tests/broken").glob("*-*")]
    # The command reads text that starts with a brace as JSON.
    names = sorted(str(path) for path in inputs if path.suffix != ".md" and not path.read_bytes().lstrip().startswith(b"{"))
    for seed in sorted((ROOT / "fuzz/seeds/references").iterdir()):
        (path := pathlib.Path(folder, f"section-{seed.name}")).write_bytes(section_in_record(seed.read_bytes()))
        names.append(str(path))
    for seed in sorted((ROOT / "fuzz/seeds/form").iterdir()):
        (path := pathlib.Path(folder, f"form-{seed.name}")).write_bytes(seed.read_bytes()[1:])  # after the types
        names.append(str(path))
    forms = check_forms(names + changed("*.form", 1))
    names += changed("*.host", CHANGES) + changed("*.network", CHANGES)
    valid = check_streams(names)
for order in ("host", "network"):
    converted(valid, order)
print(f"{len(names)} inputs: {len(valid)} valid records, {forms} valid forms")
sys.exit("\n".join(failures) or 0)
