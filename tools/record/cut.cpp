#include "record/cut.h"

#include "io/failure.h"
#include "io/pipeline.h"
#include "io/progress.h"
#include "record/fingerprinter.h"
#include "record/parallel_sha256.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <span>
#include <vector>

#include <fmt/format.h>
#include <libdeflate.h>
#include <zlib.h>

namespace crrecord::tool {

namespace {

// Hashing a batch takes far longer than starting a thread, and the batch stays in that processor's cache.
constexpr std::uint64_t kBatch = kReadBlock;
constexpr std::uint64_t kBatchSegments = 4096; // the result for a segment of one byte has dozens
constexpr unsigned int kMostThreads = 32;      // more than one reading thread can supply; each has a batch

// Segments of the default size for all lanes.
constexpr std::uint64_t kParallelBatch = ParallelSha256::kLanes * 128UL * 1024;
// The start takes longer than is saved with smaller inputs.
constexpr std::uint64_t kLeastParallelInput = 32UL * 1024 * 1024;
static_assert(kBatch <= ParallelSha256::kMostBytes);
constexpr unsigned int kMostParallelThreads = 8; // each hashes several GB/s

// Returns: the CRC-32 of two parts from those of the parts. `bytes` is the size of the second one.
std::uint32_t CombinedCrc(std::uint32_t crc, std::uint32_t next, std::uint64_t bytes) {
    return static_cast<std::uint32_t>(crc32_combine(crc, next, static_cast<z_off_t>(bytes)));
}

// Returns: the CRC-32 after so many zeros follow. CRC-32 complements its state at both ends; in between, zeros only
// shift it.
std::uint32_t CrcAfterZeros(std::uint32_t crc, std::uint64_t bytes) {
    return ~CombinedCrc(~crc, 0, bytes);
}

// Consecutive bytes of the input, and the segments that end in them.
struct Batch {
    std::vector<unsigned char> bytes;
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
    bool endsSegment = false; // a gap or the input's end follows
    std::uint32_t crc = 0;
    std::vector<CutSegment> segments;       // without their containers
    std::unique_ptr<ParallelSha256> sha256; // if the segments are hashed at once
};

// Computes fingerprints and checksums of segments whose bytes arrive in order.
class Digester {
public:
    explicit Digester(CutOptions const& options) : options_(options), fingerprinter_(options.fptype) {}

    void Append(Batch& batch) {
        std::span<unsigned char const> bytes = std::span(batch.bytes).first(batch.size);
        batch.crc = libdeflate_crc32(0, bytes.data(), bytes.size());
        for (std::uint64_t offset = batch.offset; !bytes.empty();) {
            std::uint64_t const left = options_.segmentSize - offset % options_.segmentSize;
            auto const piece = bytes.first(std::min(bytes.size(), left));
            AppendPiece(offset, piece);
            offset += piece.size();
            bytes = bytes.subspan(piece.size());
            if (piece.size() == left) {
                EndSegment(batch.segments);
            }
        }
        if (batch.endsSegment) {
            EndSegment(batch.segments);
        }
    }

private:
    void AppendPiece(std::uint64_t offset, std::span<unsigned char const> piece) {
        if (segment_.size == 0) {
            segment_.offset = offset;
            fingerprinter_.Start();
        }
        fingerprinter_.Append(piece);
        segment_.crc = options_.segmentCrcs ? libdeflate_crc32(segment_.crc, piece.data(), piece.size()) : 0;
        segment_.size += piece.size();
    }

    void EndSegment(std::vector<CutSegment>& segments) {
        if (segment_.size != 0) {
            segment_.fingerprint = fingerprinter_.Finish();
            segments.push_back(std::exchange(segment_, {}));
        }
    }

