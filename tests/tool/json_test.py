#!/usr/bin/python3
"""The JSON form against its schema, and what is said of JSON that is no record.

    json_test.py schema | bad COMMAND GOLDEN
"""
import json
import pathlib
import subprocess
import sys
import tempfile

COMMAND, GOLDEN = sys.argv[2], pathlib.Path(sys.argv[3])
failures = []


def run(*arguments, given=None):
    return subprocess.run([COMMAND, *map(str, arguments)], input=given, capture_output=True)


def lines_of(*arguments):
    return [json.loads(line) for line in run(*arguments).stdout.splitlines()]


def is_gap(line):
    return isinstance(line, dict) and not {"schema", "file", "offset"} ^ ({*line} - {"skipped_bytes", "unread_bytes"})


def spoiled(line):
    """The same line with one fault, in each of many ways."""
    for name in line:
        less = {key: value for key, value in line.items() if key != name}
        yield f"with an odd {name}", {**less, name: {}}
        if name in ("schema", "kind", "findings", "key", "spare", "segments", "references", "CID", "dotype"):
            yield f"without {name}", less
    yield "with one more member", {**line, "more": 1}
    for name, value in (("CID", "18446744073709551616"), ("spare", "017"), ("flags", 65536), ("dotype", 6), ("type", 4),
                        ("order", "big"), ("references", ["task:x"]), ("legacy_references", ["ref6:1"])):
        if name in line:
            yield f"with {name} {value}", {**line, name: value}
    for element in ({"fingerprint": "00"}, {"dcid": -64}, {"more": 1}):
        if line.get("segments"):
            worse = json.loads(json.dumps(line))
            worse["segments"][-1].update(element)
            yield f"with a segment of {element}", worse


def streams(folder):
    """The golden records in both orders: a file of all DO records and one of all segment records."""
    golden = {"do": [], "so": []}
    for order in ("host", "network"):
        for path in sorted(GOLDEN.glob(f"*.{order}")):
            golden[path.name.removeprefix("noted-")[:2]].append(path)
    for kind, records in golden.items():
        pathlib.Path(folder, kind).write_bytes(b"".join(path.read_bytes() for path in records))
        yield pathlib.Path(folder, kind), records


def schema():
    with tempfile.TemporaryDirectory() as folder:
        every_verb(folder)


def every_verb(folder):
    import jsonschema

    whole = json.loads(run("schema").stdout)
    jsonschema.Draft202012Validator.check_schema(whole)

    def of(definition):
        rest = {"$ref": f"#/$defs/{definition}", "$defs": whole["$defs"]} if definition else whole
        return jsonschema.Draft202012Validator(rest)

    record_line, findings = of(None), of("findingsLine")
    forms = [("--serialized", "--dotype", 3, "--fptype", 3, GOLDEN / "do3-sha256.form"),
             ("--serialized", "--dotype", 4, "--fptype", 0, GOLDEN / "do4-md5.form")]
    seen = set()
    for *arguments, records in [*streams(folder), *((*form, ()) for form in forms)]:
        shown = lines_of("show", "--json", "--show-keys", *arguments)
        printed = lines_of("validate", "--json", *arguments)
        converted = run("convert", *arguments, "--to", "json", "-o", "-").stdout
        if run("convert", "-", "--to", "json", "-o", "-", given=converted).stdout != converted:
            failures.append(f"{arguments}: JSON of JSON is different")
        pairs = [(record_line, shown + lines_of("show", "--json", *arguments)),
                 (record_line, [json.loads(line) for line in converted.splitlines()]),
                 (findings, printed[:-1] + lines_of("validate", "--json", *arguments[:-1], __file__)[:-1]),
                 (of("validateLine"), printed[-1:]),
                 (of("digestLine"), lines_of("digest", "--json", *arguments)),
                 (of("annotateLine"), lines_of("annotate", "--json", *arguments[:-1], __file__, arguments[-1]))]
        if shown[0]["kind"] == "do":
            pairs += [(of("refsLine"), lines_of("refs", "--json", *arguments)),
                      (of("statsLine"), lines_of("stats", "--json", *arguments))]
            pairs += [(of("diffLine"), lines_of("diff", "--json", path, path)) for path in records]
        for validator, lines in pairs:
            errors = (error for line in lines or ["no line"]
                      for error in (of("gapLine") if is_gap(line) else validator).iter_errors(line))
            failures.extend(f"{arguments}: {error.message}" for error in errors)
        if len(shown) != max(len(records), 1):
            failures.append(f"{arguments}: {len(shown)} records")
        for line, found in zip(shown, printed):
            kind = (line["kind"], line.get("dotype"))
            for validator, good in ((record_line, line), (findings, found)) if kind not in seen else ():
                failures.extend(f"{arguments}: valid {fault}" for fault, worse in spoiled(good)
                                if validator.is_valid(worse))
            seen.add(kind)
    other_verbs(of)
    if len(seen) != 9:
        failures.append(f"not every kind and DO type was seen: {seen}")


