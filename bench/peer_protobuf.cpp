// Protocol Buffers.

#include "sides.h"

#include "object.pb.h"

namespace bench {

namespace {

void Fill(proto::Object& object, Input const& input) {
    object.set_cid(CR_FIRST_FREE_DCID);
    object.set_size(input.objectSize);
    object.mutable_segments()->Reserve(static_cast<int>(input.Count()));
    unsigned char const* entry = input.entries.data();
    for (unsigned long const dcid : input.dcids) {
        proto::Segment* const segment = object.add_segments();
        segment->set_fingerprint(entry, 32);
        segment->set_size(LoadAt<std::uint32_t>(entry + 32));
        segment->set_offset(LoadAt<std::uint64_t>(entry + 36));
        segment->set_dcid(dcid);
        entry += input.stride;
    }
}

std::vector<unsigned char> Encoded(Input const& input) {
    proto::Object object;
    Fill(object, input);
    std::vector<unsigned char> bytes(object.ByteSizeLong());
    Require(object.SerializeToArray(bytes.data(), static_cast<int>(bytes.size())), "the peer failed");
    return bytes;
}

// The message is filled before the measurement, like our record. Filling costs more than the encoding.
Side Encode(InputPtr const& input) {
    auto const object = std::make_shared<proto::Object>();
    Fill(*object, *input);
    return {[object] {
        std::size_t const size = object->ByteSizeLong();
        Block const block = NewBlock(size);
        Require(object->SerializeToArray(block.get(), static_cast<int>(size)), "the peer failed");
        benchmark::ClobberMemory();
    }};
}

bool ParseAndFill(std::vector<unsigned char> const& bytes, PeerRecord& record) {
    google::protobuf::Arena arena;
    auto* const object = google::protobuf::Arena::CreateMessage<proto::Object>(&arena);
    if (!object->ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) {
        return false;
    }
    for (proto::Segment const& segment : object->segments()) {
        if (segment.fingerprint().size() != 32) {
            return false;
        }
        record.Add(segment.fingerprint().data(), segment.size(), segment.offset(), segment.dcid());
    }
    return true;
}

} // namespace

Comparison SerializeProtobuf(Shape shape, unsigned int n) {
    auto const input = std::make_shared<Input const>(shape, n);
    return {OurSerialize(input, true), Encode(input)};
}

Comparison ParseProtobuf(Shape shape, unsigned int n) {
    auto const input = std::make_shared<Input const>(shape, n);
    return {OurParse(input), PeerParse(*input, Encoded(*input), ParseAndFill)};
}

} // namespace bench
