// Work on the records of a stream in several threads. What it prints is in the order of the records.

#pragma once

#include "io/failure.h"
#include "io/pipeline.h"
#include "io/signals.h"
#include "record/record_findings.h"

#include <optional>

namespace crrecord::tool {

// Output of the work on consecutive records.
struct RecordPart {
    explicit RecordPart(Output::PartOf of) : out(of) {}

    // Validates a record. Its first error is a complaint. Returns: true for a valid record.
    bool Check(std::string_view file, Record const& record) {
        if (Diagnose(record, Depth::FirstError, findings)) {
            return true;
        }
        complaints.push_back(Describe(file, record, findings.front()));
        result = ExitCode::BadRecord;
        return false;
    }

    // Moves the output to the verb's output.
    void Emit() {
        for (std::string const& complaint : complaints) {
            Complain(complaint);
        }
        complaints.clear();
        out.Flush();
    }

    Output out;
    std::vector<std::string> complaints; // for standard error
    std::vector<Finding> findings;       // of the last record
    ExitCode result = ExitCode::AllWell;
};

// Reads a stream and copies its records to batches. Threads work on batches, and the calling thread uses them in order.
// Errors of the stream, and exceptions of the work, come after what precedes them is used.
//
// The calling thread works alone on a record that is a gap, because only the stream has its other bytes and reports it,
// and on one that is very large: a part that is used at once needs no memory for its whole output.
//
// Memory: 2 * jobs + 1 batches of less than kBatch + kLargest bytes, and their output.
template <class Part>
class ParallelRecords {
public:
    static constexpr std::size_t kBatch = 128UL * 1024;
    static constexpr std::size_t kLargest = kBatch; // a record in a batch

    struct Steps {
        // Returns: a new part of the verb's output.
        std::function<std::unique_ptr<Part>(Output::PartOf of)> make;
        // Works on a record, which it may change. Several threads call it, each with its own part. Returns: false to
        // end after this record.
        std::function<bool(Record& record, Part& part)> work;
        // Uses and empties what a part has beyond its base, which was emitted. The calling thread calls it.
        std::function<void(Part& part)> use = [](Part&) {};
    };

    ParallelRecords(RecordStream& stream, unsigned int jobs, Output& out, Steps steps)
        : stream_(stream), jobs_(jobs), out_(out), steps_(std::move(steps)) {}

    // Returns: the greatest exit code of the parts. Throws: InputFailure, and what the steps throw.
    ExitCode Run() {
        while (Record* const record = Read()) {
            if (jobs_ <= 1 || stream_.IsInGap() || record->size > kLargest) {
                Finish();
                if (!ended_) {
                    WorkAlone(*record);
                }
            } else {
                Append(*record);
            }
            if (ended_) {
                return result_;
            }
        }
        Finish();
        return result_;
    }

private:
    struct Batch {
        std::vector<unsigned char> bytes;
        std::vector<Record> records;
        std::unique_ptr<Part> part;
        bool isLast = false;
        std::exception_ptr error; // of the work; later records of the batch are skipped
    };

    Record* Read() {
        try {
            return stream_.Next();
        } catch (InputFailure const&) {
            Finish();
            throw;
        }
    }

    void Append(Record const& record) {
        if (Current().bytes.size() + record.size > kBatch && !Current().records.empty()) {
            Submit();
        }
        Batch& batch = Current();
        batch.bytes.reserve(kBatch); // also for the record of an empty input, whose bytes must not be null
        batch.bytes.insert(batch.bytes.end(), record.bytes, record.bytes + record.size);
        batch.records.push_back(record);
    }

    Batch& Current() {
        if (!current_) {
            current_ = pipeline_ ? &pipeline_->Next() : &first_;
        }
        return *current_;
    }

    // Passes the batch to the threads, which the second batch of an input starts.
    void Submit() {
        if (!pipeline_) {
            // Signals go to the calling thread, which may have blocked them.
            EndersBlocked const blocked;
            pipeline_.emplace(
                jobs_, [this](Batch& batch) { Work(batch); }, [this](Batch& batch) { Use(batch); });
            std::swap(pipeline_->Next(), first_);
        }
        current_ = nullptr;
        pipeline_->Submit();
    }

    // Returns after all records so far are used.
    void Finish() {
        if (pipeline_) {
            if (current_ && !current_->records.empty()) {
                Submit();
            }
            pipeline_->Finish();
        } else if (!first_.records.empty()) {
            Work(first_);
            Use(first_);
        }
    }

    void Work(Batch& batch) {
        if (!batch.part) {
            batch.part = steps_.make({out_, false});
        }
        try {
            unsigned char* bytes = batch.bytes.data();
            for (Record& record : batch.records) {
                record.bytes = bytes;
                bytes += record.size;
                if (!steps_.work(record, *batch.part)) {
                    batch.isLast = true;
                    return;
                }
            }
        } catch (...) {
            batch.error = std::current_exception();
        }
    }

    void Use(Batch& batch) {
        if (ended_) {
            return;
        }
        ended_ = batch.isLast || batch.error;
        UsePart(*batch.part);
        batch.bytes.clear();
        batch.records.clear();
        if (batch.error) {
            std::rethrow_exception(batch.error);
        }
    }

    void UsePart(Part& part) {
        part.Emit();
        result_ = std::max(result_, part.result);
        steps_.use(part);
    }

    void WorkAlone(Record& record) {
        if (!alone_) {
            alone_ = steps_.make({out_, true});
        }
        try {
            ended_ = !steps_.work(record, *alone_);
        } catch (...) {
            UsePart(*alone_);
            throw;
        }
        UsePart(*alone_);
    }

    RecordStream& stream_;
    unsigned int jobs_;
    Output& out_;
    Steps steps_;
    std::unique_ptr<Part> alone_;
    Batch first_;
    Batch* current_ = nullptr; // the one that is being filled
    bool ended_ = false;       // a step ended the work, or failed
    ExitCode result_ = ExitCode::AllWell;
    std::optional<Pipeline<Batch>> pipeline_; // the last member: its threads use the others
};

// For verbs whose parts have no more than the base.
inline ExitCode WorkOnRecords(RecordStream& stream, unsigned int jobs, Output& out,
                              std::function<bool(Record&, RecordPart&)> work) {
    return ParallelRecords<RecordPart>(
               stream, jobs, out,
               {.make = [](Output::PartOf of) { return std::make_unique<RecordPart>(of); }, .work = std::move(work)})
        .Run();
}

} // namespace crrecord::tool