# Members that are texts even if they have decimal digits only.
TEXTS = {"file", "out", "record_file", "fingerprint", "fingerprints", "digest", "key", "bitmap", "tail", "value"}


def as_numbers(value):
    """The same JSON with numbers for strings of decimal digits."""
    if isinstance(value, dict):
        texts = TEXTS | ({"bytes"} if "section" in value else set())
        return {key: part if key in texts else as_numbers(part) for key, part in value.items()}
    if isinstance(value, list):
        return [as_numbers(part) for part in value]
    return int(value) if isinstance(value, str) and value.isdecimal() else value


def numbers(of):
    do5, so = GOLDEN / "do5-sha256.host", GOLDEN / f"{SO}.host"
    do3, gaps = GOLDEN / "do3-sha256.host", GOLDEN / "do3-md5-gaps.host"
    for name, *arguments in ((None, "show", do5, so), ("digestLine", "digest", do5), ("annotateLine", "annotate", so),
                             ("refsLine", "refs", do5), ("statsLine", "stats", "--unique", do5),
                             ("liveLine", "live", do3, so), ("lostLine", "lost", do3, "--container", 64),
                             ("diffLine", "diff", do3, gaps),
                             ("diffLine", "diff", "--segments", do3, gaps), ("verifyLine", "verify", gaps, __file__),
                             ("changesLine", "refs", do5, "--add", "task:1", "-o", "/dev/null"),
                             ("redactLine", "redact", do5, "-o", "/dev/null"),
                             ("buildLine", "build", __file__, "-o", "/dev/null"),
                             ("segmentsBuildLine", "segments", "build", __file__, "-o", "/dev/null")):
        strings, found = lines_of(*arguments, "--json"), lines_of(*arguments, "--json", "--numbers")
        if not found or as_numbers(strings) != found:
            failures.append(f"--numbers: {arguments}: {found}")
        failures.extend(f"--numbers: {arguments}: {error.message}" for line in found
                        for error in of(name).iter_errors(line))
    line = run("show", "--json", "--numbers", "--show-keys", so).stdout
    if run("convert", "-", "--to", "host", "-o", "/dev/null", given=line).returncode != 1 or \
            b"--numbers" not in run("convert", so, "--to", "json", "--json", "--numbers", "-o", "-").stderr:
        failures.append("convert takes numbers that may have lost digits")


def other_verbs(of):
    numbers(of)
    empty = GOLDEN / "do0-empty.host"
    out = ("--json", "-o", "/dev/null")
    do3, gaps = GOLDEN / "do3-sha256.host", GOLDEN / "do3-md5-gaps.host"
    for name, *arguments in (("buildLine", "build", __file__, *out),
                             ("segmentsBuildLine", "segments", "build", __file__, *out),
                             ("convertLine", "convert", do3, "--to", "host", *out),
                             ("changesLine", "refs", do3, "--add", "task:1", *out),
                             ("changesLine", "refs", do3, "--add", "task:1", "--dry-run", "--json"),
                             ("refsChangeLine", "refs", do3, "--add", "task:1", "--dry-run", "--json"),
                             ("redactLine", "redact", do3, *out),
                             ("liveLine", "live", "--json", do3),
                             ("liveLine", "live", "--json", do3, GOLDEN / "so-fptype3-tasks1-fingerprints1.host"),
                             ("freedLine", "freed", "--json", do3, "--reference", "task:17"),
                             ("lostLine", "lost", "--json", do3, "--container", "70"),
                             ("recallLine", "recall", "--json", do3, "--cache", "1"),
                             ("extractLine", "extract", do3, *out),
                             ("verifyLine", "verify", "--json", gaps, __file__),
                             ("verifyLine", "verify", "--no-crc", empty, "/dev/null", "--stamp", *out),
                             ("diffLine", "diff", "--json", "--segments", do3, gaps),
                             ("validateLine", "validate", "--json", "--bad-only", do3),
                             ("findingsLine", "refs", "--json", __file__)):
        lines = lines_of(*arguments)
        if "--dry-run" in arguments:  # the last line is the closing line
            lines = lines[-1:] if name == "changesLine" else lines[:-1]
        for line in lines or ["no line"]:
            name = "gapLine" if is_gap(line) else name
            failures.extend(f"{arguments}: {error.message}" for error in of(name).iter_errors(line))
            failures.extend(f"{name}: valid with an odd {member}" for member in (*line, "more")
                            if of(name).is_valid({**line, member: {}}))


