#!/usr/bin/python3
"""build for many files, and verify by name: the tree of the sources, and folders with every kind of file.

    files_test.py sources | folder | outputs COMMAND SOURCES
"""
import hashlib
import json
import os
import pathlib
import random
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

import jsonschema

COMMAND, SOURCES = os.path.abspath(sys.argv[2]), pathlib.Path(sys.argv[3]).resolve()
failures = []


def check(holds, *detail):
    if not holds:
        failures.append(" ".join(str(part)[:900] for part in detail))


def run(*arguments, given=None, status=0):
    done = subprocess.run([COMMAND, *map(os.fsencode, map(str, arguments))], input=given, capture_output=True, timeout=120)
    check(done.returncode == status, arguments, done.returncode, done.stderr)
    return done


def lines_of(data):
    return [json.loads(line) for line in data.splitlines()]


def conform(definition, lines):
    whole = json.loads(run("schema").stdout)
    form = {"$ref": f"#/$defs/{definition}", "$defs": whole["$defs"]} if definition else whole
    validator = jsonschema.Draft202012Validator(form)
    for line in lines:
        errors = [error.message for error in validator.iter_errors(line)]
        check(not errors and not any(validator.is_valid({**line, member: {}}) for member in (*line, "more")),
              definition, line, errors)


def objects(path):
    """The members of each DO record, and a name from the index beside it."""
    shown = lines_of(run("show", "--json", path).stdout)
    named = lines_of(pathlib.Path(str(path)[:-2] + "idx").read_bytes())
    check([line["offset"] for line in shown] == [line["offset"] for line in named], path, "other offsets")
    check([line["recsize"] for line in shown] == [int(line["bytes"]) for line in named], path, "other sizes")
    return list(zip((bytes.fromhex(n["name_hex"]) if "name_hex" in n else n["name"].encode() for n in named), shown))


