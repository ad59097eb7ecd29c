#include "input.h"

#include <algorithm>
#include <numeric>
#include <random>

namespace bench {

namespace {

constexpr unsigned int kLargestSegment = 131'072;
constexpr unsigned int kSegmentsInContainer = 512;

template <class T>
void Append(std::vector<unsigned char>& bytes, T value) {
    unsigned char raw[sizeof value];
    std::memcpy(raw, &value, sizeof value);
    bytes.insert(bytes.end(), raw, raw + sizeof raw);
}

} // namespace

Input::Input(Shape wanted, unsigned int n, Containers containers)
    : shape(wanted), fingerprintSize(CRFPDigestSize(wanted.fptype)) {
    Require(shape.dotype == CR_DO_TYPE_ORIGINAL || shape.dotype == CR_DO_TYPE_8_BYTE_OFFSET, "an unknown shape");
    bool const sized = shape.dotype == CR_DO_TYPE_8_BYTE_OFFSET;
    stride = fingerprintSize + (sized ? 12 : 0);
    entries.reserve(std::size_t{n} * stride);
    dcids.reserve(n);
    std::mt19937_64 random(n);
    for (unsigned int i = 0; i < n; ++i) {
        for (unsigned int word = 0; word < fingerprintSize / 8; ++word) {
            Append(entries, random());
        }
        unsigned int const size = sized ? static_cast<unsigned int>(random() % kLargestSegment) + 1 : kLargestSegment;
        if (sized) {
            Append(entries, size);
            Append(entries, objectSize);
        }
        objectSize += size;
        dcids.push_back(CR_FIRST_FREE_DCID +
                        (containers == Containers::InRuns ? i / kSegmentsInContainer : random() % kRandomContainers));
    }
}

std::unique_ptr<DORecord> Input::MakeRecord() const {
    return std::make_unique<DORecord>(CR_FIRST_FREE_DCID, objectSize, kLargestSegment, 0, 1, 1, entries.data(), Count(),
                                      dcids.data(), nullptr, shape.fptype, shape.dotype);
}

Block NewBlock(std::size_t size) {
    Block block(static_cast<unsigned char*>(std::malloc(size)));
    Require(block != nullptr, "no memory");
    benchmark::DoNotOptimize(block.get());
    return block;
}

std::vector<unsigned char> BytesOf(DORecord& record) {
    auto const* const bytes = reinterpret_cast<unsigned char const*>(record.GetHeader());
    return {bytes, bytes + record.GetHeaderSize()};
}

std::vector<unsigned char> FormOf(DORecord const& record, bool withChecksum) {
    void* form = nullptr;
    unsigned long length = 0;
    Require(record.Serialize(&form, &length, withChecksum) == CR_STATUS_OK, "Serialize failed");
    auto const* const bytes = static_cast<unsigned char const*>(form);
    std::vector<unsigned char> copy(bytes, bytes + length);
    DORecord::SerializedDORecordFree(&form);
    return copy;
}

std::vector<unsigned long> ShuffledNumbers(unsigned int n) {
    std::vector<unsigned long> numbers(n);
    std::iota(numbers.begin(), numbers.end(), 1);
    std::shuffle(numbers.begin(), numbers.end(), std::mt19937_64(n));
    return numbers;
}

} // namespace bench
