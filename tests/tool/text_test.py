#!/usr/bin/python3
"""What the command prints, and what it takes as names of files.

    text_test.py terminal | progress | names | picture | sparse COMMAND GOLDEN
"""
import concurrent.futures
import fcntl
import json
import os
import pathlib
import pty
import re
import resource
import struct
import subprocess
import sys
import tempfile
import termios
import time
import unicodedata
import xml.etree.ElementTree

COMMAND, GOLDEN = os.path.abspath(sys.argv[2]), pathlib.Path(sys.argv[3]).resolve()
OBJECT = (GOLDEN / "do3-sha256.host").read_bytes()
SEGMENT = (GOLDEN / "so-fptype2-tasks1-fingerprints2.host").read_bytes()
# Control characters as bytes and as UTF-8, and what ends lines or changes the direction of text.
RAW = bytes([*range(1, 0x20), *range(0x7f, 0xa0)])
UTF8 = "".join(map(chr, (*range(0x7f, 0xa0), 0x61c, 0x200e, 0x200f, *range(0x2028, 0x202f),
                         *range(0x2066, 0x206a)))).encode()
HOSTILE = RAW + UTF8 + b"\x1b[31mnamed"
failures = []


def check(holds, *detail):
    if not holds:
        failures.append(" ".join(repr(part)[:600] for part in detail))


def run(*arguments, **more):
    return subprocess.run([COMMAND, *arguments], capture_output=True, **{"timeout": 60, "input": b"", **more})


def on_terminal(*arguments, pieces=(), columns=200, **environment):
    """What a terminal receives; standard input is the pieces, with a pause after each."""
    master, slave = pty.openpty()
    attributes = termios.tcgetattr(slave)
    attributes[1] &= ~termios.OPOST  # line feeds get no carriage return
    termios.tcsetattr(slave, termios.TCSANOW, attributes)
    fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("4H", 24, columns, 0, 0))
    environment = {key: value for key, value in os.environ.items() if key != "NO_COLOR"} | environment
    with subprocess.Popen([COMMAND, *arguments], stdin=subprocess.PIPE, stdout=slave, stderr=slave,
                          env=environment) as process:
        os.close(slave)
        for piece in pieces:
            process.stdin.write(piece)
            process.stdin.flush()
            time.sleep(0.3)
        process.stdin.close()
        shown = b""
        try:
            while block := os.read(master, 65536):
                shown += block
        except OSError:  # how Linux reports the end
            pass
    os.close(master)
    return shown


def unsafe(text):
    try:
        return {c for c in text.decode() if c != "\n" and unicodedata.category(c) in ("Cc", "Cf", "Zl", "Zp")}
    except UnicodeDecodeError as error:
        return str(error)


def terminal():
    do, seg, bad, data, none, out = (name + HOSTILE for name in (b"do", b"seg", b"bad", b"data", b"none", b"out"))
    for name, content in ((do, OBJECT), (seg, SEGMENT), (bad, OBJECT[:-1]), (data, b"data")):
        pathlib.Path(os.fsdecode(name)).write_bytes(content)
    to = ("-o", out)
    for named in (["validate", do, seg, bad, none], ["validate", "--json", do, bad, none], ["show", do, seg, bad],
                  ["show", "--json", do, bad], ["show", "--records", "9:", do], ["show", "--records", HOSTILE],
                  ["digest", do, bad], ["digest", "--json", do, bad], ["annotate", do, bad],
                  ["annotate", "--json", do, bad], ["annotate", "--reverse", bad, *to], ["lost", "--container", "70", do],
                  ["lost", "--container", "70", "--json", do], ["stats", bad], ["live", "--temp", none, bad], ["refs", bad], ["refs", "--json", bad],
                  ["refs", do, "--add", HOSTILE, *to], ["refs", do, "--drop-inactive", bad, *to],
                  ["refs", do, "--add", "task:5", *to], ["refs", do, "--add", "task:5", "--json", *to],
                  ["diff", do, out], ["diff", "--json", do, out], ["map", do, "-o", "-"], ["map", do, *to],
                  ["redact", do, *to], ["redact", do, "--json", *to], ["redact", do, "--key", data, *to],
                  ["convert", do, "--to", "host", *to], ["convert", do, "--json", "--to", "json", *to],
                  ["build", data, *to], ["build", data, "--json", *to], ["build", data, "-o", HOSTILE + b"/out"],
                  ["build", data, "--task", HOSTILE, *to], ["segments", "build", data, *to], ["verify", out, data],
                  ["verify", do, data], ["verify", "--json", do, data], [b"verb" + HOSTILE], ["schema", HOSTILE],
                  ["show", b"--option" + HOSTILE]):
        for more in ({"NO_COLOR": "1"}, {}):
            shown = on_terminal(*named, TERM="xterm", **more)
            text = shown if more else re.sub(rb"\x1b\[(3[123]|[01])m", b"", shown)
            check(b"named" in text and not unsafe(text), named, unsafe(text), shown)
        done = run(*named)
        check(not unsafe(done.stderr), "messages", named, done.stderr)
        check("--json" not in named or not unsafe(done.stdout), "JSON", named, done.stdout)
    line = json.loads(run("show", "--json", do).stdout)
    check((line["file"], line["file_hex"]) == (do.decode(errors="replace"), do.hex()), "name in JSON", line)
    held = [["schema"], ["refs", do], ["convert", do, "--to", "host", "-o", "-"]]
    for name, record, at in (("objects", OBJECT, 80), ("segments", SEGMENT, 96 + 8)):
        records = b"".join(record[:at] + bytes([byte]) + record[at + 1:] for byte in b"\0" + RAW)
        pathlib.Path(name).write_bytes(records)
        held += [["show", "--text", name], ["show", "--show-keys", name]]
    check(run("show", "--text", "segments").stdout.count(b"[\x1b,") == 1, "the text form is changed in a file")
    line = (GOLDEN / "do3-sha256.json").read_bytes()
    escaped = json.dumps(RAW.decode("latin-1")).encode()
    for i, (old, new) in enumerate(((b'"flags"', b'"fl' + UTF8), (b'"flags"', escaped), (b'"task:17', b'"' + UTF8),
                                    (b'"task:17', b'"' + RAW), (b'"host"', b'"' + UTF8))):
        pathlib.Path(f"json{i}").write_bytes(line.replace(old, new, 1))
        held.append(["convert", f"json{i}", "--to", "host", "-o", "out"])
    for arguments in held:
        shown = on_terminal(*arguments, TERM="xterm", NO_COLOR="1")
        check(shown and not unsafe(shown), arguments, unsafe(shown), shown)
    check(b"\x1b[32mall valid\x1b[0m" in on_terminal("validate", "objects", TERM="xterm"), "colours are lost")


