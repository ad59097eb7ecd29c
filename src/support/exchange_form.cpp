#include "support/exchange_form.h"

#include "support/adler32.h"
#include "support/unique_list.h"

#include <algorithm>

namespace crrecord::exchange {

namespace {

// Whether there is a list shows in the length alone; its count is read where there is room for one entry at least.
bool MeasureBloom(Form& form) noexcept {
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

bool Measure(Form& form) noexcept {
    if (form.size < kHeadSize + kSeparatorSize) {
        return false;
    }
    form.counts.nfp = form.Word(kCountOffset);
    bool const sizeFits = form.IsBloom()
                              ? MeasureBloom(form)
                              : FormSize(form.counts.nfp, form.counts.dotype, form.counts.fptype) == form.size;
    return sizeFits && form.Word(kZeroOffset) == 0;
}

bool BloomListIsSound(Form const& form) noexcept {
    std::uint32_t const count = form.counts.nudcid;
    return count == 0 || Load<std::uint32_t>(form.List(), Order::Network) ==
                             Adler32(form.List() + kUniqueCountOffset, ListChecksumSize(count));
}

bool BloomEndIsZero(Form const& form) noexcept {
    return std::all_of(form.List() + UniqueListSize(form.counts.nudcid), form.bytes + form.size,
                       [](unsigned char byte) { return byte == 0; });
}

bool BodyChecksumHolds(Form const& form) noexcept {
    return form.Word(kChecksumOffset) == Adler32(form.bytes + kHeadSize, form.size - kHeadSize);
}

} // namespace crrecord::exchange
