// Reading a record through the public interface, compared with a plain loop that reads the same bytes.

#include "sides.h"

#include <crrecord/DORecordView.h>

#include <benchmark/benchmark.h>

namespace bench {

namespace {

// A record and the bytes of a copy, so that neither side finds the data of the other in the caches.
struct Reading {
    std::shared_ptr<DORecord> record;
    std::shared_ptr<std::vector<unsigned char>> copy;
    unsigned int count;
    unsigned int stride;
    unsigned int fingerprint;
};

Reading ReadingOf(Shape shape, unsigned int n, bool networkOrder) {
    Input const input(shape, n);
    std::shared_ptr<DORecord> const record = input.MakeRecord();
    auto const copy = std::make_shared<std::vector<unsigned char>>(BytesOf(*record));
    if (networkOrder) {
        record->HostToNetwork(0);
    }
    return {record, copy, n, input.stride, input.fingerprintSize};
}

// The plain loop: a part of the fingerprint, size, offset and container of each segment, in host order.
Side PlainLoop(Reading const& reading) {
    return {[reading] {
        unsigned long sum = 0;
        unsigned char const* entry = reading.copy->data() + CR_DO_HEADER_SIZE;
        unsigned char const* dcid = entry + std::size_t{reading.count} * reading.stride;
        unsigned int const sizeAt = reading.fingerprint;
        for (unsigned int i = 0; i < reading.count; ++i, entry += reading.stride, dcid += sizeof sum) {
            sum += LoadAt<unsigned long>(entry) + LoadAt<unsigned int>(entry + sizeAt) +
                   LoadAt<unsigned long>(entry + sizeAt + 4) + LoadAt<unsigned long>(dcid);
        }
        benchmark::DoNotOptimize(sum);
    }};
}

Comparison RangeAgainstLoop(Shape shape, unsigned int n, bool networkOrder) {
    Reading const reading = ReadingOf(shape, n, networkOrder);
    auto const view = std::make_shared<DORecordView>(reading.record->GetHeader(), reading.record->GetHeaderSize());
    return {{[reading, view] {
                unsigned long sum = 0;
                for (DOSegment const& segment : view->Segments()) {
                    sum +=
                        LoadAt<unsigned long>(segment.fingerprint.data) + segment.size + segment.offset + segment.dcid;
                }
                benchmark::DoNotOptimize(sum);
            }},
            PlainLoop(reading)};
}

} // namespace

Comparison ReadSegments(Shape shape, unsigned int n) {
    return RangeAgainstLoop(shape, n, false);
}

Comparison ReadSegmentsInNetworkOrder(Shape shape, unsigned int n) {
    return RangeAgainstLoop(shape, n, true);
}

Comparison ReadByIndex(Shape shape, unsigned int n) {
    Reading const reading = ReadingOf(shape, n, false);
    return {{[reading] {
                DORecord const& record = *reading.record;
                unsigned long sum = 0;
                for (unsigned int i = 0; i < reading.count; ++i) {
                    sum += LoadAt<unsigned long>(record.GetSegmentFP(i).bytes) + record.GetSegmentSize(i) +
                           record.GetSegmentOffset(i) + record.GetSegmentDCID(i);
                }
                benchmark::DoNotOptimize(sum);
            }},
            PlainLoop(reading)};
}

} // namespace bench
