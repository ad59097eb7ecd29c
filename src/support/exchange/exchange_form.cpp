#include "support/exchange/exchange_form.h"

#include "base/adler32.h"
#include "support/layout/unique_list.h"

#include <algorithm>

namespace crrecord::exchange {

namespace {

// Whether there is a list shows in the length alone; its count is read where there is room for one entry at least.
bool ReadBloomCounts(Form& form) noexcept {
    if (form.size < kBloomBareSize) {
        return false;
    }
    form.counts.bsize = form.Word(kHeadSize);
    std::uint64_t const rest = form.size - kBloomBareSize;
    if (rest > form.counts.bsize && rest - form.counts.bsize >= kUniqueEntrySize) {
        form.counts.nudcid = UniqueCount(form.List(), Order::Network);
    }
    return form.counts.nfp == 0 && BloomFormSize(form.counts.bsize, form.counts.nudcid) == form.size;
}

} // namespace

bool ReadCounts(Form& form) noexcept {
    if (form.size < kHeadSize + kSeparatorSize) {
        return false;
    }
    form.counts.nfp = form.Word(kCountOffset);
    bool const sizeFits = form.IsBloom()
                              ? ReadBloomCounts(form)
                              : FormSize(form.counts.nfp, form.counts.dotype, form.counts.fptype) == form.size;
    return sizeFits && form.Word(kZeroOffset) == 0;
}

std::uint32_t BodyChecksum(Form const& form) noexcept {
    return Adler32(form.bytes + kHeadSize, form.size - kHeadSize);
}

std::uint32_t BloomListChecksum(Form const& form) noexcept {
    return Adler32(form.List() + kUniqueCountOffset, ListChecksumSize(form.counts.nudcid));
}

bool BloomEndIsZero(Form const& form) noexcept {
    return std::all_of(form.List() + UniqueListSize(form.counts.nudcid), form.bytes + form.size,
                       [](unsigned char byte) { return byte == 0; });
}

} // namespace crrecord::exchange
