"""SegmentSet against dictionaries, over records that tests/golden/make.py writes."""
import collections
import copy
import importlib.util
import logging
import os
import pathlib
import pickle
import random
import re
import subprocess
import sys
import tempfile
import threading
import unittest
import warnings

from crrecord import Error, SegmentSet
from golden import GOLDEN, ROOT

sys.path.insert(0, str(GOLDEN))
import make  # noqa: E402

MASK = 2 ** 64 - 1

def part_of(dcid, fptype, fingerprint, parts):
    """The part of a segment, which all workers must agree on, whatever their version."""
    def mix(a, b):
        return a * b & MASK ^ a * b >> 64
    first, second = 0x9E3779B97F4A7C15, 0xC2B2AE3D27D4EB4F
    words = [int.from_bytes(fingerprint.ljust(32, b"\0")[at:at + 8], "big") for at in range(0, 32, 8)]
    value = mix(dcid ^ first, second - fptype)
    value = mix(words[0] ^ value, words[1] ^ second)
    value = mix(words[2] ^ value, words[3] ^ second)
    return mix(value ^ first, second) * parts >> 64

class Expected:
    """The greatest size of each segment, and the segments with several sizes."""
    def __init__(self, segments):
        self.sizes, self.conflicts = {}, set()
        for key, size in segments:
            if self.sizes.setdefault(key, size) != size:
                self.conflicts.add(key)
            self.sizes[key] = max(self.sizes[key], size)

    def totals(self):
        containers = collections.Counter()
        for (dcid, *_), size in self.sizes.items():
            containers[dcid] += size
        return len(self.sizes), sum(self.sizes.values()), len(self.conflicts), dict(sorted(containers.items()))

def totals(found):
    containers = found.bytes_by_container()
    assert list(containers) == sorted(containers)
    return len(found), found.bytes, found.conflicts, containers

def merged(sets):
    whole = SegmentSet()
    for part in sets:
        whole |= part
    return whole

def records(seed, count):
    """Records, some of each other kind, and the segments of the DO records."""
    chosen, stream, segments = random.Random(seed), [], []
    for _ in range(count):
        fptype, pieces, prints = chosen.randrange(4), [], []
        for _ in range(chosen.randrange(60)):
            # Few fingerprints and containers, so that many segments are repeated; some with another size.
            prints.append(make.fingerprint(fptype, b"%d" % chosen.randrange(40)))
            pieces.append((100 + (chosen.random() < .05), chosen.choice((64, 65, 2 ** 63 + 5)), 0))
        record = make.do_record(chosen.choice((2, 3, 5)), fptype, pieces, prints=prints) if pieces else make.segment(fptype)
        stream.append(record[chosen.choice(("host", "network"))])
        segments += [((dcid, fptype, print_), size) for print_, (size, dcid, _) in zip(prints, pieces)]
    bloom = make.do_record(4, 2, listed=[(64, 9)], bitmap=b"!", size=9)["host"]
    return b"".join(stream) + bloom, segments

