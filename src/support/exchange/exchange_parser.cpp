#include "support/exchange/exchange_parser.h"

#include "base/memory.h"
#include "support/exchange/exchange_diagnosis.h"

#include <cstdlib>
#include <ctime>

namespace crrecord::exchange {

namespace {

// Decodes the segments, checks each block of them, and converts the DCIDs.
// Returns: false if a text or the separator is invalid.
bool ReadSegments(Form const& form, DORecordHeader* header, RecordLayout const& layout, bool subDO,
                  FindingReporter& reporter, SegmentFault& fault) noexcept {
    SegmentCodec const& codec = SegmentCodecFor(form.counts.fptype, form.counts.dotype);
    std::uint64_t const segmentForm = SegmentFormSize(form.counts.fptype, form.counts.dotype);
    unsigned char const* const segments = form.bytes + kHeadSize;
    SegmentListCheck check(SegmentSourceOf(*header, BytesOf(header), Order::Host), subDO);
    bool const valid = ForEachBlock(layout.segments, [&](std::uint64_t first, std::uint64_t count) {
        bool const texts = codec.decode(BytesOf(header) + layout.Entry(first), segments + first * segmentForm, count);
        check.Accumulate(first, count);
        return texts;
    });
    CheckSeparator(form, reporter);
    if (!valid || reporter.Stopped()) {
        return false;
    }
    unsigned char const* const dcids = form.bytes + form.SeparatorOffset() + kSeparatorSize;
    codec.swapDcids(BytesOf(header) + layout.dcids, dcids, layout.segments);
    fault = check.Fault();
    return true;
}

// Copies the length word, the bitmap and the list as they are received.
void ReadBloom(Form const& form, DORecordHeader* header, RecordLayout const& layout) noexcept {
    std::memcpy(BytesOf(header) + layout.entries, form.bytes + kHeadSize, form.ListOffset() - kHeadSize);
    std::memcpy(BytesOf(header) + layout.udcids, form.bytes + form.ListOffset(), UniqueListSize(form.counts.nudcid));
}

void WriteHeader(Form const& form, DORecordHeader* header, RecordLayout const& layout) noexcept {
    header->type = CR_DO_RECORD_TYPE;
    header->recsize = static_cast<unsigned int>(layout.total);
    header->size = Load<std::uint64_t>(form.bytes + kSizeOffset, Order::Network);
    header->ssize = Load<std::uint64_t>(form.bytes + kSsizeOffset, Order::Network);
    header->CRC = form.Word(kChecksumOffset);
    header->ctime = static_cast<unsigned int>(std::time(nullptr));
    header->nfp = form.counts.nfp;
    header->nudcid = form.counts.nudcid;
    header->bsize = form.counts.bsize;
    header->fptype = form.counts.fptype;
    header->dotype = form.counts.dotype;
}

bool Build(Form const& form, DORecordHeader* header, RecordLayout const& layout, bool subDO, FindingReporter& reporter,
           SegmentFault& fault) noexcept {
    // Segments and DCIDs overwrite everything between the header and the tail.
    std::uint64_t const written = form.IsBloom() ? layout.entries : layout.udcids;
    std::memset(header, 0, layout.entries);
    std::memset(BytesOf(header) + written, 0, layout.total - written);
    WriteHeader(form, header, layout);
    if (form.IsBloom()) {
        ReadBloom(form, header, layout);
        return true;
    }
    return ReadSegments(form, header, layout, subDO, reporter, fault);
}

// Returns: whether two blocks have a byte in common. The first one may be empty.
bool Overlap(void const* a, std::uint64_t aSize, void const* b, std::uint64_t bSize) noexcept {
    auto const from = reinterpret_cast<std::uintptr_t>(a);
    auto const to = reinterpret_cast<std::uintptr_t>(b);
    return from <= to ? to - from < aSize : aSize != 0 && from - to < bSize;
}

} // namespace

cr_status_t Parse(Form form, bool subDO, DORecordHeader** header, unsigned long* bufferSize,
                  SegmentFault& fault) noexcept {
    if (!form.bytes) {
        return CR_STATUS_NULL_ARGUMENT;
    }
    if (!CRDOTypeIsValid(form.counts.dotype)) {
        return CR_STATUS_INVALID_DO_TYPE;
    }
    FindingReporter reporter(nullptr, nullptr); // stops at the first error and reports it to nobody
    CheckHead(form, reporter);
    if (form.IsBloom() && !reporter.Stopped()) {
        CheckBloomBody(form, reporter);
        CheckBodyChecksum(form, reporter);
    }
    if (reporter.Stopped()) {
        return CR_STATUS_CORRUPT_RECORD;
    }
    RecordLayout const layout(form.counts);
    if (layout.total > kLargestRecord || (*header && Overlap(*header, *bufferSize, form.bytes, form.size))) {
        return CR_STATUS_INVALID;
    }
    bool const fits = *header && *bufferSize >= layout.total;
    auto* const target = fits ? *header : static_cast<DORecordHeader*>(Allocate(layout.total));
    if (!target) {
        return CR_STATUS_NO_MEMORY;
    }
    if (!Build(form, target, layout, subDO, reporter, fault)) {
        if (!fits) {
            std::free(target);
        }
        return CR_STATUS_CORRUPT_RECORD;
    }
    if (!fits) {
        *header = target;
        *bufferSize = layout.total;
    }
    return CR_STATUS_OK;
}

} // namespace crrecord::exchange

cr_status_t DORecordHeaderDeserialize(DORecordHeader** header, unsigned long* bufferSize, void const* serialized,
                                      unsigned long serializedSize, unsigned int dotype, unsigned char fptype) {
    using crrecord::exchange::Form;
    crrecord::SegmentFault fault;
    return header && bufferSize ? crrecord::exchange::Parse(Form(serialized, serializedSize, dotype, fptype), false,
                                                            header, bufferSize, fault)
                                : CR_STATUS_NULL_ARGUMENT;
}
