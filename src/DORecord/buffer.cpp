// The record's buffer: its size, its growth, and the layout check before every access to its sections.

#include "DORecord/record.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <new>

#include <unistd.h>

using namespace crrecord;

namespace {

// Returns: the size in bytes of the record with `references` bytes of references and without legacy arrays.
// Throws: CR_STATUS_INVALID if the size exceeds kLargestRecord.
unsigned int SizeWith(DORecord const& record, unsigned int references) {
    unsigned char const dotype = record.GetDOType();
    unsigned int const counted = IsBloom(dotype) ? record.GetBSize() : record.GetNfp();
    std::uint64_t const size =
        DORecordHeaderSizeRaw(0, counted, record.GetNudcid(), 0, dotype, record.GetFPType(), references);
    if (size > kLargestRecord) {
        Refuse(kInvalidRecordSize);
    }
    return static_cast<unsigned int>(size);
}

} // namespace

bool RecordInternals::Reaches(DORecord const& record, RecordLayout const& layout, SectionEnd end) noexcept {
    return layout.*end <= record.bufferSize;
}

RecordLayout RecordInternals::CheckedLayout(DORecord const& record, SectionEnd end) {
    if (!record.header) {
        Refuse(kInvalidRecordSize);
    }
    RecordLayout const layout = LayoutOf(record.header);
    if (!Reaches(record, layout, end)) {
        Refuse(kInvalidRecordSize);
    }
    return layout;
}

// The layout uses the byte order that the header shows. Sizes are read in the order of IsInNetworkOrder(). The two
// differ, for example, if a converted record is converted again. Sizes are then invalid and must not be changed or
// used.
bool RecordInternals::OrderMatchesHeader(DORecord const& record) noexcept {
    return std::endian::native == std::endian::big || OrderOf(record.header) == OrderFromFlag(record.networkOrder);
}

RecordLayout RecordInternals::ChangeableLayout(DORecord const& record, SectionEnd end) {
    RecordLayout const layout = CheckedLayout(record, end);
    if (!OrderMatchesHeader(record)) {
        Refuse(kInvalidRecordSize);
    }
    return layout;
}

// Inlines every call, so that no other part of the layout is computed.
[[gnu::flatten]] std::uint64_t RecordInternals::ChangeableTail(DORecord const& record) {
    return ChangeableLayout(record, &RecordLayout::tail).tail;
}

void DORecord::initReferenceSets() {
    unsigned int const before = getRecSize();
    unsigned int const size = SizeWith(*this, 0);
    setTRefsSize(0);
    setRecSize(size);
    if (RecordInternals::OrderMatchesHeader(*this)) {
        RecordInternals::Clear(*this, LayoutOf(header).tail, std::max(before, size));
    }
}

unsigned int DORecord::calcRecSize() const {
    return SizeWith(*this, getTRefsSize());
}

unsigned int DORecord::getRecSize() const {
    return InOrder(header->recsize, OrderFromFlag(networkOrder));
}

void DORecord::setRecSize(unsigned int size) {
    if (size < CR_DO_RECORD_SIZE) {
        Refuse(kInvalidRecordSize);
    }
    header->recsize = InOrder(size, OrderFromFlag(networkOrder));
}

void DORecord::expand() {
    expand(getRecSize());
}

void DORecord::expand(unsigned int size) {
    if (size <= bufferSize) {
        return;
    }
    if (copyMode == CopyMode::Fixed) {
        Refuse("Need to expand the buffer of DORecord but I'm not allowed to copy it.");
    }
    auto const page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    std::uint64_t const capacity = (std::uint64_t{size} + page - 1) & ~(page - 1);
    void* const grown = copyMode == CopyMode::Own ? std::realloc(header, capacity) : std::malloc(capacity);
    if (!grown) {
        throw Cr_ErrnoException(CR_STATUS_NO_MEMORY, "Not enough memory to expand a DO record.", nullptr);
    }
    if (copyMode == CopyMode::Borrowed) {
        std::memcpy(grown, header, bufferSize);
        if (ownsBuffer) {
            std::free(header);
        }
        ownsBuffer = true;
        copyMode = CopyMode::Own;
    }
    std::uint64_t const before = bufferSize;
    header = static_cast<DORecordHeader*>(grown);
    bufferSize = capacity;
    // setRecSize may make these bytes part of the record later, so they must be initialised.
    RecordInternals::Clear(*this, before, capacity);
}

// Zeroes the bytes at offsets from `from` to `to` - 1. Offsets beyond the buffer are ignored.
void RecordInternals::Clear(DORecord& record, std::uint64_t from, std::uint64_t to) noexcept {
    std::uint64_t const end = std::min<std::uint64_t>(to, record.bufferSize);
    if (from < end) {
        std::memset(BytesOf(record.header) + from, 0, end - from);
    }
}

// Every step that can fail precedes the first change. The tail is cleared at its new offset, because a borrowed buffer
// may contain other bytes there.
void RecordInternals::GrowReferences(DORecord& record, std::uint64_t tail, std::uint64_t by) {
    Order const order = OrderFromFlag(record.networkOrder);
    std::uint64_t const references = InOrder(record.header->trefssize, order) + by;
    std::uint64_t const size = InOrder(record.header->recsize, order) + by;
    if (size > kLargestRecord || references > kLargestRecord || size < CR_DO_RECORD_SIZE) {
        Refuse(kInvalidRecordSize);
    }
    if (size > record.bufferSize) {
        record.expand(static_cast<unsigned int>(size));
    }
    record.header->trefssize = InOrder(static_cast<unsigned int>(references), order);
    record.header->recsize = InOrder(static_cast<unsigned int>(size), order);
    Clear(record, tail + by, size);
}

// Subtracts at most the section's size. Clears the removed bytes if header and buffer agree.
// Throws: CR_STATUS_INVALID if the record would become smaller than CR_DO_RECORD_SIZE.
// On failure: the section's size is already reduced.
void RecordInternals::ShrinkReferences(DORecord& record, std::uint64_t by) {
    std::uint64_t const before = record.getTRefsSize();
    std::uint64_t const removed = std::min<std::uint64_t>(by, before);
    std::uint64_t const size = record.getRecSize();
    RecordLayout const layout = LayoutOf(record.header);
    bool const sound = Reaches(record, layout, &RecordLayout::tail) && OrderMatchesHeader(record);
    record.setTRefsSize(static_cast<unsigned int>(before - removed));
    if (size < CR_DO_RECORD_SIZE + removed) {
        Refuse(kInvalidRecordSize);
    }
    record.setRecSize(static_cast<unsigned int>(size - removed));
    if (sound) {
        Clear(record, layout.tail - removed, layout.tail);
    }
}
