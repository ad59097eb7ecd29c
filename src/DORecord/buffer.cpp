// The record's buffer: its size, its growth, and the door that every walk through its sections goes through.

#include "DORecord/record.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <new>

#include <unistd.h>

using namespace crrecord;

namespace {

// Bytes of a record with so many bytes of references and without legacy arrays, or a refusal.
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

bool DORecord::reaches(RecordLayout const& layout, SectionEnd end) const noexcept {
    return layout.*end <= bufferSize;
}

RecordLayout DORecord::checkedLayout(SectionEnd end) const {
    if (!header) {
        Refuse(kInvalidRecordSize);
    }
    RecordLayout const layout = LayoutOf(header);
    if (!reaches(layout, end)) {
        Refuse(kInvalidRecordSize);
    }
    return layout;
}

// The layout goes by the order that the header shows, sizes are read by the order that the record claims. Where the two
// are not one, as after a conversion of a converted record, a size means nothing and must not be changed or followed.
bool DORecord::orderMatchesHeader() const noexcept {
    return std::endian::native == std::endian::big || OrderOf(header) == (networkOrder ? Order::Network : Order::Host);
}

RecordLayout DORecord::changeableLayoutUpTo(SectionEnd end) const {
    RecordLayout const layout = checkedLayout(end);
    if (!orderMatchesHeader()) {
        Refuse(kInvalidRecordSize);
    }
    return layout;
}

void DORecord::initReferenceSets() {
    unsigned int const before = getRecSize();
    unsigned int const size = SizeWith(*this, 0);
    setTRefsSize(0);
    setRecSize(size);
    if (orderMatchesHeader()) {
        clear(LayoutOf(header).tail, std::max(before, size));
    }
}

unsigned int DORecord::calcRecSize() const {
    return SizeWith(*this, getTRefsSize());
}

unsigned int DORecord::getRecSize() const {
    return InOrder(header->recsize, networkOrder);
}

void DORecord::setRecSize(unsigned int size) {
    if (size < CR_DO_RECORD_SIZE) {
        Refuse(kInvalidRecordSize);
    }
    header->recsize = InOrder(size, networkOrder);
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
    // A raw record size may take these bytes into the record later; no heap garbage goes to a disk or a wire.
    clear(before, capacity);
}

// Zeroes a range of offsets as far as it lies in the buffer.
void DORecord::clear(std::uint64_t from, std::uint64_t to) noexcept {
    std::uint64_t const end = std::min<std::uint64_t>(to, bufferSize);
    if (from < end) {
        std::memset(BytesOf(header) + from, 0, end - from);
    }
}

// Everything that can fail comes first. The tail is zero again where it stands now, also in a borrowed buffer.
void DORecord::growReferences(RecordLayout const& layout, std::uint64_t by) {
    std::uint64_t const references = getTRefsSize() + by;
    std::uint64_t const size = getRecSize() + by;
    if (size > kLargestRecord || references > kLargestRecord || size < CR_DO_RECORD_SIZE) {
        Refuse(kInvalidRecordSize);
    }
    expand(static_cast<unsigned int>(size));
    setTRefsSize(static_cast<unsigned int>(references));
    setRecSize(static_cast<unsigned int>(size));
    clear(layout.tail + by, size);
}

// Subtracts at most what is there. The bytes that fall out of the section are cleared where the record is sound. When
// the record would become smaller than a bare one, the section has shrunk all the same.
void DORecord::shrinkReferences(std::uint64_t by) {
    std::uint64_t const before = getTRefsSize();
    std::uint64_t const removed = std::min<std::uint64_t>(by, before);
    std::uint64_t const size = getRecSize();
    RecordLayout const layout = LayoutOf(header);
    bool const sound = reaches(layout, &RecordLayout::tail) && orderMatchesHeader();
    setTRefsSize(static_cast<unsigned int>(before - removed));
    if (size < CR_DO_RECORD_SIZE + removed) {
        Refuse(kInvalidRecordSize);
    }
    setRecSize(static_cast<unsigned int>(size - removed));
    if (sound) {
        clear(layout.tail - removed, layout.tail);
    }
}
