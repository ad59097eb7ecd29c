"""Streams, sequences, pickles, threads and signals."""
import collections
import collections.abc
import copy
import itertools
import pickle
import signal
import struct
import sys
import threading
import time
import unittest

import crrecord
from crrecord import DORecord, DOType, Error, FPType, ReferenceKind, Segment, SegmentView, SORecord, View, read_segments, records
from golden import JSON, stored

GOLDEN, SO = stored("do3-md5-gaps", "host")[0], stored("so-path", "network")[0]
BROKEN = GOLDEN[:0x60] + b"\x51" + GOLDEN[0x61:]  # the first segment's size
LARGE = DORecord([(bytes(16), 1, i, 64 + i % 5) for i in range(200_000)], cid=64, fptype=0)

class Use(unittest.TestCase):
    def test_streams_locate_bad_records(self):
        stream = GOLDEN + BROKEN + SO + GOLDEN[:-1]
        read = records(stream)
        positions = [next(read).position]
        for position, reason, next_position in ((288, "Invalid DO record: segment 1", 576), (704, "buffer ends", 704)):
            with self.assertRaisesRegex(Error, f"^record at byte {position}: .*{reason}") as caught:
                for record in read:
                    positions.append(record.position)
            self.assertEqual((caught.exception.position, read.position), (position, next_position))
            self.assertTrue(caught.exception.findings)
            self.assertEqual(pickle.loads(pickle.dumps(caught.exception)).position, position)
        self.assertEqual((positions, list(read)), ([0, 576], []))
        skipping, seen = records(stream, on_error="skip"), []
        calling = records(stream, on_error=seen.append)
        self.assertEqual([[record.position for record in read] for read in (skipping, calling)], [[0, 576]] * 2)
        self.assertEqual((skipping.skipped, calling.skipped, [error.position for error in seen]), (2, 2, [288, 704]))
        self.assertRaises(ZeroDivisionError, list, records(stream, on_error=lambda error: 1 // 0))
        self.assertRaises(ValueError, records, stream, on_error="ignore")

    def test_arrays_and_segments_are_sequences(self):
        view = View(GOLDEN)
        self.assertFalse([s for s in (view.dcids, view.segments) if not isinstance(s, collections.abc.Sequence)])
        for sequence in (view.segments, view.dcids, view.fingerprints, view.entries, view.unique_list):
            values = list(sequence)
            for part in (slice(1, None), slice(None, None, -1), slice(2, 0, -2), slice(5, 1)):
                self.assertEqual((list(sequence[part]), list(sequence[part][::-1])), (values[part], values[part][::-1]))
            for value in (*values, None, 3):
                self.assertEqual((sequence.count(value), value in sequence), (values.count(value), value in values))
            self.assertEqual((sequence.index(values[2], -1), list(reversed(sequence))), (2, values[::-1]))
            self.assertRaises(ValueError, sequence.index, values[0], 1)
            self.assertEqual((sequence[1:] == sequence[-2:], sequence == sequence[1:], sequence != values), (True, False, True))
            self.assertRaises(TypeError, hash, sequence)
        self.assertEqual(view.sizes, View(view.to_bytes("network")).sizes)

    def test_columns_of_all_types(self):
        data = DORecord([(bytes(16), 1, None, 64)] * 3, cid=64, size=250, segment_size=100, fptype=2, dotype=1)
        view = View(bytes(data))
        self.assertEqual((view.sizes.tolist(), view.offsets.tolist(), view.entries.tolist()),
                         ([100, 100, 50], [None] * 3, [(bytes(16),)] * 3))
        self.assertEqual(struct.unpack("=3Q", memoryview(view.offsets).tobytes()), (2**64 - 1,) * 3)
        self.assertEqual((view.dotype, view.fptype, data.dotype), (DOType.NO_SIZE, FPType.SHA256_128, DOType.NO_SIZE))
        self.assertIs(type(View(GOLDEN).references[0].kind), ReferenceKind)
        for name in ("entries", "fingerprints", "sizes", "offsets", "unique_list", "bloom"):
            try:
                array = getattr(View(stored("do4-md5", "host")[0] if name == "bloom" else GOLDEN), name)[::-1]
                numpy = __import__("numpy")
                self.assertEqual(array.to_numpy().tobytes(), numpy.asarray(array).tobytes())
                self.assertEqual((array.to_numpy().dtype, array.to_numpy().shape), (array.dtype, numpy.asarray(array).shape))
            except ImportError:
                pass

    def test_pickles_and_copies_are_equal_and_validated(self):
        for name, order in itertools.product(JSON, ("host", "network")):
            data = stored(name, order)[0]
            things = [View(data), DORecord.from_buffer(data)] if JSON[name]["kind"] == "do" else [SegmentView(data)]
            if len(data) == 104 and type(things[0]) is SegmentView:
                things.append(SORecord.from_buffer(data))
            for thing, make in itertools.product(things, (copy.copy, copy.deepcopy, lambda t: pickle.loads(pickle.dumps(t)))):
                if order == "network" and hasattr(thing, "to_network"):
                    thing.to_network()
                self.assertEqual((name, bytes(make(thing)), make(thing).order), (name, bytes(thing), thing.order))
        view = View(memoryview(b"?" + GOLDEN)[1:])
        for array in (view.entries, view.fingerprints, view.dcids[::-2], view.unique_list, view.bloom):
            same = pickle.loads(pickle.dumps(array))
            self.assertEqual((same, same.format), (array, array.format))
        for thing in (view, DORecord.from_buffer(GOLDEN)):
            self.assertRaises(Error, pickle.loads, pickle.dumps(thing).replace(GOLDEN[0x50:0x70], BROKEN[0x50:0x70]))
        restore, (name, packed, fields, structure) = view.dcids.__reduce__()
        for state in ((packed[1:], fields, structure), (packed, [], structure), (packed, [("x", 2, 0, False)], structure),
                      (packed, [("x", 8, 9, False)], structure), (packed, fields * 2, False)):
            self.assertRaises(ValueError, restore, name, *state)

    def test_views_compute_what_records_do(self):
        for name in (name for name in JSON if name.startswith("do")):
            view = View(stored(name, "network")[0])
            record = DORecord.from_buffer(bytes(view))
            self.assertEqual(view.digest(), record.digest())
            if len(view.unique_list):
                self.assertEqual(view.container_sizes(), record.container_sizes())
                if view.dotype == 4:
                    fields = dict(cid=view.cid, size=view.size, fptype=view.fptype)
                    for listed in (view.unique_list, view.unique_list.tolist(), record.unique_list):
                        made = DORecord.from_bloom(view.bloom, unique_list=listed, **fields)
                        self.assertEqual(made.unique_list, record.unique_list)
        self.assertEqual(View(bytes(LARGE)).digest(), LARGE.digest())
        self.assertEqual(DORecord.from_form(LARGE.serialize(), dotype=3, fptype=0).segments, LARGE.segments)

    def test_long_calls_release_the_lock(self):
        ran, stop = [], threading.Event()

        def count():
            while not stop.is_set():
                time.sleep(0.0001)
                ran.append(time.monotonic())

        def lets_others_run(call):
            before, start = len(ran), time.monotonic()
            call()
            end = time.monotonic()
            return any(start < moment < end for moment in ran[before:])
        thread, view = threading.Thread(target=count, daemon=True), View(bytes(LARGE))
        self.addCleanup(sys.setswitchinterval, sys.getswitchinterval())
        sys.setswitchinterval(60)  # only a call that releases the lock lets the other thread run
        thread.start()
        for call in (view.digest, LARGE.digest, LARGE.serialize, lambda: view.to_bytes("network")):
            self.assertTrue(any(lets_others_run(call) for _ in range(100)), call)
        stop.set()
        thread.join()

    def test_ctrl_c_ends_long_loops(self):
        old = signal.getsignal(signal.SIGALRM)

        def interrupt(*_):
            raise KeyboardInterrupt
        signal.signal(signal.SIGALRM, interrupt)
        try:
            def run(iterators):  # without Python code between two elements
                collections.deque(itertools.chain.from_iterable(iterators), maxlen=0)
            broken, large = BROKEN * 1_000_000, View(bytes(LARGE))
            for loop in (lambda: DORecord(itertools.repeat((bytes(16), 1, 0, 64), 30_000_000), cid=64, fptype=0),
                         lambda: list(records(broken, on_error="skip")),
                         lambda: run(map(records, itertools.repeat(GOLDEN, 10_000_000))),
                         lambda: run(itertools.repeat(large.dcids, 1000)),
                         lambda: read_segments(itertools.repeat(b"", 10_000_000)),
                         lambda: run([read_segments([bytes(LARGE)] * 3000)])):
                start = time.process_time()
                signal.setitimer(signal.ITIMER_REAL, 0.05)
                self.assertRaises(KeyboardInterrupt, loop)
                self.assertLess(time.process_time() - start, 1.5)
        finally:
            signal.signal(signal.SIGALRM, old)