    CutOptions const& options_;
    Fingerprinter fingerprinter_;
    CutSegment segment_; // the open segment, if it has bytes
};

// Computes the fingerprints of whole segments with batch.sha256, which is created if it is null.
// Returns: false, without a result, if there are too few segments, or if it cannot be created.
bool DigestAtOnce(Batch& batch, CutOptions const& options) {
    std::span<unsigned char const> bytes = std::span(batch.bytes).first(batch.size);
    if (bytes.size() <= (ParallelSha256::kLeastPieces - 1) * options.segmentSize) {
        return false;
    }
    if (!batch.sha256) {
        batch.sha256 = ParallelSha256::Create();
    }
    if (!batch.sha256) {
        return false;
    }
    batch.crc = libdeflate_crc32(0, bytes.data(), bytes.size());
    batch.segments.reserve(batch.size / options.segmentSize + 2); // the pieces point to them
    std::vector<ParallelSha256::Piece> pieces;
    for (std::uint64_t offset = batch.offset; !bytes.empty();) {
        auto const segment =
            bytes.first(std::min<std::uint64_t>(bytes.size(), options.segmentSize - offset % options.segmentSize));
        CutSegment& made = batch.segments.emplace_back();
        made.offset = offset;
        made.size = segment.size();
        made.crc = options.segmentCrcs ? libdeflate_crc32(0, segment.data(), segment.size()) : 0;
        pieces.push_back({segment, made.fingerprint.bytes});
        offset += segment.size();
        bytes = bytes.subspan(segment.size());
    }
    if (!batch.sha256->Digest(pieces)) {
        throw Failure("libipsec-mb: computed no SHA-256");
    }
    // One of each batch, another one each time: wrong fingerprints would never be found later.
    if (!ParallelSha256::EqualsOpenSSL(pieces[batch.offset / options.segmentSize % pieces.size()])) {
        throw Failure("libipsec-mb: computed a wrong SHA-256");
    }
    if (options.fptype == CR_FP_TYPE_SHA256_128) {
        constexpr std::size_t kSize = CRFPDigestSize(CR_FP_TYPE_SHA256_128);
        for (CutSegment& segment : batch.segments) {
            std::fill(segment.fingerprint.bytes + kSize, std::end(segment.fingerprint.bytes), std::uint8_t{0});
        }
    }
    return true;
}

class SegmentCutter {
public:
    // `expected` is the size of the input, or 0 if it is unknown.
    SegmentCutter(CutOptions const& options, std::uint64_t expected, Progress& progress,
                  std::function<void(CutSegment const&)> const& use)
        : options_(options), progress_(progress), use_(use), atOnce_(AtOnce(expected)), digester_(options),
          pipeline_(
              Threads(), [this](Batch& batch) { Digest(batch); }, [this](Batch& batch) { Account(batch); }) {
        totals_.firstContainer = totals_.lastContainer = options.firstContainer;
    }

    // Returns: the buffer for the next bytes of the input.
    std::span<unsigned char> Buffer() {
        Batch& batch = Open();
        return std::span(batch.bytes).subspan(batch.size);
    }

    // Adds bytes that were read into the buffer.
    void Append(std::uint64_t count) {
        batch_->size += count;
        position_ += count;
        progress_.At(position_); // a batch may take long to arrive through a pipe
        if (batch_->size == batch_->bytes.size()) {
            Submit();
        }
    }

    // Adds zeros that are in no segment.
    void Skip(std::uint64_t count) {
        if (count != 0) {
            Open().endsSegment = true;
            Submit();
            position_ += count;
        }
    }

    CutTotals const& Finish() {
        Open().endsSegment = true;
        Submit();
        pipeline_.Finish();
        return totals_;
    }

private:
    // Segments larger than a batch are hashed one after the other: memory for several of them would be unbounded.
    bool IsWhole() const { return options_.segmentSize <= kBatch; }
    unsigned int Threads() const {
        unsigned int const most = atOnce_ ? kMostParallelThreads : kMostThreads;
        return IsWhole() ? std::clamp(std::thread::hardware_concurrency(), 1U, most) : 1;
    }

    // Returns: true to hash segments at once.
    bool AtOnce(std::uint64_t expected) const {
        bool const isSha256 = options_.fptype == CR_FP_TYPE_SHA256 || options_.fptype == CR_FP_TYPE_SHA256_128;
        bool const isSmall = expected != 0 && expected < kLeastParallelInput;
        return IsWhole() && isSha256 && !isSmall && ParallelSha256::Create();
    }

    // The most segments in a batch; a multiple of the lanes, if they are hashed at once and enough fit.
    std::uint64_t SegmentsInBatch() const {
        std::uint64_t const most =
            atOnce_ ? std::max(kParallelBatch, ParallelSha256::kLanes * options_.segmentSize) : kBatch;
        std::uint64_t const fitting = std::min(most / options_.segmentSize, kBatchSegments);
        return fitting < ParallelSha256::kLanes ? fitting : fitting - fitting % ParallelSha256::kLanes;
    }

    Batch& Open() {
        if (!batch_) {
            batch_ = &pipeline_.Next();
            batch_->offset = position_;
            batch_->size = 0;
            batch_->endsSegment = false;
            batch_->segments.clear();
            // Batches of whole segments end at a multiple of the segment size.
            std::uint64_t const whole = SegmentsInBatch() * options_.segmentSize;
            batch_->bytes.resize(IsWhole() ? whole - position_ % options_.segmentSize : kBatch);
        }
        return *batch_;
    }

