// The one walk that says whether a DO record may be trusted, and its two faces.

#include "support/validate/record_diagnosis.h"

#include "base/prefetch.h"
#include "status/trace.h"
#include "support/layout/unique_list.h"
#include "support/validate/segment_findings.h"
#include "tref/value.h"

#include <cstdio>
#include <exception>

namespace crrecord {

namespace {

constexpr unsigned int kKnownOptions = CR_DO_NETWORK_ORDER | CR_DO_NO_REFERENCES | CR_DO_SUB_DO;
constexpr unsigned int kKnownFlags = 0x0006;

#define CRRECORD_FIELD(member) #member, offsetof(DORecordHeader, member)

// Each step returns whether the walk goes on.
class RecordWalk {
public:
    // `allocate` may be empty, and doesn't throw. Where all before the segments is sound they are copied to the room
    // that it gives, to host order.
    RecordWalk(unsigned char const* bytes, std::uint64_t size, unsigned int options, AllocateCopy const& allocate,
               FindingReporter& report) noexcept
        : bytes_(bytes), header_(reinterpret_cast<DORecordHeader const*>(bytes)), size_(size), options_(options),
          order_((options & CR_DO_NETWORK_ORDER) != 0 ? Order::Network : Order::Host), allocate_(allocate),
          report_(report) {}

    void Run() noexcept {
        if (size_ < CR_DO_RECORD_SIZE) {
            report_.Error({CR_FINDING_DO_LENGTH, "length", size_, size_, CR_DO_RECORD_SIZE},
                          "Invalid DO record: size %lu, expected at least %u", size_, CR_DO_RECORD_SIZE);
            return;
        }
        RecordCounts const counts = CountsOf(header_, order_);
        RecordLayout const layout(counts);
        bool const goOn = CheckHeader(counts) && CheckTotal(layout);
        // Behind a wrong total nothing is where the counts say.
        if (goOn && layout.total == size_ && CheckUniqueList(counts, layout) && CheckSegmentList(layout) &&
            CheckReferences(counts, layout) && report_.Status() == CR_STATUS_OK) {
            NoteOddities(counts, layout);
        }
    }

private:
    bool CheckHeader(RecordCounts const& counts) noexcept;
    bool CheckTotal(RecordLayout const& layout) noexcept;
    bool CheckUniqueList(RecordCounts const& counts, RecordLayout const& layout) noexcept;
    bool CheckSegmentList(RecordLayout const& layout) noexcept;
    bool CheckReferences(RecordCounts const& counts, RecordLayout const& layout) noexcept;
    bool NoteOddities(RecordCounts const& counts, RecordLayout const& layout) noexcept;
    bool NoteUniqueList(RecordCounts const& counts, RecordLayout const& layout) noexcept;
    bool NoteReferences(RecordLayout const& layout) noexcept;
    bool NoteZeros(RecordCounts const& counts, RecordLayout const& layout) noexcept;
    bool NoteBitmapSize(RecordCounts const& counts) noexcept;
    bool NoteNonZero(char const* field, std::uint64_t from, std::uint64_t to) noexcept;

    template <class T>
    T InOrder(T stored) const noexcept {
        return order_ == Order::Host ? stored : ByteSwapped(stored);
    }

