"""crrecord.cluster against the command, with a scheduler and two worker processes on the loopback address."""
import contextlib
import hashlib
import importlib.util
import json
import os
import pathlib
import random
import signal
import subprocess
import sys
import tempfile
import time
import unittest

import crrecord.cluster
from crrecord import _store
from golden import GOLDEN, ROOT

sys.path.insert(0, str(GOLDEN))
import make  # noqa: E402

COMMAND = pathlib.Path(os.environ.get("CRRECORD_COMMAND", ROOT / "build/release/tools/crrecord"))
MISSING = ("python3-distributed" if not importlib.util.find_spec("distributed") else
           str(COMMAND) if not COMMAND.exists() else "")
MODULE = [sys.executable, "-m", "crrecord.cluster"]
ENVIRONMENT = {**os.environ, "PYTHONPATH": str(pathlib.Path(crrecord.__file__).parents[1])}
PIECE = 20_000  # bytes, so that a few megabytes are many tasks
LARGE = 1 << 62  # bytes that a list claims: two of them, and nothing more, are less than the limit for their sum


def records(seed, count):
    """Records of both kinds: shared segments, some of several sizes, some missing, and lists of bloom records."""
    pick = random.Random(seed)
    for _ in range(count):
        numbers = [pick.randrange(3000) for _ in range(pick.randrange(60))]
        prints = [hashlib.sha256(b"%d" % n).digest() for n in numbers]
        pieces = [(100 + n % 7 + (pick.random() < 0.002), 64 + n // 40, 7) for n in numbers]
        facts = dict(references=[(2, pick.randrange(6))] * pick.randrange(2), CID=pick.choice((64, 90, 9999)))
        listed = [(64 + i, i * 1000) for i in range(pick.randrange(9))]
        if pick.random() < 0.1:
            yield make.do_record(4, 3, listed=listed, bitmap=b"b", **facts)
        else:
            yield make.do_record(3, 3, pieces, prints=prints, **facts)
        for number in numbers[1:]:
            yield make.segment(3, pathid=64 + number // 40, prints=[hashlib.sha256(b"%d" % number).digest()],
                               size=100 + number % 7)


def write_store(folder):
    """Files of many pieces, of one, and of no record; bad records, and doubtful ones, are in and between pieces."""
    order = random.Random(1)
    whole = [files[order.choice(("host", "network"))] for files in records(2, 400)]
    damaged = bytearray(whole[7])
    damaged[84] ^= 0xFF
    (folder / "large").write_bytes(b"".join(whole[:900]) + bytes(damaged) + b"".join(whole[900:]))
    broken = [(ROOT / "tests/broken" / name).read_bytes() for name in ("do-recsize", "so-recsize", "do-list-count", "do-dcid")]
    (folder / "doubtful").write_bytes(b"".join(part for i, part in enumerate(whole[:600]) for part in
                                               (part, *([broken[i // 40 % len(broken)]] if i % 40 == 39 else []))))
    golden = [path.read_bytes() for path in sorted(GOLDEN.glob("*.host")) if "noted" not in path.name]
    (folder / "golden").write_bytes(b"".join(golden))
    (folder / "rest").write_bytes(whole[0] + b"no record, and all after it is not read" * 9000)
    (folder / "empty").write_bytes(b"")
    # Each record is valid, and the third one would make the sum of all too large.
    claims = [make.do_record(4, 3, listed=[(64 + i, LARGE)], bitmap=b"b")["host"] for i in range(3)]
    (folder / "claims").write_bytes(b"".join(claims + whole[:200] + claims))
    (folder / "odd \xff\n name".encode("latin-1").decode("utf-8", "surrogateescape")).write_bytes(whole[1] + b"x")


def command(*arguments):
    done = subprocess.run([COMMAND, arguments[0], "--json", *arguments[1:]], capture_output=True, timeout=60)
    return done.returncode, done.stdout, done.stderr


@contextlib.contextmanager
def process(*arguments):
    started = subprocess.Popen(arguments, env=ENVIRONMENT, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                               start_new_session=True)
    try:
        yield started
    finally:
        with contextlib.suppress(ProcessLookupError):
            os.killpg(started.pid, signal.SIGKILL)
        started.wait()


def scheduler(folder):
    return process(sys.executable, "-m", "distributed.cli.dask_scheduler", "--host", "127.0.0.1", "--port", "0",
                   "--no-dashboard", "--scheduler-file", str(folder / "scheduler"))


def worker(folder):
    return process(sys.executable, "-m", "distributed.cli.dask_worker", "--scheduler-file", str(folder / "scheduler"),
                   "--nthreads", "1", "--no-dashboard", "--no-nanny", "--local-directory", str(folder))


def address(folder):
    wait_for(lambda: (folder / "scheduler").exists() and (folder / "scheduler").read_text().strip().endswith("}"))
    return json.loads((folder / "scheduler").read_text())["address"]


def wait_for(condition, seconds=60):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError
        time.sleep(0.002)


def finished(work):
    """The complete work files, by name; a file that is written again has another number."""
    return {path.name: path.stat().st_ino for path in work.glob("?" * 64)} if work.exists() else {}


@unittest.skipIf(MISSING, f"{MISSING} is missing")
class Cluster(unittest.TestCase):
    maxDiff = 2000

    @classmethod
    def setUpClass(cls):
        stack = contextlib.ExitStack()
        cls.addClassCleanup(stack.close)
        cls.folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory()))
        cls.store = cls.folder / "store"
        cls.store.mkdir()
        write_store(cls.store)
        stack.enter_context(scheduler(cls.folder))
        cls.address = address(cls.folder)
        cls.workers = [stack.enter_context(worker(cls.folder)) for _ in range(2)]

    def setUp(self):
        self.work = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def enterContext(self, context):  # new in Python 3.11
        self.addCleanup(context.__exit__, None, None, None)
        return context.__enter__()

    def start(self, address, *arguments):
        return subprocess.Popen([*MODULE, *arguments, "--work", str(self.work), "--scheduler", address,
                                 "--piece", str(PIECE)], env=ENVIRONMENT, stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def end(self, started):
        out, error = started.communicate(timeout=120)
        return started.returncode, out, error

    def test_equals_the_command(self):
        files = sorted(self.store.iterdir())
        good = [self.store / "golden", self.store / "large"]
        for arguments in (["live", *files], ["live", "--held", "--sparse", "99", *good],
                          ["freed", "--reference", "task:1", "--reference", "task:17", *files],
                          ["recall", "--cache", "3", *files], ["recall", "--cache", "70", *files], ["recall", *good],
                          ["lost", "--container", "64", "--container", "70", *files],
                          ["validate", *files], ["validate", "--bad-only", "--first", *files],
                          ["live", "--scan", *files], ["validate", "--scan", *files]):
            arguments = list(map(str, arguments))
            with self.subTest(arguments[:4]):
                self.assertEqual(self.end(self.start(self.address, *arguments)), command(*arguments))

    def test_piece_size_does_not_change_the_output(self):
        files = [str(self.store / name) for name in ("claims", "doubtful", "large")]
        for piece, chosen in (("4000", files[:2]), ("150000", files)):
            arguments = ["recall", "--cache", "5", *chosen]
            started = subprocess.Popen([*MODULE, *arguments, "--work", str(self.work), "--piece", piece, "--scheduler",
                                        self.address], env=ENVIRONMENT, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            with self.subTest(piece):
                self.assertEqual(self.end(started), command(*arguments))

    def test_functions_return_lines_and_status(self):
        from distributed import Client

        with Client(self.address) as client:
            answer = crrecord.cluster.live(client, [self.store / "g*n"], work=self.work)
            self.assertEqual((answer.lines[0]["schema"], "total" in answer.lines[-1], answer.status), (1, True, 1))
            answer = crrecord.cluster.validate(client, [self.store / "rest"], work=self.work, bad_only=True)
            self.assertEqual((len(answer.lines), answer.status), (3, 1))
            self.assertIn("not read", answer.messages[0])
            with self.assertRaises(FileNotFoundError):
                crrecord.cluster.live(client, [self.store / "none*"], work=self.work)
            with self.assertRaises(ValueError):
                crrecord.cluster.lost(client, [self.store / "golden"], work=self.work, containers=[])

    def test_runs_at_once_in_two_folders(self):
        arguments = ["lost", "--container", "64", str(self.store / "large")]
        one, self.work = self.start(self.address, *arguments), self.work / "other"
        two = self.start(self.address, *arguments)
        self.assertEqual([self.end(one), self.end(two)], [command(*arguments)] * 2)

    def test_damage_to_a_piece_never_changes_the_sums(self):
        folder, piece, sums = os.fsencode(self.work), "a" * 64, "b" * 64
        path, facts = self.store / "golden", (self.store / "golden").stat()
        part = (b"golden", os.fsencode(path), 0, 1, (1 << 64) - 1, facts.st_size, facts.st_mtime_ns)
        _store._scan_store([part], False, 0, (folder, piece), held=False, stored=True, dropped=[], own=True, cache=0,
                           partitions=1, key=7)
        whole, found = (self.work / piece).read_bytes(), 0

        def total(content):
            (self.work / piece).write_bytes(content)
            _store._total(folder, [piece], 0, False, 1 << 20, folder, (folder, sums))
            return (self.work / sums).read_bytes()

        right = total(whole)
        for at in range(0, len(whole), 5):
            try:
                self.assertEqual(total(whole[:at] + bytes([whole[at] ^ 4]) + whole[at + 1:]), right)
            except crrecord.Error:
                found += 1
        self.assertGreater(found, len(whole) // 5 * 0.6)  # the others are in messages, which the sums do not need
        for end in range(0, len(whole), 97):
            with self.assertRaisesRegex(crrecord.Error, "is damaged"):
                total(whole[:end])
        with self.assertRaisesRegex(crrecord.Error, "golden: file changed"):
            _store._scan_lost([(*part[:6], 1)], False, 0, (folder, piece), containers=[64])

    @unittest.skipUnless(importlib.util.find_spec("mypy"), "mypy is not installed")
    def test_passes_mypy_strict(self):
        (self.work / "distributed.pyi").write_text("class Client: ...\n")  # mypy would read all of Dask for minutes
        ran = subprocess.run([sys.executable, "-m", "mypy", "--strict", "--follow-imports=silent",
                              f"--cache-dir={self.work}", "-p", "crrecord.cluster"], capture_output=True, text=True,
                             env={"MYPYPATH": f"{self.work}:{ENVIRONMENT['PYTHONPATH']}"})
        self.assertEqual((ran.returncode, ran.stdout), (0, "Success: no issues found in 4 source files\n"))

    def test_unreadable_file_ends_the_run_with_its_name(self):
        (self.folder / "gone\x1b").symlink_to(self.folder)
        status, out, error = self.end(self.start(self.address, "lost", "--container", "1", str(self.folder / "gone\x1b")))
        self.assertEqual((status, out), (2, b""))
        self.assertIn(b"gone?: is not a regular file", error)
        status, _, error = self.end(self.start(self.address, "live", str(self.folder / "none\x7f")))
        self.assertEqual((status, error.count(b"/none?: no such file")), (2, 1))

    def test_damaged_work_file_is_an_error_with_its_name(self):
        arguments = ["live", str(self.store / "large")]
        self.end(self.start(self.address, *arguments))
        for path in self.work.glob("?" * 64):
            data = bytearray(path.read_bytes())
            if b"CRWORK" in data:
                data[20] ^= 1
                path.write_bytes(data)
        status, out, error = self.end(self.start(self.address, *arguments))
        self.assertEqual(status, 2)
        self.assertRegex(error, rb"/[0-9a-f]{64}: is damaged: remove it and run again")

    def test_damaged_index_is_made_again(self):
        large = str(self.store / "large")
        self.end(self.start(self.address, "lost", "--container", "64", large))
        indexes = [path for path in self.work.glob("?" * 64) if b"\n[[" in path.read_bytes()[:100]]
        self.assertEqual(len(indexes), 1)
        digest, text = indexes[0].read_text().split("\n")
        marks = json.loads(text)
        marks[-1][0] += 1  # no record starts there
        indexes[0].write_text(digest + "\n" + json.dumps(marks))
        self.assertEqual(self.end(self.start(self.address, "validate", large)), command("validate", large))

    def test_killed_worker_does_not_change_the_output(self):
        arguments = ["live", *map(str, sorted(self.store.iterdir()))]
        started = self.start(self.address, *arguments)
        wait_for(lambda: len(finished(self.work)) > 3)
        self.workers[1].kill()
        self.assertEqual(self.end(started), command(*arguments))

    def test_run_after_a_killed_scheduler_repeats_no_finished_task(self):
        arguments = ["live", *map(str, sorted(self.store.iterdir()))]
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        first = self.enterContext(scheduler(folder))
        started = self.start(address(folder), *arguments)
        with worker(folder):
            wait_for(lambda: len(finished(self.work)) > 3)
            first.kill()
            self.assertEqual(self.end(started)[0], 2)
        before = finished(self.work)
        self.assertEqual(self.end(self.start(self.address, *arguments)), command(*arguments))
        after = finished(self.work)
        self.assertEqual({name: after[name] for name in before}, before)
        self.assertGreater(len(after), len(before))
