// The digest that stands for a whole object.

#include "DORecord/record.h"
#include "support/hex.h"

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

// Of each segment: the text of its fingerprint with the NUL, its size, its offset, as the exchange form has them. They
// are collected in a stage, so that the hash sees a few large blocks and not three small ones a segment.
class Stage {
public:
    Stage(crfp_context_t& context, RecordLayout const& layout, unsigned int dotype) noexcept
        : context_(context), layout_(layout), sizeWidth_(SegmentSizeWidth(dotype)),
          offsetWidth_(SegmentOffsetWidth(dotype)) {}

    void Append(unsigned char const* entry) {
        if (bytes_.size() - used_ < kLargestSegment) {
            Flush();
        }
        unsigned char* to = bytes_.data() + used_;
        HexEncode(entry, layout_.fingerprint, reinterpret_cast<char*>(to));
        to += 2 * layout_.fingerprint;
        *to++ = '\0';
        if (sizeWidth_ != 0) {
            Turn<std::uint32_t>(to, entry + layout_.fingerprint);
        }
        to += sizeWidth_;
        if (offsetWidth_ == 8) {
            Turn<std::uint64_t>(to, entry + layout_.offset);
        } else if (offsetWidth_ == 4) {
            Turn<std::uint32_t>(to, entry + layout_.offset);
        }
        to += offsetWidth_;
        used_ = static_cast<std::size_t>(to - bytes_.data());
    }

    void Flush() {
        Check(CRFPAppend(&context_, bytes_.data(), used_));
        used_ = 0;
    }

private:
    static constexpr std::size_t kLargestSegment = CRFPTextSize(CR_FP_TYPE_SHA256) + 4 + 8;

    crfp_context_t& context_;
    RecordLayout const& layout_;
    unsigned int sizeWidth_;
    unsigned int offsetWidth_;
    std::size_t used_ = 0;
    std::array<unsigned char, 16384> bytes_;
};

crfp_digest_t DigestOfSegments(unsigned char const* record, RecordLayout const& layout, unsigned int dotype,
                               unsigned int fptype) {
    crfp_context_t context;
    Check(CRFPInitialize(&context, fptype));
    Stage stage(context, layout, dotype);
    for (std::uint64_t i = 0; i < layout.segments; ++i) {
        stage.Append(record + layout.Entry(i));
    }
    stage.Flush();
    return Finish(context);
}

} // namespace

crt_digest_t* DORecord::GetDigest() const {
    if (networkOrder) {
        Refuse("GetDigest called while DO record in network order.");
    }
    bool const bloom = header && GetDOType() == CR_DO_TYPE_BLOOM_FILTER;
    RecordLayout const layout = layoutUpTo(bloom ? &RecordLayout::taskIds : &RecordLayout::dcids);
    unsigned int const fptype = GetFPType();
    crfp_digest_t digest{};
    if (bloom) {
        digest = DigestOfBytes(fptype, BytesOf(header) + layout.entries, layout.taskIds - layout.entries);
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