DO3, DO1, DO4, SO = "do3-sha256", "do1-sha1", "do4-md5", "so-fptype0-tasks1-fingerprints1"
BAD = [  # a good line, what is replaced and by what, where the complaint points, the member and the words
    (DO3, '"schema":1', '"schema":2', "2,", "schema", "found 2, expected 1"),
    (DO3, '"kind":"do"', '"kind":"dodo"', '"dodo"', "kind", 'found "dodo", expected "do" or "segment"'),
    (SO, '"kind":"segment",', "", "{", "kind", "is missing"),
    (DO3, '"order":"host"', '"order":null', "null", "order", 'found null, expected "host" or "network"'),
    (DO3, '"flags":2', '"flags":65536', "65536", "flags", "found 65536, expected a number of 0 to 65535"),
    (DO3, '"CID":"64"', '"CID":64', '64,"size"', "CID", "found 64, expected a string with a decimal number"),
    (DO3, '"CID":"64"', '"CID":"18446744073709551616"', '"1844', "CID", "expected a string with a decimal number"),
    (DO3, '"recsize":270', '"recsize":271', "271", "recsize", "found 271, expected 270"),
    (DO3, '"flags":2', '"flags":2,"flags":2', '"flags":2,"rec', "flags", "is there twice"),
    (DO3, '"flags":2,', "", "{", "flags", "is missing"),
    (DO3, '"flags"', '"flag"', '"flag"', "flag", "an unknown member"),
    (DO3, '"flags":2', '"flags":1', "{", "flags", "Invalid DO record: flags 0x1"),
    (DO3, '"offset":"80"', '"offset":"79"', "{", "segments[1].offset", "Invalid DO record"),
    (DO3, "d1cf7f", "D1cf7f", '"D1cf', "segments[2].fingerprint",
     "expected a string of 64 lower-case hexadecimal digits"),
    (DO3, ',"dcid":"70"', "", '{"index":1', "segments[1].dcid", "is missing"),
    (DO3, '"task:17"', '"task:17","job:1"', '"job', "references[1]", 'found "job:1", expected a reference'),
    (DO3, '"task:17"', '"dsid:4294967296"', '"dsid', "references[0]", "of dsid to 4294967295"),
    (DO3, '"legacy_references":[]', '"legacy_references":["dsid:5","task:1"]', '"task:1"]', "legacy_references[1]", ""),
    (DO3, '"containers":[]', '"bitmap":"00","containers":[]', '"00"', "bitmap", "a record of DO type 3 does not have it"),
    (DO1, '"size":60', '"size":61', "61,", "segments[2].size", "found 61, expected 60"),
    (DO4, '"bitmap":"0102030405060708",', "", "{", "bitmap", "is missing"),
    (DO4, '"0102', '"010', '"010', "bitmap", "an even number of hex"),
    (SO, "0102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f2021", "masked", '"masked', "key", "is masked"),
    (SO, '"taskids":["17"]', '"taskids":[1]', "1],", "taskids[0]", "found 1, expected a string"),
    (SO, '"spare":"0"}', '"spare":"0"', None, "", "not well-formed JSON"),
    (SO, '"schema":1,', '\n"schema":1,', None, "", "expected one record a line"),
    (SO, '"spare":"0"}', '"spare":"0"} {}', "{}", "", "expected the line's end after the object"),
    (SO, '"spare":"0"}', '"spare":"0', "{", "", "a string does not end"),
    (SO, '"type":2,', '"type":2\0,', "2\0,", "type", "found 2?, expected 2"),
    (SO, '"taskids":["17"]', '"taskids":' + 100000 * "[", None, "", "not well-formed JSON"),
    (SO, '"17"', "\x80", "{", "", "the line is not UTF-8"),
]


def bad():
    for name, old, new, at, member, words in BAD:
        good = (GOLDEN / f"{name}.json").read_text()
        worse = good.replace(old, new, 1)
        done = run("convert", "-", "--to", "host", "-o", "-", given=("\n" + good + worse).encode("latin-1"))
        position = 1 + len(good) + worse.index(at) if at else ""
        start, said = f"crrecord: -: line 3 at byte {position}", done.stderr.decode()
        path = f": {member}: " if member else ": "
        if done.returncode != 1 or not said.startswith(start) or path not in said or words not in said or \
                said.count("\n") != 1:
            failures.append(f"{name} {new[:40]!r}: status {done.returncode}, said {said!r}, "
                            f"expected {start!r} {words!r}")
    for given in (b"[\n{}]", b"\xef\xbb\xbf{}", b" {}"):
        said = run("validate", given=given).stdout.decode()
        if "looks like JSON" not in said:
            failures.append(f"{given}: said {said!r}")
    garbage = b"{" + b'"a":[' * 1000000 + b"1" * 20000000
    if run("convert", "-", "--to", "host", "-o", "-", given=garbage).returncode != 1:
        failures.append("garbage is taken")


{"schema": schema, "bad": bad}[sys.argv[1]]()
print(*failures, sep="\n")
sys.exit(bool(failures))
