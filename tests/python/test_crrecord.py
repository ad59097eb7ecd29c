"""The Python package against the golden records, whose bytes and JSON tests/golden/make.py wrote."""
import gc
import hashlib
import json
import mmap
import pathlib
import unittest

import crrecord
from crrecord import DORecord, Error, Reference, Segment, SegmentView, SORecord, View

GOLDEN = pathlib.Path(__file__).parents[1] / "golden"
JSON = [(path.stem, json.loads(path.read_text())) for path in sorted(GOLDEN.glob("*.json"))]
OBJECTS = [(name, said) for name, said in JSON if said["kind"] == "do"]
SEGMENTS = [(name, said) for name, said in JSON if said["kind"] == "segment"]
# What the JSON calls a header field, and what a view does.
HEADER = dict(flags="flags", recsize="record_size", checktime="check_time", CID="cid", size="size", ssize="segment_size",
              CRC="crc", ctime="ctime", mtime="mtime", trefssize="references_size", fptype="fptype", dotype="dotype")
SEGMENT_HEADER = dict(flags="flags", recsize="record_size", checktime="check_time", pathid="path_id", fileid="file_id",
                      size="size", CRC="crc", fptype="fptype", cryptomode="crypto_mode", keyindex="key_index")
MTIME = slice(0x30, 0x34)


def stored(name, ending="host"):
    return (GOLDEN / f"{name}.{ending}").read_bytes()


def segments(said):
    offset = lambda s: int(s["offset"]) if "offset" in s else None
    return [Segment(bytes.fromhex(s["fingerprint"]), s["size"], offset(s), int(s["dcid"])) for s in said["segments"]]


def containers(said):
    return [(int(c["dcid"]), int(c["bytes"])) for c in said["containers"]]


def unpacked(column):
    """What a reader of the buffer protocol sees: the elements as format and strides say."""
    view = memoryview(column)
    data, width = view.tobytes(), view.shape[1] if view.ndim == 2 else view.itemsize
    parts = [data[i : i + width] for i in range(0, len(data), width)]
    return parts if view.ndim == 2 else [int.from_bytes(p, "big" if view.format[0] == ">" else "little") for p in parts]


class Package(unittest.TestCase):
    def test_views_say_what_the_json_says(self):
        for name, said in OBJECTS:
            for order in ("host", "network"):
                view, expected = View(stored(name, order)), segments(said)
                with self.subTest(name=name, order=order):
                    self.assertEqual([getattr(view, ours) for ours in HEADER.values()], [int(said[f]) for f in HEADER])
                    self.assertEqual((list(view.segments), view.unique_list.tolist()), (expected, containers(said)))
                    self.assertEqual((view.order, list(map(str, view.references))), (order, said["references"]))
                    legacy = [f"task:{i}" for i in view.legacy_task_ids] + [f"dsid:{i}" for i in view.legacy_dsids]
                    self.assertEqual((legacy, bytes(view.bloom).hex()), (said["legacy_references"], said.get("bitmap", "")))
                    self.assertEqual([bytes(view), view.to_bytes("host"), view.to_bytes("network")],
                                     [stored(name, ending) for ending in (order, "host", "network")])
                    for column, field in (("fingerprints", 0), ("sizes", 1), ("offsets", 2), ("dcids", 3)):
                        if (column := getattr(view, column)) is not None:
                            values = [segment[field] for segment in expected]
                            self.assertEqual((column.tolist(), unpacked(column)), (values, values))
                            self.assertEqual((column[::-2].tolist(), unpacked(column[1:])), (values[::-2], values[1:]))

    def test_segment_views_say_what_the_json_says(self):
        for name, said in SEGMENTS:
            for order in ("host", "network"):
                view = SegmentView(stored(name, order))
                with self.subTest(name=name, order=order):
                    self.assertEqual([getattr(view, ours) for ours in SEGMENT_HEADER.values()],
                                     [int(said[field]) for field in SEGMENT_HEADER])
                    self.assertEqual((view.key.hex(), [f.hex() for f in view.fingerprints], view.task_ids.tolist()),
                                     (said["key"], said["fingerprints"], [int(task) for task in said["taskids"]]))
                    self.assertEqual([view.to_bytes("host"), view.to_bytes("network"), view.serialize()],
                                     [stored(name, ending) for ending in ("host", "network", "form")])

    def test_numpy(self):
        try:
            import numpy
        except ImportError:
            self.skipTest("NumPy is not there")
        for order in ("host", "network"):
            data, expected = stored("do3-md5-gaps", order), segments(dict(OBJECTS)["do3-md5-gaps"])
            table = numpy.asarray(View(data).entries)
            self.assertTrue(numpy.shares_memory(table, numpy.frombuffer(data, "u1")))
            self.assertEqual([(bytes(f), *rest) for f, *rest in table], [segment[:3] for segment in expected])
            self.assertEqual(numpy.asarray(View(data).offsets).tolist(), [segment.offset for segment in expected])
            self.assertEqual(numpy.asarray(View(data).unique_list).tolist(), [(64, 80), (65, 1), (66, 90)])

    def test_built_records_are_the_golden_ones(self):
        for name, said in (pair for pair in OBJECTS if not pair[0].startswith("noted-")):
            common = dict(cid=64, size=int(said["size"]), segment_size=int(said["ssize"]), crc=said["CRC"],
                          ctime=said["ctime"], fptype=said["fptype"])
            golden, view = stored(name), View(stored(name))
            if said["dotype"] == 4:
                at = 100 + said["bsize"]
                listed = golden[at : at + 8 + 16 * said["nudcid"]] if said["nudcid"] else None
                made = [DORecord.from_bloom(bytes.fromhex(said["bitmap"]), unique_list=listed, **common)]
            else:
                made = [DORecord(segments(said), dotype=said["dotype"], **common),
                        DORecord.from_entries(memoryview(view.entries).tobytes(), view.dcids, dotype=said["dotype"], **common)]
            for record in made:
                with self.subTest(name=name):
                    record.check_time, record.flags, record.cid = said["checktime"], said["flags"], int(said["CID"])
                    if said["containers"] and said["dotype"] != 4:
                        record.append_unique_list()
                    if name == "do1-sha1":  # of kinds that come in serialized form only
                        record.add_serialized_references(golden[-24 - said["trefssize"] : -24])
                    else:
                        self.assertTrue(all(record.add_reference(text) for text in said["references"]))
                    host, network = bytearray(bytes(record)), bytearray(stored(name, "network"))
                    host[MTIME] = golden[MTIME]
                    self.assertEqual(host, golden)
                    self.assertEqual(record.serialize(checksum=False), stored(name, "form"))
                    record.to_network()
                    network[MTIME] = bytes(record)[MTIME]
                    self.assertEqual((bytes(record), record.segments), (network, segments(said)))
