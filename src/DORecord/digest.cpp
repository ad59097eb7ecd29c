// DORecord::GetDigest: computes the digest of an object.

#include "DORecord/record.h"
#include "support/exchange/segment_codec.h"

#include <algorithm>
#include <array>

using namespace crrecord;

namespace {

void Check(int result) {
    if (result == -1) {
        throw Cr_ErrnoException(*__cr_errno_location());
    }
}

crfp_digest_t Finish(crfp_context_t& context) {
    crfp_digest_t digest;
    Check(CRFPFinalizeDO(&context));
    Check(CRFPGetDigest_r(&context, &digest) ? 0 : -1);
    return digest;
}

crfp_digest_t DigestOfBytes(unsigned int fptype, unsigned char const* bytes, std::uint64_t size) {
    crfp_context_t context;
    Check(CRFPInitialize(&context, fptype));
    Check(CRFPAppend(&context, bytes, size));
    return Finish(context);
}

// Hashes the segments as the exchange form encodes them: fingerprint text with its NUL, size and offset of each one.
// The stage collects them, so that the hash function gets a few large blocks instead of three small ones per segment.
crfp_digest_t DigestOfSegments(unsigned char const* record, RecordLayout const& layout, unsigned int dotype,
                               unsigned int fptype) {
    std::array<unsigned char, 16384> stage;
    SegmentCodec const& codec = SegmentCodecFor(fptype, dotype);
    std::uint64_t const size = SegmentFormSize(fptype, dotype);
    std::uint64_t const block = stage.size() / size;
    crfp_context_t context;
    Check(CRFPInitialize(&context, fptype));
    for (std::uint64_t i = 0; i < layout.segments; i += block) {
        std::uint64_t const count = std::min(block, layout.segments - i);
        codec.encode(stage.data(), record + layout.Entry(i), count);
        Check(CRFPAppend(&context, stage.data(), count * size));
    }
    return Finish(context);
}

} // namespace

crt_digest_t* DORecord::GetDigest() const {
    if (networkOrder) {
        Refuse("GetDigest called while DO record in network order.");
    }
    bool const bloom = header && IsBloom(GetDOType());
    RecordLayout const layout =
        RecordInternals::ChangeableLayout(*this, bloom ? &RecordLayout::taskids : &RecordLayout::dcids);
    unsigned int const fptype = GetFPType();
    crfp_digest_t digest{};
    if (bloom) {
        digest = DigestOfBytes(fptype, BytesOf(header) + layout.entries, layout.taskids - layout.entries);
    } else if (layout.segments == 1) {
        std::memcpy(digest.bytes, BytesOf(header) + layout.entries, layout.fingerprint);
    } else if (GetDOType() == CR_DO_TYPE_ORIGINAL) {
        return nullptr;
    } else {
        digest = DigestOfSegments(BytesOf(header), layout, GetDOType(), fptype);
    }
    static constexpr unsigned int kNoType = 255;
    crt_digest_t* const made = CRTDigestNewFull(fptype == kNoType ? 0 : fptype + 1, &digest, GetDCID());
    if (!made) {
        throw Cr_ErrnoException(CR_STATUS_NO_MEMORY,
                                "Couldn't allocate enough memory to store the digest of a DORecord", nullptr);
    }
    return made;
}
