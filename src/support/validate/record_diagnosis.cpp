// The walk that validates a DO record, and the functions that use it.

#include "support/validate/record_diagnosis.h"

#include "base/prefetch.h"
#include "support/layout/unique_list.h"
#include "support/validate/segment_findings.h"
#include "tref/value.h"

#include <cstdio>

namespace crrecord {

namespace {

constexpr unsigned int kKnownOptions = CR_DO_NETWORK_ORDER | CR_DO_NO_REFERENCES | CR_DO_SUB_DO;
constexpr unsigned int kKnownFlags = 0x0006;

#define CRRECORD_FIELD(member) #member, offsetof(DORecordHeader, member)

// What to check: a record's bytes, and its header as it was read once, in host order.
struct Received {
    unsigned char const* bytes;
    std::uint64_t size;
    DORecordHeader header;
    Order order;
    bool noReferences;
    bool subDO;
};

// The header as it is stored. Zeros for fewer bytes than the smallest record has.
DORecordHeader HeaderOf(void const* bytes, std::uint64_t size) noexcept {
    return size >= CR_DO_RECORD_SIZE ? ReadHeader(bytes) : DORecordHeader{};
}

// Each step returns whether the walk goes on. The header and the layout are those of one reading: whatever the memory
// becomes meanwhile, the walk stays inside the record.
class RecordWalk {
public:
    // With `copy`, a block of as many bytes, the record is copied there in host order and the copy is checked. It is
    // complete if there is no error.
    RecordWalk(Received const& received, FindingReporter& report, unsigned char* copy = nullptr) noexcept
        : source_(received.bytes), bytes_(received.bytes), copy_(copy), header_(received.header), size_(received.size),
          order_(received.order), noReferences_(received.noReferences), subDO_(received.subDO), report_(report) {}

    void Run() noexcept {
        if (size_ < CR_DO_RECORD_SIZE) {
            report_.Error({CR_FINDING_DO_LENGTH, "length", size_, size_, CR_DO_RECORD_SIZE},
                          "Invalid DO record: size %lu, expected at least %u", size_, CR_DO_RECORD_SIZE);
            return;
        }
        RecordCounts const counts = CountsOf(&header_, Order::Host);
        RecordLayout const layout(counts);
        // After a wrong total no section is at the place that the counts give.
        if (!CheckHeader(counts) || !CheckTotal(layout) || layout.total != size_) {
            return;
        }
        if (copy_) {
            std::memcpy(copy_, &header_, sizeof header_);
            std::memcpy(copy_ + layout.dcids, source_ + layout.dcids, size_ - layout.dcids);
            bytes_ = copy_;
        }
        if (CheckUniqueList(counts, layout) && CheckSegmentList(counts, layout) && CheckReferences(counts, layout) &&
            report_.WantsNotes() && report_.Status() == CR_STATUS_OK) {
            NoteOddities(counts, layout);
        }
        if (copy_) {
            WordsToHost(copy_, counts, layout, order_);
        }
    }

private:
    bool CheckHeader(RecordCounts const& counts) noexcept;
    bool CheckTotal(RecordLayout const& layout) noexcept;
    bool CheckUniqueList(RecordCounts const& counts, RecordLayout const& layout) noexcept;
    bool CheckSegmentList(RecordCounts const& counts, RecordLayout const& layout) noexcept;
    bool CheckReferences(RecordCounts const& counts, RecordLayout const& layout) noexcept;
    bool NoteOddities(RecordCounts const& counts, RecordLayout const& layout) noexcept;
    bool NoteUniqueList(RecordCounts const& counts, RecordLayout const& layout) noexcept;
    bool NoteReferences(RecordLayout const& layout) noexcept;
    bool NoteZeros(RecordCounts const& counts, RecordLayout const& layout) noexcept;
    bool NoteBitmapSize(RecordCounts const& counts) noexcept;
    bool NoteNonZero(char const* field, std::uint64_t from, std::uint64_t to) noexcept;

