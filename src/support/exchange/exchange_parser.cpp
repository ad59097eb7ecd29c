// From the exchange form of a DO record to the record. Every byte of the form is looked at, and none behind it.

#include "base/adler32.h"
#include "base/memory.h"
#include "support/exchange/exchange_form.h"
#include "support/layout/unique_list.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>

namespace crrecord::exchange {

namespace {

// Reads the entries, judging them on the way, and the DCIDs; false where a text, its NUL or the separator is not as it
// must be.
bool ReadSegments(Form const& form, DORecordHeader* header, RecordLayout const& layout, bool subDO,
                  SegmentFault& fault) noexcept {
    SegmentCodec const& codec = SegmentCodecFor(form.counts.fptype, form.counts.dotype);
    std::uint64_t const segmentForm = SegmentFormSize(form.counts.fptype, form.counts.dotype);
    unsigned char const* const segments = form.bytes + kHeadSize;
    unsigned char const* const separator = segments + segmentForm * layout.segments;
    SegmentListCheck rules(SegmentListOf(header, layout, Order::Host, subDO));
    bool const good = ForEachBlock(layout.segments, [&](std::uint64_t first, std::uint64_t count) {
        bool const texts = codec.decode(BytesOf(header) + layout.Entry(first), segments + first * segmentForm, count);
        rules.Accumulate(first, count);
        return texts;
    });
    if (!good || *separator != 0) {
        return false;
    }
    codec.swapDcids(BytesOf(header) + layout.dcids, separator + kSeparatorSize, layout.segments);
    fault = rules.Fault();
    return true;
}

// The length word, the bitmap and the list are taken over as they are received.
void ReadBloom(Form const& form, DORecordHeader* header, RecordLayout const& layout) noexcept {
    unsigned char const* const from = form.bytes + kHeadSize;
    std::uint64_t const bitmapEnd = std::uint64_t{kBloomLengthSize} + form.counts.bsize;
    std::memcpy(BytesOf(header) + layout.entries, from, bitmapEnd);
    std::memcpy(BytesOf(header) + layout.udcids, from + bitmapEnd, UniqueListSize(form.counts.nudcid));
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

bool BloomIsSound(Form const& form) noexcept {
    bool const listIsSound =
        form.counts.nudcid == 0 || Load<std::uint32_t>(form.List(), Order::Network) == BloomListChecksum(form);
    return listIsSound && BloomEndIsZero(form) && form.Word(kChecksumOffset) == BodyChecksum(form);
}

bool Build(Form const& form, DORecordHeader* header, RecordLayout const& layout, bool subDO,
           SegmentFault& fault) noexcept {
    // The rest of what has segments is written over.
    std::uint64_t const written = form.IsBloom() ? layout.entries : layout.udcids;
    std::memset(header, 0, layout.entries);
    std::memset(BytesOf(header) + written, 0, layout.total - written);
    WriteHeader(form, header, layout);
    if (form.IsBloom()) {
        ReadBloom(form, header, layout);
        return true;
    }
    return ReadSegments(form, header, layout, subDO, fault);
}

// Whether two blocks, the first of which may be empty, have a byte in common.
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
    if (!ReadCounts(form) || (form.IsBloom() && !BloomIsSound(form))) {
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
    if (!Build(form, target, layout, subDO, fault)) {
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
