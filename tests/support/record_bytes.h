// DO records, spelled byte by byte from plain values: the bytes that the library must build and accept. Independent of
// the library, which only Build and StoredBytes call.

#pragma once

#include <crrecord/DORecord.h>

#include "support/segment_bytes.h"

#include <memory>
#include <numeric>

struct SegmentValues {
    Bytes fingerprint; // 32 bytes for fingerprint type 3, otherwise 16
    unsigned int size; // of DO types 0 and 1: what the record computes
    unsigned long offset, dcid;
};

struct RecordValues {
    unsigned char dotype = 0, fptype = 0;
    unsigned short flags = 2;
    unsigned int checktime = 0;
    unsigned long CID = 0x9192939495969798, size = 0, ssize = 0;
    unsigned int CRC = 0x11121314, ctime = 0x21222324, mtime = 0x31323334;
    std::vector<SegmentValues> segments = {};
    Bytes bitmap = {};
    std::vector<std::pair<unsigned long, unsigned long>> list = {}; // containers and bytes
    std::vector<unsigned long> taskIds = {};                        // the legacy arrays
    std::vector<unsigned int> dsids = {};
    std::vector<std::pair<int, unsigned long>> references = {}; // kinds and ids, as they are stored
};

// A record's bytes and where its sections start.
struct SpelledRecord {
    Bytes bytes;
    std::size_t entries = 80, dcids, list, taskIds, dsids, references, tail;
};

inline unsigned int FingerprintWidth(unsigned char fptype) {
    return fptype == 3 ? 32 : 16;
}

inline void Put(Bytes& bytes, unsigned long value, unsigned int width, bool network) {
    bool const big = network || kBig;
    for (unsigned int i = 0; i < width; ++i) {
        bytes.push_back(static_cast<unsigned char>(value >> 8 * (big ? width - 1 - i : i)));
    }
}

