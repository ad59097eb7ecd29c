#include "support/validate/record_diagnosis.h"

#include "base/prefetch.h"
#include "support/layout/header_fields.h"
#include "support/layout/unique_list.h"
#include "support/validate/record_notes.h"
#include "support/validate/segment_findings.h"
#include "tref/value.h"

namespace crrecord {

namespace {

constexpr unsigned int kKnownOptions = CR_DO_NETWORK_ORDER | CR_DO_NO_REFERENCES | CR_DO_SUB_DO;

// The bytes to check, and their header as it was read once, in host order.
struct Received {
    unsigned char const* bytes;
    std::uint64_t size;
    DORecordHeader header;
    Order order;
    bool noReferences;
    bool subDO;
};

// The header as it is stored, or zeros for fewer bytes than the smallest record has.
DORecordHeader HeaderOf(void const* bytes, std::uint64_t size) noexcept {
    return size >= CR_DO_RECORD_SIZE ? ReadHeader(bytes) : DORecordHeader{};
}

// One pass over a record. Counts and layout come from one reading of the header, so no check reads outside of the
// record even if the memory changes meanwhile.
class RecordDiagnosis {
public:
    // With `copy`, a block of as many bytes, the record is copied there in host order and the copy is checked. The copy
    // is complete if there is no error.
    RecordDiagnosis(Received const& received, FindingReporter& reporter, unsigned char* copy = nullptr) noexcept
        : received_(received), header_(received.header), layout_(CountsOf(&received.header, Order::Host)),
          bytes_(copy ? copy : received.bytes), copy_(copy), reporter_(reporter) {}

    void Run() noexcept {
        CheckLength();
        CheckHeader();
        CheckTotal();
        if (reporter_.Stopped()) {
            return;
        }
        if (copy_) {
            CopyAllButSegments();
        }
        CheckUniqueList();
        if (!reporter_.Stopped()) {
            CheckSegmentList();
        }
        if (!reporter_.Stopped()) {
            CheckReferences();
        }
        if (reporter_.NotesDue()) {
            NoteOddities({bytes_, header_, received_.order, layout_}, reporter_);
        }
        if (copy_) {
            WordsToHost(copy_, CountsOf(&header_, Order::Host), layout_, received_.order);
        }
    }

private:
    void CheckLength() noexcept;
    void CheckHeader() noexcept;
    void CheckTotal() noexcept;
    void CopyAllButSegments() noexcept;
    void CheckUniqueList() noexcept;
    void CheckSegmentList() noexcept;
    void CheckReferences() noexcept;

