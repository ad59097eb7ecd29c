#include "support/exchange/exchange_form.h"

#include "base/adler32.h"
#include "support/layout/unique_list.h"

namespace crrecord::exchange {

namespace {

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
