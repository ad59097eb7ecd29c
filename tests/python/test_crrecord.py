"""The Python package against the golden records, whose bytes and JSON tests/golden/make.py wrote."""
import gc
import hashlib
import importlib.util
import struct
import unittest

from crrecord import DORecord, Error, Segment, SegmentView, SORecord, View, records, validate
from golden import JSON, stored

numpy = importlib.import_module("numpy") if importlib.util.find_spec("numpy") else None
# What the JSON calls a header field, and what a view does.
BOTH = dict(flags="flags", recsize="record_size", checktime="check_time", size="size", CRC="crc", fptype="fptype")
HEADER = BOTH | dict(CID="cid", ssize="segment_size", ctime="ctime", mtime="mtime", trefssize="references_size",
                     dotype="dotype")
SEGMENT_HEADER = BOTH | dict(pathid="path_id", fileid="file_id", cryptomode="crypto_mode", keyindex="key_index")

def segments(said):
    return [Segment(bytes.fromhex(s["fingerprint"]), s["size"], int(s["offset"]) if "offset" in s else None,
                    int(s["dcid"])) for s in said["segments"]]

def unpacked(column):  # as a reader of the buffer protocol sees it
    view = memoryview(column)
    element = f"{view.shape[1]}s" if view.ndim == 2 else view.format
    return [value for value, in struct.iter_unpack(element, view.tobytes())]

