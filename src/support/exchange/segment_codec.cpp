// The segment codec for every processor, and the selection.

#include "support/exchange/segment_codec.h"

#include "base/hex.h"
#include "support/exchange/segment_codec_loops.h"

namespace crrecord {

namespace {

struct BaseHex {
    class Verdict {
    public:
        void And(bool good) noexcept { good_ &= good; }
        bool Good() const noexcept { return good_; }

    private:
        bool good_ = true;
    };

    template <unsigned int Bytes>
    static void Encode(unsigned char const* bytes, char* text) noexcept {
        HexEncode(bytes, Bytes, text);
    }
    template <unsigned int Bytes>
    static void Decode(char const* text, unsigned char* bytes, Verdict& verdict) noexcept {
        verdict.And(HexDecode(text, Bytes, bytes));
    }
    template <unsigned int Bytes>
    static void Check(char const* text, Verdict& verdict) noexcept {
        unsigned char bytes[Bytes];
        verdict.And(HexDecode(text, Bytes, bytes));
    }
};

bool ProcessorHasAvx2() noexcept {
#if defined(__x86_64__)
    return __builtin_cpu_supports("avx2") != 0;
#else
    return false;
#endif
}

} // namespace

SegmentCodec const* BaseSegmentCodec(unsigned int fptype, unsigned int dotype) noexcept {
    return CodecOf<BaseHex>(fptype, dotype);
}

SegmentCodec const& SegmentCodecFor(unsigned int fptype, unsigned int dotype) noexcept {
    SegmentCodec const* const fast = ProcessorHasAvx2() ? Avx2SegmentCodec(fptype, dotype) : nullptr;
    return fast ? *fast : *BaseSegmentCodec(fptype, dotype);
}

} // namespace crrecord
