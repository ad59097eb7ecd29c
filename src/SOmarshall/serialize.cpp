// The serialized form of a segment record.
//
//   0   8  size of the segment          24  4  CRC
//   8   8  path id                      28  4  number of fingerprints
//   16  8  file id                      32     fingerprints as text, each with its NUL; then one zero byte
//
// All integers are big-endian.

#include "SOmarshall/layout.h"
#include "base/hex.h"
#include "base/memory.h"
#include "support/exchange/output_block.h"

#include <limits>

namespace crrecord::segment {

namespace {

constexpr unsigned int kHeadSize = 32;
constexpr unsigned int kEndSize = 1;
static_assert(kHeadSize + std::uint64_t{CRFPTextSize(CR_FP_TYPE_SHA256)} * 0xffffffff + kEndSize < std::uint64_t{1}
                                                                                                       << 39);

constexpr SerializerSite kSite{"SO", "SegmentRecordSerialize", "SOmarshall/serialize.cpp", 350};

void WriteHead(unsigned char* to, _SegmentDBRecord const& record) noexcept {
    Store(to, record.size, Order::Network);
    Store(to + 8, record.pathid, Order::Network);
    Store(to + 16, record.fileid, Order::Network);
    Store(to + 24, record.CRC, Order::Network);
    Store(to + 28, record.nfp, Order::Network);
}

// The block is zeroed, so the NUL of each text and the last byte need not be written.
void WriteFingerprints(unsigned char* to, _SegmentDBRecord const& record) noexcept {
    unsigned int const width = CRFPDigestSize(record.fptype);
    unsigned int const slot = CRFPTextSize(record.fptype);
    unsigned char const* from = BytesOf(&record) + FingerprintOffset(record.ntaskids);
    for (std::uint64_t i = 0; i < record.nfp; ++i, from += width, to += slot) {
        HexEncode(from, width, reinterpret_cast<char*>(to));
    }
}

} // namespace

} // namespace crrecord::segment

cr_status_t SegmentRecordSerialize(_SegmentDBRecord* record, void** out, unsigned long* outLength) {
    using namespace crrecord;
    if (!record || !out || !outLength) {
        if (out) {
            *out = nullptr;
        }
        return CR_STATUS_NULL_ARGUMENT;
    }
    std::uint64_t const total =
        segment::kHeadSize + std::uint64_t{CRFPTextSize(record->fptype)} * record->nfp + segment::kEndSize;
    // Readers use a 32-bit length. A longer form is reported as an allocation failure.
    cr_status_t const status =
        AllocateOutput(segment::kSite, total, std::numeric_limits<std::uint32_t>::max(), out, &AllocateZeroed);
    if (status != CR_STATUS_OK) {
        return status;
    }
    auto* const bytes = static_cast<unsigned char*>(*out);
    segment::WriteHead(bytes, *record);
    segment::WriteFingerprints(bytes + segment::kHeadSize, *record);
    *outLength = total;
    return CR_STATUS_OK;
}
