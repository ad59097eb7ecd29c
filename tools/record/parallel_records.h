// Work on the records of a stream in several threads. What it prints is in the order of the records.

#pragma once

#include "io/failure.h"
#include "io/pipeline.h"
#include "io/signals.h"
#include "record/record_findings.h"

#include <atomic>
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
        complaints.push_back({out.Size(), Describe(file, record, findings.front())});
        result = ExitCode::BadRecord;
        return false;
    }

    // Moves the output to the verb's output. Each complaint comes after the output that preceded it.
    void Emit() {
        for (auto const& [position, text] : complaints) {
            out.FlushTo(position);
            Complain(text);
        }
        complaints.clear();
        out.Flush();
    }

    struct Complaint {
        std::uint64_t position; // in the output
        std::string text;
    };

    Output out;
    std::vector<Complaint> complaints; // for standard error
    std::vector<Finding> findings;     // of the last record
    ExitCode result = ExitCode::AllWell;
};

// Reads a stream in batches of records. Threads work on batches, and one thread at a time uses them in order. Errors of
// the stream, and exceptions of the work, come after what precedes them is used.
//
// A batch has the buffer into which its records were read. The calling thread works alone on a record that is a gap,
// because only the stream has its other bytes and reports it, and on one that is very large: a part that is used at
// once needs no memory for its whole output.
//
// Memory: jobs * Steps::largest bytes or 2 * jobs + 1 buffers of the stream, and their output.
template <class Part>
class ParallelRecords {
public:
    struct Steps {
        // Returns: a new part of the verb's output.
        std::function<std::unique_ptr<Part>(Output::PartOf of)> make;
        // Works on a record, which it may change. Several threads call it, each with its own part. Returns: false to
        // end after this record.
        std::function<bool(Record& record, Part& part)> work;
        // Uses and empties what a part has beyond its base, which was emitted. One thread at a time calls it.
        std::function<void(Part& part)> use = [](Part&) {};
        // The size of the largest record in a batch. The output of so many bytes must fit into memory several times.
        std::uint64_t largest = 2UL * 1024 * 1024;
    };

    ParallelRecords(RecordStream& stream, unsigned int jobs, Output& out, Steps steps)
        : stream_(stream), jobs_(jobs), out_(out), steps_(std::move(steps)) {
        if (jobs_ > 1) {
            stream_.ReleaseWith([this] { Release(); });
        }
    }

    ~ParallelRecords() { stream_.ReleaseWith(nullptr); }

    ParallelRecords(ParallelRecords const&) = delete;
    ParallelRecords& operator=(ParallelRecords const&) = delete;

    // Returns: the greatest exit code of the parts. Throws: InputFailure, and what the steps throw.
    ExitCode Run() {
        while (Record* const record = Read()) {
            if (jobs_ <= 1 || stream_.IsInGap() || record->size > steps_.largest) {
                FinishInPlace();
                if (!ended_) {
                    WorkAlone(*record);
                }
            } else {
                Current().records.push_back(*record);
            }
            if (ended_) {
                break;
            }
        }
        if (!ended_ && pipeline_) {
            Release();
        }
        FinishInPlace();
        return result_;
    }

private:
    struct Batch {
        RecordStream::Buffer buffer; // with the bytes of the records
        std::vector<Record> records;
        std::unique_ptr<Part> part;
        std::uint64_t size = 0; // of the records
        bool isLast = false;
        std::exception_ptr error; // of the work; later records of the batch are skipped
    };

    // Returns: null also after a record that ends the work.
    Record* Read() {
        try {
            return stream_.Next();
        } catch (InputFailure const&) {
            FinishInPlace();
            if (ended_) {
                return nullptr;
            }
            throw;
        }
    }

    Batch& Current() {
        if (!current_) {
            current_ = pipeline_ ? &pipeline_->Next() : &first_;
        }
        return *current_;
    }

    // Passes the current batch to the threads, which the second batch of an input starts.
    void Release() {
        if (!current_ || current_->records.empty()) {
            return;
        }
        Record const& last = current_->records.back();
        std::uint64_t const size = last.offset + last.size - current_->records.front().offset;
        while (inUse_ != 0 && inUse_ + size > jobs_ * steps_.largest && pipeline_->FinishOne()) {}
        if (!stream_.ExchangeBuffer(current_->buffer)) {
            FinishInPlace();
            return;
        }
        if (!pipeline_) {
            // Signals go to the calling thread, which may have blocked them.
            EndersBlocked const blocked(SIGPIPE);
            pipeline_.emplace(
                jobs_, [this](Batch& batch) { Work(batch); }, [this](Batch& batch) { Use(batch); }, UsedBy::AnyThread);
            current_ = &pipeline_->Next();
            std::swap(*current_, first_);
        }
        current_->size = size;
        inUse_ += size;
        current_ = nullptr;
        pipeline_->Submit();
    }

    // Returns after all records so far are used, the last ones in the stream's buffer.
    void FinishInPlace() {
        if (pipeline_) {
            pipeline_->Finish();
        }
        if (!ended_ && current_ && !current_->records.empty()) {
            Work(*current_);
            Use(*current_);
        }
    }

    void Work(Batch& batch) {
        if (!batch.part) {
            batch.part = steps_.make({out_, false});
        }
        try {
            for (Record& record : batch.records) {
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
        UsePart(*batch.part);
        batch.records.clear();
        inUse_ -= std::exchange(batch.size, 0);
        if (batch.buffer.capacity > kReadBlock) { // large output has grown a large part
            batch.buffer = {};
            batch.part.reset();
        }
        ended_ = batch.isLast;
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
    Batch* current_ = nullptr;        // the one that is being filled
    std::atomic<bool> ended_ = false; // a step ended the work
    ExitCode result_ = ExitCode::AllWell;
    std::atomic<std::uint64_t> inUse_ = 0;    // bytes of submitted records
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