    Received const& received_;
    DORecordHeader const& header_;
    RecordLayout layout_;
    unsigned char const* bytes_; // the checked bytes: those received, or their copy
    unsigned char* copy_;
    FindingReporter& reporter_;
};

void RecordDiagnosis::CheckLength() noexcept {
    std::uint64_t const size = received_.size;
    if (size < CR_DO_RECORD_SIZE) {
        reporter_.Report({CR_FINDING_DO_LENGTH, "length", size, size, CR_DO_RECORD_SIZE},
                         "Invalid DO record: size %lu, expected at least %u", size, CR_DO_RECORD_SIZE);
        reporter_.Stop();
    }
}

void RecordDiagnosis::CheckHeader() noexcept {
    unsigned const type = header_.type, recsize = header_.recsize, flags = header_.flags;
    if (type != CR_DO_RECORD_TYPE) {
        reporter_.Report(FindingAt(CR_FINDING_DO_TYPE, HeaderFieldOf("type"), type, CR_DO_RECORD_TYPE),
                         "Invalid DO record: type %u, expected %u", type, CR_DO_RECORD_TYPE);
    }
    if (recsize != received_.size) {
        reporter_.Report(FindingAt(CR_FINDING_DO_RECSIZE, HeaderFieldOf("recsize"), recsize, received_.size),
                         "Invalid DO record: recsize %u, size %lu", recsize, received_.size);
    }
    if ((flags & ~kKnownFlags) != 0) {
        reporter_.Report(FindingAt(CR_FINDING_DO_FLAGS, HeaderFieldOf("flags"), flags, flags & kKnownFlags),
                         "Invalid DO record: flags %#x, expected only bits of %#x", flags, kKnownFlags);
    }
    if (!CRDOTypeIsValid(header_.dotype)) {
        reporter_.Report(FindingAt(CR_FINDING_DO_DOTYPE, HeaderFieldOf("dotype"), header_.dotype, CR_DO_TYPE_LAST),
                         "Invalid DO record: DO type %u, expected at most %u", header_.dotype, CR_DO_TYPE_LAST);
    }
    if (!CRFPTypeIsValid(header_.fptype)) {
        reporter_.Report(FindingAt(CR_FINDING_DO_FPTYPE, HeaderFieldOf("fptype"), header_.fptype, CR_FP_TYPE_LAST),
                         "Invalid DO record: fingerprint type %u, expected at most %u", header_.fptype,
                         CR_FP_TYPE_LAST);
    }
    if (IsBloom(header_.dotype) && header_.nfp != 0) {
        reporter_.Report(FindingAt(CR_FINDING_DO_BLOOM_SEGMENTS, HeaderFieldOf("nfp"), header_.nfp, 0),
                         "Invalid DO record: a bloom record with %u segments, expected 0", header_.nfp);
    }
}

// If the total is wrong, no section starts at the offset that the counts give.
void RecordDiagnosis::CheckTotal() noexcept {
    if (layout_.total != received_.size) {
        reporter_.Report(FindingAt(CR_FINDING_DO_CALCULATED, HeaderFieldOf("nfp"), layout_.total, received_.size),
                         "Invalid DO record: calculated size %lu, size %lu", layout_.total, received_.size);
        reporter_.Stop();
    }
}

void RecordDiagnosis::CopyAllButSegments() noexcept {
    std::memcpy(copy_, &header_, sizeof header_);
    std::memcpy(copy_ + layout_.dcids, received_.bytes + layout_.dcids, received_.size - layout_.dcids);
}

void RecordDiagnosis::CheckUniqueList() noexcept {
    if (header_.nudcid == 0) {
        return;
    }
    unsigned char const* const list = bytes_ + layout_.udcids;
    std::uint32_t const count = UniqueCount(list, received_.order);
    if (count != header_.nudcid) {
        reporter_.Report(
            {CR_FINDING_DO_LIST_COUNT, "unique.count", layout_.udcids + kUniqueCountOffset, count, header_.nudcid},
            "Invalid DO record: unique DCID list of %u entries, expected %u", count, header_.nudcid);
        return;
    }
    std::uint32_t const stored = Load<std::uint32_t>(list);
    std::uint32_t const computed = ListChecksum(list, count, Order::Host);
    // A checksum made with the count in network order is only noted (record_notes.cpp).
    if (stored != computed && stored != ListChecksum(list, count, Order::Network)) {
        reporter_.Report({CR_FINDING_DO_LIST_CHECKSUM, "unique.checksum", layout_.udcids, stored, computed},
                         "Invalid DO record: unique DCID list checksum %u, expected %u", stored, computed);
    }
}

// Copies, converts and checks one block of segments after another, so that each is read from memory once.
void RecordDiagnosis::CheckSegmentList() noexcept {
    if (!CRDOTypeIsValid(header_.dotype)) {
        return;
    }
    DOSegmentSource const list = SegmentSourceOf(header_, bytes_, copy_ ? Order::Host : received_.order);
    SegmentListCheck check(list, received_.subDO);
    ForEachBlock(list.count, [&](std::uint64_t first, std::uint64_t count) {
        if (copy_) {
            std::uint64_t const at = layout_.Entry(first), bytes = count * layout_.stride;
            std::memcpy(copy_ + at, received_.bytes + at, bytes);
            Prefetch(received_.bytes + at, bytes, bytes);
            SegmentsToHost(copy_, layout_, header_.dotype, received_.order, first, count);
        }
        check.Accumulate(first, count);
        return true;
    });
    SegmentFault const fault = check.Fault();
    ReportSegmentFault(fault, "DO record", layout_.Entry(fault.segment), list, HeaderFieldOf("size").offset, reporter_);
}

void RecordDiagnosis::CheckReferences() noexcept {
    std::uint64_t const held = layout_.tail - layout_.taskIds;
    if (received_.noReferences && held != 0) {
        reporter_.Report(FindingAt(CR_FINDING_DO_REFERENCES, HeaderFieldOf("trefssize"), held, 0),
                         "Invalid DO record: %lu bytes of references, expected 0", held);
    }
    for (std::uint64_t at = layout_.trefs; at < layout_.tail;) {
        _cr_tref_t reference{};
        unsigned long const taken = DecodeReference(bytes_ + at, layout_.tail - at, reference);
        if (taken == 0) {
            reporter_.Report({CR_FINDING_DO_REFERENCE, "references", at, bytes_[at], 0},
                             "Invalid DO record: no typed reference at offset %lu of a section of %u bytes",
                             at - layout_.trefs, header_.trefssize);
            return;
        }
        at += taken;
    }
}

cr_status_t Diagnose(void const* buffer, std::uint64_t size, unsigned int options, FindingReporter reporter) noexcept {
    if (!buffer || (options & ~kKnownOptions) != 0) {
        return CR_STATUS_INVALID;
    }
    Received received{.bytes = static_cast<unsigned char const*>(buffer),
                      .size = size,
                      .header = HeaderOf(buffer, size),
                      .order = OrderFromFlag((options & CR_DO_NETWORK_ORDER) != 0),
                      .noReferences = (options & CR_DO_NO_REFERENCES) != 0,
                      .subDO = (options & CR_DO_SUB_DO) != 0};
    if (received.order == Order::Network) {
        SwapHeaderFields(&received.header);
    }
    RecordDiagnosis(received, reporter).Run();
    return reporter.Status();
}

} // namespace

ValidHeader RequireValid(void const* buffer, std::uint64_t size, unsigned int options, unsigned char* copy) {
    if (!buffer || (options & ~CR_DO_SUB_DO) != 0) {
        throw Cr_ErrnoException(CR_STATUS_INVALID);
    }
    Received received{.bytes = static_cast<unsigned char const*>(buffer),
                      .size = size,
                      .header = HeaderOf(buffer, size),
                      .order = Order::Host,
                      .noReferences = false,
                      .subDO = (options & CR_DO_SUB_DO) != 0};
    received.order = HeaderToHost(received.header);
    FirstError error;
    FindingReporter reporter = error.Reporter();
    RecordDiagnosis(received, reporter, copy).Run();
    error.ThrowIfAny();
    return {received.header, received.order};
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
