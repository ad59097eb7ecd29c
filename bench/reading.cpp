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

// A record with n references or a unique list; its copy, at `bytes`; and a view of it.
struct Listed {
    std::shared_ptr<DORecord> record;
    std::shared_ptr<std::vector<unsigned char>> bytes;
    std::shared_ptr<DORecordView> view;
};

Listed ListedOf(std::shared_ptr<DORecord> const& record) {
    return {record, std::make_shared<std::vector<unsigned char>>(BytesOf(*record)),
            std::make_shared<DORecordView>(record->GetHeader(), record->GetHeaderSize())};
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

// The plain loop: container and bytes of each entry of the list.
Comparison ReadUniqueDcids(Shape shape, unsigned int n) {
    std::shared_ptr<DORecord> const record = Input(shape, n, Containers::AtRandom).MakeRecord();
    Require(record->AppendBloomAndUniqueDCIDList() == CR_STATUS_OK, "no unique list");
    Listed const listed = ListedOf(record);
    auto const at = reinterpret_cast<unsigned char const*>(DORecordHeaderIndexOfUDCID(record->GetHeader(), 0)) -
                    reinterpret_cast<unsigned char const*>(record->GetHeader());
    return {{[listed] {
                unsigned long sum = 0;
                for (DOUniqueDCID const& entry : listed.view->UniqueDCIDs()) {
                    sum += entry.dcid + entry.bytes;
                }
                benchmark::DoNotOptimize(sum);
            }},
            {[listed, at, count = record->GetNudcid()] {
                unsigned long sum = 0;
                unsigned char const* entry = listed.bytes->data() + at;
                for (unsigned int i = 0; i < count; ++i, entry += 2 * sizeof sum) {
                    sum += LoadAt<unsigned long>(entry) + LoadAt<unsigned long>(entry + sizeof sum);
                }
                benchmark::DoNotOptimize(sum);
            }}};
}

// The plain loop: kind and id of each reference, all of which are task ids.
Comparison ReadReferences(Shape shape, unsigned int n) {
    std::shared_ptr<DORecord> const record = Input(shape, 1).MakeRecord();
    for (unsigned int id = 1; id <= n; ++id) {
        record->AddTaskID(id);
    }
    Listed const listed = ListedOf(record);
    auto const at = reinterpret_cast<unsigned char const*>(DORecordHeaderStartTRefs(record->GetHeader())) -
                    reinterpret_cast<unsigned char const*>(record->GetHeader());
    return {{[listed] {
                unsigned long sum = 0;
                for (DOReference const& reference : listed.view->References()) {
                    sum += static_cast<unsigned long>(reference.kind) + reference.id;
                }
                benchmark::DoNotOptimize(sum);
            }},
            {[listed, at, n] {
                unsigned long sum = 0;
                unsigned char const* from = listed.bytes->data() + at;
                for (unsigned int i = 0; i < n; ++i, from += 10) {
                    sum += *from + __builtin_bswap64(LoadAt<unsigned long>(from + 2));
                }
                benchmark::DoNotOptimize(sum);
            }}};
}

} // namespace bench
