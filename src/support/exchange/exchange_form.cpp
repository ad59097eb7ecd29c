#include "support/exchange/exchange_form.h"

#include "base/adler32.h"
#include "support/layout/unique_list.h"

namespace crrecord::exchange {

namespace {

constexpr std::uint32_t kMost = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint64_t kBound = std::uint64_t{1} << 39;

// Sizes and offsets grow with the counts, so those of the greatest counts bound all of them.
static_assert([] {
    for (unsigned int dotype = 0; dotype <= CR_DO_TYPE_LAST + 1; ++dotype) {
        DOEntryLayout const entry = FormEntryLayout(CR_FP_TYPE_SHA256, dotype);
        DOType const type = DOTypeOf(dotype);
        if (FormSize(kMost, dotype, CR_FP_TYPE_SHA256) >= kBound || FormSize(0, dotype, CR_FP_TYPE_SHA256) != 29 ||
            entry.stride != CRFPTextSize(CR_FP_TYPE_SHA256) + type.sizeWidth + type.offsetWidth) {
            return false;
        }
    }
    return BloomFormSize(kMost, kMost) < kBound && ListChecksumSize(kMost) < kBound;
}());

// The size of a bloom form follows from its parts: head, bitmap, list, and 24 zeros, of which the head of a list
// takes 8.
static_assert(BloomFormSize(0, 0) == kBitmapOffset + 24);
static_assert(BloomFormSize(5, 3) == kBitmapOffset + 5 + UniqueListSize(3) + 24 - kUniqueHeadSize);

// Only the form's size shows whether there is a list. Its count is read if at least one entry fits.
void ReadBloomCounts(Form& form) noexcept {
    if (form.size < kBloomBareSize) {
        return;
    }
    form.counts.bsize = form.Word(kHeadSize);
    std::uint64_t const rest = form.size - kBloomBareSize;
    if (rest > form.counts.bsize && rest - form.counts.bsize >= kUniqueEntrySize) {
        form.counts.nudcid = UniqueCount(form.bytes + form.ListOffset(), Order::Network);
    }
}

} // namespace

void ReadCounts(Form& form) noexcept {
    form.counts.nfp = form.Word(kCountOffset);
    if (form.IsBloom()) {
        ReadBloomCounts(form);
    }
}

std::uint32_t BodyChecksum(Form const& form) noexcept {
    return Adler32(form.bytes + kHeadSize, form.size - kHeadSize);
}

std::uint32_t ListChecksum(Form const& form) noexcept {
    return Adler32(form.bytes + form.ListOffset() + kUniqueCountOffset, ListChecksumSize(form.counts.nudcid));
}

} // namespace crrecord::exchange