def sources():
    """Build, verify by name, change one byte, build again with --known, diff."""
    for part in ("src", "tools", "tests", "docs"):
        shutil.copytree(SOURCES / part, pathlib.Path("tree") / part, ignore=shutil.ignore_patterns("__pycache__"))
    files = sorted(os.fsencode(path) for path in pathlib.Path("tree").rglob("*") if path.is_file())
    options = ("--cut", "content:1K:4K:16K", "--container-size", "256K", "--fptype", 2, "--json")
    first = json.loads(run("build", "-r", "tree", "-o", "all.do", "--names", "all.idx", "--segments-out", "all.seg",
                           *options).stdout)
    records = objects("all.do")
    check([name for name, _ in records] == files, "other names, or in another order")
    # Each segment has the fingerprint of its bytes. It is in one container, and each container has at most 256 KiB.
    stored = {}
    for name, record in records:
        data = pathlib.Path(os.fsdecode(name)).read_bytes()
        check(sum(segment["size"] for segment in record["segments"]) == len(data), name, "another size")
        for segment in record["segments"]:
            piece = data[int(segment["offset"]):][:segment["size"]]
            check(hashlib.sha256(piece).hexdigest()[:32] == segment["fingerprint"], name, "another fingerprint")
            check(stored.setdefault(piece, segment["dcid"]) == segment["dcid"], name, "stored twice")
    for dcid in set(stored.values()):
        check(sum(len(piece) for piece, where in stored.items() if where == dcid) <= 256 << 10, dcid, "too full")
    check((first["new_segments"], first["new_bytes"]) == (str(len(stored)), str(sum(map(len, stored)))), first)
    check(int(first["segments"]) > len(stored), "the golden records have common segments")
    total = lines_of(run("live", "--json", "all.do", "all.seg").stdout)[-1]["total"]
    check(total["missing_segments"] == "0" and total["stored_segments"] == str(len(stored)), total)
    run("validate", "--quiet", "all.do", "all.seg")
    check(run("verify", "--names", "all.idx", "all.do").stdout.endswith(b"all match their records\n"), "verify by name")
    again = json.loads(run("build", "-r", "tree", "-o", "again.do", "--names", "again.idx", "--known", "all.seg",
                           *options).stdout)
    check((again["new_segments"], again["first_container"]) == ("0", None), again)
    # One byte of one file.
    changed = pathlib.Path("tree/docs/command.md")
    data = bytearray(changed.read_bytes())
    data[10000] ^= 1
    changed.write_bytes(data)
    printed = lines_of(run("verify", "--names", "all.idx", "all.do", "--json", status=1).stdout)
    check([line["name"] for line in printed[:-1] if not line["same"]] == [str(changed)], "another file differs")
    check((printed[-1]["different"], printed[-1]["files"]) == ("1", str(len(files))), printed[-1])
    more = json.loads(run("build", "-r", "tree", "-o", "more.do", "--names", "more.idx", "--segments-out", "more.seg",
                          "--known", "all.seg", *options).stdout)
    conform("buildFilesLine", [first, again, more])
    conform("nameLine", lines_of(pathlib.Path("more.idx").read_bytes())[-9:])
    conform("verifyLine", [line for line in printed[:-1] if not line["same"]] + printed[:1])
    conform("verifyTotalLine", printed[-1:])
    check(more["new_segments"] == "1" and int(more["first_container"]) == int(first["last_container"]) + 1, more)
    check(lines_of(run("live", "--json", "more.do", "all.seg", "more.seg").stdout)[-1]["total"]["missing_segments"] == "0",
          "a segment is missing")
    pair = [next(record for name, record in objects(path) if name == b"tree/docs/command.md")
            for path in ("all.do", "more.do")]
    for path, record in zip(("all.do", "more.do"), pair):
        one = pathlib.Path(path).read_bytes()[int(record["offset"]):][:record["recsize"]]
        pathlib.Path(path + ".one").write_bytes(one)
    parts = json.loads(run("diff", "--json", "--summary", "all.do.one", "more.do.one", status=1).stdout)
    check((parts["added"]["segments"], parts["removed"]["segments"]) == ("1", "1"), parts)
    # Names instead of numbers, in the text and the JSON of each verb.
    where = ("--names", "all.idx", "all.do")
    begins, last = records[0][0].decode(), len(records)
    for arguments, text in ((("digest",), f"all.do: {begins}"), (("show", "--segments", "none"), f"{begins} at byte 0:"),
                            (("lost", "--container", 64), f"all.do: {begins} at byte 0:"),
                            (("annotate",), f"# all.do: {begins} at byte 0:"),
                            (("refs", "--add", "task:1", "--dry-run"), f"{begins}: would add task:1")):
        done = run(*arguments, *where).stdout.decode()
        check(text in done and f"ecord {last}" not in done, arguments, done[-200:])
        if arguments[0] != "refs":
            conform({"digest": "digestLine", "show": None, "lost": "lostLine", "annotate": "annotateLine"}[arguments[0]],
                    lines_of(run(*arguments, *where, "--json").stdout)[:1])
    named = run("show", "--json", "--records", 1, *where).stdout
    check(lines_of(named)[0]["name"] == begins, named)
    check(run("convert", "-", "--to", "network", "-o", "-", given=named).stdout
          == pathlib.Path("all.do").read_bytes()[:records[0][1]["recsize"]], "JSON with a name")
    check(run("validate", *where, "all.seg", status=2).stderr
          == b"crrecord: --names: an index is for one FILE, found 2\n", "names for two files")
    pathlib.Path("short.do").write_bytes(pathlib.Path("all.do").read_bytes()[:-1])
    done = run("validate", "--names", "all.idx", "short.do", status=1).stdout.decode()
    check(f"short.do: {records[-1][0].decode()} at byte {records[-1][1]['offset']}: error" in done, done)
    # One record of each file alone has the same segments.
    run("build", changed, "-o", "alone.do", *options)
    alone = lines_of(run("show", "--json", "alone.do").stdout)[0]["segments"]
    check([s["fingerprint"] for s in alone] == [s["fingerprint"] for s in pair[1]["segments"]], "other segments alone")