    unsigned char const* source_;
    unsigned char const* bytes_; // what is checked: the source, or its copy
    unsigned char* copy_;
    DORecordHeader header_;
    std::uint64_t size_;
    Order order_; // of the source
    bool noReferences_;
    bool subDO_;
    FindingReporter& report_;
};

bool RecordWalk::CheckHeader(RecordCounts const& counts) noexcept {
    unsigned const type = header_.type;
    unsigned const recsize = header_.recsize;
    unsigned const flags = header_.flags;
    if (type != CR_DO_RECORD_TYPE &&
        !report_.Error({CR_FINDING_DO_TYPE, CRRECORD_FIELD(type), type, CR_DO_RECORD_TYPE},
                       "Invalid DO record: type %u, expected %u", type, CR_DO_RECORD_TYPE)) {
        return false;
    }
    if (recsize != size_ && !report_.Error({CR_FINDING_DO_RECSIZE, CRRECORD_FIELD(recsize), recsize, size_},
                                           "Invalid DO record: recsize %u, size %lu", recsize, size_)) {
        return false;
    }
    if ((flags & ~kKnownFlags) != 0 &&
        !report_.Error({CR_FINDING_DO_FLAGS, CRRECORD_FIELD(flags), flags, flags & kKnownFlags},
                       "Invalid DO record: flags %#x, expected only bits of %#x", flags, kKnownFlags)) {
        return false;
    }
    if (!CRDOTypeIsValid(counts.dotype) &&
        !report_.Error({CR_FINDING_DO_DOTYPE, CRRECORD_FIELD(dotype), counts.dotype, CR_DO_TYPE_4_BYTE_OFFSET},
                       "Invalid DO record: DO type %u, expected at most %u", counts.dotype, CR_DO_TYPE_4_BYTE_OFFSET)) {
        return false;
    }
    if (!CRFPTypeIsValid(counts.fptype) &&
        !report_.Error({CR_FINDING_DO_FPTYPE, CRRECORD_FIELD(fptype), counts.fptype, CR_FP_TYPE_SHA256},
                       "Invalid DO record: fingerprint type %u, expected at most %u", counts.fptype,
                       CR_FP_TYPE_SHA256)) {
        return false;
    }
    return !IsBloom(counts.dotype) || counts.nfp == 0 ||
           report_.Error({CR_FINDING_DO_BLOOM_SEGMENTS, CRRECORD_FIELD(nfp), counts.nfp, 0},
                         "Invalid DO record: a bloom record with %u segments, expected 0", counts.nfp);
}

bool RecordWalk::CheckTotal(RecordLayout const& layout) noexcept {
    return layout.total == size_ ||
           report_.Error({CR_FINDING_DO_CALCULATED, CRRECORD_FIELD(nfp), layout.total, size_},
                         "Invalid DO record: calculated size %lu, size %lu", layout.total, size_);
}

// The list's checksum as it was made while the count stood in an order: the host's, unless the list was appended to a
// record in network order.
std::uint32_t ListChecksum(unsigned char const* list, std::uint32_t count, Order countOrder) noexcept {
    unsigned char word[sizeof count];
    Store(word, count, countOrder);
    return Adler32More(Adler32(word, sizeof word), list + kUniqueHeadSize, std::uint64_t{kUniqueEntrySize} * count);
}

bool RecordWalk::CheckUniqueList(RecordCounts const& counts, RecordLayout const& layout) noexcept {
    if (counts.nudcid == 0) {
        return true;
    }
    unsigned char const* const list = bytes_ + layout.udcids;
    std::uint32_t const count = UniqueCount(list, order_);
    if (count != counts.nudcid) {
        return report_.Error(
            {CR_FINDING_DO_LIST_COUNT, "unique.count", layout.udcids + kUniqueCountOffset, count, counts.nudcid},
            "Invalid DO record: unique DCID list of %u entries, expected %u", count, counts.nudcid);
    }
    std::uint32_t const stored = Load<std::uint32_t>(list);
    std::uint32_t const computed = ListChecksum(list, counts.nudcid, Order::Host);
    if (stored == computed) {
        return true;
    }
    // NoteUniqueList reports the other order.
    return stored == ListChecksum(list, counts.nudcid, Order::Network) ||
           report_.Error({CR_FINDING_DO_LIST_CHECKSUM, "unique.checksum", layout.udcids, stored, computed},
                         "Invalid DO record: unique DCID list checksum %u, expected %u", stored, computed);
}

bool RecordWalk::CheckSegmentList(RecordCounts const& counts, RecordLayout const& layout) noexcept {
    if (!CRDOTypeIsValid(counts.dotype)) {
        return true;
    }
    SegmentList list = SegmentListOf(&header_, layout, Order::Host, subDO_);
    list.entries = bytes_ + layout.entries;
    list.order = copy_ ? Order::Host : order_;
    SegmentListCheck rules(list);
    ForEachBlock(list.count, [&](std::uint64_t first, std::uint64_t count) {
        if (copy_) {
            std::uint64_t const at = layout.Entry(first), bytes = count * layout.stride;
            std::memcpy(copy_ + at, source_ + at, bytes);
            Prefetch(source_ + at, bytes, bytes);
            SegmentsToHost(copy_, layout, counts.dotype, order_, first, count);
        }
        rules.Accumulate(first, count);
        return true;
    });
    SegmentFault const fault = rules.Fault();
    return fault.rule == SegmentRule::None || ReportSegmentFault(fault, "DO record", layout.Entry(fault.segment), list,
                                                                 offsetof(DORecordHeader, size), report_);
}

bool RecordWalk::CheckReferences(RecordCounts const& counts, RecordLayout const& layout) noexcept {
    std::uint64_t const held = layout.tail - layout.taskIds;
    if (noReferences_ && held != 0 &&
        !report_.Error({CR_FINDING_DO_REFERENCES, CRRECORD_FIELD(trefssize), held, 0},
                       "Invalid DO record: %lu bytes of references, expected 0", held)) {
        return false;
    }
    for (std::uint64_t at = layout.trefs; at < layout.tail;) {
        _cr_tref_t reference{};
        unsigned long const taken = DecodeReference(bytes_ + at, layout.tail - at, reference);
        if (taken == 0) {
            return report_.Error({CR_FINDING_DO_REFERENCE, "references", at, bytes_[at], 0},
                                 "Invalid DO record: no typed reference at offset %lu of a section of %u bytes",
                                 at - layout.trefs, counts.trefssize);
        }
        at += taken;
    }
    return true;
}

bool RecordWalk::NoteOddities(RecordCounts const& counts, RecordLayout const& layout) noexcept {
    if (IsBloom(counts.dotype)) {
        std::uint32_t const word = Load<std::uint32_t>(bytes_ + layout.entries, order_);
        if (word != counts.bsize &&
            !report_.Note({CR_FINDING_DO_BLOOM_LENGTH, "bloom.length", layout.entries, word, counts.bsize},
                          "bloom length word %u, expected %u", word, counts.bsize)) {
            return false;
        }
    }
    for (std::uint64_t i = 0; i < layout.segments; ++i) {
        unsigned long const dcid = Load<std::uint64_t>(bytes_ + layout.Dcid(i));
        if (dcid < CR_FIRST_FREE_DCID) {
            char field[48];
            std::snprintf(field, sizeof field, "segments[%lu].dcid", i);
            if (!report_.Note({CR_FINDING_DO_DCID, field, layout.Dcid(i), dcid, CR_FIRST_FREE_DCID},
                              "reserved container id %lu, expected at least %lu", dcid, CR_FIRST_FREE_DCID)) {
                return false;
            }
            break;
        }
    }
    if (layout.taskIds != layout.trefs &&
        !report_.Note({CR_FINDING_DO_LEGACY, counts.ntaskid != 0 ? "ntaskid" : "nds",
                       counts.ntaskid != 0 ? offsetof(DORecordHeader, ntaskid) : offsetof(DORecordHeader, nds),
                       layout.trefs - layout.taskIds, 0},
                      "%lu bytes of legacy references, expected typed ones", layout.trefs - layout.taskIds)) {
        return false;
    }
    return NoteUniqueList(counts, layout) && NoteReferences(layout) && NoteZeros(counts, layout) &&
           NoteBitmapSize(counts);
}

bool RecordWalk::NoteUniqueList(RecordCounts const& counts, RecordLayout const& layout) noexcept {
    if (counts.nudcid == 0) {
        return true;
    }
    unsigned char const* const list = bytes_ + layout.udcids;
    std::uint32_t const stored = Load<std::uint32_t>(list);
    std::uint32_t const computed = ListChecksum(list, counts.nudcid, Order::Host);
    if (stored != computed &&
        !report_.Note({CR_FINDING_DO_LIST_ORDER, "unique.checksum", layout.udcids, stored, computed},
                      "unique DCID list summed in network order: %u, expected %u", stored, computed)) {
        return false;
    }
    for (std::uint32_t i = 1; i < counts.nudcid; ++i) {
        UniqueEntry const before = LoadUniqueEntry(list, i - 1, Order::Host);
        UniqueEntry const entry = LoadUniqueEntry(list, i, Order::Host);
        if (entry.dcid <= before.dcid) {
            char field[48];
            std::snprintf(field, sizeof field, "unique.entries[%u].dcid", i);
            return report_.Note(
                {CR_FINDING_DO_LIST_UNSORTED, field, layout.UniqueEntry(i), entry.dcid, before.dcid + 1},
                "unique DCID list not ascending: %lu behind %lu", entry.dcid, before.dcid);
        }
    }
    return true;
}

bool RecordWalk::NoteReferences(RecordLayout const& layout) noexcept {
    _cr_tref_t before{};
    bool first = true;
    for (std::uint64_t at = layout.trefs; at < layout.tail;) {
        _cr_tref_t reference{};
        unsigned long const taken = DecodeReference(bytes_ + at, layout.tail - at, reference);
        if (taken == 0) {
            return true; // the memory has changed since CheckReferences
        }
        if (!first && CompareReferences(before, reference) >= 0) {
            return report_.Note({CR_FINDING_DO_REFERENCE_ORDER, "references", at, reference.id, before.id},
                                "typed references not ascending at offset %lu of their section", at - layout.trefs);
        }
        before = reference;
        first = false;
        at += taken;
    }
    return true;
}

bool RecordWalk::NoteNonZero(char const* field, std::uint64_t from, std::uint64_t to) noexcept {
    for (std::uint64_t at = from; at < to; ++at) {
        if (bytes_[at] != 0) {
            return report_.Note({CR_FINDING_DO_NON_ZERO, field, at, bytes_[at], 0}, "byte %u in %s, expected 0",
                                bytes_[at], field);
        }
    }
    return true;
}

bool RecordWalk::NoteZeros(RecordCounts const& counts, RecordLayout const& layout) noexcept {
    std::uint64_t const bloomEnd = layout.udcids - kBloomEndSize;
    return NoteNonZero("reserved", offsetof(DORecordHeader, reserved), offsetof(DORecordHeader, checktime)) &&
           NoteNonZero("reserved2", offsetof(DORecordHeader, reserved2), CR_DO_HEADER_SIZE) &&
           (!IsBloom(counts.dotype) || NoteNonZero("bloom.end", bloomEnd, layout.udcids)) &&
           NoteNonZero("tail", layout.tail, layout.total);
}

// Only DO type 4 has a bitmap; in other records nothing depends on its size.
bool RecordWalk::NoteBitmapSize(RecordCounts const& counts) noexcept {
    return IsBloom(counts.dotype) || counts.bsize == 0 ||
           report_.Note({CR_FINDING_DO_BSIZE, CRRECORD_FIELD(bsize), counts.bsize, 0},
                        "bsize %u in a record of DO type %u, expected 0", counts.bsize, counts.dotype);
}

cr_status_t Diagnose(void const* buffer, std::uint64_t size, unsigned int options, FindingReporter report) noexcept {
    if (!buffer || (options & ~kKnownOptions) != 0) {
        return CR_STATUS_INVALID;
    }
    Received received{.bytes = static_cast<unsigned char const*>(buffer),
                      .size = size,
                      .header = HeaderOf(buffer, size),
                      .order = (options & CR_DO_NETWORK_ORDER) != 0 ? Order::Network : Order::Host,
                      .noReferences = (options & CR_DO_NO_REFERENCES) != 0,
                      .subDO = (options & CR_DO_SUB_DO) != 0};
    if (received.order == Order::Network) {
        SwapHeaderFields(&received.header);
    }
    RecordWalk(received, report).Run();
    return report.Status();
}

} // namespace

ValidHeader RequireValid(void const* buffer, std::uint64_t size, unsigned int options, unsigned char* copy) {
    if (!buffer || (options & ~CR_DO_SUB_DO) != 0) {
        throw Cr_ErrnoException(CR_STATUS_INVALID);
    }
    DORecordHeader header = HeaderOf(buffer, size);
    Order const order = HeaderToHost(header);
    Received const received{.bytes = static_cast<unsigned char const*>(buffer),
                            .size = size,
                            .header = header,
                            .order = order,
                            .noReferences = false,
                            .subDO = (options & CR_DO_SUB_DO) != 0};
    FirstError error;
    FindingReporter report = FindingReporter::ErrorsOnly(FirstError::Listen, &error);
    RecordWalk(received, report, copy).Run();
    if (report.Status() != CR_STATUS_OK) {
        error.Throw();
    }
    return {header, order};
}

} // namespace crrecord

using namespace crrecord;

cr_status_t DORecordDiagnose(void const* buffer, unsigned long size, unsigned int options,
                             cr_finding_callback_t callback, void* context) {
    return Diagnose(buffer, size, options, FindingReporter(callback, context));
}

cr_status_t DORecordHeaderValidate(void const* buffer, unsigned int size, unsigned int options) {
    return Diagnose(buffer, size, options, FindingReporter::ForValidator());
}
