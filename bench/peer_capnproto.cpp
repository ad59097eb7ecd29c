// Cap'n Proto.

#include "sides.h"

#include "object.capnp.h"

#include <capnp/message.h>
#include <capnp/serialize.h>

namespace bench {

namespace {

// The first segment of the message is large enough for all of it.
Side Encode(InputPtr const& input) {
    static constexpr unsigned int kSegmentWords = 7, kHeadWords = 32;
    return {[input] {
        capnp::MallocMessageBuilder message(input->Count() * kSegmentWords + kHeadWords);
        auto object = message.initRoot<capn::Object>();
        object.setCid(CR_FIRST_FREE_DCID);
        object.setSize(input->objectSize);
        auto segments = object.initSegments(input->Count());
        unsigned char const* entry = input->entries.data();
        for (unsigned int i = 0; i < input->Count(); ++i, entry += input->stride) {
            auto segment = segments[i];
            segment.setFingerprint0(LoadAt<std::uint64_t>(entry));
            segment.setFingerprint1(LoadAt<std::uint64_t>(entry + 8));
            segment.setFingerprint2(LoadAt<std::uint64_t>(entry + 16));
            segment.setFingerprint3(LoadAt<std::uint64_t>(entry + 24));
            segment.setSize(LoadAt<std::uint32_t>(entry + 32));
            segment.setOffset(LoadAt<std::uint64_t>(entry + 36));
            segment.setDcid(input->dcids[i]);
        }
        kj::Array<capnp::word> const words = capnp::messageToFlatArray(message);
        benchmark::DoNotOptimize(words.begin());
        benchmark::ClobberMemory();
    }};
}

} // namespace

Comparison SerializeCapnProto(Shape shape, unsigned int n) {
    auto const input = std::make_shared<Input const>(shape, n);
    return {OurSerialize(input, true), Encode(input)};
}

} // namespace bench
