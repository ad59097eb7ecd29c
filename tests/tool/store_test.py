#!/usr/bin/python3
"""Whole stores: the verbs live, freed, lost and recall against plain dictionaries, over records of the golden generator.

    store_test.py answers | limits COMMAND GOLDEN
"""
import collections
import json
import os
import pathlib
import random
import re
import resource
import signal
import subprocess
import sys
import tempfile
import time

COMMAND, GOLDEN = os.path.abspath(sys.argv[2]), pathlib.Path(sys.argv[3]).resolve()
sys.path.insert(0, str(GOLDEN))
sys.dont_write_bytecode = True
import make  # noqa: E402

failures = []
Record = collections.namedtuple("Record", "data entries listed own own_bytes references size")
Stored = collections.namedtuple("Stored", "data segment size")


def check(holds, *detail):
    if not holds:
        failures.append(" ".join(str(part)[:900] for part in detail))


def run(*arguments, **more):
    return subprocess.run([COMMAND, *map(str, arguments)], capture_output=True, **{"timeout": 120, **more})


def answer(*arguments, **more):
    """The status, the lines by container, and the total."""
    done = run(*arguments, "--json", **more)
    lines = [json.loads(line) for line in done.stdout.splitlines()]
    check(lines and all(line.pop("schema") == 1 for line in lines), arguments, done.stderr)
    number = {line: {k: int(v) if isinstance(v, str) and v.isdigit() else v for k, v in members.items()}
              for line, members in enumerate([*lines[:-1], lines[-1].get("total", {})])}
    return done.returncode, [number[i] for i in range(len(lines) - 1)], number[len(lines) - 1]


