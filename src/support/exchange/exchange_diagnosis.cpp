// The walk over a received exchange form, and its two faces.

#include "support/exchange/exchange_form.h"
#include "support/validate/segment_findings.h"

#include <cstdio>

namespace crrecord::exchange {

namespace {

constexpr unsigned int kKnownOptions = CR_DO_FORM_CHECKSUM | CR_DO_SUB_DO;
constexpr char kWhat[] = "serialized DO";

bool CheckHead(Form const& form, FindingReporter& report) noexcept {
    std::uint32_t const zero = form.Word(kZeroOffset);
    if (zero != 0 && !report.Error({CR_FINDING_FORM_ZERO, "zero", kZeroOffset, zero, 0},
                                   "Invalid %s: word %u behind the count, expected 0", kWhat, zero)) {
        return false;
    }
    if (form.IsBloom() && form.counts.nfp != 0 &&
        !report.Error({CR_FINDING_FORM_BLOOM_SEGMENTS, "nfp", kCountOffset, form.counts.nfp, 0},
                      "Invalid %s: a bloom form with %u segments, expected 0", kWhat, form.counts.nfp)) {
        return false;
    }
    std::uint64_t const calculated = form.IsBloom() ? BloomFormSize(form.counts.bsize, form.counts.nudcid)
                                                    : FormSize(form.counts.nfp, form.counts.dotype, form.counts.fptype);
    if (calculated != form.size) {
        report.Error({CR_FINDING_FORM_CALCULATED, form.IsBloom() ? "bsize" : "nfp",
                      form.IsBloom() ? kHeadSize : kCountOffset, calculated, form.size},
                     "Invalid %s: calculated size %lu, size %lu", kWhat, calculated, form.size);
        return false;
    }
    std::uint64_t const total = RecordLayout(form.counts).total;
    return total <= kLargestRecord ||
           report.Error({CR_FINDING_FORM_TOO_LARGE, "nfp", kCountOffset, total, kLargestRecord},
                        "Invalid %s: a record of %lu bytes, expected at most %lu", kWhat, total, kLargestRecord);
}

// The segments of the form, as the rules see them: a fingerprint's text is wider than the fingerprint.
SegmentList ListOf(Form const& form, bool subDO) noexcept {
    unsigned int const text = CRFPTextSize(form.counts.fptype);
    unsigned int const dotype = form.counts.dotype;
    return {.entries = form.bytes + kHeadSize,
            .count = form.counts.nfp,
            .stride = SegmentFormSize(form.counts.fptype, dotype),
            .sizeAt = text,
            .offsetAt = text + 4,
            .dotype = dotype,
            .order = Order::Network,
            .subDO = subDO,
            .objectSize = Load<std::uint64_t>(form.bytes + kSizeOffset, Order::Network),
            .ssize = Load<std::uint64_t>(form.bytes + kSsizeOffset, Order::Network)};
}

// Names the segments whose text is none, among `count` from the i-th on.
bool NameTexts(SegmentList const& list, std::uint64_t i, std::uint64_t count, SegmentCodec const& codec,
               FindingReporter& report) noexcept {
    for (std::uint64_t const end = i + count; i < end; ++i) {
        unsigned char const* const text = list.entries + i * list.stride;
        if (codec.check(text, 1)) {
            continue;
        }
        char field[48];
        std::snprintf(field, sizeof field, "segments[%lu].fingerprint", i);
        if (!report.Error({CR_FINDING_FORM_FINGERPRINT, field, kHeadSize + i * list.stride, text[0], 0},
                          "Invalid %s: the fingerprint of segment %lu is not %u lower-case digits and a NUL", kWhat, i,
                          list.sizeAt - 1)) {
            return false;
        }
    }
    return true;
}

// The texts, and on the same way through memory the rules, whose verdict comes later.
bool CheckTexts(Form const& form, SegmentList const& list, SegmentListCheck& rules, FindingReporter& report) noexcept {
    SegmentCodec const& codec = SegmentCodecFor(form.counts.fptype, form.counts.dotype);
    return ForEachBlock(list.count, [&](std::uint64_t from, std::uint64_t count) {
        bool const good = codec.check(list.entries + from * list.stride, count);
        rules.Accumulate(from, count);
        return good || NameTexts(list, from, count, codec, report);
    });
}

bool CheckSegmentBody(Form const& form, bool subDO, FindingReporter& report) noexcept {
    SegmentList const list = ListOf(form, subDO);
    SegmentListCheck rules(list);
    if (!CheckTexts(form, list, rules, report)) {
        return false;
    }
    std::uint64_t const separator = kHeadSize + std::uint64_t{list.stride} * list.count;
    if (form.bytes[separator] != 0 &&
        !report.Error({CR_FINDING_FORM_ZERO, "separator", separator, form.bytes[separator], 0},
                      "Invalid %s: separator %u, expected 0", kWhat, form.bytes[separator])) {
        return false;
    }
    SegmentFault const fault = rules.Fault();
    return ReportSegmentFault(fault, kWhat, kHeadSize + std::uint64_t{list.stride} * fault.segment, list, kSizeOffset,
                              report);
}

bool CheckBloomBody(Form const& form, FindingReporter& report) noexcept {
    auto const listAt = static_cast<std::uint64_t>(form.List() - form.bytes);
    std::uint64_t const end = listAt + UniqueListSize(form.counts.nudcid);
    if (form.counts.nudcid != 0) {
        std::uint32_t const stored = form.Word(listAt);
        std::uint32_t const computed = BloomListChecksum(form);
        if (stored != computed &&
            !report.Error({CR_FINDING_FORM_LIST_CHECKSUM, "unique.checksum", listAt, stored, computed},
                          "Invalid %s: unique DCID list checksum %u, expected %u", kWhat, stored, computed)) {
            return false;
        }
    }
    return BloomEndIsZero(form) || report.Error({CR_FINDING_FORM_ZERO, "end", end, 1, 0},
                                                "Invalid %s: bytes behind the last section, expected zeros", kWhat);
}

void Diagnose(Form form, unsigned int options, FindingReporter& report) noexcept {
    if (form.size < kHeadSize + kSeparatorSize) {
        report.Error({CR_FINDING_FORM_LENGTH, "length", form.size, form.size, kHeadSize + kSeparatorSize},
                     "Invalid %s: size %lu, expected at least %u", kWhat, form.size, kHeadSize + kSeparatorSize);
        return;
    }
    // It fills the counts; what it has against the form is told here one by one.
    ReadCounts(form);
    if (!CheckHead(form, report)) {
        return;
    }
    bool const goOn =
        form.IsBloom() ? CheckBloomBody(form, report) : CheckSegmentBody(form, (options & CR_DO_SUB_DO) != 0, report);
    bool const summed = form.IsBloom() || (options & CR_DO_FORM_CHECKSUM) != 0;
    if (!goOn || !summed) {
        return;
    }
    std::uint32_t const stored = form.Word(kChecksumOffset);
    std::uint32_t const computed = BodyChecksum(form);
    if (stored != computed) {
        report.Error({CR_FINDING_FORM_CHECKSUM, "checksum", kChecksumOffset, stored, computed},
                     "Invalid %s: checksum %u, expected %u", kWhat, stored, computed);
    }
}

cr_status_t DiagnoseForm(void const* serialized, unsigned long size, unsigned int dotype, unsigned char fptype,
                         unsigned int options, FindingReporter report) noexcept {
    if (!serialized || !CRDOTypeIsValid(dotype) || !CRFPTypeIsValid(fptype) || (options & ~kKnownOptions) != 0) {
        return CR_STATUS_INVALID;
    }
    Diagnose(Form(serialized, size, dotype, fptype), options, report);
    return report.Status();
}

} // namespace

} // namespace crrecord::exchange

using namespace crrecord;

cr_status_t DORecordSerializedDiagnose(void const* serialized, unsigned long size, unsigned int dotype,
                                       unsigned char fptype, unsigned int options, cr_finding_callback_t callback,
                                       void* context) {
    return exchange::DiagnoseForm(serialized, size, dotype, fptype, options, FindingReporter(callback, context));
}

cr_status_t DORecordSerializedValidate(void const* serialized, unsigned long size, unsigned int dotype,
                                       unsigned char fptype, unsigned int options) {
    return exchange::DiagnoseForm(serialized, size, dotype, fptype, options, FindingReporter::ForValidator());
}
