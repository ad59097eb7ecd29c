"""read_segments() and read_records() against the golden JSON, through a reader of the Arrow C interfaces of our own."""
import ctypes
import errno
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest
from ctypes import POINTER, c_char_p, c_int, c_int64, c_void_p

import crrecord
from crrecord import DORecord, Error, FPType, Status, read_records, read_segments
from golden import JSON, stored
from test_crrecord import HEADER, SEGMENT_HEADER, numpy, segments

class Structure(ctypes.Structure):
    def let_go(self):
        RELEASE(self.release)(ctypes.byref(self))

class Schema(Structure):
    pass

class Array(Structure):
    pass

class Stream(Structure):
    pass

Schema._fields_ = [("format", c_char_p), ("name", c_char_p), ("metadata", c_char_p), ("flags", c_int64),
                   ("n_children", c_int64), ("children", POINTER(POINTER(Schema))), ("dictionary", c_void_p),
                   ("release", c_void_p), ("private_data", c_void_p)]
Array._fields_ = [("length", c_int64), ("null_count", c_int64), ("offset", c_int64), ("n_buffers", c_int64),
                  ("n_children", c_int64), ("buffers", POINTER(c_void_p)), ("children", POINTER(POINTER(Array))),
                  ("dictionary", c_void_p), ("release", c_void_p), ("private_data", c_void_p)]
Stream._fields_ = [("get_schema", ctypes.CFUNCTYPE(c_int, POINTER(Stream), POINTER(Schema))),
                   ("get_next", ctypes.CFUNCTYPE(c_int, POINTER(Stream), POINTER(Array))),
                   ("get_last_error", ctypes.CFUNCTYPE(c_char_p, POINTER(Stream))), ("release", c_void_p),
                   ("private_data", c_void_p)]
RELEASE = ctypes.CFUNCTYPE(None, c_void_p)
pointer_of = ctypes.pythonapi.PyCapsule_GetPointer
pointer_of.restype, pointer_of.argtypes = c_void_p, [ctypes.py_object, c_char_p]

def opened(capsule, name, kind):
    return kind.from_address(pointer_of(capsule, name))

