#include "support/validate/record_diagnosis.h"

#include "base/prefetch.h"
#include "support/layout/header_fields.h"
#include "support/layout/unique_list.h"
#include "support/validate/record_notes.h"
#include "support/validate/segment_findings.h"

#include <bit>

namespace crrecord {

namespace {

static_assert(int{CRR_OK} == CR_STATUS_OK && int{CRR_INVALID} == CR_STATUS_INVALID &&
              int{CRR_CORRUPT_RECORD} == CR_STATUS_CORRUPT_RECORD);

// The header may be read as that of reader.h.
static_assert(kHeaderFields[0].offset == offsetof(crr_do_header, type) &&
              HeaderFieldOf("checktime").offset == offsetof(crr_do_header, checktime) &&
              HeaderFieldOf("CID").offset == offsetof(crr_do_header, cid) &&
              HeaderFieldOf("CRC").offset == offsetof(crr_do_header, crc) &&
              HeaderFieldOf("ntaskid").offset == offsetof(crr_do_header, ntaskid) &&
              HeaderFieldOf("nfp").offset == offsetof(crr_do_header, nfp) &&
              HeaderFieldOf("trefssize").offset == offsetof(crr_do_header, trefssize) &&
              HeaderFieldOf("fptype").offset == offsetof(crr_do_header, fptype) &&
              HeaderFieldOf("reserved2").offset == offsetof(crr_do_header, reserved2));

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

// The field of a header fault, and the message.
void ReportHeaderFault(crr_fault const& fault, FindingReporter& reporter) noexcept {
    auto const [code, offset, found, expected] = fault;
    switch (code) {
    case CR_FINDING_DO_TYPE:
        reporter.Report({code, "type", offset, found, expected}, "Invalid DO record: type %lu, expected %lu", found,
                        expected);
        break;
    case CR_FINDING_DO_RECSIZE:
        reporter.Report({code, "recsize", offset, found, expected}, "Invalid DO record: recsize %lu, size %lu", found,
                        expected);
        break;
    case CR_FINDING_DO_FLAGS:
        reporter.Report({code, "flags", offset, found, expected},
                        "Invalid DO record: flags %#lx, expected only bits of %#x", found, kKnownFlags);
        break;
    case CR_FINDING_DO_DOTYPE:
        reporter.Report({code, "dotype", offset, found, expected},
                        "Invalid DO record: DO type %lu, expected at most %lu", found, expected);
        break;
    case CR_FINDING_DO_FPTYPE:
        reporter.Report({code, "fptype", offset, found, expected},
                        "Invalid DO record: fingerprint type %lu, expected at most %lu", found, expected);
        break;
    case CR_FINDING_DO_BLOOM_SEGMENTS:
        reporter.Report({code, "nfp", offset, found, expected},
                        "Invalid DO record: a bloom record with %lu segments, expected 0", found);
        break;
    default:
        reporter.Report({code, "nfp", offset, found, expected}, "Invalid DO record: calculated size %lu, size %lu",
                        found, expected);
        break;
    }
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
        if (!reporter_.Stopped()) {
            CheckHeader();
        }
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

// Reports all errors of the header. If the total is wrong, no section starts at the offset that the counts give.
void RecordDiagnosis::CheckHeader() noexcept {
    auto const fields = std::bit_cast<crr_do_header>(header_);
    int code = 0;
    auto const next = [&] { return crr_do_header_fault(&fields, layout_.total, received_.size, code); };
    for (crr_fault fault = next(); fault.code != 0; fault = next()) {
        code = fault.code;
        ReportHeaderFault(fault, reporter_);
    }
    if (code == CR_FINDING_DO_CALCULATED) {
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
    crr_fault const count = crr_list_count_fault(layout_.udcids, UniqueCount(list, received_.order), header_.nudcid);
    if (count.code != 0) {
        reporter_.Report({count.code, "unique.count", count.offset, count.found, count.expected},
                         "Invalid DO record: unique DCID list of %lu entries, expected %lu", count.found,
                         count.expected);
        return;
    }
    std::uint32_t const stored = Load<std::uint32_t>(list);
    std::uint32_t const computed = ListChecksum(list, header_.nudcid, Order::Host);
    // A checksum made with the count in network order is only noted (record_notes.cpp).
    std::uint32_t const other = stored == computed ? computed : ListChecksum(list, header_.nudcid, Order::Network);
    crr_fault const fault = crr_list_checksum_fault(layout_.udcids, stored, computed, other);
    if (fault.code != 0) {
        reporter_.Report({fault.code, "unique.checksum", fault.offset, fault.found, fault.expected},
                         "Invalid DO record: unique DCID list checksum %lu, expected %lu", fault.found, fault.expected);
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
    ReportSegmentFault(check.Fault(layout_.entries, HeaderFieldOf("size").offset), "DO record", reporter_);
}

void RecordDiagnosis::CheckReferences() noexcept {
    crr_fault const held = crr_no_references_fault(&layout_, received_.noReferences ? CRR_NO_REFERENCES : 0);
    if (held.code != 0) {
        reporter_.Report({held.code, "trefssize", held.offset, held.found, held.expected},
                         "Invalid DO record: %lu bytes of references, expected 0", held.found);
    }
    crr_fault const fault = crr_references_fault(bytes_, layout_.trefs, layout_.tail);
    if (fault.code != 0) {
        reporter_.Report({fault.code, "references", fault.offset, fault.found, fault.expected},
                         "Invalid DO record: no typed reference at offset %lu of a section of %u bytes",
                         fault.offset - layout_.trefs, header_.trefssize);
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