class SegmentSets(unittest.TestCase):
    def setUp(self):
        streams = [records(seed, 40) for seed in range(5)]
        self.streams, self.segments = [data for data, _ in streams], [segments for _, segments in streams]
        self.expected = Expected(sum(self.segments, []))
        self.whole = SegmentSet()
        self.whole.update(self.streams)

    def test_sums_are_those_of_a_dictionary(self):
        self.assertGreater(len(self.expected.conflicts), 3)
        self.assertEqual(totals(self.whole), self.expected.totals())
        with tempfile.TemporaryDirectory() as folder:
            for i, (data, segments) in enumerate(zip(self.streams, self.segments)):
                (path := pathlib.Path(folder, str(i))).write_bytes(data)
                self.assertEqual(totals(SegmentSet.from_file(path)), Expected(segments).totals())
        self.assertEqual(totals(SegmentSet()), (0, 0, 0, {}))
        self.assertGreater(sys.getsizeof(self.whole), 60 * len(self.whole))

    def test_many_segments(self):  # more than are added between two uses of the index
        many = [make.do_record(3, 0, [(7, 64 + i % 3, 0)] * 1000, size=7000,
                               prints=[(i * 800 + k).to_bytes(16, "big") for k in range(1000)])["host"] for i in range(250)]
        expected = Expected((((64 + i % 3), i * 800 + k), 7) for i in range(250) for k in range(1000))
        found = SegmentSet()
        found.update(b"".join(many))
        self.assertEqual(totals(found), expected.totals())
        self.assertEqual(totals(merged([found] + found.split(3))), expected.totals())

    def test_parts_merge_in_any_order(self):
        for count in (1, 2, 7):
            parts = self.whole.split(count)
            expected = collections.Counter(part_of(*key, count) for key in self.expected.sizes)
            self.assertEqual([len(part) for part in parts], [expected[i] for i in range(count)])
            self.assertEqual(totals(merged(parts[::-1])), self.expected.totals())
        # Parts of the same number of several sets are disjoint from all others, so their sums can be added.
        sets = [SegmentSet() for _ in self.streams]
        for one, data in zip(sets, self.streams):
            one.update(data)
        columns = [merged(column) for column in zip(*(one.split(3) for one in sets))]
        self.assertEqual(sum(map(len, columns)), len(self.whole))
        self.assertEqual(totals(merged(columns)), self.expected.totals())
        self.assertRaises(ValueError, self.whole.split, 0)
        self.assertRaises((TypeError, ValueError), self.whole.split, -1)

    def test_other_processes_split_alike(self):
        script = ("import pickle, sys\nwhole = pickle.load(sys.stdin.buffer)\n"
                  "print([sorted(part.bytes_by_container().items()) for part in whole.split(4)])")
        ran = subprocess.run([sys.executable, "-c", script], input=pickle.dumps(self.whole), capture_output=True, check=True)
        self.assertEqual(ran.stdout.decode().strip(),
                         str([list(part.bytes_by_container().items()) for part in self.whole.split(4)]))

    def test_pickles_and_copies(self):
        for given in (self.whole, *self.whole.split(2), SegmentSet()):
            for protocol in range(pickle.HIGHEST_PROTOCOL + 1):
                self.assertEqual(totals(pickle.loads(pickle.dumps(given, protocol))), totals(given))
            buffers = []
            data = pickle.dumps(given, 5, buffer_callback=buffers.append)
            self.assertLess(len(data), 100)
            self.assertEqual(totals(pickle.loads(data, buffers=map(bytearray, buffers))), totals(given))
        other = copy.copy(self.whole)
        other.update(make.do_record(3, 0, [(1, 77, 0)])["host"])
        self.assertEqual(len(other), len(self.whole) + 1)

    def test_pickles_are_checked(self):
        restore, (state, skipped) = self.whole.__reduce_ex__(2)
        narrow = sum(fptype != 3 for _, fptype, _ in self.expected.sizes)
        self.assertEqual(state[:16], narrow.to_bytes(8, "big") + (len(self.whole) - narrow).to_bytes(8, "big"))
        last = 16 + 30 * narrow  # the first segment with 32 bytes
        for bad in (b"", state[:15], state[:-1], state + b"\0", b"\xff" * 16, state[:7] + b"\1" + state[8:],
                    state[:16 + 12] + b"\4" + state[16 + 13:], state[:16 + 12] + b"\3" + state[16 + 13:],
                    state[:16 + 13] + b"\2" + state[16 + 14:], state[:last + 12] + b"\0" + state[last + 13:]):
            with self.assertRaisesRegex(Error, "not a serialized set"):
                restore(bad, 0)
        self.assertRaises(TypeError, restore, state, -1)
        twice = (2).to_bytes(8, "big") + bytes(8) + 2 * state[16:46]
        self.assertEqual(len(restore(twice, 0)), 1)
        self.assertEqual(totals(restore(memoryview(state), 0)), self.expected.totals())

    def test_bad_records(self):
        data = self.streams[0] + b"?" * 100
        found = SegmentSet()
        with self.assertRaisesRegex(Error, r"source 1: record 82: .*unknown kind") as caught:
            found.update([self.streams[1], data, self.streams[2]])
        self.assertEqual(caught.exception.position, len(self.streams[0]))
        self.assertEqual((totals(found), found.skipped), (Expected(self.segments[0] + self.segments[1]).totals(), 0))
        found = SegmentSet()
        found.update([data, data, self.streams[1]], on_error="skip")
        self.assertEqual((totals(found), found.skipped), (Expected(self.segments[0] + self.segments[1]).totals(), 2))
        self.assertEqual(merged(found.split(3) + [pickle.loads(pickle.dumps(found))]).skipped, 4)
        self.assertRaises(FileNotFoundError, SegmentSet.from_file, "/nowhere")
        for use in (lambda: found.update(data, on_error="pass"), lambda: SegmentSet.from_file(b"records"),
                    lambda: found.update(5), lambda: merged([5])):
            self.assertRaises((TypeError, ValueError), use)

    def test_threads(self):
        with tempfile.TemporaryDirectory() as folder:  # only without the interpreter lock can the pipe be written
            os.mkfifo(path := os.path.join(folder, "pipe"))
            found = []
            reader = threading.Thread(target=lambda: found.append(SegmentSet.from_file(path)))
            reader.start()
            pathlib.Path(path).write_bytes(self.streams[0])
            reader.join()
        self.assertEqual(totals(found[0]), Expected(self.segments[0]).totals())
        one, other = self.whole.split(2)
        def merge(into, more):
            for _ in range(200):
                into |= more
                pickle.dumps(into, 5)
        threads = [threading.Thread(target=merge, args=pair) for pair in ((one, other), (other, one), (one, one))]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual((totals(one), totals(other)), (self.expected.totals(),) * 2)

    @unittest.skipUnless(importlib.util.find_spec("distributed"), "Dask's distributed is not installed")
    def test_example_of_the_document(self):
        from distributed import Client
        example, = re.findall(r"```python\n(from .*?)```", (ROOT / "docs" / "python.md").read_text(), re.DOTALL)
        exec(example, names := {})
        with tempfile.TemporaryDirectory() as folder:
            for i, data in enumerate(self.streams):
                pathlib.Path(folder, str(i)).write_bytes(data)
            paths = [str(path) for path in pathlib.Path(folder).iterdir()]
            with warnings.catch_warnings():
                warnings.simplefilter("ignore")  # of libraries that it uses
                client = Client(n_workers=2, threads_per_worker=1, dashboard_address=None, local_directory=folder,
                                silence_logs=logging.CRITICAL)
            with client:
                self.assertEqual(dict(sorted(names["live_bytes"](client, paths, 3).items())), self.expected.totals()[3])