def decoded(schema, array):
    """The values of a column, None for a null."""
    def buffer(i, size):
        if size and array.buffers[i] % 64:
            raise ValueError("not aligned")
        return ctypes.string_at(array.buffers[i], size) if size else b""
    def numbers(i, size, count):
        data = buffer(i, size * count)
        return [int.from_bytes(data[k:k + size], "little") for k in range(0, len(data), size)]
    form, rows = schema.format.decode(), array.length
    if form in ("+l", "u"):
        ends = numbers(1, 4, rows + 1)
        inner = decoded(schema.children[0][0], array.children[0][0]) if form == "+l" else buffer(2, ends[-1]).decode()
        values = [inner[a:b] for a, b in zip(ends, ends[1:])]
    elif form.startswith("w:"):
        width = int(form[2:])
        data = buffer(1, width * rows)
        values = [data[k:k + width] for k in range(0, len(data), width)]
    else:
        values = numbers(1, {"C": 1, "S": 2, "I": 4, "L": 8}[form], rows)
    if not array.buffers[0]:
        return values
    bits = int.from_bytes(buffer(0, (rows + 7) // 8), "little")
    values = [value if bits >> k & 1 else None for k, value in enumerate(values)]
    assert values.count(None) == array.null_count > 0 and schema.flags & 2
    return values

def rows_of(table):
    """All rows of the stream of a table, as dictionaries."""
    capsule = table.__arrow_c_stream__()
    stream, schema, rows = opened(capsule, b"arrow_array_stream", Stream), Schema(), []
    assert stream.get_schema(stream, schema) == 0 and schema.format == b"+s"
    while True:
        array = Array()
        status = stream.get_next(stream, array)
        if status:
            raise OSError(status, os.fsdecode(stream.get_last_error(stream)))
        if not array.release:
            break
        columns = {schema.children[i][0].name.decode(): decoded(schema.children[i][0], array.children[i][0])
                   for i in range(schema.n_children)}
        assert {len(column) for column in columns.values()} == {array.length}
        rows += [dict(zip(columns, values)) for values in zip(*columns.values())]
        array.let_go()
        assert not array.release
    schema.let_go()
    return rows

ORDERED = [(said, order, data) for name, said in JSON.items()
           for order, data in zip(("host", "network"), stored(name, "host", "network"))]
WHOLE = b"".join(data for *_, data in ORDERED)

class Columns(unittest.TestCase):
    def test_segments_are_those_of_the_json(self):
        expected = [(number, i, said["fptype"], s.fingerprint.ljust(32, b"\0"),
                     s.size if "size" in said["segments"][i] else None, s.offset, s.dcid)
                    for number, (said, *_) in enumerate(ORDERED) if said["kind"] == "do"
                    for i, s in enumerate(segments(said))]
        table = read_segments(WHOLE)
        for _ in range(2):
            self.assertEqual([tuple(row.values()) for row in rows_of(table)], expected)

    def test_records_are_those_of_the_json(self):
        position = 0
        for number, (row, (said, order, data)) in enumerate(zip(rows_of(read_records(WHOLE)), ORDERED, strict=True)):
            is_object = said["kind"] == "do"
            with self.subTest(number=number):
                self.assertEqual((row["record"], row["source"], row["position"], row["kind"], row["order"]),
                                 (number, 0, position, "do" if is_object else "segment", order))
                header, other = (HEADER, SEGMENT_HEADER) if is_object else (SEGMENT_HEADER, HEADER)
                self.assertEqual([row[header[field]] for field in header], [int(said[field]) for field in header])
                self.assertEqual({row[name] for name in {*other.values()} - {*header.values()}}, {None})
                if is_object:
                    ids = [i.split(":") for i in said["legacy_references"] + said["references"]]
                    legacy = [text.split(":")[0] for text in said["legacy_references"]]
                    self.assertEqual([row[name] for name in ("segments", "containers", "legacy_task_ids", "legacy_dsids", "key")],
                                     [len(said["segments"]), len(said["containers"]), legacy.count("task"), legacy.count("dsid"), None])
                else:
                    ids = [("task", i) for i in said["taskids"]]
                    self.assertEqual((row["key"].hex(), row["fingerprints"]), (said["key"], len(said["fingerprints"])))
                self.assertEqual([row["tasks"], row["dsids"]],
                                 [[int(i) for kind, i in ids if kind == name] for name in ("task", "dsid")])
            position += len(data)

    def test_bad_records_are_located_and_passed(self):
        good, = stored("do3-md5-gaps", "host")
        overlap, doubtful = bytearray(good), bytearray(good)
        overlap[80 + 28 + 16 + 4] = 0            # the second segment starts before the end of the first
        doubtful[4:8] = (2 ** 32 - 2).to_bytes(4, "little")
        sources = [good + overlap + good, good + doubtful + good, good + bytes(600) + good, good]
        table = read_records(sources, on_error="skip")
        self.assertEqual([(row["record"], row["source"], row["position"]) for row in rows_of(table)],
                         [(0, 0, 0), (2, 0, 576), (3, 1, 0), (5, 1, 576), (6, 2, 0), (8, 3, 0)])
        once, again = iter(table), iter(table)
        list(again)
        self.assertEqual((table.skipped, once.skipped, again.skipped), (3, 0, 3))
        batches = iter(read_records(sources))
        for number, reason in ((1, "segment 1 starts"), (4, "its counts give 288"), (7, "unknown kind")):
            next(batches)
            with self.assertRaisesRegex(Error, f"record at byte 288: source {number // 3}: record {number}: .*{reason}") as caught:
                next(batches)
            self.assertEqual((caught.exception.position, bool(caught.exception.findings)), (288, True))
            self.assertIs(caught.exception.status, Status.CORRUPT_RECORD)
        self.assertEqual(len(next(batches)), 1)
        self.assertRaises(StopIteration, next, batches)
        with self.assertRaisesRegex(OSError, "source 0: record 1 at byte 288: .*segment 1 starts"):
            rows_of(read_segments(sources))

    @unittest.skipUnless(numpy, "NumPy is not there")
    def test_arrays_of_objects_are_refused(self):
        for use in (read_records, read_segments, crrecord.SegmentSet().update, crrecord.View, crrecord.records):
            self.assertRaisesRegex(TypeError, "array of Python objects", use, numpy.array([WHOLE] * 40, object))
            self.assertRaisesRegex(TypeError, "array of Python objects", use, numpy.array([(1, WHOLE)], "u8,O"))
        named = numpy.frombuffer(WHOLE, [("Object", "u1")])
        self.assertEqual(len(read_records(named).to_numpy()["record"]), len(ORDERED))

    def test_files_are_read_at_each_use(self):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder, "all")
            path.write_bytes(WHOLE * 300)  # more than one read of the file
            table = read_records([str(path), path])
            rows = rows_of(table)
            self.assertEqual(rows[-1] | {"source": 0, "record": rows[len(rows) // 2 - 1]["record"]},
                             rows[len(rows) // 2 - 1])
            self.assertEqual((len(rows), rows[-1]["position"]), (600 * len(ORDERED), 300 * len(WHOLE) - len(ORDERED[-1][2])))
            path.write_bytes(WHOLE[:-1])
            self.assertEqual(len(rows_of(read_records(path, on_error="skip"))), len(ORDERED) - 1)
            with path.open("rb") as file:  # an iterable of lines
                self.assertRaisesRegex(TypeError, "path", read_records, file)
            path.unlink()
            missing = os.fsencode(folder) + b"/\xff"
            table = read_records([os.fsdecode(missing), WHOLE])
            with self.assertRaises(OSError) as caught:
                rows_of(table)
            self.assertEqual(caught.exception.errno, errno.ENOENT)
            batches = iter(table)
            with self.assertRaises(FileNotFoundError) as caught:
                next(batches)
            self.assertEqual(caught.exception.filename, os.fsdecode(missing))
            self.assertEqual(len(next(batches)), len(ORDERED))  # the next source
            self.assertRaises(ValueError, read_records, f"{folder}\0")

    def test_a_forked_process_reads_on_by_itself(self):
        with tempfile.NamedTemporaryFile() as file:
            file.write(WHOLE * 3000)  # several batches, and more than is read at once
            file.flush()
            batches = iter(read_records(file.name))
            first = len(next(batches))
            child = os.fork()
            rest = sum(map(len, batches))
            if child == 0:
                os._exit(first + rest == 3000 * len(ORDERED))
            self.assertEqual((first + rest, os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])), (3000 * len(ORDERED), 1))

    def test_signals_end_long_steps_and_exit_ends_readers(self):
        so, = stored("so-path", "host")
        script = ("import signal, sys, threading, crrecord\n"
                  f"data = bytes.fromhex('{so.hex()}') * 200_000\n"
                  "if sys.argv[1] == 'signal':\n"
                  "    signal.setitimer(signal.ITIMER_REAL, 0.1)\n"
                  "    signal.signal(signal.SIGALRM, lambda *_: sys.exit(7))\n"
                  "    list(crrecord.read_segments([data] * 1000))\n"
                  "def read():\n"
                  "    while True:\n"
                  "        list(crrecord.read_segments(data))\n"
                  "threading.Thread(target=read, daemon=True).start()\n")
        for argument, status in (("signal", 7), ("exit", 0)):
            ran = subprocess.run([sys.executable, "-c", script, argument], capture_output=True, text=True, timeout=60)
            self.assertEqual((ran.returncode, ran.stderr), (status, ""))

    def test_no_rows_have_their_types(self):
        self.assertEqual(rows_of(read_segments([])), [])
        for type_ in (type(read_segments([])), *map(type, (read := iter(read_records(WHOLE)), next(read)))):
            self.assertRaises(TypeError, type_.__new__, type_)
        if numpy:
            columns = read_segments(stored("do0-empty", "host")[0]).to_numpy()
            self.assertEqual([(str(columns[name].dtype), columns[name].shape) for name in ("size", "fingerprint")],
                             [("uint64", (0,)), ("uint8", (0, 32))])

    def test_large_records_are_split(self):
        count = 70_000
        data = bytes(DORecord(((i.to_bytes(16, "little"), i, None, 64) for i in range(count)), cid=64, segment_size=1,
                              fptype=FPType.MD5, ctime=1, dotype=2))
        self.assertEqual([len(batch) for batch in read_segments(data)], [65536, count - 65536])
        self.assertEqual([(row["segment"], row["size"]) for row in rows_of(read_segments(data))],
                         [(i, i) for i in range(count)])

    def test_structures_are_released_once_in_any_order(self):
        data = bytearray(WHOLE)
        table = read_records(data)
        schema, array = next(iter(table)).__arrow_c_array__()
        root, kept = opened(array, b"arrow_array", Array), Array()
        column = opened(schema, b"arrow_schema", Schema).children[0][0]
        ctypes.memmove(ctypes.byref(kept), root.children[0], ctypes.sizeof(Array))  # moved out of its parent
        root.children[0][0].release = None
        root.let_go()
        del array
        self.assertEqual(decoded(column, kept), list(range(len(ORDERED))))
        release = RELEASE(kept.release)
        for _ in range(2):
            release(ctypes.byref(kept))
        capsules = [table.__arrow_c_stream__(), table.__arrow_c_schema__()]  # nobody takes what they have
        del capsules
        self.assertRaises(BufferError, data.append, 0)
        del table
        data.append(0)

    @unittest.skipUnless(numpy, "without NumPy")
    def test_numpy_masks_nulls(self):
        said = JSON["do3-md5-gaps"]
        columns = read_segments(stored("do3-md5-gaps", "network")[0]).to_numpy()
        self.assertEqual(columns["offset"].tolist(), [s.offset for s in segments(said)])
        self.assertEqual(columns["fingerprint"].shape, (3, 32))
        columns = read_records(WHOLE).to_numpy()
        self.assertEqual([kind == "do" for kind in columns["kind"]], [cid is not None for cid in columns["cid"].tolist()])

if __name__ == "__main__":
    unittest.main()
