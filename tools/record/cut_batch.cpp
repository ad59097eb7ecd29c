#include "record/cut_batch.h"

#include "io/failure.h"
#include "record/fingerprinter.h"

#include <algorithm>

#include <libdeflate.h>

namespace crrecord::tool {

namespace {

using Pieces = std::vector<ParallelSha256::Piece>;

// Computes the fingerprints of whole segments with batch.sha256, which is created if it is null.
// Returns: false, without a result, if there are too few segments, or if it cannot be created.
bool DigestAtOnce(CutBatch& batch, Pieces const& pieces, unsigned int fptype) {
    if (pieces.size() < ParallelSha256::kLeastPieces) {
        return false;
    }
    if (!batch.sha256) {
        batch.sha256 = ParallelSha256::Create();
    }
    if (!batch.sha256) {
        return false;
    }
    if (!batch.sha256->Digest(pieces)) {
        throw Failure("libipsec-mb: computed no SHA-256");
    }
    // One of each batch, another one each time: wrong fingerprints would never be found later.
    if (!ParallelSha256::EqualsOpenSSL(pieces[batch.number % pieces.size()])) {
        throw Failure("libipsec-mb: computed a wrong SHA-256");
    }
    for (CutSegment& segment : batch.segments) {
        std::fill(segment.fingerprint.bytes + CRFPDigestSize(fptype), std::end(segment.fingerprint.bytes),
                  std::uint8_t{0});
    }
    return true;
}

} // namespace

std::uint64_t FirstSegment(std::span<unsigned char const> bytes, std::uint64_t offset, CutOptions const& options) {
    return options.content ? FirstContentCut(bytes.data(), bytes.size(), *options.content)
                           : std::min(bytes.size(), options.segmentSize - offset % options.segmentSize);
}

bool CanDigestAtOnce(CutOptions const& options) {
    bool const isSha256 = options.fptype == CR_FP_TYPE_SHA256 || options.fptype == CR_FP_TYPE_SHA256_128;
    return isSha256 && options.LargestSegment() <= ParallelSha256::kMostBytes && ParallelSha256::Create();
}

void DigestWhole(CutBatch& batch, CutOptions const& options, bool atOnce) {
    std::span<unsigned char const> bytes = std::span(batch.bytes).first(batch.size);
    batch.segments.resize(batch.sizes.size());
    Pieces pieces;
    std::uint64_t offset = batch.offset;
    for (std::size_t i = 0; i < batch.sizes.size(); ++i) {
        auto const segment = bytes.first(batch.sizes[i]);
        std::uint32_t const crc = options.segmentCrcs ? libdeflate_crc32(0, segment.data(), segment.size()) : 0;
        batch.segments[i] = {.offset = offset, .size = segment.size(), .crc = crc};
        pieces.push_back({segment, batch.segments[i].fingerprint.bytes});
        offset += segment.size();
        bytes = bytes.subspan(segment.size());
    }
    if (atOnce && DigestAtOnce(batch, pieces, options.fptype)) {
        return;
    }
    Fingerprinter fingerprinter(options.fptype);
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        fingerprinter.Start();
        fingerprinter.Append(pieces[i].bytes);
        batch.segments[i].fingerprint = fingerprinter.Finish();
    }
}

} // namespace crrecord::tool
