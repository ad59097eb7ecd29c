#include "SOmarshall/validate.h"

#include "SOmarshall/layout.h"

namespace crrecord::segment {

namespace {

constexpr unsigned int kKnownOptions = CR_SO_NETWORK_ORDER | CR_SO_NO_TASKIDS;

// Members of the fixed part as host values, read from a copy: the memory may change meanwhile.
struct FixedPart {
    unsigned type, flags, reserved, fptype;
    std::uint32_t recsize, taskIds, nfp;
    unsigned long path, file;
};

FixedPart ReadFixedPart(unsigned char const* bytes, Order order) noexcept {
    _SegmentDBRecord const record = ReadHeader(bytes);
    return {.type = InOrder(record.type, order),
            .flags = InOrder(record.flags, order),
            .reserved = record.reserved,
            .fptype = record.fptype,
            .recsize = InOrder(record.recsize, order),
            .taskIds = InOrder(record.ntaskids, order),
            .nfp = InOrder(record.nfp, order),
            .path = InOrder(record.pathid, order),
            .file = InOrder(record.fileid, order)};
}

// Notes what this library would have written in another way. The record has no errors, so it ends with the spare slot.
void NoteOddities(FixedPart const& record, unsigned long spare, std::uint64_t spareOffset,
                  FindingReporter& reporter) noexcept {
    if (!FlagsAreValid(record.flags)) {
        reporter.Report(FindingAt(CR_FINDING_SO_FLAGS, FieldOf("flags"), record.flags, 0), "flags %u, expected 0 or 2",
                        record.flags);
    }
    if (RecordInContainer(record.file) && !DcidIsValid(record.path)) {
        reporter.Report(FindingAt(CR_FINDING_SO_DCID, FieldOf("pathid"), record.path, CR_FIRST_FREE_DCID),
                        "reserved container id %lu, expected 1 or at least %lu", record.path, CR_FIRST_FREE_DCID);
    }
    if (record.reserved != 0) {
        reporter.Report(FindingAt(CR_FINDING_SO_RESERVED, FieldOf("reserved"), record.reserved, 0),
                        "reserved byte %u, expected 0", record.reserved);
    }
    if (spare != 0) {
        reporter.Report({CR_FINDING_SO_SPARE, "spare", spareOffset, spare, 0}, "spare slot %lu, expected 0", spare);
    }
}

void CheckFixedPart(FixedPart const& record, std::uint64_t size, bool noTaskIds, FindingReporter& reporter) noexcept {
    std::uint64_t const calculated = RecordSize(record.taskIds, record.nfp, record.fptype);
    if (record.type != CR_SO_RECORD_TYPE) {
        reporter.Report(FindingAt(CR_FINDING_SO_TYPE, FieldOf("type"), record.type, CR_SO_RECORD_TYPE),
                        "Invalid SO record: type %u, expected %u", record.type, CR_SO_RECORD_TYPE);
    }
    if (record.recsize != size) {
        reporter.Report(FindingAt(CR_FINDING_SO_RECSIZE, FieldOf("recsize"), record.recsize, size),
                        "Invalid SO record: recsize %u, size %lu", record.recsize, size);
    }
    if (calculated != size) {
        reporter.Report(FindingAt(CR_FINDING_SO_CALCULATED, FieldOf("nfp"), calculated, size),
                        "Invalid SO record: calculated size %lu, size %lu", calculated, size);
    }
    if (noTaskIds && record.taskIds != 0) {
        reporter.Report(FindingAt(CR_FINDING_SO_TASKIDS, FieldOf("ntaskids"), record.taskIds, 0),
                        "Invalid SO record: %u taskids, expected 0", record.taskIds);
    }
    // Checked last on purpose, although the type gives the width of the fingerprints: an unknown one counts as 16
    // bytes.
    if (!CRFPTypeIsValid(record.fptype)) {
        reporter.Report(FindingAt(CR_FINDING_SO_FPTYPE, FieldOf("fptype"), record.fptype, CR_FP_TYPE_LAST),
                        "Invalid SO record: invalid fp type %u", record.fptype);
    }
}

cr_status_t DiagnoseBuffer(void const* buffer, std::uint64_t size, unsigned int options,
                           FindingReporter reporter) noexcept {
    if (!buffer || (options & ~kKnownOptions) != 0) {
        return CR_STATUS_INVALID;
    }
    Diagnose(static_cast<unsigned char const*>(buffer), size, options, reporter);
    return reporter.Status();
}

} // namespace

bool FlagsAreValid(unsigned int flags) noexcept {
    return flags == 0 || flags == 2;
}

bool DcidIsValid(unsigned long dcid) noexcept {
    return dcid == 1 || dcid >= CR_FIRST_FREE_DCID;
}

void Diagnose(unsigned char const* bytes, std::uint64_t size, unsigned int options,
              FindingReporter& reporter) noexcept {
    if (size < CR_SO_FIXED_SIZE) {
        reporter.Report({CR_FINDING_SO_LENGTH, "length", size, size, CR_SO_FIXED_SIZE},
                        "Invalid SO record: size %lu, expected at least %u", size, CR_SO_FIXED_SIZE);
        reporter.Stop();
        return;
    }
    Order const order = OrderFromFlag((options & CR_SO_NETWORK_ORDER) != 0);
    FixedPart const record = ReadFixedPart(bytes, order);
    CheckFixedPart(record, size, (options & CR_SO_NO_TASKIDS) != 0, reporter);
    if (reporter.NotesDue()) {
        std::uint64_t const spareOffset = size - kSpareSize;
        NoteOddities(record, Load<std::uint64_t>(bytes + spareOffset, order), spareOffset, reporter);
    }
}

} // namespace crrecord::segment

using namespace crrecord;

cr_status_t SegmentRecordDiagnose(void const* buffer, unsigned long size, unsigned int options,
                                  cr_finding_callback_t callback, void* context) {
    return segment::DiagnoseBuffer(buffer, size, options, FindingReporter(callback, context));
}

cr_status_t SegmentRecordValidate(_SegmentDBRecord const* record, unsigned int size, unsigned int options) {
    return segment::DiagnoseBuffer(record, size, options, FindingReporter::ForValidator());
}
