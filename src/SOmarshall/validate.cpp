#include "SOmarshall/validate.h"

#include "SOmarshall/layout.h"

namespace crrecord::segment {

namespace {

constexpr unsigned int kKnownOptions = CR_SO_NETWORK_ORDER | CR_SO_NO_TASKIDS;

using FixedPart = crr_so_header;

// Notes what this library would have written in another way. The record has no errors, so it ends with the spare slot.
void NoteOddities(FixedPart const& record, unsigned long spare, std::uint64_t spareOffset,
                  FindingReporter& reporter) noexcept {
    if (!FlagsAreValid(record.flags)) {
        reporter.Report(FindingAt(CR_FINDING_SO_FLAGS, FieldOf("flags"), record.flags, 0), "flags %u, expected 0 or 2",
                        record.flags);
    }
    if (RecordInContainer(record.fileid) && !DcidIsValid(record.pathid)) {
        reporter.Report(FindingAt(CR_FINDING_SO_DCID, FieldOf("pathid"), record.pathid, CR_FIRST_FREE_DCID),
                        "reserved container id %lu, expected 1 or at least %lu", record.pathid, CR_FIRST_FREE_DCID);
    }
    if (record.reserved != 0) {
        reporter.Report(FindingAt(CR_FINDING_SO_RESERVED, FieldOf("reserved"), record.reserved, 0),
                        "reserved byte %u, expected 0", record.reserved);
    }
    if (spare != 0) {
        reporter.Report({CR_FINDING_SO_SPARE, "spare", spareOffset, spare, 0}, "spare slot %lu, expected 0", spare);
    }
}

void ReportFault(crr_fault const& fault, FindingReporter& reporter) noexcept {
    auto const [code, offset, found, expected] = fault;
    switch (code) {
    case CR_FINDING_SO_TYPE:
        reporter.Report({code, "type", offset, found, expected}, "Invalid SO record: type %lu, expected %lu", found,
                        expected);
        break;
    case CR_FINDING_SO_RECSIZE:
        reporter.Report({code, "recsize", offset, found, expected}, "Invalid SO record: recsize %lu, size %lu", found,
                        expected);
        break;
    case CR_FINDING_SO_CALCULATED:
        reporter.Report({code, "nfp", offset, found, expected}, "Invalid SO record: calculated size %lu, size %lu",
                        found, expected);
        break;
    case CR_FINDING_SO_TASKIDS:
        reporter.Report({code, "ntaskids", offset, found, expected}, "Invalid SO record: %lu taskids, expected 0",
                        found);
        break;
    default:
        reporter.Report({code, "fptype", offset, found, expected}, "Invalid SO record: invalid fp type %lu", found);
        break;
    }
}

void CheckFixedPart(FixedPart const& record, std::uint64_t size, unsigned int options,
                    FindingReporter& reporter) noexcept {
    std::uint64_t const calculated = RecordSize(record.ntaskids, record.nfp, record.fptype);
    int code = 0;
    auto const next = [&] { return crr_so_header_fault(&record, calculated, size, options, code); };
    for (crr_fault fault = next(); fault.code != 0; fault = next()) {
        code = fault.code;
        ReportFault(fault, reporter);
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
    FixedPart const record = crr_so_read_header(bytes, crr_is_big(options));
    CRR_READ_ONCE();
    CheckFixedPart(record, size, options, reporter);
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
