// From the exchange form of a DO record to the record. Every byte of the form is looked at, and none behind it.

#include "support/adler32.h"
#include "support/exchange_form.h"
#include "support/hex.h"
#include "support/unique_list.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>

namespace crrecord::exchange {

namespace {

// Reads the entries and the DCIDs; false where a text, its NUL or the separator is not as it must be.
bool ReadSegments(Form const& form, DORecordHeader* header, RecordLayout const& layout) noexcept {
    unsigned char const* from = form.bytes + kHeadSize;
    unsigned char* entry = BytesOf(header) + layout.entries;
    unsigned int const sizeWidth = SegmentSizeWidth(form.counts.dotype);
    unsigned int const offsetWidth = SegmentOffsetWidth(form.counts.dotype);
    bool good = true;
    for (std::uint32_t i = 0; i < layout.segments; ++i, entry += layout.stride) {
        good &= HexDecode(reinterpret_cast<char const*>(from), layout.fingerprint, entry);
        from += 2 * layout.fingerprint;
        good &= *from++ == 0;
        if (sizeWidth != 0) {
            Turn<std::uint32_t>(entry + layout.fingerprint, from);
            from += sizeWidth;
        }
        if (offsetWidth == 8) {
            Turn<std::uint64_t>(entry + layout.offset, from);
        } else if (offsetWidth == 4) {
            Turn<std::uint32_t>(entry + layout.offset, from);
        }
        from += offsetWidth;
    }
    good &= *from == 0;
    from += kSeparatorSize;
    unsigned char* const dcids = BytesOf(header) + layout.dcids;
    for (std::uint64_t i = 0; i < layout.segments; ++i) {
        Turn<std::uint64_t>(dcids + i * kDcidSize, from + i * kDcidSize);
    }
    return good;
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

bool Build(Form const& form, DORecordHeader* header, RecordLayout const& layout) noexcept {
    WriteHeader(form, header, layout);
    if (form.IsBloom()) {
        ReadBloom(form, header, layout);
        return true;
    }
    return ReadSegments(form, header, layout);
}

} // namespace

} // namespace crrecord::exchange

cr_status_t DORecordHeaderDeserialize(DORecordHeader** header, unsigned long* bufferSize, void const* serialized,
                                      unsigned long serializedSize, unsigned int dotype, unsigned char fptype) {
    using namespace crrecord;
    if (!header || !bufferSize || !serialized) {
        return CR_STATUS_NULL_ARGUMENT;
    }
    if (!CRDOTypeIsValid(dotype)) {
        return CR_STATUS_INVALID_DO_TYPE;
    }
    exchange::Form form{static_cast<unsigned char const*>(serialized), serializedSize, {}};
    form.counts.fptype = fptype;
    form.counts.dotype = static_cast<unsigned char>(dotype);
    if (!exchange::Measure(form) || (form.IsBloom() && !exchange::BloomIsSound(form))) {
        return CR_STATUS_CORRUPT_RECORD;
    }
    RecordLayout const layout(form.counts);
    if (layout.total > kLargestRecord) {
        return CR_STATUS_INVALID;
    }
    bool const fits = *header && *bufferSize >= layout.total;
    auto* const target =
        static_cast<DORecordHeader*>(fits ? std::memset(*header, 0, layout.total) : std::calloc(1, layout.total));
    if (!target) {
        return CR_STATUS_NO_MEMORY;
    }
    if (!exchange::Build(form, target, layout)) {
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