class Store:
    """Random records. A fingerprint has mostly one size, so that there are few conflicts."""

    def __init__(self, seed, objects, most, in_container=4000):
        self.random, self.in_container = random.Random(seed), in_container
        sizes = [self.random.randint(0, most) for _ in range(objects)]
        self.records = tuple(self.an_object(count, dotype)
                             for count, dotype in [(n, None) for n in sizes] + [(60 * most, 3), (60 * most, 4)])
        needed = sorted({entry[:3]: entry[3] for r in self.records for entry in r.entries}.items())
        # Of the needed segments one in fifty is missing; others are stored that nothing needs.
        kept = [(segment, size) for segment, size in needed if self.random.random() > 0.02]
        unneeded = [((dcid, 3, bytes([dcid & 255]) * 32), 5000) for dcid in (64, 70, 1 << 62, 7)]
        self.stored = [self.a_segment_record(*pair) for pair in kept + unneeded + kept[:5]]
        self.stored.append(self.a_segment_record(kept[9][0], kept[9][1] + 1))  # a conflict with its entry

    def an_object(self, count, dotype=None):
        pick = self.random
        dotype = pick.randrange(6) if dotype is None else dotype
        fptype, wide, ssize = pick.randrange(4), pick.random() < 0.1, 100
        width = 32 if fptype == 3 else 16
        first = pick.randrange(40000 - count) if pick.random() < 0.5 else None  # a run, of which others have parts
        numbers = [pick.randrange(40000) if first is None else first + i for i in range(count)]
        sizes = [100 + (n % 7 if dotype not in (0, 1) else 0) + (pick.random() < 0.0005) * (dotype == 2) for n in numbers]
        if dotype in (0, 1) and count:
            sizes[-1] = pick.randint(1, 100)
        dcids = [(1 << 63) + n % 3 if wide else 64 + n // self.in_container for n in numbers]
        prints = [n.to_bytes(4, "big") * (width // 4) for n in numbers]
        references = [(pick.choice((2, 2, 4, 6)), pick.randrange(6)) for _ in range(pick.randrange(3))]
        legacy = ([pick.randrange(6)] * (pick.random() < 0.1), [5] * (pick.random() < 0.1))
        listed = tuple((64 + i, (i % 3 > 0) * pick.randrange(1 << 20)) for i in range(count)) if dotype == 4 else ()
        own = pick.choice((64, 66, 200, 9999))
        facts = dict(references=references, legacy=legacy, CID=own, ssize=ssize)
        if dotype == 4:
            entries, files = (), make.do_record(4, fptype, listed=listed, bitmap=b"b" * 3, size=177, **facts)
        else:
            entries = tuple(zip(dcids, [fptype] * count, prints, sizes))
            gap = 7 if dotype == 3 else 0
            pieces = [(size, dcid, gap) for size, dcid in zip(sizes, dcids)]
            files = make.do_record(dotype, fptype, pieces, prints=prints, **facts)
        data = files[pick.choice(("host", "network"))]
        held = frozenset([*references, *((2, t) for t in legacy[0]), *((4, d) for d in legacy[1])])
        size = 177 if dotype == 4 else sum(sizes) + (7 * count if dotype == 3 else 0)
        return Record(data, entries, listed, own, len(data) - 104, held, size)

    def a_segment_record(self, segment, size):
        files = make.segment(segment[1], pathid=segment[0], prints=[segment[2]], size=size)
        return Stored(files[self.random.choice(("host", "network"))], segment, size)

    def write(self, path, bad=b""):
        """Both kinds mixed, with bad records between them."""
        parts = [r.data for r in self.records] + [s.data for s in self.stored]
        self.random.shuffle(parts)
        middle = len(parts) // 2
        path.write_bytes(b"".join(parts[:middle]) + bad + b"".join(parts[middle:]))


def sizes_of(records, stored=()):
    sizes = collections.defaultdict(list)
    for record in records:
        for entry in record.entries:
            sizes[entry[:3]].append(entry[3])
    for segment in stored:
        sizes[segment.segment].append(segment.size)
    return sizes


def containers_of(record):
    return {record.own, *(entry[0] for entry in record.entries), *(dcid for dcid, _ in record.listed)}


def bloom_bytes(records):
    return sum((collections.Counter(dict(r.listed)) for r in records), collections.Counter())


def by_container(sizes):
    result = collections.defaultdict(lambda: [0, 0])
    for segment, all_sizes in sizes.items():
        result[segment[0]][0] += 1
        result[segment[0]][1] += max(all_sizes)
    return result


def live(records, stored, percent):
    needed, have = sizes_of(records), sizes_of((), stored)
    missing = {segment: sizes for segment, sizes in needed.items() if segment not in have}
    parts = [by_container(sizes) for sizes in (needed, have, missing)]
    lines = []
    uses = collections.Counter(entry[0] for r in records for entry in r.entries)
    need = collections.Counter(dcid for r in records for dcid in containers_of(r))
    bloom, in_blooms = bloom_bytes(records), {dcid for r in records for dcid, _ in r.listed}
    for dcid in sorted(set(need) | set(parts[1])):
        line = {"dcid": dcid, "segments": parts[0][dcid][0], "bytes": parts[0][dcid][1],
                "uses": uses[dcid], "records": need[dcid], "bloom_bytes": bloom[dcid],
                "own_bytes": sum(r.own_bytes for r in records if r.own == dcid)}
        if stored:
            line |= {"stored_segments": parts[1][dcid][0], "stored_bytes": parts[1][dcid][1],
                     "missing_segments": parts[2][dcid][0], "missing_bytes": parts[2][dcid][1]}
            sparse = dcid not in in_blooms and 100 * line["bytes"] < percent * line["stored_bytes"]
            line["state"] = "dead" if not line["records"] else "sparse" if sparse else "live"
        lines.append(line)
    total = {name: sum(line[name] for line in lines) for name in ("segments", "bytes", "uses")}
    total |= {"conflicts": sum(len(set(s)) > 1 for s in sizes_of(records, stored).values()), "containers": len(lines)}
    if stored:
        total |= {name: sum(line[name] for line in lines)
                  for name in ("stored_segments", "stored_bytes", "missing_segments", "missing_bytes")}
        total |= {state: sum(line["state"] == state for line in lines) for state in ("dead", "sparse")}
    return lines, total


def fetches(records, cache):
    kept, count = [], 0
    for record in records:
        for dcid in [entry[0] for entry in record.entries] + [dcid for dcid, _ in record.listed]:
            count += dcid not in kept
            kept = ([dcid] + [other for other in kept if other != dcid])[:cache]
    return count


def answers():
    faults = {"flags": make.do_record(2, 3, make.THREE, flags=1)["host"],
              "file id": make.segment(0, fileid=1)["network"], "prints": make.segment(1, count=2)["host"]}
    for seed, objects, most, held, percent in ((1, 60, 40, False, 50), (2, 400, 120, True, 30), (3, 3, 0, True, 100)):
        store = Store(seed, objects, most) if most else Store(1, 60, 40)
        records = store.records if most else store.records[:3]
        with tempfile.TemporaryDirectory() as folder:
            path, objects_only = pathlib.Path(folder, "store"), pathlib.Path(folder, "objects")
            store.write(path, b"".join(faults.values()))
            objects_only.write_bytes(b"".join(r.data for r in records))
            check_live(store if most else None, records, path, objects_only, held, percent)
            check_freed(records, objects_only)
            check_lost(records, objects_only)
            check_recall(records, objects_only)
    check(run("live", "-", input=b"").returncode == 1, "an empty input")
    sums_too_large()


def sums_too_large():
    """Records that would make a sum of sizes too large are bad, and the others count: of 2^63 bytes and one more."""
    most, odd = 1 << 63, dict(references=[(2, 3)], size=177)
    bloom = [make.do_record(4, 3, listed=listed, bitmap=b"b", **odd)["host"]
             for listed in ([(64, most - 1), (65, 1)], [(64, 1)], [(65, 0)], [(66, most), (64, most)])]
    segment = [make.segment(3, pathid=70, prints=[bytes([i]) * 32], size=size)["host"]
               for i, size in enumerate((9, most, (1 << 64) - 1, 1 << 32))]
    for verb, parts, bad, counted in (("live", bloom, (2, 4), ("records", 2)),
                                      ("recall", bloom, (2, 4), ("containers", 2)),
                                      ("freed --reference task:3", bloom, (2, 4), ("records", 2)),
                                      ("lost --container 64 --container 65", bloom, (2, 4), ("bloom_bytes", most)),
                                      ("live", segment, (3, 4), ("stored_bytes", most + 9))):
        done = run(*verb.split(), "--json", "-", input=b"".join(parts))
        total = json.loads(done.stdout.splitlines()[-1])["total"]
        places = [f"record {n} at byte {sum(map(len, parts[:n - 1]))}:" for n in bad]
        errors = done.stderr.decode().splitlines()
        check(done.returncode == 1 and len(errors) == 2 and all(p in e for p, e in zip(places, errors)), verb, errors)
        check((total[counted[0]], total["bad_records"]) == (str(counted[1]), "2"), verb, total)


def check_live(store, records, path, objects_only, held, percent):
    counted = tuple(r for r in records if r.references or not held)
    options = ["--held"] * held + ["--sparse", percent]
    for stored, file in ([(store.stored, path)] if store else []) + [((), objects_only)]:
        status, lines, total = answer("live", file, *options)
        expected, sums_of_all = live(counted, stored, percent)
        sums_of_all |= {"records": len(records), "held": sum(bool(r.references) for r in records),
                        "bad_records": 3 if stored else 0, "skipped_bytes": 0, "unread_bytes": 0,
                        "complete": not stored}
        check(lines == expected, "live", next((pair for pair in zip(lines, expected) if pair[0] != pair[1]), ""))
        check(total == sums_of_all, "live", total, sums_of_all)
        check(status == int(bool(stored) or total["conflicts"] != 0), "live: status", status)
        if stored:
            page = file.with_name("page.html")
            complaints = run("live", file, *options, "--html", page).stderr.decode().splitlines()
            check_page(page.read_text(), expected, {dcid for r in counted for dcid, _ in r.listed})
            check(len(complaints) == 3 and all(f"{file}: record " in line and " at byte " in line
                                               for line in complaints), complaints)


def check_page(page, lines, in_blooms):
    """It loads nothing, and its rows have the numbers of the lines."""
    check(not re.search("<script|<link|<img|http:|url[(]|@import| on[a-z]+=", page), "the page loads something")
    rows = dict(re.findall(r'<th scope="row">([^<]*)</th>.*?<td>([^<]*)</td></tr>', page))
    parts = collections.Counter("dead" if line["state"] == "dead" else
                                f"{(part := min(10 * line['bytes'] // line['stored_bytes'], 9) * 10)} to {part + 10} %"
                                for line in lines if line["state"] == "dead" or
                                (line["stored_bytes"] and line["dcid"] not in in_blooms))
    seen = {name: int(text.split()[0]) for name, text in rows.items() if name == "dead" or name.endswith("%")}
    check({name: n for name, n in seen.items() if n} == dict(parts), "page", seen, parts)
    check(rows["missing"].split()[0] != "0", "page: missing", rows)


def check_freed(records, path):
    dropped = {(2, 3), (4, 5), (6, 1)}
    now = tuple(r for r in records if r.references)
    later = tuple(r for r in now if r.references - dropped)
    before, after = ({line["dcid"]: line for line in live(part, (), 50)[0]} for part in (now, later))
    none = dict.fromkeys(("segments", "bytes", "bloom_bytes", "own_bytes", "records"), 0)
    expected = []
    for dcid, line in before.items():
        rest = after.get(dcid, none)
        lost = {n: line[n] - rest[n] for n in ("segments", "bytes", "bloom_bytes", "own_bytes")}
        if any(lost.values()) or rest["records"] == 0:
            expected.append({"dcid": dcid, **lost, "dead": rest["records"] == 0})
    _, lines, total = answer("freed", path, "--reference", "task:3", "--reference", "dsid:5", "--reference", "ref6:1")
    check(lines == expected, "freed", lines[:2], expected[:2])
    wanted = {"records": len(now) - len(later), "segments": sum(e["segments"] for e in expected),
              "bytes": sum(e["bytes"] for e in expected), "containers": sum(e["dead"] for e in expected)}
    check(wanted.items() <= total.items(), "freed", total, wanted)


def check_lost(records, path):
    lost, at, expected = {65, 200, 1 << 63}, 0, []
    for number, r in enumerate(records, 1):
        sizes = [entry[3] for entry in r.entries if entry[0] in lost]
        if containers_of(r) & lost:
            expected.append({"file": str(path), "record": number, "offset": at, "segments": len(sizes),
                             "bytes": sum(sizes), "bloom_bytes": sum(b for d, b in r.listed if d in lost),
                             "object_bytes": r.size, "own": r.own in lost})
        at += len(r.data)
    status, lines, total = answer("lost", path, *(word for dcid in lost for word in ("--container", dcid)))
    check(lines == expected and status == 0, "lost", lines[:2], expected[:2])
    wanted = {"records": len(lines), **{n: sum(e[n] for e in expected) for n in ("segments", "bytes", "bloom_bytes")}}
    check(wanted.items() <= total.items(), "lost", total, wanted)


def check_recall(records, path):
    order = dict.fromkeys(d for r in records for d in [e[0] for e in r.entries] + [d for d, _ in r.listed])
    sizes, bloom = by_container(sizes_of(records)), bloom_bytes(records)
    need = collections.Counter(d for r in records for d in containers_of(r._replace(own=-1)))
    expected = [{"dcid": d, "segments": sizes[d][0], "bytes": sizes[d][1],
                 "bloom_bytes": bloom[d], "records": need[d]} for d in order]
    _, lines, total = answer("recall", path, "--cache", 3)
    check(lines == expected, "recall", lines[:2], expected[:2])
    wanted = {"containers": len(order), "segments": sum(e["segments"] for e in expected), "records": len(records),
              "bytes": sum(e["bytes"] for e in expected), "fetches": fetches(records, 3)}
    check(wanted.items() <= total.items(), "recall", total, wanted)


def limits():
    """The same bytes for any memory and number of processors; nothing stays in the temporary folder."""
    with tempfile.TemporaryDirectory() as folder:
        path, temp = pathlib.Path(folder, "store"), pathlib.Path(folder, "temp")
        temp.mkdir()
        Store(4, 500, 250, 20000).write(path)  # containers that do not fit: their partitions are partitioned again
        one = dict(preexec_fn=lambda: os.sched_setaffinity(0, {min(os.sched_getaffinity(0))}))
        little = ("--memory", "1M", "--temp", temp)
        for verb in (("live", "--json"), ("live", "--held"), ("freed", "--reference", "task:3"), ("recall",)):
            expected = run(*verb, path)
            check(expected.stdout and not expected.stderr, verb, expected.stderr)
            for options, more in ((little, {}), (little, one), ((), one)):
                done = run(*verb, path, *options, **more)
                check((done.stdout, done.returncode) == (expected.stdout, expected.returncode), verb, options,
                      done.stderr)
        full = dict(restore_signals=False, preexec_fn=limit_files)
        for verb in (("live",), ("freed", "--reference", "task:3"), ("recall",)):
            for complaint, options, more in ((f"{temp}: cannot write a temporary file: File too large", little, full),
                                             ("/nowhere: cannot create a temporary file: No such file",
                                              ("--memory", "1M", "--temp", "/nowhere"), {}),
                                             ("expected a number of bytes of 1048576 to", ("--memory", "1048575"), {})):
                done = run(*verb, path, *options, **more)
                check(done.returncode == 2 and complaint in done.stderr.decode(), verb, complaint, done.stderr)
            interrupt(verb, path, temp, little)
            check(not list(temp.iterdir()), verb, "still there:", list(temp.iterdir()))
        if "CRRECORD_SANITIZED" not in os.environ:
            usage = memory_of("live", path, *little)
            check(usage < (1 + 32) << 20, "bytes of memory:", usage)


def limit_files():
    signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
    resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 19, 1 << 19))


def interrupt(verb, path, temp, options):
    """SIGTERM while there is a temporary file."""
    with subprocess.Popen([COMMAND, *verb, "-", *options], stdin=subprocess.PIPE, stderr=subprocess.PIPE) as process:
        process.stdin.write(path.read_bytes())
        process.stdin.flush()
        files, end = pathlib.Path(f"/proc/{process.pid}/fd"), time.monotonic() + 60
        while not any(str(temp) in os.readlink(file) for file in files.iterdir()) and time.monotonic() < end:
            time.sleep(0.01)
        check(time.monotonic() < end, "no temporary file")
        process.send_signal(signal.SIGTERM)
        check(process.wait() == -signal.SIGTERM, "SIGTERM:", process.returncode)


def memory_of(*arguments):
    # By a new interpreter: a process has at least the memory of the one that forked it.
    program = ("import resource, subprocess, sys; subprocess.run(sys.argv[1:], stdout=subprocess.DEVNULL);"
               "print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)")
    return int(subprocess.check_output([sys.executable, "-c", program, COMMAND, *map(str, arguments)])) * 1024


{"answers": answers, "limits": limits}[sys.argv[1]]()
sys.exit("\n".join(failures) or 0)
