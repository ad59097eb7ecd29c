// Any bytes as a temporary file of tuples. Reading ends, and yields well-formed tuples only, or fails.

#include "target.h"

#include "io/failure.h"
#include "store/spill_file.h"

namespace crrecord::tool {

struct SpillFileOf {
    SpillFile file{"/tmp"};
    explicit SpillFileOf(fuzz::Bytes bytes) {
        file.file_.Write(bytes, 0);
        file.end_ = bytes.size();
    }
};

} // namespace crrecord::tool

using namespace fuzz;

FUZZ_TARGET(spill, bytes) {
    using namespace crrecord::tool;
    auto const position = TakeNumber(bytes, 2);
    auto const size = static_cast<std::uint32_t>(TakeNumber(bytes, 2));
    auto const inExtent = static_cast<std::uint32_t>(TakeNumber(bytes, 2));
    SpillFile::Chain const chain{{position, size, inExtent}, TakeNumber(bytes, 2)};
    SpillFileOf const any(bytes);
    std::uint64_t tuples = 0;
    try {
        any.file.Read(chain, [&](std::span<SegmentTuple const> some) {
            for (SegmentTuple const& tuple : some) {
                Must(tuple.IsWellFormed(), "tuples are well-formed");
            }
            tuples += some.size();
        });
    } catch (Failure const&) {
        return;
    }
    Must(tuples == chain.tuples, "all tuples of the chain are read");
}