def progress():
    building = ("segments", "build", "-", "-o", "/dev/null")
    pieces = [bytes(1 << 20)] * 3
    ways = [(building, 20, "xterm"), (building, 200, "xterm"), (building, 0, "dumb"), (building, 0, ""),
            ((*building, "--no-progress"), 0, "xterm"), (("--no-progress", *building), 0, "xterm")]
    with concurrent.futures.ThreadPoolExecutor(len(ways)) as terminals:  # all at once, since they mostly pause
        texts = terminals.map(lambda way: on_terminal(*way[0], pieces=pieces, columns=way[1] or 200, TERM=way[2]), ways)
    for (arguments, columns, term), shown in zip(ways, texts):
        drawn = re.findall(rb"\r\x1b\[K([^\r\n]+)(?=\r)", shown)
        holds = drawn and b"MiB" in drawn[0] and max(map(len, drawn)) < columns if columns else not unsafe(shown)
        check(holds, arguments, columns, term, shown)


def names():
    for name in ("good", "a", "b", "q"):
        pathlib.Path(name).write_bytes(OBJECT)
    pathlib.Path("text").write_bytes(run("annotate", "good").stdout)
    for name in ("[good]", "[a,b]", "[[a]]", "[]", "{}", "{a}", "[", "%%", "++", "a,b", '"q"', "'q'", " ", "=", "\\a",
                 "validate", "segments", "5", "-x", "--", "--json", "-5", "--out=q", "%s", "*"):
        # "++" is said to be in this folder.
        shown = "./++" if name == "++" else name
        pathlib.Path(name).write_bytes(OBJECT[:-1])
        ways = [["--", name], ["--", "good", name], ["good", "--", name]]
        for way in ways + ([] if name[0] == "-" else [[name], [name, "good"]]):
            done = run("validate", "--json", *way)
            printed = {line["file"]: line["valid"] for line in map(json.loads, done.stdout.splitlines()[:-1])}
            expected = {name if "--" in way else shown: False} | ({"good": True} if "good" in way else {})
            check(done.returncode == 1 and printed == expected, way, printed, done.stderr)
        for arguments in (["convert", "good", "--to", "host"], ["redact", "good", "a"], ["map", "good"],
                          ["refs", "good", "--add", "task:1"], ["annotate", "--reverse", "text"], ["build", "good"]):
            os.unlink(name)
            before = set(os.listdir())
            done = run(*arguments, "-o", name)
            check(done.returncode == 0 and set(os.listdir()) == before | {name}, arguments, name, done)
        pathlib.Path(name).write_bytes(b"x")
        for arguments in (["redact", "good", "--key"], ["refs", "good", "--drop-inactive"], ["annotate", "--reverse"]):
            done = run(*arguments, name, "-o", "out")
            check(done.returncode != 0 and f"crrecord: {shown}: " in done.stderr.decode(), arguments, done)
        os.unlink(name)
    for refused in (["validate", ""], ["validate", "good", ""], ["annotate", "--reverse", ""],
                    ["redact", "good", "--key", ""], ["redact", "good", "--key=", "text"],
                    ["refs", "good", "--add", "task:1", "--drop-inactive", ""],
                    ["refs", "good", "--add", "task:1", "--remove", "{}"],
                    ["refs", "good", "--remove", "[task:1,task:2]"], ["convert", "good", "--to", "host", "-o", ""]):
        done = run(*refused, *(["-o", "out"] if refused[0] in ("annotate", "redact", "refs") else []), input=OBJECT)
        check(done.returncode == 2 and not done.stdout and b"expected " in done.stderr and not os.path.exists("out"),
              refused, done)


