"""The tables as DuckDB reads them, through its C interface. CRRECORD_DUCKDB is the path of its library."""
import collections
import ctypes
import os
import unittest
from ctypes import POINTER, byref, c_char_p, c_uint64, c_void_p

from crrecord import read_records, read_segments
from golden import JSON
from test_columns import opened, Stream, WHOLE

DUCKDB = os.environ.get("CRRECORD_DUCKDB")

class Result(ctypes.Structure):
    _fields_ = [("deprecated", c_uint64 * 5), ("internal", c_void_p)]

@unittest.skipUnless(DUCKDB, "without DuckDB")
class DuckDB(unittest.TestCase):
    def setUp(self):
        self.library = ctypes.CDLL(DUCKDB)
        self.library.duckdb_value_varchar.restype = c_void_p
        self.library.duckdb_value_varchar.argtypes = [POINTER(Result), c_uint64, c_uint64]
        for name in ("duckdb_column_count", "duckdb_row_count"):
            getattr(self.library, name).restype = c_uint64
        self.library.duckdb_result_error.restype = c_char_p
        self.library.duckdb_arrow_scan.argtypes = [c_void_p, c_char_p, c_void_p]
        self.database, self.connection = c_void_p(), c_void_p()
        self.library.duckdb_open(None, byref(self.database))
        self.library.duckdb_connect(self.database, byref(self.connection))

    def tearDown(self):
        self.library.duckdb_disconnect(byref(self.connection))
        self.library.duckdb_close(byref(self.database))

    def rows(self, table, query):
        capsule, result = table.__arrow_c_stream__(), Result()
        stream = opened(capsule, b"arrow_array_stream", Stream)
        self.assertEqual(self.library.duckdb_arrow_scan(self.connection, b"scan", ctypes.addressof(stream)), 0)
        # All columns first: a query of some of them takes the first ones of a stream for those.
        for statement in ("CREATE TABLE t AS FROM scan", query):
            status = self.library.duckdb_query(self.connection, statement.encode(), byref(result))
            self.assertEqual(status, 0, self.library.duckdb_result_error(byref(result)))
        columns = range(self.library.duckdb_column_count(byref(result)))
        found = []
        for row in range(self.library.duckdb_row_count(byref(result))):
            texts = [self.library.duckdb_value_varchar(byref(result), column, row) for column in columns]
            found.append(tuple(text and ctypes.string_at(text).decode() for text in texts))
            for text in texts:
                self.library.duckdb_free(c_void_p(text))
        self.library.duckdb_destroy_result(byref(result))
        return found

    def test_sums_are_those_of_the_json(self):
        sizes, segments = collections.Counter(), collections.Counter()
        for said in JSON.values():
            for segment in said.get("segments", ()):
                sizes[segment["dcid"]] += 2 * segment.get("size", 0)  # each record is there in both orders
                segments[segment["dcid"]] += 2
        expected = sorted(((dcid, str(count), str(sizes[dcid])) for dcid, count in segments.items()),
                          key=lambda row: int(row[0]))
        self.assertEqual(self.rows(read_segments(WHOLE), "SELECT dcid, count(*), coalesce(sum(size), 0)::HUGEINT FROM t "
                                                         "GROUP BY dcid ORDER BY dcid"), expected)

    def test_lists_and_nulls(self):
        tasks = sum(2 * (len(said["taskids"]) if said["kind"] == "segment" else
                         sum(text.startswith("task:") for text in said["references"] + said["legacy_references"]))
                    for said in JSON.values())
        objects = 2 * sum(said["kind"] == "do" for said in JSON.values())
        self.assertEqual(self.rows(read_records(WHOLE), "SELECT sum(len(tasks))::BIGINT, count(cid), count(key), count(*) "
                                                        "FROM t WHERE \"order\" IN ('host', 'network')"),
                         [(str(tasks), str(objects), str(2 * len(JSON) - objects), str(2 * len(JSON)))])

if __name__ == "__main__":
    unittest.main()
