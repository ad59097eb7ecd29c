#include "support/validate/record_notes.h"

#include "support/layout/header_fields.h"
#include "support/layout/unique_list.h"
#include "tref/value.h"

#include <cstdio>

namespace crrecord {

namespace {

void NoteBloomLength(CheckedRecord const& record, FindingReporter& reporter) noexcept {
    if (!IsBloom(record.header.dotype)) {
        return;
    }
    std::uint64_t const at = record.layout.entries;
    std::uint32_t const word = Load<std::uint32_t>(record.bytes + at, record.order);
    if (word != record.header.bsize) {
        reporter.Report({CR_FINDING_DO_BLOOM_LENGTH, "bloom.length", at, word, record.header.bsize},
                        "bloom length word %u, expected %u", word, record.header.bsize);
    }
}

// Notes the first one only.
void NoteReservedDcid(CheckedRecord const& record, FindingReporter& reporter) noexcept {
    for (std::uint64_t i = 0; i < record.layout.segments; ++i) {
        std::uint64_t const at = record.layout.Dcid(i);
        unsigned long const dcid = Load<std::uint64_t>(record.bytes + at);
        if (dcid < CR_FIRST_FREE_DCID) {
            char field[48];
            std::snprintf(field, sizeof field, "segments[%lu].dcid", i);
            reporter.Report({CR_FINDING_DO_DCID, field, at, dcid, CR_FIRST_FREE_DCID},
                            "reserved container id %lu, expected at least %lu", dcid, CR_FIRST_FREE_DCID);
            return;
        }
    }
}

void NoteLegacyArrays(CheckedRecord const& record, FindingReporter& reporter) noexcept {
    std::uint64_t const size = record.layout.trefs - record.layout.taskids;
    if (size != 0) {
        HeaderField const field = record.header.ntaskid != 0 ? HeaderFieldOf("ntaskid") : HeaderFieldOf("nds");
        reporter.Report(FindingAt(CR_FINDING_DO_LEGACY, field, size, 0),
                        "%lu bytes of legacy references, expected typed ones", size);
    }
}

void NoteListOrder(CheckedRecord const& record, FindingReporter& reporter) noexcept {
    if (record.header.nudcid == 0) {
        return;
    }
    std::uint64_t const at = record.layout.udcids;
    std::uint32_t const stored = Load<std::uint32_t>(record.bytes + at);
    std::uint32_t const computed = ListChecksum(record.bytes + at, record.header.nudcid, Order::Host);
    if (stored != computed) {
        reporter.Report({CR_FINDING_DO_LIST_ORDER, "unique.checksum", at, stored, computed},
                        "unique DCID list summed in network order: %u, expected %u", stored, computed);
    }
}

void NoteUnsortedList(CheckedRecord const& record, FindingReporter& reporter) noexcept {
    unsigned char const* const list = record.bytes + record.layout.udcids;
    for (std::uint32_t i = 1; i < record.header.nudcid; ++i) {
        std::uint64_t const before = LoadUniqueEntry(list, i - 1, Order::Host).dcid;
        std::uint64_t const dcid = LoadUniqueEntry(list, i, Order::Host).dcid;
        if (dcid <= before) {
            char field[48];
            std::snprintf(field, sizeof field, "unique.entries[%u].dcid", i);
            reporter.Report({CR_FINDING_DO_LIST_UNSORTED, field, record.layout.UniqueEntry(i), dcid, before + 1},
                            "unique DCID list not ascending: %lu after %lu", dcid, before);
            return;
        }
    }
}

void NoteReferenceOrder(CheckedRecord const& record, FindingReporter& reporter) noexcept {
    RecordLayout const& layout = record.layout;
    _cr_tref_t before{};
    for (std::uint64_t at = layout.trefs; at < layout.tail;) {
        _cr_tref_t reference{};
        unsigned long const taken = DecodeReference(record.bytes + at, layout.tail - at, reference);
        if (taken == 0) {
            return; // the memory has changed since the section was checked
        }
        if (at != layout.trefs && CompareReferences(before, reference) >= 0) {
            reporter.Report({CR_FINDING_DO_REFERENCE_ORDER, "references", at, reference.id, before.id},
                            "typed references not ascending at offset %lu of their section", at - layout.trefs);
            return;
        }
        before = reference;
        at += taken;
    }
}

// Notes the first one only.
void NoteNonZero(CheckedRecord const& record, char const* field, std::uint64_t from, std::uint64_t to,
                 FindingReporter& reporter) noexcept {
    for (std::uint64_t at = from; at < to; ++at) {
        unsigned const byte = record.bytes[at];
        if (byte != 0) {
            reporter.Report({CR_FINDING_DO_NON_ZERO, field, at, byte, 0}, "byte %u in %s, expected 0", byte, field);
            return;
        }
    }
}

void NoteZeros(CheckedRecord const& record, FindingReporter& reporter) noexcept {
    RecordLayout const& layout = record.layout;
    for (HeaderField const field : {HeaderFieldOf("reserved"), HeaderFieldOf("reserved2")}) {
        NoteNonZero(record, field.name, field.offset, field.offset + field.width, reporter);
    }
    if (IsBloom(record.header.dotype)) {
        NoteNonZero(record, "bloom.end", layout.udcids - kBloomEndSize, layout.udcids, reporter);
    }
    NoteNonZero(record, "tail", layout.tail, layout.total, reporter);
}

// Only DO type 4 has a bitmap; no other record depends on its size.
void NoteBitmapSize(CheckedRecord const& record, FindingReporter& reporter) noexcept {
    std::uint32_t const bsize = record.header.bsize;
    unsigned const dotype = record.header.dotype;
    if (!IsBloom(dotype) && bsize != 0) {
        reporter.Report(FindingAt(CR_FINDING_DO_BSIZE, HeaderFieldOf("bsize"), bsize, 0),
                        "bsize %u in a record of DO type %u, expected 0", bsize, dotype);
    }
}

} // namespace

void NoteOddities(CheckedRecord const& record, FindingReporter& reporter) noexcept {
    for (auto const note : {NoteBloomLength, NoteReservedDcid, NoteLegacyArrays, NoteListOrder, NoteUnsortedList,
                            NoteReferenceOrder, NoteZeros, NoteBitmapSize}) {
        note(record, reporter);
        if (reporter.Stopped()) {
            return;
        }
    }
}

std::uint32_t ListChecksum(unsigned char const* list, std::uint32_t count, Order countOrder) noexcept {
    unsigned char word[sizeof count];
    Store(word, count, countOrder);
    return Adler32More(Adler32(word, sizeof word), list + kUniqueHeadSize, std::uint64_t{kUniqueEntrySize} * count);
}

} // namespace crrecord
