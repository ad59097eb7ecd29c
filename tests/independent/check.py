#!/usr/bin/python3
"""Reads every golden record with records.py, writes each of its forms again, compares digests with those that the
command prints, and checks the examples of docs/format.md.

    check.py COMMAND
"""
import hashlib
import json
import pathlib
import subprocess
import sys

from records import DOCUMENT, HOST, read, text, width, write, write_content, write_entries, write_form

GOLDEN, COMMAND = pathlib.Path(__file__).parents[1] / "golden", sys.argv[1]
HASHES = (hashlib.md5, hashlib.sha1, hashlib.sha256, hashlib.sha256)


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
