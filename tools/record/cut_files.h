// Cuts many files. Segments of many small files are hashed together, on all processors.

#pragma once

#include "io/pipeline.h"
#include "record/cut_batch.h"

namespace crrecord::tool {

// Memory: 2 MiB for each batch, two for each of at most 8 threads, and what Cut takes for a large file.
class FilesCutter {
public:
    // Called for each file, in order and on this thread. The segments have no containers yet. Must not throw
    // InputFailure.
    using Use = std::function<void(std::string const& name, CutTotals const&, std::span<CutSegment>)>;

    FilesCutter(CutOptions const& options, Holes holes, Use use);

    // Reads a file to its end, and passes it to `use` now or later.
    // Throws: InputFailure if it cannot be read: it is not passed to `use`, and the others are.
    void Add(Input& input);
    // Call it after the last file.
    void Finish();

private:
    struct File {
        std::string name;
        std::size_t firstSegment; // of the batch
        CutTotals totals;
    };
    struct FileBatch {
        CutBatch cut; // the files, one after the other
        std::vector<File> files;
        bool atOnce = false;
    };

    bool IsSmall(Input const& input) const;
    void AddSmall(Input& input);
    void Submit();
    void Digest(FileBatch& batch) const;
    void UseBatch(FileBatch& batch);

    CutOptions const& options_;
    Holes holes_;
    Use use_;
    FileBatch* batch_ = nullptr; // the one being filled
    std::uint64_t batches_ = 0;
    std::uint64_t bytes_ = 0; // of all small files
    std::optional<bool> atOnce_;
    std::vector<CutSegment> segments_; // of a large file
    Pipeline<FileBatch> pipeline_;     // the last member: its threads use the others
};

} // namespace crrecord::tool