    unsigned char const* bytes_;
    DORecordHeader const* header_;
    std::uint64_t size_;
    unsigned int options_;
    Order order_;
    AllocateCopy const& allocate_;
    FindingReporter& report_;
};

bool RecordWalk::CheckHeader(RecordCounts const& counts) noexcept {
    unsigned const type = InOrder(header_->type);
    unsigned const recsize = InOrder(header_->recsize);
    unsigned const flags = InOrder(header_->flags);
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
    std::uint32_t const computed = ListChecksum(list, count, Order::Host);
    if (stored == computed) {
        return true;
    }
    // NoteUniqueList speaks of the other order.
    return stored == ListChecksum(list, count, Order::Network) ||
           report_.Error({CR_FINDING_DO_LIST_CHECKSUM, "unique.checksum", layout.udcids, stored, computed},
                         "Invalid DO record: unique DCID list checksum %u, expected %u", stored, computed);
}

bool RecordWalk::CheckSegmentList(RecordLayout const& layout) noexcept {
    if (!CRDOTypeIsValid(header_->dotype)) {
        return true;
    }
    SegmentList const list = SegmentListOf(header_, layout, order_, (options_ & CR_DO_SUB_DO) != 0);
    DORecordHeader* const copy = allocate_ ? allocate_() : nullptr;
    SegmentListCheck rules(list);
    ForEachBlock(list.count, [&](std::uint64_t first, std::uint64_t count) {
        rules.Accumulate(first, count);
        if (copy) {
            Prefetch(list.entries + first * list.stride, count * list.stride, count * list.stride);
            CopySegmentsToHost(copy, header_, layout, order_, first, count);
        }
        return true;
    });
    SegmentFault const fault = rules.Fault();
    return fault.rule == SegmentRule::None || ReportSegmentFault(fault, "DO record", layout.Entry(fault.segment), list,
                                                                 offsetof(DORecordHeader, size), report_);
}

bool RecordWalk::CheckReferences(RecordCounts const& counts, RecordLayout const& layout) noexcept {
    std::uint64_t const held = layout.tail - layout.taskIds;
    if ((options_ & CR_DO_NO_REFERENCES) != 0 && held != 0 &&
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
    if (!report_.WantsNotes()) {
        return true;
    }
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
    return counts.dotype == CR_DO_TYPE_BLOOM_FILTER || counts.bsize == 0 ||
           report_.Note({CR_FINDING_DO_BSIZE, CRRECORD_FIELD(bsize), counts.bsize, 0},
                        "bsize %u in a record of DO type %u, expected 0", counts.bsize, counts.dotype);
}

Order ValidateAndCopySegments(void const* buffer, std::uint64_t size, unsigned int options,
                              AllocateCopy const& allocate) {
    if (!buffer || (options & ~CR_DO_SUB_DO) != 0) {
        throw Cr_ErrnoException(CR_STATUS_INVALID);
    }
    // A buffer too short to show an order is too short in either.
    Order const order = size >= CR_DO_HEADER_SIZE ? OrderOf(static_cast<DORecordHeader const*>(buffer)) : Order::Host;
    FirstError error;
    FindingReporter report(FirstError::Listen, &error, false);
    RecordWalk(static_cast<unsigned char const*>(buffer), size,
               options | (order == Order::Network ? CR_DO_NETWORK_ORDER : 0), allocate, report)
        .Run();
    if (report.Status() != CR_STATUS_OK) {
        error.Throw();
    }
    return order;
}

} // namespace

Order RequireValid(void const* buffer, std::uint64_t size, unsigned int options) {
    return ValidateAndCopySegments(buffer, size, options, AllocateCopy());
}

void CopyValid(void const* buffer, std::uint64_t size, unsigned int options, AllocateCopy const& allocate) {
    DORecordHeader* copy = nullptr;
    std::exception_ptr noRoom;
    auto const tryToAllocate = [&]() noexcept {
        try {
            copy = allocate();
        } catch (...) {
            noRoom = std::current_exception(); // the record's own faults come first
        }
        return copy;
    };
    Order const order =
        ValidateAndCopySegments(buffer, size, options, std::ref(tryToAllocate)); // which takes no memory
    if (noRoom) {
        std::rethrow_exception(noRoom);
    }
    CopyRestToHost(copy, static_cast<DORecordHeader const*>(buffer), size, order);
}

void DiagnoseRecord(unsigned char const* bytes, std::uint64_t size, unsigned int options,
                    FindingReporter& report) noexcept {
    AllocateCopy const noCopy;
    RecordWalk(bytes, size, options, noCopy, report).Run();
}

} // namespace crrecord

cr_status_t DORecordDiagnose(void const* buffer, unsigned long size, unsigned int options,
                             cr_finding_callback_t callback, void* context) {
    if (!buffer || (options & ~crrecord::kKnownOptions) != 0) {
        return CR_STATUS_INVALID;
    }
    crrecord::FindingReporter report(callback, context);
    crrecord::DiagnoseRecord(static_cast<unsigned char const*>(buffer), size, options, report);
    return report.Status();
}

cr_status_t DORecordHeaderValidate(void const* buffer, unsigned int size, unsigned int options) {
    return DORecordDiagnose(buffer, size, options, crrecord::TraceOn() ? crrecord::TraceFirstError : nullptr, nullptr);
}
