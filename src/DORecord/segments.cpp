// Segments: accessors, and the segment list check with its messages.

#include "DORecord/record.h"

#include <cassert>
#include <locale>
#include <sstream>

using namespace crrecord;

namespace {

char const* ListName(unsigned int dotype) noexcept {
    switch (dotype) {
    case CR_DO_TYPE_NO_OFFSET: return "CR_DO_TYPE_NO_OFFSET";
    case CR_DO_TYPE_8_BYTE_OFFSET: return "CR_DO_TYPE_8_BYTE_OFFSET";
    case CR_DO_TYPE_4_BYTE_OFFSET: return "CR_DO_TYPE_4_BYTE_OFFSET";
    default: return "CR_DO_TYPE_ORIGINAL|CR_DO_TYPE_NO_SIZE";
    }
}

// Messages end with a dot, with two exceptions: Size and Offset have no dot, and End has a dot and a blank.
[[noreturn]] void Throw(SegmentFault const& fault, unsigned int dotype) {
    static constexpr char kWrongOrder[] = "Data is probably in wrong byte order (host vs. network order)";
    std::stringstream text;
    text.imbue(std::locale::classic());
    bool const size = fault.code == CR_FINDING_SEGMENT_SIZE;
    if (size || fault.code == CR_FINDING_SEGMENT_OFFSET) {
        text << "Segment list of a DORecord is corrupt. Segment " << fault.segment
             << (size ? " has size " : " has offset ") << fault.found << (size ? " (> 2 GiB). " : " (> 8192 PetaB). ")
             << kWrongOrder;
        throw Cr_ErrnoException(CR_STATUS_CORRUPT_DATA, text, nullptr);
    }
    text << "Segment list of DORecord " << ListName(dotype) << " is corrupt. ";
    if (fault.code == CR_FINDING_SEGMENT_OVERLAP) {
        text << "Offset of segm. " << fault.segment << ":" << fault.found << ". Previous segm. end:" << fault.expected
             << ".";
    } else {
        text << "Original file size:" << fault.found << ". "
             << (fault.code == CR_FINDING_SEGMENT_PRODUCT ? "Segm. size times segm. count:"
                 : fault.code == CR_FINDING_SEGMENT_END   ? "End offset of last segment:"
                                                          : "Sum of segm. sizes:")
             << fault.expected << (fault.code == CR_FINDING_SEGMENT_END ? ". " : ".");
    }
    throw Cr_ErrnoException(CR_STATUS_CORRUPT_DATA, text, nullptr);
}

} // namespace

void crrecord::ThrowIfFaulty(SegmentFault const& fault, unsigned int dotype) {
    if (fault.code != 0) {
        Throw(fault, dotype);
    }
}

unsigned char* RecordInternals::WritableElement(DORecord& record, std::uint64_t offset, unsigned int width) {
    if (!record.BytesAt(offset, width)) {
        Refuse(kInvalidRecordSize);
    }
    return BytesOf(record.header) + offset;
}

void DORecord::SetSegmentFP(unsigned int i, crfp_digest_t const& fingerprint) {
    RecordLayout const layout = LayoutOf(header);
    assert(i < layout.segments);
    std::memmove(RecordInternals::WritableElement(*this, layout.Entry(i), sizeof fingerprint), fingerprint.bytes,
                 sizeof fingerprint);
}

cr_unaligned_u64 const* DORecord::GetSegmentDCIDList() const {
    return reinterpret_cast<cr_unaligned_u64 const*>(DORecordHeaderIndexOfDCID(header, 0));
}

void DORecord::SetSegmentDCID(unsigned int i, unsigned long dcid) {
    RecordLayout const layout = LayoutOf(header);
    assert(i < layout.segments);
    Store(RecordInternals::WritableElement(*this, layout.Dcid(i), kDcidSize), dcid);
}

void DORecord::SetSegmentSize(unsigned int i, unsigned int size) {
    if (DOTypeOf(GetDOType()).sizeWidth != 0) {
        RecordLayout const layout = LayoutOf(header);
        assert(i < layout.segments);
        Store(RecordInternals::WritableElement(*this, layout.Entry(i) + layout.fingerprint, sizeof size), size);
    }
    handleUpdate();
}

void DORecord::SetSegmentOffset(unsigned int i, unsigned long offset) {
    RecordLayout const layout = LayoutOf(header);
    assert(i < layout.segments);
    Store(RecordInternals::WritableElement(*this, layout.Entry(i) + layout.offset, sizeof offset), offset);
    handleUpdate();
}

void DORecord::SetSegmentObjectOffset(unsigned int i, unsigned int offset) {
    RecordLayout const layout = LayoutOf(header);
    assert(i < layout.segments);
    Store(RecordInternals::WritableElement(*this, layout.Entry(i) + layout.offset, sizeof offset), offset);
    handleUpdate();
}

DOSegmentRange DORecord::Segments() const {
    RecordInternals::CheckedLayout(*this, &RecordLayout::udcids);
    return DOSegmentRange(DOSegmentSource::Of(header));
}

void DORecord::checkSegmentList() const {
    if (header && GetDOType() == CR_DO_TYPE_INVALID) {
        Refuse("invalid DO type");
    }
    RecordInternals::ChangeableLayout(*this, &RecordLayout::dcids);
    ThrowIfFaulty(CheckSegments(DOSegmentSource::Of(header), subDO), GetDOType());
}

void DORecord::checkSegmentSizeEndiannes() const {
    RecordInternals::ChangeableLayout(*this, &RecordLayout::dcids);
    ThrowIfFaulty(CheckSegmentSizes(DOSegmentSource::Of(header), subDO), GetDOType());
}

void DORecord::checkSegmentOffsetEndiannes() const {
    RecordInternals::ChangeableLayout(*this, &RecordLayout::dcids);
    ThrowIfFaulty(CheckSegmentOffsets(DOSegmentSource::Of(header)), GetDOType());
}
