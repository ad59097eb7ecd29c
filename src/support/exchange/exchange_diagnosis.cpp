#include "support/exchange/exchange_diagnosis.h"

#include "support/validate/segment_findings.h"

#include <algorithm>
#include <cstdio>

namespace crrecord::exchange {

namespace {

constexpr unsigned int kKnownOptions = CR_DO_FORM_CHECKSUM | CR_DO_SUB_DO;
constexpr char kWhat[] = "serialized DO";

void CheckRecordSize(Form const& form, FindingReporter& reporter) noexcept {
    std::uint64_t const total = RecordLayout(form.counts).total;
    if (total > kLargestRecord) {
        reporter.Report({CR_FINDING_FORM_TOO_LARGE, "nfp", kCountOffset, total, kLargestRecord},
                        "Invalid %s: a record of %lu bytes, expected at most %lu", kWhat, total, kLargestRecord);
    }
}

// The segments of the form for the check of the list: a fingerprint takes the width of its text.
DOSegmentSource ListOf(Form const& form) noexcept {
    DOEntryLayout const entry = FormEntryLayout(form.counts.fptype, form.counts.dotype);
    unsigned char const* const entries = form.bytes + kHeadSize;
    return {entry,
            entries,
            entries + std::uint64_t{entry.stride} * form.counts.nfp + kSeparatorSize,
            Load<std::uint64_t>(form.bytes + kSizeOffset, Order::Network),
            Load<std::uint64_t>(form.bytes + kSsizeOffset, Order::Network),
            form.counts.nfp,
            Order::Network};
}

// Reports each invalid text of `count` segments from the i-th on.
void ReportTexts(DOSegmentSource const& list, std::uint64_t i, std::uint64_t count, SegmentCodec const& codec,
                 FindingReporter& reporter) noexcept {
    for (std::uint64_t const end = i + count; i < end && !reporter.Stopped(); ++i) {
        unsigned char const* const text = list.entries + i * list.stride;
        if (!codec.check(text, 1)) {
            char field[48];
            std::snprintf(field, sizeof field, "segments[%lu].fingerprint", i);
            reporter.Report({CR_FINDING_FORM_FINGERPRINT, field, kHeadSize + i * list.stride, text[0], 0},
                            "Invalid %s: the fingerprint of segment %lu is not %u lower-case digits and a NUL", kWhat,
                            i, list.fingerprint - 1);
        }
    }
}

// Checks the texts of each block of segments and adds the block to the check of the list, so that each is read from
// memory once. The fault of the list is reported last.
void CheckSegmentBody(Form const& form, bool subDO, FindingReporter& reporter) noexcept {
    DOSegmentSource const list = ListOf(form);
    SegmentCodec const& codec = SegmentCodecFor(form.counts.fptype, form.counts.dotype);
    SegmentListCheck check(list, subDO);
    ForEachBlock(list.count, [&](std::uint64_t first, std::uint64_t count) {
        bool const valid = codec.check(list.entries + first * list.stride, count);
        check.Accumulate(first, count);
        if (!valid) {
            ReportTexts(list, first, count, codec, reporter);
        }
        return !reporter.Stopped();
    });
    CheckSeparator(form, reporter);
    if (!reporter.Stopped()) {
        ReportSegmentFault(check.Fault(kHeadSize, kSizeOffset), kWhat, reporter);
    }
}

void CheckForm(Form& form, unsigned int options, FindingReporter& reporter) noexcept {
    CheckHead(form, reporter);
    CheckRecordSize(form, reporter);
    if (reporter.Stopped()) {
        return;
    }
    if (form.IsBloom()) {
        CheckBloomBody(form, reporter);
    } else {
        CheckSegmentBody(form, (options & CR_DO_SUB_DO) != 0, reporter);
    }
    // A bloom form always has the checksum.
    if (form.IsBloom() || (options & CR_DO_FORM_CHECKSUM) != 0) {
        CheckBodyChecksum(form, reporter);
    }
}

cr_status_t Diagnose(void const* serialized, unsigned long size, unsigned int dotype, unsigned char fptype,
                     unsigned int options, FindingReporter reporter) noexcept {
    if (!serialized || !CRDOTypeIsValid(dotype) || !CRFPTypeIsValid(fptype) || (options & ~kKnownOptions) != 0) {
        return CR_STATUS_INVALID;
    }
    Form form(serialized, size, dotype, fptype);
    CheckForm(form, options, reporter);
    return reporter.Status();
}

} // namespace

void CheckHead(Form& form, FindingReporter& reporter) noexcept {
    constexpr unsigned int kLeast = kHeadSize + kSeparatorSize;
    if (form.size < kLeast) {
        reporter.Report({CR_FINDING_FORM_LENGTH, "length", form.size, form.size, kLeast},
                        "Invalid %s: size %lu, expected at least %u", kWhat, form.size, kLeast);
        reporter.Stop();
        return;
    }
    ReadCounts(form);
    std::uint32_t const zero = form.Word(kZeroOffset);
    if (zero != 0) {
        reporter.Report({CR_FINDING_FORM_ZERO, "zero", kZeroOffset, zero, 0},
                        "Invalid %s: word %u after the count, expected 0", kWhat, zero);
    }
    bool const bloom = form.IsBloom();
    if (bloom && form.counts.nfp != 0) {
        reporter.Report({CR_FINDING_FORM_BLOOM_SEGMENTS, "nfp", kCountOffset, form.counts.nfp, 0},
                        "Invalid %s: a bloom form with %u segments, expected 0", kWhat, form.counts.nfp);
    }
    std::uint64_t const calculated = form.CalculatedSize();
    if (calculated != form.size) {
        reporter.Report({CR_FINDING_FORM_CALCULATED, bloom ? "bsize" : "nfp", bloom ? kHeadSize : kCountOffset,
                         calculated, form.size},
                        "Invalid %s: calculated size %lu, size %lu", kWhat, calculated, form.size);
        reporter.Stop();
    }
}

void CheckSeparator(Form const& form, FindingReporter& reporter) noexcept {
    std::uint64_t const offset = form.SeparatorOffset();
    unsigned const separator = form.bytes[offset];
    if (separator != 0) {
        reporter.Report({CR_FINDING_FORM_ZERO, "separator", offset, separator, 0},
                        "Invalid %s: separator %u, expected 0", kWhat, separator);
    }
}

void CheckBloomBody(Form const& form, FindingReporter& reporter) noexcept {
    std::uint64_t const listAt = form.ListOffset();
    if (form.counts.nudcid != 0) {
        std::uint32_t const stored = form.Word(listAt);
        std::uint32_t const computed = ListChecksum(form);
        if (stored != computed) {
            reporter.Report({CR_FINDING_FORM_LIST_CHECKSUM, "unique.checksum", listAt, stored, computed},
                            "Invalid %s: unique DCID list checksum %u, expected %u", kWhat, stored, computed);
        }
    }
    std::uint64_t const end = listAt + UniqueListSize(form.counts.nudcid);
    if (!std::all_of(form.bytes + end, form.bytes + form.size, [](unsigned char byte) { return byte == 0; })) {
        reporter.Report({CR_FINDING_FORM_ZERO, "end", end, 1, 0},
                        "Invalid %s: bytes after the last section, expected zeros", kWhat);
    }
}

void CheckBodyChecksum(Form const& form, FindingReporter& reporter) noexcept {
    if (reporter.Stopped()) {
        return; // a large body takes long to sum
    }
    std::uint32_t const stored = form.Word(kChecksumOffset);
    std::uint32_t const computed = BodyChecksum(form);
    if (stored != computed) {
        reporter.Report({CR_FINDING_FORM_CHECKSUM, "checksum", kChecksumOffset, stored, computed},
                        "Invalid %s: checksum %u, expected %u", kWhat, stored, computed);
    }
}

} // namespace crrecord::exchange

using namespace crrecord;

cr_status_t DORecordSerializedDiagnose(void const* serialized, unsigned long size, unsigned int dotype,
                                       unsigned char fptype, unsigned int options, cr_finding_callback_t callback,
                                       void* context) {
    return exchange::Diagnose(serialized, size, dotype, fptype, options, FindingReporter(callback, context));
}

cr_status_t DORecordSerializedValidate(void const* serialized, unsigned long size, unsigned int dotype,
                                       unsigned char fptype, unsigned int options) {
    return exchange::Diagnose(serialized, size, dotype, fptype, options, FindingReporter::ForValidator());
}