inline void PutBytes(Bytes& bytes, Bytes const& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

inline Bytes Spelled(unsigned long value, unsigned int width, bool network) {
    Bytes bytes;
    Put(bytes, value, width, network);
    return bytes;
}

// Overwrites bytes at an offset.
inline void Splice(Bytes& bytes, std::size_t offset, Bytes const& with) {
    std::copy(with.begin(), with.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}

inline unsigned int PlainAdler32(unsigned char const* from, unsigned char const* to) {
    unsigned int a = 1, b = 0;
    for (; from != to; ++from) {
        a = (a + *from) % 65521;
        b = (b + a) % 65521;
    }
    return b << 16 | a;
}

// Entries as stored in a record and as a builder receives them.
inline Bytes SpellEntries(RecordValues const& values, bool network) {
    Bytes bytes;
    for (SegmentValues const& segment : values.segments) {
        PutBytes(bytes, segment.fingerprint);
        Put(bytes, segment.size, values.dotype < 2 ? 0 : 4, network);
        Put(bytes, segment.offset, values.dotype == 3 ? 8 : values.dotype == 5 ? 4 : 0, network);
    }
    return bytes;
}

// A list without its checksum.
inline Bytes SpellListBody(RecordValues const& values, bool network) {
    Bytes body = Spelled(values.list.size(), 4, network);
    for (auto const& [dcid, size] : values.list) {
        Put(body, dcid, 8, network);
        Put(body, size, 8, network);
    }
    return body;
}

// Only the count is byte-swapped; the checksum is that of the host form.
inline Bytes SpellList(RecordValues const& values, bool network) {
    Bytes const body = SpellListBody(values, false);
    Bytes bytes = Spelled(PlainAdler32(body.data(), body.data() + body.size()), 4, false);
    PutBytes(bytes, body);
    Splice(bytes, 4, Spelled(values.list.size(), 4, network));
    return bytes;
}

inline Bytes SpellReferences(std::vector<std::pair<int, unsigned long>> const& references) {
    Bytes bytes;
    for (auto const& [kind, id] : references) {
        unsigned int const width = kind == 4 ? 4 : 8;
        PutBytes(bytes, {static_cast<unsigned char>(kind), static_cast<unsigned char>(width)});
        Put(bytes, id, width, true);
    }
    return bytes;
}

inline SpelledRecord Spell(RecordValues const& values, bool network = false) {
    SpelledRecord record{};
    Bytes& bytes = record.bytes;
    Bytes const references = SpellReferences(values.references);
    auto const put = [&](unsigned int width, std::initializer_list<unsigned long> numbers) {
        for (unsigned long const number : numbers) {
            Put(bytes, number, width, network);
        }
    };
    put(2, {3, values.flags});
    put(4, {0, 0, values.checktime}); // the size comes last
    put(8, {values.CID, values.size, values.ssize});
    put(4, {values.CRC, values.ctime, values.mtime, 0, values.segments.size(), values.list.size(), 0, references.size(),
            values.bitmap.size()});
    PutBytes(bytes, {values.fptype, values.dotype, 0, 0});
    Splice(bytes, 0x34, Spelled(values.taskIds.size(), 4, false));
    Splice(bytes, 0x40, Spelled(values.dsids.size(), 4, false));
    record.entries = bytes.size();
    if (values.dotype == 4) {
        put(4, {values.bitmap.size()});
        PutBytes(bytes, values.bitmap);
        PutBytes(bytes, Bytes(16));
        record.dcids = record.entries;
    } else {
        PutBytes(bytes, SpellEntries(values, network));
        record.dcids = bytes.size();
        for (SegmentValues const& segment : values.segments) {
            Put(bytes, segment.dcid, 8, false);
        }
    }
    record.list = bytes.size();
    PutBytes(bytes, values.list.empty() ? Bytes() : SpellList(values, network));
    record.taskIds = bytes.size();
    for (unsigned long const id : values.taskIds) {
        Put(bytes, id, 8, false);
    }
    record.dsids = bytes.size();
    for (unsigned int const id : values.dsids) {
        Put(bytes, id, 4, false);
    }
    record.references = bytes.size();
    PutBytes(bytes, references);
    record.tail = bytes.size();
    PutBytes(bytes, Bytes(values.dotype == 4 ? 4 : 24));
    Splice(bytes, 4, Spelled(bytes.size(), 4, network));
    return record;
}

// A valid record with a unique list and, except DO type 4, three segments in two containers. All fields have different
// values.
inline RecordValues Example(unsigned char dotype, unsigned char fptype) {
    RecordValues values{.dotype = dotype, .fptype = fptype, .ssize = 0x41424344};
    if (dotype == 4) {
        values.size = 0x5152535455565758;
        values.bitmap = {0xb1, 0xb2, 0xb3, 0xb4, 0xb5};
        values.list = {{0x6162636465666768, 0x7172737475767778}};
        return values;
    }
    constexpr unsigned int kSizes[] = {0x01020304, 0x05060708, 0x090a0b0c};
    for (unsigned int i = 0; i < 3; ++i) {
        Bytes fingerprint(FingerprintWidth(fptype));
        std::iota(fingerprint.begin(), fingerprint.end(), static_cast<unsigned char>(0xd0 + i * 16));
        unsigned int const size = dotype < 2 && i < 2 ? 0x41424344 : kSizes[i];
        values.segments.push_back({fingerprint, size, values.size, i == 1 ? 0x8182838485868788 : 0x6162636465666768});
        values.size += size;
    }
    unsigned long const second = values.segments[1].size;
    values.list = {{0x6162636465666768, values.size - second}, {0x8182838485868788, second}};
    return values;
}

// The record that the builders make of such values. They take no flags, check time, legacy arrays or references.
template <class Record = DORecord>
std::unique_ptr<Record> Build(RecordValues const& v) {
    Bytes const list = SpellList(v, false);
    auto const* const udcids = v.list.empty() ? nullptr : reinterpret_cast<char const*>(list.data());
    auto const make = [&](auto... sections) {
        return std::make_unique<Record>(v.CID, v.size, v.ssize, v.CRC, v.ctime, v.mtime, sections..., udcids, v.fptype,
                                        v.dotype);
    };
    if (v.dotype == 4) {
        return make(static_cast<unsigned int>(v.bitmap.size()), v.bitmap.data());
    }
    std::vector<unsigned long> dcids;
    for (SegmentValues const& segment : v.segments) {
        dcids.push_back(segment.dcid);
    }
    Bytes const entries = SpellEntries(v, false);
    return make(entries.data(), static_cast<unsigned int>(v.segments.size()), dcids.data());
}

// The record with its references written.
inline Bytes StoredBytes(DORecord const& record) {
    auto const* const from = reinterpret_cast<unsigned char const*>(record.GetHeader());
    return Bytes(from, from + record.GetHeaderSize());
}
