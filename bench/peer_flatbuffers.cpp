// FlatBuffers.

#include "sides.h"

#include "object_generated.h"

#include <benchmark/benchmark.h>

namespace bench {

namespace {

constexpr std::size_t kHead = 256; // bytes reserved for everything but the segments

flat::Segment SegmentAt(unsigned char const* entry, unsigned long dcid) {
    flatbuffers::span<std::uint8_t const, 32> const fingerprint(entry, 32);
    return flat::Segment(fingerprint, LoadAt<std::uint64_t>(entry + 36), dcid, LoadAt<std::uint32_t>(entry + 32));
}

void Finish(flatbuffers::FlatBufferBuilder& builder, Input const& input,
            flatbuffers::Offset<flatbuffers::Vector<flat::Segment const*>> segments) {
    builder.Finish(flat::CreateStructObject(builder, CR_FIRST_FREE_DCID, input.objectSize, 0, segments));
    benchmark::DoNotOptimize(builder.GetBufferPointer());
    benchmark::ClobberMemory();
}

// The fastest way: written in place, into a buffer of the final size.
void EncodeInPlace(Input const& input) {
    flatbuffers::FlatBufferBuilder builder(input.Count() * sizeof(flat::Segment) + kHead);
    flat::Segment* to = nullptr;
    auto const segments = builder.CreateUninitializedVectorOfStructs(input.Count(), &to);
    unsigned char const* entry = input.entries.data();
    for (unsigned long const dcid : input.dcids) {
        new (to++) flat::Segment(SegmentAt(entry, dcid));
        entry += input.stride;
    }
    Finish(builder, input, segments);
}

// The way of its tutorial: from a vector, into a buffer that grows.
void EncodeVector(Input const& input) {
    std::vector<flat::Segment> list;
    list.reserve(input.Count());
    unsigned char const* entry = input.entries.data();
    for (unsigned long const dcid : input.dcids) {
        list.push_back(SegmentAt(entry, dcid));
        entry += input.stride;
    }
    flatbuffers::FlatBufferBuilder builder;
    Finish(builder, input, builder.CreateVectorOfStructs(list));
}

std::vector<unsigned char> EncodeTables(Input const& input) {
    flatbuffers::FlatBufferBuilder builder;
    std::vector<flatbuffers::Offset<flat::SegmentTable>> tables;
    unsigned char const* entry = input.entries.data();
    for (unsigned long const dcid : input.dcids) {
        auto const fingerprint = builder.CreateVector(entry, 32);
        tables.push_back(flat::CreateSegmentTable(builder, fingerprint, LoadAt<std::uint32_t>(entry + 32),
                                                  LoadAt<std::uint64_t>(entry + 36), dcid));
        entry += input.stride;
    }
    auto const segments = builder.CreateVector(tables);
    builder.Finish(flat::CreateTableObject(builder, CR_FIRST_FREE_DCID, input.objectSize, 0, segments));
    return {builder.GetBufferPointer(), builder.GetBufferPointer() + builder.GetSize()};
}

bool VerifyAndFill(std::vector<unsigned char> const& bytes, PeerRecord& record) {
    flatbuffers::Verifier::Options options;
    options.max_tables = static_cast<flatbuffers::uoffset_t>(bytes.size());
    flatbuffers::Verifier verifier(bytes.data(), bytes.size(), options);
    if (!verifier.VerifyBuffer<flat::TableObject>(nullptr)) {
        return false;
    }
    for (flat::SegmentTable const* segment : *flatbuffers::GetRoot<flat::TableObject>(bytes.data())->segments()) {
        auto const* const fingerprint = segment->fingerprint();
        if (!fingerprint || fingerprint->size() != 32) {
            return false;
        }
        record.Add(fingerprint->data(), segment->size(), segment->offset(), segment->dcid());
    }
    return true;
}

} // namespace

Comparison SerializeFlatBuffers(Shape shape, unsigned int n) {
    auto const input = std::make_shared<Input const>(shape, n);
    return {OurSerialize(input, true), {[input] { EncodeInPlace(*input); }}};
}

Comparison SerializeFlatBuffersVector(Shape shape, unsigned int n) {
    auto const input = std::make_shared<Input const>(shape, n);
    return {OurSerialize(input, true), {[input] { EncodeVector(*input); }}};
}

Comparison ParseFlatBuffers(Shape shape, unsigned int n) {
    auto const input = std::make_shared<Input const>(shape, n);
    return {OurParse(input, 0), PeerParse(*input, EncodeTables(*input), VerifyAndFill)};
}

} // namespace bench
