// DO records, spelled byte by byte from plain values: what the library is expected to build, take and leave behind.
// It knows the format by itself. Only Build and StoredBytes call the library.

#pragma once

#include <crrecord/DORecord.h>

#include "support/segment_bytes.h"

#include <memory>

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
    bool const big = network || std::endian::native == std::endian::big;
    for (unsigned int i = 0; i < width; ++i) {
        bytes.push_back(static_cast<unsigned char>(value >> 8 * (big ? width - 1 - i : i)));
    }
}

inline void PutZeros(Bytes& bytes, std::size_t count) {
    bytes.resize(bytes.size() + count);
}

inline unsigned int PlainAdler32(unsigned char const* from, unsigned char const* to) {
    unsigned int a = 1, b = 0;
    for (; from != to; ++from) {
        a = (a + *from) % 65521;
        b = (b + a) % 65521;
    }
    return b << 16 | a;
}

// Entries as they stand in a record, and as a builder is given them.
inline Bytes SpellEntries(RecordValues const& values, bool network) {
    Bytes bytes;
    for (SegmentValues const& segment : values.segments) {
        bytes.insert(bytes.end(), segment.fingerprint.begin(), segment.fingerprint.end());
        Put(bytes, segment.size, values.dotype < 2 ? 0 : 4, network);
        Put(bytes, segment.offset, values.dotype == 3 ? 8 : values.dotype == 5 ? 4 : 0, network);
    }
    return bytes;
}

// Only the count turns; the checksum is that of the host form.
inline Bytes SpellList(RecordValues const& values, bool network) {
    Bytes body;
    Put(body, values.list.size(), 4, false);
    for (auto const& [dcid, size] : values.list) {
        Put(body, dcid, 8, false);
        Put(body, size, 8, false);
    }
    Bytes bytes;
    Put(bytes, PlainAdler32(body.data(), body.data() + body.size()), 4, false);
    Put(bytes, values.list.size(), 4, network);
    bytes.insert(bytes.end(), body.begin() + 4, body.end());
    return bytes;
}

inline Bytes SpellReferences(std::vector<std::pair<int, unsigned long>> const& references) {
    Bytes bytes;
    for (auto const& [kind, id] : references) {
        unsigned int const width = kind == 4 ? 4 : 8;
        bytes.insert(bytes.end(), {static_cast<unsigned char>(kind), static_cast<unsigned char>(width)});
        Put(bytes, id, width, true);
    }
    return bytes;
}

inline SpelledRecord Spell(RecordValues const& values, bool network = false) {
    SpelledRecord record{};
    Bytes& bytes = record.bytes;
    auto const put = [&](unsigned long value, unsigned int width) { Put(bytes, value, width, network); };
    auto const append = [&](Bytes const& more) { bytes.insert(bytes.end(), more.begin(), more.end()); };
    Bytes const references = SpellReferences(values.references);
    put(3, 2);
    put(values.flags, 2);
    put(0, 4); // the size comes last
    put(0, 4);
    put(values.checktime, 4);
    put(values.CID, 8);
    put(values.size, 8);
    put(values.ssize, 8);
    put(values.CRC, 4);
    put(values.ctime, 4);
    put(values.mtime, 4);
    Put(bytes, values.taskIds.size(), 4, false);
    put(values.segments.size(), 4);
    put(values.list.size(), 4);
    Put(bytes, values.dsids.size(), 4, false);
    put(references.size(), 4);
    put(values.bitmap.size(), 4);
    bytes.insert(bytes.end(), {values.fptype, values.dotype, 0, 0});
    record.entries = bytes.size();
    if (values.dotype == 4) {
        put(values.bitmap.size(), 4);
        append(values.bitmap);
        PutZeros(bytes, 16);
        record.dcids = record.entries;
    } else {
        append(SpellEntries(values, network));
        record.dcids = bytes.size();
        for (SegmentValues const& segment : values.segments) {
            Put(bytes, segment.dcid, 8, false);
        }
    }
    record.list = bytes.size();
    append(values.list.empty() ? Bytes() : SpellList(values, network));
    record.taskIds = bytes.size();
    for (unsigned long const id : values.taskIds) {
        Put(bytes, id, 8, false);
    }
    record.dsids = bytes.size();
    for (unsigned int const id : values.dsids) {
        Put(bytes, id, 4, false);
    }
    record.references = bytes.size();
    append(references);
    record.tail = bytes.size();
    PutZeros(bytes, values.dotype == 4 ? 4 : 24);
    Bytes size;
    Put(size, bytes.size(), 4, network);
    std::copy(size.begin(), size.end(), bytes.begin() + 4);
    return record;
}

// A sound record with a unique list and, but for DO type 4, three segments in two containers. Every field has a value
// of its own, so that none passes for another.
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
        Bytes fingerprint;
        for (unsigned int at = 0; at < FingerprintWidth(fptype); ++at) {
            fingerprint.push_back(static_cast<unsigned char>(0xd0 + i * 16 + at));
        }
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
    if (v.dotype == 4) {
        return std::make_unique<Record>(v.CID, v.size, v.ssize, v.CRC, v.ctime, v.mtime,
                                        static_cast<unsigned int>(v.bitmap.size()), v.bitmap.data(), udcids, v.fptype,
                                        v.dotype);
    }
    std::vector<unsigned long> dcids;
    for (SegmentValues const& segment : v.segments) {
        dcids.push_back(segment.dcid);
    }
    return std::make_unique<Record>(v.CID, v.size, v.ssize, v.CRC, v.ctime, v.mtime, SpellEntries(v, false).data(),
                                    static_cast<unsigned int>(v.segments.size()), dcids.data(), udcids, v.fptype,
                                    v.dotype);
}

// The record with its references written.
inline Bytes StoredBytes(DORecord const& record) {
    auto const* const from = reinterpret_cast<unsigned char const*>(record.GetHeader());
    return Bytes(from, from + record.GetHeaderSize());
}