class Package(unittest.TestCase):
    def test_views_say_what_the_json_says(self):
        for name, said, order in ((*item, order) for item in JSON.items() for order in ("host", "network")):
            data, isObject = stored(name, order)[0], said["kind"] == "do"
            view, header = (View(data), HEADER) if isObject else (SegmentView(data), SEGMENT_HEADER)
            with self.subTest(name=name, order=order):
                self.assertEqual([getattr(view, header[field]) for field in header],
                                 [int(said[field]) for field in header])
                self.assertEqual([view.order, bytes(view), view.to_bytes("host"), view.to_bytes("network")],
                                 [order, data, *stored(name, "host", "network")])
                if not isObject:
                    one = SORecord.from_buffer(data) if said["recsize"] == 104 else view
                    self.assertEqual([view.key.hex(), view.serialize(), one.serialize()],
                                     [said["key"], *stored(name, "form", "form")])
                    self.assertEqual([f.hex() for f in view.fingerprints], said["fingerprints"])
                    self.assertEqual([str(task) for task in view.task_ids], said["taskids"])
                    continue
                expected, containers = segments(said), [(int(c["dcid"]), int(c["bytes"])) for c in said["containers"]]
                self.assertEqual((list(view.segments), view.unique_list.tolist()), (expected, containers))
                legacy = [f"task:{i}" for i in view.legacy_task_ids] + [f"dsid:{i}" for i in view.legacy_dsids]
                self.assertEqual(([str(r) for r in view.references], legacy),
                                 (said["references"], said["legacy_references"]))
                self.assertEqual(bytes(view.bloom).hex(), said.get("bitmap", ""))
                for column, *values in zip((view.fingerprints, view.sizes, view.offsets, view.dcids), *expected):
                    self.assertEqual((column.tolist(), list(column[::-2]), unpacked(column)),
                                     (values, values[::-2], [2**64 - 1 if value is None else value for value in values]))

    @unittest.skipUnless(numpy, "NumPy is not there")
    def test_numpy_reads_entries_in_place(self):
        for data in stored("do3-md5-gaps", "host", "network"):
            table = numpy.asarray(View(data).entries)
            self.assertTrue(numpy.shares_memory(table, numpy.frombuffer(data, "u1")))
            self.assertEqual([(bytes(f), *rest) for f, *rest in table], [s[:3] for s in segments(JSON["do3-md5-gaps"])])

    def test_built_records_are_the_golden_ones(self):
        for name, said in ((name, said) for name, said in JSON.items() if name.startswith("do")):
            golden, network, form = stored(name, "host", "network", "form")
            fields = {HEADER[field]: int(said[field])
                      for field in ("CID", "size", "ssize", "CRC", "ctime", "fptype", "dotype")}
            if (dotype := fields.pop("dotype")) == 4:
                listed = golden[100 + said["bsize"] :][: 8 + 16 * said["nudcid"]] if said["nudcid"] else None
                made = [DORecord.from_bloom(bytes.fromhex(said["bitmap"]), unique_list=listed, **fields)]
            else:
                packed = memoryview(View(golden).entries).tobytes(), View(golden).dcids
                made = [DORecord(segments(said), dotype=dotype, **fields),
                        DORecord.from_entries(*packed, dotype=dotype, **fields)]
                received = DORecord.from_form(form, dotype=dotype, fptype=said["fptype"])
                self.assertEqual((received.segments, received.serialize()), (segments(said), form))
            for record in made:
                if dotype != 4 and said["containers"]:
                    record.append_unique_list()
                record.check_time, record.flags = said["checktime"], said["flags"]
                if name in ("do1-sha1", "do2-all-kinds"):  # of kinds that come in serialized form only
                    record.add_serialized_references(golden[-24 - said["trefssize"] : -24])
                else:
                    self.assertTrue(all(record.add_reference(text) for text in said["references"]))
                for expected in (golden, network):  # but for mtime
                    self.assertEqual((name, bytes(record)[:0x30], bytes(record)[0x34:]),
                                     (name, expected[:0x30], expected[0x34:]))
                    self.assertEqual(record.serialize() if record.order == "host" else form, form)
                    record.to_network()

    def test_buffers_are_shared_and_kept(self):
        data = bytearray(stored("do3-md5-gaps", "network")[0])
        view = View(data)
        data[0xA4] = 99  # a container
        data[0x38:0x40], data[-44:-24] = b"\xff" * 8, b"\xff" * 20  # both counts, references
        self.assertEqual((view.dcids[0], view.segments[0].dcid, len(view.segments), len(view.unique_list)),
                         (99, 99, 3, 3))
        self.assertRaises(Error, getattr, view, "references")
        self.assertRaises(Error, view.to_bytes, "host")
        self.assertRaises(BufferError, data.append, 0)
        self.assertRaises(BufferError, hashlib.md5, view.sizes)  # they don't lie side by side
        column, view = memoryview(view.dcids[:1]), None
        gc.collect()
        self.assertEqual((column.tobytes()[0], column.readonly), (99, True))
        column.release()
        data.append(0)

    def test_bad_input_is_refused(self):
        (golden,), (so,) = stored("do3-md5-gaps", "host"), stored("so-path", "network")
        broken = golden[:0x60] + b"\x51" + golden[0x61:]  # the first segment's size
        for buffer, error in (((golden * 2)[::2], Error), (memoryview(golden * 2)[::2], BufferError),
                              ("x", TypeError), (b"", Error)):
            for use in (View, SegmentView, DORecord.from_buffer, SORecord.from_buffer, validate):
                self.assertRaises(error, use, buffer)
        with self.assertRaises(Error) as caught:
            View(broken)
        self.assertEqual([(f.name, f.offset, f.found) for f in caught.exception.findings],
                         [("segment-overlap", 0x80, 96)])
        stream = records(golden + broken + so)
        self.assertEqual((next(stream).position, self.assertRaises(Error, next, stream), next(stream).position),
                         (0, None, 576))
        for size in (2**32 - 2, 100):  # its counts are right
            claim = golden[:4] + size.to_bytes(4, "little") + golden[8:]
            for stream in (records(claim + so), records(claim)):
                self.assertRaisesRegex(Error, f"size {size}, but its counts give 288", next, stream)
            stream = records(claim + so)
            self.assertEqual((self.assertRaises(Error, next, stream), next(stream).position), (None, 288))
        for make, *arguments in ((DORecord, [(b"short", 1, 0, 64)]), (DORecord, [(bytes(16), 1 << 32, 0, 64)]),
                                 (DORecord.from_entries, bytes(28), bytes(16)),
                                 (DORecord.from_entries, bytes(27), bytes(8))):
            self.assertRaises(ValueError, make, *arguments, cid=64, size=1, fptype=0)
        self.assertRaises(ValueError, DORecord.from_bloom, b"1", cid=64, size=1, fptype=0,
                          unique_list=bytes(4) + b"\2\0\0\0")

    def test_refuses_unique_list_in_network_order(self):
        record = DORecord([(bytes(16), 1, 0, 64)], cid=64, size=1, fptype=0)
        record.to_network()
        self.assertRaises(Error, record.append_unique_list)
        self.assertEqual((record.unique_list, len(record.segments)), ([], 1))