def folder():
    """What is skipped, what fails, and that the others go on."""
    odd = b"tree/b/\xff\n\"x"
    pick = random.Random(4)
    os.makedirs("tree/b/deep")
    files = {b"tree/a": b"x" * 70000, b"tree/b/big": pick.randbytes(3 << 20), b"tree/b.c": b"1", b"tree/b/deep/-": b"2",
             odd: b"3", b"tree/bb": b"1", b"tree/sparse": bytes(1 << 16) + b"y"}
    for name, data in files.items():
        pathlib.Path(os.fsdecode(name)).write_bytes(data)
    with open("tree/sparse", "r+b") as sparse:
        sparse.truncate(0)
        sparse.seek(1 << 16)
        sparse.write(b"y")
    os.link("tree/a", "tree/hard")
    files[b"tree/hard"] = files[b"tree/a"]
    os.symlink("a", "tree/link")
    os.symlink("b", "tree/round")
    os.mkfifo("tree/pipe")
    socket.socket(socket.AF_UNIX).bind("tree/socket")
    pathlib.Path("tree/nothing").touch()
    files[b"tree/nothing"] = b""
    pathlib.Path("tree/all.do").write_bytes(b"former")
    done = run("build", "-r", "tree/", "-o", "tree/all.do", "--names", "all.idx", "--json", "--segment-size", "64K")
    closing = json.loads(done.stdout)
    counts = [closing[name] for name in ("records", "failed", "skipped", "gap_bytes")]
    check(counts == [str(len(files)), "0", "5", "65536"], closing)
    for text in ("tree/link: is a symbolic link", "tree/pipe: is not", "tree/socket: is not", "tree/all.do: is an output"):
        check(f"crrecord: {text}".encode() in done.stderr, text, done.stderr)
    os.rename("tree/all.do", "all.do")
    records = objects("all.do")
    check([name for name, _ in records] == sorted(files), [name for name, _ in records])
    check({name: int(record["size"]) for name, record in records} == {n: len(d) for n, d in files.items()}, "sizes")
    # The record of an empty file is its fixed part and the last 24 bytes. All DO types have such a record.
    empty = dict(records)[b"tree/nothing"]
    check((empty["recsize"], empty["nfp"], empty["size"], empty["CRC"], empty["flags"]) == (104, 0, "0", 0, 2), empty)
    for dotype in (0, 1, 2, 3, 5):
        run("build", "tree/nothing", "tree/bb", "-o", "few.do", "--names", "few.idx", "--dotype", dotype, "--task", 7)
        check(run("refs", "few.do").stdout == b"record 1: task:7\nrecord 2: task:7\n", dotype)
        check(run("verify", "--names", "few.idx", "few.do").stdout == b"few.do: 2 files, 1 byte: all match their records\n",
              "an empty file")
    run("build", "tree/nothing", "-o", "one.do", status=2)
    os.rename("tree", "moved")
    run("verify", "--names", "all.idx", "all.do", status=2)
    os.mkdir("at")
    os.rename("moved", "at/tree")
    done = run("verify", "--names", "all.idx", "-C", "at", "all.do")
    check(done.stdout == f"all.do: 9 files, {sum(map(len, files.values()))} bytes: all match their records\n".encode(),
          done.stdout)
    # A list of names. Standard input is the list, so it is no file; the records stay in the order of the list.
    names = b"at/tree/bb\0at/none\0-\0\0at/tree/b.c\0all.do\0at/tree/b.c"
    done = run("build", "--files-from0", "-", "-o", "all.do", "--names", "all.idx", given=names, status=1)
    check(done.stderr.count(b"\n") == 4 and b"3 DO records" in done.stdout and b": 1 new of 1 byte in" in done.stdout,
          done.stdout, done.stderr)
    check([name for name, _ in objects("all.do")] == [b"at/tree/bb", b"at/tree/b.c", b"at/tree/b.c"], "order of a list")


