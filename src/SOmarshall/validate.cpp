// The one walk that says whether a segment record may be trusted, and its two faces.

#include "SOmarshall/validate.h"
#include "SOmarshall/layout.h"

namespace crrecord::segment {

namespace {

constexpr unsigned int kKnownOptions = CR_SO_NETWORK_ORDER | CR_SO_NO_TASKIDS;

constexpr Finding At(int code, Field field, std::uint64_t found, std::uint64_t expected) noexcept {
    return {code, field.name, field.offset, found, expected};
}

// What this library would have written otherwise. Only for a record without errors, whose every byte is known.
void NoteOddities(unsigned char const* bytes, std::uint64_t size, Order order, FindingReporter& report) noexcept {
    unsigned const flags = Load<std::uint16_t>(bytes + FieldOf("flags").offset, order);
    unsigned long const path = Load<std::uint64_t>(bytes + FieldOf("pathid").offset, order);
    unsigned long const file = Load<std::uint64_t>(bytes + FieldOf("fileid").offset, order);
    unsigned const reserved = bytes[FieldOf("reserved").offset];
    std::uint64_t const spareOffset = size - kSpareSize;
    unsigned long const spare = Load<std::uint64_t>(bytes + spareOffset, order);

    if (!FlagsAreValid(flags) &&
        !report.Note(At(CR_FINDING_SO_FLAGS, FieldOf("flags"), flags, 0), "flags %u, expected 0 or 2", flags)) {
        return;
    }
    if (RecordInContainer(file) && !DcidIsValid(path) &&
        !report.Note(At(CR_FINDING_SO_DCID, FieldOf("pathid"), path, CR_FIRST_FREE_DCID),
                     "reserved container id %lu, expected 1 or at least %lu", path, CR_FIRST_FREE_DCID)) {
        return;
    }
    if (reserved != 0 && !report.Note(At(CR_FINDING_SO_RESERVED, FieldOf("reserved"), reserved, 0),
                                      "reserved byte %u, expected 0", reserved)) {
        return;
    }
    if (spare != 0) {
        report.Note({CR_FINDING_SO_SPARE, "spare", spareOffset, spare, 0}, "spare slot %lu, expected 0", spare);
    }
}

} // namespace

bool FlagsAreValid(unsigned int flags) noexcept {
    return flags == 0 || flags == 2;
}

bool DcidIsValid(unsigned long dcid) noexcept {
    return dcid == 1 || dcid >= CR_FIRST_FREE_DCID;
}

void Diagnose(unsigned char const* bytes, std::uint64_t size, unsigned int options, FindingReporter& report) noexcept {
    if (size < CR_SO_FIXED_SIZE) {
        report.Error({CR_FINDING_SO_LENGTH, "length", size, size, CR_SO_FIXED_SIZE},
                     "Invalid SO record: size %lu, expected at least %u", size, CR_SO_FIXED_SIZE);
        return;
    }
    Order const order = (options & CR_SO_NETWORK_ORDER) != 0 ? Order::Network : Order::Host;
    unsigned const type = Load<std::uint16_t>(bytes + FieldOf("type").offset, order);
    std::uint32_t const recsize = Load<std::uint32_t>(bytes + FieldOf("recsize").offset, order);
    std::uint32_t const taskIds = Load<std::uint32_t>(bytes + FieldOf("ntaskids").offset, order);
    std::uint32_t const nfp = Load<std::uint32_t>(bytes + FieldOf("nfp").offset, order);
    unsigned const fptype = bytes[FieldOf("fptype").offset];
    std::uint64_t const calculated = RecordSize(taskIds, nfp, fptype);

    if (type != CR_SO_RECORD_TYPE &&
        !report.Error(At(CR_FINDING_SO_TYPE, FieldOf("type"), type, CR_SO_RECORD_TYPE),
                      "Invalid SO record: type %u, expected %u", type, CR_SO_RECORD_TYPE)) {
        return;
    }
    if (recsize != size && !report.Error(At(CR_FINDING_SO_RECSIZE, FieldOf("recsize"), recsize, size),
                                         "Invalid SO record: recsize %u, size %lu", recsize, size)) {
        return;
    }
    if (calculated != size && !report.Error(At(CR_FINDING_SO_CALCULATED, FieldOf("nfp"), calculated, size),
                                            "Invalid SO record: calculated size %lu, size %lu", calculated, size)) {
        return;
    }
    if (taskIds != 0 && (options & CR_SO_NO_TASKIDS) != 0 &&
        !report.Error(At(CR_FINDING_SO_TASKIDS, FieldOf("ntaskids"), taskIds, 0),
                      "Invalid SO record: %u taskids, expected 0", taskIds)) {
        return;
    }
    // Last, although it has chosen the width of the fingerprints before: an unknown type whose sizes add up ends here.
    if (!CRFPTypeIsValid(fptype) &&
        !report.Error(At(CR_FINDING_SO_FPTYPE, FieldOf("fptype"), fptype, CR_FP_TYPE_SHA256),
                      "Invalid SO record: invalid fp type %u", fptype)) {
        return;
    }
    if (report.WantsNotes() && report.Status() == CR_STATUS_OK) {
        NoteOddities(bytes, size, order, report);
    }
}

namespace {

cr_status_t DiagnoseBuffer(void const* buffer, std::uint64_t size, unsigned int options,
                           FindingReporter report) noexcept {
    if (!buffer || (options & ~kKnownOptions) != 0) {
        return CR_STATUS_INVALID;
    }
    Diagnose(static_cast<unsigned char const*>(buffer), size, options, report);
    return report.Status();
}

} // namespace

} // namespace crrecord::segment

using namespace crrecord;

cr_status_t SegmentRecordDiagnose(void const* buffer, unsigned long size, unsigned int options,
                                  cr_finding_callback_t callback, void* context) {
    return segment::DiagnoseBuffer(buffer, size, options, FindingReporter(callback, context));
}

cr_status_t SegmentRecordValidate(_SegmentDBRecord const* record, unsigned int size, unsigned int options) {
    return segment::DiagnoseBuffer(record, size, options, FindingReporter::ForValidator());
}
