// FlatBuffers.

#include "sides.h"

#include "object_generated.h"

#include <benchmark/benchmark.h>

namespace bench {

namespace {

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

Comparison ParseFlatBuffers(Shape shape, unsigned int n) {
    auto const input = std::make_shared<Input const>(shape, n);
    return {OurParse(input), PeerParse(*input, EncodeTables(*input), VerifyAndFill)};
}

} // namespace bench
