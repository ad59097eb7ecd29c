#!/usr/bin/env python3
"""Compares read_segments with a gather of the same fields by NumPy: the median ratio over runs that alternate.

usage: PYTHONPATH=build/python/python bench/columns.py
"""

import hashlib
import statistics
import time

import numpy
from crrecord import DORecord, DOType, FPType, read_segments

ROUNDS = 11
ENTRY = numpy.dtype({"names": ["fingerprint", "size", "offset"], "formats": ["V32", "<u4", "<u8"],
                     "offsets": [0, 32, 36], "itemsize": 44})


def stream(segments, records):
    """The stream, and the part of a NumPy structure that covers a record."""
    entries = [(hashlib.sha256(b"%d" % i).digest(), 4096, 4096 * i, 64 + i // 100) for i in range(segments)]
    one = bytes(DORecord(entries, cid=64, fptype=FPType.SHA256, dotype=DOType.OFFSET_8_BYTE, segment_size=4096, ctime=1))
    layout = numpy.dtype({"names": ["entries", "dcids"], "formats": [(ENTRY, segments), ("<u8", segments)],
                          "offsets": [80, 80 + 44 * segments], "itemsize": len(one)})
    return one * records, layout


def by_library(data, layout):
    return sum(len(batch) for batch in read_segments(data))


def by_gather(data, layout):
    """Copies each field of 65,536 segments at a time, without validation, as if all records had the same layout."""
    records = numpy.frombuffer(data, layout)
    segments, done = layout["entries"].shape[0], 0
    at_once = max(1, 65_536 // segments)
    for first in range(0, len(records), at_once):
        part = records[first:first + at_once]
        columns = [numpy.ascontiguousarray(part["entries"][name]) for name in ENTRY.names]
        columns += [numpy.ascontiguousarray(part["dcids"]), columns[1].astype("u8"),
                    numpy.repeat(numpy.arange(first, first + len(part), dtype="u8"), segments),
                    numpy.tile(numpy.arange(segments, dtype="u4"), len(part)),
                    numpy.zeros(len(part) * segments, "u1")]
        done += columns[3].size
    return done


def seconds(work, *arguments):
    start = time.thread_time()
    count = work(*arguments)
    return (time.thread_time() - start) / count


for size, records in ((1000, 2000), (100, 20_000), (10, 100_000)):
    given = stream(size, records)
    pairs = [(seconds(by_library, *given), seconds(by_gather, *given)) for _ in range(ROUNDS)]
    ours, gather = (1e9 * statistics.median(side) for side in zip(*pairs))
    print(f"{size:5} segments a record: {ours:5.1f} ns a segment, gather {gather:5.1f} ns, "
          f"ratio {statistics.median(a / b for a, b in pairs):.2f}")
