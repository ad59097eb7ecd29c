#include "cut.h"

#include "failure.h"
#include "progress.h"

#include <crrecord/status.h>

#include <algorithm>
#include <span>
#include <vector>

#include <libdeflate.h>

namespace crrecord::tool {

namespace {

constexpr std::size_t kBlock = 1024UL * 1024;

class Cutter {
public:
    Cutter(CutOptions const& options, std::function<void(CutSegment const&)> const& use)
        : options_(options), use_(use) {
        totals_.firstContainer = totals_.lastContainer = options.firstContainer;
        Start();
    }

    void Append(std::span<unsigned char const> bytes) {
        totals_.bytes += bytes.size();
        while (!bytes.empty()) {
            auto const piece = bytes.first(std::min(bytes.size(), options_.segmentSize - segment_.size));
            Check(CRFPAppend(&context_, piece.data(), piece.size()) == 0);
            segment_.crc = libdeflate_crc32(segment_.crc, piece.data(), piece.size());
            segment_.size += piece.size();
            bytes = bytes.subspan(piece.size());
            if (segment_.size == options_.segmentSize) {
                EndSegment();
            }
        }
    }

    CutTotals const& Finish() {
        if (segment_.size != 0) {
            EndSegment();
        }
        return totals_;
    }

private:
    void Start() {
        segment_ = {};
        Check(CRFPInitialize(&context_, options_.fptype) == 0);
    }

    void EndSegment() {
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

void AddCutOptions(CLI::App& verb, CutOptions& options) {
    // Without their descriptions, which would stand in the help where the value's name does.
    auto const size = CLI::AsSizeValue(false).description("");
    auto const range = [](unsigned int least, unsigned int most) { return CLI::Range(least, most).description(""); };
    verb.add_option("--segment-size", options.segmentSize, "Bytes of each segment but the last, such as 64K")
        ->transform(size)
        ->check(range(1, CutOptions::kMost32))
        ->type_name("BYTES")
        ->capture_default_str();
    verb.add_option("--container-size", options.containerSize, "Bytes that a container holds, such as 64M")
        ->transform(size)
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

CutTotals Cut(Input& input, CutOptions const& options, std::function<void(CutSegment const&)> const& use) {
    if (options.containerSize < options.segmentSize) {
        throw Failure(fmt::format("a container of {} bytes cannot hold a segment of {}: raise --container-size",
                                  options.containerSize, options.segmentSize));
    }
    Progress progress(input.Name(), input.ExpectedSize());
    Cutter cutter(options, use);
    std::vector<unsigned char> block(kBlock);
    std::uint64_t bytes = 0;
    while (std::size_t const count = input.Read(block)) {
        cutter.Append(std::span(block).first(count));
        progress.At(bytes += count);
    }
    if (bytes == 0) {
        throw Failure(input.Name() + ": is empty, so it has no segments");
    }
    return cutter.Finish();
}

} // namespace crrecord::tool
