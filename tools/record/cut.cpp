#include "record/cut.h"

#include "io/failure.h"
#include "io/progress.h"

#include <crrecord/status.h>

#include <algorithm>
#include <span>
#include <vector>

#include <fmt/format.h>
#include <libdeflate.h>

namespace crrecord::tool {

namespace {

constexpr std::size_t kBlock = 1024UL * 1024;
// What has a sign or too many digits is larger when it is read.
constexpr std::uint64_t kLargestContainer = std::uint64_t{1} << 62;

// Polynomials over the field of two elements modulo that of CRC-32; the coefficient of x^0 is the highest bit.
constexpr std::uint32_t Multiply(std::uint32_t a, std::uint32_t b) noexcept {
    constexpr std::uint32_t kPolynomial = 0xedb88320;
    std::uint32_t product = 0;
    for (; a != 0; a <<= 1) {
        product ^= (a >> 31) * b;
        b = (b >> 1) ^ (b & 1) * kPolynomial;
    }
    return product;
}

// The CRC-32 of what `crc` is of and so many zero bytes behind it, without a pass over them.
constexpr std::uint32_t AppendZeros(std::uint32_t crc, std::uint64_t count) noexcept {
    constexpr std::uint32_t kOneByte = 1U << (31 - 8); // x^8
    std::uint32_t remainder = ~crc;
    for (std::uint32_t factor = kOneByte; count != 0; count >>= 1, factor = Multiply(factor, factor)) {
        remainder = (count & 1) != 0 ? Multiply(remainder, factor) : remainder;
    }
    return ~remainder;
}
static_assert(AppendZeros(0, 1) == 0xd202ef8d);

class Cutter {
public:
    Cutter(CutOptions const& options, std::function<void(CutSegment const&)> const& use)
        : options_(options), use_(use) {
        totals_.firstContainer = totals_.lastContainer = options.firstContainer;
        Start();
    }

    // So many zeros that belong to no segment.
    void Skip(std::uint64_t count) {
        if (count == 0) {
            return;
        }
        EndSegment();
        totals_.crc = AppendZeros(totals_.crc, count);
        totals_.gaps += count;
        totals_.bytes += count;
    }

    void Append(std::span<unsigned char const> bytes) {
        totals_.crc = libdeflate_crc32(totals_.crc, bytes.data(), bytes.size());
        while (!bytes.empty()) {
            std::uint64_t const room = options_.segmentSize - totals_.bytes % options_.segmentSize;
            auto const piece = bytes.first(std::min(bytes.size(), room));
            Check(CRFPAppend(&context_, piece.data(), piece.size()) == 0);
            segment_.crc = libdeflate_crc32(segment_.crc, piece.data(), piece.size());
            segment_.size += piece.size();
            totals_.bytes += piece.size();
            bytes = bytes.subspan(piece.size());
            if (piece.size() == room) {
                EndSegment();
            }
        }
    }

    CutTotals const& Totals() const { return totals_; }

    CutTotals const& Finish() {
        EndSegment();
        return totals_;
    }

private:
    void Start() {
        segment_ = {};
        Check(CRFPInitialize(&context_, options_.fptype) == 0);
    }

    void EndSegment() {
        if (segment_.size == 0) {
            return;
        }
        segment_.offset = totals_.bytes - segment_.size;
        Check(CRFPFinalize(&context_) == 0 && CRFPGetDigest_r(&context_, &segment_.fingerprint));
        segment_.container = Place(segment_.size);
        use_(segment_);
        ++totals_.segments;
        Start();
    }

    // The container for a segment of this size: the current one as long as it has room.
    unsigned int Place(std::uint64_t size) {
        if (options_.containerSize - used_ < size) {
            if (totals_.lastContainer == CutOptions::kMost32) {
                throw Failure(fmt::format("no container ids are left behind {}: take larger containers or an earlier "
                                          "first one than {}",
                                          CutOptions::kMost32, totals_.firstContainer));
            }
            ++totals_.lastContainer;
            used_ = 0;
        }
        used_ += size;
        return totals_.lastContainer;
    }

    void Check(bool done) const {
        if (!done) {
            throw Failure(
                fmt::format("fingerprint type {}: {}", options_.fptype, CRStatusToStringA(*__cr_errno_location())));
        }
    }

    CutOptions const& options_;
    std::function<void(CutSegment const&)> const& use_;
    crfp_context_t context_;
    CutSegment segment_;
    std::uint64_t used_ = 0; // of the last container
    CutTotals totals_;
};

} // namespace

void AddCutOptions(CLI::App& verb, CutOptions& options, unsigned int mostBytes) {
    // Without their descriptions, which would stand in the help where the value's name does.
    auto const size = CLI::AsSizeValue(false).description("");
    auto const range = [](unsigned int least, unsigned int most) { return CLI::Range(least, most).description(""); };
    verb.add_option("--segment-size", options.segmentSize, "Bytes of each segment but the last, such as 64K")
        ->transform(size)
        ->check(range(1, mostBytes))
        ->type_name("BYTES")
        ->capture_default_str();
    verb.add_option("--container-size", options.containerSize, "Bytes that a container holds, such as 64M")
        ->transform(size)
        ->check(CLI::Range(std::uint64_t{1}, kLargestContainer).description(""))
        ->type_name("BYTES")
        ->capture_default_str();
    verb.add_option("--fptype", options.fptype, "Fingerprint: 0 MD5, 1 SHA-1/128, 2 SHA-256/128, 3 SHA-256")
        ->check(range(CR_FP_TYPE_MD5, CR_FP_TYPE_SHA256))
        ->type_name("N")
        ->capture_default_str();
    verb.add_option("--first-container", options.firstContainer, "Id of the first container")
        ->check(range(CutOptions::kLeastContainer, CutOptions::kMost32))
        ->type_name("ID")
        ->capture_default_str();
}

CutTotals Cut(Input& input, CutOptions const& options, Holes holes, std::function<void(CutSegment const&)> const& use) {
    if (options.containerSize < options.segmentSize) {
        throw Failure(fmt::format("a container of {} bytes cannot hold a segment of {}: raise --container-size",
                                  options.containerSize, options.segmentSize));
    }
    Progress progress(input.Name(), input.ExpectedSize());
    Cutter cutter(options, use);
    std::vector<unsigned char> block(kBlock);
    Extent extent = holes == Holes::AreGaps ? input.NextExtent() : Extent{};
    for (;;) {
        cutter.Skip(std::exchange(extent.hole, 0));
        std::size_t const count = input.Read(std::span(block).first(std::min(block.size(), extent.data)));
        if (count == 0) {
            break;
        }
        cutter.Append(std::span(block).first(count));
        progress.At(cutter.Totals().bytes);
        extent.data -= count;
        if (extent.data == 0) {
            extent = input.NextExtent();
        }
    }
    CutTotals const totals = cutter.Finish();
    if (totals.segments == 0) {
        throw Failure(input.Name() + (totals.bytes == 0 ? ": is empty" : ": is one hole") + ", so it has no segments");
    }
    return totals;
}

} // namespace crrecord::tool
