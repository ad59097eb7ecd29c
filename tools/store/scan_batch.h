// Consecutive records on their way through a scan.

#pragma once

#include "io/record_stream.h"
#include "store/question.h"
#include "store/tuple_sink.h"

#include <array>
#include <memory>
#include <vector>

namespace crrecord::tool {

// The smallest entry and its DCID: a record has at most one entry for each so many bytes.
inline constexpr std::uint64_t kLeastEntry = 16 + 8;

// Records that one thread reads: it passes their entries to the sink, and notes for each record what is counted in the
// order of the records.
struct ScanBatch {
    // Entries of a record that are in one container: neighbours, or one entry of a bloom record's list.
    struct Run {
        std::uint64_t dcid;
        std::uint64_t uses;
        std::uint64_t bloomBytes;
    };

    struct Scanned {
        enum class Result { Bad, Segment, Object, Gap };

        std::shared_ptr<std::string const> file;
        Record record{};
        // Entries from `from` to `to` of a valid record that is divided, or all entries.
        std::shared_ptr<DORecordView const> view;
        unsigned int from = 0;
        unsigned int to = std::numeric_limits<unsigned int>::max();
        bool isLastPart = true;

        Result result = Result::Bad;
        std::string error;
        Membership membership;
        std::uint64_t dcid = 0; // the record's own container, or that of a segment record
        std::uint64_t ownBytes = 0;
        std::uint64_t claimed = 0; // bytes in the list of a bloom record, or of a large segment
        std::size_t firstRun = 0;
        std::size_t endOfRuns = 0;
    };

    std::vector<Scanned> records;
    std::vector<Run> runs;
    std::uint64_t bytes = 0;      // of the records
    std::uint64_t mostTuples = 0; // of the records
    // Records of this batch and of earlier ones, if the stream has exchanged it.
    RecordStream::Buffer buffer;

    // Reads the records. Throws: Failure.
    void Read(Question const& question, TupleSink& sink);
    // Removes everything but the memory for records and runs.
    void Clear();
};

// Returns: the tuple of a segment record.
SegmentTuple TupleOf(Record const& segmentRecord);

} // namespace crrecord::tool
