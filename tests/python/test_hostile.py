"""What crashed, hung or stored garbage: each stays refused, or is inert."""
import array
import os
import pickle
import resource
import struct
import subprocess
import sys
import tempfile
import threading
import time
import mmap
import unittest
import zlib

import crrecord
from crrecord import DORecord, Error, SegmentView, SORecord, View
from golden import stored

ENTRY = bytes(16) + b"\1\0\0\0" + bytes(8)

def build(entries, dcids):
    return DORecord.from_entries(entries, dcids, cid=64, size=1, fptype=0)

class Hostile(unittest.TestCase):
    def test_bloom_list_is_converted_once(self):
        record = DORecord.from_form(stored("do4-md5", "form")[0], dotype=4, fptype=0)
        record.append_unique_list()
        before = record.unique_list
        self.assertRaisesRegex(Error, "is in host order", record.append_unique_list)
        self.assertEqual((record.unique_list, View(bytes(record)).unique_list.tolist()), (before, before))

    def test_containers_and_entries_have_the_right_format(self):
        good = build(ENTRY, array.array("Q", [64])).segments
        for dcids in (b"@" + bytes(7), bytearray(b"@" + bytes(7)), memoryview(array.array("L", [64])),
                      View(bytes(build(ENTRY, array.array("Q", [64])))).dcids):
            self.assertEqual(build(ENTRY, dcids).segments, good)
        for dcids in (array.array("d", [64]), array.array("q", [64]), array.array("I", [64, 0])):
            self.assertRaisesRegex(ValueError, "format of dcids", build, ENTRY, dcids)
        host, network = stored("do3-md5-gaps", "host", "network")
        fields = dict(cid=64, size=5283, fptype=0)
        made = DORecord.from_entries(View(host).entries, View(host).dcids, **fields)
        self.assertEqual(made.segments, list(View(host).segments))
        self.assertRaisesRegex(ValueError, "format of entries", DORecord.from_entries, View(network).entries,
                               View(network).dcids, **fields)
        self.assertRaisesRegex(ValueError, "format of dcids", build, ENTRY, SegmentView(stored("so-path", "network")[0]).task_ids)

    def test_numpy_formats(self):
        try:
            import numpy
        except ImportError:
            self.skipTest("NumPy is not installed")
        used = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
        fields = [("f", "u1", 16), ("s", "<u4"), ("o", "<u8")]
        for dtype, good in ((fields, True), ([("fingerprint", "S16"), *fields[1:]], True), ("V28", True),
                            ([("offset", "u1", 16), *fields[1:]], False), ([fields[0], ("s", ">u4"), fields[2]], False),
                            ([fields[0], ("s", "<i4"), fields[2]], False), ([fields[0], fields[2], fields[1]], False),
                            ([fields[0], ("s", "<f4"), fields[2]], False), ("<f4", False)):
            entries = numpy.frombuffer(ENTRY, dtype)
            with self.subTest(dtype=dtype):
                if good:
                    self.assertEqual(len(build(entries, numpy.array([64], "u8")).segments), 1)
                else:
                    self.assertRaises(ValueError, build, entries, numpy.array([64], "u8"))
        for dtype in (">u8", "f8", "i8", ",".join(["(1048576,)u4"] * 9)):  # the last one has nine million numbers
            self.assertRaises(ValueError, build, ENTRY, numpy.zeros(1 if "," not in dtype else 0, dtype))
        self.assertLess(resource.getrusage(resource.RUSAGE_SELF).ru_maxrss - used, 200 << 10)

    @staticmethod
    def view_with_list(listed):
        return View(bytes(DORecord.from_bloom(b"1", cid=64, size=1, fptype=0, unique_list=listed)))

    def test_map_that_another_thread_writes(self):
        listed = struct.pack("<IQQ", 1, 64, 1)
        for data, make, fields in ((stored("do3-md5-gaps", "network")[0], View, range(0x2c, 0x50)),
                                   (stored("so-path", "network")[0], SegmentView, range(0, 0x60)),
                                   (struct.pack("<I", zlib.adler32(listed)) + listed, self.view_with_list, (4,))):
            with tempfile.TemporaryFile() as file:
                os.pwrite(file.fileno(), data, 0)
                view, stop = mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ), threading.Event()

                def write():
                    while not stop.is_set():
                        for at in fields:
                            os.pwrite(file.fileno(), b"\xff" * 4, at)
                            os.pwrite(file.fileno(), data, 0)
                thread, until = threading.Thread(target=write), time.monotonic() + 0.5
                thread.start()
                made = 0
                while time.monotonic() < until:
                    try:
                        record = make(view)
                        made += 1
                        repr([list(getattr(record, name)) for name in ("fingerprints", "unique_list", "task_ids", "references")
                              if hasattr(record, name)])
                        record.to_bytes("host")
                    except (Error, ValueError):
                        pass
                stop.set()
                thread.join()
                self.assertGreater(made, 0)

    def test_subinterpreters_cannot_import(self):
        script = """if True:
            import _xxsubinterpreters as interpreters, sys
            IMPORT = "import sys; sys.path[:] = %r; import crrecord" % sys.path
            def imports():
                try:
                    interpreters.run_string(interpreters.create(), IMPORT)
                except interpreters.RunFailedError as error:
                    return "ImportError" in str(error)
            print(imports(), exec("import crrecord"), imports(), crrecord.__version__ != "")
            del sys.modules["crrecord._crrecord"], sys.modules["crrecord"]
            import crrecord
            print(crrecord.probe(b""))"""
        ran = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, timeout=60)
        if "No module named '_xxsubinterpreters'" in ran.stderr:
            self.skipTest("the module _xxsubinterpreters has another name")
        self.assertEqual((ran.stdout, ran.stderr), ("True None True True\nNone\n", ""))

    def test_objects_without_init_are_inert(self):
        class Early(SORecord):
            def __init__(self):
                self.size
        self.assertRaises(TypeError, Early)
        for kind in (View, SegmentView, DORecord, SORecord, crrecord.Array, crrecord.Segments, crrecord.Records,
                     crrecord.SegmentSet):
            self.assertRaises(TypeError, kind.dcid.fget if kind is SORecord else kind.__reduce__, None)
            inert = kind.__new__(kind)
            for name in dir(kind):
                if name[:2] != "__" or name in ("__bytes__", "__len__", "__iter__", "__next__", "__getitem__", "__eq__"):
                    try:
                        value = getattr(inert, name)
                        value(inert) if name == "__eq__" else value(0) if name == "__getitem__" else value()
                    except TypeError:
                        continue
                    self.assertIn(name, ("__eq__", "__iter__"))
            self.assertRaises((BufferError, TypeError), memoryview, inert)
        self.assertRaises(TypeError, View.__base__)
        self.assertRaises(TypeError, type("Derived", (View.__base__,), {}))
        for thing in (crrecord.records(b""), crrecord.read_records(b""), View(stored("do0-md5", "host")[0]).segments):
            for protocol in (0, 2):  # with the first, pickle makes an instance of the base class
                self.assertRaises(TypeError, pickle.dumps, thing, protocol)

    def test_released_memoryview(self):
        view = memoryview(bytes(8 << 20))
        view.release()  # and so the bytes, of which it still has the address
        self.assertRaises(ValueError, View, view)

    def test_errors_do_not_quote_megabytes(self):
        golden, big = stored("do3-md5-gaps", "host")[0], bytes(3 << 20)
        record = DORecord.from_buffer(golden)
        for use in (lambda: View(golden, big), lambda: setattr(record, "cid", big), lambda: record.add_reference((big, 1)),
                    lambda: DORecord([(bytes(16), big, 0, 64)], cid=64, fptype=0), lambda: View(golden).dcids.index(big),
                    lambda: View(golden).dcids.index("é" * len(big)), lambda: record.add_reference("\ud800"),
                    lambda: crrecord.records("é" * len(big))):
            with self.assertRaises((TypeError, ValueError)) as caught:
                use()
            self.assertNotIsInstance(caught.exception, UnicodeError)
            self.assertLess(len(str(caught.exception)), 1000)

    def test_errors_have_the_reason_of_the_library(self):
        record = DORecord.from_buffer(stored("do3-md5-gaps", "host")[0])
        so = SORecord(dcid=64, size=1)
        form, so_bytes = stored("do3-md5-gaps", "form")[0], stored("so-path", "host")[0]
        for use, reason, findings in (
                (record.append_unique_list, "TRef size should be zero", 0),
                (lambda: setattr(so, "fptype", 9), "fingerprint type", 0), (lambda: setattr(so, "dcid", 9), "container", 0),
                (lambda: setattr(record, "flags", 1), "flags", 0),
                (lambda: DORecord.from_form(form[:-1], dotype=3, fptype=0), "exchange form|Invalid", 1),
                (lambda: SORecord.from_buffer(so_bytes[:100]), "Invalid SO record", 1),
                (lambda: DORecord.from_buffer(form), "Invalid DO record", 1)):
            with self.assertRaisesRegex(Error, reason) as caught:
                use()
            self.assertGreaterEqual(len(caught.exception.findings), findings)
