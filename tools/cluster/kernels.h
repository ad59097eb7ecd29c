// The tasks of whole-store questions on many machines. Each is a function over files: it reads records or work files,
// and writes one work file.
//
// Scans divide a store into pieces, and each piece by containers into partitions: a keyed hash of the container
// determines the partition. So a partition has all tuples and sums of its containers, and the reports need only merge
// the partitions in the order of their output.
//
// Each function throws Failure, with the name of the file that cannot be read or written, or is damaged.

#pragma once

#include "cluster/work_file.h"
#include "io/failure.h"
#include "io/record_stream.h"
#include "store/claimed_bytes.h"
#include "store/partitions.h"
#include "store/question.h"

namespace crrecord::tool {

struct PieceTask {
    std::vector<FilePart> parts;
    bool isScan = false; // search for records after bytes that are none
    // The sum of the sizes that the records of earlier pieces claim.
    std::uint64_t claimed = 0;
    WorkName output;
};

struct Partitioning {
    std::uint32_t partitions = 1;
    std::uint64_t key = 0; // of the hash, random
};

// What a later piece depends on.
struct PieceOutcome {
    std::uint64_t claimed = 0; // by the records of this piece
    bool isRefused = false;    // a record claims more than its sum may be
};

// `cache` is the number of containers whose fetches are counted, or 0.
PieceOutcome ScanStorePiece(PieceTask const& task, Question const& question, std::uint64_t cache,
                            Partitioning const& partitioning);
PieceOutcome ScanLostPiece(PieceTask const& task, std::vector<std::uint64_t> const& containers);
PieceOutcome ValidatePiece(PieceTask const& task, bool firstOnly, bool badOnly);

// Returns: the outcome of a piece that was written before. Throws: Failure also if the file does not exist.
PieceOutcome OutcomeOf(WorkName const& piece);

struct PartitionTask {
    std::string folder;
    std::vector<std::string> pieces; // names, in the order of their records
    std::uint32_t partition = 0;
    bool isByFirstUse = false; // the order of the rows; otherwise by DCID
    PartitionOptions options;
    WorkName output;
};

// Writes the sums of the containers of a partition.
void TotalPartition(PartitionTask const& task);

struct ReportTask {
    std::string folder;
    std::vector<std::string> pieces;     // names, in the order of their records
    std::vector<std::string> partitions; // names
    int out;                             // descriptor for the lines
    int error;                           // descriptor for messages
};

// Each prints the output of a verb with --json. Returns: the exit status of the command.
ExitCode ReportLive(ReportTask const& task, unsigned int sparsePercent);
ExitCode ReportFreed(ReportTask const& task);
ExitCode ReportRecall(ReportTask const& task, std::uint64_t cache);
ExitCode ReportLost(ReportTask const& task);
ExitCode ReportValidation(ReportTask const& task, std::uint64_t files);

} // namespace crrecord::tool