def picture():
    for name, drawn in ((b"<&>\"' \xc3\xa9", "<&>\"' é"), ("\ufffe\uffff\U0001fffe".encode(), "??\U0001fffe"),
                        (b"\xed\xa0\x80\xff", 4 * "\ufffd"), (b"\x01\x1b\x7f\xc2\x85", "????"), (HOSTILE, None)):
        pathlib.Path(os.fsdecode(name)).write_bytes(OBJECT)
        try:
            root = xml.etree.ElementTree.fromstring(run("map", name, "-o", "-").stdout)
        except xml.etree.ElementTree.ParseError as error:
            check(False, name, str(error))
            continue
        text = next(element.text for element in root.iter() if element.get("class") == "name")
        check(not unsafe(text.encode()) and drawn in (text, None), name, text)


def limit_memory():
    if "CRRECORD_SANITIZED" not in os.environ:  # a sanitizer's shadow memory is larger
        resource.setrlimit(resource.RLIMIT_AS, (256 << 20, 256 << 20))


def put(name, at, content):
    with open(name, "r+b") as file:
        file.seek(at)
        file.write(content)


def differences(record, name):
    done = run("verify", "--json", record, name, timeout=40, preexec_fn=limit_memory)
    printed = json.loads(done.stdout)
    check(printed["size"] == str(os.stat(name).st_size), record, name, printed)
    check(printed["same"] == (done.returncode == 0), record, name, done)
    return [] if printed["same"] else printed["differences"] or [printed["expected_size"]]


def sparse():
    size = 7 << 60
    pathlib.Path("huge").touch()
    while size:
        try:
            os.truncate("huge", size)
            break
        except OSError:  # more than this file system takes
            size //= 2
    pathlib.Path("small").write_bytes(b"start")
    run("build", "small", "-o", "small.do")
    check(differences("small.do", "huge")[0]["what"] == "segment", "a hole for data")
    put("huge", 0, b"start")
    check(differences("small.do", "huge") == ["5"], "a larger size")
    put("huge", size - 3, b"end")
    run("build", "huge", "-o", "huge.do", timeout=40)
    check(differences("huge.do", "huge") == [], "the same")
    put("huge", size // 2 + 1, b"x")
    check(differences("huge.do", "huge")[0]["data_at"] == str(size // 2 + 1), "data in a gap")

    # Holes begin and end within segments and between them.
    os.truncate("small", 0)
    os.truncate("small", 16 << 20)
    for at, count in ((0, 1), (5 << 20, 200000), (9 << 20, 131072), ((12 << 20) - 5, 10), ((16 << 20) - 1, 1)):
        put("small", at, b"d" * count)
    pathlib.Path("dense").write_bytes(pathlib.Path("small").read_bytes())
    for options in (["--dotype", "1"], ["--dotype", "2", "--segment-size", "100003"], ["--dotype", "3"],
                    ["--dotype", "5", "--segment-size", "8M"]):
        for built in ("small", "dense"):
            run("build", built, "-o", "record", *options)
            check(not differences("record", "small") + differences("record", "dense"), built, options)
    put("small", 11 << 20, b"x")
    check([one["what"] for one in differences("record", "small")] == ["segment", "CRC"],
          "data in one segment that was a hole")

    put("huge", 0, bytes(5))
    pathlib.Path("long").write_bytes(b"0000  61\n#" + 65536 * b"-" + b"\n")
    pathlib.Path("longest").write_bytes(b"#" + 65535 * b"-" + b"\n0000  61\n" + b"#" + 65535 * b"-")
    for text, status, words in (("huge", 2, b"huge: line 1 has more than 65536 bytes"), ("longest", 0, b""),
                                ("long", 2, b"long: line 2 has more than 65536 bytes")):
        done = run("annotate", "--reverse", text, "-o", "out", timeout=40, preexec_fn=limit_memory)
        check(done.returncode == status and words in done.stderr, text, done)


part = {"terminal": terminal, "progress": progress, "names": names, "picture": picture, "sparse": sparse}[sys.argv[1]]
if part in (terminal, progress) and not os.path.exists("/dev/ptmx"):
    sys.exit(77)
with tempfile.TemporaryDirectory() as folder:
    os.chdir(folder)
    part()
if failures:
    sys.exit("\n".join(failures))