def outputs():
    """All outputs or none, and what is refused."""
    one, two = pathlib.Path("one"), pathlib.Path("two")
    one.write_bytes(b"1" * 100)
    two.write_bytes(b"2" * 100)
    all_out = ("-o", "do", "--names", "idx", "--segments-out", "seg")
    os.chmod("two", 0o640)
    run("build", "one", "two", *all_out)
    check(all(os.stat(name).st_mode & 0o777 & ~0o640 == 0 for name in ("do", "idx", "seg")), "readable by more users")
    before = {name: pathlib.Path(name).read_bytes() for name in ("do", "idx", "seg")}
    segments = before["seg"]
    container = int.from_bytes(segments[24:32], "big")
    os.mkdir("folder")
    pathlib.Path("high").write_bytes(segments[:24] + (2**32 - 1).to_bytes(8, "big") + segments[32:])
    for text, *arguments in (("two outputs", "one", "-o", "x", "--names", "./x"),
                             ("two outputs", "one", "-o", "-", "--names", "-"),
                             ("is an input itself", "one", "two", "-o", "one"),
                             ("is an input itself", "one", "--known", "seg", "-o", "x", "--segments-out", "seg"),
                             ("is a DO record", "one", "--known", "do", "-o", "x"),
                             (f"container {container}, expected a greater", "one", "--known", "seg", "-o", "x",
                              "--first-container", 64),
                             ("no container ids are left", "one", "--known", "high", "-o", "x"),
                             ("there are no records", "-r", "folder", *all_out),
                             ("there are no records", "missing", "folder", *all_out),
                             ("is required", "-o", "x"),
                             ("standard input can be only one", "-", "-", "-o", "x"),
                             ("cannot create", "one", "two", "-o", "do", "--names", "none/idx")):
        done = run("build", *arguments, status=2)
        check(text.encode() in done.stderr, arguments, done.stderr)
    # A record that is bad is not used, and one of another size is another segment.
    pathlib.Path("known").write_bytes(segments[:40] + b"\0" * 7 + b"\x07" + segments[48:-1])
    done = run("build", "one", "two", "-o", "x", "--names", "y", "--known", "known", "--json", status=1)
    check(json.loads(done.stdout)["new_segments"] == "2" and done.stderr.count(b"\n") == 1, done.stdout, done.stderr)
    # One file changes while it is read: it has no record, none of its segments is stored, and the others go on.
    with open("grow", "wb") as grow:
        grow.truncate(1 << 28)
    process = subprocess.Popen([COMMAND, "build", "one", "grow", "two", "-o", "x", "--names", "y", "--segments-out", "z",
                                "--dotype", "2"], stderr=subprocess.PIPE, stdout=subprocess.PIPE)
    while process.poll() is None:
        os.utime("grow")
        time.sleep(0.005)
    check(process.returncode == 1 and process.stderr.read() == b"crrecord: grow: file changed while it was read\n"
          and [line["name"] for line in lines_of(pathlib.Path("y").read_bytes())] == ["one", "two"]
          and pathlib.Path("z").read_bytes() == segments, "a file that changes", process.stdout.read())
    # A check time for the records whose files match, and all other bytes as they were.
    two.write_bytes(b"3" * 100)
    former = before["do"]
    for given, options in ((former, ()), (former + b"junk" + former[:180], ("--scan",))):
        pathlib.Path("given").write_bytes(given)
        done = run("verify", "--stamp", "--names", "idx", "given", "-o", "given", "--json", *options, status=1)
        total = lines_of(done.stdout)[-1]
        conform("verifyTotalLine", [total])
        check(total["stamped"] == "1", total)
        stamped = pathlib.Path("given").read_bytes()
        check(stamped == given[:12] + total["checktime"].to_bytes(4, "big") + given[16:], options)
    pathlib.Path("given").write_bytes(former + b"junk" + former[:180])
    for arguments in (("given",), ("do", "-C", "folder")):
        run("verify", "--stamp", "--names", "idx", *arguments, "-o", "none", status=2 if "-C" in arguments else 1)
    check(run("verify", "--stamp", "--names", "idx", "do", "-o", "two", status=2).stderr.endswith(b"would replace\n")
          and two.read_bytes() == b"3" * 100, "a compared file was replaced")
    # The names of two records that are compared.
    run("build", "one", "-o", "a", "--names", "a.idx")
    run("build", "two", "-o", "b", "--names", "b.idx")
    names = ("diff", "--names", "a.idx", "--names", "b.idx", "a", "b")
    check(run(*names, status=1).stdout.endswith(b"a: one and b: two: different\n"), "names of a comparison")
    line = lines_of(run(*names, "--json", "--summary", status=1).stdout)
    conform("diffLine", line)
    check((line[0]["a_name"], line[0]["b_name"]) == ("one", "two"), line)
    # A run that is killed while it reads.
    os.mkfifo("pipe")
    kept = set(os.listdir())
    for how in (signal.SIGTERM, signal.SIGKILL):
        process = subprocess.Popen([COMMAND, "build", "one", "pipe", *all_out])
        with open("pipe", "wb"):
            time.sleep(0.1)
            process.send_signal(how)
            process.wait()
    check(set(os.listdir()) == kept, set(os.listdir()) - kept)
    check(before == {name: pathlib.Path(name).read_bytes() for name in before}, "a former file changed")
    # An index that names a record twice, and one that names a pipe.
    lines = before["idx"].splitlines(keepends=True)
    for bad in (lines[0] * 2, b"{}\n", lines[0].replace(b'"one"', b'"a\\u0000"'), lines[0].replace(b'"180"', b'"0"')):
        pathlib.Path("bad").write_bytes(bad)
        done = run("verify", "--names", "bad", "do", status=2)
        check(b"bad: line " in done.stderr, bad, done.stderr)
    for text, status, index in ((b"pipe: is not a regular file", 2, before["idx"].replace(b"two", b"pipe")),
                                (b"has no name in", 1, lines[0]),
                                (b"no record of do starts there", 1, before["idx"] + lines[1].replace(b'"180"', b'"777"', 1))):
        pathlib.Path("index").write_bytes(index)
        done = run("verify", "--names", "index", "do", status=status)
        check(text in done.stderr, index, done.stderr)


with tempfile.TemporaryDirectory() as temporary:
    os.chdir(temporary)
    {"sources": sources, "folder": folder, "outputs": outputs}[sys.argv[1]]()
if failures:
    print(*failures, sep="\n", file=sys.stderr)
    sys.exit(1)