    void Submit() {
        pipeline_.Submit();
        batch_ = nullptr;
    }

    void Digest(Batch& batch) {
        if (IsWhole()) {
            batch.endsSegment = true;
            if (!atOnce_ || !DigestAtOnce(batch, options_)) {
                Digester(options_).Append(batch);
            }
        } else {
            digester_.Append(batch);
        }
    }

    // In the order of the input.
    void Account(Batch& batch) {
        std::uint64_t const gap = batch.offset - totals_.bytes;
        totals_.crc = CombinedCrc(CrcAfterZeros(totals_.crc, gap), batch.crc, batch.size);
        totals_.gaps += gap;
        totals_.bytes += gap + batch.size;
        for (CutSegment& segment : batch.segments) {
            segment.container = Place(segment.size);
            use_(segment);
        }
        totals_.segments += batch.segments.size();
    }

    // Returns: the container for a segment: the current one while the segment fits into it.
    unsigned int Place(std::uint64_t size) {
        if (options_.containerSize - used_ < size) {
            if (totals_.lastContainer == CutOptions::kMost32) {
                throw Failure(fmt::format("no container ids are left after {}: choose larger containers or a first "
                                          "container before {}",
                                          CutOptions::kMost32, totals_.firstContainer));
            }
            ++totals_.lastContainer;
            used_ = 0;
        }
        used_ += size;
        return totals_.lastContainer;
    }

    CutOptions const& options_;
    Progress& progress_;
    std::function<void(CutSegment const&)> const& use_;
    std::uint64_t position_ = 0; // in the input
    std::uint64_t used_ = 0;     // of the last container
    CutTotals totals_;
    bool atOnce_;
    Digester digester_;
    Batch* batch_ = nullptr; // the one being filled
    Pipeline<Batch> pipeline_;
};

} // namespace

CLI::Validator NumberOfBytes(std::uint64_t least, std::uint64_t most) {
    auto const read = [least, most](std::string& text) {
        constexpr std::array<std::string_view, 7> kUnits{"", "k", "m", "g", "t", "p", "e"};
        std::uint64_t number = 0;
        auto const digits = std::min(text.find_first_not_of("0123456789"), text.size());
        std::from_chars(text.data(), text.data() + digits, number);
        std::string unit = text.substr(digits);
        std::transform(unit.begin(), unit.end(), unit.begin(),
                       [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
        unit.resize(unit.size() - (unit.ends_with("ib") ? 2 : unit.ends_with("b") ? 1 : 0));
        auto const power = static_cast<std::size_t>(std::find(kUnits.begin(), kUnits.end(), unit) - kUnits.begin());
        if (power == kUnits.size() || number > most >> 10 * power || number << 10 * power < least) {
            return fmt::format("found \"{}\", expected a number of bytes of {} to {}, such as 65536 or 64K",
                               Printable(text), least, most);
        }
        text = std::to_string(number << 10 * power);
        return std::string();
    };
    return {read, ""};
}

void AddCutOptions(CLI::App& verb, CutOptions& options, unsigned int mostBytes) {
    // Without their descriptions, which the help would show instead of the value's name.
    auto const range = [](unsigned int least, unsigned int most) { return CLI::Range(least, most).description(""); };
    verb.add_option("--segment-size", options.segmentSize, "Bytes of each segment but the last, such as 64K")
        ->transform(NumberOfBytes(1, mostBytes))
        ->type_name("BYTES")
        ->capture_default_str();
    verb.add_option("--container-size", options.containerSize, "Bytes that a container holds, such as 64M")
        ->transform(NumberOfBytes(1, std::numeric_limits<std::uint64_t>::max()))
        ->type_name("BYTES")
        ->capture_default_str();
    verb.add_option("--fptype", options.fptype, "Fingerprint: 0 MD5, 1 SHA-1/128, 2 SHA-256/128, 3 SHA-256")
        ->check(range(CR_FP_TYPE_MD5, CR_FP_TYPE_LAST))
        ->type_name("N")
        ->capture_default_str();
    verb.add_option("--first-container", options.firstContainer, "Id of the first container, at most 4294967295")
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
    SegmentCutter cutter(options, input.ExpectedSize(), progress, use);
    Extent extent = holes == Holes::AreGaps ? input.NextExtent() : Extent{};
    for (;;) {
        cutter.Skip(std::exchange(extent.hole, 0));
        std::span<unsigned char> const buffer = cutter.Buffer();
        std::size_t const count = input.Read(buffer.first(std::min(buffer.size(), extent.data)));
        if (count == 0) {
            break;
        }
        cutter.Append(count);
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
